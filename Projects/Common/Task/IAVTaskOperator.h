#pragma once

#include "Common/Task/TaskExport.h"

#include <QSharedPointer>
#include <QString>
#include <QVariantMap>

namespace Korvane {

class IAVTask;

// Performs the work of one task. Not a QObject: implementations derive from
// BasicObject first and this interface second, and are handed out in
// QObject-aware QSharedPointers. Failures are reported by start()'s result
// and by the task's state on its bus, never by exceptions.
class KORVANETASK_EXPORT IAVTaskOperator
{
public:
    virtual ~IAVTaskOperator();
    // False when the work could not begin.
    virtual bool start() = 0;
    virtual void pause() = 0;
    virtual void resume() = 0;
    virtual void stop() = 0;
    virtual QSharedPointer<IAVTask> task() = 0;
    virtual void cleanup() = 0;
    virtual QString errorString() = 0;
    // Descriptive entries; may be empty.
    virtual QVariantMap operatorInfo() = 0;
};

} // namespace Korvane
