// korvane-convert driven as a user or script drives it: through its command
// line, on generated media, with each mode's output compared to the libraries
// called directly.
#include "Common/ConvertSourceHelper.h"
#include "Common/JsonForms.h"
#include "Common/TimelineProject.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFDemuxer.h"
#include "ScriptedWorkerHarness.h"
#include "TestMedia.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <unistd.h>

using namespace Korvane;

namespace {

struct Result
{
    int exitCode = -1; // -1: crashed or timed out
    QByteArray out;
    QByteArray err;
    QStringList errLines() const { return QString::fromUtf8(err).split('\n', Qt::SkipEmptyParts); }
};

Result convert(const QStringList& arguments, const QMap<QString, QString>& env = {},
               int timeoutMs = 120000)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (auto it = env.begin(); it != env.end(); ++it) {
        environment.insert(it.key(), it.value());
    }
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(KORVANE_CONVERT_PROGRAM), arguments);
    Result result;
    if (!process.waitForStarted() || !process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    if (process.exitStatus() == QProcess::NormalExit) {
        result.exitCode = process.exitCode();
    }
    return result;
}

QString clip()
{
    return TestMedia::generate("korvane-convert/h264 aac 640x360 3s.mp4",
                               {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25:duration=3",
                                "-f", "lavfi", "-i", "sine=frequency=440:duration=3", "-c:v",
                                "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a",
                                "aac", "-shortest"});
}

// Long enough that a conversion is still running when a test interrupts it.
QString longClip()
{
    return TestMedia::generate("korvane-convert/h264 aac 1280x720 60s.mp4",
                               {"-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30:duration=60",
                                "-f", "lavfi", "-i", "sine=frequency=440:duration=60", "-c:v",
                                "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a",
                                "aac", "-shortest"});
}

QString watermark()
{
    return TestMedia::generate("korvane-convert/mark 64x32.png",
                               {"-f", "lavfi", "-i", "color=c=red:size=64x32", "-frames:v", "1"});
}

QJsonObject probeStreams(const QString& path)
{
    QByteArray out;
    TestMedia::run(TestMedia::ffprobe(),
                   {"-v", "error", "-show_streams", "-show_format", "-of", "json", path}, &out);
    return QJsonDocument::fromJson(out).object();
}

QJsonObject firstStream(const QJsonObject& probe, const QString& type)
{
    for (const QJsonValue& s : probe.value("streams").toArray()) {
        if (s.toObject().value("codec_type").toString() == type) {
            return s.toObject();
        }
    }
    return {};
}

// A job file written straight from the library's writers, independent of the
// program's own job-file code.
QString writeJob(const QString& path, const ConvertSource& source, const AVTaskOutputParam& output,
                 const std::optional<QVariantMap>& timelineOptions = std::nullopt)
{
    QVariantMap map{
        {"ConvertSource", jsonToVariantMap(convertSourceToJson(source)).value("ConvertSource")},
        {"AVTaskOutputParam", jsonToVariantMap(outputParamToJson(output))}};
    if (timelineOptions) {
        map.insert("timelineOptions", *timelineOptions);
    }
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(variantMapToJson(map, true).toUtf8());
    return path;
}

// The timeline builder numbers "transform_N" and "2dTo3d_N" with a counter
// that lives as long as the process, so a document made here and one made by
// the program differ only there.
std::string withoutCountedIds(const QByteArray& document)
{
    static const QRegularExpression counted(QStringLiteral("\"(transform|2dTo3d)_\\d+\""));
    return QString::fromUtf8(document).replace(counted, QStringLiteral("\"\\1_N\"")).toStdString();
}

// The state letter and the parent of a process, from /proc/PID/stat;
// {0, 0} when there is no such process.
QPair<char, qint64> processState(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        return {0, 0};
    }
    // "PID (NAME) STATE PPID ...": the name may hold anything, so the fields
    // are read after its last ')'.
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.size() < 2 ? QPair<char, qint64>{0, 0}
                             : QPair<char, qint64>{fields[0].at(0), fields[1].toLongLong()};
}

QList<qint64> childProcesses(qint64 parent)
{
    QList<qint64> children;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const qint64 pid = entry.toLongLong();
        if (pid > 0 && processState(pid).second == parent) {
            children.append(pid);
        }
    }
    return children;
}

