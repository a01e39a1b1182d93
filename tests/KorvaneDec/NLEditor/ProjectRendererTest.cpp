// Renders small generated clips through the engine and measures the results
// with ffprobe and the ffmpeg program.
#include "LogCapture.h"
#include "PictureSubtitleWriter.h"
#include "RenderTestSupport.h"
#include "TestMedia.h"

#include "NLEditor/ProjectDocument.h"
#include "NLEditor/ProjectRenderer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <atomic>

using namespace Korvane;
using namespace RenderTest;

namespace {

Korvane::AVTaskOutputParam h264Output(const QString& path, int w = 0, int h = 0)
{
    Korvane::AVTaskOutputParam out;
    out.outputPath = path;
    out.format = QStringLiteral("mp4");
    out.video.codecName = QStringLiteral("h264");
    out.video.width = w;
    out.video.height = h;
    out.audio.codecName = QStringLiteral("aac");
    return out;
}

RenderOutcome render(const QJsonObject& doc, const Korvane::AVTaskOutputParam& out,
                     const std::atomic<bool>* stop = nullptr, QList<double>* progress = nullptr)
{
    ProjectDocument document;
    QString error;
    if (!parseProjectDocument(QString::fromUtf8(QJsonDocument(doc).toJson()), &document, &error)) {
        return {RenderStatus::Failed, error};
    }
    ProjectRenderer renderer(document, out);
    renderer.setStopFlag(stop);
    if (progress) {
        renderer.setProgressHandler([progress](double v) { progress->append(v); });
    }
    return renderer.run();
}

// Renders the 2 s sound-free test clip on a 160x120 canvas at `speed`,
// drawing subtitle stream 0 of `subtitleFile`, or no subtitles when it is
// empty; returns the output path.
QString renderSubtitled(const QString& subtitleFile, double speed, const QString& name)
{
    QJsonObject clip = mainClip(clipWithoutSound(), 0, 2000, 0, speed, "video_only");
    clip.insert("transform", transform(160, 120));
    QJsonArray subtitles;
    if (!subtitleFile.isEmpty()) {
        subtitles.append(QJsonObject{{"id", "subtitle_0"},
                                     {"embedded_subtitle_stream_index", 0},
                                     {"attached_file_path", subtitleFile},
                                     {"attached_offset", 0},
                                     {"title", name},
                                     {"display", true}});
    }
    clip.insert("subtitles", subtitles);
    const QString output = outputPath(QStringLiteral("%1-%2.mp4").arg(name).arg(speed));
    const RenderOutcome outcome = render(document(160, 120, 25, {clip}), h264Output(output));
    EXPECT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    return output;
}

} // namespace

TEST(ProjectRenderer, WholeClipKeepsDurationSizeAndStreams)
{
    const QString source = clipWithSound();
    ASSERT_FALSE(source.isEmpty());
    QJsonObject clip = mainClip(source, 0, 2000, 0);
    clip.insert("transform", transform(160, 120));
    const QString output = outputPath("whole.mp4");
    QList<double> progress;
    const RenderOutcome outcome =
        render(document(160, 120, 25, {clip}), h264Output(output), nullptr, &progress);
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_EQ(p.videoStreams, 1);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_EQ(p.width, 160);
    EXPECT_EQ(p.height, 120);
    EXPECT_EQ(p.videoCodec, "h264");
    EXPECT_EQ(p.audioCodec, "aac");
    EXPECT_EQ(p.videoFrames, 50); // the last picture too
    EXPECT_NEAR(p.audioDuration, 2.0, 0.03);
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_GT(progress.last(), 0.9);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    // The picture is the source's own: nothing was moved or tinted.
    EXPECT_GT(ssim(output, source), 0.95);
}

struct CutCase
{
    const char* name;
    QList<QPair<qint64, qint64>> cuts; // begin, length
    double speed;
    double expectedSeconds;
};

class CutsAndSpeed : public ::testing::TestWithParam<CutCase>
{};

