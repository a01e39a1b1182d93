#include "TranscoderFFmpeg/KvFFmpegOperator.h"

#include "Common/Records/JobInputs.h"
#include "Common/Records/OutputRules.h"
#include "KorvaneBase/ChildProcess.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneBase/ProgramLocation.h"
#include "KorvaneDec/FFDemuxer.h"
#include "TranscoderFFmpeg/FFmpegArguments.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"
#include "TranscoderFFmpeg/GpuBackend.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QMetaEnum>
#include <QTimer>
#include <QUuid>

#include <atomic>
#include <cstdio>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace Korvane {
namespace {

Q_LOGGING_CATEGORY(lcOperator, "korvane.transcoder.operator")

const char* const kSourceFile = "Projects/TranscoderFFmpeg/KvFFmpegOperator";
constexpr int kPollIntervalMs = 500;

// Set while an ffmpeg run is active; read from any thread by
// isHardwareTranscode. Deliberately one flag shared by all operators, as the
// host knows it: a start sets it and the end or stop of any run clears it, so
// with runs overlapping the first run to end already clears it.
std::atomic<bool> transcodeRunning{false};

} // namespace

KvFFmpegOperator::KvFFmpegOperator(const QSharedPointer<IAVTask>& task)
    : BasicObject(nullptr), mTask(task), mReporter(task),
      // The first group of the braced form: characters 1 to 8.
      mTempName(QUuid::createUuid().toString().mid(1, 8)), mRelease(this, [this] { mSelf.reset(); })
{}

KvFFmpegOperator::~KvFFmpegOperator()
{
    // Only an operator that no shared pointer owns can go while ffmpeg runs.
    // The process must not report to a half-destroyed object.
    if (mProcess && mProcess->state() != QProcess::NotRunning) {
        mProcess->disconnect(this);
        mProcess->kill();
        mProcess->waitForFinished();
    }
    if (mRunning) {
        setRunning(false);
    }
    // The progress file is kept while the operator lives; once it is gone
    // nobody reads it, and left behind it would pile up in the cache.
    if (mProgressFile) {
        mProgressFile->close();
        mProgressFile->remove();
    }
}

bool KvFFmpegOperator::isTranscodeRunning()
{
    return transcodeRunning.load();
}

void KvFFmpegOperator::setRunning(bool running)
{
    mRunning = running;
    transcodeRunning.store(running);
}

QString KvFFmpegOperator::ffmpegProgram()
{
    return locateProgram(QStringLiteral("kFFmpeg_Path"), QStringLiteral("ffmpeg"));
}

QString KvFFmpegOperator::progressFilePath() const
{
    const QString folder = cacheFolder(QStringLiteral("KvFFmpeg/.temp"));
    QDir().mkpath(folder);
    return QDir(folder).filePath(mTempName);
}

bool KvFFmpegOperator::start()
{
    const ConvertSource* source = mReporter.source();
    const AVTaskOutputParam* output = mReporter.outputParam();
    if (!source || !output) {
        return false;
    }
    if (refusedJob(*source, *output)) {
        return true;
    }
    if (!probeInput(source->filePath)) {
        return false;
    }
    const QString progressPath = prepareRun();
    const QStringList arguments = makeFFmpegCommand(*source, *output, progressPath, mCommandOption);
    if (arguments.isEmpty()) {
        mPollTimer->stop();
        return false;
    }
    const QString outputDir = QFileInfo(output->outputPath).dir().absolutePath();
    if (!QDir(outputDir).exists()) {
        QDir().mkpath(outputDir);
    }
    return launch(arguments);
}

bool KvFFmpegOperator::refusedJob(const ConvertSource& source, const AVTaskOutputParam& output)
{
    // Job text reaches ffmpeg's arguments: a name that is not plain could
    // smuggle in options (reading or writing any file), so the run ends here.
    const QString invalidField = invalidOutputField(output);
    if (!invalidField.isEmpty()) {
        refuse(__LINE__, QStringLiteral("invalid job field: %1").arg(invalidField));
        return true;
    }
    // ffmpeg runs with -y: an output that is one of the job's inputs would be
    // truncated before a frame is read, and removed when the run then fails.
    const QString overwritten = inputOverwrittenBy(source, output.outputPath);
    if (!overwritten.isEmpty()) {
        refuse(__LINE__, QStringLiteral("output equals input, refused: \"%1\" is the input \"%2\"")
                             .arg(output.outputPath, overwritten));
        return true;
    }
    return false;
}

