// Load and soak: the plug-in lives in the host's process for a whole session,
// so many jobs, at once and one after another, must leave no trace.
//
// 1. `parallel` conversions at once: that many controllers on this one event
//    loop, each over the real ffmpeg and a tiny generated clip. Every job must
//    end in 5 with a playable output. isHardwareTranscode() is one flag that
//    every run shares: it must be true from the starts until the first run
//    ends (which clears it for all), and false after the last has ended.
// 2. `runs` short conversions one after another (after a few warm-up runs):
//    open file descriptors (/proc/self/fd), resident memory (VmRSS) and the
//    heap in use (what the allocator has handed out and not had back) are
//    printed before, at each quarter and after, with the growth per run.
//    Resident memory also counts freed memory the allocator keeps for reuse;
//    the heap in use is the figure a leak would move.
//
//   SoakBench [runs = 300] [parallel = 8]
#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Task/IAVTask.h"
#include "Common/Task/TaskSignalBus.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFDemuxer.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

#include <malloc.h>

using namespace Korvane;

namespace {

int openDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd"))
                   .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
                   .size());
}

long residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').value(0).toLong();
        }
    }
    return -1;
}

// Heap handed out and not freed (small blocks and mapped ones), in KiB, as
// the allocator's main arena counts it; threads' own arenas are not in it.
long heapInUseKiB()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

bool playable(const QString& path)
{
    FFDemuxer demuxer;
    return demuxer.open(path) && demuxer.mediaInfo() && !demuxer.mediaInfo()->streams.isEmpty() &&
           demuxer.mediaInfo()->durationMs > 0;
}

AVTaskOutputParam outputTo(const QString& path)
{
    AVTaskOutputParam output;
    output.outputPath = path;
    output.format = QStringLiteral("mp4");
    output.video.codecName = QStringLiteral("h264");
    output.video.width = 64;
    output.video.height = 48;
    output.audio.codecName = QStringLiteral("aac");
    return output;
}

