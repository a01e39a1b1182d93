#include "KorvaneDec/StreamProbing.h"
#include "KorvaneDec/FFDemuxer.h"

#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>

#include <gtest/gtest.h>

#include <limits>

using namespace Korvane;

namespace {

TEST(ContainerDuration, RoundsByFiveMillisecondsAndTruncates)
{
    struct Row
    {
        int64_t duration;
        qint64 expected;
    };
    const int64_t max = std::numeric_limits<int64_t>::max();
    const Row rows[] = {
        {1234567, 1239},
        {0, 5},
        {994999, 999},
        {995000, 1000},
        {-10000, -5},
        // No rounding where adding it would overflow.
        {max, max / 1000},
        {max - 5000, (max - 5000 + 5000) / 1000},
        {max - 4999, (max - 4999) / 1000},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(containerDurationMs(row.duration), row.expected) << row.duration;
    }
}

TEST(StreamDuration, ScalesByTheTimeBase)
{
    EXPECT_EQ(streamDurationMs(90000, AVRational{1, 90000}), 1000);
    EXPECT_EQ(streamDurationMs(1001, AVRational{1, 30000}), 33);
    EXPECT_EQ(streamDurationMs(123, AVRational{1, 0}), 0);
    EXPECT_EQ(streamDurationMs(0, AVRational{1, 1000}), 0);
    // Found by fuzzing (a still picture has no stream duration): the product
    // does not fit and must not be converted as it is.
    EXPECT_EQ(streamDurationMs(AV_NOPTS_VALUE, AVRational{1, 25}),
              std::numeric_limits<qint64>::min());
    EXPECT_EQ(streamDurationMs(std::numeric_limits<int64_t>::max(), AVRational{1, 1}),
              std::numeric_limits<qint64>::max());
}

TEST(FrameRate, ChoiceOrderAndLimits)
{
    struct Row
    {
        AVRational guessed, average, real, expected;
    };
    const Row rows[] = {
        // Guessed rate above 120 gives way to the average.
        {{240, 1}, {30000, 1001}, {240, 1}, {30000, 1001}},
        {{120, 1}, {30, 1}, {30, 1}, {120, 1}},
        {{25, 1}, {30, 1}, {50, 1}, {25, 1}},
        // 120/1 as the real rate is refused (needs < 120): the empty average
        // stays and ends at 25/1.
        {{0, 0}, {0, 0}, {120, 1}, {25, 1}},
        {{0, 0}, {0, 0}, {119, 1}, {119, 1}},
        {{0, 1}, {120, 1}, {60, 1}, {120, 1}},
        // The average is kept when below 121 even though the guess failed.
        {{0, 0}, {241, 2}, {24, 1}, {241, 2}},
        // An average of 121 is refused, the real rate taken.
        {{0, 0}, {121, 1}, {24, 1}, {24, 1}},
        // Both refused: the average's parts stay; a good numerator survives.
        {{500, 1}, {500, 1}, {500, 1}, {500, 1}},
        {{0, 0}, {5000, 1}, {0, 0}, {25, 1}},
        {{0, 0}, {-3, 1}, {0, 0}, {25, 1}},
        {{0, 0}, {0, -1}, {0, 0}, {25, 1}},
    };
    for (const Row& row : rows) {
        const AVRational r = chooseFrameRate(row.guessed, row.average, row.real);
        EXPECT_EQ(r.num, row.expected.num)
            << row.guessed.num << "/" << row.guessed.den << " " << row.average.num << "/"
            << row.average.den << " " << row.real.num << "/" << row.real.den;
        EXPECT_EQ(r.den, row.expected.den);
    }
}

TEST(Rotation, DisplayMatrixAngles)
{
    struct Row
    {
        double angle;
        qint32 expected;
    };
    const Row rows[] = {
        {-90.0, 90},   {90.0, 270}, {0.0, 0},  {180.0, 180}, {-180.0, 180},
        {-270.0, 270}, {270.0, 90}, {-0.5, 0}, {-90.4, 90},  {360.0, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(rotationFromDisplayAngle(row.angle), row.expected) << row.angle;
    }
}

TEST(AsfFamily, ShortNames)
{
    EXPECT_TRUE(isAsfFamily("asf"));
    EXPECT_TRUE(isAsfFamily("asf_o"));
    EXPECT_TRUE(isAsfFamily("wmv"));
    EXPECT_FALSE(isAsfFamily("mov,mp4,m4a,3gp,3g2,mj2"));
    EXPECT_FALSE(isAsfFamily("matroska,webm"));
}

QSharedPointer<MediaDescription> describe(const QString& path)
{
    FFDemuxer demuxer;
    if (!demuxer.open(path)) {
        return {};
    }
    return demuxer.mediaInfo();
}

TEST(MediaDescription, NullWithoutInput)
{
    FFDemuxer demuxer;
    EXPECT_TRUE(demuxer.mediaInfo().isNull());
    EXPECT_TRUE(describeMedia(nullptr, QString()).isNull());
}

TEST(MediaDescription, H264Mp4)
{
    const auto d = describe(ProbeMedia::h264("mp4"));
    ASSERT_TRUE(d);
    EXPECT_NEAR(d->durationMs, 2000, 100);
    EXPECT_EQ(d->startTimeMs, 0);
    EXPECT_GT(d->bitRate, 0);
    EXPECT_EQ(d->formatName, "QuickTime / MOV");
    ASSERT_EQ(d->videoStreams.size(), 1);
    ASSERT_EQ(d->audioStreams.size(), 1);
    EXPECT_TRUE(d->subtitleStreams.isEmpty());
    ASSERT_EQ(d->streams.size(), 2);

    const VideoStreamInfo& v = *d->videoStreams[0];
    EXPECT_EQ(v.streamIndex, 0);
    EXPECT_EQ(v.reserved, -1);
    EXPECT_EQ(v.codecId, AV_CODEC_ID_H264);
    EXPECT_EQ(v.pixelFormat, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(v.width, 320);
    EXPECT_EQ(v.height, 240);
    EXPECT_EQ(v.frameRateNum, 25);
    EXPECT_EQ(v.frameRateDen, 1);
    EXPECT_NEAR(v.durationMs, 2000, 50);
    EXPECT_EQ(v.rotation, 0);
    EXPECT_EQ(v.stillPicture, 0);
    EXPECT_GT(v.timeBase.den, 0);

    const AudioStreamInfo& a = *d->audioStreams[0];
    EXPECT_EQ(a.streamIndex, 1);
    EXPECT_EQ(a.codecId, AV_CODEC_ID_AAC);
    EXPECT_EQ(a.channels, 1);
    EXPECT_EQ(a.sampleRate, 44100);
    EXPECT_EQ(a.channelLayout, quint64(AV_CH_LAYOUT_MONO));
    EXPECT_EQ(a.sampleFormat, AV_SAMPLE_FMT_FLTP);
    EXPECT_NEAR(a.durationMs, 2000, 100);

    EXPECT_EQ(d->streams[0]->mediaType, AVMEDIA_TYPE_VIDEO);
    EXPECT_EQ(d->streams[1]->mediaType, AVMEDIA_TYPE_AUDIO);
    EXPECT_EQ(d->streams[1]->codecId, AV_CODEC_ID_AAC);
}

TEST(MediaDescription, RotatedClips)
{
    // The matrix angle is counter-clockwise; the record holds clockwise degrees.
    struct Row
    {
        int tag;
        double angle;
        int rotation;
    };
    for (const Row& row : {Row{90, 90, 270}, Row{180, -180, 180}, Row{270, -90, 90}}) {
        const QString path = ProbeMedia::rotatedH264(row.tag);
        ASSERT_FALSE(path.isEmpty());
        ASSERT_EQ(ProbeMedia::displayMatrixAngle(path), row.angle) << row.tag;
        const auto d = describe(path);
        ASSERT_TRUE(d) << row.tag;
        ASSERT_EQ(d->videoStreams.size(), 1);
        EXPECT_EQ(d->videoStreams[0]->rotation, row.rotation) << row.tag;
    }
}

TEST(MediaDescription, SampleAspectRatio)
{
    const auto d = describe(ProbeMedia::anamorphicH264());
    ASSERT_TRUE(d);
    ASSERT_EQ(d->videoStreams.size(), 1);
    EXPECT_EQ(d->videoStreams[0]->sarNum, 64);
    EXPECT_EQ(d->videoStreams[0]->sarDen, 45);
}

TEST(MediaDescription, CoverPictureIsAStillPicture)
{
    const auto d = describe(ProbeMedia::mp3WithCover());
    ASSERT_TRUE(d);
    ASSERT_EQ(d->videoStreams.size(), 1);
    EXPECT_EQ(d->videoStreams[0]->stillPicture, 1);
    EXPECT_EQ(d->videoStreams[0]->codecId, AV_CODEC_ID_PNG);
}

TEST(FewPacketVideo, TwoFrameWmvIsStillButNotInMp4)
{
    const QString wmv2 = ProbeMedia::wmv(2);
    const QString wmv8 = ProbeMedia::wmv(8);
    const QString mp4 = ProbeMedia::twoFrameMp4();
    ASSERT_FALSE(wmv2.isEmpty());
    ASSERT_FALSE(wmv8.isEmpty());
    ASSERT_FALSE(mp4.isEmpty());

    EXPECT_TRUE(isFewPacketVideo(wmv2, 0));
    EXPECT_FALSE(isFewPacketVideo(wmv8, 0));
    EXPECT_FALSE(isFewPacketVideo(mp4, 0));
    // The audio stream of the WMV has more than three packets.
    EXPECT_FALSE(isFewPacketVideo(wmv2, 1));
    EXPECT_FALSE(isFewPacketVideo(ProbeMedia::emptyFile(), 0));

    const auto still = describe(wmv2);
    ASSERT_TRUE(still);
    ASSERT_EQ(still->videoStreams.size(), 1);
    EXPECT_EQ(still->videoStreams[0]->stillPicture, 1);
    // Without the check only the disposition counts, and no second open happens.
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(wmv2));
    const auto unchecked = describeMedia(demuxer.formatContext().data(), wmv2, false);
    ASSERT_TRUE(unchecked);
    EXPECT_EQ(unchecked->videoStreams[0]->stillPicture, 0);
    EXPECT_EQ(describeMedia(demuxer.formatContext().data(), wmv2)->videoStreams[0]->stillPicture,
              1);

    const auto moving = describe(wmv8);
    ASSERT_TRUE(moving);
    EXPECT_EQ(moving->videoStreams[0]->stillPicture, 0);
    const auto inMp4 = describe(mp4);
    ASSERT_TRUE(inMp4);
    EXPECT_EQ(inMp4->videoStreams[0]->stillPicture, 0);
}

TEST(SharedCorpus, EveryFileDescribesWithoutCrashing)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    int described = 0;
    for (const QString& name : QDir(corpus).entryList(QDir::Files, QDir::Name)) {
        FFDemuxer demuxer;
        if (!demuxer.open(corpus + "/" + name)) {
            continue;
        }
        const auto d = demuxer.mediaInfo();
        ASSERT_TRUE(d) << name.toStdString();
        EXPECT_EQ(d->streams.size(), int(demuxer.formatContext()->nb_streams));
        for (const auto& v : d->videoStreams) {
            EXPECT_GT(v->frameRateNum, 0) << name.toStdString();
            EXPECT_GT(v->frameRateDen, 0) << name.toStdString();
            EXPECT_LE(v->frameRateNum / v->frameRateDen, 1000) << name.toStdString();
        }
        ++described;
    }
    EXPECT_GT(described, 10);
}

TEST(SharedCorpus, KnownFacts)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    {
        const auto d = describe(corpus + "/h264-ac3-srt-subtitle.mkv");
        ASSERT_TRUE(d);
        ASSERT_EQ(d->subtitleStreams.size(), 1);
        EXPECT_EQ(d->subtitleStreams[0]->isText, 1);
    }
    {
        const auto d = describe(corpus + "/h264-ac3-vobsub-subtitle.mkv");
        ASSERT_TRUE(d);
        ASSERT_EQ(d->subtitleStreams.size(), 1);
        EXPECT_EQ(d->subtitleStreams[0]->isText, 0);
    }
    {
        const auto d = describe(corpus + "/wma-five-language-audio-streams.wma");
        ASSERT_TRUE(d);
        EXPECT_EQ(d->audioStreams.size(), 5);
        EXPECT_TRUE(d->videoStreams.isEmpty());
    }
    {
        const auto d = describe(corpus + "/phone-android-hevc8-rot90-metadata-track.mp4");
        ASSERT_TRUE(d);
        ASSERT_EQ(d->videoStreams.size(), 1);
        EXPECT_EQ(d->videoStreams[0]->streamIndex, 2);
        EXPECT_EQ(d->streams.size(), 3);
    }
    {
        const auto d = describe(corpus + "/h264-aac-displaymatrix-270.mp4");
        ASSERT_TRUE(d);
        EXPECT_EQ(d->videoStreams[0]->rotation, 270);
        EXPECT_EQ(d->videoStreams[0]->frameRateNum * 1000 / d->videoStreams[0]->frameRateDen,
                  29970);
    }
}

} // namespace
