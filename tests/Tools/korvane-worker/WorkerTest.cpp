// korvane-worker run as the operators run it: files in, JSON lines out, "stop"
// on its standard input.
#include "RenderTestSupport.h"
#include "TestMedia.h"

#include "Common/Records/JsonForms.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSaveFile>
#include <QtEndian>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

using namespace RenderTest;
using Korvane::ConvertSource;

namespace {

struct WorkerRun
{
    int exitCode = -1;
    QList<QJsonObject> lines;
};

WorkerRun runWorker(const QStringList& args,
                    const std::function<void(QProcess&, const QJsonObject&)>& onLine = {})
{
    WorkerRun run;
    QProcess process;
    process.start(QCoreApplication::applicationDirPath() + "/korvane-worker", args);
    // A worker that never ends fails here, not at the suite's time limit.
    QElapsedTimer clock;
    clock.start();
    while (process.waitForStarted() &&
           (process.state() != QProcess::NotRunning || process.canReadLine())) {
        if (clock.hasExpired(120000)) {
            process.kill();
        }
        process.waitForReadyRead(200);
        while (process.canReadLine()) {
            run.lines.append(QJsonDocument::fromJson(process.readLine().trimmed()).object());
            if (onLine) {
                onLine(process, run.lines.last());
            }
        }
    }
    process.waitForFinished(60000);
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return run;
}

QString writeFile(const QString& name, const QByteArray& content)
{
    QFile file(outputPath(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return file.fileName();
}

// The arguments of one job: its input file and an output record for `output`.
QStringList jobArgs(const QString& mode, const QByteArray& input, const QString& output)
{
    const Korvane::AVTaskOutputParam out{output, "mp4", {"h264"}, {"aac"}};
    return {mode, mode == "convert" ? "--source" : "--project", writeFile("input.json", input),
            "--output", writeFile("output.json", Korvane::outputParamToJson(out).toUtf8())};
}

QByteArray project(const QString& clip, qint64 lengthMs, int w, int h)
{
    QJsonObject main = mainClip(clip, 0, lengthMs, 0);
    main.insert("transform", transform(w, h));
    return QJsonDocument(document(w, h, 25, QJsonArray{main})).toJson();
}

QStringList filesNamedAfter(const QString& output)
{
    const QFileInfo info(output);
    return QDir(info.absolutePath())
        .entryList({"*" + info.fileName() + "*"}, QDir::Files | QDir::Hidden);
}

// The picture and tone in a container, with these codecs.
std::function<QString()> madeWith(const QString& name, const QString& codecs, int seconds = 2)
{
    return [=] {
        const QString length = QString::number(seconds);
        return TestMedia::generate(
            "engine/" + name,
            QStringList{"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=" + length,
                        "-f", "lavfi", "-i",
                        "sine=frequency=440:sample_rate=44100:duration=" + length} +
                codecs.split(' '));
    };
}

// A fragmented MP4 whose header claims 39.8 hours for its one second:
// the movie and picture track lengths are written over.
QString fragmentWithWrongLength()
{
    QFile in(madeWith("fragmented-1s.mp4",
                      "-c:v libx264 -bf 0 -c:a aac -movflags "
                      "frag_keyframe+empty_moov+default_base_moof",
                      1)());
    QByteArray data = in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    for (const char* box : {"mvhd", "mdhd"}) {
        // Version 0 boxes: the duration follows two dates and the time scale.
        const int at = int(data.indexOf(box));
        if (at < 0) {
            return {};
        }
        const quint32 scale = qFromBigEndian<quint32>(data.constData() + at + 16);
        qToBigEndian(quint32(143280 * scale), data.data() + at + 20);
    }
    QSaveFile out(TestMedia::dir() + "/engine/fragmented-claims-40h.mp4");
    if (!out.open(QIODevice::WriteOnly) || out.write(data) != data.size() || !out.commit()) {
        return {};
    }
    return out.fileName();
}

QString shiftedPicture()
{
    const QString plain = madeWith("plain-2s.mp4", "-c:v libx264 -c:a aac")();
    return TestMedia::generate(
        "engine/shifted-picture.mp4",
        {"-itsoffset", "1", "-i", plain, "-i", plain, "-map", "0:v", "-map", "1:a", "-c", "copy"});
}

} // namespace

// Every way a host (or the system) tells the worker to end stops the render
// mid-way: state 4, exit code 1, no partial file.
TEST(WorkerProcess, StopRequestsEndWithState4AndNoFile)
{
    const QString source = TestMedia::generate(
        "engine/long-pattern.mp4",
        {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25:duration=20", "-f", "lavfi", "-i",
         "sine=frequency=440:sample_rate=48000:duration=20", "-c:v", "libx264", "-preset",
         "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac"});
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
        const auto stopOnProgress = [&](QProcess& process, const QJsonObject& line) {
            if (line.contains("progress") && !sent) {
                sent = true;
                // The render goes to a temporary file until it is done.
                EXPECT_FALSE(QFileInfo::exists(output));
                request(process);
            }
        };
        const WorkerRun run =
            runWorker(jobArgs("export", project(source, 20000, 640, 360), output), stopOnProgress);
        ASSERT_TRUE(sent);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(run.lines.value(run.lines.size() - 1), QJsonObject({{"state", 4}}));
        EXPECT_TRUE(filesNamedAfter(output).isEmpty());
    }
}

// Each input keeps its picture and every frame. Inputs whose sound is not AAC,
// whose timestamps overlap, start late or shift, or whose header misstates the
// length convert to what they hold, sound beside picture, packets in order.
TEST(WorkerProcess, ConvertsRealInputsToWhatTheyPresent)
{
    const struct
    {
        const char* name;
        std::function<QString()> make;
        int audioStream; // the sound kept; -1: none, and the pictures are compared
        double seconds;  // what the input really presents
        int pictures;    // frames counted in the output; 0 for a sound file
    } rows[] = {
        {"pattern", clipWithoutSound, -1, 2.0, 50},
        // H.263 implies 12:11 pixels, which the 3GP container overrides with
        // square ones: the picture must fill the frame as the container says.
        {"h263_3gp",
         [] {
             return TestMedia::generate(
                 "engine/qcif-h263.3gp",
                 {"-f", "lavfi", "-i", "testsrc=size=176x144:rate=15:duration=2", "-c:v", "h263"});
         },
         -1, 2.0, 30},
        // The AVI muxer repeats the last picture up to the sound: 51 frames.
        {"mp3_in_avi", madeWith("mp3.avi", "-c:v mpeg4 -c:a libmp3lame"), 1, 2.04, 51},
        // WMA's last block reaches 2.09 s.
        {"wma_in_asf", madeWith("wma.wmv", "-c:v wmv2 -c:a wmav2"), 1, 2.09, 51},
        {"ima_adpcm_in_wav", madeWith("adpcm.wav", "-vn -c:a adpcm_ima_wav"), 0, 2.04, 0},
        // MPEG-TS starts its clock at 1.4 s.
        {"mp2_in_ts", madeWith("mp2.ts", "-c:v mpeg2video -c:a mp2"), 1, 2.0, 50},
        // The sound outlasts the picture and stays whole; a short one is
        // filled with silence to the picture's end.
        {"sound_outlasts_picture",
         madeWith("long-sound.mp4", "-vf trim=duration=1 -c:v libx264 -c:a aac"), 1, 2.0, 25},
        {"picture_outlasts_sound",
         madeWith("short-sound.mp4", "-af atrim=duration=1 -c:v libx264 -c:a aac"), 1, 2.0, 50},
        // Its average rate reads as 24 fps: the 25 frames last 1.04 s.
        {"header_claims_40_hours", fragmentWithWrongLength, 1, 1.04, 25},
        // The picture's edit list starts it at 1 s: its first frame shows from 0.
        {"picture_shifted_by_edit_list", shiftedPicture, 1, 3.0, 75},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ConvertSource source;
        source.filePath = row.make();
        ASSERT_FALSE(source.filePath.isEmpty());
        if (row.audioStream >= 0) {
            source.selfAudios = {row.audioStream};
        }
        const QString output = outputPath(QStringLiteral("%1.mp4").arg(row.name));
        const WorkerRun run =
            runWorker(jobArgs("convert", Korvane::convertSourceToJson(source).toUtf8(), output));
        ASSERT_EQ(run.exitCode, 0);
        EXPECT_EQ(run.lines.value(0), QJsonObject({{"state", 1}}));
        EXPECT_EQ(run.lines.value(run.lines.size() - 1), QJsonObject({{"state", 5}}));
        const Probe p = probe(output, true);
        EXPECT_NEAR(p.formatDuration, row.seconds, 0.06);
        EXPECT_EQ(p.videoFrames, row.pictures);
        EXPECT_TRUE(packetTimesIncrease(output));
        EXPECT_EQ(p.audioStreams, row.audioStream >= 0 ? 1 : 0);
        if (row.audioStream >= 0) {
            EXPECT_NEAR(p.audioDuration, row.seconds, 0.03);
        } else {
            EXPECT_GT(ssim(output, source.filePath), 0.95);
        }
    }
}
