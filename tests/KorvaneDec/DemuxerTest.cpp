// Opening and reading media through FFDemuxer, and the DVD title tables.
#include "KorvaneDec/DemuxerFactory.h"
#include "KorvaneDec/FFVobDemuxer.h"
#include "KorvaneDec/StreamProbing.h"
#include "KorvaneDec/VobTitle.h"
#include "KorvaneDec/VobTitleBuilder.h"

#include "LogCapture.h"
#include "ProbeMedia.h"
#include "TestMedia.h"

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

constexpr qint64 kMax = std::numeric_limits<qint64>::max();
constexpr AVRational k90kHz{1, 90000};

// A failed open leaves nothing open and the last good path. The records'
// first words trace the attempts: the suffix's reader ("maybe"), probing
// ("retry"), the program-stream reader ("try") and failures ("---demux---").
TEST(FFDemuxer, OpensEachInputByItsOwnPathOrFailsWithARecord)
{
    const QList<std::tuple<QString, const char*, std::string>> rows = {
        {ProbeMedia::h264("ts"), "mpegts", "maybe"},
        {TestMedia::dir() + "/probe/missing.flv", "", "maybe retry ---demux--- ---demux---"},
        // Probing gives up before the program stream starts; the suffix
        // names the program-stream reader.
        {ProbeMedia::hiddenProgramStream("vob"), "mpeg", "maybe try"},
        {ProbeMedia::hiddenProgramStream("bin"), "", "maybe try ---demux--- ---demux---"},
        // Random bytes pass the forced open but not stream analysis.
        {ProbeMedia::randomBytes("vob"), "", "maybe try ---demux---"},
        {QString(), "", ""},
        {":/probe/missing.mp4", "", "mQrcFile->open"},
    };
    FFDemuxer demuxer;
    QString lastOpened;
    for (const auto& [path, format, trail] : rows) {
        SCOPED_TRACE(path.toStdString());
        LogCapture capture;
        const bool opened = demuxer.open(path);
        lastOpened = opened ? path : lastOpened;
        EXPECT_EQ(demuxer.filePath(), lastOpened);
        QStringList records;
        for (const LogEntry& e : capture.entries()) {
            if (e.file == "KorvaneDec/FFDemuxer") {
                records << e.text.section(' ', 0, 0);
            }
        }
        EXPECT_EQ(records.join(QLatin1Char(' ')).toStdString(), trail);
        EXPECT_STREQ(opened ? demuxer.formatContext()->iformat->name : "", format);
        EXPECT_TRUE(opened ? path.endsWith(".vob") || qAbs(demuxer.durationMs() - 2000) < 150
                           : !demuxer.mediaInfo() && !demuxer.readPacket());
    }
    // The transport stream muxer starts its clock 1.4 s in.
    ASSERT_TRUE(demuxer.open(ProbeMedia::h264("ts")));
    EXPECT_EQ(demuxer.mediaInfo()->startTimeMs, 1400);
}

TEST(ResourcePath, ReadsAndSeeksThroughCustomIo)
{
    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(":/probe/clip.mp4"));
    EXPECT_TRUE(demuxer.formatContext()->flags & AVFMT_FLAG_CUSTOM_IO);
    int pictures = 0;
    while (const auto packet = demuxer.readPacket()) {
        pictures += packet->stream_index == 0;
    }
    EXPECT_EQ(pictures, 25);
    // An index outside the streams changes nothing.
    for (const int index : {-1, 2}) {
        demuxer.seek(0, index);
        EXPECT_TRUE(demuxer.isEof() && !demuxer.readPacket()) << index;
    }
    demuxer.seek(0, 0);
    const auto first = demuxer.readPacket();
    EXPECT_TRUE(first && first->pos <= 4096);
}

TEST(StreamProbing, DurationsOfDamagedFilesStayInRange)
{
    // Container durations round by 5 ms and truncate; found by fuzzing: not
    // where adding it would overflow.
    QList<qint64> container;
    for (const qint64 duration : {qint64(1234567), qint64(994999), qint64(995000), qint64(-10000),
                                  kMax, kMax - 5000, kMax - 4999}) {
        container << containerDurationMs(duration);
    }
    EXPECT_EQ(container,
              QList<qint64>({1239, 999, 1000, -5, kMax / 1000, kMax / 1000, (kMax - 4999) / 1000}));
    // Found by fuzzing: a still picture has no stream duration, and a
    // duration's product with its time base may pass 64 bits.
    EXPECT_EQ(
        QList<qint64>({streamDurationMs(1001, {1, 30000}), streamDurationMs(123, {1, 0}),
                       streamDurationMs(AV_NOPTS_VALUE, {1, 25}), streamDurationMs(kMax, {1, 1})}),
        QList<qint64>({33, 0, LLONG_MIN, kMax}));
}

