// The korvane-worker program run as the operators run it: files in, JSON
// lines out, "stop" on its standard input.
#include "RenderTestSupport.h"
#include "TestMedia.h"

#include "Common/AVTaskOutputParam.h"
#include "Common/ConvertSource.h"
#include "Common/JsonForms.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QSaveFile>
#include <QtEndian>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

using namespace RenderTest;

namespace {

struct WorkerRun
{
    int exitCode = -1;
    QList<QJsonObject> lines;
    QByteArray standardOutput;
};

QString workerProgram()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/korvane-worker");
}

WorkerRun runWorker(const QStringList& args,
                    const std::function<void(QProcess&, const QJsonObject&)>& onLine = {})
{
    WorkerRun run;
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(workerProgram(), args);
    if (!process.waitForStarted()) {
        return run;
    }
    // A worker that never ends (a header's length taken for real) fails here
    // rather than at the suite's time limit.
    QElapsedTimer clock;
    clock.start();
    while (process.state() != QProcess::NotRunning || process.canReadLine()) {
        if (clock.hasExpired(120000)) {
            process.kill();
        }
        if (!process.canReadLine() && !process.waitForReadyRead(200)) {
            continue;
        }
        while (process.canReadLine()) {
            const QByteArray line = process.readLine();
            run.standardOutput += line;
            const QJsonObject object = QJsonDocument::fromJson(line.trimmed()).object();
            run.lines.append(object);
            if (onLine) {
                onLine(process, object);
            }
        }
    }
    process.waitForFinished(60000);
    run.standardOutput += process.readAllStandardOutput();
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return run;
}

QString writeFile(const QString& name, const QByteArray& content)
{
    const QString path = outputPath(name);
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(content);
    return path;
}

// The output and any temporary file named after it.
QStringList filesNamedAfter(const QString& output)
{
    const QFileInfo info(output);
    return QDir(info.absolutePath())
        .entryList({QLatin1Char('*') + info.fileName() + QLatin1Char('*')},
                   QDir::Files | QDir::Hidden);
}

QString outputRecord(const QString& outputFile, int w = 0, int h = 0)
{
    Korvane::AVTaskOutputParam out;
    out.outputPath = outputFile;
    out.format = QStringLiteral("mp4");
    out.video.codecName = QStringLiteral("h264");
    out.video.width = w;
    out.video.height = h;
    out.audio.codecName = QStringLiteral("aac");
    return writeFile(QStringLiteral("output.json"), Korvane::outputParamToJson(out).toUtf8());
}

// `korvane-worker convert` on `source`, writing `output` at the given size
// (0: the source's).
WorkerRun runConvert(const Korvane::ConvertSource& source, const QString& output, int w = 0,
                     int h = 0)
{
    const QString sourceFile =
        writeFile(QStringLiteral("source.json"), Korvane::convertSourceToJson(source).toUtf8());
    return runWorker({"convert", "--source", sourceFile, "--output", outputRecord(output, w, h)});
}

QString projectFile(const QJsonObject& doc)
{
    return writeFile(QStringLiteral("project.json"), QJsonDocument(doc).toJson());
}

QString longClip()
{
    return TestMedia::generate(
        QStringLiteral("engine/long-pattern.mp4"),
        {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25:duration=20", "-f", "lavfi", "-i",
         "sine=frequency=440:sample_rate=48000:duration=20", "-c:v", "libx264", "-preset",
         "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac"});
}

} // namespace

TEST(WorkerProcess, BadInvocationPrintsUsageAndExitsTwo)
{
    for (const QStringList& args : {QStringList{}, QStringList{"convert", "--source", "x"},
                                    QStringList{"export", "--project", "p", "--output"}}) {
        QProcess process;
        process.start(workerProgram(), args);
        ASSERT_TRUE(process.waitForFinished(30000));
        EXPECT_EQ(process.exitCode(), 2);
        EXPECT_TRUE(process.readAllStandardOutput().isEmpty());
        EXPECT_TRUE(process.readAllStandardError().contains("usage: korvane-worker"));
    }
}

