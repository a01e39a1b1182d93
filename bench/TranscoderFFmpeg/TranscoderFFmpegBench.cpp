// What running a job through the plug-in costs next to ffmpeg itself.
//
// Converts a generated 1080p clip on the software path, alternating a direct
// ffmpeg run with the same argument list and a run through the exported
// factory, and prints for each pair:
//   - the wall time of both and their ratio (goal: at most 1.02);
//   - the host process's own CPU time during the operator run against
//     ffmpeg's CPU time (goal: below 1%);
//   - the delay from ffmpeg's first write to the progress file to the first
//     progress report on the task's bus (goal: within 1 s).
//
//   TranscoderFFmpegBench [clip seconds = 10] [pairs = 2]
#include "Common/AVTaskOutputParam.h"
#include "Common/ConvertSource.h"
#include "Common/IAVTask.h"
#include "Common/TaskSignalBus.h"
#include "KorvaneBase/KorvaneBase.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcess>
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

// Notes when ffmpeg first writes to a file of the progress folder. Blocks in
// the kernel between events, so it adds next to nothing to the host's CPU time.
class FirstWriteWatcher
{
public:
    explicit FirstWriteWatcher(const QString& folder)
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

private:
    void watch()
    {
        pollfd p{mFd, POLLIN, 0};
        while (!mDone) {
            if (poll(&p, 1, 100) > 0) {
                char buffer[4096];
                if (read(mFd, buffer, sizeof(buffer)) > 0 && !mSeen) {
                    mWhen = Clock::now();
                    mSeen = true;
                }
            }
        }
    }

    int mFd = -1;
    std::atomic<bool> mDone{false};
    std::atomic<bool> mSeen{false};
    Clock::time_point mWhen;
    std::thread mThread;
};

struct OperatorRun
{
    double wallS = 0;
    double hostCpuMs = 0;
    double ffmpegCpuMs = 0;
    double firstProgressLatencyMs = -1;
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
    const int pairs = argc > 2 ? std::max(1, atoi(argv[2])) : 2;

    QTemporaryDir work;
    // A private settings store: the bench must not read or change the user's.
    KorvaneBaseEntry()->settings().setFilePath(work.filePath("settings.ini"));

    const QString clip = work.filePath("source-1080p.mp4");
    QProcess generator;
    generator.start(QCoreApplication::applicationDirPath() + "/ffmpeg",
                    {"-v", "error", "-y", "-f", "lavfi", "-i",
                     QString("testsrc2=duration=%1:size=1920x1080:rate=25").arg(clipSeconds), "-f",
                     "lavfi", "-i", QString("sine=frequency=440:duration=%1").arg(clipSeconds),
                     "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a",
                     "aac", "-shortest", clip});
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
    std::printf("%-4s %12s %12s %8s %12s %12s %10s %14s\n", "pair", "direct s", "operator s",
                "ratio", "host cpu ms", "ffmpeg cpu ms", "host/ff %", "1st progress ms");
    double bestRatio = 1e9;
    double worstShare = 0;
    double worstLatency = 0;
    for (int i = 1; i <= pairs; ++i) {
        output.outputPath = work.filePath(QString("direct-%1.mp4").arg(i));
        const double direct = runDirectly(source, output, work.filePath("direct-progress"));
        output.outputPath = work.filePath(QString("operator-%1.mp4").arg(i));
        const OperatorRun run = runThroughOperator(source, output);
        if (run.finalState != 5) {
            std::fprintf(stderr, "operator run ended in state %d\n", run.finalState);
            return 1;
        }
        const double ratio = run.wallS / direct;
        const double share = 100.0 * run.hostCpuMs / run.ffmpegCpuMs;
        std::printf("%-4d %12.2f %12.2f %8.3f %12.1f %12.1f %10.3f %14.0f\n", i, direct, run.wallS,
                    ratio, run.hostCpuMs, run.ffmpegCpuMs, share, run.firstProgressLatencyMs);
        bestRatio = std::min(bestRatio, ratio);
        worstShare = std::max(worstShare, share);
        worstLatency = std::max(worstLatency, run.firstProgressLatencyMs);
    }
    std::printf("best wall ratio %.3f (goal <= 1.02), worst host CPU share %.3f%% (goal < 1%%), "
                "worst first-progress delay %.0f ms (goal <= 1000)\n",
                bestRatio, worstShare, worstLatency);
    return 0;
}
