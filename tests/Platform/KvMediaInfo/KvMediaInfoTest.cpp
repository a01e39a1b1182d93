#include "KvMediaInfo/KvMediaInfo.h"

#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <cmath>

using namespace Korvane;

namespace {

struct Facts
{
    QString path;
    QString codec;
    qint64 durationMs; // 2000 with sound; 0: a raw stream states no duration at all
    double rotation;   // clockwise; ffmpeg stores rotate=N as N counter-clockwise
    int displayWidth, displayHeight;
    int bitDepth = 8;
    double sar = 1.0;
};

} // namespace

// Generated 320x240 pictures, some with mono 44.1 kHz sound, in each container;
// the display size follows rotation and sample aspect ratio.
TEST(KvMediaInfo, FactsOfGeneratedFiles)
{
    QList<Facts> rows{
        {ProbeMedia::rotatedH264(90), "h264", 1000, 270, 240, 320},
        {ProbeMedia::rotatedH264(180), "h264", 1000, 180, 320, 240},
        {ProbeMedia::rotatedH264(270), "h264", 1000, 90, 240, 320},
        {ProbeMedia::anamorphicH264(), "h264", 1000, 0, 455, 240, 8, 64.0 / 45.0}, // trunc(455.1)
        {ProbeMedia::tenBit("h264"), "h264", 1000, 0, 320, 240, 10},
        {ProbeMedia::tenBit("hevc"), "h265", 1000, 0, 320, 240, 10},
        {ProbeMedia::unusualName(), "h264", 2000, 0, 320, 240},
        {TestMedia::generate("kvmediainfo/raw-320x240-25fps.h264",
                             {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=1",
                              "-c:v", "libx264", "-f", "h264"}),
         "h264", 0, 0, 320, 240},
    };
    for (const char* suffix : {"mp4", "mkv", "mov", "avi", "flv", "ts", "m4v"}) {
        rows.append({ProbeMedia::h264(suffix), "h264", 2000, 0, 320, 240});
    }
    for (const char* suffix : {"mp4", "mkv", "mov", "ts"}) {
        rows.append({ProbeMedia::hevc(suffix), "h265", 2000, 0, 320, 240});
    }
    for (const Facts& row : rows) {
        SCOPED_TRACE(row.path.toStdString());
        const auto info = getMediaInfo(row.path, -2, true);
        const auto container = getContainInfo(row.path, true);
        const auto withoutStreamDurations = getContainInfo(row.path, false);
        ASSERT_TRUE(info && container && withoutStreamDurations);
        EXPECT_EQ(info->filePath, row.path);
        ASSERT_EQ(info->videoStreams.size(), 1);
        const MediaInfoVideoStream& video = info->videoStreams[0];
        EXPECT_EQ(video.codecName, row.codec);
        EXPECT_EQ(QList<int>({video.width, video.height, video.bitDepth}),
                  QList<int>({320, 240, row.bitDepth}));
        EXPECT_EQ(video.pixelFormat, row.bitDepth == 10 ? "yuv420p10le" : "yuv420p");
        EXPECT_EQ(video.rotation, row.rotation);
        EXPECT_DOUBLE_EQ(video.sar(), row.sar);
        ASSERT_EQ(container->videoStreams.size(), 1);
        EXPECT_EQ(container->videoStreams[0].displayWidth, row.displayWidth);
        EXPECT_EQ(container->videoStreams[0].displayHeight, row.displayHeight);
        EXPECT_FALSE(container->videoStreams[0].attachedPic);
        // The stored average rate; stream durations only on request.
        EXPECT_EQ(container->videoStreams[0].frameRateNum, 25);
        EXPECT_EQ(container->videoStreams[0].frameRateDen, 1);
        EXPECT_EQ(withoutStreamDurations->videoStreams[0].durationMs, 0);
        EXPECT_EQ(withoutStreamDurations->durationMs, info->durationMs);
        EXPECT_NEAR(info->durationMs, row.durationMs, 150);
        EXPECT_EQ(container->durationMs, info->durationMs);
        EXPECT_EQ(mediaDuration(row.path), info->durationMs);
        ASSERT_EQ(info->audioStreams.size(), row.durationMs == 2000 ? 1 : 0);
        if (row.durationMs == 2000) {
            EXPECT_EQ(info->audioStreams[0].channels, 1);
            EXPECT_EQ(info->audioStreams[0].sampleRate, 44100);
            EXPECT_EQ(withoutStreamDurations->audioStreams[0].durationMs, 0);
        }
        // MP4 states stream durations; Matroska, FLV and raw streams give
        // FFmpeg's no-value marker, left alone here.
        if (row.path.endsWith(".mp4")) {
            EXPECT_NEAR(container->videoStreams[0].durationMs, row.durationMs, 150);
            for (const ContainerAudioStream& audio : container->audioStreams) {
                EXPECT_NEAR(audio.durationMs, row.durationMs, 150);
            }
        }
    }
}

