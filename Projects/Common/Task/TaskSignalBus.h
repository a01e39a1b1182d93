#pragma once

#include "Common/Task/TaskExport.h"
#include "Common/Task/TaskTypes.h"

#include <QObject>
#include <QString>

namespace Korvane {

// The two notifications a host listens to for one task. Signals are emitted
// on the thread of the operator that reports. Normalised signatures for
// string-based connections: "taskStateChanged(Korvane::TaskState, int)" and
// "taskProgress(Korvane::TaskProgressType, double)".
class KORVANETASK_EXPORT TaskSignalBus : public QObject
{
    Q_OBJECT
public:
    TaskSignalBus();

Q_SIGNALS:
    void taskStateChanged(Korvane::TaskState state, int errorCode);
    void taskProgress(Korvane::TaskProgressType type, double progress);
    // Declared for the host; this library never emits it.
    void taskProcessMsg(QString msg);
};

} // namespace Korvane