TEST(WorkerProcess, ExportReportsStartProgressAndFinish)
{
    QJsonObject clip = mainClip(clipWithSound(), 0, 2000, 0);
    clip.insert("transform", transform(160, 120));
    const QString output = outputPath("export.mp4");
    const WorkerRun run =
        runWorker({"export", "--project", projectFile(document(160, 120, 25, {clip})), "--output",
                   outputRecord(output, 320, 240)});
    EXPECT_EQ(run.exitCode, 0) << run.standardOutput.toStdString();
    ASSERT_GE(run.lines.size(), 3) << run.standardOutput.toStdString();
    EXPECT_EQ(run.lines.first(), QJsonObject({{"state", 1}}));
    EXPECT_EQ(run.lines.last(), QJsonObject({{"state", 5}}));
    double previous = -1.0;
    for (int i = 1; i + 1 < run.lines.size(); ++i) {
        ASSERT_TRUE(run.lines[i].contains("progress"));
        const double value = run.lines[i].value("progress").toDouble();
        EXPECT_GE(value, previous);
        EXPECT_LE(value, 1.0);
        previous = value;
    }
    const Probe p = probe(output);
    EXPECT_EQ(p.width, 320);
    EXPECT_EQ(p.height, 240);
    EXPECT_NEAR(p.videoDuration, 2.0, 0.1);
}

TEST(WorkerProcess, MissingWatermarkFailsWithItsPath)
{
    QJsonObject clip = mainClip(clipWithSound(), 0, 2000, 0);
    clip.insert("transform", transform(160, 120));
    const QString missing = QStringLiteral("/nonexistent/mark-for-worker.png");
    const QJsonObject image{{"id", "clip_image_0"},
                            {"type", "image"},
                            {"file_path", missing},
                            {"track_ref", "track_1"},
                            {"transform", QJsonObject{{"center_pos", "10,10"}}}};
    const QString output = outputPath("nomark.mp4");
    const WorkerRun run =
        runWorker({"export", "--project", projectFile(document(160, 120, 25, {clip, image})),
                   "--output", outputRecord(output)});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_FALSE(run.lines.isEmpty());
    EXPECT_EQ(run.lines.last().value("state").toInt(), 6);
    EXPECT_TRUE(run.lines.last().value("error").toString().contains(missing))
        << run.standardOutput.toStdString();
    EXPECT_FALSE(QFileInfo::exists(output));
}

TEST(WorkerProcess, UnreadableJobFilesFailWithState6)
{
    const WorkerRun run = runWorker({"export", "--project", "/nonexistent/project.json", "--output",
                                     outputRecord(outputPath("never.mp4"))});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_EQ(run.lines[0].value("state").toInt(), 6);
    EXPECT_TRUE(run.lines[0].value("error").toString().contains("/nonexistent/project.json"));
}

// Every way a host (or the system) tells the worker to end stops the render
// mid-way: state 4, exit code 1, no partial file.
TEST(WorkerProcess, StopRequestsEndWithState4AndNoFile)
{
    const QString source = longClip();
    ASSERT_FALSE(source.isEmpty());
    QJsonObject clip = mainClip(source, 0, 20000, 0);
    clip.insert("transform", transform(640, 360));
    const QString project = projectFile(document(640, 360, 25, {clip}));
    const QList<QPair<const char*, std::function<void(QProcess&)>>> requests{
        {"stop line", [](QProcess& p) { p.write("stop\n"); }},
        {"end of standard input", [](QProcess& p) { p.closeWriteChannel(); }},
        {"SIGTERM", [](QProcess& p) { ::kill(pid_t(p.processId()), SIGTERM); }},
        {"SIGINT", [](QProcess& p) { ::kill(pid_t(p.processId()), SIGINT); }},
    };
    for (const auto& [name, request] : requests) {
        SCOPED_TRACE(name);
        const QString output = outputPath("stop.mp4");
        bool sent = false;
        const WorkerRun run =
            runWorker({"export", "--project", project, "--output", outputRecord(output)},
                      [&](QProcess& process, const QJsonObject& line) {
                          if (line.contains("progress") && !sent) {
                              sent = true;
                              // The render goes to a temporary file until it is done.
                              EXPECT_FALSE(QFileInfo::exists(output));
                              request(process);
                          }
                      });
        ASSERT_TRUE(sent);
        EXPECT_EQ(run.exitCode, 1);
        ASSERT_FALSE(run.lines.isEmpty());
        EXPECT_EQ(run.lines.last(), QJsonObject({{"state", 4}}));
        const QStringList left = filesNamedAfter(output);
        EXPECT_TRUE(left.isEmpty()) << left.join(' ').toStdString();
    }
}