TEST_P(CutsAndSpeed, TimelineLengthIsTheCutsPlayedAtSpeed)
{
    const CutCase& c = GetParam();
    const QString source = clipWithSound();
    QJsonArray clips;
    double pos = 0.0;
    for (const auto& cut : c.cuts) {
        QJsonObject clip = mainClip(source, cut.first, cut.second, pos, c.speed);
        clip.insert("transform", transform(160, 120));
        clips.append(clip);
        pos += cut.second / c.speed;
    }
    const QString output = outputPath(QStringLiteral("%1.mp4").arg(c.name));
    const RenderOutcome outcome = render(document(160, 120, 25, clips), h264Output(output));
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_NEAR(p.videoDuration, c.expectedSeconds, 0.1);
    EXPECT_NEAR(p.audioDuration, c.expectedSeconds, 0.1);
}

INSTANTIATE_TEST_SUITE_P(
    Render, CutsAndSpeed,
    ::testing::Values(CutCase{"one_cut", {{500, 1000}}, 1.0, 1.0},
                      CutCase{"two_cuts", {{0, 600}, {1200, 700}}, 1.0, 1.3},
                      CutCase{"double_speed", {{0, 1000}, {1000, 1000}}, 2.0, 1.0},
                      CutCase{"half_speed", {{200, 800}}, 0.5, 1.6}),
    [](const ::testing::TestParamInfo<CutCase>& info) { return std::string(info.param.name); });

struct GeometryCase
{
    const char* name;
    QString crop;
    int rotation;
    bool flipX;
    double scale;      // 0: none written
    QString reference; // the same edit as an ffmpeg filter chain
};

class Geometry : public ::testing::TestWithParam<GeometryCase>
{};

TEST_P(Geometry, MatchesTheSameEditMadeByFfmpeg)
{
    const GeometryCase& c = GetParam();
    const QString source = clipWithoutSound();
    QJsonObject t = transform(160, 120, c.crop, c.rotation, c.flipX, false);
    if (c.scale > 0) {
        t.insert("scale_x", c.scale);
        t.insert("scale_y", c.scale);
    }
    QJsonObject clip = mainClip(source, 0, 2000, 0, 1.0, "video_only");
    clip.insert("transform", t);
    const QString output = outputPath(QStringLiteral("%1.mp4").arg(c.name));
    ASSERT_EQ(render(document(160, 120, 25, {clip}), h264Output(output)).status,
              RenderStatus::Finished);
    const QString reference = outputPath(QStringLiteral("%1-ref.mp4").arg(c.name));
    ASSERT_TRUE(
        ffmpeg({"-i", source, "-vf", c.reference, "-c:v", "libx264", "-crf", "10", reference}));
    EXPECT_EQ(probe(output).width, 160);
    EXPECT_GT(ssim(output, reference), 0.95);
    // A wrong geometry must not pass: the unedited source differs clearly.
    EXPECT_LT(ssim(output, source), 0.9);
}

INSTANTIATE_TEST_SUITE_P(
    Render, Geometry,
    ::testing::Values(GeometryCase{"crop_rotate_pillarbox", "0.25,0,0.5,1", 90, false, 0,
                                   "crop=80:120:40:0,transpose=clock,pad=160:120:20:20"},
                      GeometryCase{"rotate_scaled_to_fit", "0,0,1,1", 90, false, 0.75,
                                   "transpose=clock,scale=90:120,pad=160:120:35:0"},
                      GeometryCase{"crop_flip_stretch_fit", "0,0.25,1,0.5", 0, true, 0,
                                   "crop=160:60:0:30,hflip,scale=160:60,pad=160:120:0:30"},
                      GeometryCase{"upside_down", "0,0,1,1", 180, false, 0, "hflip,vflip"}),
    [](const ::testing::TestParamInfo<GeometryCase>& info) {
        return std::string(info.param.name);
    });

struct ColourCase
{
    const char* name;
    QStringList make;  // ffmpeg arguments that make the input from the test pattern
    QString codec;     // of the output
    QStringList tags;  // pixel format, primaries, transfer, matrix, range of the output
    QString reference; // the look the output must have: the input through this chain
};

class Colour : public ::testing::TestWithParam<ColourCase>
{};

