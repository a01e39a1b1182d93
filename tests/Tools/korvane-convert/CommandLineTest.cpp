#include "CommandLine.h"

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

ParsedCommandLine parse(const QString& line)
{
    return parseCommandLine(line.split(' ', Qt::SkipEmptyParts));
}

ConvertJob flagJob(const QString& line)
{
    const ParsedCommandLine parsed = parse(line);
    EXPECT_TRUE(parsed.ok()) << parsed.error.toStdString();
    EXPECT_TRUE(parsed.commandLine.flagJob.has_value());
    return parsed.commandLine.flagJob.value_or(ConvertJob());
}

} // namespace

TEST(CommandLine, FlagJobDefaultsComeFromTheOutputName)
{
    const ConvertJob job = flagJob("in.mov out/clip.MKV");
    EXPECT_EQ(job.source.filePath, "in.mov");
    EXPECT_EQ(job.output.outputPath, "out/clip.MKV");
    EXPECT_EQ(job.output.format, "mkv");
    EXPECT_EQ(job.output.video.codecName, "h264");
    EXPECT_EQ(job.output.audio.codecName, "aac");
    EXPECT_EQ(job.output.video.width, 0);
    EXPECT_FALSE(job.source.crop.has_value());
    EXPECT_FALSE(job.source.speed.has_value());
    EXPECT_EQ(job.source.baseFilter.volume, 100);
    EXPECT_TRUE(job.output.acceleration.gpuName.isEmpty());
    EXPECT_FALSE(job.output.acceleration.hardwareEnabled);
    EXPECT_FALSE(job.timelineOptions.has_value());
}

TEST(CommandLine, OutputOptionsFillTheOutputRecord)
{
    const ConvertJob job =
        flagJob("a.mp4 b.bin --format MOV --vcodec H265 --size 1280x720 --fps 29.97 "
                "--vbitrate 2500 --acodec PCM --abitrate=192 --ar 48000 --ac 2 --gpu "
                "NVIDIA --hw");
    EXPECT_EQ(job.output.format, "mov");
    EXPECT_EQ(job.output.video.codecName, "h265");
    EXPECT_EQ(job.output.video.width, 1280);
    EXPECT_EQ(job.output.video.height, 720);
    EXPECT_DOUBLE_EQ(job.output.video.frameRate, 29.97);
    EXPECT_EQ(job.output.video.bitrateKbps, 2500);
    EXPECT_EQ(job.output.audio.codecName, "pcm");
    EXPECT_EQ(job.output.audio.bitrateKbps, 192);
    EXPECT_EQ(job.output.audio.sampleRate, 48000);
    EXPECT_EQ(job.output.audio.channels, 2);
    EXPECT_EQ(job.output.acceleration.gpuName, "NVIDIA");
    EXPECT_TRUE(job.output.acceleration.hardwareEnabled);
    EXPECT_TRUE(
        flagJob("a.mp4 b.mp4 --vcodec none --acodec none").output.video.codecName.isEmpty());
    EXPECT_TRUE(flagJob("a.mp4 b.mp4 --acodec none").output.audio.codecName.isEmpty());
}

