#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Task/IAVTask.h"
#include "Common/Task/TaskExport.h"
#include "Common/Task/TaskTypes.h"

#include <QSharedPointer>

namespace Korvane {

class AVFFmpegTask;

// How an operator or controller reports on the task it was given: the task
// records a state or progress value first, then its bus emits it. Only the
// plug-in's own task (AVFFmpegTask) keeps state, progress and its records;
// for any other IAVTask nothing is recorded, the values are only emitted, and
// the records read as null. This is the one place that tells the two apart.
class KORVANETASK_EXPORT TaskReporter
{
public:
    explicit TaskReporter(const QSharedPointer<IAVTask>& task);

    // Record only (for a caller that announces the value its own way).
    void recordState(TaskState state) const;
    void recordProgress(double progress) const;
    // Record, then emit on the task's bus.
    void reportState(TaskState state, int errorCode) const;
    void reportProgress(TaskProgressType type, double progress) const;

    // The task's records, owned by the task; null when it keeps none.
    const ConvertSource* source() const;
    const AVTaskOutputParam* outputParam() const;

private:
    QSharedPointer<IAVTask> mTask;
    AVFFmpegTask* mOwnTask = nullptr; // mTask itself when it is the plug-in's task
};

} // namespace Korvane
