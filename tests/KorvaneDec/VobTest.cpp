#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/DemuxerFactory.h"
#include "KorvaneDec/FFVobDemuxer.h"
#include "KorvaneDec/VobParser.h"
#include "KorvaneDec/VobTitle.h"
#include "KorvaneDec/VobTitleBuilder.h"

#include "KvAVGlue/KvAVGlue.h"
#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

constexpr AVRational k90kHz{1, 90000};

VobChapter chapter(qint32 stream, qint32 type, qint64 head, qint64 tail, qint64 firstPts,
                   qint64 lastPts, qint64 titleStartPts = 0)
{
    VobChapter c;
    c.streamIndex = stream;
    c.mediaType = type;
    c.headPosInFile = head;
    c.tailPosInFile = tail;
    c.firstPtsInFile = firstPts;
    c.firstDtsInFile = firstPts;
    c.lastPtsInFile = lastPts;
    c.lastDtsInFile = lastPts;
    c.titleStartPts = titleStartPts;
    c.titleStartDts = titleStartPts;
    return c;
}

MediaDescription describedStreams(const QList<QPair<qint32, AVRational>>& streams)
{
    MediaDescription d;
    for (const auto& s : streams) {
        auto info = QSharedPointer<StreamInfo>::create();
        info->streamIndex = s.first;
        info->timeBase = s.second;
        d.streams.append(info);
    }
    return d;
}

TEST(ChapterArithmetic, LengthStartAndByteRate)
{
    struct Row
    {
        VobChapter c;
        AVRational timeBase;
        qint64 length, start, rate;
    };
    const Row rows[] = {
        {chapter(0, 0, 0, 100000, 0, 90000, 180000), k90kHz, 1000, 2000, 100},
        {chapter(0, 0, 2048, 4096, 45000, 45000 + 900, 45000), k90kHz, 10, 500, 204},
        // A chapter of one packet lasts 1 ms, so the rate stays finite.
        {chapter(1, 1, 10, 510, 7, 7, 0), k90kHz, 1, 0, 500},
        {chapter(1, 1, 0, 3000, 0, 3000, 1000), AVRational{1, 1000}, 3000, 1000, 1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(chapterLengthMs(row.c, row.timeBase), row.length);
        EXPECT_EQ(chapterStartMs(row.c, row.timeBase), row.start);
        EXPECT_EQ(bytesPerMs(row.c, row.timeBase), row.rate);
    }
}

TEST(ChapterArithmetic, FindChapterLaysLengthsEndToEnd)
{
    VobTitleInfo title;
    title.chapters = {chapter(0, 0, 0, 10, 0, 90000), chapter(1, 1, 0, 10, 0, 2000),
                      chapter(0, 0, 20, 30, 0, 90000)};
    // Stream 1 counts in ms.
    const MediaDescription d = describedStreams({{0, k90kHz}, {1, AVRational{1, 1000}}});
    struct Row
    {
        qint64 ms;
        int expected;
    };
    for (const Row& row : {Row{0, 0}, Row{999, 0}, Row{1000, 0}, Row{1001, 1}, Row{3000, 1},
                           Row{3001, 2}, Row{4000, 2}, Row{4001, -1}, Row{-1, -1}}) {
        EXPECT_EQ(findChapter(title, d, row.ms), row.expected) << row.ms;
    }
    EXPECT_EQ(findChapter(VobTitleInfo(), d, 0), -1);
}

TEST(ChapterArithmetic, TitleDuration)
{
    const MediaDescription d =
        describedStreams({{0, k90kHz}, {1, k90kHz}, {2, k90kHz}, {3, k90kHz}});
    VobTitleInfo video;
    video.chapters = {chapter(0, 0, 0, 1, 0, 90000), chapter(1, 1, 0, 1, 0, 900000),
                      chapter(0, 0, 0, 1, 0, 180000)};
    EXPECT_EQ(titleDurationMs(video, d), 3000);

    // Without video the longest audio stream wins; other kinds count nothing.
    VobTitleInfo audio;
    audio.chapters = {chapter(1, 1, 0, 1, 0, 90000), chapter(2, 1, 0, 1, 0, 180000),
                      chapter(1, 1, 0, 1, 0, 180000), chapter(3, 3, 0, 1, 0, 9000000)};
    EXPECT_EQ(titleDurationMs(audio, d), 3000);
    EXPECT_EQ(titleDurationMs(VobTitleInfo(), d), 0);
}

// One video stream, two runs of ten frames at 25 fps whose timestamps start
// again at the second run. Packets are 1000 bytes apart.
VobTitleInfo twoRuns()
{
    VobTitleBuilder builder;
    qint64 pos = 0;
    for (int run = 0; run < 2; ++run) {
        for (int i = 0; i < 10; ++i) {
            const qint64 dts = 45000 + i * 3600;
            builder.addPacket(0, AVMEDIA_TYPE_VIDEO, pos, dts + 3600, dts, 3600);
            pos += 1000;
        }
    }
    return builder.finish();
}

// A chapter as "head-tail pts first..last dts first..last title pts/dts",
// with "from dts" when its first packet had no pts.
std::string text(const VobChapter& c)
{
    return QString("%1-%2 pts %3..%4 dts %5..%6 title %7/%8%9")
        .arg(c.headPosInFile)
        .arg(c.tailPosInFile)
        .arg(c.firstPtsInFile)
        .arg(c.lastPtsInFile)
        .arg(c.firstDtsInFile)
        .arg(c.lastDtsInFile)
        .arg(c.titleStartPts)
        .arg(c.titleStartDts)
        .arg(c.ptsFromDts ? " from dts" : "")
        .toStdString();
}

TEST(VobTitleBuilder, BackwardDtsStartsAChapterThatContinuesTheTitle)
{
    const VobTitleInfo title = twoRuns();
    ASSERT_EQ(title.chapters.size(), 2);
    EXPECT_EQ(text(title.chapters[0]),
              "0-9000 pts 48600..81000 dts 45000..77400 title 48600/45000");
    // One frame after the first chapter's last picture.
    EXPECT_EQ(text(title.chapters[1]),
              "10000-19000 pts 48600..81000 dts 45000..77400 title 84600/77401");
    EXPECT_EQ(title.audioDtsFromPts, 0);
}

TEST(VobTitleBuilder, ExtremeTimestampsOfADamagedFileSaturate)
{
    // Found by fuzzing: a run spanning more than the 64-bit range, then a
    // jump back. The next chapter's start is still exact where it fits, and
    // sticks at the limit where it does not.
    constexpr qint64 max = std::numeric_limits<qint64>::max();
    VobTitleBuilder builder;
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 0, -2438376108509442306, -2438376108509442306, 1);
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 10, 7158576095094338548, 7158576095094338548, 1);
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 20, 0, 0, 1);
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 30, max, max, max);
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 40, 0, 0, 1);
    const VobTitleInfo title = builder.finish();
    ASSERT_EQ(title.chapters.size(), 3);
    EXPECT_EQ(title.chapters[1].titleStartDts, 7158576095094338549);
    EXPECT_EQ(title.chapters[1].titleStartPts, 7158576095094338549);
    EXPECT_EQ(title.chapters[2].titleStartDts, max);
    EXPECT_EQ(title.chapters[2].titleStartPts, max);

    MediaDescription d;
    auto stream = QSharedPointer<StreamInfo>::create();
    stream->timeBase = AVRational{1, 90000};
    d.streams = {stream};
    EXPECT_GE(titleDurationMs(title, d), 1);
    EXPECT_EQ(findChapter(title, d, max), -1);

    // Moving a packet onto the title line: -max on the file's line is 0 on
    // the title's, whose chapter starts at max.
    VobTimeLine timeLine;
    AVPacket packet{};
    packet.stream_index = 0;
    packet.pos = 40;
    packet.pts = -max;
    packet.dts = -max;
    EXPECT_TRUE(placeOnTitleLine(title, timeLine, packet));
    EXPECT_EQ(packet.pts, 0);
    EXPECT_EQ(packet.dts, 0);
}

