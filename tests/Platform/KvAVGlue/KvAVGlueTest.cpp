#include "KvAVGlue/KvAVGlue.h"
#include "KvAVGlue/FFmpegLog.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

using namespace Korvane;

// Only failing codes are recorded, with the code and its error text. FFmpeg's
// own messages become one record per line, quiet levels dropped.
TEST(FFmpegLog, FailuresAndFFmpegLinesBecomeRecords)
{
    ffmpegLogToPLog(AV_LOG_WARNING);
    LogCapture capture;
    EXPECT_FALSE(logIf_FF_Error(0, "m", "f", 1, "file"));
    EXPECT_FALSE(logIf_FF_Error(5, "m", "f", 1, "file"));
    EXPECT_TRUE(logIf_FF_Error(AVERROR(ENOENT), "---demux--- avformat_open_input: ",
                               "Korvane::FFDemuxer::open", 12, "KorvaneDec/FFDemuxer"));
    av_log(nullptr, AV_LOG_ERROR, "first half ");
    av_log(nullptr, AV_LOG_ERROR, "second half %d\nnext line\n", 7);
    av_log(nullptr, AV_LOG_DEBUG, "debug chatter\n");
    QStringList texts;
    for (const LogEntry& entry : capture.entries()) {
        texts << entry.text;
    }
    EXPECT_EQ(texts, QStringList({QString("---demux--- avformat_open_input: %1: No such file or "
                                          "directory")
                                      .arg(AVERROR(ENOENT)),
                                  "first half second half 7", "next line"}));
    EXPECT_EQ(capture.entries().value(0).function, "Korvane::FFDemuxer::open");
}

// The release paths matter under the sanitizer build, which reports leaks.
TEST(Makers, OwnersReleaseWhatTheyHoldAndNullGivesNull)
{
    EXPECT_TRUE(makeAVFormatContextPtr(nullptr).isNull() && makeAVPacketPtr(nullptr).isNull() &&
                makeAVFramePtr(nullptr).isNull());
    // A bare, never opened context goes through its own branch of the deleter.
    EXPECT_FALSE(makeAVFormatContextPtr(avformat_alloc_context()).isNull());
    EXPECT_FALSE(makeAVCodecContextPtr(avcodec_find_decoder(AV_CODEC_ID_MPEG4)).isNull() ||
                 makeAVPacketPtr().isNull() || makeAVFramePtr().isNull() ||
                 makeAVFilterGraphPtr().isNull());
}