TEST(CommandLine, EditOptionsFillTheSourceRecord)
{
    const ConvertJob job = flagJob(
        "a.mp4 b.mp4 --crop 0.1,0.2,0.5,0.75 --flip hv --rotate 270 --cut 1000-2500 --cut "
        "5000-6000 --speed 1.5 --volume 150 --brightness -20 --contrast 10 --saturation 5 "
        "--sharpen 3 --shadow -4 --highlight 6 --color-temperature 7 --hue -90 --audio-track 2 "
        "--audio-track 4 --subtitle subs/english.srt --subtitle-track 3 --cover c.png "
        "--meta title=Hello=World --meta artist=");
    ASSERT_TRUE(job.source.crop.has_value());
    EXPECT_DOUBLE_EQ(job.source.crop->cropX, 0.1);
    EXPECT_DOUBLE_EQ(job.source.crop->cropY, 0.2);
    EXPECT_DOUBLE_EQ(job.source.crop->cropW, 0.5);
    EXPECT_DOUBLE_EQ(job.source.crop->cropH, 0.75);
    EXPECT_TRUE(job.source.crop->flipX);
    EXPECT_TRUE(job.source.crop->flipY);
    EXPECT_EQ(job.source.crop->rotation, 270);
    ASSERT_EQ(job.source.cut.size(), 2);
    EXPECT_EQ(job.source.cut[0].begin, 1000);
    EXPECT_EQ(job.source.cut[0].length, 1500);
    EXPECT_EQ(job.source.cut[1].begin, 5000);
    EXPECT_EQ(job.source.cut[1].length, 1000);
    EXPECT_FLOAT_EQ(job.source.speedOrOne(), 1.5f);
    const BaseFilterParam& f = job.source.baseFilter;
    EXPECT_EQ(QList<int>({f.brightness, f.contrast, f.saturation, f.sharpen, f.shadow, f.highlight,
                          f.colorTemperature, f.hue, f.volume}),
              QList<int>({-20, 10, 5, 3, -4, 6, 7, -90, 150}));
    EXPECT_EQ(job.source.selfAudios, QList<qint32>({2, 4}));
    ASSERT_EQ(job.source.attachedSubtitle.size(), 1);
    EXPECT_EQ(job.source.attachedSubtitle[0].filePath, "subs/english.srt");
    EXPECT_EQ(job.source.attachedSubtitle[0].title, "english");
    ASSERT_EQ(job.source.selfSubtitles.size(), 1);
    EXPECT_EQ(job.source.selfSubtitles[0].index, 3);
    EXPECT_EQ(job.source.coverPath, "c.png");
    EXPECT_EQ(job.source.metaData.value("title").toString(), "Hello=World");
    EXPECT_TRUE(job.source.metaData.contains("artist"));
}

TEST(CommandLine, RotationAloneCarriesAFullPictureCrop)
{
    const ConvertJob job = flagJob("a.mp4 b.mp4 --rotate 90 --flip v");
    ASSERT_TRUE(job.source.crop.has_value());
    EXPECT_DOUBLE_EQ(job.source.crop->cropW, 1.0);
    EXPECT_DOUBLE_EQ(job.source.crop->cropH, 1.0);
    EXPECT_FALSE(job.source.crop->flipX);
    EXPECT_TRUE(job.source.crop->flipY);
    EXPECT_EQ(job.source.crop->rotation, 90);
}

TEST(CommandLine, WatermarksParseFromTheRightSoPathsMayHoldSeparators)
{
    struct Case
    {
        QString value;
        QString path;
        bool placed;
        QPoint centre;
        float alpha;
        float scale;
    };
    const QList<Case> cases = {
        {"logo.png", "logo.png", false, {}, 1.0f, 1.0f},
        {"logo.png@640,360", "logo.png", true, {640, 360}, 1.0f, 1.0f},
        {"logo.png@-10,20,alpha=0.5", "logo.png", true, {-10, 20}, 0.5f, 1.0f},
        {"logo.png,scale=2,alpha=0.25", "logo.png", false, {}, 0.25f, 2.0f},
        {"me@home/a,b.png@1,2,scale=0.5", "me@home/a,b.png", true, {1, 2}, 1.0f, 0.5f},
    };
    for (const Case& c : cases) {
        const ParsedCommandLine parsed = parseCommandLine(
            {"a.mp4", "b.mp4", "--watermark", "first.png@5,5", "--watermark", c.value});
        ASSERT_TRUE(parsed.ok()) << c.value.toStdString() << ": " << parsed.error.toStdString();
        const auto& marks = parsed.commandLine.flagJob->source.waterMark;
        ASSERT_EQ(marks.size(), 2);
        const WaterMarkParam& m = marks[1];
        EXPECT_EQ(m.filePath, c.path) << c.value.toStdString();
        EXPECT_EQ(parsed.commandLine.unplacedWatermarks, c.placed ? QList<int>() : QList<int>({1}))
            << c.value.toStdString();
        if (c.placed) {
            EXPECT_EQ(m.centerPos, c.centre) << c.value.toStdString();
        }
        EXPECT_FLOAT_EQ(m.alpha, c.alpha) << c.value.toStdString();
        EXPECT_FLOAT_EQ(m.scaleX, c.scale) << c.value.toStdString();
        EXPECT_FLOAT_EQ(m.scaleY, c.scale) << c.value.toStdString();
    }
}