class KorvaneConvert : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mDir.isValid());
        mClip = clip();
        ASSERT_FALSE(mClip.isEmpty());
    }

    // A job with an edit the ffmpeg path cannot apply without a GPU.
    void editedJob(ConvertSource* source, AVTaskOutputParam* output, const QString& out)
    {
        source->filePath = mClip;
        source->selfAudios = {1};
        source->crop = CropParam{0.25, 0.25, 0.5, 0.5, false, false, 0};
        WaterMarkParam mark;
        mark.filePath = watermark();
        mark.centerPos = QPoint(100, 50);
        source->waterMark = {mark};
        output->outputPath = out;
        output->format = "mp4";
        output->video = {"h264", 320, 180, 25.0, 800};
        output->audio = {"aac", 44100, 2, 128};
    }

    QTemporaryDir mDir;
    QString mClip;
};

} // namespace

TEST_F(KorvaneConvert, HelpVersionAndUsageErrors)
{
    const Result help = convert({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith("Usage: korvane-convert INPUT OUTPUT"));
    const Result version = convert({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_TRUE(QString::fromUtf8(version.out)
                    .contains(QRegularExpression("^korvane-convert \\d+\\.\\d+")));
}

TEST_F(KorvaneConvert, BadInputsGiveOneLineAndTheRightExitCode)
{
    const QString notMedia = mDir.filePath("notes.mp4");
    {
        QFile f(notMedia);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("this is not a video\n");
    }
    const QString badJson = mDir.filePath("bad.json");
    {
        QFile f(badJson);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("{\"ConvertSource\": {}");
    }
    const QString noOutputKey = mDir.filePath("half.json");
    {
        QFile f(noOutputKey);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("{\"ConvertSource\": {\"filePath\": \"x.mp4\"}}");
    }
    ConvertSource missingSource;
    missingSource.filePath = mDir.filePath("gone.mp4");
    AVTaskOutputParam someOutput;
    someOutput.outputPath = mDir.filePath("o.mp4");
    const QString missingInputJob =
        writeJob(mDir.filePath("missing-input.json"), missingSource, someOutput);
    // One file under a second name, and a picture the job reads.
    const QString mine = mDir.filePath("mine.mp4");
    ASSERT_TRUE(QFile::copy(mClip, mine));
    ASSERT_EQ(::link(QFile::encodeName(mine), QFile::encodeName(mDir.filePath("same.mp4"))), 0);
    const QString mark = mDir.filePath("mark.png");
    ASSERT_TRUE(QFile::copy(watermark(), mark));
    struct Case
    {
        QStringList arguments;
        int exitCode;
        QString says;
    };
    const QList<Case> cases = {
        {{}, 2, "missing INPUT and OUTPUT"},
        {{mDir.filePath("gone.mp4"), mDir.filePath("o.mp4")}, 2, "does not exist"},
        {{"--job", mDir.filePath("nope.json")}, 2, "cannot read job file"},
        {{"--job", badJson, "--print-job"}, 2, "invalid job file"},
        {{"--job", noOutputKey, "--check"}, 2, "\"AVTaskOutputParam\""},
        {{"--job", missingInputJob}, 2, "does not exist"},
        {{mClip, mDir.filePath("o.mp4"), "--size", "big"}, 2, "--size expects WxH"},
        {{mClip, mDir.filePath("o.mp4"), "--rotate", "45"}, 2, "--rotate"},
        {{mClip, mDir.filePath("o.mp4"), "--frobnicate"}, 2, "unknown option --frobnicate"},
        {{mClip, mClip}, 2, "would overwrite the input"},
        {{mDir.filePath("same.mp4"), mine}, 2, "would overwrite the input"},
        {{mine, mark, "--format", "mp4", "--watermark", mark},
         2,
         "would overwrite the input '" + mark + "'"},
        {{mine, mark, "--format", "mp4", "--cover", mark}, 2, "would overwrite the input"},
        {{"--probe", mDir.filePath("gone.mp4")}, 2, "does not exist"},
        {{"--probe", notMedia}, 1, "not a media file"},
        {{notMedia, mDir.filePath("o.mp4"), "--quiet"}, 1, "not a media file"},
    };
    for (const Case& c : cases) {
        const Result r = convert(c.arguments);
        const std::string label = c.arguments.join(' ').toStdString();
        EXPECT_EQ(r.exitCode, c.exitCode) << label << "\n" << r.err.toStdString();
        ASSERT_EQ(r.errLines().size(), 1) << label << "\n" << r.err.toStdString();
        EXPECT_TRUE(r.errLines()[0].contains(c.says)) << label << "\n" << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty()) << label;
    }
    EXPECT_FALSE(QFile::exists(mDir.filePath("o.mp4")));
    EXPECT_EQ(QFileInfo(mine).size(), QFileInfo(mClip).size());
    EXPECT_EQ(QFileInfo(mark).size(), QFileInfo(watermark()).size());
}

TEST_F(KorvaneConvert, JobNamesThatWouldBecomeOptionsAreRefusedInEveryMode)
{
    const QString victim = mDir.filePath("x/victim.txt");
    ASSERT_TRUE(QDir().mkpath(mDir.filePath("x")));
    {
        QFile f(victim);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("the user's own file\n");
    }
    const QString injection = "aac -map 0:a -f wav " + victim + " -map 0 -acodec aac";
    struct Case
    {
        const char* field;
        std::function<void(AVTaskOutputParam&)> change;
    };
    const QList<Case> cases{
        {"audio.codecName", [&](AVTaskOutputParam& o) { o.audio.codecName = injection; }},
        {"video.codecName", [&](AVTaskOutputParam& o) { o.video.codecName = "h264 " + injection; }},
        {"format", [&](AVTaskOutputParam& o) { o.format = "mp4 -f wav " + victim; }},
    };
    for (const Case& c : cases) {
        ConvertSource source;
        source.filePath = mClip;
        AVTaskOutputParam output;
        output.outputPath = mDir.filePath("out.mp4");
        output.format = "mp4";
        output.video.codecName = "h264";
        output.audio.codecName = "aac";
        c.change(output);
        const QString job = writeJob(mDir.filePath("inj.json"), source, output);
        for (const QStringList& mode :
             {QStringList{"--print-command"}, QStringList{"--path", "ffmpeg"},
              QStringList{"--path", "converter"}, QStringList{"--check"}}) {
            const Result r = convert(QStringList{"--job", job} + mode);
            const std::string label = c.field + (" " + mode.join(' ')).toStdString();
            EXPECT_EQ(r.exitCode, 2) << label;
            ASSERT_EQ(r.errLines().size(), 1) << label << "\n" << r.err.toStdString();
            EXPECT_TRUE(r.errLines()[0].contains(QString(c.field) + " \"")) << r.err.toStdString();
            EXPECT_TRUE(r.out.isEmpty()) << label;
        }
    }
    QFile f(victim);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), "the user's own file\n");
    EXPECT_FALSE(QFile::exists(mDir.filePath("out.mp4")));
    const Result flags = convert({mClip, mDir.filePath("out.mp4"), "--format", "mp4 -y"});
    EXPECT_EQ(flags.exitCode, 2);
    EXPECT_TRUE(flags.err.contains("format \"mp4 -y\"")) << flags.err.toStdString();
}

