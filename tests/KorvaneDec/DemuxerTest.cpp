// Opening, reading, seeking and describing media through FFDemuxer, on
// generated media, a compiled-in Qt resource and the shared corpus.
#include "KorvaneDec/DemuxerFactory.h"
#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneDec/StreamProbing.h"

#include "KvAVGlue/FFmpegLog.h"
#include "LogCapture.h"
#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <limits>

using namespace Korvane;

namespace {

constexpr qint64 kMax = std::numeric_limits<qint64>::max();
const QString kClip = ":/probe/clip.mp4";

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

// One demuxer opens each input in turn: a failed open leaves nothing open,
// and the path of the last successful one stays.
TEST(FFDemuxer, OpensEachInputByItsOwnPathOrFailsWithARecord)
{
    const QString missingFlv = TestMedia::dir() + "/probe/missing.flv";
    const int noFile = AVERROR(ENOENT);
    const QString invalid = QString("maybe specific format, ret = %1").arg(AVERROR_INVALIDDATA);
    struct Row
    {
        QString path;
        const char* format;  // empty: the open fails
        QStringList records; // the demuxer's own records, each given by its start
    };
    const QList<Row> rows = {
        {ProbeMedia::h264("ts"), "mpegts", {"maybe specific format, ret = 0"}},
        // The forced FLV reader is tried first; the retry decides.
        {missingFlv,
         "",
         {QString("maybe specific format, ret = %1").arg(noFile),
          QString("retry auto detected, ret = %1").arg(noFile),
          QString("---demux--- avformat_open_input: %1: %2").arg(noFile).arg(ffErrorText(noFile)),
          "---demux--- Could not open the file . fileSize :0 " + missingFlv}},
        {ProbeMedia::h264("flv"), "live_flv", {}},
        // Probing gives up before the program stream starts; the suffix
        // names the program-stream reader for the third call.
        {ProbeMedia::hiddenProgramStream("vob"), "mpeg", {invalid, "try add option, ret = 0"}},
        {ProbeMedia::hiddenProgramStream("bin"),
         "",
         {invalid, QString("try add option, ret = %1").arg(AVERROR_INVALIDDATA)}},
        // Random bytes pass the forced open but not stream analysis.
        {ProbeMedia::randomBytes("vob"),
         "",
         {invalid, "try add option, ret = 0", "---demux--- avformat_find_stream_info failed"}},
        {QString(), "", {}},
        {"/nonexistent/clip.mp4", "", {"maybe"}},
        {ProbeMedia::emptyFile(), "", {"maybe"}},
        {ProbeMedia::truncatedMp4(), "", {"maybe"}},
        {TestMedia::dir(), "", {"maybe"}},
        {ProbeMedia::unusualName(), "mov,mp4,m4a,3gp,3g2,mj2", {}},
        {ProbeMedia::hevc("mkv"), "matroska,webm", {}},
        {":/probe/missing.mp4", "", {"mQrcFile->open failed."}},
    };
    FFDemuxer demuxer;
    QString lastOpened;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path.toStdString());
        LogCapture capture;
        const bool opened = demuxer.open(row.path);
        ASSERT_EQ(opened, *row.format != '\0');
        lastOpened = opened ? row.path : lastOpened;
        EXPECT_EQ(demuxer.filePath(), lastOpened);
        const QStringList records = demuxerTexts(capture);
        for (int i = 0; i < row.records.size(); ++i) {
            ASSERT_LT(i, records.size());
            EXPECT_TRUE(records[i].startsWith(row.records[i])) << records[i].toStdString();
        }
        // Every failure but a missing resource's leaves a record of its own.
        EXPECT_EQ(!opened && !row.path.isEmpty() && !row.path.startsWith(":"),
                  records.join("\n").contains("---demux--- "));
        EXPECT_TRUE(!row.path.isEmpty() || records.isEmpty());
        if (opened) {
            EXPECT_STREQ(demuxer.formatContext()->iformat->name, row.format);
            EXPECT_TRUE(row.path.endsWith(".vob") || qAbs(demuxer.durationMs() - 2000) < 150);
            continue;
        }
        EXPECT_TRUE(demuxer.formatContext().isNull());
        EXPECT_TRUE(demuxer.mediaInfo().isNull());
        EXPECT_TRUE(demuxer.readPacket().isNull());
        EXPECT_EQ(demuxer.durationMs(), 0);
    }
}

