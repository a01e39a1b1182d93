#include "KorvaneDec/FFDemuxer.h"

#include "LogCapture.h"
#include "ProbeMedia.h"

#include <QFileInfo>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

constexpr AVRational kMs{1, 1000};

TEST(SelectStream, StartOfATransportStream)
{
    const QString path = ProbeMedia::h264("ts");
    ASSERT_FALSE(path.isEmpty());
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(path));
    const auto context = demuxer.formatContext();
    EXPECT_EQ(demuxer.selectStream(0), 1);
    // Audio starts first, the container with it: the container's start lies
    // between the two first timestamps and wins.
    const AVRational timeBase = context->streams[0]->time_base;
    EXPECT_GT(demuxer.startPts(), 0);
    EXPECT_EQ(demuxer.startPts(),
              av_rescale_q(context->start_time, AVRational{1, 1000000}, timeBase));
    EXPECT_TRUE(demuxer.containerTimestampFix());
    // The first packet of the chosen stream, read while measuring, comes next.
    const auto first = demuxer.readPacket();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->stream_index, 0);
    EXPECT_GE(first->pts, demuxer.startPts());
}

TEST(SelectStream, TimestampFixOnlyForVideoInSomeContainers)
{
    struct Row
    {
        const char* suffix;
        int stream;
        bool fix;
    };
    for (const Row& row :
         {Row{"ts", 0, true}, Row{"mkv", 0, true}, Row{"avi", 0, true}, Row{"mp4", 0, false},
          Row{"flv", 0, false}, Row{"mkv", 1, false}, Row{"mkv", 9, false}}) {
        FFDemuxer demuxer;
        ASSERT_TRUE(demuxer.open(ProbeMedia::h264(row.suffix))) << row.suffix;
        EXPECT_EQ(demuxer.selectStream(row.stream), 1);
        EXPECT_EQ(demuxer.containerTimestampFix(), row.fix) << row.suffix << " " << row.stream;
    }
    FFDemuxer unopened;
    EXPECT_EQ(unopened.selectStream(0), 1);
    EXPECT_EQ(unopened.startPts(), 0);
}

TEST(SelectStream, AudioOnlyFileTakesTheContainerStart)
{
    const QString path = ProbeMedia::toneMp3();
    ASSERT_FALSE(path.isEmpty());
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(path));
    const auto context = demuxer.formatContext();
    ASSERT_EQ(context->nb_streams, 1u);
    ASSERT_NE(context->start_time, AV_NOPTS_VALUE);
    demuxer.selectStream(0);
    EXPECT_GT(demuxer.startPts(), 0);
    EXPECT_EQ(demuxer.startPts(), av_rescale_q(context->start_time, AVRational{1, 1000000},
                                               context->streams[0]->time_base));
}

TEST(Seek, OutOfRangeIndexChangesNothing)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("mp4")));
    while (demuxer.readPacket()) {
    }
    ASSERT_TRUE(demuxer.isEof());
    LogCapture capture;
    for (const int index : {-1, 2, 100}) {
        demuxer.seek(1000, index);
        EXPECT_TRUE(demuxer.isEof()) << index;
        EXPECT_FALSE(demuxer.isSeeking()) << index;
        EXPECT_EQ(demuxer.seekTarget(), 0) << index;
    }
    EXPECT_FALSE(demuxer.readPacket());
    EXPECT_TRUE(capture.entries().isEmpty());

    FFDemuxer unopened;
    unopened.seek(1000, 0);
    EXPECT_FALSE(unopened.isSeeking());
}

TEST(Seek, TargetsAreCountedFromTheStreamStart)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("ts")));
    demuxer.selectStream(0);
    const qint64 start = demuxer.startPts();
    ASSERT_GT(start, 0);
    const AVRational timeBase = demuxer.formatContext()->streams[0]->time_base;
    struct Row
    {
        qint64 ms;
        qint64 target;
    };
    for (const Row& row : {Row{0, 0}, Row{-40, 0}, Row{1000, 90000 + start}, Row{1, 90 + start}}) {
        demuxer.seek(row.ms, 0);
        EXPECT_EQ(demuxer.seekTarget(), row.target) << row.ms;
        EXPECT_TRUE(demuxer.isSeeking());
        EXPECT_FALSE(demuxer.isEof());
    }
    ASSERT_EQ(timeBase.den, 90000);
}

TEST(Seek, NextPacketIsAtOrBeforeTheTime)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("mp4")));
    demuxer.selectStream(0);
    const AVRational timeBase = demuxer.formatContext()->streams[0]->time_base;
    for (const qint64 ms : {1500, 400, 0}) {
        demuxer.seek(ms, 0);
        QSharedPointer<AVPacket> packet;
        while ((packet = demuxer.readPacket()) && packet->stream_index != 0) {
        }
        ASSERT_TRUE(packet) << ms;
        EXPECT_LE(av_rescale_q(packet->pts - demuxer.startPts(), timeBase, kMs), ms);
        EXPECT_TRUE(packet->flags & AV_PKT_FLAG_KEY);
    }
}

TEST(Seek, ByFilePosition)
{
    FFDemuxer demuxer;
    demuxer.seekByFilePos(100);
    EXPECT_FALSE(demuxer.isSeeking());
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("ts")));
    while (demuxer.readPacket()) {
    }
    ASSERT_TRUE(demuxer.isEof());
    const qint64 middle = QFileInfo(demuxer.filePath()).size() / 2;
    demuxer.seekByFilePos(middle);
    EXPECT_TRUE(demuxer.isSeeking());
    EXPECT_FALSE(demuxer.isEof());
    const auto packet = demuxer.readPacket();
    ASSERT_TRUE(packet);
    EXPECT_GE(packet->pos, middle - 188);
}

} // namespace