TEST_F(KorvaneConvert, PrintModesMatchTheLibrariesCalledDirectly)
{
    ConvertSource source;
    AVTaskOutputParam output;
    editedJob(&source, &output, mDir.filePath("out/edited.mp4"));
    output.acceleration.gpuName = "NVIDIA GPU [10de:2330]";
    const QString job = writeJob(mDir.filePath("job.json"), source, output);

    const Result command = convert({"--job", job, "--print-command"});
    ASSERT_EQ(command.exitCode, 0) << command.err.toStdString();
    QStringList printed;
    for (const QJsonValue& v : QJsonDocument::fromJson(command.out).array()) {
        printed << v.toString();
    }
    const int progressAt = int(printed.indexOf("-progress")) + 1;
    ASSERT_GT(progressAt, 0) << command.out.toStdString();
    const QString target = printed[progressAt];
    EXPECT_TRUE(
        QRegularExpression("^\".*/KvFFmpeg/\\.temp/[0-9a-f]{8}\"$").match(target).hasMatch())
        << target.toStdString();
    QString unquoted = target.mid(1, target.size() - 2);
    const ConvertSource readBack = convertSourceFromJson(convertSourceToJson(source));
    EXPECT_EQ(printed, makeFFmpegCommand(readBack, output, unquoted, -1));
    EXPECT_TRUE(printed.contains("h264_nvenc"));

    ConvertSource unreadable = source;
    unreadable.filePath = KORVANE_CONVERT_PROGRAM;
    const Result none = convert(
        {"--job", writeJob(mDir.filePath("none.json"), unreadable, output), "--print-command"});
    EXPECT_EQ(none.exitCode, 0) << none.err.toStdString();
    EXPECT_EQ(none.out.trimmed(), "[]");

    const Result timeline = convert({"--job", job, "--print-timeline"});
    ASSERT_EQ(timeline.exitCode, 0) << timeline.err.toStdString();
    EXPECT_EQ(withoutCountedIds(timeline.out),
              withoutCountedIds(
                  makeTimelineProjectJson(readBack, {{"width", 320}, {"height", 180}}).toUtf8()));
    // One document per program run: the process-wide counter starts afresh.
    EXPECT_TRUE(timeline.out.contains("\"transform_0\"")) << timeline.out.toStdString();
    const QVariantMap options{{"width", 640}, {"height", 360}, {"socialType", "TikTok"}};
    const Result withOptions =
        convert({"--job", writeJob(mDir.filePath("job2.json"), source, output, options),
                 "--print-timeline"});
    EXPECT_EQ(withoutCountedIds(withOptions.out),
              withoutCountedIds(makeTimelineProjectJson(readBack, options).toUtf8()));

    const Result job1 = convert({"--job", job, "--print-job"});
    ASSERT_EQ(job1.exitCode, 0) << job1.err.toStdString();
    const QVariantMap printedJob = jsonToVariantMap(QString::fromUtf8(job1.out));
    EXPECT_EQ(printedJob.value("ConvertSource").toMap(),
              jsonToVariantMap(convertSourceToJson(readBack)).value("ConvertSource").toMap());
    EXPECT_EQ(printedJob.value("AVTaskOutputParam").toMap(),
              jsonToVariantMap(outputParamToJson(output)));
    EXPECT_EQ(printedJob.size(), 2);

    // An empty source object is the default record, and is printed as one.
    QFile emptySource(mDir.filePath("empty-source.json"));
    ASSERT_TRUE(emptySource.open(QIODevice::WriteOnly));
    emptySource.write(R"({"ConvertSource": {}, "AVTaskOutputParam": {"outputPath": "/o.mp4"}})");
    emptySource.close();
    const Result job2 = convert({"--job", emptySource.fileName(), "--print-job"});
    ASSERT_EQ(job2.exitCode, 0) << job2.err.toStdString();
    EXPECT_EQ(jsonToVariantMap(QString::fromUtf8(job2.out)).value("ConvertSource").toMap(),
              jsonToVariantMap(convertSourceToJson(ConvertSource())).value("ConvertSource").toMap())
        << job2.out.toStdString();
}

