// Frame conversion, subtitles and the picture filter texts.
#include "KorvaneDec/Adapter/AudioFrameConverter.h"
#include "KorvaneDec/Adapter/BitmapSubtitleTrack.h"
#include "KorvaneDec/Adapter/PictureFilters.h"
#include "KorvaneDec/Adapter/VideoFrameConverter.h"

#include "KvAVGlue/KvAVGlue.h"
#include "PictureSubtitleWriter.h"
#include "TestMedia.h"

#include <QDir>

#include <optional>

#include <gtest/gtest.h>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
}

using namespace Korvane;

namespace {

QSharedPointer<AVFrame> stereoFrame(int64_t pts)
{
    auto frame = makeAVFramePtr();
    frame->sample_rate = 48000;
    frame->format = AV_SAMPLE_FMT_FLTP;
    av_channel_layout_default(&frame->ch_layout, 2);
    frame->nb_samples = 1024;
    frame->pts = pts;
    return av_frame_get_buffer(frame.data(), 0) < 0 ? nullptr : frame;
}

// Timestamps in, samples out: the output clock counts samples and follows
// the input's times only past the drift limit (960 samples at 48 kHz).
TEST(FrameConverters, SampleClockCountsSamplesFillsGapsAndDropsOverlaps)
{
    // Start (s), input times (1024 samples each), first output time, samples out.
    const QList<std::tuple<double, QList<int64_t>, int64_t, int64_t>> rows = {
        {0.0, {0, 1024, 2048}, 0, 3072},
        {0.0, {0, 1024 + 480, 2048}, 0, 3072},                // small jitter kept
        {0.0, {0, 1024 + 4800, 2048 + 4800}, 0, 3072 + 4800}, // a gap filled
        {0.0, {0, 0, 1024}, 0, 2048},                         // a repeated time dropped
        {0.0, {0, AV_NOPTS_VALUE, AV_NOPTS_VALUE}, 0, 3072},  // missing times continue
        {0.0, {2400, 3424}, 0, 2048 + 2400},                  // a late start is silence
        {0.05, {0, 1024, 2048, 3072}, 2400, 4096 - 2400},     // before the start dropped
    };
    for (const auto& [start, inputPts, firstPts, total] : rows) {
        SCOPED_TRACE(testing::Message() << start << " " << total);
        AVChannelLayout stereo{};
        av_channel_layout_default(&stereo, 2);
        AudioFrameConverter converter(48000, AV_SAMPLE_FMT_S16, stereo, {1, 48000}, start);
        QString error;
        std::optional<int64_t> first;
        int64_t next = 0;
        for (const int64_t pts : inputPts) {
            const auto out = converter.convert(stereoFrame(pts), &error);
            ASSERT_FALSE(out.isNull()) << error.toStdString();
            first = first.value_or(out->pts);
            next = out->pts == next || next == 0 ? out->pts + out->nb_samples : -1;
        }
        // Never backwards, never a hole.
        EXPECT_EQ(std::pair(*first, next - *first), std::pair(firstPts, total));
    }
}

TEST(FrameConverters, VideoConvertsOnlyWhatDiffers)
{
    auto frame = makeAVFramePtr();
    frame->width = 160;
    frame->height = 120;
    frame->format = AV_PIX_FMT_YUV420P;
    ASSERT_GE(av_frame_get_buffer(frame.data(), 0), 0);
    frame->pts = 42;
    QString error;
    EXPECT_EQ(VideoFrameConverter(160, 120, AV_PIX_FMT_YUV420P).convert(frame, &error), frame);
    const auto out = VideoFrameConverter(80, 60, AV_PIX_FMT_RGBA).convert(frame, &error);
    ASSERT_FALSE(out.isNull()) << error.toStdString();
    EXPECT_EQ(QList<int64_t>({out->width, out->height, out->format, out->pts}),
              QList<int64_t>({80, 60, AV_PIX_FMT_RGBA, 42}));
}

TEST(PictureFilters, EscapedValuesSurviveBothParsersAndTextsFollowTheClip)
{
    // A Windows path with every character the two parsers treat specially.
    const QString value = "C:\\subs\\a,b;c[d]e:f's.ass";
    // "metadata" keeps its string option as given, so it shows what the
    // graph parser and the option parser made of the escaped text.
    auto graph = makeAVFilterGraphPtr();
    const QString text = "metadata=mode=add:key=k:value=" + escapeFilterGraphValue(value);
    AVFilterInOut* in = nullptr;
    AVFilterInOut* out = nullptr;
    ASSERT_GE(avfilter_graph_parse2(graph.data(), text.toUtf8().constData(), &in, &out), 0);
    avfilter_inout_free(&in);
    avfilter_inout_free(&out);
    uint8_t* stored = nullptr;
    ASSERT_GE(av_opt_get(graph->filters[0]->priv, "value", 0, &stored), 0);
    EXPECT_EQ(QString::fromUtf8(reinterpret_cast<char*>(stored)), value);
    av_free(stored);
    EXPECT_EQ(subtitleFilterText("/s.srt", 0, 250, 0.5),
              "setpts=PTS*0.5-0.25/TB,subtitles=filename=/s.srt:si=0,setpts=(PTS+0.25/TB)/0.5");
}

TEST(BitmapSubtitleTrack, CueChangesShowClearAndReplace)
{
    using Cue = SubtitleCueTimes;
    const QList<std::tuple<Cue, std::optional<Cue>, QList<SubtitleChangeTime>>> rows = {
        {{100, 500}, Cue{900, 1200}, {{100, true}, {500, false}}}, // ends before the next
        {{100, 900}, Cue{900, 1200}, {{100, true}}},               // the next takes over at its end
        {{100, 2000}, Cue{900, 1200}, {{100, true}}},              // the next cuts it short
        {{100, -1}, Cue{900, 1200}, {{100, true}}},              // an open end lasts until the next
        {{100, -1, true}, Cue{900, 1200}, {{100, false}}},       // an empty cue clears
        {{100, 500}, Cue{100, 800}, {}},                         // replaced at the same moment
        {{100, 500}, std::nullopt, {{100, true}, {500, false}}}, // the last cue with an end
        {{100, 50}, std::nullopt, {{100, true}}}, // an end before the start is no end
    };
    for (const auto& [current, next, expected] : rows) {
        EXPECT_EQ(cueChanges(current, next ? &*next : nullptr), expected) << current.startMs;
    }
}

// Picture subtitles read as pictures on the timeline: found by number among
// a file's subtitle streams; DVB streams whose cues end with empty pages;
// a plane stated over 8192 pixels a side falls back to the video's size.
TEST(BitmapSubtitleTrack, ReadsCuesAsPicturesOnTheTimeline)
{
    QString error;
    QDir().mkpath(TestMedia::dir() + "/adapter");
    const auto write = [&](const QString& name, const QSize& plane, const char* codec) {
        const QString path = TestMedia::dir() + "/adapter/" + name;
        EXPECT_TRUE(SubtitleTest::writePictureSubtitles(
            path, plane, {{800, 1600, QRect(20, 80, 120, 24)}, {2000, 2400, QRect(0, 0, 40, 20)}},
            &error, codec));
        return path;
    };
    const QString dvd = write("boxes.mkv", QSize(160, 120), "dvdsub");
    const QString mkv =
        TestMedia::generate("adapter/two-picture-subs.mkv",
                            {"-f", "lavfi", "-i", "testsrc2=size=64x48:duration=1", "-i", dvd,
                             "-map", "0", "-map", "1", "-map", "1", "-c:s", "copy"});
    // Stream index: found, a picture, its number among subtitles.
    for (const auto& [index, found, ordinal] : QList<std::tuple<int, bool, int>>{
             {2, true, 1}, {1, true, 0}, {0, false, -1}, {-1, false, -1}}) {
        const SubtitleStreamInfo info = probeSubtitleStream(mkv, index);
        EXPECT_EQ(std::tuple(info.found, info.isBitmap, info.ordinal),
                  std::tuple(found, found, ordinal))
            << index;
    }
    const QString dvb = write("boxes-dvb.mkv", QSize(160, 120), "dvbsub");
    const QString giant = write("boxes-giant.mkv", QSize(9000, 9000), "dvdsub");
    // Path, plane, offset, speed, the times of the changes; before the
    // timeline's start counts as its start.
    const QList<std::tuple<QString, QSize, qint64, double, QList<qint64>>> rows = {
        {dvd, QSize(160, 120), 200, 2.0, {500, 900, 1100, 1300}},
        {dvd, QSize(160, 120), -1000, 1.0, {0, 600, 1000, 1400}},
        {dvb, QSize(640, 480), 0, 1.0, {800, 1600, 2000, 2400}},
        {giant, QSize(640, 480), 0, 1.0, {800, 1600, 2000, 2400}},
    };
    for (const auto& [path, plane, offsetMs, speed, times] : rows) {
        auto track = BitmapSubtitleTrack::open(path, 0, QSize(640, 480), offsetMs, speed, &error);
        ASSERT_TRUE(track) << error.toStdString();
        EXPECT_EQ(track->planeSize(), plane);
        SubtitleChange change;
        int i = 0;
        for (; track->next(&change, &error); ++i) {
            // DVD subtitles count their end in steps of 1024/90000 s.
            EXPECT_NEAR(change.ms, times.value(i, -100), 12) << i;
            const AVFrame* f = change.picture.data();
            // The first box is opaque inside; a cleared picture is clear.
            EXPECT_EQ(std::tuple(change.showsCue, QSize(f->width, f->height)),
                      std::tuple(i % 2 == 0, plane));
            EXPECT_TRUE(plane.width() > 160 || i > 1 ||
                        f->data[0][90 * f->linesize[0] + 80 * 4 + 3] == (i == 0 ? 255 : 0));
        }
        EXPECT_EQ(i, 4);
    }
}

} // namespace
