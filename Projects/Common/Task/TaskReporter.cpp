#include "Common/Task/TaskReporter.h"

#include "Common/Task/AVFFmpegTask.h"
#include "Common/Task/TaskSignalBus.h"

namespace Korvane {

TaskReporter::TaskReporter(const QSharedPointer<IAVTask>& task)
    : mTask(task), mOwnTask(dynamic_cast<AVFFmpegTask*>(task.data()))
{}

void TaskReporter::recordState(TaskState state) const
{
    if (mOwnTask) {
        mOwnTask->setState(state);
    }
}

void TaskReporter::recordProgress(double progress) const
{
    if (mOwnTask) {
        mOwnTask->setProgress(progress);
    }
}

void TaskReporter::reportState(TaskState state, int errorCode) const
{
    recordState(state);
    emit mTask->signalBus()->taskStateChanged(state, errorCode);
}

void TaskReporter::reportProgress(TaskProgressType type, double progress) const
{
    recordProgress(progress);
    emit mTask->signalBus()->taskProgress(type, progress);
}

const ConvertSource* TaskReporter::source() const
{
    return mOwnTask ? mOwnTask->source().data() : nullptr;
}

const AVTaskOutputParam* TaskReporter::outputParam() const
{
    return mOwnTask ? mOwnTask->outputParam().data() : nullptr;
}

} // namespace Korvane
