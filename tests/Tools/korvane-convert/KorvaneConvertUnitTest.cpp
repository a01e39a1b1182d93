// korvane-convert's parts: option parsing, job files, path choice, progress
// display, the job runner's failure reason and the interrupt watcher.
#include "CommandLine.h"
#include "InterruptWatcher.h"
#include "JobFile.h"
#include "JobRunner.h"
#include "PathChoice.h"
#include "ProgressDisplay.h"

#include <QDir>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <csignal>

using namespace Korvane;

namespace {

ParsedCommandLine parse(const QString& line)
{
    return parseCommandLine(line.split(' ', Qt::SkipEmptyParts));
}

} // namespace

TEST(CommandLine, FlagsFillTheJobRecordsAndTheOutputNameGivesTheDefaults)
{
    const ParsedCommandLine defaults = parse("in.mov out/clip.MKV --gpu auto");
    ASSERT_TRUE(defaults.ok()) << defaults.error.toStdString();
    const ConvertJob& plain = *defaults.commandLine.flagJob;
    EXPECT_EQ(QStringList({plain.source.filePath, plain.output.outputPath, plain.output.format,
                           plain.output.video.codecName, plain.output.audio.codecName,
                           plain.output.acceleration.gpuName}),
              QStringList({"in.mov", "out/clip.MKV", "mkv", "h264", "aac", ""}));
    EXPECT_EQ(QList<int>({plain.output.video.width, plain.source.baseFilter.volume,
                          plain.output.acceleration.hardwareEnabled, plain.source.crop.has_value(),
                          plain.source.speed.has_value(), plain.timelineOptions.has_value()}),
              QList<int>({0, 100, 0, 0, 0, 0}));
    EXPECT_TRUE(defaults.commandLine.gpuAuto);
    EXPECT_FALSE(parse("a.mp4 b.mp4 --gpu none").commandLine.gpuAuto);

    const ParsedCommandLine parsed = parse(
        "a.mp4 b.bin --format MOV --vcodec H265 --size 1280x720 --fps 29.97 --vbitrate 2500 "
        "--acodec PCM --abitrate=192 --ar 48000 --ac 2 --gpu NVIDIA --hw --crop 0.1,0.2,0.5,0.75 "
        "--flip hv --rotate 270 --cut 1000-2500 --cut 5000-6000 --speed 1.5 --volume 150 "
        "--brightness -20 --contrast 10 --saturation 5 --sharpen 3 --shadow -4 --highlight 6 "
        "--color-temperature 7 --hue -90 --audio-track 2 --audio-track 4 --subtitle "
        "subs/english.srt --subtitle-track 3 --cover c.png --meta title=Hello=World --meta "
        "artist=");
    ASSERT_TRUE(parsed.ok()) << parsed.error.toStdString();
    const ConvertSource& s = parsed.commandLine.flagJob->source;
    const AVTaskOutputParam& o = parsed.commandLine.flagJob->output;
    EXPECT_EQ(QStringList({o.format, o.video.codecName, o.audio.codecName, o.acceleration.gpuName,
                           s.attachedSubtitle.value(0).filePath, s.attachedSubtitle.value(0).title,
                           s.coverPath, s.metaData.value("title").toString()}),
              QStringList({"mov", "h265", "pcm", "NVIDIA", "subs/english.srt", "english", "c.png",
                           "Hello=World"}));
    EXPECT_EQ(QList<double>({double(o.video.width), double(o.video.height), o.video.frameRate,
                             double(o.video.bitrateKbps), double(o.audio.bitrateKbps),
                             double(o.audio.sampleRate), double(o.audio.channels),
                             double(o.acceleration.hardwareEnabled), s.speedOrOne()}),
              QList<double>({1280, 720, 29.97, 2500, 192, 48000, 2, 1, 1.5}));
    ASSERT_TRUE(s.crop.has_value());
    EXPECT_EQ(
        QList<double>({s.crop->cropX, s.crop->cropY, s.crop->cropW, s.crop->cropH,
                       double(s.crop->flipX), double(s.crop->flipY), double(s.crop->rotation)}),
        QList<double>({0.1, 0.2, 0.5, 0.75, 1, 1, 270}));
    const BaseFilterParam& f = s.baseFilter;
    EXPECT_EQ(QList<int>({f.brightness, f.contrast, f.saturation, f.sharpen, f.shadow, f.highlight,
                          f.colorTemperature, f.hue, f.volume}),
              QList<int>({-20, 10, 5, 3, -4, 6, 7, -90, 150}));
    EXPECT_EQ(QList<qint64>({s.cut.value(0).begin, s.cut.value(0).length, s.cut.value(1).begin,
                             s.cut.value(1).length, s.selfSubtitles.value(0).index}),
              QList<qint64>({1000, 1500, 5000, 1000, 3}));
    EXPECT_EQ(s.selfAudios, QList<qint32>({2, 4}));
    EXPECT_TRUE(s.metaData.contains("artist"));
    // Rotation or flips alone carry a crop of the whole picture.
    const ConvertJob turned = *parse("a.mp4 b.mp4 --rotate 90 --flip v").commandLine.flagJob;
    EXPECT_EQ(QList<double>({turned.source.crop->cropW, turned.source.crop->cropH,
                             double(turned.source.crop->flipX), double(turned.source.crop->flipY)}),
              QList<double>({1, 1, 0, 1}));
    EXPECT_TRUE(parse("a.mp4 b.mp4 --vcodec none --acodec none")
                    .commandLine.flagJob->output.video.codecName.isEmpty());
    EXPECT_EQ(parse("a.mp4 b.mp4 --vcodec h264").commandLine.flagJob->output.video.codecName,
              "h264");
    // A double dash ends the options, so file names may start with one.
    const ParsedCommandLine dashed =
        parseCommandLine({"--size", "320x240", "--", "-in", "--out.mp4"});
    ASSERT_TRUE(dashed.ok()) << dashed.error.toStdString();
    EXPECT_EQ(dashed.commandLine.flagJob->source.filePath +
                  dashed.commandLine.flagJob->output.outputPath,
              "-in--out.mp4");
}