TEST_F(KorvaneConvert, CheckModeAnswersTheTwoSupportChecks)
{
    struct Case
    {
        const char* label;
        std::function<void(ConvertSource&, AVTaskOutputParam&)> change;
    };
    const QList<Case> cases = {
        {"plain", [](ConvertSource&, AVTaskOutputParam&) {}},
        {"speed", [](ConvertSource& s, AVTaskOutputParam&) { s.speed = 2.0f; }},
        {"volume", [](ConvertSource& s, AVTaskOutputParam&) { s.baseFilter.volume = 50; }},
        {"vp9 output", [](ConvertSource&, AVTaskOutputParam& o) { o.video.codecName = "vp9"; }},
        {"not media",
         [](ConvertSource& s, AVTaskOutputParam&) { s.filePath = KORVANE_CONVERT_PROGRAM; }},
    };
    QSet<QString> answers;
    for (const Case& c : cases) {
        ConvertSource source;
        source.filePath = mClip;
        source.selfAudios = {1};
        source.baseFilter.volume = 100;
        AVTaskOutputParam output;
        output.outputPath = mDir.filePath("o.mp4");
        output.format = "mp4";
        output.video.codecName = "h264";
        c.change(source, output);
        const Result r =
            convert({"--job", writeJob(mDir.filePath("check.json"), source, output), "--check"});
        ASSERT_EQ(r.exitCode, 0) << c.label << r.err.toStdString();
        const QJsonObject printed = QJsonDocument::fromJson(r.out).object();
        const ConvertSource readBack = convertSourceFromJson(convertSourceToJson(source));
        EXPECT_EQ(printed.value("ffmpeg").toBool(),
                  isConverterSourceSupportedByTranscoderFFmpeg(readBack, output))
            << c.label;
        EXPECT_EQ(printed.value("transcoder").toBool(),
                  isConverterSourceSupportedByTranscoder(readBack, QString()))
            << c.label;
        EXPECT_EQ(printed.size(), 2) << c.label;
        answers.insert(QString::fromUtf8(r.out).trimmed());
    }
    // The table reaches more than one answer, so the comparison means something.
    EXPECT_GE(answers.size(), 2);
}