TEST(FFDemuxer, ReadsEveryPacketOrOnlyTheStreamItKeeps)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("mkv")));
    int counts[2] = {0, 0};
    while (const auto packet = demuxer.readPacket()) {
        EXPECT_GT(packet->size, 0);
        ++counts[packet->stream_index];
    }
    EXPECT_EQ(counts[0], 50);
    EXPECT_GT(counts[1], 10);
    EXPECT_TRUE(demuxer.isEof());
    // Packets read ahead while the streams were analysed are dropped by a seek.
    demuxer.discardOtherStreams(1);
    demuxer.seek(0, 1);
    EXPECT_EQ(demuxer.formatContext()->streams[0]->discard, AVDISCARD_ALL);
    int sound = 0;
    while (const auto packet = demuxer.readPacket()) {
        EXPECT_EQ(packet->stream_index, 1);
        ++sound;
    }
    EXPECT_EQ(sound, counts[1]);
}

TEST(ResourcePath, OpensReadsAndSeeksThroughCustomIo)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(kClip));
    EXPECT_TRUE(demuxer.formatContext()->flags & AVFMT_FLAG_CUSTOM_IO);
    const auto d = demuxer.mediaInfo();
    ASSERT_EQ(d->videoStreams.size(), 1);
    EXPECT_EQ(d->videoStreams[0]->width, 160);
    EXPECT_NEAR(demuxer.durationMs(), 1000, 100);
    int pictures = 0;
    while (const auto packet = demuxer.readPacket()) {
        pictures += packet->stream_index == d->videoStreams[0]->streamIndex;
    }
    EXPECT_EQ(pictures, 25);
    demuxer.seek(0, 0);
    const auto again = demuxer.readPacket();
    ASSERT_TRUE(again);
    EXPECT_LE(again->pos, 4096);

    uint8_t buffer[64];
    QFile file(kClip);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const int64_t size = file.size();
    EXPECT_EQ(FFDemuxer::readQrcFile(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(FFDemuxer::readQrcFile(&file, buffer, sizeof buffer), 64);
    EXPECT_EQ(FFDemuxer::seekQrcFile(nullptr, 0, SEEK_SET), -1);
    struct Row
    {
        int64_t offset;
        int whence;
        int64_t expected;
    };
    // The size is never told by AVSEEK_SIZE.
    for (const Row& row : {Row{10, SEEK_SET, 10}, Row{5, SEEK_CUR, 15}, Row{-15, SEEK_CUR, 0},
                           Row{-4, SEEK_END, size - 4}, Row{0, AVSEEK_SIZE, -1}, Row{0, 7, -1},
                           Row{-1, SEEK_SET, -1}, Row{-10, SEEK_END, size - 10}}) {
        EXPECT_EQ(FFDemuxer::seekQrcFile(&file, row.offset, row.whence), row.expected)
            << row.offset << " " << row.whence;
    }
    EXPECT_EQ(FFDemuxer::readQrcFile(&file, buffer, sizeof buffer), 10);
    EXPECT_EQ(FFDemuxer::readQrcFile(&file, buffer, sizeof buffer), -1); // not AVERROR_EOF
}

TEST(SelectStream, ContainerTimestampFixAndStartForVideoInSomeContainers)
{
    struct Row
    {
        QString path;
        int stream;
        bool fix;
        bool containerStart; // the container's start, not the stream's, is the start
    };
    const Row rows[] = {
        // Audio starts first in the transport stream, and the container with it.
        {ProbeMedia::h264("ts"), 0, true, true},    {ProbeMedia::h264("mkv"), 0, true, false},
        {ProbeMedia::h264("avi"), 0, true, false},  {ProbeMedia::h264("mp4"), 0, false, false},
        {ProbeMedia::h264("flv"), 0, false, false}, {ProbeMedia::h264("mkv"), 1, false, false},
        {ProbeMedia::h264("mkv"), 9, false, false}, {ProbeMedia::toneMp3(), 0, false, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path.toStdString() + " " + std::to_string(row.stream));
        FFDemuxer demuxer;
        ASSERT_TRUE(demuxer.open(row.path));
        EXPECT_EQ(demuxer.selectStream(row.stream), 1);
        EXPECT_EQ(demuxer.containerTimestampFix(), row.fix);
        const AVFormatContext* context = demuxer.formatContext().data();
        if (row.containerStart) {
            EXPECT_GT(demuxer.startPts(), 0);
            EXPECT_EQ(demuxer.startPts(), av_rescale_q(context->start_time, AVRational{1, 1000000},
                                                       context->streams[0]->time_base));
        }
        if (row.containerStart && row.fix) {
            EXPECT_EQ(demuxer.mediaInfo()->startTimeMs, 1400);
            // The first packet of the chosen stream, read while measuring, comes next.
            const auto first = demuxer.readPacket();
            EXPECT_EQ(first->stream_index, 0);
            EXPECT_GE(first->pts, demuxer.startPts());
        }
    }
    FFDemuxer unopened;
    EXPECT_EQ(unopened.selectStream(0), 1);
    EXPECT_EQ(unopened.startPts(), 0);
    unopened.seek(1000, 0);
    unopened.seekByFilePos(100);
    EXPECT_FALSE(unopened.isSeeking());
}

TEST(Seek, TargetsCountFromTheStreamStartAndLandOnAKeyframeBefore)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("ts")));
    demuxer.selectStream(0);
    const qint64 start = demuxer.startPts();
    ASSERT_EQ(demuxer.formatContext()->streams[0]->time_base.den, 90000);
    const qint64 firstPts = demuxer.readPacket()->pts;
    while (demuxer.readPacket()) {
    }
    struct Row
    {
        qint64 ms;
        qint64 target;
    };
    for (const Row& row : {Row{1, 90 + start}, Row{-40, 0}, Row{1500, 135000 + start},
                           Row{400, 36000 + start}, Row{0, 0}}) {
        demuxer.seek(row.ms, 0);
        EXPECT_EQ(demuxer.seekTarget(), row.target) << row.ms;
        EXPECT_TRUE(demuxer.isSeeking() && !demuxer.isEof());
        QSharedPointer<AVPacket> packet;
        while ((packet = demuxer.readPacket()) && packet->stream_index != 0) {
        }
        ASSERT_TRUE(packet) << row.ms;
        EXPECT_LE(packet->pts, std::max(row.target, firstPts));
    }
    // In an MP4 the next picture is the keyframe at or before the time.
    FFDemuxer mp4;
    ASSERT_TRUE(mp4.open(ProbeMedia::h264("mp4")));
    while (mp4.readPacket()) {
    }
    // An index outside the streams changes nothing.
    for (const int index : {-1, 2, 100}) {
        mp4.seek(1000, index);
        EXPECT_TRUE(mp4.isEof() && !mp4.isSeeking()) << index;
        EXPECT_EQ(mp4.seekTarget(), 0) << index;
    }
    mp4.selectStream(0);
    for (const qint64 ms : {1500, 400, 0}) {
        mp4.seek(ms, 0);
        QSharedPointer<AVPacket> packet;
        while ((packet = mp4.readPacket()) && packet->stream_index != 0) {
        }
        ASSERT_TRUE(packet) << ms;
        EXPECT_LE(packet->pts * 1000 / mp4.formatContext()->streams[0]->time_base.den, ms);
        EXPECT_TRUE(packet->flags & AV_PKT_FLAG_KEY);
    }
    const qint64 middle = QFileInfo(demuxer.filePath()).size() / 2;
    demuxer.seekByFilePos(middle);
    EXPECT_TRUE(demuxer.isSeeking());
    const auto packet = demuxer.readPacket();
    ASSERT_TRUE(packet);
    EXPECT_GE(packet->pos, middle - 188);
}