bool KvFFmpegOperator::probeInput(const QString& path)
{
    FFDemuxer demuxer;
    if (!demuxer.open(path)) {
        return false;
    }
    const auto info = demuxer.mediaInfo();
    if (!info) {
        return false;
    }
    mDurationMs = info->durationMs;
    if (!info->streams.isEmpty()) {
        const int codecId = info->streams.first()->codecId;
        if (codecId == AV_CODEC_ID_H264) {
            mDecoderName = QStringLiteral("H264");
        } else if (codecId == AV_CODEC_ID_HEVC) {
            mDecoderName = QStringLiteral("HEVC");
        }
    }
    return true;
}

QString KvFFmpegOperator::prepareRun()
{
    mProcess = std::make_unique<QProcess>();
    mElapsed = std::make_unique<QElapsedTimer>();
    mElapsed->start();
    const QString progressPath = progressFilePath();
    mProgressFile = std::make_unique<QFile>(progressPath);
    QFile::remove(progressPath);
    connect(mProgressFile.get(), SIGNAL(readyRead()), this, SLOT(onReadyRead_win()));

    mPollTimer = std::make_unique<QTimer>();
    mPollTimer->setSingleShot(false);
    connect(mPollTimer.get(), &QTimer::timeout, this, [this] { pollProgress(); });
    mPollTimer->start(kPollIntervalMs);

    connect(mProcess.get(), SIGNAL(finished(int, QProcess::ExitStatus)), this,
            SLOT(onFinished(int, QProcess::ExitStatus)));
    connect(mProcess.get(), SIGNAL(readyReadStandardError()), this,
            SLOT(onReadyReadStandardError()));
    return progressPath;
}

bool KvFFmpegOperator::launch(const QStringList& arguments)
{
    // The builder quotes paths itself, so the arguments are joined as they are.
    const QString program = ffmpegProgram();
    const QString commandLine =
        QLatin1Char('"') + program + QStringLiteral("\" ") + arguments.join(QLatin1Char(' '));
    fprintf(stderr, "execute cmd: %s\n", commandLine.toLocal8Bit().constData());
    qCDebug(lcOperator).noquote() << "execute cmd:" << commandLine;

    setRunning(true);
    // Never a shell, and never a re-split of the joined line: only the
    // builder's own paired elements become two arguments.
    startChildProcess(*mProcess, program, ffmpegProgramArguments(arguments), QIODevice::ReadWrite);
    if (!mProcess->waitForStarted()) {
        Record("Korvane::KvFFmpegOperator::start", __LINE__, kSourceFile, this, 0)
            << "ffmpeg cannot be started: " << mProcess->errorString();
        setRunning(false);
        mPollTimer->stop();
        return false;
    }
    mSelf = sharedFromThis();
    mReporter.recordState(TaskState::Started);
    emit ffmpegTaskStateChanged(int(TaskState::Started));
    return true;
}

void KvFFmpegOperator::refuse(int line, const QString& reason)
{
    Record("Korvane::KvFFmpegOperator::start", line, kSourceFile, this, 0) << reason;
    mReporter.recordState(TaskState::Failed);
    emit ffmpegTaskStateChanged(int(TaskState::Failed));
}

void KvFFmpegOperator::pause() {}

void KvFFmpegOperator::resume() {}

void KvFFmpegOperator::stop()
{
    if (mProcess) {
        mProcess->kill();
    }
    if (mPollTimer) {
        // stop() may be reached from a slot of this timer's own poll.
        mPollTimer->stop();
        mPollTimer.release()->deleteLater();
    }
    mStopped = true;
    mReporter.recordState(TaskState::Stopped);
    setRunning(false);
    emit ffmpegTaskStateChanged(int(TaskState::Stopped));
}

QSharedPointer<IAVTask> KvFFmpegOperator::task()
{
    return mTask;
}

void KvFFmpegOperator::cleanup() {}

QString KvFFmpegOperator::errorString()
{
    return QString();
}

