#include "KvMediaInfo/KvMediaInfo.h"

#include "KorvaneDec/FFDemuxer.h"
#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

struct ContainerCase
{
    const char* codec;
    const char* suffix;
    const char* expectedName;
};

class ContainersAndCodecs : public ::testing::TestWithParam<ContainerCase>
{};

TEST_P(ContainersAndCodecs, NameTheCodecAndGiveThePictureAndSoundFacts)
{
    const ContainerCase c = GetParam();
    const QString path =
        QString(c.codec) == "h264" ? ProbeMedia::h264(c.suffix) : ProbeMedia::hevc(c.suffix);
    ASSERT_FALSE(path.isEmpty());
    const auto info = getMediaInfo(path, -2, true);
    ASSERT_TRUE(info);
    ASSERT_EQ(info->videoStreams.size(), 1);
    EXPECT_EQ(info->videoStreams[0].codecName, c.expectedName);
    EXPECT_EQ(info->videoStreams[0].width, 320);
    EXPECT_EQ(info->videoStreams[0].height, 240);
    EXPECT_EQ(info->videoStreams[0].rotation, 0.0);
    EXPECT_EQ(info->videoStreams[0].bitDepth, 8);
    EXPECT_DOUBLE_EQ(info->videoStreams[0].sar(), 1.0);
    ASSERT_EQ(info->audioStreams.size(), 1);
    EXPECT_EQ(info->audioStreams[0].channels, 1);
    EXPECT_EQ(info->audioStreams[0].sampleRate, 44100);
    EXPECT_NEAR(info->durationMs, 2000, 150);
    EXPECT_NEAR(mediaDuration(path), info->durationMs, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Generated, ContainersAndCodecs,
    ::testing::Values(ContainerCase{"h264", "mp4", "h264"}, ContainerCase{"h264", "mkv", "h264"},
                      ContainerCase{"h264", "mov", "h264"}, ContainerCase{"h264", "avi", "h264"},
                      ContainerCase{"h264", "flv", "h264"}, ContainerCase{"h264", "ts", "h264"},
                      ContainerCase{"h264", "m4v", "h264"}, ContainerCase{"hevc", "mp4", "h265"},
                      ContainerCase{"hevc", "mkv", "h265"}, ContainerCase{"hevc", "mov", "h265"},
                      ContainerCase{"hevc", "ts", "h265"}));

TEST(GetMediaInfo, HostArgumentsChangeNoFact)
{
    const QString path = ProbeMedia::h264("mp4");
    ASSERT_FALSE(path.isEmpty());
    const auto a = getMediaInfo(path, -1, true);
    const auto b = getMediaInfo(path, -2, false);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->durationMs, b->durationMs);
    EXPECT_EQ(a->formatName, b->formatName);
    ASSERT_EQ(a->videoStreams.size(), b->videoStreams.size());
    EXPECT_EQ(a->videoStreams[0].codecName, b->videoStreams[0].codecName);
    EXPECT_EQ(a->audioStreams.size(), b->audioStreams.size());
}

TEST(GetMediaInfo, RotationComesFromTheDisplayMatrix)
{
    // rotate=N is stored by ffmpeg 5.1 as N degrees counter-clockwise.
    struct Row
    {
        int tag;
        double rotation;
        int displayWidth, displayHeight;
    };
    for (const Row& row :
         {Row{90, 270, 240, 320}, Row{180, 180, 320, 240}, Row{270, 90, 240, 320}}) {
        const QString path = ProbeMedia::rotatedH264(row.tag);
        ASSERT_FALSE(path.isEmpty()) << row.tag;
        const auto info = getMediaInfo(path, -2, true);
        ASSERT_TRUE(info);
        ASSERT_EQ(info->videoStreams.size(), 1);
        EXPECT_EQ(info->videoStreams[0].rotation, row.rotation) << row.tag;
        // The coded size stays as stored.
        EXPECT_EQ(info->videoStreams[0].width, 320);

        const auto container = getContainInfo(path, true);
        ASSERT_TRUE(container);
        ASSERT_EQ(container->videoStreams.size(), 1);
        EXPECT_EQ(container->videoStreams[0].displayWidth, row.displayWidth) << row.tag;
        EXPECT_EQ(container->videoStreams[0].displayHeight, row.displayHeight) << row.tag;
    }
}

TEST(GetMediaInfo, AnamorphicPictureKeepsItsSampleAspectRatio)
{
    const QString path = ProbeMedia::anamorphicH264();
    ASSERT_FALSE(path.isEmpty());
    const auto info = getMediaInfo(path, -2, true);
    ASSERT_TRUE(info);
    ASSERT_EQ(info->videoStreams.size(), 1);
    EXPECT_EQ(info->videoStreams[0].sarNum, 64);
    EXPECT_EQ(info->videoStreams[0].sarDen, 45);
    EXPECT_DOUBLE_EQ(info->videoStreams[0].sar(), 64.0 / 45.0);
    const auto container = getContainInfo(path, true);
    ASSERT_TRUE(container);
    // trunc(320 * 64 / 45) = trunc(455.1)
    EXPECT_EQ(container->videoStreams[0].displayWidth, 455);
    EXPECT_EQ(container->videoStreams[0].displayHeight, 240);
}