TEST_P(Colour, OutputStatesTheColourOfWhatItShows)
{
    const ColourCase& c = GetParam();
    const QString source = TestMedia::generate(
        QStringLiteral("engine/colour-%1.mp4").arg(c.name),
        QStringList{"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=1"} + c.make);
    ASSERT_FALSE(source.isEmpty());
    QJsonObject clip = mainClip(source, 0, 1000, 0, 1.0, "video_only");
    clip.insert("transform", transform(160, 120));
    Korvane::AVTaskOutputParam out = h264Output(outputPath(QStringLiteral("%1.mp4").arg(c.name)));
    out.video.codecName = c.codec;
    const RenderOutcome outcome = render(document(160, 120, 25, {clip}), out);
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    EXPECT_EQ(probe(out.outputPath).colour.join(" ").toStdString(), c.tags.join(" ").toStdString());
    const QString reference = outputPath(QStringLiteral("%1-ref.mp4").arg(c.name));
    ASSERT_TRUE(ffmpeg({"-i", source, "-vf", c.reference, "-c:v", "libx264", "-crf", "10",
                        "-pix_fmt", "yuv420p", reference}));
    // Shown as players show it (decoded to RGB by its tags), the output
    // looks like the reference: a wrong range or a missing tone mapping
    // shifts every pixel by far more.
    EXPECT_LT(pictureDifference(out.outputPath, reference, 0.5, 0, 0, 160, 120), 5.0);
}

const QString kToneMapped = QStringLiteral(
    "zscale=t=linear:npl=100,format=gbrpf32le,zscale=p=bt709,tonemap=tonemap=hable:desat=0,"
    "zscale=t=bt709:m=bt709:r=tv,format=yuv420p");
const QStringList kPqClip = {
    "-vf",
    "zscale=tin=bt709:pin=bt709:min=bt709:t=smpte2084:p=bt2020:m=bt2020nc:npl=100,"
    "format=yuv420p10le",
    "-c:v",
    "libx265",
    "-x265-params",
    "log-level=error",
    "-color_trc",
    "smpte2084",
    "-color_primaries",
    "bt2020",
    "-colorspace",
    "bt2020nc"};

INSTANTIATE_TEST_SUITE_P(
    Render, Colour,
    ::testing::Values(
        ColourCase{"bt601_kept",
                   {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-color_primaries", "smpte170m",
                    "-color_trc", "smpte170m", "-colorspace", "smpte170m", "-color_range", "tv"},
                   "h264",
                   {"yuv420p", "smpte170m", "smpte170m", "smpte170m", "tv"},
                   "null"},
        // With no colour description, H.264 leaves limited range unsaid
        // (its default); phones describe their full-range pictures.
        ColourCase{"full_range_to_limited",
                   {"-vf", "scale=out_range=pc,format=yuvj420p", "-c:v", "libx264",
                    "-color_primaries", "bt709", "-color_trc", "bt709", "-colorspace", "bt709"},
                   "h264",
                   {"yuv420p", "bt709", "bt709", "bt709", "tv"},
                   "null"},
        ColourCase{"pq_tone_mapped",
                   kPqClip,
                   "h264",
                   {"yuv420p", "bt709", "bt709", "bt709", "tv"},
                   kToneMapped},
        ColourCase{"pq_kept_in_hevc10",
                   kPqClip,
                   "hevc",
                   {"yuv420p10le", "bt2020", "smpte2084", "bt2020nc", "tv"},
                   "null"}),
    [](const ::testing::TestParamInfo<ColourCase>& info) { return std::string(info.param.name); });

