#include "KorvaneDec/FFDemuxer.h"

#include "LogCapture.h"

#include <QFile>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

const char* const kClip = ":/probe/clip.mp4";

TEST(ResourcePath, OpensThroughCustomIo)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(kClip));
    const auto context = demuxer.formatContext();
    ASSERT_TRUE(context);
    EXPECT_TRUE(context->flags & AVFMT_FLAG_CUSTOM_IO);
    EXPECT_EQ(demuxer.filePath(), kClip);
    const auto d = demuxer.mediaInfo();
    ASSERT_TRUE(d);
    ASSERT_EQ(d->videoStreams.size(), 1);
    EXPECT_EQ(d->videoStreams[0]->width, 160);
    EXPECT_EQ(d->videoStreams[0]->height, 120);
    EXPECT_EQ(d->audioStreams.size(), 1);
    EXPECT_NEAR(demuxer.durationMs(), 1000, 100);

    int pictures = 0;
    while (const auto packet = demuxer.readPacket()) {
        pictures += packet->stream_index == d->videoStreams[0]->streamIndex;
    }
    EXPECT_EQ(pictures, 25);

    // Seeking goes through the seek callback; reading starts again.
    demuxer.seek(0, 0);
    const auto again = demuxer.readPacket();
    ASSERT_TRUE(again);
    EXPECT_LE(again->pos, 4096);
}

TEST(ResourcePath, MissingResourceFailsWithItsOwnRecord)
{
    LogCapture capture;
    FFDemuxer demuxer;
    EXPECT_FALSE(demuxer.open(":/probe/missing.mp4"));
    EXPECT_TRUE(capture.contains("mQrcFile->open failed."));
    EXPECT_FALSE(demuxer.formatContext());
    // A plain file opened afterwards works as ever.
    EXPECT_FALSE(demuxer.open(":/probe/missing.mp4"));
    EXPECT_TRUE(demuxer.open(kClip));
}

TEST(ResourcePath, ReadCallback)
{
    uint8_t buffer[64];
    EXPECT_EQ(FFDemuxer::readQrcFile(nullptr, buffer, sizeof buffer), -1);
    QFile file(kClip);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(FFDemuxer::readQrcFile(&file, buffer, sizeof buffer), 64);
    ASSERT_TRUE(file.seek(file.size() - 10));
    EXPECT_EQ(FFDemuxer::readQrcFile(&file, buffer, sizeof buffer), 10);
    // The end is answered with -1, not AVERROR_EOF.
    EXPECT_EQ(FFDemuxer::readQrcFile(&file, buffer, sizeof buffer), -1);
}

TEST(ResourcePath, SeekCallback)
{
    EXPECT_EQ(FFDemuxer::seekQrcFile(nullptr, 0, SEEK_SET), -1);
    QFile file(kClip);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const int64_t size = file.size();
    ASSERT_GT(size, 100);
    struct Row
    {
        int64_t offset;
        int whence;
        int64_t expected;
    };
    const Row rows[] = {
        {10, SEEK_SET, 10},
        {5, SEEK_CUR, 15},
        {-15, SEEK_CUR, 0},
        {0, SEEK_END, size},
        {-4, SEEK_END, size - 4},
        // The size is never told this way.
        {0, AVSEEK_SIZE, -1},
        {0, AVSEEK_SIZE | AVSEEK_FORCE, -1},
        {0, 7, -1},
        {-1, SEEK_SET, -1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FFDemuxer::seekQrcFile(&file, row.offset, row.whence), row.expected)
            << row.offset << " " << row.whence;
    }
}

} // namespace