TEST(CommandLine, BadValuesGiveOneLineNamingTheOption)
{
    const QList<QPair<QString, QString>> cases = {
        {"a.mp4 b.mp4 --size 1280", "--size"},
        {"a.mp4 b.mp4 --size 0x720", "--size"},
        {"a.mp4 b.mp4 --size -1280x720", "--size"},
        {"a.mp4 b.mp4 --vcodec vp9", "--vcodec"},
        {"a.mp4 b.mp4 --fps 0", "--fps"},
        {"a.mp4 b.mp4 --fps abc", "--fps"},
        {"a.mp4 b.mp4 --vbitrate 1.5", "--vbitrate"},
        {"a.mp4 b.mp4 --ac 0", "--ac"},
        {"a.mp4 b.mp4 --crop 0.5,0.5,0.6,0.5", "--crop"},
        {"a.mp4 b.mp4 --crop 0,0,1", "--crop"},
        {"a.mp4 b.mp4 --crop 0,0,0,1", "--crop"},
        {"a.mp4 b.mp4 --flip x", "--flip"},
        {"a.mp4 b.mp4 --rotate 45", "--rotate"},
        {"a.mp4 b.mp4 --watermark logo.png,alpha=2", "--watermark"},
        {"a.mp4 b.mp4 --watermark @1,2", "--watermark"},
        {"a.mp4 b.mp4 --cut 5000-1000", "--cut"},
        {"a.mp4 b.mp4 --cut 1000", "--cut"},
        {"a.mp4 b.mp4 --speed 0", "--speed"},
        {"a.mp4 b.mp4 --volume -1", "--volume"},
        {"a.mp4 b.mp4 --brightness 101", "--brightness"},
        {"a.mp4 b.mp4 --hue 181", "--hue"},
        {"a.mp4 b.mp4 --audio-track x", "--audio-track"},
        {"a.mp4 b.mp4 --meta =x", "--meta"},
        {"a.mp4 b.mp4 --path gpu", "--path"},
        {"a.mp4 b.mp4 --size", "--size"},
        {"a.mp4 b.mp4 --bogus 1", "--bogus"},
        {"a.mp4 b.mp4 --quiet=yes", "--quiet"},
    };
    for (const auto& [line, option] : cases) {
        const ParsedCommandLine parsed = parse(line);
        EXPECT_FALSE(parsed.ok()) << line.toStdString();
        EXPECT_TRUE(parsed.error.contains(option)) << parsed.error.toStdString();
        EXPECT_FALSE(parsed.error.contains('\n')) << parsed.error.toStdString();
    }
}

TEST(CommandLine, ModesAndJobSourcesMustFitTogether)
{
    struct Case
    {
        QString line;
        bool ok;
        ConvertMode mode;
    };
    const QList<Case> cases = {
        {"--job a.json", true, ConvertMode::Run},
        {"--job a.json --job b.json --quiet --path export", true, ConvertMode::Run},
        {"--job a.json --print-command", true, ConvertMode::PrintCommand},
        {"--job a.json --print-timeline", true, ConvertMode::PrintTimeline},
        {"--job a.json --check", true, ConvertMode::Check},
        {"--job a.json --print-job", true, ConvertMode::PrintJob},
        {"in.mp4 out.mp4 --print-job --size 640x360", true, ConvertMode::PrintJob},
        {"in.mp4 out.mp4 --save-job job.json", true, ConvertMode::SaveJob},
        {"--probe in.mp4", true, ConvertMode::Probe},
        {"--version", true, ConvertMode::Version},
        {"in.mp4 --help --bogus-ignored-after-help", false, ConvertMode::Run},
        {"--help", true, ConvertMode::Help},
        {"--job a.json --job b.json --check", false, ConvertMode::Run},
        {"--job a.json in.mp4 out.mp4", false, ConvertMode::Run},
        {"--job a.json --size 640x360", false, ConvertMode::Run},
        {"--job a.json --save-job b.json", false, ConvertMode::Run},
        {"--job a.json --check --print-job", false, ConvertMode::Run},
        {"--probe in.mp4 out.mp4", false, ConvertMode::Run},
        {"in.mp4", false, ConvertMode::Run},
        {"", false, ConvertMode::Run},
        {"in.mp4 out", false, ConvertMode::Run},
        {"in.mp4 out.mp4 extra.mp4", false, ConvertMode::Run},
        {"in.mp4 out.mp4 --quiet --verbose", false, ConvertMode::Run},
    };
    for (const Case& c : cases) {
        const ParsedCommandLine parsed = parse(c.line);
        EXPECT_EQ(parsed.ok(), c.ok) << c.line.toStdString() << ": " << parsed.error.toStdString();
        if (c.ok && parsed.ok()) {
            EXPECT_EQ(parsed.commandLine.mode, c.mode) << c.line.toStdString();
        }
    }
}