TEST(VobTitleBuilder, MissingTimestamps)
{
    VobTitleBuilder builder;
    // No dts: no chapter can start here.
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 0, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    // No pts: the chapter starts at the dts and says so.
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 100, AV_NOPTS_VALUE, 9000, 3600);
    builder.addPacket(0, AVMEDIA_TYPE_VIDEO, 200, 16200, 12600, 3600);
    // Audio without dts marks the title.
    builder.addPacket(1, AVMEDIA_TYPE_AUDIO, 300, 9000, AV_NOPTS_VALUE, 2090);
    builder.addPacket(1, AVMEDIA_TYPE_AUDIO, 400, 11090, 11090, 2090);
    const VobTitleInfo title = builder.finish();
    ASSERT_EQ(title.chapters.size(), 2);
    EXPECT_EQ(text(title.chapters[0]),
              "100-200 pts 9000..16200 dts 9000..12600 title 9000/9000 from dts");
    EXPECT_EQ(title.chapters[1].headPosInFile, 400);
    EXPECT_EQ(title.audioDtsFromPts, 1);
    // The builder starts empty again.
    EXPECT_TRUE(builder.finish().chapters.isEmpty());
}

TEST(PacketTimeLine, RewritesOntoTheTitleAndRemembersTheChapter)
{
    const VobTitleInfo title = twoRuns();
    VobTimeLine timeLine;
    const auto packet = makeAVPacketPtr();
    ASSERT_TRUE(packet);

    struct Row
    {
        qint64 pos, pts, dts;
        bool placed;
        qint64 expectedPts, expectedDts;
    };
    const Row rows[] = {
        // Last frame of the first run: unchanged values.
        {9000, 48600 + 9 * 3600, 45000 + 9 * 3600, true, 48600 + 9 * 3600, 45000 + 9 * 3600},
        // First frame of the second run: one frame later on the title.
        {10000, 48600, 45000, true, 48600 + 10 * 3600, 45000 + 9 * 3600 + 1},
        // A split packet without a position goes with its stream's chapter.
        {-1, 52200, 48600, true, 52200 + 10 * 3600, 48600 + 9 * 3600 + 1},
        // Back in the first chapter.
        {0, 48600, 45000, true, 48600, 45000},
        // Past every chapter: untouched, and so is what follows it.
        {50000, 1234, 1200, false, 1234, 1200},
        {-1, 777, 700, false, 777, 700},
    };
    for (const Row& row : rows) {
        packet->stream_index = 0;
        packet->pos = row.pos;
        packet->pts = row.pts;
        packet->dts = row.dts;
        EXPECT_EQ(placeOnTitleLine(title, timeLine, *packet), row.placed) << row.pos;
        EXPECT_EQ(packet->pts, row.expectedPts) << row.pos;
        EXPECT_EQ(packet->dts, row.expectedDts) << row.pos;
    }
    EXPECT_FALSE(timeLine.lastChapter.has_value());

    // Another stream's packet at a chapter's position is not placed.
    packet->stream_index = 1;
    packet->pos = 0;
    packet->pts = 5;
    EXPECT_FALSE(placeOnTitleLine(title, timeLine, *packet));
    EXPECT_EQ(packet->pts, 5);
}

