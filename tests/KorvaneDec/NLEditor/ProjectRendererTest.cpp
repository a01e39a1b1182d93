// Renders small generated clips through the engine and measures the results
// with ffprobe and the ffmpeg program: one render per distinct path.
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
#include <functional>

using namespace Korvane;
using namespace RenderTest;

namespace {

AVTaskOutputParam output(const QString& name, const QString& format = "mp4",
                         const QString& audioCodec = "aac")
{
    AVTaskOutputParam out;
    out.outputPath = outputPath(name);
    out.format = format;
    out.video.codecName = "h264";
    out.audio.codecName = audioCodec;
    return out;
}

RenderOutcome render(const QJsonObject& doc, const AVTaskOutputParam& out,
                     const std::function<void(double)>& progress = {},
                     const std::atomic<bool>* stop = nullptr)
{
    ProjectDocument document;
    QString error;
    if (!parseProjectDocument(QString::fromUtf8(QJsonDocument(doc).toJson()), &document, &error)) {
        return {RenderStatus::Failed, error};
    }
    ProjectRenderer renderer(document, out);
    renderer.setStopFlag(stop);
    if (progress) {
        renderer.setProgressHandler(progress);
    }
    return renderer.run();
}

// Renders `clips` on a 160x120 canvas into an H.264 MP4, expecting success.
QString rendered(const QJsonArray& clips, const QString& name)
{
    const AVTaskOutputParam out = output(name);
    const RenderOutcome outcome = render(document(160, 120, 25, clips), out);
    EXPECT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    return out.outputPath;
}

// A clip over the whole canvas, as the timeline builder writes them.
QJsonObject clip(const QString& path, qint64 beginMs, qint64 lengthMs, double posMs = 0,
                 double speed = 1.0, const QString& kind = "video")
{
    QJsonObject clip = mainClip(path, beginMs, lengthMs, posMs, speed, kind);
    clip.insert("transform", transform(160, 120));
    return clip;
}

double difference(const QString& a, const QString& b, double atS, const QRect& r)
{
    return pictureDifference(a, b, atS, r.x(), r.y(), r.width(), r.height());
}

} // namespace

TEST(ProjectRenderer, WholeClipKeepsDurationSizeStreamsAndPicture)
{
    const QString source = clipWithSound();
    const AVTaskOutputParam out = output("whole.mp4");
    QList<double> progress;
    const RenderOutcome outcome = render(document(160, 120, 25, {clip(source, 0, 2000)}), out,
                                         [&](double v) { progress.append(v); });
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(out.outputPath, true);
    EXPECT_EQ(QString("%1 %2 %3x%4 %5 %6")
                  .arg(p.videoStreams)
                  .arg(p.audioStreams)
                  .arg(p.width)
                  .arg(p.height)
                  .arg(p.videoCodec, p.audioCodec),
              "1 1 160x120 h264 aac");
    EXPECT_EQ(p.videoFrames, 50); // the last picture too
    EXPECT_NEAR(p.audioDuration, 2.0, 0.03);
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_GT(progress.last(), 0.9);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_GT(ssim(out.outputPath, source), 0.95); // nothing was moved or tinted
}

TEST(ProjectRenderer, TimelineLengthIsTheCutsPlayedAtSpeed)
{
    struct Row
    {
        QList<QPair<qint64, qint64>> cuts; // begin, length
        double speed;
        double seconds;
    };
    for (const Row& row : {Row{{{500, 1000}}, 1.0, 1.0}, Row{{{0, 600}, {1200, 700}}, 1.0, 1.3},
                           Row{{{200, 800}}, 0.5, 1.6}, Row{{{0, 1000}, {1000, 1000}}, 2.0, 1.0}}) {
        QJsonArray clips;
        double pos = 0.0;
        for (const auto& [begin, length] : row.cuts) {
            clips.append(clip(clipWithSound(), begin, length, pos, row.speed));
            pos += length / row.speed;
        }
        const Probe p = probe(rendered(clips, "cuts.mp4"));
        EXPECT_NEAR(p.videoDuration, row.seconds, 0.1) << row.speed;
        EXPECT_NEAR(p.audioDuration, row.seconds, 0.1) << row.speed;
    }
}

