// Media sources, frame conversion, still pictures, subtitles and the picture
// filter texts, on generated media.
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

#include <optional>

#include <gtest/gtest.h>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
}

using namespace Korvane;

namespace {

// Video 160x120 25 fps with a keyframe every 5 frames, a stereo 48 kHz and
// a mono 22.05 kHz sound stream, 2 s.
QString twoSoundClip()
{
    return TestMedia::generate(
        "adapter/two-sounds.mkv",
        QString("-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -f lavfi -i "
                "sine=frequency=440:sample_rate=48000:duration=2 -f lavfi -i "
                "sine=frequency=880:sample_rate=22050:duration=2 -map 0 -map 1 -map 2 -ac:a:0 2 "
                "-ac:a:1 1 -c:v libx264 -g 5 -pix_fmt yuv420p -c:a aac")
            .split(' '));
}

QString picture(const QString& name, const QString& colourAndSize)
{
    return TestMedia::generate("adapter/" + name,
                               {"-f", "lavfi", "-i", "color=c=" + colourAndSize, "-frames:v", "1"});
}

QSharedPointer<AVFrame> stereoFrame(int64_t pts, int samples = 1024)
{
    auto frame = makeAVFramePtr();
    frame->sample_rate = 48000;
    frame->format = AV_SAMPLE_FMT_FLTP;
    av_channel_layout_default(&frame->ch_layout, 2);
    frame->nb_samples = samples;
    frame->pts = pts;
    return av_frame_get_buffer(frame.data(), 0) < 0 ? nullptr : frame;
}

} // namespace

TEST(MediaSource, ChoosesStreamsDecodesEveryFrameAndSeeks)
{
    const QString path = twoSoundClip();
    // By stream index, by number among the sound streams, or the best one
    // (also for a number that names no stream).
    const QList<QPair<int, int>> choices = {
        {2, 22050}, {1, 48000}, {0, 48000}, {-1, 48000}, {3, 48000}};
    QString error;
    for (const auto& [choice, rate] : choices) {
        auto source = MediaSource::open(path, choice >= 0, true, choice, &error);
        ASSERT_NE(source, nullptr) << error.toStdString();
        EXPECT_EQ(source->hasVideo(), choice >= 0);
        EXPECT_EQ(source->audio().sampleRate, rate) << choice;
    }
    auto source = MediaSource::open(path, true, true, -1, &error);
    EXPECT_EQ(QSize(source->video().width, source->video().height), QSize(160, 120));
    EXPECT_FALSE(source->video().interlaced);
    int videoFrames = 0;
    double lastAudio = 0.0;
    DecodedFrame frame;
    while (source->next(&frame, &error)) {
        videoFrames += frame.isVideo;
        lastAudio = frame.isVideo ? lastAudio : frame.seconds;
    }
    EXPECT_TRUE(error.isEmpty()) << error.toStdString();
    EXPECT_EQ(videoFrames, 50);
    EXPECT_GT(lastAudio, 1.9);
    // Back to the keyframe at or before 1 s (one every 0.2 s).
    ASSERT_TRUE(source->seek(1000, &error));
    while (source->next(&frame, &error) && !frame.isVideo) {
    }
    EXPECT_TRUE(frame.isVideo && frame.seconds <= 1.0 && frame.seconds >= 0.79) << frame.seconds;

    EXPECT_EQ(MediaSource::open("/nonexistent/x.mp4", true, true, -1, &error), nullptr);
    EXPECT_TRUE(error.contains("/nonexistent/x.mp4"));
}