TEST(ProjectRenderer, WatermarkSitsAtItsCentreWithItsOpacity)
{
    const QString source = clipWithoutSound();
    const QString mark = watermarkPng();
    QJsonObject clip = mainClip(source, 0, 2000, 0, 1.0, "video_only");
    clip.insert("transform", transform(160, 120));
    const QJsonObject image{{"id", "clip_image_0"},
                            {"type", "image"},
                            {"file_path", mark},
                            {"track_ref", "track_1"},
                            {"timeline_pos", 0},
                            {"range_length", 2000},
                            {"alpha", 0.5},
                            {"speed", 1.0},
                            {"transform", QJsonObject{{"id", "transform_image_0"},
                                                      {"rotation", 0},
                                                      {"flip_x", false},
                                                      {"flip_y", false},
                                                      {"scale_x", 1.0},
                                                      {"scale_y", 1.0},
                                                      {"center_pos", "100,60"}}}};
    const QJsonArray tracks{QJsonObject{{"id", "track_1"}, {"kind", "effect"}, {"z_order", 2}}};
    const QString output = outputPath("watermark.mp4");
    const RenderOutcome outcome =
        render(document(160, 120, 25, {clip, image}, tracks), h264Output(output));
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const QString reference = outputPath("watermark-ref.mp4");
    ASSERT_TRUE(ffmpeg({"-i", source, "-i", mark, "-filter_complex",
                        "[1]format=rgba,colorchannelmixer=aa=0.5[w];[0][w]overlay=x=80:y=45",
                        "-c:v", "libx264", "-crf", "10", reference}));
    EXPECT_GT(ssim(output, reference), 0.95);
    // Inside the mark the picture changed, outside it did not.
    EXPECT_GT(pictureDifference(output, source, 1.0, 84, 49, 32, 22), 25.0);
    EXPECT_LT(pictureDifference(output, source, 1.0, 0, 0, 60, 40), 6.0);
}

TEST(ProjectRenderer, BrightnessMatchesItsFilterMapping)
{
    const QString source = clipWithoutSound();
    QJsonObject clip = mainClip(source, 0, 2000, 0, 1.0, "video_only");
    clip.insert("transform", transform(160, 120));
    clip.insert(
        "video_filters",
        QJsonArray{QJsonObject{
            {"id", "vfilter_0"}, {"type", "video_filter"}, {"name", "Brightness"}, {"value", 40}}});
    const QString output = outputPath("brightness.mp4");
    ASSERT_EQ(render(document(160, 120, 25, {clip}), h264Output(output)).status,
              RenderStatus::Finished);
    const QString reference = outputPath("brightness-ref.mp4");
    ASSERT_TRUE(ffmpeg(
        {"-i", source, "-vf", "eq=brightness=0.2", "-c:v", "libx264", "-crf", "10", reference}));
    EXPECT_GT(ssim(output, reference), 0.95);
    EXPECT_GT(pictureDifference(output, source, 1.0, 0, 0, 160, 120), 20.0);
}

TEST(ProjectRenderer, VolumeFiftyIsAboutMinusSixDecibels)
{
    const QString source = clipWithSound();
    QJsonObject clip = mainClip(source, 0, 2000, 0);
    clip.insert("transform", transform(160, 120));
    clip.insert(
        "audio_filters",
        QJsonArray{QJsonObject{
            {"id", "afilter_0"}, {"type", "audio_filter"}, {"name", "Volume"}, {"value", 50}}});
    const QString output = outputPath("volume.mp4");
    ASSERT_EQ(render(document(160, 120, 25, {clip}), h264Output(output)).status,
              RenderStatus::Finished);
    EXPECT_NEAR(meanVolume(output, 0.2, 1.5) - meanVolume(source, 0.2, 1.5), -6.02, 0.7);
}

TEST(ProjectRenderer, AttachedAudioIsMixedAtItsTimelinePosition)
{
    const QString picture = clipWithoutSound();
    QJsonObject clip = mainClip(picture, 0, 2000, 0, 1.0, "video_only");
    clip.insert("transform", transform(160, 120));
    // The builder may name a track that the document does not list: the clip
    // is mixed all the same.
    QJsonObject tone = mainClip(toneFile(), 0, 1000, 1000, 1.0, "audio");
    tone.insert("track_ref", "track_7");
    tone.insert("file_audio_stream_index", -1);
    const QString output = outputPath("mixed.mp4");
    const RenderOutcome outcome = render(document(160, 120, 25, {clip, tone}), h264Output(output));
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_NEAR(p.audioDuration, 2.0, 0.1);
    EXPECT_LT(meanVolume(output, 0.0, 0.9), -60.0);
    EXPECT_GT(meanVolume(output, 1.1, 0.8), -30.0);
}

