#include "KvTaskIPC/WorkerProcessOperator.h"

#include "Common/Task/TaskSignalBus.h"
#include "KorvaneBase/ChildProcess.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneBase/ProgramLocation.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QPointer>
#include <QUuid>

Q_LOGGING_CATEGORY(lcWorkerOperator, "korvane.taskipc.worker")

// A persistent log record of this operator, from the named member function.
#define KV_RECORD(function)                                                                        \
    Record(QStringLiteral("Korvane::WorkerProcessOperator::" function), __LINE__,                  \
           QStringLiteral("Platform/KvTaskIPC/WorkerProcessOperator"), this, 0)

namespace Korvane {

namespace {

// When the file at `path` last changed; invalid when no plain file is there.
QDateTime outputStamp(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() ? info.fileTime(QFileDevice::FileModificationTime) : QDateTime();
}

} // namespace

WorkerProcessOperator::WorkerProcessOperator(QSharedPointer<AVFFmpegTask> task, QString command,
                                             QList<JobFile> jobFiles, int restarts)
    : mTask(std::move(task)), mCommand(std::move(command)), mJobFiles(std::move(jobFiles)),
      mRestarts(restarts), mConclude(this, [this] { concludeRun(); })
{
    // The bus is created lazily without a lock; make it here, on the thread
    // that made the operator, before anyone else asks for it.
    mTask->signalBus();
    mKillTimer.setSingleShot(true);
    connect(&mKillTimer, &QTimer::timeout, this, [this] {
        if (mProcess && mProcess->state() != QProcess::NotRunning) {
            KV_RECORD("stop")
                << QStringLiteral("worker did not end within %1 ms, killing it").arg(kStopGraceMs);
            mProcess->kill();
        }
    });
}

WorkerProcessOperator::~WorkerProcessOperator()
{
    mKillTimer.stop();
    if (mProcess) {
        mProcess->disconnect(this);
        if (mProcess->state() != QProcess::NotRunning) {
            mProcess->write("stop\n");
            if (!mProcess->waitForFinished(kStopGraceMs)) {
                mProcess->kill();
                mProcess->waitForFinished(kStopGraceMs);
            }
        }
        mProcess.reset();
    }
    removeJobFiles();
}

QString WorkerProcessOperator::workerPath()
{
    return locateProgram(QStringLiteral("kWorker_Path"), QStringLiteral("korvane-worker"));
}

QString WorkerProcessOperator::workerJobFolder()
{
    return cacheFolder(QStringLiteral("Korvane/ipc"));
}

bool WorkerProcessOperator::start()
{
    if (mActive) {
        mErrorString = QStringLiteral("a worker already runs for this operator");
        return false;
    }
    mErrorString.clear();
    mStopRequested = false;
    mStartedReported = false;
    mRestartsLeft = mRestarts;
    mProgram = workerPath();
    mOutputStampBefore = outputStamp(mTask->outputPath());

    const QFileInfo program(mProgram);
    if (!program.isFile() || !program.isExecutable()) {
        mErrorString = QStringLiteral("worker program not found: %1").arg(mProgram);
        KV_RECORD("start") << mErrorString;
        return false;
    }
    removeJobFiles();
    sweepStaleJobFiles();
    if (!writeJobFiles() || !launch()) {
        KV_RECORD("start") << mErrorString;
        removeJobFiles();
        return false;
    }
    mActive = true;
    return true;
}

void WorkerProcessOperator::pause() {}

void WorkerProcessOperator::resume() {}

void WorkerProcessOperator::stop()
{
    if (!mActive || mStopRequested) {
        return;
    }
    mStopRequested = true;
    if (mProcess && mProcess->state() != QProcess::NotRunning) {
        KV_RECORD("stop") << "asking the worker to stop";
        mProcess->write("stop\n");
        mKillTimer.start(kStopGraceMs);
    }
}

QSharedPointer<IAVTask> WorkerProcessOperator::task()
{
    return mTask;
}

void WorkerProcessOperator::cleanup()
{
    if (!mActive) {
        removeJobFiles();
    }
}

QString WorkerProcessOperator::errorString()
{
    return mErrorString;
}

QVariantMap WorkerProcessOperator::operatorInfo()
{
    return {
        {QStringLiteral("command"), mCommand},
        {QStringLiteral("workerPath"), mProgram.isEmpty() ? workerPath() : mProgram},
        {QStringLiteral("restarts"), mRestarts},
        {QStringLiteral("runs"), mRuns},
    };
}

void WorkerProcessOperator::sweepStaleJobFiles()
{
    const QDateTime limit = QDateTime::currentDateTimeUtc().addSecs(-kStaleJobFileAgeS);
    const QFileInfoList files =
        QDir(workerJobFolder()).entryInfoList({QStringLiteral("*.json")}, QDir::Files);
    for (const QFileInfo& file : files) {
        if (file.lastModified().toUTC() < limit && QFile::remove(file.filePath())) {
            KV_RECORD("sweepStaleJobFiles") << "removed the stale job file " << file.filePath();
        }
    }
}

bool WorkerProcessOperator::writeJobFiles()
{
    const QString folder = workerJobFolder();
    if (!QDir().mkpath(folder)) {
        mErrorString = QStringLiteral("cannot create the job folder %1").arg(folder);
        return false;
    }
    const QString stem = QUuid::createUuid().toString(QUuid::WithoutBraces);
    for (const JobFile& job : std::as_const(mJobFiles)) {
        QString name = job.option;
        while (name.startsWith(QLatin1Char('-'))) {
            name.remove(0, 1);
        }
        const QString path = QDir(folder).filePath(QStringLiteral("%1-%2.json").arg(stem, name));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            mErrorString =
                QStringLiteral("cannot create the job file %1: %2").arg(path, file.errorString());
            return false;
        }
        mJobPaths.append(path);
        if (file.write(job.content) != job.content.size() || !file.flush()) {
            mErrorString =
                QStringLiteral("cannot write the job file %1: %2").arg(path, file.errorString());
            return false;
        }
    }
    return true;
}

