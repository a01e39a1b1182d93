#include "korvane-convert/JobRunner.h"

#include "Common/Task/IAVTask.h"
#include "Common/Task/TaskSignalBus.h"
#include "KorvaneBase/KorvaneBase.h"
#include "korvane-convert/ProgressDisplay.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

namespace Korvane {

QString failureReasonFromLog(const QStringList& logTexts)
{
    for (auto it = logTexts.crbegin(); it != logTexts.crend(); ++it) {
        if (it->contains(QLatin1String("fail"), Qt::CaseInsensitive) ||
            it->contains(QLatin1String("error"), Qt::CaseInsensitive)) {
            return it->simplified();
        }
    }
    for (auto it = logTexts.crbegin(); it != logTexts.crend(); ++it) {
        if (!it->trimmed().isEmpty()) {
            return it->simplified();
        }
    }
    return QStringLiteral("the converter reported a failure without a reason");
}

JobRunner::JobRunner(ProgressDisplay* display) : mDisplay(display)
{
    mStopTimer.setSingleShot(true);
    mStopTimer.setInterval(5000);
    // An operator that does not confirm a stop is given up after a while.
    connect(&mStopTimer, &QTimer::timeout, this, [this] {
        if (!mDone) {
            finish(TaskState::Stopped);
        }
    });
}

RunOutcome JobRunner::run(QSharedPointer<IAVTaskOperator> op)
{
    mOperator = op;
    mOutcome = RunOutcome();
    mDone = false;
    {
        QMutexLocker lock(&mLogMutex);
        mLogTexts.clear();
    }
    // Records may come from other threads of the libraries: collect under a lock.
    Logger& logger = KorvaneBaseEntry()->logger();
    const int sink = logger.addSink([this](const LogEntry& entry) {
        QMutexLocker lock(&mLogMutex);
        mLogTexts.append(entry.text);
    });
    const QSharedPointer<TaskSignalBus> bus = op->task()->signalBus();
    const QMetaObject::Connection stateConnection =
        connect(bus.data(), &TaskSignalBus::taskStateChanged, this, &JobRunner::onStateChanged);
    const QMetaObject::Connection progressConnection =
        connect(bus.data(), &TaskSignalBus::taskProgress, this, &JobRunner::onProgress);

    mClock.start();
    if (!op->start()) {
        finish(TaskState::Failed);
    }
    if (!mDone) {
        mLoop.exec();
    }
    disconnect(stateConnection);
    disconnect(progressConnection);
    logger.removeSink(sink);
    if (mOutcome.state == TaskState::Failed) {
        QMutexLocker lock(&mLogMutex);
        const QString operatorError = op->errorString().simplified();
        mOutcome.error = operatorError.isEmpty() ? failureReasonFromLog(mLogTexts) : operatorError;
    }
    const QWeakPointer<IAVTaskOperator> weakOperator = op;
    const QWeakPointer<IAVTask> task = op->task();
    mOperator.reset();
    op.reset();
    if (weakOperator.isNull()) {
        const QDeadlineTimer settle(3000);
        while (!task.isNull() && !settle.hasExpired()) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
    }
    return mOutcome;
}

void JobRunner::interrupt()
{
    if (!mOperator || mDone) {
        return;
    }
    mOutcome.interrupted = true;
    mStopTimer.start();
    mOperator->stop();
}

void JobRunner::onStateChanged(TaskState state, int errorCode)
{
    Q_UNUSED(errorCode);
    if (mDone) {
        return;
    }
    if (mDisplay) {
        mDisplay->state(state, mClock.elapsed());
    }
    if (state == TaskState::Finished || state == TaskState::Stopped ||
        qint32(state) >= qint32(TaskState::Failed)) {
        finish(qint32(state) >= qint32(TaskState::Failed) ? TaskState::Failed : state);
    }
}

void JobRunner::onProgress(TaskProgressType type, double progress)
{
    if (type == TaskProgressType::Whole && mDisplay && !mDone) {
        mDisplay->progress(progress, mClock.elapsed());
    }
}

void JobRunner::finish(TaskState state)
{
    mDone = true;
    mStopTimer.stop();
    mOutcome.state = state;
    mOutcome.elapsedMs = mClock.elapsed();
    mLoop.quit();
}

} // namespace Korvane