TEST_F(KorvaneConvert, ProbePrintsTheMediaDescription)
{
    const Result r = convert({"--probe", mClip});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonObject printed = QJsonDocument::fromJson(r.out).object();
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(mClip));
    const QSharedPointer<MediaDescription> d = demuxer.mediaInfo();
    ASSERT_TRUE(d);
    EXPECT_EQ(printed.value("durationMs").toInteger(), d->durationMs);
    EXPECT_EQ(printed.value("startTimeMs").toInteger(), d->startTimeMs);
    EXPECT_EQ(printed.value("bitRate").toInteger(), d->bitRate);
    EXPECT_EQ(printed.value("formatName").toString(), d->formatName);
    const QJsonArray video = printed.value("videoStreams").toArray();
    ASSERT_EQ(video.size(), d->videoStreams.size());
    ASSERT_EQ(video.size(), 1);
    const QJsonObject v = video[0].toObject();
    const VideoStreamInfo& expected = *d->videoStreams[0];
    EXPECT_EQ(v.value("streamIndex").toInt(), expected.streamIndex);
    EXPECT_EQ(v.value("codecId").toInt(), expected.codecId);
    EXPECT_EQ(v.value("width").toInt(), 640);
    EXPECT_EQ(v.value("height").toInt(), 360);
    EXPECT_EQ(v.value("frameRateNum").toInt(), expected.frameRateNum);
    EXPECT_EQ(v.value("frameRateDen").toInt(), expected.frameRateDen);
    EXPECT_EQ(v.value("timeBase").toArray(),
              QJsonArray({expected.timeBase.num, expected.timeBase.den}));
    EXPECT_EQ(v.value("pixelFormat").toInt(), expected.pixelFormat);
    const QJsonArray audio = printed.value("audioStreams").toArray();
    ASSERT_EQ(audio.size(), 1);
    EXPECT_EQ(audio[0].toObject().value("sampleRate").toInt(), d->audioStreams[0]->sampleRate);
    EXPECT_EQ(audio[0].toObject().value("channels").toInt(), d->audioStreams[0]->channels);
    EXPECT_EQ(printed.value("subtitleStreams").toArray().size(), 0);
    const QJsonArray streams = printed.value("streams").toArray();
    ASSERT_EQ(streams.size(), d->streams.size());
    for (int i = 0; i < streams.size(); ++i) {
        EXPECT_EQ(streams[i].toObject().value("mediaType").toInt(), d->streams[i]->mediaType);
        EXPECT_EQ(streams[i].toObject().value("codecId").toInt(), d->streams[i]->codecId);
    }
}