TEST(PacketTimeLine, AudioTakesPtsAsDtsWhenTheTitleSaysSo)
{
    VobTitleInfo title;
    title.chapters = {chapter(1, AVMEDIA_TYPE_AUDIO, 0, 100, 1000, 5000, 1000)};
    title.audioDtsFromPts = 1;
    VobTimeLine timeLine;
    const auto packet = makeAVPacketPtr();
    packet->stream_index = 1;
    packet->pos = 50;
    packet->pts = 3000;
    packet->dts = AV_NOPTS_VALUE;
    EXPECT_TRUE(placeOnTitleLine(title, timeLine, *packet));
    EXPECT_EQ(packet->pts, 3000);
    EXPECT_EQ(packet->dts, 3000);
}

// A program stream of two runs of 3 s whose timestamps start again at the
// second run plays as one title of both runs on one rising time line.
TEST(VobFile, TwoRunsPlayAsOneTitle)
{
    const QString path = ProbeMedia::concatenatedVob(3);
    FFVobDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(path));
    const auto title = demuxer.titleInfo();
    ASSERT_TRUE(title);
    const auto video = demuxer.mediaInfo()->videoStreams.value(0);
    ASSERT_TRUE(video);
    const AVRational timeBase = video->timeBase;
    QList<VobChapter> videoChapters;
    for (const VobChapter& c : title->chapters) {
        EXPECT_LE(c.headPosInFile, c.tailPosInFile);
        if (c.mediaType == AVMEDIA_TYPE_VIDEO) {
            videoChapters.append(c);
        }
    }
    ASSERT_EQ(videoChapters.size(), 2);
    EXPECT_EQ(title->chapters.size(), 4);
    // Each chapter measures first to last picture.
    EXPECT_NEAR(demuxer.durationMs(), 2 * 2920, 100);
    FFDemuxer plain;
    ASSERT_TRUE(plain.open(path));
    EXPECT_LT(plain.durationMs(), 3500);

    qint64 last = std::numeric_limits<qint64>::min();
    int pictures = 0;
    while (const auto packet = demuxer.readPacket()) {
        if (packet->stream_index != video->streamIndex) {
            continue;
        }
        ++pictures;
        if (packet->pts != AV_NOPTS_VALUE) {
            EXPECT_GT(packet->pts, last) << "picture " << pictures;
            last = packet->pts;
        }
    }
    EXPECT_EQ(pictures, 150);
    const auto ms = [&](qint64 pts) { return av_rescale_q(pts, timeBase, AVRational{1, 1000}); };
    const qint64 titleStart = chapterStartMs(videoChapters[0], timeBase);
    EXPECT_NEAR(ms(last) - chapterStartMs(title->chapters[1], timeBase), demuxer.durationMs(), 100);

    // A seek lands before the wanted time, by the deliberate lead and the
    // byte-rate estimate, but within the chapter and not by more than 2.5 s.
    for (const qint64 wanted : {1000, 2500, 4500, 5500}) {
        demuxer.seek(wanted, video->streamIndex);
        EXPECT_TRUE(demuxer.isSeeking());
        qint64 landed = -1;
        while (const auto packet = demuxer.readPacket()) {
            if (packet->stream_index == video->streamIndex && packet->pts != AV_NOPTS_VALUE) {
                landed = ms(packet->pts) - titleStart;
                break;
            }
        }
        EXPECT_TRUE(landed <= wanted && landed >= wanted - 2500) << wanted << " " << landed;
        bool inChapter = false;
        for (const VobChapter& c : videoChapters) {
            const qint64 start = chapterStartMs(c, timeBase) - titleStart;
            inChapter |= start <= landed && landed <= start + chapterLengthMs(c, timeBase);
        }
        EXPECT_TRUE(inChapter) << wanted << " landed at " << landed;
    }
    demuxer.close();
    EXPECT_FALSE(demuxer.titleInfo());
    EXPECT_EQ(demuxer.durationMs(), 0);
    EXPECT_FALSE(demuxer.readPacket());
}

