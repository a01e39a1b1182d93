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

Result convert(const QStringList& arguments, const QString& sysfsRoot = {})
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!sysfsRoot.isEmpty()) {
        environment.insert("KORVANE_SYSFS_ROOT", sysfsRoot);
    }
    process.setProcessEnvironment(environment);
    process.start(KORVANE_CONVERT_PROGRAM, arguments);
    Result result;
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

// 1280x720 for 60 s: long enough that a conversion still runs when a test
// interrupts it.
QString clip(int width = 640, int height = 360, int seconds = 3)
{
    const QString size = QStringLiteral("%1x%2").arg(width).arg(height);
    return TestMedia::generate(
        QStringLiteral("korvane-convert/h264 aac %1 %2s.mp4").arg(size).arg(seconds),
        {"-f", "lavfi", "-i",
         QStringLiteral("testsrc2=size=%1:rate=25:duration=%2").arg(size).arg(seconds), "-f",
         "lavfi", "-i", QStringLiteral("sine=frequency=440:duration=%1").arg(seconds), "-c:v",
         "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
}

QString watermark()
{
    return TestMedia::generate("korvane-convert/mark 64x32.png",
                               {"-f", "lavfi", "-i", "color=c=red:size=64x32", "-frames:v", "1"});
}

QString writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return path;
}

// A job file written straight from the library's writers, independent of the
// program's own job-file code.
QString writeJob(const QString& path, const ConvertSource& source, const AVTaskOutputParam& output)
{
    const QVariantMap map{
        {"ConvertSource", jsonToVariantMap(convertSourceToJson(source)).value("ConvertSource")},
        {"AVTaskOutputParam", jsonToVariantMap(outputParamToJson(output))}};
    return writeFile(path, variantMapToJson(map, true).toUtf8());
}

// The timeline builder numbers "transform_N" and "2dTo3d_N" with a counter
// that lives as long as the process, so a document made here and one made by
// the program differ only there.
std::string withoutCountedIds(const QByteArray& document)
{
    static const QRegularExpression counted(QStringLiteral("\"(transform|2dTo3d)_\\d+\""));
    return QString::fromUtf8(document).replace(counted, QStringLiteral("\"\\1_N\"")).toStdString();
}

// Starts the program and reads its standard output until `awaited` appears.
QByteArray startUntil(QProcess& process, const QStringList& arguments, const QByteArray& awaited)
{
    process.start(KORVANE_CONVERT_PROGRAM, arguments);
    QByteArray seen;
    const QDeadlineTimer deadline(60000);
    while (!seen.contains(awaited) && process.waitForStarted() && !deadline.hasExpired()) {
        process.waitForReadyRead(200);
        seen += process.readAllStandardOutput();
    }
    return seen;
}

class KorvaneConvert : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mDir.isValid());
        mClip = clip();
        ASSERT_FALSE(mClip.isEmpty());
        KorvaneBaseEntry()->settings().sync();
    }

    // A job with edits the ffmpeg path cannot apply without a GPU.
    QString editedJob(const QString& name, ConvertSource* source, AVTaskOutputParam* output)
    {
        source->filePath = source->filePath.isEmpty() ? mClip : source->filePath;
        source->selfAudios = {1};
        source->crop = CropParam{0.25, 0.25, 0.5, 0.5, false, false, 0};
        source->waterMark = {WaterMarkParam()};
        source->waterMark[0].filePath = watermark();
        source->waterMark[0].centerPos = QPoint(100, 50);
        *output = {mDir.filePath(name + ".mp4"),
                   "mp4",
                   {"h264", 320, 180, 25.0, 800},
                   {"aac", 44100, 2, 128}};
        return writeJob(mDir.filePath(name + ".json"), *source, *output);
    }

    QTemporaryDir mDir;
    QString mClip;
};

} // namespace

