#include "korvane-worker/WorkerStopWatch.h"

#include "KorvaneBase/ChildProcess.h"
#include "KorvaneBase/Record.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <unistd.h>

#ifdef Q_OS_LINUX
#include <sys/prctl.h>
#endif

namespace Korvane {

namespace {

const char* const kFile = "Tools/korvane-worker/WorkerStopWatch";

} // namespace

WorkerStopWatch::WorkerStopWatch(qint64 originalParent)
    : mOriginalParent(originalParent),
      mSignals({SIGTERM, SIGINT}, InterruptWatcher::Delivery::Every)
{
    std::signal(SIGPIPE, SIG_IGN);
    if (!mSignals.isActive()) {
        Record("Korvane::WorkerStopWatch::WorkerStopWatch", __LINE__, kFile, this, 0)
            << "cannot watch SIGTERM and SIGINT; only standard input can stop the worker";
    }
    connect(&mSignals, &InterruptWatcher::interrupted, this, &WorkerStopWatch::onSignal);
    mInputNotifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    connect(mInputNotifier, &QSocketNotifier::activated, this, &WorkerStopWatch::onStandardInput);
    watchParent();
}

WorkerStopWatch::~WorkerStopWatch()
{
    std::signal(SIGPIPE, SIG_DFL);
}

void WorkerStopWatch::watchParent()
{
#ifdef Q_OS_LINUX
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) {
        Record("Korvane::WorkerStopWatch::watchParent", __LINE__, kFile, this, 0)
            << "cannot ask for a signal when the host ends";
    }
#endif
    // Checked after arming: a host that died before is seen here, one that
    // dies after sends the signal.
    if (::getppid() != mOriginalParent) {
        requestStop(QStringLiteral("the host process has ended"));
    }
}

void WorkerStopWatch::onStandardInput()
{
    char buffer[512];
    const ssize_t size = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) {
        return;
    }
    if (size <= 0) {
        // Nothing more can come; the notifier would fire without end.
        mInputNotifier->setEnabled(false);
        requestStop(QStringLiteral("standard input has ended"));
        return;
    }
    mInput.append(buffer, size);
    for (const QByteArray& line : takeLines(mInput)) {
        if (line.trimmed() == "stop") {
            requestStop(QStringLiteral("asked to stop on standard input"));
        }
    }
}

void WorkerStopWatch::onSignal(int signalNumber)
{
    if (signalNumber == SIGTERM && ::getppid() != mOriginalParent) {
        requestStop(QStringLiteral("the host process has ended"));
    } else {
        requestStop(signalNumber == SIGINT ? QStringLiteral("received SIGINT")
                                           : QStringLiteral("received SIGTERM"));
    }
}

void WorkerStopWatch::requestStop(const QString& reason)
{
    if (mStop.exchange(true)) {
        return;
    }
    Record("Korvane::WorkerStopWatch::requestStop", __LINE__, kFile, this, 0)
        << "stopping the render: " << reason;
}

} // namespace Korvane