TEST_F(KorvaneConvert, SavedFlagJobHoldsTheCompletedRecords)
{
    const QString jobPath = mDir.filePath("saved/flags.json");
    const Result saved = convert({mClip, mDir.filePath("o.mkv"), "--crop", "0,0,0.5,1",
                                  "--watermark", watermark() + ",alpha=0.5", "--vbitrate", "900",
                                  "--gpu", "auto", "--save-job", jobPath},
                                 {{"KORVANE_SYSFS_ROOT", mDir.filePath("no-sysfs")}});
    ASSERT_EQ(saved.exitCode, 0) << saved.err.toStdString();
    const Result printed = convert({"--job", jobPath, "--print-job"});
    ASSERT_EQ(printed.exitCode, 0) << printed.err.toStdString();
    const QVariantMap job = jsonToVariantMap(QString::fromUtf8(printed.out));
    const QVariantMap source = job.value("ConvertSource").toMap();
    const QVariantMap output = job.value("AVTaskOutputParam").toMap();
    EXPECT_EQ(source.value("filePath").toString(), mClip);
    EXPECT_EQ(source.value("selfAudios").toList(), QVariantList({1}));
    EXPECT_DOUBLE_EQ(source.value("crop").toMap().value("cropW").toDouble(), 0.5);
    const QVariantMap mark = source.value("waterMark").toList().value(0).toMap();
    EXPECT_EQ(mark.value("centerPos").toString(), "320,180");
    EXPECT_DOUBLE_EQ(mark.value("alpha").toDouble(), 0.5);
    EXPECT_EQ(output.value("format").toString(), "mkv");
    EXPECT_EQ(output.value("video.codecName").toString(), "h264");
    EXPECT_EQ(output.value("video.width").toInt(), 640);
    EXPECT_EQ(output.value("video.height").toInt(), 360);
    EXPECT_EQ(output.value("video.bitrateKbps").toInt(), 900);
    EXPECT_EQ(output.value("audio.codecName").toString(), "aac");
    EXPECT_EQ(output.value("acceleration.gpuName").toString(), "");
}

TEST_F(KorvaneConvert, GpuAutoReadsTheMachinesPciVendorIds)
{
    QTemporaryDir sysfs;
    for (const auto& [card, vendor] :
         QList<QPair<QString, QByteArray>>{{"card0", "0x8086\n"}, {"card1", "0x10de\n"}}) {
        QDir().mkpath(sysfs.filePath("class/drm/" + card + "/device"));
        QFile f(sysfs.filePath("class/drm/" + card + "/device/vendor"));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(vendor);
    }
    const Result r = convert({mClip, mDir.filePath("o.mp4"), "--gpu", "auto", "--print-job"},
                             {{"KORVANE_SYSFS_ROOT", sysfs.path()}});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QVariantMap output =
        jsonToVariantMap(QString::fromUtf8(r.out)).value("AVTaskOutputParam").toMap();
    EXPECT_EQ(output.value("acceleration.gpuName").toString(), "NVIDIA GPU [10de:0000]");
}

TEST_F(KorvaneConvert, PlainJobRunsOnTheFfmpegPathAndCreatesTheOutputFolder)
{
    const QString out = mDir.filePath("new/folder/plain.mp4");
    const Result r = convert({mClip, out});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.errLines().value(0).startsWith("path ffmpeg: ")) << r.err.toStdString();
    EXPECT_TRUE(r.errLines().last().startsWith("job 1/1 finished after")) << r.err.toStdString();
    const QJsonObject probe = probeStreams(out);
    EXPECT_EQ(firstStream(probe, "video").value("codec_name").toString(), "h264");
    EXPECT_EQ(firstStream(probe, "video").value("width").toInt(), 640);
    EXPECT_EQ(firstStream(probe, "audio").value("codec_name").toString(), "aac");
    EXPECT_NEAR(probe.value("format").toObject().value("duration").toString().toDouble(), 3.0, 0.2);
}