// Usage errors exit 2 with one line, unreadable media exit 1; nothing is
// written and no job destroys a file the user has.
TEST_F(KorvaneConvert, UsageAndInputErrorsGiveOneLineAndTheRightExitCode)
{
    const QString notMedia = writeFile(mDir.filePath("notes.mp4"), "this is not a video\n");
    ConvertSource gone;
    gone.filePath = mDir.filePath("gone.mp4");
    AVTaskOutputParam o;
    o.outputPath = mDir.filePath("o.mp4");
    // One file under a second name, and a picture the job reads.
    const QString mine = mDir.filePath("mine.mp4");
    ASSERT_TRUE(QFile::copy(mClip, mine));
    ASSERT_EQ(::link(QFile::encodeName(mine), QFile::encodeName(mDir.filePath("same.mp4"))), 0);
    const QString mark = mDir.filePath("mark.png");
    ASSERT_TRUE(QFile::copy(watermark(), mark));
    QList<std::tuple<QStringList, int, QString>> cases = {
        {{"--help"}, 0, "Usage: korvane-convert INPUT OUTPUT"},
        {{"--version"}, 0, "korvane-convert "},
        {{}, 2, "missing INPUT and OUTPUT"},
        {{gone.filePath, o.outputPath}, 2, "does not exist"},
        {{"--job", mDir.filePath("nope.json")}, 2, "cannot read job file"},
        {{"--job", writeFile(mDir.filePath("bad.json"), "{\"ConvertSource\": {}"), "--print-job"},
         2,
         "invalid job file"},
        {{"--job", writeFile(mDir.filePath("half.json"), R"({"ConvertSource": {}})"), "--check"},
         2,
         "\"AVTaskOutputParam\""},
        {{"--job", writeJob(mDir.filePath("gone.json"), gone, o)}, 2, "does not exist"},
        {{mClip, o.outputPath, "--size", "big"}, 2, "--size expects WxH"},
        {{mClip, o.outputPath, "--frobnicate"}, 2, "unknown option --frobnicate"},
        {{mClip, mClip}, 2, "would overwrite the input"},
        {{mDir.filePath("same.mp4"), mine}, 2, "would overwrite the input"},
        {{mine, mark, "--format", "mp4", "--watermark", mark},
         2,
         "would overwrite the input '" + mark},
        {{mine, mark, "--format", "mp4", "--cover", mark}, 2, "would overwrite the input"},
        {{"--probe", gone.filePath}, 2, "does not exist"},
        {{"--probe", notMedia}, 1, "not a media file"},
        {{notMedia, o.outputPath, "--quiet"}, 1, "not a media file"},
        {{mClip, o.outputPath, "--format", "mp4 -y"}, 2, "format \"mp4 -y\""}};
    // Nothing in a job becomes an ffmpeg option, in any mode.
    const QString victim = writeFile(mDir.filePath("victim.txt"), "the user's own file\n");
    const QString injection = "aac -map 0:a -f wav " + victim + " -map 0 -acodec aac";
    const QList<QPair<const char*, std::function<void(AVTaskOutputParam&)>>> injections{
        {"audio.codecName", [&](AVTaskOutputParam& o) { o.audio.codecName = injection; }},
        {"video.codecName", [&](AVTaskOutputParam& o) { o.video.codecName = "h264 " + injection; }},
        {"format", [&](AVTaskOutputParam& o) { o.format = "mp4 -f wav " + victim; }}};
    for (const auto& [field, change] : injections) {
        AVTaskOutputParam output{o.outputPath, "mp4", {"h264"}, {"aac"}};
        change(output);
        ConvertSource source;
        source.filePath = mClip;
        const QString job = writeJob(mDir.filePath(QString(field) + ".json"), source, output);
        for (const QString& mode :
             {"--print-command", "--path=ffmpeg", "--path=converter", "--check"}) {
            cases.append({{"--job", job, mode}, 2, QString(field) + " \""});
        }
    }
    for (const auto& [arguments, exitCode, says] : cases) {
        const Result r = convert(arguments);
        SCOPED_TRACE(arguments.join(' ').toStdString() + "\n" + r.err.toStdString());
        EXPECT_EQ(r.exitCode, exitCode);
        EXPECT_TRUE((exitCode == 0 ? r.out : r.err).contains(says.toUtf8()));
        EXPECT_EQ(exitCode == 0 ? r.err.size() : r.out.size(), 0);
        EXPECT_EQ(r.errLines().size(), exitCode == 0 ? 0 : 1);
    }
    EXPECT_FALSE(QFile::exists(o.outputPath));
    EXPECT_EQ(QFileInfo(mine).size(), QFileInfo(mClip).size());
    EXPECT_EQ(QFileInfo(mark).size(), QFileInfo(watermark()).size());
    QFile f(victim);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), "the user's own file\n");
}