QVariantMap KvFFmpegOperator::operatorInfo()
{
    QString encoderName = mDecoderName;
    const AVTaskOutputParam* output = mReporter.outputParam();
    if (output && output->acceleration.hardwareEnabled) {
        const GpuBackend* gpu = gpuBackendFor(output->acceleration.gpuName);
        encoderName = gpu ? gpu->encoder(mDecoderName) : QString();
    }
    return {
        {QStringLiteral("operatorName"), QStringLiteral("ConvertGpuOperator")},
        {QStringLiteral("decoderName"), mDecoderName},
        {QStringLiteral("encoderName"), encoderName},
        {QStringLiteral("processMode"), QStringLiteral("FFMPEG Mode")},
    };
}

void KvFFmpegOperator::pollProgress()
{
    if (!mProgressFile) {
        return;
    }
    if (!mProgressFile->isOpen()) {
        // ffmpeg creates the file with its first report.
        if (!mProgressFile->exists()) {
            return;
        }
        if (!mProgressFile->open(QIODevice::ReadOnly | QIODevice::Text)) {
            qCDebug(lcOperator) << "open file failed...";
            return;
        }
        qCDebug(lcOperator) << "open file success";
    }
    onReadyRead_win();
}

void KvFFmpegOperator::onReadyRead_win()
{
    if (!mProgressFile || !mProgressFile->isOpen()) {
        return;
    }
    // The file stays open, so each read continues where the last one stopped.
    // A line ffmpeg is half-way through (a torn "progress=end" would lose the
    // end marker) waits in the buffer for the next poll.
    mProgressBuffer += mProgressFile->readAll();
    for (const QByteArray& raw : takeLines(mProgressBuffer)) {
        const QString line = QString::fromUtf8(raw);
        const float value = parseProgressLine(line, mDurationMs);
        if (value > 0 && double(value) != mTask->progress()) {
            mReporter.recordProgress(value);
            mReporter.recordState(TaskState::Running);
            emit ffmpegTaskProgress(value);
        }
        if (isProgressEnd(line)) {
            mEndSeen = true;
        }
    }
}

void KvFFmpegOperator::onReadyReadStandardError()
{
    // Only errors reach this stream ("-v error"); the text stays buffered for onFinished.
    Record("Korvane::KvFFmpegOperator::onReadyReadStandardError", __LINE__, kSourceFile, this, 0)
        << "some error output ready, terminate ffmpeg";
    if (mProcess) {
        mProcess->kill();
    }
}

void KvFFmpegOperator::onFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    qCDebug(lcOperator).nospace() << "exit code: " << exitCode << ", status: "
                                  << QMetaEnum::fromType<QProcess::ExitStatus>().valueToKey(
                                         exitStatus);
    if (!mStopped) {
        pollProgress();
    }
    if (mPollTimer) {
        mPollTimer->stop();
    }

    bool errorsSeen = false;
    const QString errorText = QString::fromUtf8(mProcess->readAllStandardError());
    if (!errorText.isEmpty()) {
        errorsSeen = true;
        Record("Korvane::KvFFmpegOperator::onFinished", __LINE__, kSourceFile, this, 0)
            << "ffmpeg cnv failed: " << errorText;
    }

    const QString outputPath = mTask->outputPath();
    if (exitCode != 0) {
        // Also after stop(): the killed process reports 6 after the 4.
        setRunning(false);
        mReporter.recordState(TaskState::Failed);
        emit ffmpegTaskStateChanged(int(TaskState::Failed));
        QFile::remove(outputPath);
        releaseSelf();
        return;
    }

    mProcess.release()->deleteLater();
    if (mEndSeen && !errorsSeen) {
        mReporter.recordState(TaskState::Finished);
        emit ffmpegTaskStateChanged(int(TaskState::Finished));
    } else {
        qCDebug(lcOperator) << "cannot read end.";
        if (!mStopped) {
            mReporter.recordState(TaskState::Failed);
            emit ffmpegTaskStateChanged(int(TaskState::Failed));
        }
    }
    releaseSelf();
    setRunning(false);
}

void KvFFmpegOperator::releaseSelf()
{
    // The run ends inside a signal of the process this object owns. Were this
    // the last reference, destroying the operator here would delete the process
    // under its own emission, so the reference is let go from the event loop.
    if (mSelf) {
        mRelease.post();
    }
}

} // namespace Korvane
