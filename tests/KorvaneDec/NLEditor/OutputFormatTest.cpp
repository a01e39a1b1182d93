// Container, encoder and quality choices for the output record.
#include "NLEditor/OutputFormat.h"

#include <QList>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace Korvane;

TEST(ResolveMuxer, FallsBackToTheExtensionWhenTheTableNamesNoMuxer)
{
    struct Row
    {
        const char* format;
        const char* path;
        const char* muxer;
    };
    const QList<Row> rows = {
        {"mp4", "/x/out.mkv", "mp4"}, // the format wins over the name
        {"mkv", "/x/out.mp4", "matroska"},
        {"YouTube", "/x/out.mp4", "mp4"}, // preset name: extension decides
        {"hevc2", "/x/out.mkv", "matroska"},
        {"divx", "/x/out.avi", "avi"},
        {"", "/x/out.mov", "mov"},
        {"nosuch", "/x/out.nosuchext", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.format);
        EXPECT_EQ(resolveMuxer(row.format, row.path), row.muxer);
    }
}

TEST(EncoderNames, SoftwareEncodersForTheTwoMainCodecs)
{
    EXPECT_EQ(videoEncoderName("H264"), "libx264");
    EXPECT_EQ(videoEncoderName("h265"), "libx265");
    EXPECT_EQ(videoEncoderName("HEVC"), "libx265");
    EXPECT_EQ(videoEncoderName("mpeg4"), "mpeg4");
    EXPECT_EQ(videoEncoderName("0"), "");
    EXPECT_EQ(videoEncoderName(""), "");
    EXPECT_EQ(audioEncoderName("PCM"), "pcm_s16le");
    EXPECT_EQ(audioEncoderName("adpcm"), "adpcm_ima_wav");
    EXPECT_EQ(audioEncoderName("AAC"), "aac");
    EXPECT_EQ(audioEncoderName("0"), "");

    ASSERT_NE(findEncoder("mp3"), nullptr); // by codec name
    EXPECT_EQ(findEncoder("mp3")->id, AV_CODEC_ID_MP3);
    ASSERT_NE(findEncoder("libx264"), nullptr);
    EXPECT_EQ(findEncoder("nosuchcodec"), nullptr);
}

TEST(IsAudioOnlyMuxer, SoundFilesOnly)
{
    for (const char* muxer : {"mp3", "ipod", "wav", "flac", "opus"}) {
        EXPECT_TRUE(isAudioOnlyMuxer(muxer)) << muxer;
    }
    for (const char* muxer : {"mp4", "matroska", "mov", "asf", "mpegts", ""}) {
        EXPECT_FALSE(isAudioOnlyMuxer(muxer)) << muxer;
    }
}