// Read from the right, so that paths may hold '@' and ','. Described as
// "path centre alpha scaleX scaleY", the centre "-" when unplaced.
TEST(CommandLine, WatermarksReadFromTheRight)
{
    const QList<QPair<QString, QString>> cases = {
        {"logo.png", "logo.png - 1 1 1"},
        {"logo.png@640,360", "logo.png 640,360 1 1 1"},
        {"logo.png@-10,20,alpha=0.5", "logo.png -10,20 0.5 1 1"},
        {"logo.png,scale=2,alpha=0.25", "logo.png - 0.25 2 2"},
        {"me@home/a,b.png@1,2,scale=0.5", "me@home/a,b.png 1,2 1 0.5 0.5"}};
    for (const auto& [value, described] : cases) {
        const ParsedCommandLine parsed = parseCommandLine(
            {"a.mp4", "b.mp4", "--watermark", "first.png@5,5", "--watermark", value});
        ASSERT_TRUE(parsed.ok()) << value.toStdString() << ": " << parsed.error.toStdString();
        const WaterMarkParam m = parsed.commandLine.flagJob->source.waterMark.value(1);
        const QString centre = parsed.commandLine.unplacedWatermarks == QList<int>{1}
                                   ? QString("-")
                                   : QString("%1,%2").arg(m.centerPos.x()).arg(m.centerPos.y());
        EXPECT_EQ(QStringList({m.filePath, centre, QString::number(m.alpha),
                               QString::number(m.scaleX), QString::number(m.scaleY)})
                      .join(' '),
                  described);
    }
}

