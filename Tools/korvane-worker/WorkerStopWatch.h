#pragma once

#include "common/InterruptWatcher.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <atomic>

class QSocketNotifier;

namespace Korvane {

// Everything that tells the worker to stop, gathered into one flag for the
// render (ProjectRenderer polls it between frames, then removes its partial
// output):
// - a line "stop" on standard input, or the end of standard input: the host
//   closed its end or died, and no one is left to take the result;
// - SIGTERM or SIGINT, however often they come;
// - on Linux, the death of the parent process, which the kernel turns into a
//   SIGTERM (PR_SET_PDEATHSIG). The kernel sends it when the parent's thread
//   that started the worker ends, so hosts start it from a thread that
//   outlives the run. A parent that died before that was armed is found by
//   comparing getppid() with the parent the caller saw first.
//
// The watch does its work on the event loop of the thread that made it, so
// that thread must run one while the render works on another; signal
// handlers only wake that loop (see InterruptWatcher). The first reason is
// written to the persistent log. While the watch lives SIGPIPE is ignored, so
// that a report to a host that is gone fails instead of killing the worker
// before it has removed its output. One watch per process.
class WorkerStopWatch : public QObject
{
    Q_OBJECT
public:
    // `originalParent`: the parent process id as read first thing in main().
    explicit WorkerStopWatch(qint64 originalParent);
    ~WorkerStopWatch() override;
    WorkerStopWatch(const WorkerStopWatch&) = delete;
    WorkerStopWatch& operator=(const WorkerStopWatch&) = delete;

    // Raised once a stop is asked for, never lowered; lives as long as the
    // watch.
    const std::atomic<bool>& flag() const { return mStop; }

private:
    void watchParent();
    void onStandardInput();
    void onSignal(int signalNumber);
    void requestStop(const QString& reason);

    const qint64 mOriginalParent;
    std::atomic<bool> mStop{false};
    QByteArray mInput;
    InterruptWatcher mSignals;
    QSocketNotifier* mInputNotifier = nullptr;
};

} // namespace Korvane
