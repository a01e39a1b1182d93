// What running a job through the plug-in costs next to ffmpeg itself.
//
// Converts a generated 1080p clip on the software path, alternating a direct
// ffmpeg run with the same argument list and a run through the exported
// factory, and prints for each pair:
//   - the wall time of both and their ratio (goal: at most 1.02);
//   - the host process's own CPU time during the operator run against
//     ffmpeg's CPU time (goal: below 1%);
//   - the delay from ffmpeg's first progress block to the first progress
//     report on the task's bus (goal: within 1 s). ffmpeg's first block may
//     carry no output time yet ("N/A", which is no progress), so the delay
//     from its first block with a positive output time is printed too.
//
// Pairs alternate which run goes first, so that a busy machine does not
// always favour the same side.
//
//   TranscoderFFmpegBench [clip seconds = 10] [pairs = 3]
#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Task/IAVTask.h"
#include "Common/Task/TaskSignalBus.h"
#include "KorvaneBase/KorvaneBase.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace Korvane;
using Clock = std::chrono::steady_clock;

namespace {

double cpuMs(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
}

// Notes when ffmpeg first writes to a file of the progress folder, and when
// that file first holds an output time above 0. Blocks in the kernel between
// events and reads only at ffmpeg's writes (twice a second), so it adds next
// to nothing to the host's CPU time.
class FirstWriteWatcher
{
public:
    explicit FirstWriteWatcher(const QString& folder) : mFolder(folder)
    {
        mFd = inotify_init1(IN_NONBLOCK);
        inotify_add_watch(mFd, QFile::encodeName(folder).constData(), IN_MODIFY);
        mThread = std::thread([this] { watch(); });
    }
    ~FirstWriteWatcher()
    {
        mDone = true;
        mThread.join();
        close(mFd);
    }
    bool seen() const { return mSeen; }
    Clock::time_point when() const { return mWhen; }
    bool timeSeen() const { return mTimeSeen; }
    Clock::time_point whenTime() const { return mWhenTime; }

private:
    void watch()
    {
        pollfd p{mFd, POLLIN, 0};
        alignas(inotify_event) char buffer[4096];
        while (!mDone) {
            if (poll(&p, 1, 100) <= 0) {
                continue;
            }
            const ssize_t size = read(mFd, buffer, sizeof(buffer));
            const Clock::time_point now = Clock::now();
            if (size <= 0) {
                continue;
            }
            const auto* event = reinterpret_cast<const inotify_event*>(buffer);
            if (!mSeen) {
                mWhen = now;
                mSeen = true;
            }
            if (!mTimeSeen && event->len > 0) {
                QFile file(mFolder + '/' + QString::fromLocal8Bit(event->name));
                if (file.open(QIODevice::ReadOnly) &&
                    QRegularExpression("out_time_us=[1-9]").match(file.readAll()).hasMatch()) {
                    mWhenTime = now;
                    mTimeSeen = true;
                }
            }
        }
    }