// Every input we have, good or bad, through every probing path: nothing may
// crash, leak or hang (run under AddressSanitizer with KORVANE_SANITIZE).
TEST(Robustness, EveryInputThroughBothDemuxers)
{
    QStringList paths{ProbeMedia::h264("mp4"),
                      ProbeMedia::h264("avi"),
                      ProbeMedia::h264("ts"),
                      ProbeMedia::h264("flv"),
                      ProbeMedia::hevc("mkv"),
                      ProbeMedia::unusualName(),
                      ProbeMedia::rotatedH264(90),
                      ProbeMedia::anamorphicH264(),
                      ProbeMedia::tenBit("hevc"),
                      ProbeMedia::mp3WithCover(),
                      ProbeMedia::wmv(2),
                      ProbeMedia::concatenatedVob(1),
                      ProbeMedia::truncatedMp4(),
                      ProbeMedia::emptyFile(),
                      ProbeMedia::randomBytes("vob"),
                      ProbeMedia::hiddenProgramStream("vob"),
                      TestMedia::dir(),
                      kClip,
                      ":/probe/none.vob"};
    const QString corpus = TestMedia::sharedMediaDir();
    for (const QString& name :
         corpus.isEmpty() ? QStringList() : QDir(corpus).entryList(QDir::Files)) {
        paths << corpus + "/" + name;
    }
    for (const QString& path : paths) {
        SCOPED_TRACE(path.toStdString());
        ASSERT_FALSE(path.isEmpty());
        FFDemuxer plain;
        const QSharedPointer<FFDemuxer> vob = createDemuxer(path, true);
        for (FFDemuxer* demuxer : {&plain, vob.data()}) {
            if (!demuxer->open(path)) {
                EXPECT_FALSE(demuxer->formatContext());
                continue;
            }
            const qint64 duration = demuxer->durationMs();
            EXPECT_GE(duration, 0);
            const auto description = demuxer->mediaInfo();
            for (const auto& stream : description->streams) {
                demuxer->selectStream(stream->streamIndex);
                for (const qint64 ms : {duration / 2, qint64(0), duration + 1000}) {
                    demuxer->seek(ms, stream->streamIndex);
                    for (int i = 0; i < 5 && demuxer->readPacket(); ++i) {
                    }
                }
            }
            demuxer->seekByFilePos(0);
            for (int packets = 0; demuxer->readPacket() && packets < 100000; ++packets) {
            }
            demuxer->close();
            EXPECT_FALSE(demuxer->formatContext());
        }
    }
}