TEST(ProjectRenderer, CoverAndTagsAreWritten)
{
    const QString source = clipWithSound();
    QJsonObject clip = mainClip(source, 0, 1000, 0);
    clip.insert("transform", transform(160, 120));
    QJsonObject doc = document(160, 120, 25, {clip});
    doc.insert("cover", QJsonObject{{"id", "cover"}, {"path", coverJpeg()}});
    doc.insert(
        "meta_data",
        QJsonObject{{"id", "meta_data"}, {"title", "Engine title"}, {"artist", "Engine artist"}});
    const QString output = outputPath("tagged.mp4");
    const RenderOutcome outcome = render(doc, h264Output(output));
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_EQ(p.attachedPictures, 1);
    EXPECT_EQ(p.videoStreams, 1);
    EXPECT_EQ(p.tags.value("title").toString(), "Engine title");
    EXPECT_EQ(p.tags.value("artist").toString(), "Engine artist");
}

TEST(ProjectRenderer, MusicWithCoverShowsThePictureForTheLengthOfTheSound)
{
    QJsonObject clip = mainClip(toneFile(), 0, 3000, 0, 1.0, "audio_with_cover");
    clip.insert("file_audio_stream_index", 0);
    clip.insert("transform", transform(64, 64));
    QJsonObject doc = document(64, 64, 25, {clip});
    doc.insert("cover", QJsonObject{{"id", "cover"}, {"path", coverJpeg()}});
    const QString output = outputPath("music.mkv");
    Korvane::AVTaskOutputParam out = h264Output(output);
    out.format = QStringLiteral("mkv");
    const RenderOutcome outcome = render(doc, out);
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_EQ(p.videoStreams, 1);
    EXPECT_EQ(p.width, 64);
    EXPECT_NEAR(p.formatDuration, 3.0, 0.15);
    // The cover also travels as an attachment of the Matroska file.
    EXPECT_EQ(p.attachedPictures, 1);
}

TEST(ProjectRenderer, SubtitlesAreDrawnOnlyWhileTheirCueIsOn)
{
    const QString srt = outputPath("cue.srt");
    {
        QFile file(srt);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("1\n00:00:00,800 --> 00:00:01,600\nWWWWWWWW\n\n");
    }
    auto make = [&](bool withSubtitle, double speed) {
        return renderSubtitled(withSubtitle ? srt : QString(), speed,
                               withSubtitle ? QStringLiteral("cue") : QStringLiteral("nocue"));
    };
    const QString with = make(true, 1.0);
    const QString without = make(false, 1.0);
    EXPECT_GT(pictureDifference(with, without, 1.2, 0, 90, 160, 30), 3.0);
    EXPECT_LT(pictureDifference(with, without, 0.3, 0, 90, 160, 30), 1.0);
    EXPECT_LT(pictureDifference(with, without, 1.2, 0, 0, 160, 40), 1.5);

    // At double speed the cue keeps to its picture: 0.4 s to 0.8 s.
    const QString fastWith = make(true, 2.0);
    const QString fastWithout = make(false, 2.0);
    EXPECT_GT(pictureDifference(fastWith, fastWithout, 0.6, 0, 90, 160, 30), 3.0);
    EXPECT_LT(pictureDifference(fastWith, fastWithout, 0.2, 0, 90, 160, 30), 1.0);
}

TEST(ProjectRenderer, PictureSubtitlesAreOverlaidWhileTheirCueIsOn)
{
    // A half-size plane: the cue's box lands at twice its place on the canvas.
    const QString subs = outputPath("boxes.mkv");
    QString error;
    ASSERT_TRUE(SubtitleTest::writePictureSubtitles(subs, QSize(80, 60),
                                                    {{800, 1600, QRect(10, 40, 60, 12)}}, &error))
        << error.toStdString();
    auto make = [&](bool withSubtitle, double speed) {
        return renderSubtitled(withSubtitle ? subs : QString(), speed,
                               withSubtitle ? QStringLiteral("boxes") : QStringLiteral("noboxes"));
    };
    const QString with = make(true, 1.0);
    const QString without = make(false, 1.0);
    // Outside the cue only coding noise differs (the encoder predicts from
    // the boxed frames); the box itself differs by far more.
    EXPECT_GT(pictureDifference(with, without, 1.2, 24, 84, 112, 16), 30.0);
    EXPECT_LT(pictureDifference(with, without, 1.2, 0, 0, 160, 70), 5.0);
    EXPECT_LT(pictureDifference(with, without, 0.5, 0, 80, 160, 24), 5.0);
    EXPECT_LT(pictureDifference(with, without, 1.8, 0, 80, 160, 24), 5.0);
    EXPECT_NEAR(probe(with).videoDuration, 2.0, 0.1);

    // At double speed the cue keeps to its picture: 0.4 s to 0.8 s.
    const QString fastWith = make(true, 2.0);
    const QString fastWithout = make(false, 2.0);
    EXPECT_GT(pictureDifference(fastWith, fastWithout, 0.6, 24, 84, 112, 16), 30.0);
    EXPECT_LT(pictureDifference(fastWith, fastWithout, 0.2, 0, 80, 160, 24), 5.0);
    EXPECT_LT(pictureDifference(fastWith, fastWithout, 0.9, 0, 80, 160, 24), 5.0);
}