// The output looks like the same edit made by the ffmpeg program from the
// source (input 0) and the watermark (input 1), shown as players show it
// (decoded to RGB by its tags), and states the colour of what it shows: a
// wrong geometry, range or a missing tone mapping shifts pixels by far more.
TEST(ProjectRenderer, PicturesLookLikeTheSameEditMadeByFfmpeg)
{
    const QString pq = "-vf zscale=tin=bt709:pin=bt709:min=bt709:t=smpte2084:p=bt2020:m=bt2020nc:"
                       "npl=100,format=yuv420p10le -c:v libx265 -x265-params log-level=error "
                       "-color_trc smpte2084 -color_primaries bt2020 -colorspace bt2020nc";
    struct Row
    {
        const char* name;
        QString make;   // ffmpeg arguments that make the source from the test pattern
        QString codec;  // of the output
        QString colour; // pixel format, primaries, transfer, matrix, range of the output
        QString graph;  // the edit by ffmpeg
    };
    const QList<Row> rows = {
        {"crop_rotate_pillarbox", "-c:v libx264 -pix_fmt yuv420p", "h264",
         "yuv420p unknown unknown unknown unknown",
         "[0]crop=80:120:40:0,transpose=clock,pad=160:120:20:20"},
        {"watermark", "-c:v libx264 -pix_fmt yuv420p", "h264",
         "yuv420p unknown unknown unknown unknown",
         "[1]format=rgba,colorchannelmixer=aa=0.5[w];[0][w]overlay=x=80:y=45"},
        {"bt601_kept",
         "-c:v libx264 -pix_fmt yuv420p -color_primaries smpte170m -color_trc smpte170m "
         "-colorspace smpte170m -color_range tv",
         "h264", "yuv420p smpte170m smpte170m smpte170m tv", "[0]null"},
        // Without a colour description H.264 leaves limited range unsaid;
        // phones describe their full-range pictures.
        {"full_range_to_limited",
         "-vf scale=out_range=pc,format=yuvj420p -c:v libx264 -color_primaries bt709 -color_trc "
         "bt709 -colorspace bt709",
         "h264", "yuv420p bt709 bt709 bt709 tv", "[0]null"},
        {"pq_tone_mapped", pq, "h264", "yuv420p bt709 bt709 bt709 tv",
         "[0]zscale=t=linear:npl=100,format=gbrpf32le,zscale=p=bt709,tonemap=tonemap=hable:"
         "desat=0,zscale=t=bt709:m=bt709:r=tv,format=yuv420p"},
        {"pq_kept_in_hevc10", pq, "hevc", "yuv420p10le bt2020 smpte2084 bt2020nc tv", "[0]null"},
    };
    const QJsonObject mark{
        {"type", "image"},        {"file_path", watermarkPng()},
        {"track_ref", "track_1"}, {"range_length", 2000},
        {"alpha", 0.5},           {"transform", QJsonObject{{"center_pos", "100,60"}}}};
    const QJsonObject turned = transform(160, 120, "0.25,0,0.5,1", 90);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const QString source = TestMedia::generate(
            QString("engine/look-%1.mp4").arg(row.name),
            QStringList{"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2"} +
                row.make.split(' '));
        QJsonObject main = clip(source, 0, 2000, 0, 1.0, "video_only");
        if (row.graph.contains("crop")) {
            main.insert("transform", turned);
        }
        AVTaskOutputParam out = output(QString(row.name) + ".mp4");
        out.video.codecName = row.codec;
        const QJsonArray clips =
            row.graph.contains("[1]") ? QJsonArray{main, mark} : QJsonArray{main};
        const QJsonArray tracks{QJsonObject{{"id", "track_1"}, {"kind", "effect"}, {"z_order", 2}}};
        const RenderOutcome outcome = render(document(160, 120, 25, clips, tracks), out);
        ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
        EXPECT_EQ(probe(out.outputPath).colour.join(" "), row.colour);
        const QString reference = outputPath(QString(row.name) + "-ref.mp4");
        ASSERT_TRUE(ffmpeg({"-i", source, "-i", watermarkPng(), "-filter_complex", row.graph,
                            "-c:v", "libx264", "-crf", "10", "-pix_fmt", "yuv420p", reference}));
        EXPECT_LT(difference(out.outputPath, reference, 1.0, {0, 0, 160, 120}), 5.0);
        EXPECT_LT(difference(out.outputPath, reference, 1.0, {80, 45, 40, 30}), 5.0); // the mark
    }
}