TEST(StreamProbing, DurationsFrameRatesAndRotations)
{
    // Container durations round by 5 ms and truncate, except where adding
    // it would overflow.
    const QList<QPair<int64_t, qint64>> container = {{1234567, 1239},
                                                     {0, 5},
                                                     {994999, 999},
                                                     {995000, 1000},
                                                     {-10000, -5},
                                                     {kMax, kMax / 1000},
                                                     {kMax - 5000, kMax / 1000},
                                                     {kMax - 4999, (kMax - 4999) / 1000}};
    for (const auto& [duration, ms] : container) {
        EXPECT_EQ(containerDurationMs(duration), ms) << duration;
    }
    EXPECT_EQ(streamDurationMs(1001, AVRational{1, 30000}), 33);
    EXPECT_EQ(streamDurationMs(123, AVRational{1, 0}), 0);
    // Found by fuzzing (a still picture has no stream duration): the product
    // does not fit and must not be converted as it is.
    EXPECT_EQ(streamDurationMs(AV_NOPTS_VALUE, AVRational{1, 25}),
              std::numeric_limits<qint64>::min());
    EXPECT_EQ(streamDurationMs(kMax, AVRational{1, 1}), kMax);

    struct Rate
    {
        AVRational guessed, average, real, expected;
    };
    const Rate rates[] = {
        {{240, 1}, {30000, 1001}, {240, 1}, {30000, 1001}}, // a guess above 120 gives way
        {{120, 1}, {30, 1}, {30, 1}, {120, 1}},
        {{0, 0}, {0, 0}, {120, 1}, {25, 1}}, // the real rate must be below 120
        {{0, 0}, {0, 0}, {119, 1}, {119, 1}},
        {{0, 1}, {120, 1}, {60, 1}, {120, 1}},
        {{0, 0}, {241, 2}, {24, 1}, {241, 2}}, // the average must be below 121
        {{0, 0}, {121, 1}, {24, 1}, {24, 1}},
        {{500, 1}, {500, 1}, {500, 1}, {500, 1}}, // all refused: a good numerator stays
        {{0, 0}, {5000, 1}, {0, 0}, {25, 1}},
        {{0, 0}, {-3, 1}, {0, 0}, {25, 1}},
        {{0, 0}, {0, -1}, {0, 0}, {25, 1}},
    };
    for (const Rate& row : rates) {
        const AVRational r = chooseFrameRate(row.guessed, row.average, row.real);
        EXPECT_EQ(QString("%1/%2").arg(r.num).arg(r.den),
                  QString("%1/%2").arg(row.expected.num).arg(row.expected.den))
            << row.guessed.num << " " << row.average.num << " " << row.real.num;
    }
    // The display matrix turns counter-clockwise; the record holds clockwise degrees.
    const QList<QPair<double, int>> angles = {{-90.0, 90}, {90.0, 270}, {0.0, 0},    {-180.0, 180},
                                              {270.0, 90}, {-0.5, 0},   {-90.4, 90}, {360.0, 0}};
    for (const auto& [angle, rotation] : angles) {
        EXPECT_EQ(rotationFromDisplayAngle(angle), rotation) << angle;
    }
    EXPECT_TRUE(isAsfFamily("asf") && isAsfFamily("asf_o") && isAsfFamily("wmv"));
    EXPECT_FALSE(isAsfFamily("matroska,webm"));
}

