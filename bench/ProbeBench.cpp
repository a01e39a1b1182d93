// Time of probing a file in-process (FFDemuxer::open + mediaInfo, and
// getMediaInfo) against asking the ffprobe program for the same facts.
// The goal: in-process probing at most half of ffprobe's time.
//
//   ProbeBench [iterations]
#include "KorvaneDec/FFDemuxer.h"
#include "KvMediaInfo/KvMediaInfo.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

QString mediaPath(const QString& name)
{
    return QStringLiteral(KORVANE_BENCH_MEDIA_DIR "/") + name;
}

bool runProgram(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    if (!process.waitForStarted() || !process.waitForFinished(600000)) {
        return false;
    }
    process.readAll();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QString generate(const QString& name, const QStringList& args)
{
    const QString path = mediaPath(name);
    if (QFileInfo::exists(path)) {
        return path;
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    const QString temporary = mediaPath("tmp-") + name;
    QStringList full{"-y", "-hide_banner", "-loglevel", "error"};
    full << args << temporary;
    if (!runProgram(QStringLiteral(KORVANE_FFMPEG_PROGRAM), full) ||
        !QFile::rename(temporary, path)) {
        QFile::remove(temporary);
        return {};
    }
    return path;
}

// Median of `iterations` runs, in ms.
double medianMs(int iterations, const std::function<bool()>& work)
{
    std::vector<double> times;
    for (int i = 0; i < iterations; ++i) {
        QElapsedTimer timer;
        timer.start();
        if (!work()) {
            return -1.0;
        }
        times.push_back(timer.nsecsElapsed() / 1e6);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void measure(const QString& label, const QString& path, int iterations)
{
    const double demuxer = medianMs(iterations, [&path] {
        Korvane::FFDemuxer d;
        return d.open(path) && d.mediaInfo();
    });
    const double mediaInfo =
        medianMs(iterations, [&path] { return !Korvane::getMediaInfo(path, -2, true).isNull(); });
    const double ffprobe = medianMs(iterations, [&path] {
        return runProgram(QStringLiteral(KORVANE_FFPROBE_PROGRAM),
                          {"-v", "error", "-show_streams", "-show_format", path});
    });
    std::printf("%-28s open+mediaInfo %8.2f ms | getMediaInfo %8.2f ms | ffprobe %8.2f ms | "
                "ratio %.3f / %.3f %s\n",
                qPrintable(label), demuxer, mediaInfo, ffprobe, demuxer / ffprobe,
                mediaInfo / ffprobe,
                std::max(demuxer, mediaInfo) <= ffprobe / 2 ? "(goal met)" : "(goal MISSED)");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int iterations = argc > 1 ? std::max(1, atoi(argv[1])) : 15;
    const QStringList tone{"-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000"};
    const QStringList x264{"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"};

    struct Input
    {
        QString label;
        QString path;
    };
    const std::vector<Input> inputs{
        {"1080p H.264 MP4, 5 s",
         generate("full-hd-5s.mp4",
                  QStringList{"-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=30:duration=5"} +
                      tone + x264 + QStringList{"-c:a", "aac", "-shortest"})},
        {"360p H.264 MP4, 60 s",
         generate("sixty-seconds.mp4",
                  QStringList{"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30:duration=60"} +
                      tone + x264 + QStringList{"-c:a", "aac", "-shortest"})},
        {"360p HEVC MKV, 60 s",
         generate("sixty-seconds.mkv",
                  QStringList{"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30:duration=60"} +
                      tone +
                      QStringList{"-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                                  "log-level=error", "-c:a", "aac", "-shortest"})},
        // ASF costs one extra open: the few-packet check.
        {"WMV2 ASF, 60 s",
         generate("sixty-seconds.wmv",
                  QStringList{"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30:duration=60"} +
                      tone + QStringList{"-c:v", "wmv2", "-c:a", "wmav2", "-shortest"})},
    };
    std::printf("median of %d runs each\n", iterations);
    for (const Input& input : inputs) {
        if (input.path.isEmpty()) {
            std::printf("%-28s could not be generated\n", qPrintable(input.label));
            continue;
        }
        measure(input.label, input.path, iterations);
    }
    return 0;
}
