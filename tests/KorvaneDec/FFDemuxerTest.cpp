#include "KorvaneDec/FFDemuxer.h"

#include "KvAVGlue/FFmpegLog.h"
#include "LogCapture.h"
#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// The records FFDemuxer wrote itself (FFmpeg's own lines come in too).
QStringList demuxerTexts(const LogCapture& capture)
{
    QStringList texts;
    for (const LogEntry& e : capture.entries()) {
        if (e.file == "KorvaneDec/FFDemuxer") {
            texts << e.text;
        }
    }
    return texts;
}

TEST(FFDemuxerOpen, EmptyPathFailsWithoutLogging)
{
    LogCapture capture;
    FFDemuxer demuxer;
    EXPECT_FALSE(demuxer.open(QString()));
    EXPECT_TRUE(demuxer.formatContext().isNull());
    EXPECT_TRUE(demuxerTexts(capture).isEmpty());
}

TEST(FFDemuxerOpen, TransportStreamOpensInOneForcedCall)
{
    const QString path = ProbeMedia::h264("ts");
    ASSERT_FALSE(path.isEmpty());
    LogCapture capture;
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(path));
    EXPECT_EQ(demuxerTexts(capture), QStringList{"maybe specific format, ret = 0"});
    EXPECT_STREQ(demuxer.formatContext()->iformat->name, "mpegts");
    EXPECT_EQ(demuxer.filePath(), path);
}

TEST(FFDemuxerOpen, FlvRetryDoesNotChangeTheOutcome)
{
    LogCapture capture;
    FFDemuxer demuxer;
    const QString path = TestMedia::dir() + "/probe/missing.flv";
    EXPECT_FALSE(demuxer.open(path));
    const int code = AVERROR(ENOENT);
    EXPECT_EQ(
        demuxerTexts(capture),
        (QStringList{
            QString("maybe specific format, ret = %1").arg(code),
            QString("retry auto detected, ret = %1").arg(code),
            QString("---demux--- avformat_open_input: %1: %2").arg(code).arg(ffErrorText(code)),
            QString("---demux--- Could not open the file . fileSize :0 %1").arg(path)}));
    EXPECT_TRUE(demuxer.formatContext().isNull());
}

TEST(FFDemuxerOpen, RealFlvOpensWithTheLiveDemuxer)
{
    const QString path = ProbeMedia::h264("flv");
    ASSERT_FALSE(path.isEmpty());
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(path));
    EXPECT_STREQ(demuxer.formatContext()->iformat->name, "live_flv");
}

TEST(FFDemuxerOpen, InvalidDataWithVobSuffixRetriesAsProgramStream)
{
    // Probing gives up before the program stream starts; the suffix names
    // the program-stream reader for the third call, whose result decides.
    const QString vob = ProbeMedia::hiddenProgramStream("vob");
    ASSERT_FALSE(vob.isEmpty());
    LogCapture capture;
    FFDemuxer demuxer;
    EXPECT_TRUE(demuxer.open(vob));
    EXPECT_EQ(demuxerTexts(capture),
              (QStringList{QString("maybe specific format, ret = %1").arg(AVERROR_INVALIDDATA),
                           "try add option, ret = 0"}));
    ASSERT_TRUE(demuxer.formatContext());
    EXPECT_STREQ(demuxer.formatContext()->iformat->name, "mpeg");
    EXPECT_EQ(demuxer.formatContext()->nb_streams, 2u);

    // Without a format for the suffix the third call detects again and fails.
    capture.clear();
    FFDemuxer other;
    EXPECT_FALSE(other.open(ProbeMedia::hiddenProgramStream("bin")));
    EXPECT_TRUE(capture.contains(QString("try add option, ret = %1").arg(AVERROR_INVALIDDATA)));

    // Random bytes pass the forced open but not stream analysis.
    capture.clear();
    FFDemuxer noise;
    EXPECT_FALSE(noise.open(ProbeMedia::randomBytes("vob")));
    EXPECT_EQ(
        demuxerTexts(capture),
        (QStringList{QString("maybe specific format, ret = %1").arg(AVERROR_INVALIDDATA),
                     "try add option, ret = 0", "---demux--- avformat_find_stream_info failed"}));
    EXPECT_TRUE(noise.formatContext().isNull());
}

TEST(FFDemuxerOpen, BadInputsFailWithALogRecord)
{
    const QStringList paths{"/nonexistent/clip.mp4", ProbeMedia::emptyFile(),
                            ProbeMedia::randomBytes("mp4"), ProbeMedia::truncatedMp4(),
                            TestMedia::dir()};
    for (const QString& path : paths) {
        ASSERT_FALSE(path.isEmpty());
        LogCapture capture;
        FFDemuxer demuxer;
        EXPECT_FALSE(demuxer.open(path)) << path.toStdString();
        EXPECT_TRUE(demuxer.formatContext().isNull());
        EXPECT_TRUE(demuxer.mediaInfo().isNull());
        EXPECT_TRUE(demuxer.readPacket().isNull());
        EXPECT_EQ(demuxer.durationMs(), 0);
        EXPECT_TRUE(capture.contains("---demux--- ")) << path.toStdString();
    }
}