TEST(CommandLine, BadValuesAndModesThatDoNotFitGiveOneLine)
{
    // One per ';'; each names the option it starts with.
    const QStringList badValues =
        QString("--size 1280;--size 0x720;--size -1280x720;--vcodec vp9;--fps 0;--fps "
                "abc;--vbitrate 1.5;--ac 0;--crop 0.5,0.5,0.6,0.5;--crop 0,0,1;--crop "
                "0,0,0,1;--flip x;--rotate 45;--watermark logo.png,alpha=2;--watermark @1,2;--cut "
                "5000-1000;--cut 1000;--speed 0;--volume -1;--brightness 101;--hue "
                "181;--audio-track x;--meta =x;--path gpu;--size;--bogus 1;--quiet=yes")
            .split(';');
    for (const QString& flags : badValues) {
        const ParsedCommandLine parsed = parse("a.mp4 b.mp4 " + flags);
        EXPECT_FALSE(parsed.ok()) << flags.toStdString();
        EXPECT_TRUE(parsed.error.contains(flags.section(' ', 0, 0).section('=', 0, 0)))
            << parsed.error.toStdString();
        EXPECT_FALSE(parsed.error.contains('\n')) << parsed.error.toStdString();
    }
    // One per ';'.
    const QStringList misfits =
        QString("--job a.json --job b.json --check;--job a.json in.mp4 out.mp4;--job a.json --size "
                "640x360;--job a.json --save-job b.json;--job a.json --check --print-job;--probe "
                "in.mp4 out.mp4;in.mp4;;in.mp4 out;in.mp4 out.mp4 extra.mp4;in.mp4 --help "
                "--bogus-ignored-after-help")
            .split(';');
    for (const QString& line : misfits) {
        EXPECT_FALSE(parse(line).ok()) << line.toStdString();
    }
    EXPECT_EQ(parse("in.mp4 out.mp4 --quiet --verbose").error,
              "--quiet and --verbose exclude each other");
    const QList<QPair<QString, ConvertMode>> modes = {
        {"--job a.json --job b.json --quiet --path export", ConvertMode::Run},
        {"--job a.json --print-command", ConvertMode::PrintCommand},
        {"--job a.json --print-timeline", ConvertMode::PrintTimeline},
        {"--job a.json --check", ConvertMode::Check},
        {"in.mp4 out.mp4 --print-job --size 640x360", ConvertMode::PrintJob},
        {"in.mp4 out.mp4 --save-job job.json", ConvertMode::SaveJob},
        {"--probe in.mp4", ConvertMode::Probe},
        {"--version", ConvertMode::Version},
        {"--help", ConvertMode::Help},
    };
    for (const auto& [line, mode] : modes) {
        const ParsedCommandLine parsed = parse(line);
        EXPECT_TRUE(parsed.ok()) << line.toStdString() << ": " << parsed.error.toStdString();
        EXPECT_EQ(parsed.commandLine.mode, mode) << line.toStdString();
    }
}

TEST(JobFile, InvalidJobFilesAreRefusedWithAReason)
{
    const QList<QPair<QByteArray, QString>> cases = {
        {"", "not JSON"},
        {"{\"ConvertSource\": ", "not JSON"},
        {"[1, 2]", "not a JSON object"},
        {"{}", "\"ConvertSource\""},
        {R"({"ConvertSource": {}, "AVTaskOutputParam": 3})", "\"AVTaskOutputParam\""},
        {R"({"ConvertSource": "x", "AVTaskOutputParam": {}})", "\"ConvertSource\""},
        {R"({"ConvertSource": {}, "AVTaskOutputParam": {}, "timelineOptions": []})",
         "timelineOptions"},
    };
    for (const auto& [text, reason] : cases) {
        ConvertJob job;
        QString error;
        EXPECT_FALSE(jobFromJson(text, &job, &error)) << text.toStdString();
        EXPECT_TRUE(error.contains(reason)) << error.toStdString();
    }
    // Missing or mistyped output keys read as zero.
    const AVTaskOutputParam flat = outputParamFromVariantMap(
        {{"video.width", 1920}, {"video.height", "1080"}, {"ipcMode", "true"}, {"taskMode", 7}});
    EXPECT_EQ(QList<int>({flat.video.width, flat.video.height, flat.ipcMode, flat.taskMode}),
              QList<int>({1920, 0, 0, 7}));
}

