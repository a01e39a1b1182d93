#include "Common/Task/AVFFmpegTask.h"

#include "Common/Records/JsonForms.h"
#include "Common/Task/TaskSignalBus.h"

namespace Korvane {

AVFFmpegTask::AVFFmpegTask(const ConvertSource& source, const AVTaskOutputParam& outputParam)
    : mSource(QSharedPointer<ConvertSource>::create(source)),
      mOutputParam(QSharedPointer<AVTaskOutputParam>::create(outputParam))
{}

AVFFmpegTask::~AVFFmpegTask() = default;

TaskState AVFFmpegTask::state()
{
    return TaskState(mState);
}

double AVFFmpegTask::progress()
{
    return mProgress;
}

bool AVFFmpegTask::isLossless()
{
    return mOutputParam && !mOutputParam->acceleration.losslessFormat.isEmpty();
}

QSharedPointer<TaskSignalBus> AVFFmpegTask::signalBus()
{
    if (!mBus) {
        mBus = QSharedPointer<TaskSignalBus>::create();
    }
    return mBus;
}

QString AVFFmpegTask::outputPath()
{
    return mOutputParam ? mOutputParam->outputPath : QString();
}

QString AVFFmpegTask::sourceJson()
{
    return mSource ? convertSourceToJson(*mSource) : QString();
}

QString AVFFmpegTask::outputParamJson()
{
    return mOutputParam ? outputParamToJson(*mOutputParam) : QString();
}

} // namespace Korvane