TEST(ProjectRenderer, OutputRecordChoosesCodecSizeRateAndContainer)
{
    const QString source = clipWithSound();
    QJsonObject clip = mainClip(source, 0, 1000, 0);
    clip.insert("transform", transform(160, 120));
    // "youtube" is a preset, not a muxer: the extension decides.
    Korvane::AVTaskOutputParam out;
    out.outputPath = outputPath("record.mkv");
    out.format = QStringLiteral("YouTube");
    out.video.codecName = QStringLiteral("H265");
    out.video.width = 320;
    out.video.height = 240;
    out.video.frameRate = 30;
    out.audio.codecName = QStringLiteral("mp3");
    out.audio.sampleRate = 44100;
    out.audio.channels = 1;
    const RenderOutcome outcome = render(document(160, 120, 25, {clip}), out);
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(out.outputPath);
    EXPECT_EQ(p.videoCodec, "hevc");
    EXPECT_EQ(p.width, 320);
    EXPECT_EQ(p.height, 240);
    EXPECT_NEAR(p.frameRate, 30.0, 0.5);
    EXPECT_EQ(p.audioCodec, "mp3");
    EXPECT_EQ(p.sampleRate, 44100);
    EXPECT_EQ(p.channels, 1);
}

TEST(ProjectRenderer, BadInputFailsWithItsReasonAndLeavesNoFile)
{
    const QString source = clipWithSound();
    const QString missing = TestMedia::dir() + QStringLiteral("/engine/no-such-mark.png");
    QJsonObject clip = mainClip(source, 0, 1000, 0);
    clip.insert("transform", transform(160, 120));
    const QJsonObject image{
        {"id", "clip_image_0"}, {"type", "image"},
        {"file_path", missing}, {"track_ref", "track_1"},
        {"alpha", 1.0},         {"transform", QJsonObject{{"center_pos", "10,10"}}}};

    struct Row
    {
        const char* name;
        QJsonObject doc;
        QString codec;
        QString mustMention;
    };
    QJsonObject missingMedia = mainClip(QStringLiteral("/nonexistent/clip.mp4"), 0, 1000, 0);
    const QList<Row> rows = {
        {"missing watermark", document(160, 120, 25, {clip, image}), "h264", missing},
        {"missing media", document(160, 120, 25, {missingMedia}), "h264", "/nonexistent/clip.mp4"},
        {"unknown codec", document(160, 120, 25, {clip}), "nosuchcodec", "nosuchcodec"},
        {"no decodable video", document(160, 120, 25, {mainClip(toneFile(), 0, 1000, 0)}), "h264",
         "no decodable video stream"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Korvane::AVTaskOutputParam out = h264Output(outputPath("bad.mp4"));
        out.video.codecName = row.codec;
        const RenderOutcome outcome = render(row.doc, out);
        EXPECT_EQ(outcome.status, RenderStatus::Failed);
        EXPECT_TRUE(outcome.error.contains(row.mustMention)) << outcome.error.toStdString();
        EXPECT_FALSE(QFileInfo::exists(out.outputPath));
    }
}

TEST(ProjectRenderer, DamagedPacketsAreSkippedAndCountedUnlessNothingIsLeft)
{
    const QString tone = TestMedia::generate(
        QStringLiteral("engine/tone-3s.mp3"),
        {"-f", "lavfi", "-i", "sine=frequency=440:duration=3", "-c:a", "libmp3lame"});
    const QString dead = TestMedia::generate(QStringLiteral("engine/all-packets-damaged.mka"),
                                             {"-f", "lavfi", "-i", "sine=frequency=440:duration=1",
                                              "-c:a", "libmp3lame", "-bsf:a", "noise=amount=1"});
    ASSERT_FALSE(tone.isEmpty());
    ASSERT_FALSE(dead.isEmpty());
    // 100 kB of noise before the first frame, as a damaged download has.
    QFile clean(tone);
    ASSERT_TRUE(clean.open(QIODevice::ReadOnly));
    QByteArray bytes(100000, '\0');
    quint32 state = 12345;
    for (char& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 24);
    }
    const QString prefixed = outputPath("garbage-prefix.mp3");
    QFile file(prefixed);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes + clean.readAll());
    file.close();

    struct Row
    {
        const char* name;
        QString input;
        double seconds; // 0: the job must fail
    };
    for (const Row& row : {Row{"garbage_prefix", prefixed, 3.0}, Row{"nothing_left", dead, 0.0}}) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        Korvane::AVTaskOutputParam out;
        out.outputPath = outputPath(QStringLiteral("%1.m4a").arg(row.name));
        out.format = QStringLiteral("ipod");
        out.audio.codecName = QStringLiteral("aac");
        const RenderOutcome outcome =
            render(document(160, 120, 25, {mainClip(row.input, 0, 3000, 0)}), out);
        // One record for the stream, with its count.
        EXPECT_EQ(log.count(QStringLiteral("undecodable packets of the audio stream #0 of \"%1\"")
                                .arg(row.input)),
                  1);
        if (row.seconds == 0.0) {
            EXPECT_EQ(outcome.status, RenderStatus::Failed);
            EXPECT_TRUE(outcome.error.contains("no sound of")) << outcome.error.toStdString();
            EXPECT_FALSE(QFileInfo::exists(out.outputPath));
            continue;
        }
        ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
        EXPECT_NEAR(probe(out.outputPath).audioDuration, row.seconds, 0.3);
        EXPECT_GT(meanVolume(out.outputPath, 1.0, 1.0), -25.0);
    }
}