void WorkerProcessOperator::removeJobFiles()
{
    for (const QString& path : std::as_const(mJobPaths)) {
        QFile::remove(path);
    }
    mJobPaths.clear();
}

bool WorkerProcessOperator::launch()
{
    mFinalState = 0;
    mStdoutBuffer.clear();
    mStderrBuffer.clear();

    QStringList arguments{mCommand};
    for (qsizetype i = 0; i < mJobFiles.size(); ++i) {
        arguments << mJobFiles.at(i).option << mJobPaths.at(i);
    }

    mProcess = std::make_unique<QProcess>();
    connect(mProcess.get(), &QProcess::readyReadStandardOutput, this,
            &WorkerProcessOperator::onReadyReadStandardOutput);
    connect(mProcess.get(), &QProcess::readyReadStandardError, this,
            &WorkerProcessOperator::onReadyReadStandardError);
    connect(mProcess.get(), &QProcess::finished, this, &WorkerProcessOperator::onFinished);
    KV_RECORD("launch")
        << QStringLiteral("start worker: %1 %2").arg(mProgram, arguments.join(QLatin1Char(' ')));
    ++mRuns;
    startChildProcess(*mProcess, mProgram, arguments);
    // A start that fails at once is reported here; one that fails later comes
    // through errorOccurred and ends the run from there.
    if (mProcess->state() == QProcess::NotRunning) {
        mErrorString =
            QStringLiteral("cannot start the worker %1: %2").arg(mProgram, mProcess->errorString());
        mProcess.reset();
        return false;
    }
    connect(mProcess.get(), &QProcess::errorOccurred, this,
            &WorkerProcessOperator::onErrorOccurred);
    return true;
}

void WorkerProcessOperator::onReadyReadStandardOutput()
{
    mStdoutBuffer += mProcess->readAllStandardOutput();
    handleLines(takeLines(mStdoutBuffer));
}

bool WorkerProcessOperator::handleLines(const QList<QByteArray>& lines)
{
    // A receiver of the bus may drop this operator while a line is handled.
    const QPointer<WorkerProcessOperator> alive(this);
    for (const QByteArray& line : lines) {
        handleLine(line);
        if (!alive) {
            return false;
        }
    }
    return true;
}

void WorkerProcessOperator::onReadyReadStandardError()
{
    mStderrBuffer += mProcess->readAllStandardError();
    for (const QByteArray& line : takeLines(mStderrBuffer)) {
        KV_RECORD("onReadyReadStandardError") << "worker: " << QString::fromUtf8(line);
    }
}