TEST(GetMediaInfo, SarFallsBackToOneWhenAPartIsNotPositive)
{
    struct Row
    {
        qint32 num, den;
        double expected;
    };
    for (const Row& row :
         {Row{0, 1, 1.0}, Row{1, 0, 1.0}, Row{-4, 3, 1.0}, Row{4, 3, 4.0 / 3.0}, Row{1, 1, 1.0}}) {
        MediaInfoVideoStream stream;
        stream.sarNum = row.num;
        stream.sarDen = row.den;
        EXPECT_DOUBLE_EQ(stream.sar(), row.expected) << row.num << "/" << row.den;
    }
}

TEST(GetMediaInfo, TenBitPicturesReportTheirDepth)
{
    for (const QString codec : {"h264", "hevc"}) {
        const QString path = ProbeMedia::tenBit(codec);
        ASSERT_FALSE(path.isEmpty()) << codec.toStdString();
        const auto info = getMediaInfo(path, -2, true);
        ASSERT_TRUE(info);
        ASSERT_EQ(info->videoStreams.size(), 1);
        EXPECT_EQ(info->videoStreams[0].bitDepth, 10) << codec.toStdString();
        EXPECT_EQ(info->videoStreams[0].pixelFormat, "yuv420p10le");
        EXPECT_EQ(info->videoStreams[0].codecName, codec == "hevc" ? "h265" : "h264");
    }
}

TEST(GetContainInfo, CoverPictureIsAnAttachedPictureStream)
{
    const QString path = ProbeMedia::mp3WithCover();
    ASSERT_FALSE(path.isEmpty());
    const auto container = getContainInfo(path, true);
    ASSERT_TRUE(container);
    ASSERT_EQ(container->videoStreams.size(), 1);
    EXPECT_TRUE(container->videoStreams[0].attachedPic);
    EXPECT_EQ(container->videoStreams[0].displayWidth, 64);
    ASSERT_EQ(container->audioStreams.size(), 1);
    EXPECT_NEAR(container->durationMs, 2000, 100);

    const auto info = getMediaInfo(path, -2, true);
    ASSERT_TRUE(info);
    ASSERT_EQ(info->videoStreams.size(), 1);
    EXPECT_EQ(info->videoStreams[0].codecName, "png");
    ASSERT_EQ(info->audioStreams.size(), 1);
    EXPECT_EQ(info->audioStreams[0].codecName, "mp3");

    const auto movie = getContainInfo(ProbeMedia::h264("mp4"), true);
    ASSERT_TRUE(movie);
    ASSERT_EQ(movie->videoStreams.size(), 1);
    EXPECT_FALSE(movie->videoStreams[0].attachedPic);
}

TEST(GetContainInfo, StreamDurationsAndStoredAverageRate)
{
    const QString path = ProbeMedia::h264("mp4");
    ASSERT_FALSE(path.isEmpty());
    const auto with = getContainInfo(path, true);
    ASSERT_TRUE(with);
    ASSERT_EQ(with->videoStreams.size(), 1);
    EXPECT_EQ(with->videoStreams[0].frameRateNum, 25);
    EXPECT_EQ(with->videoStreams[0].frameRateDen, 1);
    EXPECT_NEAR(with->videoStreams[0].durationMs, 2000, 50);
    ASSERT_EQ(with->audioStreams.size(), 1);
    EXPECT_NEAR(with->audioStreams[0].durationMs, 2000, 100);
    EXPECT_EQ(with->durationMs, mediaDuration(path));

    const auto without = getContainInfo(path, false);
    ASSERT_TRUE(without);
    EXPECT_EQ(without->videoStreams[0].durationMs, 0);
    EXPECT_EQ(without->audioStreams[0].durationMs, 0);
    EXPECT_EQ(without->durationMs, with->durationMs);
}

TEST(KvMediaInfo, UnreadableInputsGiveNullAndZero)
{
    const QStringList paths{QString(),
                            "/nonexistent/clip.mp4",
                            ProbeMedia::emptyFile(),
                            ProbeMedia::randomBytes("mp4"),
                            ProbeMedia::truncatedMp4(),
                            TestMedia::dir()};
    for (const QString& path : paths) {
        EXPECT_TRUE(getMediaInfo(path, -1, true).isNull()) << path.toStdString();
        EXPECT_TRUE(getContainInfo(path, true).isNull()) << path.toStdString();
        EXPECT_EQ(mediaDuration(path), 0) << path.toStdString();
    }
}

TEST(KvMediaInfo, UnusualCharactersInThePath)
{
    const QString path = ProbeMedia::unusualName();
    ASSERT_FALSE(path.isEmpty());
    const auto info = getMediaInfo(path, -2, true);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->filePath, path);
    EXPECT_EQ(info->videoStreams.size(), 1);
}