// The render is written beside the output and moved into place at the end:
// a stopped render leaves the file that was at the output path as it was,
// and nothing else behind.
TEST(ProjectRenderer, StopMidRenderLeavesTheOutputPathAsItWas)
{
    const QString source = clipWithSound();
    QJsonObject clip = mainClip(source, 0, 2000, 0);
    clip.insert("transform", transform(160, 120));
    const QString output = outputPath("stopped.mp4");
    {
        QFile existing(output);
        ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
        existing.write("the user's own file");
    }
    // Other tests write into the same folder; only names of this output count.
    auto leftBeside = [&] {
        return QFileInfo(output).dir().entryList({"*" + QFileInfo(output).fileName() + "*"},
                                                 QDir::Files | QDir::Hidden);
    };
    std::atomic<bool> stop{false};
    ProjectDocument document;
    QString error;
    ASSERT_TRUE(parseProjectDocument(
        QString::fromUtf8(QJsonDocument(RenderTest::document(160, 120, 25, {clip})).toJson()),
        &document, &error));
    ProjectRenderer renderer(document, h264Output(output));
    renderer.setStopFlag(&stop);
    bool midway = false;
    renderer.setProgressHandler([&](double value) {
        if (value > 0.3) {
            midway = true;
            stop = true;
        }
    });
    EXPECT_EQ(renderer.run().status, RenderStatus::Stopped);
    EXPECT_TRUE(midway);
    QFile kept(output);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.readAll(), "the user's own file");
    EXPECT_EQ(leftBeside(), QStringList{QFileInfo(output).fileName()});
    QFile::remove(output);
}

