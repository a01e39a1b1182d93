// The software path for real: the argument list built from probed clips is
// joined and split as the process operator does, run with the ffmpeg program,
// and the result is probed.
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"

#include "TestMedia.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QString clipWithAudio()
{
    return TestMedia::generate("TranscoderFFmpeg/h264 aac 320x240.mp4",
                               {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=1",
                                "-f", "lavfi", "-i",
                                "sine=frequency=440:duration=1:sample_rate=48000", "-c:v",
                                "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
}

QString clipWithoutAudio()
{
    return TestMedia::generate("TranscoderFFmpeg/h265 silent 352x288.mkv",
                               {"-f", "lavfi", "-i", "testsrc2=size=352x288:rate=30:duration=1",
                                "-c:v", "libx265", "-x265-params", "log-level=error", "-pix_fmt",
                                "yuv420p"});
}

struct Probed
{
    QString formatName;
    QJsonObject video; // empty when there is none
    QJsonObject audio;
    int streams = 0;
};

Probed probe(const QString& path)
{
    QByteArray out;
    const int code =
        TestMedia::run(TestMedia::ffprobe(),
                       {"-v", "error", "-show_format", "-show_streams", "-of", "json", path}, &out);
    Probed probed;
    if (code != 0) {
        return probed;
    }
    const QJsonObject root = QJsonDocument::fromJson(out).object();
    probed.formatName = root.value("format").toObject().value("format_name").toString();
    const QJsonArray streams = root.value("streams").toArray();
    probed.streams = streams.size();
    for (const QJsonValue& s : streams) {
        const QJsonObject stream = s.toObject();
        if (stream.value("codec_type") == "video" && probed.video.isEmpty()) {
            probed.video = stream;
        } else if (stream.value("codec_type") == "audio" && probed.audio.isEmpty()) {
            probed.audio = stream;
        }
    }
    return probed;
}

double rate(const QString& fraction)
{
    const QStringList parts = fraction.split('/');
    return parts.size() == 2 && parts[1].toDouble() != 0 ? parts[0].toDouble() / parts[1].toDouble()
                                                         : 0.0;
}

struct RunCase
{
    const char* name;
    bool inputHasAudio;
    const char* videoCodec; // output, as the host names it
    const char* audioCodec;
    const char* format;
    const char* suffix;
    double frameRate;
    qint64 videoKbps;
    bool hardwareEnabled;
    // Expected result.
    const char* formatName;
    const char* videoCodecName; // empty: no video stream
    const char* codecTag;       // empty: not checked
    bool audio;
};

} // namespace

TEST(SoftwareRun, ConvertsGeneratedClips)
{
    const QString withAudio = clipWithAudio();
    const QString silent = clipWithoutAudio();
    ASSERT_FALSE(withAudio.isEmpty());
    ASSERT_FALSE(silent.isEmpty());

    const RunCase cases[] = {
        {"h264 to h264 mp4 with audio", true, "h264", "aac", "mp4", "mp4", 30.0, 800, false,
         "mov,mp4,m4a,3gp,3g2,mj2", "h264", "avc1", true},
        {"h264 to h265 mov, hvc1 tag", true, "H265", "aac", "MOV", "mov", 25.0, 0, false,
         "mov,mp4,m4a,3gp,3g2,mj2", "hevc", "hvc1", true},
        {"h264 to h264 mkv with -vsync 1 and auto hardware decoding", true, "h264", "aac", "mkv",
         "mkv", 29.97, 500, true, "matroska,webm", "h264", "", true},
        {"h264 input, audio dropped by the job", true, "h264", "", "mp4", "mp4", 0.0, 0, false,
         "mov,mp4,m4a,3gp,3g2,mj2", "h264", "", false},
        {"h265 input without audio to h265 mp4", false, "h265", "aac", "mp4", "mp4", 24.0, 600,
         false, "mov,mp4,m4a,3gp,3g2,mj2", "hevc", "hvc1", false},
        {"h265 input without audio to h264 mkv", false, "h264", "aac", "mkv", "mkv", 0.0, 0, false,
         "matroska,webm", "h264", "", false},
        {"audio only output", true, "", "aac", "m4a", "m4a", 0.0, 0, false,
         "mov,mp4,m4a,3gp,3g2,mj2", "", "", true},
    };
    QTemporaryDir work;
    ASSERT_TRUE(work.isValid());
    int n = 0;
    for (const RunCase& c : cases) {
        ++n;
        ConvertSource source;
        source.filePath = c.inputHasAudio ? withAudio : silent;
        AVTaskOutputParam param;
        param.outputPath = work.filePath(QString("out %1.%2").arg(n).arg(c.suffix));
        param.format = c.format;
        param.video.codecName = c.videoCodec;
        param.video.width = 320;
        param.video.height = 240;
        param.video.frameRate = c.frameRate;
        param.video.bitrateKbps = c.videoKbps;
        param.audio.codecName = c.audioCodec;
        param.audio.sampleRate = 44100;
        param.audio.channels = 1;
        param.audio.bitrateKbps = 96;
        param.acceleration.gpuName = "Generic Display Adapter";
        param.acceleration.hardwareEnabled = c.hardwareEnabled;
        const QString progress = work.filePath(QString("progress %1.txt").arg(n));

        const QStringList args = makeFFmpegCommand(source, param, progress, -1);
        ASSERT_FALSE(args.isEmpty()) << c.name;
        EXPECT_FALSE(args.contains("-lavfi")) << c.name;

        QProcess ffmpeg;
        ffmpeg.start(TestMedia::ffmpeg(), QProcess::splitCommand(args.join(' ')));
        ASSERT_TRUE(ffmpeg.waitForStarted()) << c.name;
        ASSERT_TRUE(ffmpeg.waitForFinished(120000)) << c.name;
        const QByteArray errors = ffmpeg.readAllStandardError();
        EXPECT_EQ(ffmpeg.exitStatus(), QProcess::NormalExit) << c.name;
        EXPECT_EQ(ffmpeg.exitCode(), 0) << c.name << ": " << errors.toStdString();
        // The operator counts anything on the error stream as a failed run.
        // Two sources write there whatever "-v error" says: libx265's own
        // banner, and "-hwaccel auto" reporting the devices it could not open
        // on a machine without them.
        const bool x265 = QString(c.videoCodecName) == "hevc";
        if (!x265 && !c.hardwareEnabled) {
            EXPECT_TRUE(errors.isEmpty()) << c.name << ": " << errors.toStdString();
        }

        QFile progressFile(progress);
        ASSERT_TRUE(progressFile.open(QIODevice::ReadOnly)) << c.name;
        EXPECT_TRUE(progressFile.readAll().contains("progress=end")) << c.name;

        const Probed out = probe(param.outputPath);
        EXPECT_EQ(out.formatName, QString(c.formatName)) << c.name;
        if (QString(c.videoCodecName).isEmpty()) {
            EXPECT_TRUE(out.video.isEmpty()) << c.name;
        } else {
            ASSERT_FALSE(out.video.isEmpty()) << c.name;
            EXPECT_EQ(out.video.value("codec_name").toString(), QString(c.videoCodecName))
                << c.name;
            // Edits and sizes are not applied without a GPU graph.
            EXPECT_EQ(out.video.value("width").toInt(), c.inputHasAudio ? 320 : 352) << c.name;
            EXPECT_EQ(out.video.value("height").toInt(), c.inputHasAudio ? 240 : 288) << c.name;
            if (QString(c.codecTag).size() > 0) {
                EXPECT_EQ(out.video.value("codec_tag_string").toString(), QString(c.codecTag))
                    << c.name;
            }
            if (c.frameRate > 0) {
                EXPECT_NEAR(rate(out.video.value("avg_frame_rate").toString()), c.frameRate, 0.05)
                    << c.name;
            }
        }
        if (c.audio) {
            ASSERT_FALSE(out.audio.isEmpty()) << c.name;
            EXPECT_EQ(out.audio.value("codec_name").toString(), QString("aac")) << c.name;
            EXPECT_EQ(out.audio.value("sample_rate").toString(), QString("44100")) << c.name;
            EXPECT_EQ(out.audio.value("channels").toInt(), 1) << c.name;
        } else {
            EXPECT_TRUE(out.audio.isEmpty()) << c.name;
        }
        EXPECT_EQ(out.streams, (out.video.isEmpty() ? 0 : 1) + (out.audio.isEmpty() ? 0 : 1))
            << c.name;
    }
}

TEST(SoftwareRun, UnprobeableInputGivesNoCommand)
{
    QTemporaryDir work;
    QFile junk(work.filePath("junk.mp4"));
    ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
    junk.write("not a media file");
    junk.close();
    ConvertSource source;
    source.filePath = junk.fileName();
    AVTaskOutputParam param;
    param.outputPath = work.filePath("out.mp4");
    param.format = "mp4";
    param.video.codecName = "h264";
    EXPECT_TRUE(makeFFmpegCommand(source, param, work.filePath("p.txt"), -1).isEmpty());
    source.filePath = work.filePath("missing.mp4");
    EXPECT_TRUE(makeFFmpegCommand(source, param, work.filePath("p.txt"), -1).isEmpty());
}

TEST(RealFacts, GraphsProbeTheWatermarkPictures)
{
    const QString clip = clipWithAudio();
    const QString picture =
        TestMedia::generate("TranscoderFFmpeg/mark 200x100.png",
                            {"-f", "lavfi", "-i", "color=c=red:size=200x100", "-frames:v", "1"});
    ASSERT_FALSE(clip.isEmpty());
    ASSERT_FALSE(picture.isEmpty());
    const QSharedPointer<MediaInfoV3> info = getMediaInfo(clip, -2, true);
    ASSERT_TRUE(info);

    ConvertSource source;
    source.filePath = clip;
    WaterMarkParam mark;
    mark.filePath = picture;
    mark.scaleX = 0.5f;
    source.waterMark = {mark};
    AVTaskOutputParam::Video video;
    video.codecName = "h264";
    video.width = 640;
    video.height = 480;
    EXPECT_EQ(makeCudaFilterCommand(source, video, info),
              QString("[0:v]scale_cuda=w=640:h=480,hwdownload,format=nv12[video];"
                      "[1:v]scale=w=320:h=160,format=yuva444p,colorchannelmixer=aa=1[mark1];"
                      "[video][mark1]overlay=x=160:y=160"));
    EXPECT_EQ(makeQsvFilterCommand(source, video, info),
              QString("[0:v]vpp_qsv=w=640:h=480[video];"
                      "[1:v]hwupload=extra_hw_frames=10[mark1];"
                      "[video][mark1]overlay_qsv=x=160:y=160:w=320:h=160:alpha=255"));

    source.waterMark[0].filePath = picture + ".missing.png";
    EXPECT_EQ(makeCudaFilterCommand(source, video, info), QString());
    EXPECT_EQ(makeQsvFilterCommand(source, video, info), QString());
}

TEST(RealFacts, IntelDeviceFollowsTheGpuLibrarySwitch)
{
    const QString clip = clipWithAudio();
    ASSERT_FALSE(clip.isEmpty());
    ConvertSource source;
    source.filePath = clip;
    AVTaskOutputParam param;
    param.outputPath = "/tmp/out.mp4";
    param.format = "mp4";
    param.video.codecName = "h264";
    param.acceleration.gpuName = "Intel(R) UHD Graphics 630";
    param.acceleration.hardwareEnabled = true;
    const QString key = KorvaneGPUHardwareAcceleration::kQsvInitDeviceExplicitKey;
    const QString init = "-init_hw_device qsv=hw,child_device_type=d3d11va";
    Settings& settings = KorvaneBaseEntry()->settings();

    settings.setValue(key, true);
    const QStringList on = makeFFmpegCommand(source, param, "/tmp/p.txt", -1);
    settings.remove(key);
    const QStringList off = makeFFmpegCommand(source, param, "/tmp/p.txt", -1);

    ASSERT_GE(on.size(), 7);
    EXPECT_EQ(on.mid(4, 3), (QStringList{init, "-hwaccel qsv", "-c:v h264_qsv"}));
    EXPECT_FALSE(off.contains(init));
    EXPECT_TRUE(off.contains("-hwaccel qsv"));
    const int threads = (QThread::idealThreadCount() + 1) / 2;
    EXPECT_TRUE(off.contains(QString("-threads %1").arg(threads)));
}
