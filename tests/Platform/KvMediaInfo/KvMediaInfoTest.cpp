#include "KvMediaInfo/KvMediaInfo.h"

#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

// Generated 320x240 pictures at 25 fps, some with mono 44.1 kHz sound, in
// each container; the display size follows rotation and sample aspect ratio.
// A raw stream states no duration at all.
TEST(KvMediaInfo, FactsOfGeneratedFiles)
{
    QList<QPair<QString, QString>> rows{
        {ProbeMedia::rotatedH264(90), "h264 8 yuv420p rotated 270 sar 1 shown 240x320 audio 0"},
        {ProbeMedia::rotatedH264(180), "h264 8 yuv420p rotated 180 sar 1 shown 320x240 audio 0"},
        {ProbeMedia::rotatedH264(270), "h264 8 yuv420p rotated 90 sar 1 shown 240x320 audio 0"},
        {ProbeMedia::anamorphicH264(),
         "h264 8 yuv420p rotated 0 sar 1.42222 shown 455x240 audio 0"},
        {ProbeMedia::tenBit("h264"), "h264 10 yuv420p10le rotated 0 sar 1 shown 320x240 audio 0"},
        {ProbeMedia::tenBit("hevc"), "h265 10 yuv420p10le rotated 0 sar 1 shown 320x240 audio 0"},
        {TestMedia::generate("kvmediainfo/raw-320x240-25fps.h264",
                             {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=1",
                              "-c:v", "libx264", "-f", "h264"}),
         "h264 8 yuv420p rotated 0 sar 1 shown 320x240 audio 0"},
    };
    for (const char* suffix : {"mp4", "mkv", "mov", "avi", "flv", "ts", "m4v"}) {
        rows.append(
            {ProbeMedia::h264(suffix), "h264 8 yuv420p rotated 0 sar 1 shown 320x240 audio 1"});
    }
    for (const char* suffix : {"mp4", "mkv", "mov", "ts"}) {
        rows.append(
            {ProbeMedia::hevc(suffix), "h265 8 yuv420p rotated 0 sar 1 shown 320x240 audio 1"});
    }
    for (const auto& [path, expected] : rows) {
        SCOPED_TRACE(path.toStdString());
        const auto info = getMediaInfo(path, -2, true);
        const auto container = getContainInfo(path, true);
        const auto plain = getContainInfo(path, false);
        ASSERT_TRUE(info && container && plain);
        ASSERT_EQ(info->videoStreams.size(), 1);
        ASSERT_EQ(container->videoStreams.size(), 1);
        const MediaInfoVideoStream& v = info->videoStreams[0];
        const ContainerVideoStream& c = container->videoStreams[0];
        EXPECT_EQ(QString::asprintf("%s %d %s rotated %g sar %g shown %dx%d audio %d",
                                    qPrintable(v.codecName), v.bitDepth, qPrintable(v.pixelFormat),
                                    v.rotation, v.sar(), c.displayWidth, c.displayHeight,
                                    int(info->audioStreams.size())),
                  expected);
        EXPECT_EQ(QList<qint64>({v.width, v.height, c.frameRateNum, c.frameRateDen, c.attachedPic,
                                 plain->videoStreams.value(0).durationMs}),
                  QList<qint64>({320, 240, 25, 1, 0, 0}));
        // 2 s with sound, 1 s without; durations of streams only on request.
        const bool sound = info->audioStreams.size() == 1;
        EXPECT_NEAR(info->durationMs, path.endsWith(".h264") ? 0 : sound ? 2000 : 1000, 150);
        EXPECT_EQ(QList<qint64>({container->durationMs, plain->durationMs, mediaDuration(path)}),
                  QList<qint64>(3, info->durationMs));
        // MP4 states stream durations; other containers give FFmpeg's no-value
        // marker, left alone here.
        if (path.endsWith(".mp4") && sound) {
            EXPECT_NEAR(c.durationMs, 2000, 150);
            EXPECT_NEAR(container->audioStreams.value(0).durationMs, 2000, 150);
        }
    }
}

TEST(KvMediaInfo, UnreadableInputsGiveNullAndZero)
{
    for (const QString& path :
         {QString(), QString("/nonexistent/clip.mp4"), ProbeMedia::emptyFile(),
          ProbeMedia::randomBytes("mp4"), ProbeMedia::truncatedMp4(), TestMedia::dir()}) {
        EXPECT_TRUE(getMediaInfo(path, -1, true).isNull()) << path.toStdString();
        EXPECT_TRUE(getContainInfo(path, true).isNull()) << path.toStdString();
        EXPECT_EQ(mediaDuration(path), 0) << path.toStdString();
    }
}

// Real files against ffprobe's duration; what it cannot describe is refused.
TEST(KvMediaInfo, SharedCorpusAgreesWithFfprobe)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    const QStringList probed = QDir(corpus + "/ffprobe").entryList({"*.json"}, QDir::Files);
    ASSERT_FALSE(probed.isEmpty());
    for (const QString& name : probed) {
        QFile file(corpus + "/ffprobe/" + name);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QJsonObject probe = QJsonDocument::fromJson(file.readAll()).object();
        const auto info = getMediaInfo(corpus + "/" + name.chopped(5), -2, true);
        EXPECT_NEAR(info ? info->durationMs : -1,
                    probe.isEmpty() ? -1 : probe["format"]["duration"].toString().toDouble() * 1000,
                    6)
            << name.toStdString();
    }
}