// The main clip's sound at half volume, a tone mixed in from 1 s on. The
// builder may name a track that the document does not list: the clip is
// mixed all the same.
TEST(ProjectRenderer, VolumeAndAttachedAudioAtItsTimelinePosition)
{
    QJsonObject main = clip(clipWithSound(), 0, 2000);
    main.insert("audio_filters", QJsonArray{QJsonObject{{"name", "Volume"}, {"value", 50}}});
    // A mosaic result made on another machine is left out, with one note.
    const QJsonObject mosaic{{"name", "AIMosaic"}, {"value", "/elsewhere/mosaic.json"}};
    main.insert("video_filters", QJsonArray{mosaic, mosaic});
    LogCapture log;
    QJsonObject tone = clip(toneFile(), 0, 1000, 1000, 1.0, "audio");
    tone.insert("track_ref", "track_7");
    tone.insert("file_audio_stream_index", -1);
    const QString mixed = rendered({main, tone}, "mixed.mp4");
    const Probe p = probe(mixed);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_NEAR(p.audioDuration, 2.0, 0.1);
    const double before = meanVolume(mixed, 0.2, 0.7);
    EXPECT_NEAR(before - meanVolume(clipWithSound(), 0.2, 0.7), -6.02, 0.7);
    EXPECT_GT(meanVolume(mixed, 1.1, 0.8), before + 4.0);
    EXPECT_EQ(log.count("AIMosaic result \"/elsewhere/mosaic.json\" is not available here"), 1);
}

// Each with a cover and a title: the output record chooses codecs, size,
// rate and container ("YouTube" is a preset, not a muxer: the extension
// decides); a sound with a cover shows it for the length of the sound, and
// a sound file keeps only the sound and its cover.
TEST(ProjectRenderer, OutputRecordCoverAndTitleInEachKindOfContainer)
{
    QJsonObject music = clip(toneFile(), 0, 3000, 0, 1.0, "audio_with_cover");
    music.insert("file_audio_stream_index", 0);
    AVTaskOutputParam record = output("record.mkv", "YouTube", "mp3");
    record.video.codecName = "H265";
    record.video.width = 320;
    record.video.height = 240;
    record.video.frameRate = 30;
    record.audio.sampleRate = 44100;
    record.audio.channels = 1;
    struct Row
    {
        QJsonObject clip;
        AVTaskOutputParam out;
        QString facts; // streams (picture, sound, cover), codecs, size, rate, sound form
        double seconds;
    };
    const QList<Row> rows = {
        {clip(clipWithSound(), 0, 1000), record, "1 1 1 hevc mp3 320x240 30 44100 1", 1.0},
        {music, output("music.mkv", "mkv"), "1 1 1 h264 aac 160x120 25 48000 2", 3.0},
        {clip(clipWithSound(), 0, 1000), output("song.mp3", "mp3", "mp3"),
         "0 1 1  mp3 0x0 0 48000 2", 1.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.out.outputPath.toStdString());
        QJsonObject doc = document(160, 120, 25, {row.clip});
        doc.insert("cover", QJsonObject{{"path", coverJpeg()}});
        doc.insert("meta_data", QJsonObject{{"title", "Engine title"}});
        const RenderOutcome outcome = render(doc, row.out);
        ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
        const Probe p = probe(row.out.outputPath);
        EXPECT_EQ(QString("%1 %2 %3 %4 %5 %6x%7 %8 %9 %10")
                      .arg(p.videoStreams)
                      .arg(p.audioStreams)
                      .arg(p.attachedPictures)
                      .arg(p.videoCodec, p.audioCodec)
                      .arg(p.width)
                      .arg(p.height)
                      .arg(qRound(p.frameRate))
                      .arg(p.sampleRate)
                      .arg(p.channels)
                      .toStdString(),
                  row.facts.toStdString());
        EXPECT_NEAR(p.formatDuration, row.seconds, 0.15);
        EXPECT_EQ(p.tags.value("title").toString(), "Engine title");
    }
}

