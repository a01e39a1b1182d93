#include "KvAVGlue/KvAVGlue.h"
#include "KvAVGlue/FFmpegLog.h"
#include "LogCapture.h"
#include "TestMedia.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

using namespace Korvane;

TEST(FFmpegLog, OnlyFailingCodesAreRecordedWithTheirErrorText)
{
    LogCapture capture;
    EXPECT_FALSE(logIf_FF_Error(0, "m", "f", 1, "file"));
    EXPECT_FALSE(logIf_FF_Error(5, "m", "f", 1, "file"));
    EXPECT_TRUE(logIf_FF_Error(AVERROR(ENOENT), "---demux--- avformat_open_input: ",
                               "Korvane::FFDemuxer::open", 12, "KorvaneDec/FFDemuxer"));
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1);
    EXPECT_EQ(entries[0].text,
              QString("---demux--- avformat_open_input: %1: No such file or directory")
                  .arg(AVERROR(ENOENT)));
    EXPECT_EQ(entries[0].function, "Korvane::FFDemuxer::open");
}

TEST(FFmpegLog, PiecesOfALineBecomeOneRecordAndQuietLevelsAreDropped)
{
    ffmpegLogToPLog(AV_LOG_WARNING);
    LogCapture capture;
    av_log(nullptr, AV_LOG_ERROR, "first half ");
    av_log(nullptr, AV_LOG_ERROR, "second half %d\nnext line\n", 7);
    av_log(nullptr, AV_LOG_DEBUG, "debug chatter\n");
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 2);
    EXPECT_EQ(entries[0].text, "first half second half 7");
    EXPECT_EQ(entries[1].text, "next line");
}

// The release paths matter under the sanitizer build, which reports leaks.
TEST(Makers, OwnersReleaseWhatTheyHoldAndNullGivesNull)
{
    EXPECT_TRUE(makeAVFormatContextPtr(nullptr).isNull());
    EXPECT_TRUE(makeAVPacketPtr(nullptr).isNull());
    EXPECT_TRUE(makeAVFramePtr(nullptr).isNull());
    const QString clip = TestMedia::generate(
        "glue/clip.mp4",
        {"-f", "lavfi", "-i", "testsrc2=size=64x48:rate=10:duration=1", "-c:v", "mpeg4"});
    AVFormatContext* raw = nullptr;
    ASSERT_EQ(avformat_open_input(&raw, clip.toUtf8().constData(), nullptr, nullptr), 0);
    const QSharedPointer<AVFormatContext> input = makeAVFormatContextPtr(raw);
    const QSharedPointer<AVPacket> packet = makeAVPacketPtr();
    ASSERT_FALSE(packet.isNull());
    int packets = 0;
    while (av_read_frame(input.data(), packet.data()) >= 0) {
        ++packets;
        av_packet_unref(packet.data());
    }
    EXPECT_EQ(packets, 10);
    const AVCodec* decoder = avcodec_find_decoder(input->streams[0]->codecpar->codec_id);
    EXPECT_FALSE(makeAVCodecContextPtr(decoder).isNull());
    EXPECT_FALSE(makeAVFramePtr().isNull());
    EXPECT_FALSE(makeAVFilterGraphPtr().isNull());
    // A bare, never opened context goes through the other branch of the deleter.
    EXPECT_FALSE(makeAVFormatContextPtr(avformat_alloc_context()).isNull());
}
