#include "TranscoderFFmpeg/FFmpegController.h"

#include "Common/Records/JobInputs.h"
#include "Common/Records/JsonForms.h"
#include "Common/Records/TimelineOptions.h"
#include "Common/Support/ConvertSourceHelper.h"
#include "Common/Task/TaskReporter.h"
#include "Common/Task/TaskSignalBus.h"
#include "Common/Timeline/TimelineProject.h"
#include "KorvaneBase/Record.h"
#include "KvExportHost/KvExportHost.h"
#include "KvTaskIPC/KvTaskIPC.h"
#include "TranscoderFFmpeg/KvFFmpegOperator.h"

#include <QDebug>
#include <QLoggingCategory>

namespace Korvane {
namespace {

Q_LOGGING_CATEGORY(lcController, "korvane.transcoder.controller")

const char* const kSourceFile = "Projects/TranscoderFFmpeg/FFmpegController";
} // namespace

FFmpegController::FFmpegController(const QSharedPointer<IAVTask>& task)
    : BasicObject(nullptr), mTask(task)
{
    Record("Korvane::FFmpegController::FFmpegController", __LINE__, kSourceFile, this, 0)
        << "FFmpegController";
}

FFmpegController::~FFmpegController()
{
    Record("Korvane::FFmpegController::~FFmpegController", __LINE__, kSourceFile, this, 0)
        << "~FFmpegController";
    if (mFallbackOperator && mFallbackOperator->task()) {
        const QSharedPointer<TaskSignalBus> bus = mFallbackOperator->task()->signalBus();
        QObject::disconnect(bus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int)), this,
                            SLOT(onTaskStateChanged(Korvane::TaskState, int)));
        QObject::disconnect(bus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)),
                            this, SLOT(onTaskProgress(Korvane::TaskProgressType, double)));
    }
}

bool FFmpegController::start()
{
    dropFFmpegOperator();
    mFFmpegOperator = QSharedPointer<KvFFmpegOperator>(new KvFFmpegOperator(mTask));
    // Queued on purpose: reports reach the controller through the event loop,
    // after start() has returned.
    connect(mFFmpegOperator.data(), SIGNAL(ffmpegTaskStateChanged(int)), this,
            SLOT(onFFmpegTaskStateChanged(int)), Qt::QueuedConnection);
    connect(mFFmpegOperator.data(), SIGNAL(ffmpegTaskProgress(double)), this,
            SLOT(onFFmpegTaskProgress(double)), Qt::QueuedConnection);
    if (!mFFmpegOperator->start()) {
        // Released first, so that stop() reaches the fallback and not the
        // operator that never ran.
        dropFFmpegOperator();
        codecConvert();
    }
    return true;
}

void FFmpegController::pause()
{
    if (mFallbackOperator) {
        mFallbackOperator->pause();
    }
}

void FFmpegController::resume() {}

void FFmpegController::stop()
{
    if (mFFmpegOperator) {
        mFFmpegOperator->stop();
    } else if (mFallbackOperator) {
        mFallbackOperator->stop();
    }
}

QSharedPointer<IAVTask> FFmpegController::task()
{
    return mTask;
}

void FFmpegController::cleanup() {}

QString FFmpegController::errorString()
{
    return QString();
}

QVariantMap FFmpegController::operatorInfo()
{
    return QVariantMap();
}

void FFmpegController::dropFFmpegOperator()
{
    if (!mFFmpegOperator) {
        return;
    }
    disconnect(mFFmpegOperator.data(), SIGNAL(ffmpegTaskStateChanged(int)), this,
               SLOT(onFFmpegTaskStateChanged(int)));
    disconnect(mFFmpegOperator.data(), SIGNAL(ffmpegTaskProgress(double)), this,
               SLOT(onFFmpegTaskProgress(double)));
    mFFmpegOperator.reset();
}

void FFmpegController::reportState(TaskState state, int errorCode)
{
    TaskReporter(mTask).reportState(state, errorCode);
}

void FFmpegController::onTaskStateChanged(Korvane::TaskState state, int errorCode)
{
    reportState(state, errorCode);
}

void FFmpegController::onTaskProgress(Korvane::TaskProgressType type, double progress)
{
    TaskReporter(mTask).reportProgress(type, progress);
}

void FFmpegController::onFFmpegTaskStateChanged(int status)
{
    qCDebug(lcController) << "onFFmpegTaskStateChanged " << status;
    if (status == int(TaskState::Started)) {
        emit mTask->signalBus()->taskStateChanged(TaskState::Started, 0);
        return;
    }
    // From here on the ffmpeg operator is done with: the 6 that a stopped,
    // killed ffmpeg still sends after its 4 no longer arrives here.
    dropFFmpegOperator();
    if (status >= int(TaskState::Failed)) {
        codecConvert();
    } else if (status == int(TaskState::Finished)) {
        emit mTask->signalBus()->taskStateChanged(TaskState::Finished, 0);
    } else if (status == int(TaskState::Stopped)) {
        emit mTask->signalBus()->taskStateChanged(TaskState::Stopped, 0);
    }
}

void FFmpegController::onFFmpegTaskProgress(double progress)
{
    emit mTask->signalBus()->taskProgress(TaskProgressType::Whole, progress);
}

void FFmpegController::codecConvert()
{
    const ConvertSource source = convertSourceFromJson(mTask->sourceJson());
    AVTaskOutputParam outputParam;
    if (const AVTaskOutputParam* output = TaskReporter(mTask).outputParam()) {
        outputParam = *output;
    }
    // The fallback would replace the file it reads.
    const QString overwritten = inputOverwrittenBy(source, outputParam.outputPath);
    if (!overwritten.isEmpty()) {
        Record("Korvane::FFmpegController::codecConvert", __LINE__, kSourceFile, this, 0)
            << QStringLiteral("output equals input, no fallback: \"%1\" is the input \"%2\"")
                   .arg(outputParam.outputPath, overwritten);
        reportState(TaskState::Failed, 0);
        return;
    }

    if (isConverterSourceSupportedByTranscoder(source, QString())) {
        Record("Korvane::FFmpegController::codecConvert", __LINE__, kSourceFile, this, 0)
            << QStringLiteral("Complete convert failed, convert type: Codec Cpu, file, src: %1 "
                              "dst: %2.")
                   .arg(source.filePath, outputParam.outputPath);
        mFallbackOperator = createConverterContainRetryOp_IPC(source, outputParam);
    } else {
        Record("Korvane::FFmpegController::codecConvert", __LINE__, kSourceFile, this, 0)
            << QStringLiteral("Complete convert failed, convert type: Codec Gl, file, src: %1 "
                              "dst: %2.")
                   .arg(source.filePath, outputParam.outputPath);
        const QString projectDocument = makeTimelineProjectJson(
            source, timelineOutputOptions(outputParam, UnsetOutputSize::Passed));
        mFallbackOperator = rawCreateExportOp_IPC(projectDocument, outputParam);
    }

    if (!mFallbackOperator || !mFallbackOperator->task()) {
        reportState(TaskState::Failed, 0);
        return;
    }
    const QSharedPointer<TaskSignalBus> bus = mFallbackOperator->task()->signalBus();
    connect(bus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int)), this,
            SLOT(onTaskStateChanged(Korvane::TaskState, int)));
    connect(bus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)), this,
            SLOT(onTaskProgress(Korvane::TaskProgressType, double)));
    if (!mFallbackOperator->start()) {
        reportState(TaskState::Failed, 0);
    }
}

} // namespace Korvane
