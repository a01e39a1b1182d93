// Media sources, frame conversion, still pictures and the picture filter
// texts, on generated media.
#include "Adapter/AudioFrameConverter.h"
#include "Adapter/BitmapSubtitleTrack.h"
#include "Adapter/MediaSource.h"
#include "Adapter/PictureFilters.h"
#include "Adapter/StillPicture.h"
#include "Adapter/VideoFrameConverter.h"

#include "KvAVGlue/KvAVGlue.h"
#include "PictureSubtitleWriter.h"
#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>

#include <optional>

#include <gtest/gtest.h>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
}

using namespace Korvane;

namespace {

// Video 160x120 25 fps with a keyframe every 5 frames, stereo and mono
// sound streams, 2 s.
QString twoSoundClip()
{
    return TestMedia::generate(
        QStringLiteral("adapter/two-sounds.mkv"),
        {"-f",      "lavfi", "-i",       "testsrc2=size=160x120:rate=25:duration=2",
         "-f",      "lavfi", "-i",       "sine=frequency=440:sample_rate=48000:duration=2",
         "-f",      "lavfi", "-i",       "sine=frequency=880:sample_rate=22050:duration=2",
         "-map",    "0",     "-map",     "1",
         "-map",    "2",     "-ac:a:0",  "2",
         "-ac:a:1", "1",     "-c:v",     "libx264",
         "-g",      "5",     "-pix_fmt", "yuv420p",
         "-c:a",    "aac"});
}

QString musicWithCover()
{
    const QString cover =
        TestMedia::generate(QStringLiteral("adapter/cover.jpg"),
                            {"-f", "lavfi", "-i", "color=c=green:size=32x32", "-frames:v", "1"});
    return TestMedia::generate(QStringLiteral("adapter/music.mp3"),
                               {"-f", "lavfi", "-i", "sine=duration=1", "-i", cover, "-map", "0",
                                "-map", "1", "-c:a", "libmp3lame", "-c:v", "copy", "-disposition:v",
                                "attached_pic"});
}

} // namespace

TEST(MediaSource, ReportsTheChosenStreams)
{
    const QString path = twoSoundClip();
    ASSERT_FALSE(path.isEmpty());
    struct Row
    {
        int choice;
        int expectedIndex;
        int expectedRate;
    };
    // By stream index, by number among the sound streams, or the best one.
    const QList<Row> rows = {{2, 2, 22050}, {1, 1, 48000}, {0, 1, 48000}, {-1, 1, 48000}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.choice);
        QString error;
        auto source = MediaSource::open(path, true, true, row.choice, &error);
        ASSERT_NE(source, nullptr) << error.toStdString();
        EXPECT_TRUE(source->hasVideo());
        EXPECT_EQ(source->video().width, 160);
        EXPECT_EQ(source->video().height, 120);
        EXPECT_EQ(source->video().rotation, 0);
        EXPECT_FALSE(source->video().interlaced);
        EXPECT_EQ(source->audio().streamIndex, row.expectedIndex);
        EXPECT_EQ(source->audio().sampleRate, row.expectedRate);
    }
    // Choice 1 among the sound streams when stream 1 is no sound: the second sound.
    QString error;
    auto second = MediaSource::open(path, false, true, 3, &error);
    ASSERT_NE(second, nullptr);
    EXPECT_FALSE(second->hasVideo());
    EXPECT_EQ(second->audio().streamIndex, 1); // 3 is no stream: best sound
}

TEST(MediaSource, DecodesEveryFrameAndSeeks)
{
    QString error;
    auto source = MediaSource::open(twoSoundClip(), true, true, -1, &error);
    ASSERT_NE(source, nullptr);
    int videoFrames = 0;
    double lastAudio = 0.0;
    DecodedFrame frame;
    while (source->next(&frame, &error)) {
        if (frame.isVideo) {
            ++videoFrames;
        } else {
            lastAudio = frame.seconds;
        }
    }
    EXPECT_TRUE(error.isEmpty()) << error.toStdString();
    EXPECT_EQ(videoFrames, 50);
    EXPECT_GT(lastAudio, 1.9);

    ASSERT_TRUE(source->seek(1000, &error));
    double firstVideo = -1.0;
    while (firstVideo < 0 && source->next(&frame, &error)) {
        if (frame.isVideo) {
            firstVideo = frame.seconds;
        }
    }
    // Back to the keyframe at or before 1 s (one every 0.2 s).
    EXPECT_LE(firstVideo, 1.0);
    EXPECT_GE(firstVideo, 0.79);
}