TEST(MediaSource, PicturesOfMusicFilesAndStillPictures)
{
    const QString cover = picture("cover.jpg", "green:size=32x32");
    const QString music = TestMedia::generate("adapter/music.mp3",
                                              {"-f", "lavfi", "-i", "sine=duration=1", "-i", cover,
                                               "-map", "0", "-map", "1", "-c:a", "libmp3lame",
                                               "-c:v", "copy", "-disposition:v", "attached_pic"});
    QString error;
    auto source = MediaSource::open(music, true, true, -1, &error);
    ASSERT_NE(source, nullptr) << error.toStdString();
    EXPECT_FALSE(source->hasVideo()); // the cover is not a video stream to play
    EXPECT_TRUE(source->hasAudio());
    const auto attached = source->attachedPicture(&error);
    ASSERT_FALSE(attached.isNull()) << error.toStdString();
    EXPECT_EQ(attached->width, 32);
    EXPECT_EQ(source->durationMs() / 100, 10);

    const QString png = picture("mark.png", "red:size=40x30");
    const auto frame = loadStillPicture(png, &error);
    ASSERT_FALSE(frame.isNull()) << error.toStdString();
    EXPECT_EQ(QSize(frame->width, frame->height), QSize(40, 30));
    EXPECT_TRUE(loadStillPicture("/nonexistent/mark.png", &error).isNull());
    EXPECT_TRUE(error.contains("/nonexistent/mark.png"));
    const EncodedPicture encoded = readEncodedPicture(png, &error);
    EXPECT_EQ(encoded.codec, AV_CODEC_ID_PNG);
    EXPECT_FALSE(encoded.data.isEmpty());
    EXPECT_EQ(readEncodedPicture("/nonexistent/c.jpg", &error).codec, AV_CODEC_ID_NONE);
}

TEST(FrameConverters, VideoConvertsOnlyWhatDiffersAndAudioResamples)
{
    auto frame = makeAVFramePtr();
    frame->width = 160;
    frame->height = 120;
    frame->format = AV_PIX_FMT_YUV420P;
    ASSERT_GE(av_frame_get_buffer(frame.data(), 0), 0);
    frame->pts = 42;
    QString error;
    EXPECT_EQ(VideoFrameConverter(160, 120, AV_PIX_FMT_YUV420P).convert(frame, &error), frame);
    const auto converted = VideoFrameConverter(80, 60, AV_PIX_FMT_RGBA).convert(frame, &error);
    ASSERT_FALSE(converted.isNull()) << error.toStdString();
    EXPECT_EQ(QSize(converted->width, converted->height), QSize(80, 60));
    EXPECT_EQ(converted->format, AV_PIX_FMT_RGBA);
    EXPECT_EQ(converted->pts, 42);

    AVChannelLayout mono{};
    av_channel_layout_default(&mono, 1);
    AudioFrameConverter converter(24000, AV_SAMPLE_FMT_S16, mono, {1, 48000}, 0.0);
    int samples = 0;
    for (int i = 0; i < 5; ++i) {
        const auto out = converter.convert(stereoFrame(i * 960, 960), &error);
        ASSERT_FALSE(out.isNull()) << error.toStdString();
        EXPECT_EQ(out->format, AV_SAMPLE_FMT_S16);
        EXPECT_EQ(out->ch_layout.nb_channels, 1);
        EXPECT_EQ(out->pts, samples);
        samples += out->nb_samples;
    }
    samples += converter.flush(&error)->nb_samples;
    EXPECT_NEAR(samples, 2400, 2);
}

// Timestamps in, samples out, at one rate: the output clock counts samples
// and follows the input's times only past the drift limit (960 samples).
TEST(FrameConverters, SampleClockCountsSamplesFillsGapsAndDropsOverlaps)
{
    constexpr int64_t kNoPts = AV_NOPTS_VALUE;
    struct Row
    {
        const char* name;
        double startSeconds;
        QList<int64_t> inputPts; // 1024 samples each
        int64_t firstPts;
        int64_t totalSamples;
    };
    const Row rows[] = {
        {"contiguous", 0.0, {0, 1024, 2048}, 0, 3072},
        {"small_jitter_kept", 0.0, {0, 1024 + 480, 2048}, 0, 3072},
        {"gap_filled", 0.0, {0, 1024 + 4800, 2048 + 4800}, 0, 3072 + 4800},
        {"repeated_time_dropped", 0.0, {0, 0, 1024}, 0, 2048},
        {"missing_times_continue", 0.0, {0, kNoPts, kNoPts}, 0, 3072},
        {"late_start_is_silence", 0.0, {2400, 3424}, 0, 2048 + 2400},
        {"before_start_dropped", 0.05, {0, 1024, 2048, 3072}, 2400, 4096 - 2400},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        AVChannelLayout stereo{};
        av_channel_layout_default(&stereo, 2);
        AudioFrameConverter converter(48000, AV_SAMPLE_FMT_S16, stereo, {1, 48000},
                                      row.startSeconds);
        QString error;
        std::optional<int64_t> first;
        int64_t next = 0;
        for (const int64_t pts : row.inputPts) {
            const auto out = converter.convert(stereoFrame(pts), &error);
            ASSERT_FALSE(out.isNull()) << error.toStdString();
            if (!first) {
                first = next = out->pts;
            }
            EXPECT_EQ(out->pts, next); // never backwards, never a hole
            next = out->pts + out->nb_samples;
        }
        EXPECT_EQ(*first, row.firstPts);
        EXPECT_EQ(next - row.firstPts, row.totalSamples);
        EXPECT_EQ(converter.nextPts(), next);
    }
}