TEST(KvMediaInfo, CoverPictureIsAnAttachedPictureStream)
{
    const QString path = ProbeMedia::mp3WithCover();
    const auto info = getMediaInfo(path, -2, true);
    const auto container = getContainInfo(path, true);
    ASSERT_TRUE(info && container);
    ASSERT_EQ(container->videoStreams.size(), 1);
    EXPECT_TRUE(container->videoStreams[0].attachedPic);
    EXPECT_EQ(container->videoStreams[0].displayWidth, 64);
    ASSERT_EQ(info->videoStreams.size(), 1);
    EXPECT_EQ(info->videoStreams[0].codecName, "png");
    ASSERT_EQ(info->audioStreams.size(), 1);
    EXPECT_EQ(info->audioStreams[0].codecName, "mp3");
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

// Real files against ffprobe's description of them.
TEST(KvMediaInfo, SharedCorpusAgreesWithFfprobe)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    int compared = 0;
    for (const QString& name : QDir(corpus).entryList(QDir::Files, QDir::Name)) {
        SCOPED_TRACE(name.toStdString());
        QFile file(corpus + "/ffprobe/" + name + ".json");
        const QJsonObject probe = file.open(QIODevice::ReadOnly)
                                      ? QJsonDocument::fromJson(file.readAll()).object()
                                      : QJsonObject();
        const auto info = getMediaInfo(corpus + "/" + name, -2, true);
        if (probe.isEmpty()) {
            EXPECT_TRUE(info.isNull() || name == "MANIFEST.md" || name == "SHA256SUMS");
            continue;
        }
        ASSERT_TRUE(info);
        // Codec, coded size, stream index and clockwise rotation of each picture.
        QStringList videos;
        int audios = 0;
        for (const QJsonValue& p : probe["streams"].toArray()) {
            const QString codec = p["codec_name"].toString();
            double rotation = 360; // ffprobe gives it counter-clockwise
            for (const QJsonValue& side : p["side_data_list"].toArray()) {
                rotation -= side["rotation"].toDouble();
            }
            if (p["codec_type"] == "video") {
                videos << QString::asprintf("%s %dx%d #%d %g",
                                            qPrintable(codec == "hevc" ? "h265" : codec),
                                            p["width"].toInt(), p["height"].toInt(),
                                            p["index"].toInt(), std::fmod(rotation, 360));
            }
            audios += p["codec_type"] == "audio";
        }
        QStringList seen;
        for (const MediaInfoVideoStream& v : info->videoStreams) {
            seen << QString::asprintf("%s %dx%d #%d %g", qPrintable(v.codecName), v.width, v.height,
                                      v.index, v.rotation);
        }
        EXPECT_EQ(seen.join(", ").toStdString(), videos.join(", ").toStdString());
        EXPECT_EQ(info->audioStreams.size(), audios);
        EXPECT_NEAR(info->durationMs, probe["format"]["duration"].toString().toDouble() * 1000.0,
                    6.0);
        ++compared;
    }
    EXPECT_GT(compared, 10);
}