TEST(PathChoice, EditsThatOnlyGpuFilterGraphsApply)
{
    struct Case
    {
        CropParam crop;
        QSize size;
        bool watermark;
        QStringList edits;
    };
    const QList<Case> cases = {{{0, 0, 1, 1, false, false, 360}, {1920, 1080}, false, {}},
                               {{0, 0, 1, 1, false, false, 0}, {1280, 0}, false, {}},
                               {{0, 0, 1, 1, false, false, 0},
                                {1280, 720},
                                false,
                                {"size 1280x720 differs from the input's 1920x1080"}},
                               {{0.1, 0, 0.5, 1, true, false, 180},
                                {0, 0},
                                true,
                                {"crop", "flip", "rotation 180", "watermark"}}};
    for (const Case& c : cases) {
        ConvertJob job;
        job.source.crop = c.crop;
        job.output.video = {"h264", c.size.width(), c.size.height(), 0.0, 0};
        job.source.waterMark =
            c.watermark ? QList<WaterMarkParam>{WaterMarkParam()} : QList<WaterMarkParam>();
        EXPECT_EQ(editsNeedingGpuFilters(job, QSize(1920, 1080)), c.edits)
            << c.edits.join(',').toStdString();
    }
    ConvertJob sized;
    sized.output.video = {"h264", 640, 360, 0.0, 0};
    EXPECT_EQ(editsNeedingGpuFilters(sized, QSize()),
              QStringList({"size 640x360 (input size unknown)"}));
}

TEST(PathChoice, HostChoiceAsksOnlyTheChecksItNeeds)
{
    struct Case
    {
        QString gpu;
        bool withCrop;
        bool ffmpeg;
        bool transcoder;
        ForcedPath forced;
        ConvertPath path;
        const char* reasonPart;
    };
    const QList<Case> cases = {
        {"", false, true, true, ForcedPath::None, ConvertPath::FFmpeg, "no edit"},
        {"NVIDIA GPU [10de:2330]", true, true, true, ForcedPath::None, ConvertPath::FFmpeg,
         "NVIDIA GPU applies"},
        {"Intel GPU [8086:3e92]", true, true, true, ForcedPath::None, ConvertPath::FFmpeg,
         "Intel GPU applies"},
        {"nvidia", true, true, true, ForcedPath::None, ConvertPath::Converter, "would drop: crop"},
        {"", true, true, false, ForcedPath::None, ConvertPath::Export, "converter check refuses"},
        {"NVIDIA", false, false, true, ForcedPath::None, ConvertPath::Converter,
         "ffmpeg support check refuses"},
        {"", false, false, false, ForcedPath::None, ConvertPath::Export, "refuses"},
        {"Intel", false, false, false, ForcedPath::FFmpeg, ConvertPath::FFmpeg,
         "forced with --path"},
        {"Intel", false, false, false, ForcedPath::Converter, ConvertPath::Converter, "forced"},
        {"Intel", false, false, false, ForcedPath::Export, ConvertPath::Export, "forced"},
    };
    for (const Case& c : cases) {
        ConvertJob job;
        job.source.filePath = "in.mp4";
        job.output.video.codecName = "h264";
        job.output.acceleration.gpuName = c.gpu;
        if (c.withCrop) {
            job.source.crop = CropParam{0, 0, 0.5, 0.5, false, false, 0};
        }
        int ffmpegCalls = 0;
        int transcoderCalls = 0;
        const PathDecision d = choosePath(job, c.forced,
                                          {[&] { return ++ffmpegCalls, c.ffmpeg; },
                                           [&] { return ++transcoderCalls, c.transcoder; },
                                           [] { return QSize(1920, 1080); }});
        const std::string label = c.gpu.toStdString() + " " + c.reasonPart;
        EXPECT_EQ(d.path, c.path) << label;
        EXPECT_EQ(d.intelFactory, c.gpu.startsWith("Intel")) << label;
        EXPECT_TRUE(d.reason.startsWith("path " + pathName(c.path) + ": ")) << label;
        EXPECT_TRUE(d.reason.contains(c.reasonPart)) << d.reason.toStdString();
        const bool forced = c.forced != ForcedPath::None;
        EXPECT_EQ(ffmpegCalls, forced ? 0 : 1) << label;
        EXPECT_EQ(transcoderCalls, forced || c.path == ConvertPath::FFmpeg ? 0 : 1) << label;
    }
}

