#pragma once

#include "Common/Task/IAVTaskOperator.h"
#include "Common/Task/TaskReporter.h"
#include "KorvaneBase/BasicObject.h"
#include "KorvaneBase/DeferredCall.h"
#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QByteArray>
#include <QEnableSharedFromThis>
#include <QProcess>
#include <QSharedPointer>
#include <QString>
#include <QVariantMap>

#include <atomic>
#include <memory>

class QElapsedTimer;
class QFile;
class QTimer;

namespace Korvane {

class IAVTask;

// Runs one conversion with the command-line ffmpeg as a child process.
//
// start() probes the source, builds the argument list, starts ffmpeg with a
// -progress file in a private folder under the generic cache location and
// emits ffmpegTaskStateChanged(1). Every 500 ms the operator reads what ffmpeg
// appended to that file and emits ffmpegTaskProgress(fraction) when the value
// changed. When ffmpeg exits it emits 5 (the end marker was read and nothing
// came on ffmpeg's error stream) or 6; stop() emits 4. The task (an
// AVFFmpegTask) gets its state and progress written before each signal.
//
// Any output on ffmpeg's error stream kills ffmpeg at once: the command
// builder runs it with "-v error", so only errors reach that stream. A run
// that ends with a non-zero exit code deletes the output file.
//
// Ownership: the process, progress file and timers belong to the operator.
// While ffmpeg runs the operator holds a strong reference to itself, taken
// from the QSharedPointer that owns it, so that an owner may drop it
// mid-run. Everything lives on the thread that called start(), which must run
// an event loop. A second start() on the same object is not supported.
class TRANSCODERFFMPEG_EXPORT KvFFmpegOperator : public BasicObject,
                                                 public IAVTaskOperator,
                                                 public QEnableSharedFromThis<KvFFmpegOperator>
{
    Q_OBJECT
public:
    explicit KvFFmpegOperator(const QSharedPointer<IAVTask>& task);
    ~KvFFmpegOperator() override;

    // False, with no signal, when the source cannot be probed, the task is not
    // an AVFFmpegTask, no command can be built or the ffmpeg program cannot be
    // started; true once ffmpeg runs. A job that must not reach ffmpeg (a
    // name field that is not plain, an output that is the same file as one of
    // the job's inputs) is refused before anything starts: a
    // record gives the reason, the task is set to 6 and 6 is emitted from
    // within start(), which then returns true.
    bool start() override;
    void pause() override;
    void resume() override;
    // Kills ffmpeg, sets the task to 4 and emits 4. The killed process then
    // ends the run as a failure (6), which the controller no longer hears.
    void stop() override;
    QSharedPointer<IAVTask> task() override;
    void cleanup() override;
    QString errorString() override;
    // "operatorName", "decoderName" ("H264", "HEVC" or empty), "encoderName"
    // and "processMode".
    QVariantMap operatorInfo() override;

    // True while at least one operator's ffmpeg run is active in this process.
    static bool isTranscodeRunning();
    // The ffmpeg program (locateProgram): the settings value "kFFmpeg_Path",
    // else "ffmpeg" (on Windows "ffmpeg.exe") in the application's directory,
    // else the one on PATH.
    static QString ffmpegProgram();
    // <generic cache>/KvFFmpeg/.temp/<tempName>; creates the folders on each call.
    QString progressFilePath() const;

Q_SIGNALS:
    void ffmpegTaskStateChanged(int status);
    void ffmpegTaskProgress(double progress);

public Q_SLOTS:
    void onFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onReadyReadStandardError();
    // Reads every complete line ffmpeg appended to the progress file.
    void onReadyRead_win();

private:
    // The steps of start(). A job ffmpeg must not run (a field that could
    // become an option, an output that is one of its inputs) is refused.
    bool refusedJob(const ConvertSource& source, const AVTaskOutputParam& output);
    // The duration and decoder name of the input; false when it cannot be read.
    bool probeInput(const QString& path);
    // The process, the progress file and its poll timer; returns the file's path.
    QString prepareRun();
    bool launch(const QStringList& arguments);
    // Ends the run before ffmpeg starts: records `reason`, sets and emits 6.
    void refuse(int line, const QString& reason);
    void pollProgress();
    void releaseSelf();
    // Counts this operator's run in isTranscodeRunning() (once, however often
    // it is called).
    void setRunning(bool running);

    QSharedPointer<IAVTask> mTask;
    TaskReporter mReporter;
    std::unique_ptr<QProcess> mProcess;
    std::unique_ptr<QFile> mProgressFile;
    std::unique_ptr<QTimer> mPollTimer;
    std::unique_ptr<QElapsedTimer> mElapsed;
    QSharedPointer<KvFFmpegOperator> mSelf;
    QString mTempName;
    qint64 mDurationMs = 0;
    bool mStopped = false;
    bool mEndSeen = false;
    std::atomic<bool> mRunning{false};
    qint32 mCommandOption = -1;
    QString mDecoderName;
    // Lets go of mSelf from the event loop.
    DeferredCall mRelease;
    // What ffmpeg has appended to the progress file since the last whole line.
    QByteArray mProgressBuffer;
};

} // namespace Korvane
