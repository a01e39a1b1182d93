#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QObject>

namespace Korvane {

// The plain QObject base of the library's objects.
class KORVANEBASE_EXPORT BasicObject : public QObject
{
    Q_OBJECT
public:
    explicit BasicObject(QObject* parent = nullptr);
    ~BasicObject() override;
};

} // namespace Korvane