// The video facts are those of the demuxer's own description of each stream.
void expectSameVideoFacts(const QString& path)
{
    const auto info = getMediaInfo(path, -2, true);
    FFDemuxer demuxer;
    const bool opened = demuxer.open(path);
    ASSERT_EQ(bool(info), opened) << path.toStdString();
    if (!opened) {
        return;
    }
    const auto description = demuxer.mediaInfo();
    ASSERT_TRUE(description);
    ASSERT_EQ(info->videoStreams.size(), description->videoStreams.size());
    ASSERT_EQ(info->audioStreams.size(), description->audioStreams.size());
    for (int i = 0; i < info->videoStreams.size(); ++i) {
        const auto& mine = info->videoStreams[i];
        const auto& theirs = *description->videoStreams[i];
        EXPECT_EQ(mine.index, theirs.streamIndex);
        EXPECT_EQ(mine.width, theirs.width);
        EXPECT_EQ(mine.height, theirs.height);
        EXPECT_EQ(mine.rotation, theirs.rotation);
        EXPECT_EQ(mine.sarNum, theirs.sarNum);
        EXPECT_EQ(mine.sarDen, theirs.sarDen);
    }
    EXPECT_EQ(info->durationMs, description->durationMs);
}

QJsonObject ffprobeJson(const QString& corpus, const QString& name)
{
    QFile file(corpus + "/ffprobe/" + name + ".json");
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}

TEST(SharedCorpus, FactsAgreeWithFfprobe)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    const QStringList files = QDir(corpus).entryList(QDir::Files, QDir::Name);
    int compared = 0;
    for (const QString& name : files) {
        if (name == "MANIFEST.md" || name == "SHA256SUMS") {
            continue;
        }
        const QString path = corpus + "/" + name;
        SCOPED_TRACE(name.toStdString());
        expectSameVideoFacts(path);
        const QJsonObject probe = ffprobeJson(corpus, name);
        const auto info = getMediaInfo(path, -2, true);
        if (probe.isEmpty()) {
            EXPECT_TRUE(info.isNull());
            continue;
        }
        ASSERT_TRUE(info);
        QList<QJsonObject> videos;
        int audios = 0;
        for (const QJsonValue& v : probe["streams"].toArray()) {
            const QJsonObject s = v.toObject();
            if (s["codec_type"] == "video") {
                videos << s;
            } else if (s["codec_type"] == "audio") {
                ++audios;
            }
        }
        ASSERT_EQ(info->videoStreams.size(), videos.size());
        EXPECT_EQ(info->audioStreams.size(), audios);
        for (int i = 0; i < videos.size(); ++i) {
            const QString codec = videos[i]["codec_name"].toString();
            EXPECT_EQ(info->videoStreams[i].codecName, codec == "hevc" ? "h265" : codec);
            EXPECT_EQ(info->videoStreams[i].width, videos[i]["width"].toInt());
            EXPECT_EQ(info->videoStreams[i].height, videos[i]["height"].toInt());
            EXPECT_EQ(info->videoStreams[i].index, videos[i]["index"].toInt());
        }
        const double seconds = probe["format"].toObject()["duration"].toString().toDouble();
        EXPECT_NEAR(info->durationMs, seconds * 1000.0, 6.0);
        ++compared;
    }
    EXPECT_GT(compared, 10);
}

TEST(SharedCorpus, RotationAndAnamorphicFiles)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    struct Row
    {
        const char* name;
        double rotation;
        int displayWidth, displayHeight;
    };
    const Row rows[] = {
        {"phone-iphone14pro-hevc10-hlg-rot90.mov", 90, 720, 1280},
        {"phone-android-h264-4k60-portrait-vfr.mp4", 90, 2160, 3840},
        {"h264-aac-displaymatrix-270.mp4", 270, 720, 1280},
        {"phone-android-hevc8-rot90-metadata-track.mp4", 90, 1080, 1920},
        {"h264-anamorphic-sar64x45.mp4", 0, 1137, 640},
        {"h264-aac-basic.mp4", 0, 1080, 720},
    };
    for (const Row& row : rows) {
        const QString path = corpus + "/" + row.name;
        if (!QFileInfo::exists(path)) {
            continue;
        }
        SCOPED_TRACE(row.name);
        const auto info = getMediaInfo(path, -2, true);
        ASSERT_TRUE(info);
        ASSERT_FALSE(info->videoStreams.isEmpty());
        EXPECT_EQ(info->videoStreams[0].rotation, row.rotation);
        const auto container = getContainInfo(path, true);
        ASSERT_TRUE(container);
        ASSERT_FALSE(container->videoStreams.isEmpty());
        EXPECT_EQ(container->videoStreams[0].displayWidth, row.displayWidth);
        EXPECT_EQ(container->videoStreams[0].displayHeight, row.displayHeight);
    }
}

} // namespace