void WorkerProcessOperator::handleLine(const QByteArray& line)
{
    if (line.trimmed().isEmpty()) {
        return;
    }
    const QJsonDocument document = QJsonDocument::fromJson(line);
    if (!document.isObject() || mFinalState != 0) {
        qCDebug(lcWorkerOperator) << "ignored worker line" << line;
        return;
    }
    const QJsonObject message = document.object();
    const QJsonValue progress = message.value(QLatin1String("progress"));
    if (progress.isDouble()) {
        const double value = progress.toDouble();
        mTask->setProgress(value);
        mTask->setState(TaskState::Running);
        emit mTask->signalBus()->taskProgress(TaskProgressType::Whole, value);
        return;
    }
    const int state = message.value(QLatin1String("state")).toInt(0);
    if (state == int(TaskState::Started)) {
        if (!mStartedReported) {
            mStartedReported = true;
            emitState(TaskState::Started);
        }
    } else if (state >= int(TaskState::Stopped)) {
        mFinalState = state;
        if (state >= int(TaskState::Failed)) {
            const QString error = message.value(QLatin1String("error")).toString();
            mErrorString =
                error.isEmpty() ? QStringLiteral("the worker reported a failure") : error;
            KV_RECORD("handleLine") << "worker failed: " << mErrorString;
        }
        // The worker is done; it should exit on its own, and is killed if
        // it lingers.
        mKillTimer.start(kStopGraceMs);
    } else {
        qCDebug(lcWorkerOperator) << "ignored worker state" << state;
    }
}

void WorkerProcessOperator::onFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    mKillTimer.stop();
    mStdoutBuffer += mProcess->readAllStandardOutput();
    mStdoutBuffer += '\n';
    if (!handleLines(takeLines(mStdoutBuffer))) {
        return;
    }
    mStderrBuffer += mProcess->readAllStandardError();
    mStderrBuffer += '\n';
    for (const QByteArray& line : takeLines(mStderrBuffer)) {
        if (!line.isEmpty()) {
            KV_RECORD("onFinished") << "worker: " << QString::fromUtf8(line);
        }
    }
    qCDebug(lcWorkerOperator) << "worker ended, exit code" << exitCode << "status" << exitStatus;
    if (mFinalState == 0 && !mStopRequested) {
        mErrorString = exitStatus == QProcess::CrashExit
                           ? QStringLiteral("the worker crashed without reporting a result")
                           : QStringLiteral("the worker ended with code %1 without reporting a "
                                            "result")
                                 .arg(exitCode);
        KV_RECORD("onFinished") << mErrorString;
    }
    mConclude.post();
}

void WorkerProcessOperator::onErrorOccurred(QProcess::ProcessError error)
{
    if (error != QProcess::FailedToStart) {
        // Crashes and pipe errors end in finished(), which decides.
        qCDebug(lcWorkerOperator) << "worker process error" << error;
        return;
    }
    // No finished() follows a failed start; a program that cannot be run is
    // not tried again.
    mRestartsLeft = 0;
    mErrorString =
        QStringLiteral("cannot start the worker %1: %2").arg(mProgram, mProcess->errorString());
    KV_RECORD("onErrorOccurred") << mErrorString;
    mConclude.post();
}

void WorkerProcessOperator::concludeRun()
{
    endProcess();
    if (mFinalState == 0 && !mStopRequested && mRestartsLeft > 0) {
        --mRestartsLeft;
        KV_RECORD("concludeRun") << "starting the worker again";
        if (launch()) {
            return;
        }
        KV_RECORD("concludeRun") << mErrorString;
    }
    removeJobFiles();
    mActive = false;
    if (mFinalState == 0) {
        // A worker that died without a word (killed, crashed) had no chance
        // to remove what it had written; half a file must not pass for a
        // result. A file the user had there before the run stays.
        const QString output = mTask->outputPath();
        const QDateTime stamp = outputStamp(output);
        if (stamp.isValid() && stamp != mOutputStampBefore && QFile::remove(output)) {
            KV_RECORD("concludeRun") << "removed the partial output " << output;
        }
    }
    TaskState state = TaskState::Failed;
    if (mFinalState == int(TaskState::Stopped) || (mFinalState == 0 && mStopRequested)) {
        state = TaskState::Stopped;
    } else if (mFinalState == int(TaskState::Finished)) {
        state = TaskState::Finished;
    }
    // Last statement: a receiver may release this operator.
    emitState(state);
}

void WorkerProcessOperator::endProcess()
{
    mKillTimer.stop();
    if (!mProcess) {
        return;
    }
    mProcess->disconnect(this);
    if (mProcess->state() != QProcess::NotRunning) {
        mProcess->kill();
        mProcess->waitForFinished(kStopGraceMs);
    }
    mProcess.reset();
}

void WorkerProcessOperator::emitState(TaskState state)
{
    mTask->setState(state);
    emit mTask->signalBus()->taskStateChanged(state, 0);
}

} // namespace Korvane