TEST(PictureFilters, EscapedValuesSurviveBothParsersAndTextsFollowTheClip)
{
    for (const QString& value :
         {"plain", "/tmp/a b.srt", "C:\\subs\\x.ass", "it's", "a,b;c[d]e:f", "back\\slash'quote"}) {
        SCOPED_TRACE(value.toStdString());
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
    }
    EXPECT_EQ(subtitleFilterText("/s.srt", 0, 0), "subtitles=filename=/s.srt:si=0");
    EXPECT_EQ(subtitleFilterText("/s.srt", 1, 1500),
              "setpts=PTS-1.5/TB,subtitles=filename=/s.srt:si=1,setpts=PTS+1.5/TB");
    EXPECT_EQ(subtitleFilterText("/s.srt", 0, 250, 0.5),
              "setpts=PTS*0.5-0.25/TB,subtitles=filename=/s.srt:si=0,setpts=(PTS+0.25/TB)/0.5");
    EXPECT_EQ(deinterlaceFilterText(), "yadif=mode=send_frame:deint=interlaced");
}

TEST(ProbeSubtitleStream, FindsTextAndPictureStreamsByIndex)
{
    const QString srt = TestMedia::dir() + "/adapter/cue.srt";
    QDir().mkpath(TestMedia::dir() + "/adapter");
    QFile file(srt);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("1\n00:00:00,000 --> 00:00:00,500\nhello\n\n");
    file.close();
    // Video, a picture subtitle stream, then a text one.
    const QString boxes = TestMedia::dir() + "/adapter/one-box.mkv";
    QString error;
    ASSERT_TRUE(SubtitleTest::writePictureSubtitles(boxes, QSize(64, 48), {{0, 500, {0, 0, 8, 8}}},
                                                    &error));
    const QString mkv = TestMedia::generate(
        "adapter/subs.mkv", {"-f",     "lavfi", "-i",     "testsrc2=size=64x48:rate=5:duration=1",
                             "-i",     boxes,   "-i",     srt,
                             "-map",   "0",     "-map",   "1",
                             "-map",   "2",     "-c:v",   "libx264",
                             "-c:s:0", "copy",  "-c:s:1", "srt"});
    ASSERT_FALSE(mkv.isEmpty());
    struct Row
    {
        QString path;
        int index;
        bool found, bitmap;
        int ordinal;
    };
    for (const Row& row :
         {Row{mkv, 2, true, false, 1}, Row{mkv, 1, true, true, 0}, Row{mkv, 0, false, false, 0},
          Row{mkv, 5, false, false, 0}, Row{mkv, -1, false, false, 0}, Row{srt, 0, true, false, 0},
          Row{"/nonexistent/x.srt", 0, false, false, 0}}) {
        const SubtitleStreamInfo info = probeSubtitleStream(row.path, row.index);
        EXPECT_EQ(info.found, row.found) << row.index;
        EXPECT_TRUE(!row.found || (info.isBitmap == row.bitmap && info.ordinal == row.ordinal))
            << row.index;
    }
}

TEST(BitmapSubtitleTrack, CueChangesShowClearAndReplace)
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
        {"an end before the start is no end", {100, 50}, std::nullopt, {{100, true}}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(cueChanges(row.current, row.next ? &*row.next : nullptr), row.expected)
            << row.name;
    }
}