// Each machine mode prints what the libraries give when called directly.
TEST_F(KorvaneConvert, MachineModesMatchTheLibraries)
{
    ConvertSource source;
    AVTaskOutputParam output;
    editedJob("edited", &source, &output);
    output.acceleration.gpuName = "NVIDIA GPU [10de:2330]";
    const QString job = writeJob(mDir.filePath("job.json"), source, output);
    const ConvertSource readBack = convertSourceFromJson(convertSourceToJson(source));

    QStringList printed;
    for (const QJsonValue& v :
         QJsonDocument::fromJson(convert({"--job", job, "--print-command"}).out).array()) {
        printed << v.toString();
    }
    // The progress target is a fresh name under the plug-in's temporary folder.
    const QString target = printed.value(printed.indexOf("-progress") + 1);
    EXPECT_TRUE(
        QRegularExpression("^\".*/KvFFmpeg/\\.temp/[0-9a-f]{8}\"$").match(target).hasMatch());
    EXPECT_EQ(printed, makeFFmpegCommand(readBack, output, target.mid(1, target.size() - 2), -1));
    EXPECT_TRUE(printed.contains("h264_nvenc"));

    const QByteArray timeline = convert({"--job", job, "--print-timeline"}).out;
    EXPECT_EQ(withoutCountedIds(timeline),
              withoutCountedIds(
                  makeTimelineProjectJson(readBack, {{"width", 320}, {"height", 180}}).toUtf8()));
    // One document per program run: the process-wide counter starts afresh.
    EXPECT_TRUE(timeline.contains("\"transform_0\"")) << timeline.toStdString();

    EXPECT_EQ(jsonToVariantMap(convert({"--job", job, "--print-job"}).out),
              QVariantMap({{"ConvertSource",
                            jsonToVariantMap(convertSourceToJson(readBack)).value("ConvertSource")},
                           {"AVTaskOutputParam", jsonToVariantMap(outputParamToJson(output))}}));
    // An empty source object is the default record, and is printed as one.
    const QString empty =
        writeFile(mDir.filePath("empty.json"),
                  R"({"ConvertSource": {}, "AVTaskOutputParam": {"outputPath": "/o.mp4"}})");
    EXPECT_EQ(jsonToVariantMap(convert({"--job", empty, "--print-job"}).out).value("ConvertSource"),
              jsonToVariantMap(convertSourceToJson(ConvertSource())).value("ConvertSource"));

    // The two support checks, on jobs that reach different answers.
    QSet<QByteArray> answers;
    for (const int brightness : {0, 30}) {
        source.baseFilter.brightness = brightness;
        const ConvertSource back = convertSourceFromJson(convertSourceToJson(source));
        const QByteArray printed = convert({"--job", writeJob(job, source, output), "--check"}).out;
        EXPECT_EQ(
            QJsonDocument::fromJson(printed).object(),
            QJsonObject({{"ffmpeg", isConverterSourceSupportedByTranscoderFFmpeg(back, output)},
                         {"transcoder", isConverterSourceSupportedByTranscoder(back, QString())}}));
        answers.insert(printed.simplified());
    }
    EXPECT_EQ(answers.size(), 2);

    const QJsonObject probed = QJsonDocument::fromJson(convert({"--probe", mClip}).out).object();
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(mClip));
    const QSharedPointer<MediaDescription> d = demuxer.mediaInfo();
    ASSERT_TRUE(d);
    EXPECT_EQ(probed.keys(),
              QStringList({"audioStreams", "bitRate", "durationMs", "formatName", "startTimeMs",
                           "streams", "subtitleStreams", "videoStreams"}));
    EXPECT_EQ(QVariantList({probed["durationMs"].toInteger(), probed["formatName"].toString(),
                            probed["videoStreams"][0]["height"].toInt(),
                            probed["audioStreams"][0]["sampleRate"].toInt(),
                            probed["streams"].toArray().size()}),
              QVariantList({d->durationMs, d->formatName, 360, d->audioStreams.value(0)->sampleRate,
                            d->streams.size()}));
}