// Guessed, average and real rates: the first that is usable wins.
TEST(StreamProbing, FrameRateChoice)
{
    const AVRational rows[][4] = {
        {{30, 1}, {25, 1}, {24, 1}, {30, 1}},    {{121, 1}, {60, 1}, {24, 1}, {60, 1}},
        {{0, 0}, {240, 1}, {30, 1}, {30, 1}},    {{0, 0}, {0, 0}, {0, 0}, {25, 1}},
        {{0, 1}, {2000, 1}, {5000, 1}, {25, 1}}, {{0, 1}, {30000, 1001}, {0, 1}, {30000, 1001}},
    };
    for (const auto& row : rows) {
        const AVRational rate = chooseFrameRate(row[0], row[1], row[2]);
        EXPECT_EQ(av_cmp_q(rate, row[3]), 0) << rate.num << "/" << rate.den;
    }
}

// Stream, media type, position, pts, dts, duration.
using Packet = std::array<qint64, 6>;

VobTitleInfo build(const QList<Packet>& packets)
{
    VobTitleBuilder builder;
    for (const Packet& p : packets) {
        builder.addPacket(p[0], p[1], p[2], p[3], p[4], p[5]);
    }
    return builder.finish();
}

// One video stream, two runs of ten frames at 25 fps whose timestamps start
// again at the second run. Packets are 1000 bytes apart.
QList<Packet> twoRuns()
{
    QList<Packet> packets;
    for (int i = 0; i < 20; ++i) {
        const qint64 dts = 45000 + i % 10 * 3600;
        packets.append({0, AVMEDIA_TYPE_VIDEO, i * 1000, dts + 3600, dts, 3600});
    }
    return packets;
}

// Found by fuzzing: runs spanning more than the 64-bit range, then jumps back.
const QList<Packet> kDamaged = {{0, 0, 0, -2438376108509442306, -2438376108509442306, 1},
                                {0, 0, 10, 7158576095094338548, 7158576095094338548, 1},
                                {0, 0, 20, 0, 0, 1},
                                {0, 0, 30, kMax, kMax, kMax},
                                {0, 0, 40, 0, 0, 1}};

// A chapter a line: "head-tail pts first..last/dts first..last @title
// pts/dts", and "*" when its first packet had no pts.
QString table(const VobTitleInfo& title)
{
    QString text;
    for (const VobChapter& c : title.chapters) {
        text += QString::asprintf("%lld-%lld %lld..%lld/%lld..%lld @%lld/%lld%s\n", c.headPosInFile,
                                  c.tailPosInFile, c.firstPtsInFile, c.lastPtsInFile,
                                  c.firstDtsInFile, c.lastDtsInFile, c.titleStartPts,
                                  c.titleStartDts, c.ptsFromDts ? "*" : "");
    }
    return text;
}

TEST(VobTitleBuilder, ChapterTablesOfTitles)
{
    constexpr qint64 kNone = AV_NOPTS_VALUE;
    const QList<std::tuple<QList<Packet>, QString, int>> rows = {
        // A backward dts starts a chapter one frame after the last picture.
        {twoRuns(),
         "0-9000 48600..81000/45000..77400 @48600/45000\n"
         "10000-19000 48600..81000/45000..77400 @84600/77401\n",
         0},
        // No dts: no chapter starts; no pts: it starts at the dts. Audio
        // without dts marks the title.
        {{{0, 0, 0, kNone, kNone, 0},
          {0, 0, 100, kNone, 9000, 3600},
          {0, 0, 200, 16200, 12600, 3600},
          {1, 1, 300, 9000, kNone, 2090},
          {1, 1, 400, 11090, 11090, 2090}},
         "100-200 9000..16200/9000..12600 @9000/9000*\n"
         "400-400 11090..11090/11090..11090 @11090/11090\n",
         1},
        // Starts saturate where the sum does not fit and stay exact where it does.
        {kDamaged,
         "0-10 -2438376108509442306..7158576095094338548/-2438376108509442306.."
         "7158576095094338548 @-2438376108509442306/-2438376108509442306\n"
         "20-30 0..9223372036854775807/0..9223372036854775807 @7158576095094338549/"
         "7158576095094338549\n40-40 0..0/0..0 @9223372036854775807/9223372036854775807\n",
         0},
    };
    for (const auto& [packets, chapters, audioDtsFromPts] : rows) {
        const VobTitleInfo title = build(packets);
        EXPECT_EQ(table(title), chapters);
        EXPECT_EQ(title.audioDtsFromPts, audioDtsFromPts);
    }
}