// Text cues drawn by libass and picture cues overlaid show only while their
// cue is on, and keep to the picture of a clip played at double speed.
TEST(ProjectRenderer, SubtitlesShowOnlyWhileTheirCueIsOn)
{
    const QString srt = outputPath("cue.srt");
    QFile file(srt);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("1\n00:00:00,800 --> 00:00:01,600\nWWWWWWWW\n\n");
    file.close();
    // A half-size plane: the cue's box lands at twice its place on the canvas.
    const QString boxes = outputPath("boxes.mkv");
    QString error;
    ASSERT_TRUE(SubtitleTest::writePictureSubtitles(boxes, QSize(80, 60),
                                                    {{800, 1600, QRect(10, 40, 60, 12)}}, &error))
        << error.toStdString();
    auto make = [](const QString& subtitleFile) {
        QJsonObject main = clip(clipWithoutSound(), 0, 2000, 0, 2.0, "video_only");
        main.insert("subtitles", QJsonArray{QJsonObject{{"attached_file_path", subtitleFile},
                                                        {"display", !subtitleFile.isEmpty()}}});
        return rendered({main}, "subtitled.mp4");
    };
    const QString plain = make({});
    struct Row
    {
        QString file;
        QRect cue;
        double on, off; // least difference while the cue is on, most while it is off
    };
    for (const Row& row : {Row{srt, QRect(0, 90, 160, 30), 3.0, 1.5},
                           Row{boxes, QRect(24, 84, 112, 16), 30.0, 5.0}}) {
        SCOPED_TRACE(row.file.toStdString());
        const QString with = make(row.file);
        // On from 0.4 s to 0.8 s of the output.
        EXPECT_GT(difference(with, plain, 0.6, row.cue), row.on);
        EXPECT_LT(difference(with, plain, 0.6, QRect(0, 0, 160, 40)), row.off);
        EXPECT_LT(difference(with, plain, 0.2, row.cue), row.off);
        EXPECT_LT(difference(with, plain, 0.9, row.cue), row.off);
        EXPECT_NEAR(probe(with).videoDuration, 1.0, 0.1);
    }
}

TEST(ProjectRenderer, BadInputFailsWithItsReasonAndLeavesNoFile)
{
    const QString missing = TestMedia::dir() + "/engine/no-such-mark.png";
    const QJsonObject image{{"type", "image"},
                            {"file_path", missing},
                            {"track_ref", "track_1"},
                            {"transform", QJsonObject{{"center_pos", "10,10"}}}};
    const QJsonObject main = clip(clipWithSound(), 0, 1000);
    struct Row
    {
        QJsonArray clips;
        QString codec;
        QString mustMention;
    };
    const QList<Row> rows = {
        {{main, image}, "h264", missing},
        {{clip("/nonexistent/clip.mp4", 0, 1000)}, "h264", "/nonexistent/clip.mp4"},
        {{main}, "nosuchcodec", "nosuchcodec"},
        {{clip(toneFile(), 0, 1000)}, "h264", "no decodable video stream"},
    };
    for (const Row& row : rows) {
        AVTaskOutputParam out = output("bad.mp4");
        out.video.codecName = row.codec;
        const RenderOutcome outcome = render(document(160, 120, 25, row.clips), out);
        EXPECT_EQ(outcome.status, RenderStatus::Failed);
        EXPECT_TRUE(outcome.error.contains(row.mustMention)) << outcome.error.toStdString();
        EXPECT_FALSE(QFileInfo::exists(out.outputPath));
    }
}