TEST(VobParser, KeepsTitlesOfRecentUnchangedFilesOnly)
{
    VobParser& parser = VobParser::instance();
    parser.clear();
    const QString source = ProbeMedia::concatenatedVob(1);
    const auto first = parser.title(source);
    ASSERT_TRUE(first);
    EXPECT_EQ(parser.title(source), first);
    for (int i = 0; i < VobParser::cacheSize() + 2; ++i) {
        ASSERT_TRUE(parser.title(ProbeMedia::copyAs(source, QString("probe/cache-%1.vob").arg(i))));
        EXPECT_LE(parser.cachedCount(), VobParser::cacheSize());
    }
    EXPECT_EQ(parser.cachedCount(), VobParser::cacheSize());
    // The first title was evicted and is read again.
    EXPECT_NE(parser.title(source), first);
    EXPECT_EQ(parser.title(source)->chapters.size(), first->chapters.size());
    EXPECT_FALSE(parser.title(TestMedia::dir() + "/probe/missing.vob"));

    // Cut to half the file, one run only: read again.
    const QString target = TestMedia::dir() + "/probe/changing.vob";
    QFile::remove(target);
    ASSERT_TRUE(QFile::copy(source, target));
    const auto before = parser.title(target);
    ASSERT_TRUE(before);
    ASSERT_TRUE(QFile::resize(target, QFileInfo(source).size() / 2));
    const auto after = parser.title(target);
    ASSERT_TRUE(after);
    EXPECT_LT(after->chapters.size(), before->chapters.size());
}

TEST(CreateDemuxer, VobOnlyWhenForcedOrEnabled)
{
    auto& settings = KorvaneBaseEntry()->settings();
    struct Row
    {
        const char* path;
        bool forceVob;
        QVariant setting;
        bool vob;
    };
    const Row rows[] = {
        {"a.vob", false, QVariant(), false}, {"a.vob", false, true, true},
        {"a.VOB", false, "true", true},      {"a.vob", false, false, false},
        {"a.mp4", false, true, false},       {"a.mp4", true, QVariant(), true},
        {"vob", false, true, false},         {"a.vob.mp4", false, true, false},
    };
    for (const Row& row : rows) {
        if (row.setting.isValid()) {
            settings.setValue("kVob_DeMux_Enabled", row.setting);
        } else {
            settings.remove("kVob_DeMux_Enabled");
        }
        const QSharedPointer<FFDemuxer> demuxer = createDemuxer(row.path, row.forceVob);
        ASSERT_TRUE(demuxer);
        EXPECT_EQ(qobject_cast<FFVobDemuxer*>(demuxer.data()) != nullptr, row.vob)
            << row.path << " " << row.forceVob;
        EXPECT_FALSE(demuxer->formatContext());
    }
    settings.remove("kVob_DeMux_Enabled");
}

TEST(SharedCorpus, DvdStyleProgramStreamAsVob)
{
    const QString corpus = TestMedia::sharedMediaDir();
    if (corpus.isEmpty()) {
        GTEST_SKIP() << "no shared media folder";
    }
    const QString vob =
        ProbeMedia::copyAs(corpus + "/dvd-style-mpeg2-mp2-navpacks.mpg", "probe/corpus-dvd.vob");
    ASSERT_FALSE(vob.isEmpty());
    const QSharedPointer<FFDemuxer> demuxer = createDemuxer(vob, true);
    ASSERT_TRUE(demuxer->open(vob));
    EXPECT_GT(demuxer->durationMs(), 0);
    EXPECT_LT(demuxer->durationMs(), 200);
    int packets = 0;
    while (demuxer->readPacket()) {
        ++packets;
    }
    EXPECT_GT(packets, 3);
}

} // namespace