TEST(BitmapSubtitleTrack, ReadsCuesAsPicturesOnTheTimeline)
{
    const QList<SubtitleTest::BoxCue> cues = {{800, 1600, QRect(20, 80, 120, 24)},
                                              {2000, 2400, QRect(0, 0, 40, 20)},
                                              {3000, 3400, QRect(20, 80, 120, 24)}};
    QString error;
    auto write = [&](const QString& name, const QSize& plane, const char* codec) {
        const QString path = TestMedia::dir() + "/adapter/" + name;
        EXPECT_TRUE(SubtitleTest::writePictureSubtitles(path, plane, cues, &error, codec))
            << error.toStdString();
        return path;
    };
    const QString dvd = write("boxes.mkv", QSize(160, 120), "dvdsub");
    struct Row
    {
        QString path;
        QSize plane; // DVB streams and giant planes: the video's is taken
        qint64 offsetMs;
        double speed;
        QList<qint64> times;
    };
    const QList<Row> rows = {
        {dvd, QSize(160, 120), 0, 1.0, {800, 1600, 2000, 2400, 3000, 3400}},
        {dvd, QSize(160, 120), 200, 2.0, {500, 900, 1100, 1300, 1600, 1800}},
        // Before the timeline's start counts as its start.
        {dvd, QSize(160, 120), -1000, 1.0, {0, 600, 1000, 1400, 2000, 2400}},
        {write("boxes-dvb.mkv", QSize(160, 120), "dvbsub"),
         QSize(640, 480),
         0,
         1.0,
         {800, 1600, 2000, 2400, 3000, 3400}},
        {write("boxes-giant.mkv", QSize(9000, 9000), "dvdsub"),
         QSize(640, 480),
         0,
         1.0,
         {800, 1600, 2000, 2400, 3000, 3400}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(QString("%1 %2").arg(row.path).arg(row.offsetMs).toStdString());
        auto track = BitmapSubtitleTrack::open(row.path, 0, QSize(640, 480), row.offsetMs,
                                               row.speed, &error);
        ASSERT_TRUE(track) << error.toStdString();
        EXPECT_EQ(track->planeSize(), row.plane);
        QList<bool> shows;
        QList<QSharedPointer<AVFrame>> pictures;
        SubtitleChange change;
        for (int i = 0; track->next(&change, &error); ++i) {
            // DVD subtitles count their end in steps of 1024/90000 s.
            EXPECT_NEAR(change.ms, row.times.value(i, -100), 12) << i;
            shows.append(change.showsCue);
            pictures.append(change.picture);
        }
        EXPECT_TRUE(error.isEmpty()) << error.toStdString();
        ASSERT_EQ(shows, QList<bool>({true, false, true, false, true, false}));
        const AVFrame* first = pictures[0].data();
        ASSERT_EQ(first->format, AV_PIX_FMT_RGBA);
        EXPECT_EQ(QSize(first->width, first->height), row.plane);
        auto alpha = [](const AVFrame* f, int x, int y) {
            return f->data[0][y * f->linesize[0] + x * 4 + 3];
        };
        // Inside the box opaque and light, outside transparent.
        if (row.plane == QSize(160, 120)) {
            EXPECT_EQ(alpha(first, 80, 90), 255);
            EXPECT_GT(first->data[0][90 * first->linesize[0] + 80 * 4], 200);
            EXPECT_EQ(alpha(first, 80, 40) + alpha(first, 10, 10), 0);
            EXPECT_EQ(alpha(pictures[1].data(), 80, 90), 0);
            EXPECT_EQ(alpha(pictures[2].data(), 10, 10), 255);
        }
    }
    EXPECT_FALSE(BitmapSubtitleTrack::open(dvd, 3, QSize(), 0, 1.0, &error));
    EXPECT_TRUE(error.contains("subtitle stream 3")) << error.toStdString();
    EXPECT_FALSE(BitmapSubtitleTrack::open("/nonexistent/subs.mkv", 0, QSize(), 0, 1.0, &error));
    EXPECT_TRUE(error.contains("/nonexistent/subs.mkv")) << error.toStdString();
}