// Runs `count` jobs at once and waits for all; returns how many ended in 5
// with a playable output. Samples isHardwareTranscode() every 5 ms and counts
// the samples where it was false while every task still ran.
int runTogether(const QString& clip, const QDir& outDir, int count, int* flagMissed,
                bool* flagAfter, qint64* wallMs)
{
    ConvertSource source;
    source.filePath = clip;
    QList<QSharedPointer<IAVTaskOperator>> ops;
    QList<int> finals(count, 0);
    int ended = 0;
    QEventLoop loop;
    for (int i = 0; i < count; ++i) {
        const auto op = rawCreateNvidiaFFmpegConverter(
            source, outputTo(outDir.filePath(QStringLiteral("together-%1.mp4").arg(i))));
        QObject::connect(op->task()->signalBus().data(), &TaskSignalBus::taskStateChanged, &loop,
                         [&, i](TaskState state, int) {
                             if (int(state) >= 4 && finals[i] == 0) {
                                 finals[i] = int(state);
                                 if (++ended == count) {
                                     loop.quit();
                                 }
                             }
                         });
        ops << op;
    }
    QElapsedTimer clock;
    clock.start();
    for (const auto& op : ops) {
        op->start();
    }
    QTimer sampler;
    *flagMissed = 0;
    QObject::connect(&sampler, &QTimer::timeout, [&] {
        // Once one run has ended the shared flag is clear, by design.
        if (ended > 0) {
            return;
        }
        bool allActive = true;
        for (const auto& op : ops) {
            const int state = int(op->task()->state());
            allActive = allActive && (state == 1 || state == 2);
        }
        if (allActive && !isHardwareTranscode()) {
            ++*flagMissed;
        }
    });
    sampler.start(5);
    QTimer::singleShot(120000, &loop, &QEventLoop::quit);
    loop.exec();
    sampler.stop();
    *wallMs = clock.elapsed();
    // The operators let go of themselves through the event loop.
    QElapsedTimer settle;
    settle.start();
    while (isHardwareTranscode() && settle.elapsed() < 5000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    *flagAfter = isHardwareTranscode();
    int good = 0;
    for (int i = 0; i < count; ++i) {
        if (finals[i] == int(TaskState::Finished) &&
            playable(outDir.filePath(QStringLiteral("together-%1.mp4").arg(i)))) {
            ++good;
        }
    }
    return good;
}

// One job after the other; returns how many ended in 5.
int runOneByOne(const QString& clip, const QDir& outDir, int count)
{
    ConvertSource source;
    source.filePath = clip;
    const QString path = outDir.filePath(QStringLiteral("sequential.mp4"));
    int good = 0;
    for (int i = 0; i < count; ++i) {
        int final = 0;
        {
            QEventLoop loop;
            const auto op = rawCreateNvidiaFFmpegConverter(source, outputTo(path));
            QObject::connect(op->task()->signalBus().data(), &TaskSignalBus::taskStateChanged,
                             &loop, [&](TaskState state, int) {
                                 if (int(state) >= 4) {
                                     final = int(state);
                                     loop.quit();
                                 }
                             });
            QTimer::singleShot(60000, &loop, &QEventLoop::quit);
            op->start();
            loop.exec();
        }
        // Let the operator's deferred release and deletions run.
        while (isHardwareTranscode()) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (final == int(TaskState::Finished) && QFileInfo(path).size() > 0) {
            ++good;
        }
        QFile::remove(path);
    }
    return good;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 300;
    const int parallel = argc > 2 ? QString::fromLocal8Bit(argv[2]).toInt() : 8;
    QTemporaryDir work;
    // A private settings store: the bench must not read or change the user's.
    KorvaneBaseEntry()->settings().setFilePath(work.filePath("settings.ini"));
    const QString clip = work.filePath("tiny.mp4");
    const int generated = QProcess::execute(
        QCoreApplication::applicationDirPath() + "/ffmpeg",
        {"-v", "error", "-y", "-f", "lavfi", "-i", "testsrc=duration=0.4:size=64x48:rate=25", "-f",
         "lavfi", "-i", "sine=duration=0.4", "-c:v", "libx264", "-pix_fmt", "yuv420p", "-c:a",
         "aac", "-shortest", clip});
    if (generated != 0) {
        std::fprintf(stderr, "could not generate the clip\n");
        return 1;
    }
    const QDir outDir(work.path());

    int flagMissed = 0;
    bool flagAfter = true;
    qint64 wallMs = 0;
    const int together = runTogether(clip, outDir, parallel, &flagMissed, &flagAfter, &wallMs);
    std::printf("%d at once: %d of %d finished with a playable output in %lld ms\n", parallel,
                together, parallel, static_cast<long long>(wallMs));
    std::printf("isHardwareTranscode while all runs were active: %s (%d false samples); after the "
                "last: %s\n",
                flagMissed == 0 ? "true throughout" : "FALSE at times", flagMissed,
                flagAfter ? "TRUE" : "false");

    runOneByOne(clip, outDir, 5);
    const int fdBefore = openDescriptors();
    const long rssBefore = residentKiB();
    const long heapBefore = heapInUseKiB();
    QElapsedTimer clock;
    clock.start();
    int sequential = 0;
    for (int quarter = 1; quarter <= 4; ++quarter) {
        sequential += runOneByOne(clip, outDir, runs * quarter / 4 - runs * (quarter - 1) / 4);
        std::printf("after %d: resident %ld KiB, heap in use %ld KiB\n", runs * quarter / 4,
                    residentKiB(), heapInUseKiB());
    }
    const double seconds = clock.elapsed() / 1000.0;
    const int fdAfter = openDescriptors();
    const long rssAfter = residentKiB();
    const long heapAfter = heapInUseKiB();
    std::printf("%d one after another: %d finished, %.1f s (%.0f ms per job)\n", runs, sequential,
                seconds, runs > 0 ? seconds * 1000.0 / runs : 0.0);
    std::printf("open descriptors: %d before, %d after (%+d)\n", fdBefore, fdAfter,
                fdAfter - fdBefore);
    std::printf("resident memory: %ld KiB before, %ld KiB after (%+ld KiB, %.2f KiB per job)\n",
                rssBefore, rssAfter, rssAfter - rssBefore,
                runs > 0 ? double(rssAfter - rssBefore) / runs : 0.0);
    std::printf("heap in use: %ld KiB before, %ld KiB after (%+ld KiB, %.2f KiB per job)\n",
                heapBefore, heapAfter, heapAfter - heapBefore,
                runs > 0 ? double(heapAfter - heapBefore) / runs : 0.0);
    const bool ok = together == parallel && flagMissed == 0 && !flagAfter && sequential == runs &&
                    fdAfter == fdBefore;
    std::printf("%s\n", ok ? "soak: ok" : "soak: FAILED");
    return ok ? 0 : 1;
}
