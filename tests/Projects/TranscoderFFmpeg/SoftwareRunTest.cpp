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

QString clip()
{
    return TestMedia::generate("TranscoderFFmpeg/h264 aac 320x240.mp4",
                               {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=1",
                                "-f", "lavfi", "-i",
                                "sine=frequency=440:duration=1:sample_rate=48000", "-c:v",
                                "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
}

// The output's format and streams, as "format|video codec tag WxH rate|audio
// codec rate channels" with a part left empty for a missing stream.
QString probe(const QString& path)
{
    QByteArray out;
    TestMedia::run(TestMedia::ffprobe(),
                   {"-v", "error", "-show_format", "-show_streams", "-of", "json", path}, &out);
    const QJsonObject root = QJsonDocument::fromJson(out).object();
    QStringList parts{root.value("format").toObject().value("format_name").toString(), "", ""};
    for (const QJsonValue& value : root.value("streams").toArray()) {
        const QJsonObject s = value.toObject();
        const QStringList rate = s.value("avg_frame_rate").toString().split('/');
        if (s.value("codec_type") == "video") {
            parts[1] +=
                QString("%1 %2 %3x%4 %5")
                    .arg(s.value("codec_name").toString(), s.value("codec_tag_string").toString())
                    .arg(s.value("width").toInt())
                    .arg(s.value("height").toInt())
                    .arg(rate.value(0).toDouble() / rate.value(1).toDouble(), 0, 'f', 2);
        } else {
            parts[2] +=
                QString("%1 %2 %3")
                    .arg(s.value("codec_name").toString(), s.value("sample_rate").toString())
                    .arg(s.value("channels").toInt());
        }
    }
    return parts.join('|');
}

} // namespace

TEST(SoftwareRun, ConvertsAGeneratedClip)
{
    const QString input = clip();
    ASSERT_FALSE(input.isEmpty());
    const struct
    {
        const char* videoCodec; // output, as the host names it
        const char* audioCodec;
        const char* format;
        double frameRate;
        bool hardwareEnabled;
        const char* probed;
    } cases[] = {
        {"h264", "aac", "mp4", 30.0, false,
         "mov,mp4,m4a,3gp,3g2,mj2|h264 avc1 320x240 30.00|aac 44100 1"},
        {"H265", "aac", "MOV", 25.0, false,
         "mov,mp4,m4a,3gp,3g2,mj2|hevc hvc1 320x240 25.00|aac 44100 1"},
        // -vsync 1 and "-hwaccel auto" decoding.
        {"h264", "aac", "mkv", 29.97, true,
         "matroska,webm|h264 [0][0][0][0] 320x240 29.97|aac 44100 1"},
        {"", "aac", "m4a", 0.0, false, "mov,mp4,m4a,3gp,3g2,mj2||aac 44100 1"},
    };
    QTemporaryDir work;
    ASSERT_TRUE(work.isValid());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.probed);
        ConvertSource source;
        source.filePath = input;
        AVTaskOutputParam param;
        param.outputPath =
            work.filePath(QString("out %1.%2").arg(c.videoCodec).arg(c.format).toLower());
        param.format = c.format;
        param.video.codecName = c.videoCodec;
        param.video.width = 640;
        param.video.height = 480;
        param.video.frameRate = c.frameRate;
        param.video.bitrateKbps = 500;
        param.audio.codecName = c.audioCodec;
        param.audio.sampleRate = 44100;
        param.audio.channels = 1;
        param.audio.bitrateKbps = 96;
        param.acceleration.hardwareEnabled = c.hardwareEnabled;
        const QString progress = work.filePath("progress.txt");
        QFile::remove(progress);

        const QStringList args = makeFFmpegCommand(source, param, progress, -1);
        ASSERT_FALSE(args.isEmpty());
        QProcess ffmpeg;
        ffmpeg.start(TestMedia::ffmpeg(), QProcess::splitCommand(args.join(' ')));
        ASSERT_TRUE(ffmpeg.waitForFinished(120000));
        const QByteArray errors = ffmpeg.readAllStandardError();
        EXPECT_EQ(ffmpeg.exitCode(), 0) << errors.toStdString();
        // The operator counts anything on the error stream as a failed run.
        // Two sources write there whatever "-v error" says: libx265's own
        // banner, and "-hwaccel auto" reporting the devices it could not open
        // on a machine without them.
        if (QString(c.videoCodec) != "H265" && !c.hardwareEnabled) {
            EXPECT_TRUE(errors.isEmpty()) << errors.toStdString();
        }
        QFile progressFile(progress);
        ASSERT_TRUE(progressFile.open(QIODevice::ReadOnly));
        EXPECT_TRUE(progressFile.readAll().contains("progress=end"));
        // Edits and sizes are not applied without a GPU graph.
        EXPECT_EQ(probe(param.outputPath), c.probed);
    }
    ConvertSource junk;
    junk.filePath = work.filePath("progress.txt");
    EXPECT_TRUE(makeFFmpegCommand(junk, AVTaskOutputParam(), "/tmp/p.txt", -1).isEmpty());
}