TEST(ProgressDisplay, FiguresAndTexts)
{
    // fraction, elapsed, media length, ETA, speed
    const QList<QList<double>> cases = {
        {0.25, 2000, 10000, 6000, 1.25}, {0.5, 1000, 0, 1000, -1},  {1.0, 4000, 10000, 0, 2.5},
        {0.001, 5000, 10000, -1, -1},    {0.5, 100, 10000, -1, -1}, {1.7, 2000, 10000, 0, 5.0},
        {-0.5, 2000, 10000, -1, -1},
    };
    for (const QList<double>& c : cases) {
        const ProgressFigures f = progressFigures(c[0], qint64(c[1]), qint64(c[2]));
        EXPECT_EQ(QList<double>({double(f.etaMs), f.speed}), c.mid(3)) << c[0] << " " << c[1];
        EXPECT_EQ(f.fraction, qBound(0.0, c[0], 1.0));
    }
    EXPECT_EQ(QStringList({formatClock(-1), formatClock(0), formatClock(59999), formatClock(61000),
                           formatClock(3662000)}),
              QStringList({"--:--", "00:00", "00:59", "01:01", "1:01:02"}));
    const ProgressFigures f = progressFigures(0.3, 3000, 25000);
    EXPECT_EQ(progressBar(f, 10), "[###-------]  30.0%  00:03 elapsed  ETA 00:07  2.50x");
    EXPECT_EQ(progressLine(f), "progress  30.0%  elapsed 00:03  ETA 00:07  speed 2.50x");
    EXPECT_EQ(progressLine(progressFigures(0, 0, 0)),
              "progress   0.0%  elapsed 00:00  ETA --:--  speed -.--x");
    EXPECT_EQ(QList<ProgressStyle>({chooseProgressStyle(true, true, true),
                                    chooseProgressStyle(false, true, true),
                                    chooseProgressStyle(false, false, true),
                                    chooseProgressStyle(false, false, false)}),
              QList<ProgressStyle>({ProgressStyle::Json, ProgressStyle::Silent, ProgressStyle::Bar,
                                    ProgressStyle::Lines}));
}

TEST(JobRunner, FailureReasonFromTheLog)
{
    EXPECT_EQ(failureReasonFromLog({"a", "ffmpeg cnv failed: x", "b"}), "ffmpeg cnv failed: x");
    EXPECT_EQ(failureReasonFromLog({"first", " second \n line ", "  "}), "second line");
    EXPECT_EQ(failureReasonFromLog({}), "the converter reported a failure without a reason");
}

// Each signal arrives as a Qt signal while the watcher lives; afterwards the
// default actions are back and its descriptors closed, also when a signal
// cannot be caught at all.
TEST(InterruptWatcher, DeliversSignalsAndLeavesNothingBehind)
{
    const uint descriptors = QDir("/proc/self/fd").count();
    {
        InterruptWatcher watcher({SIGTERM, SIGINT}, InterruptWatcher::Delivery::Every);
        ASSERT_TRUE(watcher.isActive());
        QSignalSpy spy(&watcher, &InterruptWatcher::interrupted);
        for (const int signalNumber : {SIGTERM, SIGINT, SIGTERM}) {
            ASSERT_EQ(std::raise(signalNumber), 0);
            ASSERT_TRUE(spy.wait(2000));
            EXPECT_EQ(spy.takeFirst().at(0).toInt(), signalNumber);
        }
    }
    EXPECT_FALSE(InterruptWatcher({SIGKILL}, InterruptWatcher::Delivery::Once).isActive());
    for (const int signalNumber : {SIGTERM, SIGINT}) {
        struct sigaction current = {};
        ASSERT_EQ(sigaction(signalNumber, nullptr, &current), 0);
        EXPECT_EQ(current.sa_handler, SIG_DFL);
    }
    EXPECT_EQ(QDir("/proc/self/fd").count(), descriptors);
}