// --gpu auto reads the machine's PCI vendor ids; a saved flag job holds the
// records as completed from the input.
TEST_F(KorvaneConvert, SavedFlagJobHoldsTheCompletedRecords)
{
    const QString sysfs = mDir.filePath("sysfs");
    for (const auto& [card, vendor] :
         QList<QPair<QString, QByteArray>>{{"card0", "0x8086\n"}, {"card1", "0x10de\n"}}) {
        QDir().mkpath(sysfs + "/class/drm/" + card + "/device");
        writeFile(sysfs + "/class/drm/" + card + "/device/vendor", vendor);
    }
    const QString jobPath = mDir.filePath("saved/flags.json");
    ASSERT_EQ(convert({mClip, mDir.filePath("o.mkv"), "--crop", "0,0,0.5,1", "--watermark",
                       watermark() + ",alpha=0.5", "--vbitrate", "900", "--gpu", "auto",
                       "--save-job", jobPath},
                      sysfs)
                  .exitCode,
              0);
    const QVariantMap job = jsonToVariantMap(convert({"--job", jobPath, "--print-job"}).out);
    const QVariantMap source = job.value("ConvertSource").toMap();
    const QVariantMap output = job.value("AVTaskOutputParam").toMap();
    const QVariantMap mark = source.value("waterMark").toList().value(0).toMap();
    EXPECT_EQ(QVariantList({source.value("filePath"), source.value("selfAudios"),
                            source.value("crop").toMap().value("cropW"), mark.value("centerPos"),
                            mark.value("alpha"), output.value("format"),
                            output.value("video.codecName"), output.value("video.width"),
                            output.value("video.height"), output.value("video.bitrateKbps"),
                            output.value("audio.codecName"), output.value("acceleration.gpuName")}),
              QVariantList({mClip, QVariantList({1}), 0.5, "320,180", 0.5, "mkv", "h264", 640, 360,
                            900, "aac", "NVIDIA GPU [10de:0000]"}));
}

// Edits without a GPU go to the worker's convert with the records as they
// are, colour edits to its export with the timeline document. A failed job
// exits 1 with its reason, even quiet, and the next job still runs: a plain
// one, on the ffmpeg path, into a folder made for it.
TEST_F(KorvaneConvert, JobsRunOnThePathTheirEditsNeed)
{
    ConvertSource source;
    AVTaskOutputParam output;
    {
        ScriptedWorker worker("success");
        KorvaneBaseEntry()->settings().sync();
        const Result converted = convert({"--job", editedJob("edited", &source, &output)});
        ASSERT_EQ(converted.exitCode, 0) << converted.err.toStdString();
        const QString reason = converted.errLines().value(0);
        EXPECT_TRUE(reason.startsWith("path converter: ")) << converted.err.toStdString();
        EXPECT_TRUE(reason.contains("would drop: crop, watermark, size 320x180"))
            << reason.toStdString();
        source.baseFilter.brightness = 30;
        const Result exported =
            convert({"--job", writeJob(mDir.filePath("export.json"), source, output)});
        ASSERT_EQ(exported.exitCode, 0) << exported.err.toStdString();
        EXPECT_TRUE(exported.errLines().value(0).startsWith("path export: "))
            << exported.err.toStdString();
        ASSERT_EQ(worker.runs(), 2);
        EXPECT_EQ(worker.arguments(1).value(0) + worker.arguments(2).value(0), "convertexport");
        EXPECT_EQ(worker.fileContent(1, "--output"), outputParamToJson(output));
        EXPECT_EQ(withoutCountedIds(worker.fileContent(2, "--project").toUtf8()),
                  withoutCountedIds(
                      makeTimelineProjectJson(convertSourceFromJson(convertSourceToJson(source)),
                                              {{"width", 320}, {"height", 180}})
                          .toUtf8()));
        source.baseFilter.brightness = 0;
        EXPECT_EQ(worker.fileContent(1, "--source"),
                  convertSourceToJson(convertSourceFromJson(convertSourceToJson(source))));
    }
    ScriptedWorker worker("failure");
    KorvaneBaseEntry()->settings().sync();
    ConvertSource plain;
    plain.filePath = mClip;
    plain.selfAudios = {1};
    const QString out = mDir.filePath("new/folder/plain.mkv");
    const AVTaskOutputParam works{out, "mkv", {"h264"}, {"aac"}};
    const Result r = convert({"--job", editedJob("fails", &source, &output), "--job",
                              writeJob(mDir.filePath("works.json"), plain, works), "--quiet",
                              "--json-progress"});
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    EXPECT_EQ(r.errLines().filter(QRegularExpression("^job ")),
              QStringList({r.errLines().filter("job 1/2 failed").value(0)}))
        << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("(path converter): scripted failure")) << r.err.toStdString();
    QStringList events;
    for (const QByteArray& line : r.out.trimmed().split('\n')) {
        const QJsonObject e = QJsonDocument::fromJson(line).object();
        events << e.value("event").toString() + e.value("path").toString() +
                      e.value("name").toString() + e.value("state").toString();
    }
    EXPECT_TRUE(QRegularExpression("^startconverter stateStarted .*endFailed startffmpeg "
                                   "stateStarted (progress )*stateFinished endFinished$")
                    .match(events.join(' '))
                    .hasMatch())
        << r.out.toStdString();
    QByteArray probe;
    TestMedia::run(
        TestMedia::ffprobe(),
        {"-v", "error", "-show_entries", "stream=codec_name,width", "-of", "csv=p=0", out}, &probe);
    EXPECT_EQ(probe, "h264,640\naac\n");
}

