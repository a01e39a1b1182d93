#pragma once

#include "Common/Task/IAVTaskOperator.h"
#include "Common/Task/TaskTypes.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QMutex>
#include <QObject>
#include <QSharedPointer>
#include <QStringList>
#include <QTimer>

namespace Korvane {

class ProgressDisplay;

// How one run ended.
struct RunOutcome
{
    TaskState state = TaskState::Failed; // Finished, Stopped or Failed
    bool interrupted = false;            // interrupt() was called during the run
    QString error;                       // the reason of a failure, one line
    qint64 elapsedMs = 0;
};

// The reason to show for a failed run, from the log records written during
// it: the last one that speaks of a failure or an error, else the last one,
// each made one line; a fixed text when nothing was logged.
QString failureReasonFromLog(const QStringList& logTexts);

// Runs one operator to its end on the calling thread, in a nested event loop,
// relaying its task's bus to the display. A run ends with the first state of
// 4 (Stopped), 5 (Finished) or 6 and above (Failed) on the bus, or at once
// when start() returns false.
class JobRunner : public QObject
{
    Q_OBJECT
public:
    // `display` may be null; it is not owned.
    explicit JobRunner(ProgressDisplay* display);

    // Takes the operator over. When this was its last owner, waits (at most
    // a few seconds) on the event loop until every object working on the
    // job has let go of its task: a stopped ffmpeg run lives on until its
    // killed process has reported its end.
    RunOutcome run(QSharedPointer<IAVTaskOperator> op);

    // How long a run may take to report its end after stop() before it is
    // given up as stopped (5 s unless changed).
    void setStopGraceMs(int ms) { mStopTimer.setInterval(ms); }

public Q_SLOTS:
    // Stops the running operator (Ctrl-C). Later runs still happen; the
    // caller decides not to start them.
    void interrupt();

private:
    void onStateChanged(Korvane::TaskState state, int errorCode);
    void onProgress(Korvane::TaskProgressType type, double progress);
    void finish(TaskState state);

    ProgressDisplay* mDisplay;
    QSharedPointer<IAVTaskOperator> mOperator;
    QEventLoop mLoop;
    QElapsedTimer mClock;
    QTimer mStopTimer;
    RunOutcome mOutcome;
    bool mDone = false;
    mutable QMutex mLogMutex;
    QStringList mLogTexts;
};

} // namespace Korvane