TEST(WorkerProcess, ConvertRendersTheJobWithItsEdits)
{
    Korvane::ConvertSource source;
    source.filePath = clipWithSound();
    source.selfAudios = {1};
    source.cut = {{500, 1000}};
    source.baseFilter.volume = 50;
    Korvane::WaterMarkParam mark;
    mark.filePath = watermarkPng();
    mark.centerPos = QPoint(160, 120);
    source.waterMark = {mark};
    const QString output = outputPath("convert.mp4");
    const WorkerRun run = runConvert(source, output, 320, 240);
    EXPECT_EQ(run.exitCode, 0) << run.standardOutput.toStdString();
    ASSERT_FALSE(run.lines.isEmpty());
    EXPECT_EQ(run.lines.first(), QJsonObject({{"state", 1}}));
    EXPECT_EQ(run.lines.last(), QJsonObject({{"state", 5}}));
    const Probe p = probe(output);
    EXPECT_EQ(p.width, 320);
    EXPECT_EQ(p.height, 240);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_NEAR(p.videoDuration, 1.0, 0.1);
    EXPECT_NEAR(p.audioDuration, 1.0, 0.1);
    EXPECT_NEAR(meanVolume(output, 0.1, 0.8) - meanVolume(source.filePath, 0.6, 0.8), -6.02, 0.8);
    // The red mark covers the centre of the picture.
    const QString plain = outputPath("convert-plain.mp4");
    ASSERT_TRUE(ffmpeg({"-ss", "0.5", "-t", "1", "-i", source.filePath, "-vf", "scale=320:240",
                        "-c:v", "libx264", "-crf", "10", plain}));
    EXPECT_GT(pictureDifference(output, plain, 0.5, 150, 112, 20, 16), 25.0);
    EXPECT_LT(pictureDifference(output, plain, 0.5, 0, 0, 80, 60), 8.0);
}

TEST(WorkerProcess, ConvertWithoutOutputSizeShowsTheWholePictureAndEveryFrame)
{
    struct Row
    {
        const char* name;
        QString source;
        int width;
        int height;
        int frames;
    };
    // H.263 implies 12:11 pixels, which the 3GP container overrides with
    // square ones: the picture must fill the frame as the container says.
    const QList<Row> rows = {
        {"pattern", clipWithoutSound(), 160, 120, 50},
        {"h263_3gp",
         TestMedia::generate(
             QStringLiteral("engine/qcif-h263.3gp"),
             {"-f", "lavfi", "-i", "testsrc=size=176x144:rate=15:duration=2", "-c:v", "h263"}),
         176, 144, 30},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_FALSE(row.source.isEmpty());
        Korvane::ConvertSource source;
        source.filePath = row.source;
        const QString output = outputPath(QStringLiteral("convert-%1.mp4").arg(row.name));
        const WorkerRun run = runConvert(source, output);
        EXPECT_EQ(run.exitCode, 0) << run.standardOutput.toStdString();
        const Probe p = probe(output, true);
        EXPECT_EQ(p.width, row.width);
        EXPECT_EQ(p.height, row.height);
        EXPECT_EQ(p.audioStreams, 0); // the job keeps no sound
        EXPECT_EQ(p.videoFrames, row.frames);
        EXPECT_GT(ssim(output, row.source), 0.95);
    }
}

namespace {

QStringList pictureAndTone(int seconds = 2)
{
    return {"-f", "lavfi",
            "-i", QStringLiteral("testsrc2=size=160x120:rate=25:duration=%1").arg(seconds),
            "-f", "lavfi",
            "-i", QStringLiteral("sine=frequency=440:sample_rate=44100:duration=%1").arg(seconds)};
}

// The 2 s picture and tone in a container, with these codecs.
std::function<QString()> madeWith(const char* name, const QStringList& codecs)
{
    return [=] {
        return TestMedia::generate(QStringLiteral("engine/%1").arg(QLatin1String(name)),
                                   pictureAndTone() + codecs);
    };
}

// A fragmented MP4 whose header claims 39.8 hours for its one second:
// the movie and picture track lengths are written over.
QString fragmentWithWrongLength()
{
    const QString fragmented = TestMedia::generate(
        QStringLiteral("engine/fragmented-1s.mp4"),
        pictureAndTone(1) + QStringList{"-c:v", "libx264", "-bf", "0", "-c:a", "aac", "-movflags",
                                        "frag_keyframe+empty_moov+default_base_moof"});
    const QString patched = TestMedia::dir() + QStringLiteral("/engine/fragmented-claims-40h.mp4");
    QFile in(fragmented);
    if (fragmented.isEmpty() || !in.open(QIODevice::ReadOnly)) {
        return {};
    }
    QByteArray data = in.readAll();
    const qint64 claimedSeconds = 143280;
    for (const char* box : {"mvhd", "mdhd"}) {
        // Version 0 boxes: the duration follows two dates and the time scale.
        const int at = data.indexOf(box);
        if (at < 0) {
            return {};
        }
        const quint32 scale = qFromBigEndian<quint32>(data.constData() + at + 16);
        qToBigEndian(quint32(claimedSeconds * scale), data.data() + at + 20);
    }
    QSaveFile out(patched);
    if (!out.open(QIODevice::WriteOnly) || out.write(data) != data.size() || !out.commit()) {
        return {};
    }
    return patched;
}

struct RealInputCase
{
    const char* name;
    std::function<QString()> make;
    int audioStream; // the file's stream index of the sound kept
    double seconds;  // what the input really presents
    int pictures;    // frames at 25 fps; 0 for a sound file
};

class RealInputs : public ::testing::TestWithParam<RealInputCase>
{};

} // namespace

