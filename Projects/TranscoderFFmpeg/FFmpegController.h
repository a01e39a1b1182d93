#pragma once

#include "Common/Task/IAVTaskOperator.h"
#include "Common/Task/TaskTypes.h"
#include "KorvaneBase/BasicObject.h"
#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QSharedPointer>
#include <QString>
#include <QVariantMap>

namespace Korvane {

class IAVTask;
class KvFFmpegOperator;

// The operator the exported factories hand to the host. It runs the job with
// a KvFFmpegOperator and, when that cannot start or ends in failure, switches
// once and silently to an out-of-process fallback: the host's converter when
// it can take the job as it is, else the export engine fed with a timeline
// project document. Every state and progress report reaches the task's bus;
// a failed ffmpeg attempt never does. A job whose output is the same file as
// one of its inputs gets no fallback: the bus sees 6 at once.
//
// The ffmpeg operator's reports arrive through queued connections, so they
// are handled on the controller's thread after start() has returned. The
// controller owns the task, the ffmpeg operator while it runs and the
// fallback operator once there is one. It lives on the thread that created
// it, which must run an event loop.
class TRANSCODERFFMPEG_EXPORT FFmpegController : public BasicObject, public IAVTaskOperator
{
    Q_OBJECT
public:
    explicit FFmpegController(const QSharedPointer<IAVTask>& task);
    ~FFmpegController() override;

    // Always true: when the ffmpeg operator cannot start, the fallback has
    // already been started (or has reported 6) by the time this returns.
    bool start() override;
    // Only the fallback can pause.
    void pause() override;
    void resume() override;
    // Stops whichever operator runs.
    void stop() override;
    QSharedPointer<IAVTask> task() override;
    void cleanup() override;
    QString errorString() override;
    // Empty.
    QVariantMap operatorInfo() override;

public Q_SLOTS:
    // Relay the fallback operator, whose task is another object.
    void onTaskStateChanged(Korvane::TaskState state, int errorCode);
    void onTaskProgress(Korvane::TaskProgressType type, double progress);
    void onFFmpegTaskStateChanged(int status);
    void onFFmpegTaskProgress(double progress);

private:
    void codecConvert();
    void dropFFmpegOperator();
    void reportState(TaskState state, int errorCode);

    QSharedPointer<IAVTask> mTask;
    QSharedPointer<IAVTaskOperator> mFallbackOperator;
    QSharedPointer<KvFFmpegOperator> mFFmpegOperator;
};

} // namespace Korvane