TEST(CommandLine, GpuAutoAndNoneLeaveTheNameToTheCaller)
{
    const ParsedCommandLine automatic = parse("a.mp4 b.mp4 --gpu auto");
    ASSERT_TRUE(automatic.ok());
    EXPECT_TRUE(automatic.commandLine.gpuAuto);
    EXPECT_TRUE(automatic.commandLine.flagJob->output.acceleration.gpuName.isEmpty());
    const ParsedCommandLine none = parse("a.mp4 b.mp4 --gpu none");
    ASSERT_TRUE(none.ok());
    EXPECT_FALSE(none.commandLine.gpuAuto);
    EXPECT_TRUE(none.commandLine.flagJob->output.acceleration.gpuName.isEmpty());
}

TEST(CommandLine, DoubleDashEndsOptionsSoFileNamesMayStartWithADash)
{
    const ParsedCommandLine parsed =
        parseCommandLine({"--size", "320x240", "--", "-in.mp4", "--out.mp4"});
    ASSERT_TRUE(parsed.ok()) << parsed.error.toStdString();
    EXPECT_EQ(parsed.commandLine.flagJob->source.filePath, "-in.mp4");
    EXPECT_EQ(parsed.commandLine.flagJob->output.outputPath, "--out.mp4");
    EXPECT_EQ(parsed.commandLine.flagJob->output.video.width, 320);
}

TEST(CommandLine, CompletionTakesWhatTheFlagsLeftFromTheInput)
{
    const ParsedCommandLine bare = parse("a.mp4 b.mp4 --watermark w.png --watermark v.png@7,8");
    ASSERT_TRUE(bare.ok());
    InputFacts facts{QSize(1920, 1080), {1, 3}};
    const ConvertJob done = completeFlagJob(bare.commandLine, *bare.commandLine.flagJob, facts);
    EXPECT_EQ(done.output.video.width, 1920);
    EXPECT_EQ(done.output.video.height, 1080);
    EXPECT_EQ(done.source.selfAudios, QList<qint32>({1}));
    EXPECT_EQ(done.source.waterMark[0].centerPos, QPoint(960, 540));
    EXPECT_EQ(done.source.waterMark[1].centerPos, QPoint(7, 8));

    const ParsedCommandLine sized =
        parse("a.mp4 b.mp4 --size 1280x720 --audio-track 3 --watermark w.png");
    ASSERT_TRUE(sized.ok());
    const ConvertJob kept = completeFlagJob(sized.commandLine, *sized.commandLine.flagJob, facts);
    EXPECT_EQ(kept.output.video.width, 1280);
    EXPECT_EQ(kept.source.selfAudios, QList<qint32>({3}));
    EXPECT_EQ(kept.source.waterMark[0].centerPos, QPoint(640, 360));

    const ConvertJob silent =
        completeFlagJob(bare.commandLine, *bare.commandLine.flagJob, InputFacts{});
    EXPECT_EQ(silent.output.video.width, 0);
    EXPECT_TRUE(silent.source.selfAudios.isEmpty());
}
