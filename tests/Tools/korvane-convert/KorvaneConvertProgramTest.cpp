// korvane-convert driven as a user or script drives it: through its command
// line, on generated media.
#include "Common/Records/JsonForms.h"
#include "Common/Timeline/TimelineProject.h"
#include "KorvaneBase/KorvaneBase.h"
#include "ScriptedWorkerHarness.h"
#include "TestMedia.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
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

Result convert(const QStringList& arguments)
{
    QProcess process;
    process.start(KORVANE_CONVERT_PROGRAM, arguments);
    Result result;
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

// 1280x720 for 60 s still runs when a test interrupts it.
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

QString writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return path;
}

// A job file written by the library's writers, not the program's own code.
QString writeJob(const QString& path, const ConvertSource& source, const AVTaskOutputParam& output)
{
    const QVariantMap map{
        {"ConvertSource", jsonToVariantMap(convertSourceToJson(source)).value("ConvertSource")},
        {"AVTaskOutputParam", jsonToVariantMap(outputParamToJson(output))}};
    return writeFile(path, variantMapToJson(map, true).toUtf8());
}

// Transform ids carry a counter that lives as long as the process.
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
        source->waterMark[0].filePath =
            TestMedia::generate("korvane-convert/mark 64x32.png",
                                {"-f", "lavfi", "-i", "color=c=red:size=64x32", "-frames:v", "1"});
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
// written. A refused output or job field is a usage error naming it.
TEST_F(KorvaneConvert, UsageAndInputErrorsGiveOneLineAndTheRightExitCode)
{
    const QString notMedia = writeFile(mDir.filePath("notes.mp4"), "this is not a video\n");
    ConvertSource gone;
    gone.filePath = mDir.filePath("gone.mp4");
    AVTaskOutputParam o{mDir.filePath("o.mp4"), "mp4 -y", {"h264"}, {"aac"}};
    ConvertSource source;
    source.filePath = mClip;
    const QList<std::tuple<QStringList, int, QString>> cases = {
        {{"--help"}, 0, "Usage: korvane-convert INPUT OUTPUT"},
        {{}, 2, "missing INPUT and OUTPUT"},
        {{gone.filePath, o.outputPath}, 2, "does not exist"},
        {{"--job", writeFile(mDir.filePath("bad.json"), "{\"ConvertSource\": {}"), "--print-job"},
         2,
         "invalid job file"},
        {{"--job", writeFile(mDir.filePath("half.json"), R"({"ConvertSource": {}})"), "--check"},
         2,
         "\"AVTaskOutputParam\""},
        {{"--job", writeJob(mDir.filePath("gone.json"), gone, {o.outputPath})},
         2,
         "does not exist"},
        {{mClip, o.outputPath, "--frobnicate"}, 2, "unknown option --frobnicate"},
        {{mClip, mClip}, 2, "would overwrite the input"},
        {{"--probe", notMedia}, 1, "not a media file"},
        {{"--probe", mClip}, 0, "\"subtitleStreams\": ["},
        {{"--probe", mClip}, 0, "\"streams\": ["},
        {{notMedia, o.outputPath, "--quiet"}, 1, "not a media file"},
        {{"--job", writeJob(mDir.filePath("format.json"), source, o), "--path=converter"},
         2,
         "format \"mp4 -y\""}};
    for (const auto& [arguments, exitCode, says] : cases) {
        const Result r = convert(arguments);
        SCOPED_TRACE(arguments.join(' ').toStdString() + "\n" + r.err.toStdString());
        EXPECT_EQ(r.exitCode, exitCode);
        EXPECT_TRUE((exitCode == 0 ? r.out : r.err).contains(says.toUtf8()));
        EXPECT_EQ(exitCode == 0 ? r.err.size() : r.out.size(), 0);
        EXPECT_EQ(r.errLines().size(), exitCode == 0 ? 0 : 1);
    }
    EXPECT_FALSE(QFile::exists(o.outputPath));
}

// Regression: print-job wrote the job's source twice. An empty source object
// is the default record, and is printed as one.
TEST_F(KorvaneConvert, PrintJobGivesTheRecordsOnce)
{
    const QString empty =
        writeFile(mDir.filePath("empty.json"),
                  R"({"ConvertSource": {}, "AVTaskOutputParam": {"outputPath": "/o.mp4"}})");
    EXPECT_EQ(jsonToVariantMap(convert({"--job", empty, "--print-job"}).out),
              QVariantMap(
                  {{"ConvertSource",
                    jsonToVariantMap(convertSourceToJson(ConvertSource())).value("ConvertSource")},
                   {"AVTaskOutputParam", jsonToVariantMap(outputParamToJson({"/o.mp4"}))}}));
}

// Edits without a GPU go to the worker's convert with the records as they
// are, colour edits to its export with the timeline document.
TEST_F(KorvaneConvert, JobsRunOnThePathTheirEditsNeed)
{
    ConvertSource source;
    AVTaskOutputParam output;
    {
        ScriptedWorker worker("success");
        KorvaneBaseEntry()->settings().sync();
        const Result converted = convert({"--job", editedJob("edited", &source, &output)});
        ASSERT_EQ(converted.exitCode, 0) << converted.err.toStdString();
        EXPECT_TRUE(converted.errLines().value(0).startsWith("path converter: "));
        source.baseFilter.brightness = 30;
        const Result exported =
            convert({"--job", writeJob(mDir.filePath("export.json"), source, output)});
        ASSERT_EQ(exported.exitCode, 0) << exported.err.toStdString();
        EXPECT_TRUE(exported.errLines().value(0).startsWith("path export: "));
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
    // A failed job exits 1 with its reason, even quiet.
    ScriptedWorker worker("failure");
    KorvaneBaseEntry()->settings().sync();
    const Result r = convert({"--job", editedJob("fails", &source, &output), "--quiet"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("job 1/1 failed after ")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("(path converter): scripted failure"));
}

// Ctrl-C stops the run, removes the output and exits 130, on both paths. The
// worker of a host killed outright stops on its own and removes its output.
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