    QString mFolder;
    int mFd = -1;
    std::atomic<bool> mDone{false};
    std::atomic<bool> mSeen{false};
    Clock::time_point mWhen;
    std::atomic<bool> mTimeSeen{false};
    Clock::time_point mWhenTime;
    std::thread mThread;
};

struct OperatorRun
{
    double wallS = 0;
    double hostCpuMs = 0;
    double ffmpegCpuMs = 0;
    double firstProgressLatencyMs = -1;      // from ffmpeg's first block
    double firstTimedProgressLatencyMs = -1; // from its first block with output time
    int finalState = 0;
};

OperatorRun runThroughOperator(const ConvertSource& source, const AVTaskOutputParam& output)
{
    OperatorRun result;
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    const QString progressFolder = QDir::cleanPath(cache + "/KvFFmpeg/.temp");
    QDir().mkpath(progressFolder);

    const auto op = rawCreateNvidiaFFmpegConverter(source, output);
    const QSharedPointer<TaskSignalBus> bus = op->task()->signalBus();
    QEventLoop loop;
    Clock::time_point firstProgress;
    bool progressSeen = false;
    QObject::connect(bus.data(), &TaskSignalBus::taskProgress, &loop, [&] {
        if (!progressSeen) {
            firstProgress = Clock::now();
            progressSeen = true;
        }
    });
    QObject::connect(bus.data(), &TaskSignalBus::taskStateChanged, &loop,
                     [&](TaskState state, int) {
                         if (int(state) >= 4) {
                             result.finalState = int(state);
                             loop.quit();
                         }
                     });

    FirstWriteWatcher watcher(progressFolder);
    const double selfBefore = cpuMs(RUSAGE_SELF);
    const double childrenBefore = cpuMs(RUSAGE_CHILDREN);
    QElapsedTimer wall;
    wall.start();
    op->start();
    loop.exec();
    result.wallS = wall.nsecsElapsed() / 1e9;
    result.hostCpuMs = cpuMs(RUSAGE_SELF) - selfBefore;
    // The child is reaped before its end is reported, so its time is counted.
    result.ffmpegCpuMs = cpuMs(RUSAGE_CHILDREN) - childrenBefore;
    if (progressSeen && watcher.seen()) {
        result.firstProgressLatencyMs =
            std::chrono::duration<double, std::milli>(firstProgress - watcher.when()).count();
    }
    if (progressSeen && watcher.timeSeen()) {
        result.firstTimedProgressLatencyMs =
            std::chrono::duration<double, std::milli>(firstProgress - watcher.whenTime()).count();
    }
    return result;
}

double runDirectly(const ConvertSource& source, const AVTaskOutputParam& output,
                   const QString& progressPath)
{
    const QStringList arguments = makeFFmpegCommand(source, output, progressPath, -1);
    QStringList parts = QProcess::splitCommand(arguments.join(' '));
    QProcess ffmpeg;
    QElapsedTimer wall;
    wall.start();
    ffmpeg.start(QCoreApplication::applicationDirPath() + "/ffmpeg", parts);
    ffmpeg.waitForFinished(-1);
    const double seconds = wall.nsecsElapsed() / 1e9;
    if (ffmpeg.exitCode() != 0) {
        std::fprintf(stderr, "direct ffmpeg run failed: %s\n",
                     ffmpeg.readAllStandardError().constData());
    }
    return seconds;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int clipSeconds = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
    const int pairs = argc > 2 ? std::max(1, atoi(argv[2])) : 3;

    QTemporaryDir work;
    // A private settings store: the bench must not read or change the user's.
    KorvaneBaseEntry()->settings().setFilePath(work.filePath("settings.ini"));

    const QString clip = work.filePath("source-1080p.mp4");
    QProcess generator;
    generator.start(QCoreApplication::applicationDirPath() + "/ffmpeg",
                    {"-v",
                     "error",
                     "-y",
                     "-f",
                     "lavfi",
                     "-i",
                     QString("testsrc2=duration=%1:size=1920x1080:rate=25").arg(clipSeconds),
                     "-f",
                     "lavfi",
                     "-i",
                     QString("sine=frequency=440:duration=%1").arg(clipSeconds),
                     "-c:v",
                     "libx264",
                     "-preset",
                     "ultrafast",
                     "-pix_fmt",
                     "yuv420p",
                     "-c:a",
                     "aac",
                     "-shortest",
                     clip});
    if (!generator.waitForFinished(-1) || generator.exitCode() != 0) {
        std::fprintf(stderr, "could not generate the clip\n");
        return 1;
    }

    ConvertSource source;
    source.filePath = clip;
    AVTaskOutputParam output;
    output.format = "mp4";
    output.video.codecName = "h264";
    output.video.width = 1920;
    output.video.height = 1080;
    output.audio.codecName = "aac";

    std::printf("clip: 1920x1080, %d s, software path, %d pairs\n", clipSeconds, pairs);
    std::printf("%-4s %10s %10s %7s %11s %13s %9s %12s %12s\n", "pair", "direct s", "operator s",
                "ratio", "host cpu ms", "ffmpeg cpu ms", "host/ff %", "1st block ms",
                "1st time ms");
    double bestRatio = 1e9;
    double worstShare = 0;
    double worstLatency = 0;
    double worstTimedLatency = 0;
    for (int i = 1; i <= pairs; ++i) {
        double direct = 0;
        OperatorRun run;
        const auto runDirect = [&] {
            output.outputPath = work.filePath(QString("direct-%1.mp4").arg(i));
            direct = runDirectly(source, output, work.filePath("direct-progress"));
        };
        const auto runOperator = [&] {
            output.outputPath = work.filePath(QString("operator-%1.mp4").arg(i));
            run = runThroughOperator(source, output);
        };
        if (i % 2) {
            runDirect();
            runOperator();
        } else {
            runOperator();
            runDirect();
        }
        if (run.finalState != 5) {
            std::fprintf(stderr, "operator run ended in state %d\n", run.finalState);
            return 1;
        }
        const double ratio = run.wallS / direct;
        const double share = 100.0 * run.hostCpuMs / run.ffmpegCpuMs;
        std::printf("%-4d %10.2f %10.2f %7.3f %11.1f %13.1f %9.3f %12.0f %12.0f\n", i, direct,
                    run.wallS, ratio, run.hostCpuMs, run.ffmpegCpuMs, share,
                    run.firstProgressLatencyMs, run.firstTimedProgressLatencyMs);
        bestRatio = std::min(bestRatio, ratio);
        worstShare = std::max(worstShare, share);
        worstLatency = std::max(worstLatency, run.firstProgressLatencyMs);
        worstTimedLatency = std::max(worstTimedLatency, run.firstTimedProgressLatencyMs);
    }
    std::printf("best wall ratio %.3f (goal <= 1.02), worst host CPU share %.3f%% (goal < 1%%), "
                "worst first-progress delay %.0f ms after ffmpeg's first block, %.0f ms after its "
                "first block with output time (goal <= 1000)\n",
                bestRatio, worstShare, worstLatency, worstTimedLatency);
    return 0;
}