TEST(ProjectRenderer, DamagedPacketsAreSkippedAndCountedUnlessNothingIsLeft)
{
    const QString tone = TestMedia::generate(
        "engine/tone-3s.mp3",
        {"-f", "lavfi", "-i", "sine=frequency=440:duration=3", "-c:a", "libmp3lame"});
    const QString dead = TestMedia::generate("engine/all-packets-damaged.mka",
                                             {"-f", "lavfi", "-i", "sine=frequency=440:duration=1",
                                              "-c:a", "libmp3lame", "-bsf:a", "noise=amount=1"});
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
    for (const QString& input : {prefixed, dead}) {
        SCOPED_TRACE(input.toStdString());
        LogCapture log;
        const AVTaskOutputParam out = output("damaged.m4a", "ipod");
        const RenderOutcome outcome = render(document(160, 120, 25, {clip(input, 0, 3000)}), out);
        // One record for the stream, with its count.
        EXPECT_EQ(
            log.count(QString("undecodable packets of the audio stream #0 of \"%1\"").arg(input)),
            1);
        if (input == dead) {
            EXPECT_EQ(outcome.status, RenderStatus::Failed);
            EXPECT_TRUE(outcome.error.contains("no sound of")) << outcome.error.toStdString();
            EXPECT_FALSE(QFileInfo::exists(out.outputPath));
            continue;
        }
        ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
        EXPECT_NEAR(probe(out.outputPath).audioDuration, 3.0, 0.3);
        EXPECT_GT(meanVolume(out.outputPath, 1.0, 1.0), -25.0);
    }
}

// The render is written beside the output and moved into place at the end:
// a stopped render leaves the file that was at the output path as it was,
// and nothing else behind.
TEST(ProjectRenderer, StopMidRenderLeavesTheOutputPathAsItWas)
{
    const AVTaskOutputParam out = output("stopped.mp4");
    QFile existing(out.outputPath);
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("the user's own file");
    existing.close();
    std::atomic<bool> stop{false};
    const RenderOutcome outcome = render(
        document(160, 120, 25, {clip(clipWithSound(), 0, 2000)}), out,
        [&](double value) { stop = stop || value > 0.3; }, &stop);
    EXPECT_EQ(outcome.status, RenderStatus::Stopped);
    EXPECT_TRUE(stop);
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), "the user's own file");
    // Other tests write into the same folder; only names of this output count.
    const QFileInfo info(out.outputPath);
    EXPECT_EQ(info.dir().entryList({"*" + info.fileName() + "*"}, QDir::Files | QDir::Hidden),
              QStringList{info.fileName()});
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
    for (const auto& [name, atS] : {std::pair{"h264-ac3-srt-subtitle.mkv", 0.6},
                                    std::pair{"h264-ac3-vobsub-subtitle.mkv", 0.0}}) {
        SCOPED_TRACE(name);
        const QString source = shared + "/" + name;
        auto make = [&](bool display) {
            QJsonObject main = mainClip(source, 0, 1200, 0);
            main.insert("transform", transform(1080, 720));
            main.insert("subtitles", QJsonArray{QJsonObject{{"embedded_subtitle_stream_index", 2},
                                                            {"attached_file_path", source},
                                                            {"display", display}}});
            const AVTaskOutputParam out = output("real-subtitles.mp4");
            EXPECT_EQ(render(document(1080, 720, 25, {main}), out).status, RenderStatus::Finished);
            return out.outputPath;
        };
        const QString shown = make(true);
        const QString hidden = make(false);
        const double subtitleArea = difference(shown, hidden, atS, {0, 560, 1080, 160});
        // Above the cue only the coding of a re-encoded frame differs.
        EXPECT_GT(subtitleArea, 3.0);
        EXPECT_LT(difference(shown, hidden, atS, {0, 0, 1080, 200}), subtitleArea / 4.0);
    }
}
