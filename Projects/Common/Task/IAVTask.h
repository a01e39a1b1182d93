#pragma once

#include "Common/Task/TaskExport.h"
#include "Common/Task/TaskTypes.h"

#include <QSharedPointer>
#include <QString>

namespace Korvane {

class TaskSignalBus;

// A conversion as the host sees it: its records, state, progress and bus.
class KORVANETASK_EXPORT IAVTask
{
public:
    virtual ~IAVTask();
    virtual TaskState state() = 0;
    // 0.0 to 1.0 in normal use.
    virtual double progress() = 0;
    // True when the output names a lossless (stream copy) container.
    virtual bool isLossless() = 0;
    // The same bus on every call, created on the first; that first call must
    // come from one thread only.
    virtual QSharedPointer<TaskSignalBus> signalBus() = 0;
    virtual QString outputPath() = 0;
    // convertSourceToJson of the task's source; empty without one.
    virtual QString sourceJson() = 0;
    // outputParamToJson of the task's output record; empty without one.
    virtual QString outputParamJson() = 0;
};

} // namespace Korvane
