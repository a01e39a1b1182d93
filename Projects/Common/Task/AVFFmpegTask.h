#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Task/IAVTask.h"
#include "Common/Task/TaskExport.h"

namespace Korvane {

// The task of one conversion job. Holds its own copies of the two records,
// never changed after construction; its operator writes state and progress
// directly (state first, then it emits).
class KORVANETASK_EXPORT AVFFmpegTask : public IAVTask
{
public:
    AVFFmpegTask(const ConvertSource& source, const AVTaskOutputParam& outputParam);
    ~AVFFmpegTask() override;

    TaskState state() override;
    double progress() override;
    bool isLossless() override;
    QSharedPointer<TaskSignalBus> signalBus() override;
    QString outputPath() override;
    QString sourceJson() override;
    QString outputParamJson() override;

    QSharedPointer<ConvertSource> source() const { return mSource; }
    QSharedPointer<AVTaskOutputParam> outputParam() const { return mOutputParam; }
    void setState(TaskState state) { mState = qint32(state); }
    void setProgress(double progress) { mProgress = progress; }

private:
    QSharedPointer<ConvertSource> mSource;
    QSharedPointer<AVTaskOutputParam> mOutputParam;
    QSharedPointer<TaskSignalBus> mBus;
    qint32 mState = 0;
    double mProgress = 0.0;
};

} // namespace Korvane
