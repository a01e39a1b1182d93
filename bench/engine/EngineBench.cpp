// Renders a 1080p 30 s clip to 1280x720 H.264 with a crop, a watermark and
// volume 80, once through korvane-worker and once through the ffmpeg program
// running the equivalent filter graph with the same encoder settings, and
// prints the wall-time ratio and the worker's peak memory against 400 MB.
//
//   korvane-engine-bench [work folder]   (default: ./engine-bench)
#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/JsonForms.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

struct Run
{
    bool ok = false;
    double seconds = 0.0;
    double peakMegabytes = 0.0;
};

// Runs a program to its end with its output discarded, timing it and reading
// its peak resident size from the kernel. Its standard input is a pipe held
// open and never written: the worker takes the end of its input for "stop".
Run measure(const QString& program, const QStringList& args)
{
    std::vector<QByteArray> storage{program.toLocal8Bit()};
    for (const QString& arg : args) {
        storage.push_back(arg.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& item : storage) {
        argv.push_back(item.data());
    }
    argv.push_back(nullptr);
    Run run;
    int input[2] = {-1, -1};
    if (pipe2(input, O_CLOEXEC) != 0) {
        return run;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    QElapsedTimer timer;
    timer.start();
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    if (spawned != 0) {
        close(input[1]);
        return run;
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    close(input[1]);
    run.seconds = timer.nsecsElapsed() / 1e9;
    run.peakMegabytes = usage.ru_maxrss / 1024.0;
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return run;
}

bool generate(const QString& path, const QStringList& args)
{
    if (QFileInfo::exists(path)) {
        return true;
    }
    QStringList full{"-y", "-hide_banner", "-loglevel", "error"};
    full << args << path;
    return measure(QStringLiteral(KORVANE_FFMPEG_PROGRAM), full).ok;
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString dir =
        QDir(app.arguments().value(1, QStringLiteral("engine-bench"))).absolutePath();
    QDir().mkpath(dir);
    const QString ffmpeg = QStringLiteral(KORVANE_FFMPEG_PROGRAM);
    const QString worker = app.applicationDirPath() + QStringLiteral("/korvane-worker");
    const QString source = dir + QStringLiteral("/source-1080p-30s.mp4");
    const QString mark = dir + QStringLiteral("/mark.png");

    std::printf("preparing media in %s\n", qPrintable(dir));
    if (!generate(
            source,
            {"-f",       "lavfi",     "-i",   "testsrc2=size=1920x1080:rate=30:duration=30",
             "-f",       "lavfi",     "-i",   "sine=frequency=440:sample_rate=48000:duration=30",
             "-ac",      "2",         "-c:v", "libx264",
             "-preset",  "ultrafast", "-crf", "18",
             "-pix_fmt", "yuv420p",   "-c:a", "aac"}) ||
        !generate(mark, {"-f", "lavfi", "-i", "color=c=white@0.8:size=200x100,format=rgba",
                         "-frames:v", "1"})) {
        std::fprintf(stderr, "cannot generate the media\n");
        return 1;
    }

    // The edit: crop 10% off every side, fit into 1280x720, a watermark
    // centred at (1100, 620), volume 80.
    const QJsonObject clip{
        {"id", "clip_0"},
        {"type", "clip"},
        {"kind", "video"},
        {"file_path", source},
        {"track_ref", "track_0"},
        {"timeline_pos", 0},
        {"range_begin", 0},
        {"range_length", 30000},
        {"speed", 1.0},
        {"stream_index", 0},
        {"file_audio_stream_index", 1},
        {"transform", QJsonObject{{"id", "transform_0"},
                                  {"type", "transform"},
                                  {"bg_size", "1280,720"},
                                  {"crop", "0.1,0.1,0.8,0.8"},
                                  {"flip_x", false},
                                  {"flip_y", false},
                                  {"rotation", 0}}},
        {"audio_filters",
         QJsonArray{QJsonObject{
             {"id", "afilter_0"}, {"type", "audio_filter"}, {"name", "Volume"}, {"value", 80}}}}};
    const QJsonObject image{{"id", "clip_image_0"},
                            {"type", "image"},
                            {"file_path", mark},
                            {"track_ref", "track_1"},
                            {"timeline_pos", 0},
                            {"range_length", 30000},
                            {"alpha", 1.0},
                            {"speed", 1.0},
                            {"transform", QJsonObject{{"id", "transform_image_0"},
                                                      {"rotation", 0},
                                                      {"flip_x", false},
                                                      {"flip_y", false},
                                                      {"scale_x", 1.0},
                                                      {"scale_y", 1.0},
                                                      {"center_pos", "1100,620"}}}};
    const QJsonObject project{
        {"id", "/"},
        {"preview_param",
         QJsonObject{{"id", "preview_param"}, {"fps", 30.0}, {"width", 1280}, {"height", 720}}},
        {"tracks",
         QJsonArray{
             QJsonObject{{"id", "track_0"}, {"kind", "video"}, {"z_order", 0}, {"trunk", true}},
             QJsonObject{{"id", "track_1"}, {"kind", "effect"}, {"z_order", 2}}}},
        {"clips", QJsonArray{clip, image}}};

    Korvane::AVTaskOutputParam out;
    out.outputPath = dir + QStringLiteral("/worker.mp4");
    out.format = QStringLiteral("mp4");
    out.video.codecName = QStringLiteral("h264");
    out.video.width = 1280;
    out.video.height = 720;
    out.video.frameRate = 30;
    out.audio.codecName = QStringLiteral("aac");
    out.audio.sampleRate = 48000;
    out.audio.channels = 2;
    const QString projectFile = dir + QStringLiteral("/project.json");
    const QString outputFile = dir + QStringLiteral("/output.json");
    if (!writeFile(projectFile, QJsonDocument(project).toJson()) ||
        !writeFile(outputFile, Korvane::outputParamToJson(out).toUtf8())) {
        std::fprintf(stderr, "cannot write the job files\n");
        return 1;
    }

    // The same graph for the ffmpeg program; crf 21 and GOP 15 are what the
    // engine chooses for 1280x720 H.264.
    const QStringList ffmpegArgs{
        "-y",
        "-hide_banner",
        "-loglevel",
        "error",
        "-i",
        source,
        "-i",
        mark,
        "-filter_complex",
        "[0:v]crop=w=1536:h=864:x=192:y=108:exact=1,scale=1280:720,setsar=1,fps=30[b];"
        "[1:v]format=rgba[w];[b][w]overlay=x=1100-w/2:y=620-h/2:format=auto,"
        "format=pix_fmts=yuv420p[v];"
        "[0:a]volume=0.8,aformat=sample_fmts=fltp:sample_rates=48000:channel_layouts=stereo[a]",
        "-map",
        "[v]",
        "-map",
        "[a]",
        "-c:v",
        "libx264",
        "-crf",
        "21",
        "-g",
        "15",
        "-c:a",
        "aac",
        dir + QStringLiteral("/ffmpeg.mp4")};

    std::printf("rendering with korvane-worker...\n");
    const Run engine =
        measure(worker, {"export", "--project", projectFile, "--output", outputFile});
    std::printf("rendering with the ffmpeg program...\n");
    const Run reference = measure(ffmpeg, ffmpegArgs);
    if (!engine.ok || !reference.ok) {
        std::fprintf(stderr, "a render failed (worker %d, ffmpeg %d)\n", engine.ok, reference.ok);
        return 1;
    }
    std::printf("\n1080p 30 s -> 1280x720 H.264, crop + watermark + volume 80\n");
    std::printf("  korvane-worker wall time   %8.2f s\n", engine.seconds);
    std::printf("  ffmpeg program wall time   %8.2f s\n", reference.seconds);
    std::printf("  wall-time ratio            %8.3f   (goal <= 1.25)\n",
                engine.seconds / reference.seconds);
    std::printf("  worker peak memory         %8.1f MB (ffmpeg %.1f MB)\n", engine.peakMegabytes,
                reference.peakMegabytes);
    std::printf("  memory ratio to 400 MB     %8.3f   (goal < 1.0)\n",
                engine.peakMegabytes / 400.0);
    return 0;
}