TEST_F(KorvaneConvert, JsonProgressIsOneObjectPerLineFromStartToEnd)
{
    const Result r = convert({mClip, mDir.filePath("p.mkv"), "--json-progress", "--quiet"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    QList<QJsonObject> events;
    for (const QByteArray& line : r.out.split('\n')) {
        if (line.isEmpty()) {
            continue;
        }
        QJsonParseError error;
        events.append(QJsonDocument::fromJson(line, &error).object());
        ASSERT_EQ(error.error, QJsonParseError::NoError) << line.toStdString();
    }
    ASSERT_GE(events.size(), 3);
    EXPECT_EQ(events.first().value("event").toString(), "start");
    EXPECT_EQ(events.first().value("path").toString(), "ffmpeg");
    EXPECT_EQ(events[1].value("event").toString(), "state");
    EXPECT_EQ(events[1].value("name").toString(), "Started");
    EXPECT_EQ(events.last().value("event").toString(), "end");
    EXPECT_EQ(events.last().value("state").toString(), "Finished");
    EXPECT_EQ(events.last().value("exitCode").toInt(), 0);
    double last = 0;
    for (const QJsonObject& e : events) {
        if (e.value("event").toString() == "progress") {
            EXPECT_GE(e.value("progress").toDouble(), last);
            last = e.value("progress").toDouble();
        }
    }
    // Quiet: nothing but the plug-in's own command line report.
    for (const QString& line : r.errLines()) {
        EXPECT_TRUE(line.startsWith("execute cmd: ")) << line.toStdString();
    }
}

TEST_F(KorvaneConvert, EditsWithoutAGpuGoToTheConverterWithTheRecordsAsTheyAre)
{
    ScriptedWorker worker("success");
    KorvaneBaseEntry()->settings().sync();
    ConvertSource source;
    AVTaskOutputParam output;
    editedJob(&source, &output, mDir.filePath("edited.mp4"));
    const Result r = convert({"--job", writeJob(mDir.filePath("edited.json"), source, output)});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.errLines().value(0).startsWith("path converter: ")) << r.err.toStdString();
    EXPECT_TRUE(r.errLines().value(0).contains("crop, watermark, size 320x180"))
        << r.err.toStdString();
    ASSERT_EQ(worker.runs(), 1);
    EXPECT_EQ(worker.arguments(1).value(0), "convert");
    const ConvertSource readBack = convertSourceFromJson(convertSourceToJson(source));
    EXPECT_EQ(worker.fileContent(1, "--source"), convertSourceToJson(readBack));
    EXPECT_EQ(worker.fileContent(1, "--output"), outputParamToJson(output));
}

TEST_F(KorvaneConvert, ColourEditsGoToTheExportWithTheTimelineDocument)
{
    ScriptedWorker worker("success");
    KorvaneBaseEntry()->settings().sync();
    ConvertSource source;
    AVTaskOutputParam output;
    editedJob(&source, &output, mDir.filePath("export.mp4"));
    source.baseFilter.brightness = 30;
    const Result r = convert({"--job", writeJob(mDir.filePath("export.json"), source, output)});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.errLines().value(0).startsWith("path export: ")) << r.err.toStdString();
    ASSERT_EQ(worker.runs(), 1);
    EXPECT_EQ(worker.arguments(1).value(0), "export");
    const ConvertSource readBack = convertSourceFromJson(convertSourceToJson(source));
    EXPECT_EQ(withoutCountedIds(worker.fileContent(1, "--project").toUtf8()),
              withoutCountedIds(
                  makeTimelineProjectJson(readBack, {{"width", 320}, {"height", 180}}).toUtf8()));
}

TEST_F(KorvaneConvert, FailedJobsExitOneWithTheReasonAndOtherJobsStillRun)
{
    ScriptedWorker worker("failure");
    KorvaneBaseEntry()->settings().sync();
    ConvertSource source;
    AVTaskOutputParam output;
    editedJob(&source, &output, mDir.filePath("fails.mp4"));
    const QString failing = writeJob(mDir.filePath("fails.json"), source, output);
    ConvertSource plain;
    plain.filePath = mClip;
    plain.selfAudios = {1};
    AVTaskOutputParam plainOut;
    plainOut.outputPath = mDir.filePath("works.mp4");
    plainOut.format = "mp4";
    plainOut.video.codecName = "h264";
    plainOut.audio.codecName = "aac";
    const QString working = writeJob(mDir.filePath("works.json"), plain, plainOut);
    const Result r = convert({"--job", failing, "--job", working});
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    const QStringList summaries = r.errLines().filter(QRegularExpression("^job \\d/2 "));
    ASSERT_EQ(summaries.size(), 2) << r.err.toStdString();
    EXPECT_TRUE(summaries[0].startsWith("job 1/2 failed")) << summaries[0].toStdString();
    EXPECT_TRUE(summaries[0].contains("scripted failure")) << summaries[0].toStdString();
    EXPECT_TRUE(summaries[1].startsWith("job 2/2 finished")) << summaries[1].toStdString();
    EXPECT_TRUE(QFile::exists(mDir.filePath("works.mp4")));
}