// Still pictures: a cover, and a WMV of two frames (found by reading its
// few packets); not the same two frames in MP4, nor eight frames in WMV.
TEST(StreamProbing, FewPacketVideoIsAStillPicture)
{
    const QList<QPair<QString, int>> stills = {{ProbeMedia::mp3WithCover(), 1},
                                               {ProbeMedia::wmv(2), 1},
                                               {ProbeMedia::wmv(8), 0},
                                               {ProbeMedia::twoFrameMp4(), 0}};
    for (const auto& [path, still] : stills) {
        FFDemuxer demuxer;
        ASSERT_TRUE(demuxer.open(path));
        EXPECT_EQ(demuxer.mediaInfo()->videoStreams.value(0)->stillPicture, still)
            << path.toStdString();
        EXPECT_EQ(isFewPacketVideo(path, 0), still && path.endsWith(".wmv"));
        // Without the check only the disposition counts.
        EXPECT_EQ(describeMedia(demuxer.formatContext().data(), path, false)
                      ->videoStreams[0]
                      ->stillPicture,
                  still && path.endsWith(".mp3"));
    }
    // The audio stream of the WMV has more than three packets.
    EXPECT_FALSE(isFewPacketVideo(ProbeMedia::wmv(2), 1));
    EXPECT_FALSE(isFewPacketVideo(ProbeMedia::emptyFile(), 0));
    EXPECT_TRUE(describeMedia(nullptr, QString()).isNull());
}

} // namespace
