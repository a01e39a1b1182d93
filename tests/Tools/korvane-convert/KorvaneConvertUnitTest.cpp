// korvane-convert's parts: option parsing, job files, path choice, progress
// display and the job runner's failure reason.
#include "korvane-convert/CommandLine.h"
#include "korvane-convert/JobFile.h"
#include "korvane-convert/JobRunner.h"
#include "korvane-convert/OptionTable.h"
#include "korvane-convert/PathChoice.h"
#include "korvane-convert/ProgressDisplay.h"

#include <QBuffer>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

ParsedCommandLine parse(const QString& line)
{
    return parseCommandLine(line.split(' ', Qt::SkipEmptyParts));
}

} // namespace

// Flags fill the job records; the output name gives the defaults; a double
// dash ends the options. Each row lists pieces of the job's JSON text.
TEST(CommandLine, FlagJobs)
{
    const QList<QPair<QString, QString>> cases = {
        {"--size 320x240 -- -in --out.MKV",
         "'filePath':'-in' 'outputPath':'--out.MKV' 'format':'mkv' 'video.codecName':'h264' "
         "'video.width':320 'audio.codecName':'aac' "
         "'acceleration.gpuName':'','acceleration.hardwareEnabled':false "
         "'volume':100"},
        {"a.mp4 b.bin --format MOV --vcodec H265 --size 1280x720 --fps 29.97 --vbitrate 2500 "
         "--acodec PCM --abitrate=192 --ar 48000 --ac 2 --gpu NVIDIA --hw --crop 0.1,0.2,0.5,0.75 "
         "--flip hv --rotate 270 --cut 1000-2500 --cut 5000-6000 --speed 1.5 --volume 150 "
         "--brightness -20 --contrast 10 --saturation 5 --sharpen 3 --shadow -4 --highlight 6 "
         "--color-temperature 7 --hue -90 --audio-track 2 --audio-track 4 --subtitle "
         "subs/english.srt --subtitle-track 3 --cover c.png --meta title=Hello=World --meta "
         "artist=",
         "'acceleration.gpuName':'NVIDIA','acceleration.hardwareEnabled':true "
         "'audio.bitrateKbps':192,"
         "'audio.channels':2,'audio.codecName':'pcm','audio.sampleRate':48000,'format':'mov' "
         "'video.bitrateKbps':2500,'video.codecName':'h265','video.frameRate':29.97,"
         "'video.height':720,'video.width':1280 'attachedSubtitle':[{'filePath':'subs/english.srt',"
         "'startMs':0,'title':'english'}] 'baseFilter':{'brightness':-20,'color temperature':7,"
         "'contrast':10,'highlight':6,'hue':-90,'saturation':5,'shadow':-4,'sharpen':3,'volume':"
         "150} "
         "'coverPath':'c.png','crop':{'cropH':0.75,'cropW':0.5,'cropX':0.1,'cropY':0.2,'flipX':"
         "true,"
         "'flipY':true,'rotation':270},'cut':[{'range_begin':1000,'range_length':1500},{'range_"
         "begin':5000,'range_length':1000}] 'metaData':{'artist':'','title':'Hello=World'},"
         "'selfAudios':[2,4],'selfSubtitles':[{'index':3, 'speed':1.5"},
        // Rotation or flips alone carry a crop of the whole picture.
        {"a.mp4 b.mp4 --vcodec h264 --rotate 90 --flip v",
         "'crop':{'cropH':1,'cropW':1,'cropX':0,'cropY':0,'"
         "flipX':false,'flipY':true,'rotation':90}"},
    };
    for (const auto& [line, expected] : cases) {
        const ParsedCommandLine parsed = parse(line);
        ASSERT_TRUE(parsed.ok()) << parsed.error.toStdString();
        const QString json =
            QJsonDocument(QJsonObject::fromVariantMap(jobToVariantMap(*parsed.commandLine.flagJob)))
                .toJson(QJsonDocument::Compact);
        for (QString piece : (' ' + expected).split(" '", Qt::SkipEmptyParts)) {
            EXPECT_TRUE(json.contains('"' + piece.replace('\'', '"'))) << piece.toStdString();
        }
    }
    // Only --gpu auto leaves the GPU to the caller.
    EXPECT_FALSE(parse("in.mov out.mp4 --gpu none").commandLine.gpuAuto);
    EXPECT_TRUE(parse("in.mov out.mp4 --gpu auto").commandLine.gpuAuto);
}