TEST_F(KorvaneConvert, CtrlCStopsTheRunRemovesTheOutputAndExits130)
{
    const QString input = longClip();
    ASSERT_FALSE(input.isEmpty());
    ScriptedWorker worker("hang");
    KorvaneBaseEntry()->settings().sync();
    for (const QString& path : {QStringLiteral("ffmpeg"), QStringLiteral("converter")}) {
        const QString out = mDir.filePath("interrupted-" + path + ".mp4");
        QProcess process;
        process.start(KORVANE_CONVERT_PROGRAM, {input, out, "--json-progress", "--path", path});
        ASSERT_TRUE(process.waitForStarted());
        // Interrupt once the conversion reports that it runs.
        QByteArray seen;
        const QByteArray awaited = path == "ffmpeg" ? "\"event\":\"progress\"" : "\"Started\"";
        const QDeadlineTimer deadline(60000);
        while (!seen.contains(awaited) && process.state() == QProcess::Running &&
               !deadline.hasExpired()) {
            process.waitForReadyRead(200);
            seen += process.readAllStandardOutput();
        }
        if (process.state() != QProcess::Running || !seen.contains(awaited)) {
            process.kill();
            process.waitForFinished();
            FAIL() << path.toStdString() << ": never reported that it runs: " << seen.toStdString();
        }
        if (path == "ffmpeg") {
            ASSERT_TRUE(QFile::exists(out));
        }
        ::kill(pid_t(process.processId()), SIGINT);
        ASSERT_TRUE(process.waitForFinished(20000));
        seen += process.readAllStandardOutput();
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << path.toStdString();
        EXPECT_EQ(process.exitCode(), 130) << path.toStdString();
        EXPECT_FALSE(QFile::exists(out)) << path.toStdString();
        EXPECT_TRUE(seen.contains("\"state\":\"Stopped\"")) << seen.toStdString();
        EXPECT_TRUE(seen.contains("\"exitCode\":130")) << seen.toStdString();
    }
    EXPECT_TRUE(worker.stopped(1));
}

// A host killed outright cannot stop its worker; the worker notices on its
// own, stops and removes its partial output.
TEST_F(KorvaneConvert, WorkerOfAKilledHostEndsAndLeavesNoOutput)
{
    const QString input = longClip();
    ASSERT_FALSE(input.isEmpty());
    KorvaneBaseEntry()->settings().remove("kWorker_Path");
    KorvaneBaseEntry()->settings().sync();
    const QDir outDir(mDir.filePath("killed"));
    ASSERT_TRUE(outDir.mkpath("."));
    QProcess host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CACHE_HOME", mDir.filePath("cache"));
    host.setProcessEnvironment(environment);
    host.start(KORVANE_CONVERT_PROGRAM,
               {input, outDir.filePath("out.mp4"), "--json-progress", "--path", "converter"});
    ASSERT_TRUE(host.waitForStarted());
    QByteArray seen;
    const QDeadlineTimer started(60000);
    while (!seen.contains("\"event\":\"progress\"") && host.state() == QProcess::Running &&
           !started.hasExpired()) {
        host.waitForReadyRead(200);
        seen += host.readAllStandardOutput();
    }
    const QList<qint64> workers = childProcesses(host.processId());
    host.kill();
    host.waitForFinished();
    ASSERT_TRUE(seen.contains("\"event\":\"progress\"")) << seen.toStdString();
    ASSERT_EQ(workers.size(), 1);

    // Ended: gone, or a zombie that nobody has reaped yet.
    auto ended = [pid = workers[0]] {
        const char state = processState(pid).first;
        return state == 0 || state == 'Z' || state == 'X';
    };
    const QDeadlineTimer deadline(5000);
    while (!ended() && !deadline.hasExpired()) {
        QThread::msleep(50);
    }
    EXPECT_TRUE(ended());
    const QStringList left = outDir.entryList(QDir::Files | QDir::Hidden);
    EXPECT_TRUE(left.isEmpty()) << left.join(' ').toStdString();
}