TEST(VobTitle, FindChapterAndDuration)
{
    // Stream 1 counts in ms. Lengths lie end to end in table order; the
    // duration is the video's, or without video the longest audio stream's.
    MediaDescription d;
    for (const AVRational timeBase : {k90kHz, AVRational{1, 1000}, k90kHz, k90kHz}) {
        d.streams.append(QSharedPointer<StreamInfo>::create());
        d.streams.last()->streamIndex = d.streams.size() - 1;
        d.streams.last()->timeBase = timeBase;
    }
    VobTitleInfo title;
    title.chapters = {{0, 0, 0, 10, 0, 0, 0, 0, 90000},
                      {1, 1, 0, 10, 0, 0, 0, 0, 3000},
                      {0, 0, 20, 30, 0, 0, 0, 0, 90000}};
    for (const auto& [ms, index] : QList<QPair<qint64, int>>{
             {1000, 0}, {1001, 1}, {4001, 2}, {5000, 2}, {5001, -1}, {-1, -1}}) {
        EXPECT_EQ(findChapter(title, d, ms), index) << ms;
    }
    EXPECT_EQ(titleDurationMs(title, d), 2000);
    VobTitleInfo audio;
    audio.chapters = {{2, 1, 0, 1, 0, 0, 0, 0, 180000},
                      {1, 1, 0, 1, 0, 0, 0, 0, 3000},
                      {3, 3, 0, 1, 0, 0, 0, 0, 9000000}};
    EXPECT_EQ(titleDurationMs(audio, d), 3000);
    const VobTitleInfo damaged = build(kDamaged);
    EXPECT_GE(titleDurationMs(damaged, d), 1);
    EXPECT_EQ(findChapter(damaged, d, kMax), -1);
}

TEST(PacketTimeLine, RewritesOntoTheTitleAndRemembersTheChapter)
{
    const VobTitleInfo runs = build(twoRuns());
    const VobTitleInfo damaged = build(kDamaged);
    VobTitleInfo audio{{{1, AVMEDIA_TYPE_AUDIO, 0, 100, 1000, 1000, 1000, 1000, 5000, 5000}}, 1};
    // Title, stream, position, pts, dts, the result.
    const QList<std::tuple<const VobTitleInfo*, int, qint64, qint64, qint64, QString>> rows = {
        {&runs, 0, 9000, 81000, 77400, "placed 81000/77400"},
        // First frame of the second run: one frame later on the title.
        {&runs, 0, 10000, 48600, 45000, "placed 84600/77401"},
        // A split packet without a position goes with its stream's chapter.
        {&runs, 0, -1, 52200, 48600, "placed 88200/81001"},
        // Past every chapter: untouched, and so is what follows it.
        {&runs, 0, 50000, 1234, 1200, "kept 1234/1200"},
        {&runs, 0, -1, 777, 700, "kept 777/700"},
        {&runs, 1, 0, 5, 5, "kept 5/5"}, // another stream's packet
        {&audio, 1, 50, 3000, AV_NOPTS_VALUE, "placed 3000/3000"},
        // -max on the file's line is 0 on the title's, whose chapter starts at max.
        {&damaged, 0, 40, -kMax, -kMax, "placed 0/0"},
    };
    VobTimeLine timeLine;
    for (const auto& [title, stream, pos, pts, dts, expected] : rows) {
        AVPacket packet{nullptr, pts, dts, nullptr, 0, stream};
        packet.pos = pos;
        const bool placed = placeOnTitleLine(*title, timeLine, packet);
        EXPECT_EQ(
            QString("%1 %2/%3").arg(placed ? "placed" : "kept").arg(packet.pts).arg(packet.dts),
            expected);
    }
}

TEST(SharedCorpus, DvdStyleProgramStreamAsVob)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    const QString vob =
        ProbeMedia::copyAs(corpus + "/dvd-style-mpeg2-mp2-navpacks.mpg", "probe/corpus-dvd.vob");
    FFVobDemuxer demuxer;
    EXPECT_TRUE(demuxer.open(vob) && demuxer.durationMs() > 0 && demuxer.durationMs() < 200);
}

} // namespace