// Ctrl-C stops the run, removes the output and exits 130, on the ffmpeg path
// and with a worker. A host killed outright cannot stop its worker: the worker
// notices on its own, stops and removes its partial output.
TEST_F(KorvaneConvert, InterruptedRunsLeaveNoOutput)
{
    const QString input = clip(1280, 720, 60);
    ASSERT_FALSE(input.isEmpty());
    {
        ScriptedWorker worker("hang");
        KorvaneBaseEntry()->settings().sync();
        for (const QString& path : {QStringLiteral("ffmpeg"), QStringLiteral("converter")}) {
            SCOPED_TRACE(path.toStdString());
            const QString out = mDir.filePath("interrupted-" + path + ".mp4");
            QProcess process;
            QByteArray seen =
                startUntil(process, {input, out, "--json-progress", "--path", path},
                           path == "ffmpeg" ? "\"event\":\"progress\"" : "\"Started\"");
            ASSERT_TRUE(process.state() == QProcess::Running && seen.contains("\"Started\""))
                << seen.toStdString();
            EXPECT_EQ(QFile::exists(out), path == "ffmpeg");
            ::kill(pid_t(process.processId()), SIGINT);
            ASSERT_TRUE(process.waitForFinished(20000));
            seen += process.readAllStandardOutput();
            EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
            EXPECT_EQ(process.exitCode(), 130);
            EXPECT_FALSE(QFile::exists(out));
            EXPECT_TRUE(seen.contains("\"state\":\"Stopped\"")) << seen.toStdString();
            EXPECT_TRUE(seen.contains("\"exitCode\":130")) << seen.toStdString();
        }
        EXPECT_TRUE(worker.stopped(1));
    }
    KorvaneBaseEntry()->settings().remove("kWorker_Path");
    KorvaneBaseEntry()->settings().sync();
    const QDir outDir(mDir.filePath("killed"));
    ASSERT_TRUE(outDir.mkpath("."));
    QProcess host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CACHE_HOME", mDir.filePath("cache"));
    host.setProcessEnvironment(environment);
    const QByteArray seen = startUntil(
        host, {input, outDir.filePath("out.mp4"), "--json-progress", "--path", "converter"},
        "\"event\":\"progress\"");
    QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(host.processId()));
    const QByteArray workers =
        children.open(QIODevice::ReadOnly) ? children.readAll().trimmed() : "";
    host.kill();
    host.waitForFinished();
    ASSERT_TRUE(seen.contains("\"event\":\"progress\"")) << seen.toStdString();
    ASSERT_FALSE(workers.isEmpty() || workers.contains(' ')) << workers.toStdString();
    // Ended: gone, or a zombie that nobody has reaped yet. The name in
    // /proc/PID/stat may hold anything, so the state is read after its last ')'.
    auto ended = [stat = "/proc/" + QString::fromLatin1(workers) + "/stat"] {
        QFile file(stat);
        const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        return text.isEmpty() || QByteArray("ZX").contains(text.at(text.lastIndexOf(')') + 2));
    };
    const QDeadlineTimer deadline(5000);
    while (!ended() && !deadline.hasExpired()) {
        QThread::msleep(50);
    }
    EXPECT_TRUE(ended());
    EXPECT_EQ(outDir.entryList(QDir::Files | QDir::Hidden), QStringList());
}