// Read from the right, so that paths may hold '@' and ','. Described as
// "path centre alpha scaleX scaleY", the centre "-" when unplaced.
TEST(CommandLine, WatermarksReadFromTheRight)
{
    const QList<QPair<QString, QString>> cases = {
        {"logo.png@-10,20,alpha=0.5", "logo.png -10,20 0.5 1 1"},
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
    for (const QString& flags :
         QString("--size 1280;--size 0x720;--vcodec vp9;--fps abc;--vbitrate 1.5;--ac 0;--crop "
                 "0.5,0.5,0.6,0.5;--crop 0,0,0,1;--flip x;--rotate 45;--watermark logo.png,alpha=2;"
                 "--cut 5000-1000;--speed 0;--volume -1;--hue 181;--audio-track x;--meta =x;--path "
                 "gpu;--size;--bogus 1;--quiet=yes")
             .split(';')) {
        const ParsedCommandLine parsed = parse("a.mp4 b.mp4 " + flags);
        EXPECT_TRUE(parsed.error.contains(flags.section(' ', 0, 0).section('=', 0, 0)))
            << flags.toStdString() << ": " << parsed.error.toStdString();
        EXPECT_FALSE(parsed.error.contains('\n')) << parsed.error.toStdString();
    }
    for (const QString& line :
         QString(
             "--job a.json --job b.json --check;--job a.json in.mp4 out.mp4;--job a.json --size "
             "640x360;--job a.json --save-job b.json;--job a.json --check --print-job;--probe "
             "in.mp4 out.mp4;in.mp4;;in.mp4 out.mp4 extra.mp4;in.mp4 --help --bogus-after-help")
             .split(';')) {
        EXPECT_FALSE(parse(line).ok()) << line.toStdString();
    }
    EXPECT_EQ(parse("in.mp4 out.mp4 --quiet --verbose").error,
              "--quiet and --verbose exclude each other");
    const QList<QPair<QString, ConvertMode>> modes = {
        {"--job a.json --job b.json --quiet --path export", ConvertMode::Run},
        {"--job a.json --print-command", ConvertMode::PrintCommand},
        {"--job a.json --check", ConvertMode::Check},
        {"in.mp4 out.mp4 --print-job --size 640x360", ConvertMode::PrintJob},
        {"in.mp4 out.mp4 --save-job job.json", ConvertMode::SaveJob},
        {"--probe in.mp4", ConvertMode::Probe},
        {"--version", ConvertMode::Version},
        {"--help", ConvertMode::Help}};
    for (const auto& [line, mode] : modes) {
        EXPECT_TRUE(parse(line).ok() && parse(line).commandLine.mode == mode) << line.toStdString();
    }
}

// The help shows every option where a synopsis starts, and the parser takes
// every name of the table.
TEST(CommandLine, EveryOptionHasAHelpLine)
{
    const QString help = helpText();
    for (const OptionRow& row : optionTable()) {
        const QString start =
            "(^  |, |; )" + QRegularExpression::escape(row.names.first()) + "[ ,\n]";
        EXPECT_TRUE(help.contains(QRegularExpression(start, QRegularExpression::MultilineOption)))
            << row.names.first().toStdString();
        for (const QString& name : row.names) {
            EXPECT_FALSE(parse(name).error.startsWith("unknown")) << name.toStdString();
        }
    }
}

TEST(JobFile, InvalidJobFilesAreRefusedWithAReason)
{
    const QList<QPair<QByteArray, QString>> cases = {
        {"{\"ConvertSource\": ", "not JSON"},
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
    // A job's own timeline options are written only when it has them.
    ConvertJob job;
    EXPECT_FALSE(jobToVariantMap(job).contains("timelineOptions"));
    job.timelineOptions = QVariantMap{{"fps", 30}};
    EXPECT_EQ(jobToVariantMap(job).value("timelineOptions").toMap(), *job.timelineOptions);
}

TEST(PathChoice, EditsThatOnlyGpuFilterGraphsApply)
{
    ConvertJob job;
    job.source.crop = CropParam{0, 0, 1, 1, false, false, 360};
    job.output.video = {"h264", 1280, 0, 0.0, 0};
    EXPECT_EQ(editsNeedingGpuFilters(job, QSize(1920, 1080)), QStringList());
    job.output.video.height = 720;
    EXPECT_EQ(editsNeedingGpuFilters(job, QSize(1920, 1080)),
              QStringList({"size 1280x720 differs from the input's 1920x1080"}));
    job.source.crop = CropParam{0.1, 0, 0.5, 1, true, false, 180};
    job.source.waterMark = {WaterMarkParam()};
    job.output.video = {"h264", 0, 0, 0.0, 0};
    EXPECT_EQ(editsNeedingGpuFilters(job, QSize(1920, 1080)),
              QStringList({"crop", "flip", "rotation 180", "watermark"}));
}

// Rows: GPU name, whether the job crops, the answers of the ffmpeg and the
// converter checks, the forced path; the path taken and part of its reason.
TEST(PathChoice, HostChoiceAsksOnlyTheChecksItNeeds)
{
    const struct
    {
        QString gpu;
        bool withCrop, ffmpeg, transcoder;
        ForcedPath forced;
        const char* reason;
    } cases[] = {
        {"", false, true, true, ForcedPath::None, "ffmpeg no edit"},
        {"NVIDIA GPU [10de:2330]", true, true, true, ForcedPath::None, "ffmpeg NVIDIA GPU applies"},
        {"Intel GPU [8086:3e92]", true, true, true, ForcedPath::None, "ffmpeg Intel GPU applies"},
        {"nvidia", true, true, true, ForcedPath::None, "converter would drop: crop"},
        {"NVIDIA", false, false, true, ForcedPath::None, "converter ffmpeg support check refuses"},
        {"Intel", false, false, false, ForcedPath::FFmpeg, "ffmpeg forced with --path"},
        {"Intel", false, false, false, ForcedPath::Export, "export forced"},
    };
    for (const auto& c : cases) {
        ConvertJob job;
        job.source.filePath = "in.mp4";
        job.output.video.codecName = "h264";
        job.output.acceleration.gpuName = c.gpu;
        if (c.withCrop) {
            job.source.crop = CropParam{0, 0, 0.5, 0.5, false, false, 0};
        }
        QString asked;
        const PathDecision d = choosePath(job, c.forced,
                                          {[&] { return asked += "ffmpeg ", c.ffmpeg; },
                                           [&] { return asked += "converter ", c.transcoder; },
                                           [] { return QSize(1920, 1080); }});
        // Forced: nothing asked; the ffmpeg path: the converter not asked.
        const bool forced = c.forced != ForcedPath::None;
        const QString path = QString(c.reason).section(' ', 0, 0);
        EXPECT_TRUE(d.reason.startsWith("path " + path + ": ") && path == pathName(d.path) &&
                    d.reason.contains(QString(c.reason).section(' ', 1)) &&
                    asked == (forced             ? ""
                              : path == "ffmpeg" ? "ffmpeg "
                                                 : "ffmpeg converter ") &&
                    d.intelFactory == c.gpu.startsWith("Intel"))
            << d.reason.toStdString() << " " << asked.toStdString();
    }
}

TEST(ProgressDisplay, FiguresAndTexts)
{
    // fraction, elapsed, media length, ETA, speed
    const QList<QList<double>> cases = {
        {0.25, 2000, 10000, 6000, 1.25}, {0.5, 1000, 0, 1000, -1},   {1.0, 4000, 10000, 0, 2.5},
        {0.5, 100, 10000, -1, -1},       {1.7, 2000, 10000, 0, 5.0}, {-0.5, 2000, 10000, -1, -1},
    };
    for (const QList<double>& c : cases) {
        const ProgressFigures f = progressFigures(c[0], qint64(c[1]), qint64(c[2]));
        EXPECT_EQ(QList<double>({f.fraction, double(f.etaMs), f.speed}),
                  QList<double>({qBound(0.0, c[0], 1.0)}) + c.mid(3))
            << c[0] << " " << c[1];
    }
    EXPECT_EQ(QStringList({formatClock(-1), formatClock(0), formatClock(59999), formatClock(61000),
                           formatClock(3662000)}),
              QStringList({"--:--", "00:00", "00:59", "01:01", "1:01:02"}));
    const ProgressFigures f = progressFigures(0.3, 3000, 25000);
    EXPECT_EQ(progressBar(f, 10), "[###-------]  30.0%  00:03 elapsed  ETA 00:07  2.50x");
    EXPECT_EQ(progressLine(f), "progress  30.0%  elapsed 00:03  ETA 00:07  speed 2.50x");
    EXPECT_EQ(progressLine(progressFigures(0, 0, 0)),
              "progress   0.0%  elapsed 00:00  ETA --:--  speed -.--x");
    // A job of several is announced with its number, a single one without.
    QBuffer human;
    human.open(QIODevice::WriteOnly);
    ProgressDisplay display(ProgressStyle::Lines, false, &human, nullptr);
    display.beginJob(1, 1, "in.mp4", "out.mp4", "ffmpeg", "one", 0);
    display.beginJob(2, 3, "in.mp4", "out.mp4", "ffmpeg", "two", 0);
    EXPECT_EQ(human.data().toStdString(), "one\njob 2/3: two\n");
}

TEST(JobRunner, FailureReasonFromTheLog)
{
    EXPECT_EQ(QStringList({failureReasonFromLog({"a", "ffmpeg cnv failed: x", "b"}),
                           failureReasonFromLog({"first", " second \n line ", "  "}),
                           failureReasonFromLog({})}),
              QStringList({"ffmpeg cnv failed: x", "second line",
                           "the converter reported a failure without a reason"}));
}