TEST(MediaSource, FailuresNameTheFile)
{
    QString error;
    EXPECT_EQ(MediaSource::open("/nonexistent/x.mp4", true, true, -1, &error), nullptr);
    EXPECT_TRUE(error.contains("/nonexistent/x.mp4"));
}

TEST(MediaSource, AttachedPictureOfAMusicFile)
{
    QString error;
    auto source = MediaSource::open(musicWithCover(), true, true, -1, &error);
    ASSERT_NE(source, nullptr) << error.toStdString();
    EXPECT_FALSE(source->hasVideo()); // the cover is not a video stream to play
    EXPECT_TRUE(source->hasAudio());
    const auto cover = source->attachedPicture(&error);
    ASSERT_FALSE(cover.isNull()) << error.toStdString();
    EXPECT_EQ(cover->width, 32);
    EXPECT_EQ(source->durationMs() / 100, 10);
}

TEST(VideoFrameConverter, ConvertsOnlyWhatDiffers)
{
    auto frame = makeAVFramePtr();
    frame->width = 160;
    frame->height = 120;
    frame->format = AV_PIX_FMT_YUV420P;
    ASSERT_GE(av_frame_get_buffer(frame.data(), 0), 0);
    frame->pts = 42;
    QString error;
    VideoFrameConverter same(160, 120, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(same.convert(frame, &error).data(), frame.data());
    VideoFrameConverter other(80, 60, AV_PIX_FMT_RGBA);
    const auto converted = other.convert(frame, &error);
    ASSERT_FALSE(converted.isNull()) << error.toStdString();
    EXPECT_EQ(converted->width, 80);
    EXPECT_EQ(converted->height, 60);
    EXPECT_EQ(converted->format, AV_PIX_FMT_RGBA);
    EXPECT_EQ(converted->pts, 42);
}

namespace {

QSharedPointer<AVFrame> stereoFrame(int64_t pts, int samples = 1024)
{
    auto frame = makeAVFramePtr();
    frame->sample_rate = 48000;
    frame->format = AV_SAMPLE_FMT_FLTP;
    av_channel_layout_default(&frame->ch_layout, 2);
    frame->nb_samples = samples;
    if (av_frame_get_buffer(frame.data(), 0) < 0) {
        return {};
    }
    frame->pts = pts;
    return frame;
}

} // namespace

TEST(AudioFrameConverter, ResamplesToTheOutputForm)
{
    AVChannelLayout mono{};
    av_channel_layout_default(&mono, 1);
    AudioFrameConverter converter(24000, AV_SAMPLE_FMT_S16, mono, {1, 48000}, 0.0);
    av_channel_layout_uninit(&mono);
    QString error;
    int samples = 0;
    for (int i = 0; i < 5; ++i) {
        const auto converted = converter.convert(stereoFrame(i * 960, 960), &error);
        ASSERT_FALSE(converted.isNull()) << error.toStdString();
        EXPECT_EQ(converted->format, AV_SAMPLE_FMT_S16);
        EXPECT_EQ(converted->ch_layout.nb_channels, 1);
        EXPECT_EQ(converted->pts, samples);
        samples += converted->nb_samples;
    }
    samples += converter.flush(&error)->nb_samples;
    EXPECT_NEAR(samples, 2400, 2);
}

// Timestamps in, samples out, at one rate: the output clock counts samples
// and follows the input's times only past the drift limit (960 samples).
struct ClockCase
{
    const char* name;
    double startSeconds;
    QList<int64_t> inputPts; // 1024 samples each; AV_NOPTS_VALUE: none
    int64_t firstPts;
    int64_t totalSamples;
};

class SampleClock : public ::testing::TestWithParam<ClockCase>
{};

TEST_P(SampleClock, CountsSamplesFillsGapsAndDropsOverlaps)
{
    const ClockCase& c = GetParam();
    AVChannelLayout stereo{};
    av_channel_layout_default(&stereo, 2);
    AudioFrameConverter converter(48000, AV_SAMPLE_FMT_S16, stereo, {1, 48000}, c.startSeconds);
    QString error;
    std::optional<int64_t> first;
    int64_t next = 0;
    for (const int64_t pts : c.inputPts) {
        const auto out = converter.convert(stereoFrame(pts), &error);
        ASSERT_FALSE(out.isNull()) << error.toStdString();
        if (!first) {
            first = next = out->pts;
        }
        EXPECT_EQ(out->pts, next); // never backwards, never a hole
        next = out->pts + out->nb_samples;
    }
    EXPECT_EQ(*first, c.firstPts);
    EXPECT_EQ(next - c.firstPts, c.totalSamples);
    EXPECT_EQ(converter.nextPts(), next);
}

constexpr int64_t kNoPts = AV_NOPTS_VALUE;

INSTANTIATE_TEST_SUITE_P(
    Adapter, SampleClock,
    ::testing::Values(ClockCase{"contiguous", 0.0, {0, 1024, 2048}, 0, 3072},
                      ClockCase{"small_jitter_kept", 0.0, {0, 1024 + 480, 2048}, 0, 3072},
                      ClockCase{"gap_filled", 0.0, {0, 1024 + 4800, 2048 + 4800}, 0, 3072 + 4800},
                      ClockCase{"repeated_time_dropped", 0.0, {0, 0, 1024}, 0, 2048},
                      ClockCase{"missing_times_continue", 0.0, {0, kNoPts, kNoPts}, 0, 3072},
                      ClockCase{"late_start_is_silence", 0.0, {2400, 3424}, 0, 2048 + 2400},
                      ClockCase{
                          "before_start_dropped", 0.05, {0, 1024, 2048, 3072}, 2400, 4096 - 2400}),
    [](const ::testing::TestParamInfo<ClockCase>& info) { return std::string(info.param.name); });

TEST(StillPicture, LoadsPicturesAndNamesMissingOnes)
{
    const QString png =
        TestMedia::generate(QStringLiteral("adapter/mark.png"),
                            {"-f", "lavfi", "-i", "color=c=red:size=40x30", "-frames:v", "1"});
    QString error;
    const auto frame = loadStillPicture(png, &error);
    ASSERT_FALSE(frame.isNull()) << error.toStdString();
    EXPECT_EQ(frame->width, 40);
    EXPECT_EQ(frame->height, 30);
    EXPECT_TRUE(loadStillPicture("/nonexistent/mark.png", &error).isNull());
    EXPECT_TRUE(error.contains("/nonexistent/mark.png"));

    const EncodedPicture encoded = readEncodedPicture(png, &error);
    EXPECT_EQ(encoded.codec, AV_CODEC_ID_PNG);
    EXPECT_EQ(encoded.width, 40);
    EXPECT_FALSE(encoded.data.isEmpty());
    EXPECT_EQ(readEncodedPicture("/nonexistent/c.jpg", &error).codec, AV_CODEC_ID_NONE);
}

TEST(EscapeFilterGraphValue, SurvivesBothParsers)
{
    const QList<QString> values = {"plain", "/tmp/a b.srt", "C:\\subs\\x.ass",
                                   "it's",  "a,b;c[d]e:f",  "back\\slash'quote"};
    for (const QString& value : values) {
        SCOPED_TRACE(value.toStdString());
        // "metadata" keeps its string option as given, so it shows what the
        // graph parser and the option parser made of the escaped text.
        auto graph = makeAVFilterGraphPtr();
        const QString text =
            QStringLiteral("metadata=mode=add:key=k:value=%1").arg(escapeFilterGraphValue(value));
        AVFilterInOut* in = nullptr;
        AVFilterInOut* out = nullptr;
        ASSERT_GE(avfilter_graph_parse2(graph.data(), text.toUtf8().constData(), &in, &out), 0);
        auto inOwner = makeAVFilterInOutPtr(in);
        auto outOwner = makeAVFilterInOutPtr(out);
        ASSERT_EQ(graph->nb_filters, 1u);
        uint8_t* stored = nullptr;
        ASSERT_GE(av_opt_get(graph->filters[0]->priv, "value", 0, &stored), 0);
        EXPECT_EQ(QString::fromUtf8(reinterpret_cast<char*>(stored)), value);
        av_free(stored);
    }
}

TEST(PictureFilterTexts, SubtitlesWithOffsetAndSubtitleStreams)
{
    EXPECT_EQ(subtitleFilterText("/s.srt", 0, 0), "subtitles=filename=/s.srt:si=0");
    EXPECT_EQ(subtitleFilterText("/s.srt", 1, 1500),
              "setpts=PTS-1.5/TB,subtitles=filename=/s.srt:si=1,setpts=PTS+1.5/TB");
    EXPECT_EQ(deinterlaceFilterText(), "yadif=mode=send_frame:deint=interlaced");
    EXPECT_EQ(subtitleFilterText("/s.srt", 0, 0, 2.0),
              "setpts=PTS*2-0/TB,subtitles=filename=/s.srt:si=0,setpts=(PTS+0/TB)/2");
    EXPECT_EQ(subtitleFilterText("/s.srt", 0, 250, 0.5),
              "setpts=PTS*0.5-0.25/TB,subtitles=filename=/s.srt:si=0,setpts=(PTS+0.25/TB)/0.5");
}

TEST(ProbeSubtitleStream, FindsTextStreamsByIndex)
{
    const QString srt = TestMedia::dir() + QStringLiteral("/adapter/cue.srt");
    QDir().mkpath(QFileInfo(srt).absolutePath());
    QFile file(srt);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("1\n00:00:00,000 --> 00:00:00,500\nhello\n\n");
    file.close();
    const QString mkv =
        TestMedia::generate(QStringLiteral("adapter/subs.mkv"),
                            {"-f", "lavfi", "-i", "testsrc2=size=64x48:rate=5:duration=1", "-i",
                             srt, "-c:v", "libx264", "-c:s", "srt"});
    ASSERT_FALSE(mkv.isEmpty());
    const SubtitleStreamInfo text = probeSubtitleStream(mkv, 1);
    EXPECT_TRUE(text.found);
    EXPECT_EQ(text.ordinal, 0);
    EXPECT_FALSE(text.isBitmap);
    EXPECT_FALSE(probeSubtitleStream(mkv, 0).found); // the video
    EXPECT_FALSE(probeSubtitleStream(mkv, 5).found);
    EXPECT_TRUE(probeSubtitleStream(srt, 0).found);
    EXPECT_FALSE(probeSubtitleStream("/nonexistent/x.srt", 0).found);
}

TEST(ProbeSubtitleStream, RecognisesPictureSubtitles)
{
    const QString shared = TestMedia::sharedMediaDir();
    if (shared.isEmpty()) {
        GTEST_SKIP() << "shared media folder absent";
    }
    const SubtitleStreamInfo info =
        probeSubtitleStream(shared + QStringLiteral("/h264-ac3-vobsub-subtitle.mkv"), 2);
    EXPECT_TRUE(info.found);
    EXPECT_TRUE(info.isBitmap);
}

TEST(CueChanges, ShowClearAndReplace)
{
    using Cue = SubtitleCueTimes;
    using C = SubtitleChangeTime;
    struct Row
    {
        const char* name;
        Cue current;
        std::optional<Cue> next;
        QList<C> expected;
    };
    const QList<Row> rows = {
        {"ends before the next", {100, 500}, Cue{900, 1200}, {{100, true}, {500, false}}},
        {"the next takes over at its end", {100, 900}, Cue{900, 1200}, {{100, true}}},
        {"the next cuts it short", {100, 2000}, Cue{900, 1200}, {{100, true}}},
        {"open end lasts until the next", {100, -1}, Cue{900, 1200}, {{100, true}}},
        {"an empty cue clears", {100, -1, true}, Cue{900, 1200}, {{100, false}}},
        {"replaced at the same moment", {100, 500}, Cue{100, 800}, {}},
        {"last cue with an end", {100, 500}, std::nullopt, {{100, true}, {500, false}}},
        {"last cue without an end", {100, -1}, std::nullopt, {{100, true}}},
        {"an end before the start is no end", {100, 50}, std::nullopt, {{100, true}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(cueChanges(row.current, row.next ? &*row.next : nullptr), row.expected);
    }
}

TEST(BitmapSubtitleTrack, ReadsCuesAsPicturesOnTheTimeline)
{
    const QString path = TestMedia::dir() + QStringLiteral("/adapter/boxes.mkv");
    QDir().mkpath(QFileInfo(path).absolutePath());
    QString error;
    const QList<SubtitleTest::BoxCue> cues = {{800, 1600, QRect(20, 80, 120, 24)},
                                              {2000, 2400, QRect(0, 0, 40, 20)},
                                              {3000, 3400, QRect(20, 80, 120, 24)}};
    ASSERT_TRUE(SubtitleTest::writePictureSubtitles(path, QSize(160, 120), cues, &error))
        << error.toStdString();
    const QString dvb = TestMedia::dir() + QStringLiteral("/adapter/boxes-dvb.mkv");
    ASSERT_TRUE(SubtitleTest::writePictureSubtitles(dvb, QSize(160, 120), cues, &error, "dvbsub"))
        << error.toStdString();

    struct Row
    {
        QString path;
        QSize plane; // DVB streams state no plane: the video's is taken
        qint64 offsetMs;
        double speed;
        QList<qint64> times;
    };
    const QList<Row> rows = {
        {path, QSize(160, 120), 0, 1.0, {800, 1600, 2000, 2400, 3000, 3400}},
        {path, QSize(160, 120), 200, 2.0, {500, 900, 1100, 1300, 1600, 1800}},
        // Before the timeline's start counts as its start.
        {path, QSize(160, 120), -1000, 1.0, {0, 600, 1000, 1400, 2000, 2400}},
        {dvb, QSize(640, 480), 0, 1.0, {800, 1600, 2000, 2400, 3000, 3400}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(QStringLiteral("%1 %2").arg(row.path).arg(row.offsetMs).toStdString());
        auto track = BitmapSubtitleTrack::open(row.path, 0, QSize(640, 480), row.offsetMs,
                                               row.speed, &error);
        ASSERT_TRUE(track) << error.toStdString();
        EXPECT_EQ(track->planeSize(), row.plane);
        QList<qint64> times;
        QList<bool> shows;
        QList<QSharedPointer<AVFrame>> pictures;
        SubtitleChange change;
        while (track->next(&change, &error)) {
            times.append(change.ms);
            shows.append(change.showsCue);
            pictures.append(change.picture);
        }
        EXPECT_TRUE(error.isEmpty()) << error.toStdString();
        ASSERT_EQ(times.size(), row.times.size());
        for (int i = 0; i < times.size(); ++i) {
            // DVD subtitles count their end in steps of 1024/90000 s.
            EXPECT_NEAR(times[i], row.times[i], 12) << i;
        }
        EXPECT_EQ(shows, QList<bool>({true, false, true, false, true, false}));
        ASSERT_EQ(pictures.size(), 6);
        const AVFrame* first = pictures[0].data();
        ASSERT_EQ(first->format, AV_PIX_FMT_RGBA);
        EXPECT_EQ(QSize(first->width, first->height), row.plane);
        auto pixel = [](const AVFrame* f, int x, int y) {
            return f->data[0] + y * f->linesize[0] + x * 4;
        };
        // Inside the box: opaque and light; outside: transparent.
        EXPECT_EQ(pixel(first, 80, 90)[3], 255);
        EXPECT_GT(pixel(first, 80, 90)[0], 200);
        EXPECT_EQ(pixel(first, 80, 40)[3], 0);
        EXPECT_EQ(pixel(first, 10, 10)[3], 0);
        EXPECT_EQ(pixel(pictures[1].data(), 80, 90)[3], 0);
        EXPECT_EQ(pixel(pictures[2].data(), 10, 10)[3], 255);
    }

    // A header claiming a giant plane: the video's size is taken instead.
    const QString giant = TestMedia::dir() + QStringLiteral("/adapter/boxes-giant.mkv");
    ASSERT_TRUE(SubtitleTest::writePictureSubtitles(giant, QSize(9000, 9000), cues, &error))
        << error.toStdString();
    auto track = BitmapSubtitleTrack::open(giant, 0, QSize(160, 120), 0, 1.0, &error);
    ASSERT_TRUE(track) << error.toStdString();
    EXPECT_EQ(track->planeSize(), QSize(160, 120));

    EXPECT_FALSE(BitmapSubtitleTrack::open(path, 3, QSize(), 0, 1.0, &error));
    EXPECT_TRUE(error.contains("subtitle stream 3")) << error.toStdString();
    EXPECT_FALSE(BitmapSubtitleTrack::open("/nonexistent/subs.mkv", 0, QSize(), 0, 1.0, &error));
    EXPECT_TRUE(error.contains("/nonexistent/subs.mkv")) << error.toStdString();
}