TEST(FFDemuxerOpen, ReopeningReplacesTheInput)
{
    const QString mp4 = ProbeMedia::h264("mp4");
    const QString mkv = ProbeMedia::hevc("mkv");
    ASSERT_FALSE(mp4.isEmpty());
    ASSERT_FALSE(mkv.isEmpty());
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(mp4));
    ASSERT_TRUE(demuxer.open(mkv));
    EXPECT_EQ(demuxer.filePath(), mkv);
    EXPECT_STREQ(demuxer.formatContext()->iformat->name, "matroska,webm");
    EXPECT_FALSE(demuxer.open(ProbeMedia::emptyFile()));
    EXPECT_TRUE(demuxer.formatContext().isNull());
    // The path of the last successful open stays.
    EXPECT_EQ(demuxer.filePath(), mkv);
}

TEST(FFDemuxerOpen, PathWithSpacesAndNonAsciiLetters)
{
    const QString path = ProbeMedia::unusualName();
    ASSERT_FALSE(path.isEmpty());
    FFDemuxer demuxer;
    EXPECT_TRUE(demuxer.open(path));
    EXPECT_NEAR(demuxer.durationMs(), 2000, 150);
}

TEST(FFDemuxerOpen, SuffixTables)
{
    EXPECT_EQ(FFDemuxer::firstTryFormat("flv"), "live_flv");
    EXPECT_EQ(FFDemuxer::firstTryFormat("ts"), "mpegts");
    EXPECT_EQ(FFDemuxer::firstTryFormat("vob"), "");
    EXPECT_EQ(FFDemuxer::firstTryFormat("mp4"), "");
    EXPECT_EQ(FFDemuxer::invalidDataFormat("vob"), "mpeg");
    EXPECT_EQ(FFDemuxer::invalidDataFormat("ts"), "");
}

TEST(FFDemuxerOpen, Wmv3ToleranceOnlyAfterStreamZero)
{
    struct Row
    {
        int best;
        int codec;
        bool tolerated;
    };
    const Row rows[] = {
        {1, AV_CODEC_ID_WMV3, true},   {2, AV_CODEC_ID_WMV3, true},  {0, AV_CODEC_ID_WMV3, false},
        {-1, AV_CODEC_ID_WMV3, false}, {1, AV_CODEC_ID_WMV2, false}, {1, AV_CODEC_ID_H264, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FFDemuxer::toleratesStreamInfoFailure(row.best, row.codec), row.tolerated)
            << row.best << " " << row.codec;
    }
}

TEST(FFDemuxerOpen, SharedCorpusWmv3WithVideoAtIndexOne)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty() || !QFileInfo::exists(corpus + "/wmv3-wmavoice.wmv")) {
        GTEST_SKIP() << "no shared media folder";
    }
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(corpus + "/wmv3-wmavoice.wmv"));
    const auto context = demuxer.formatContext();
    const int best = av_find_best_stream(context.data(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    EXPECT_EQ(best, 1);
    EXPECT_EQ(context->streams[best]->codecpar->codec_id, AV_CODEC_ID_WMV3);
}

TEST(FFDemuxerRead, PacketsUntilTheEnd)
{
    const QString path = ProbeMedia::h264("mp4");
    ASSERT_FALSE(path.isEmpty());
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(path));
    int video = 0;
    while (const auto packet = demuxer.readPacket()) {
        EXPECT_GT(packet->size, 0);
        video += packet->stream_index == 0;
    }
    EXPECT_EQ(video, 50);
    EXPECT_TRUE(demuxer.isEof());
}

TEST(FFDemuxerRead, DiscardOtherStreamsKeepsOnlyOne)
{
    const QString path = ProbeMedia::h264("mkv");
    ASSERT_FALSE(path.isEmpty());
    FFDemuxer demuxer;
    demuxer.discardOtherStreams(0);
    ASSERT_TRUE(demuxer.open(path));
    demuxer.discardOtherStreams(1);
    // Packets read ahead while the streams were analysed are dropped by a seek.
    demuxer.seek(0, 1);
    EXPECT_EQ(demuxer.formatContext()->streams[0]->discard, AVDISCARD_ALL);
    EXPECT_NE(demuxer.formatContext()->streams[1]->discard, AVDISCARD_ALL);
    int audio = 0;
    int others = 0;
    while (const auto packet = demuxer.readPacket()) {
        (packet->stream_index == 1 ? audio : others)++;
    }
    EXPECT_GT(audio, 10);
    EXPECT_EQ(others, 0);
}

} // namespace