TEST(ProjectRenderer, AnaglyphSideBySideMatchesTheStereoFilter)
{
    const QString source = clipWithoutSound();
    QJsonObject t = transform(160, 120);
    t.insert("scale_x", 2.0); // the builder widens the half-width result back
    QJsonObject clip = mainClip(source, 0, 2000, 0, 1.0, "video_only");
    clip.insert("transform", t);
    clip.insert("video_filters", QJsonArray{QJsonObject{{"id", "video_filter_0"},
                                                        {"anaglyph_type", "Anaglyph Side by Side"},
                                                        {"source", "2dTo3d_0"}}});
    const QString output = outputPath("anaglyph.mp4");
    const RenderOutcome outcome = render(document(160, 120, 25, {clip}), h264Output(output));
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const QString reference = outputPath("anaglyph-ref.mp4");
    ASSERT_TRUE(ffmpeg({"-i", source, "-vf", "stereo3d=sbsl:arcc,scale=160:120", "-c:v", "libx264",
                        "-crf", "10", reference}));
    EXPECT_GT(ssim(output, reference), 0.95);
    EXPECT_LT(ssim(output, source), 0.9);
}

TEST(ProjectRenderer, EmbeddedSubtitlesOfRealFilesAreDrawn)
{
    const QString shared = TestMedia::sharedMediaDir();
    if (shared.isEmpty()) {
        GTEST_SKIP() << "shared media folder absent";
    }
    // Each file has one cue on stream 2 from the start to about 1.2 s: SubRip
    // text drawn by libass, and a DVD picture overlaid. The second file's
    // pictures all fall in its first 49 ms: only its first frame is looked at.
    const QList<std::pair<const char*, double>> files = {{"h264-ac3-srt-subtitle.mkv", 0.6},
                                                         {"h264-ac3-vobsub-subtitle.mkv", 0.0}};
    for (const auto& [name, atS] : files) {
        SCOPED_TRACE(name);
        const QString source = shared + QLatin1Char('/') + QLatin1String(name);
        auto make = [&](bool display) {
            QJsonObject clip = mainClip(source, 0, 1200, 0);
            clip.insert("transform", transform(1080, 720));
            clip.insert("subtitles", QJsonArray{QJsonObject{{"id", "subtitle_0"},
                                                            {"embedded_subtitle_stream_index", 2},
                                                            {"attached_file_path", source},
                                                            {"attached_offset", 0},
                                                            {"display", display}}});
            const QString output =
                outputPath(QStringLiteral("%1-%2.mp4").arg(name).arg(display ? "on" : "off"));
            const RenderOutcome outcome =
                render(document(1080, 720, 25, {clip}), h264Output(output));
            EXPECT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
            return output;
        };
        const QString shown = make(true);
        const QString hidden = make(false);
        const double subtitleArea = pictureDifference(shown, hidden, atS, 0, 560, 1080, 160);
        const double above = pictureDifference(shown, hidden, atS, 0, 0, 1080, 200);
        // Above the cue only the coding of a re-encoded frame differs.
        EXPECT_GT(subtitleArea, 3.0);
        EXPECT_LT(above, subtitleArea / 4.0);
    }
}

TEST(ProjectRenderer, SoundFileOutputKeepsSoundAndCoverOnly)
{
    QJsonObject clip = mainClip(clipWithSound(), 0, 1000, 0);
    clip.insert("transform", transform(160, 120));
    QJsonObject doc = document(160, 120, 25, {clip});
    doc.insert("cover", QJsonObject{{"id", "cover"}, {"path", coverJpeg()}});
    doc.insert("meta_data", QJsonObject{{"id", "meta_data"}, {"title", "Song"}});
    Korvane::AVTaskOutputParam out;
    out.outputPath = outputPath("song.mp3");
    out.format = QStringLiteral("mp3");
    out.video.codecName = QStringLiteral("h264"); // ignored: a sound file has no picture
    out.audio.codecName = QStringLiteral("mp3");
    out.audio.bitrateKbps = 128;
    const RenderOutcome outcome = render(doc, out);
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(out.outputPath);
    EXPECT_EQ(p.videoStreams, 0);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_EQ(p.audioCodec, "mp3");
    EXPECT_EQ(p.attachedPictures, 1);
    EXPECT_EQ(p.tags.value("title").toString(), "Song");
    EXPECT_NEAR(p.formatDuration, 1.0, 0.1);
}