// Inputs whose sound is not AAC, whose timestamps overlap, start late or
// shift, or whose header misstates the length: each converts to what it
// holds, with the sound beside the picture and packets in order.
TEST_P(RealInputs, ConvertToWhatTheyPresent)
{
    const RealInputCase& c = GetParam();
    Korvane::ConvertSource source;
    source.filePath = c.make();
    ASSERT_FALSE(source.filePath.isEmpty());
    source.selfAudios = {c.audioStream};
    const QString output = outputPath(QStringLiteral("%1.mp4").arg(c.name));
    const WorkerRun run = runConvert(source, output);
    ASSERT_EQ(run.exitCode, 0) << run.standardOutput.toStdString();
    const Probe p = probe(output);
    EXPECT_NEAR(p.formatDuration, c.seconds, 0.06);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_NEAR(p.audioDuration, c.seconds, 0.03);
    EXPECT_EQ(p.videoFrames, c.pictures);
    EXPECT_TRUE(packetTimesIncrease(output));
}

INSTANTIATE_TEST_SUITE_P(
    Worker, RealInputs,
    ::testing::Values(
        // The AVI muxer repeats the last picture up to the sound: 51 frames.
        RealInputCase{"mp3_in_avi", madeWith("mp3.avi", {"-c:v", "mpeg4", "-c:a", "libmp3lame"}), 1,
                      2.04, 51},
        // WMA's last block reaches 2.09 s.
        RealInputCase{"wma_in_asf", madeWith("wma.wmv", {"-c:v", "wmv2", "-c:a", "wmav2"}), 1, 2.09,
                      51},
        RealInputCase{"ima_adpcm_in_wav", madeWith("adpcm.wav", {"-vn", "-c:a", "adpcm_ima_wav"}),
                      0, 2.04, 0},
        // MPEG-TS starts its clock at 1.4 s.
        RealInputCase{"mp2_in_ts", madeWith("mp2.ts", {"-c:v", "mpeg2video", "-c:a", "mp2"}), 1,
                      2.0, 50},
        // The sound outlasts the picture and stays whole; a short one is
        // filled with silence to the picture's end.
        RealInputCase{"sound_outlasts_picture",
                      madeWith("long-sound.mp4",
                               {"-vf", "trim=duration=1", "-c:v", "libx264", "-c:a", "aac"}),
                      1, 2.0, 25},
        RealInputCase{"picture_outlasts_sound",
                      madeWith("short-sound.mp4",
                               {"-af", "atrim=duration=1", "-c:v", "libx264", "-c:a", "aac"}),
                      1, 2.0, 50},
        // Its average rate reads as 24 fps: the 25 frames last 1.04 s.
        RealInputCase{"header_claims_40_hours", fragmentWithWrongLength, 1, 1.04, 25},
        // The picture's edit list starts it at 1 s: its first frame shows from 0.
        RealInputCase{"picture_shifted_by_edit_list",
                      [] {
                          const QString plain =
                              madeWith("plain-2s.mp4", {"-c:v", "libx264", "-c:a", "aac"})();
                          return TestMedia::generate("engine/shifted-picture.mp4",
                                                     {"-itsoffset", "1", "-i", plain, "-i", plain,
                                                      "-map", "0:v", "-map", "1:a", "-c", "copy"});
                      },
                      1, 3.0, 75}),
    [](const ::testing::TestParamInfo<RealInputCase>& info) {
        return std::string(info.param.name);
    });
