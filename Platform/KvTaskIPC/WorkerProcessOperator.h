#pragma once

#include "Common/Task/AVFFmpegTask.h"
#include "Common/Task/IAVTaskOperator.h"
#include "KorvaneBase/BasicObject.h"
#include "KorvaneBase/DeferredCall.h"
#include "KvTaskIPC/KvTaskIPCExport.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QProcess>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>

namespace Korvane {

// One job run by the worker program in a child process:
//
//   <worker> <command> --<option> FILE ... (one option per job file)
//
// The job files are written to unique names in the private folder
// workerJobFolder() when start() is called and removed when the run ends (or
// with the operator). Files a host left there when it died are removed by
// the next start() once they are kStaleJobFileAgeS old. The worker is found
// with locateProgram: the settings key "kWorker_Path", else "korvane-worker"
// next to the application, else on PATH.
//
// The worker speaks one JSON object per line on its standard output:
// {"state":1}, {"progress":0.42}, {"state":5}, {"state":6,"error":"text"},
// {"state":4}. Lines that are not such objects are ignored. A line "stop" on
// its standard input asks it to stop; so does the end of that input, and so
// (on Linux) does the end of the thread that started it, which must
// therefore outlive the run. Its standard error goes to the persistent log,
// line by line.
//
// Reports go to the task's bus, the task's fields written first: state 1 once
// per start(); each progress value (task state 2, value stored, then
// taskProgress(Whole, value)); one final state when the run has ended and the
// job files are gone: the worker's own final state (4, 5, or 6 and above),
// else 4 after stop(), else 6. Every taskStateChanged carries errorCode 0.
// A worker that ends without a final state and was not asked to stop is
// started again, at most `restarts` times per start(), with the same files.
//
// Everything happens on the owning thread's event loop; the only blocking
// waits are bounded ones in the destructor. The final state is emitted from a
// queued call, as the last thing the operator does, so a receiver may drop
// the operator from its slot.
class KVTASKIPC_EXPORT WorkerProcessOperator : public BasicObject, public IAVTaskOperator
{
    Q_OBJECT
public:
    struct JobFile
    {
        QString option;     // command-line option naming the file, e.g. "--source"
        QByteArray content; // written as is
    };

    // How long a worker may take to end after "stop" or after its final
    // state before it is killed.
    static constexpr int kStopGraceMs = 3000;
    // Age (since the last change) from which a job file counts as left by a
    // host that died: a live host removes its own files when its run ends,
    // and a younger file may belong to a host that still runs.
    static constexpr qint64 kStaleJobFileAgeS = 24 * 60 * 60;

    WorkerProcessOperator(QSharedPointer<AVFFmpegTask> task, QString command,
                          QList<JobFile> jobFiles, int restarts);
    ~WorkerProcessOperator() override;

    // False, with errorString() set, when the job files cannot be written,
    // the worker is not an executable file, or a run is already active. An
    // executable that the system then refuses to run is found out through
    // the event loop: the run ends in 6 (no 1 before it, no restart).
    bool start() override;
    // The protocol has no pause: nothing happens.
    void pause() override;
    void resume() override;
    // Sends "stop"; kills the worker when it has not ended within
    // kStopGraceMs. The run then ends with 4 unless the worker reported
    // another final state first. Nothing happens without a run.
    void stop() override;
    QSharedPointer<IAVTask> task() override;
    // Removes job files left over; a running worker keeps its files.
    void cleanup() override;
    // The text of the last failure; empty when there was none.
    QString errorString() override;
    // "command", "workerPath", "restarts" (allowed per start) and "runs"
    // (worker processes started so far).
    QVariantMap operatorInfo() override;

    // The worker program that start() would launch now.
    static QString workerPath();
    // Where job files are written: "Korvane/ipc" under the generic cache
    // location.
    static QString workerJobFolder();

private Q_SLOTS:
    void onReadyReadStandardOutput();
    void onReadyReadStandardError();
    void onFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onErrorOccurred(QProcess::ProcessError error);
    void concludeRun();

private:
    void sweepStaleJobFiles();
    bool writeJobFiles();
    void removeJobFiles();
    bool launch();
    void handleLine(const QByteArray& line);
    // Handles lines in order; false when this operator was deleted meanwhile
    // (nothing of it may be touched then).
    bool handleLines(const QList<QByteArray>& lines);
    void endProcess();
    void emitState(TaskState state);

    QSharedPointer<AVFFmpegTask> mTask;
    QString mCommand;
    QList<JobFile> mJobFiles;
    int mRestarts;
    // Concludes the run outside the process's own signal, so that the process
    // may be released and a receiver of the final state may drop this operator.
    DeferredCall mConclude;
    QStringList mJobPaths;
    QString mProgram;
    std::unique_ptr<QProcess> mProcess;
    QTimer mKillTimer;
    QByteArray mStdoutBuffer;
    QByteArray mStderrBuffer;
    QString mErrorString;
    int mRestartsLeft = 0;
    int mRuns = 0;
    int mFinalState = 0; // reported by the worker in this process; 0 for none
    // The output path as start() found it: a dead worker's leftovers are
    // removed only when they are not the file the user already had there.
    QDateTime mOutputStampBefore;
    bool mActive = false;
    bool mStopRequested = false;
    bool mStartedReported = false;
};

} // namespace Korvane