TEST(SoftwareRun, GraphsAndDeviceFromRealFacts)
{
    const QString input = clip();
    const QString picture =
        TestMedia::generate("TranscoderFFmpeg/mark 200x100.png",
                            {"-f", "lavfi", "-i", "color=c=red:size=200x100", "-frames:v", "1"});
    ASSERT_FALSE(input.isEmpty());
    ASSERT_FALSE(picture.isEmpty());
    const QSharedPointer<MediaInfoV3> info = getMediaInfo(input, -2, true);
    ASSERT_TRUE(info);
    ConvertSource source;
    source.filePath = input;
    source.waterMark = {WaterMarkParam()};
    source.waterMark[0].filePath = picture;
    source.waterMark[0].scaleX = 0.5f;
    AVTaskOutputParam param;
    param.outputPath = "/tmp/out.mp4";
    param.format = "mp4";
    param.video.codecName = "h264";
    param.video.width = 640;
    param.video.height = 480;
    EXPECT_EQ(makeCudaFilterCommand(source, param.video, info),
              "[0:v]scale_cuda=w=640:h=480,hwdownload,format=nv12[video];"
              "[1:v]scale=w=320:h=160,format=yuva444p,colorchannelmixer=aa=1[mark1];"
              "[video][mark1]overlay=x=160:y=160");
    EXPECT_EQ(makeQsvFilterCommand(source, param.video, info),
              "[0:v]vpp_qsv=w=640:h=480[video];[1:v]hwupload=extra_hw_frames=10[mark1];"
              "[video][mark1]overlay_qsv=x=160:y=160:w=320:h=160:alpha=255");
    source.waterMark[0].filePath = picture + ".missing.png";
    EXPECT_EQ(makeCudaFilterCommand(source, param.video, info), QString());
    EXPECT_EQ(makeQsvFilterCommand(source, param.video, info), QString());

    // The Intel device follows the GPU library's switch.
    source.waterMark.clear();
    param.acceleration.gpuName = "Intel(R) UHD Graphics 630";
    param.acceleration.hardwareEnabled = true;
    const QString key = KorvaneGPUHardwareAcceleration::kQsvInitDeviceExplicitKey;
    const QString init = "-init_hw_device qsv=hw,child_device_type=d3d11va";
    KorvaneBaseEntry()->settings().setValue(key, true);
    const QStringList on = makeFFmpegCommand(source, param, "/tmp/p.txt", -1);
    KorvaneBaseEntry()->settings().remove(key);
    const QStringList off = makeFFmpegCommand(source, param, "/tmp/p.txt", -1);
    EXPECT_EQ(on.mid(4, 3), (QStringList{init, "-hwaccel qsv", "-c:v h264_qsv"}));
    EXPECT_EQ(off.mid(4, 3),
              (QStringList{"-hwaccel qsv", "-c:v h264_qsv",
                           QString("-threads %1").arg((QThread::idealThreadCount() + 1) / 2)}));
}
