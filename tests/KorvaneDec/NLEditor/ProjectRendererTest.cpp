// Renders small generated clips through the engine and measures the results
// with ffprobe and the ffmpeg program: one render per distinct path.
#include "LogCapture.h"
#include "RenderTestSupport.h"
#include "TestMedia.h"

#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "KorvaneDec/NLEditor/ProjectRenderer.h"

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
                         const QString& audioCodec = "aac", const QString& videoCodec = "h264")
{
    AVTaskOutputParam out;
    out.outputPath = outputPath(name);
    out.format = format;
    out.video.codecName = videoCodec;
    out.audio.codecName = audioCodec;
    return out;
}

RenderOutcome render(
    const QJsonObject& doc, const AVTaskOutputParam& out,
    const std::function<void(double)>& progress = [](double) {},
    const std::atomic<bool>* stop = nullptr)
{
    ProjectDocument document;
    QString error;
    EXPECT_TRUE(parseProjectDocument(QJsonDocument(doc).toJson(), &document, &error));
    ProjectRenderer renderer(document, out);
    renderer.setStopFlag(stop);
    renderer.setProgressHandler(progress);
    return renderer.run();
}

// A clip over the whole 160x120 canvas, as the timeline builder writes them.
QJsonObject clip(const QString& path, qint64 beginMs, qint64 lengthMs, double posMs = 0,
                 double speed = 1.0, const QString& kind = "video")
{
    QJsonObject clip = mainClip(path, beginMs, lengthMs, posMs, speed, kind);
    clip.insert("transform", transform(160, 120));
    return clip;
}

} // namespace

// Each render with a cover and a title. Pictures (the last one too) and sound
// on its own sample clock last the cuts played at their speed; the output
// record chooses codecs, size, rate and container ("YouTube" is a preset: the
// extension decides); a sound with a cover shows it as long as the sound; a
// sound file keeps only the sound and its cover; packets that do not decode
// (noise before the first frame, as a damaged download has) are skipped with
// one record of their count. A missing input, an unknown encoder, no picture
// or no sound left: the render fails, names why and leaves no file. A mosaic
// result made on another machine is left out, with one note.
TEST(ProjectRenderer, EachRenderLeavesItsStreamsOrItsReason)
{
    const QString sound = clipWithSound();
    const QString missing = TestMedia::dir() + "/engine/no-such-mark.png";
    const QString dead = TestMedia::generate("engine/all-packets-damaged.mka",
                                             {"-f", "lavfi", "-i", "sine=frequency=440:duration=1",
                                              "-c:a", "libmp3lame", "-bsf:a", "noise=amount=1"});
    QFile noisy(outputPath("noise-first.mp3"));
    ASSERT_TRUE(noisy.open(QIODevice::WriteOnly));
    QFile clean(
        TestMedia::generate("engine/tone-3s.mp3", {"-f", "lavfi", "-i", "sine=duration=3"}));
    ASSERT_TRUE(clean.open(QIODevice::ReadOnly));
    quint32 state = 12345;
    for (int i = 0; i < 100000; ++i) {
        state = state * 1103515245u + 12345u;
        noisy.putChar(static_cast<char>(state >> 24));
    }
    noisy.write(clean.readAll());
    noisy.close();
    const QJsonObject image{{"type", "image"}, {"file_path", coverJpeg()}, {"range_length", 2000}};
    const QJsonObject lost{{"type", "image"}, {"file_path", missing}};
    QJsonObject whole = clip(sound, 0, 2000);
    const QJsonObject mosaic{{"name", "AIMosaic"}, {"value", "/elsewhere/mosaic.json"}};
    whole.insert("video_filters", QJsonArray{mosaic, mosaic});
    QJsonObject music = clip(toneFile(), 0, 3000, 0, 1.0, "audio_with_cover");
    music.insert("file_audio_stream_index", 0);
    AVTaskOutputParam record = output("record.mkv", "YouTube", "mp3", "H265");
    record.video.width = 320;
    record.video.height = 240;
    record.video.frameRate = 30;
    record.audio.sampleRate = 44100;
    record.audio.channels = 1;
    const QString mp4 = "h264 160x120 25, aac 48000 2, cover; ";
    const QList<std::tuple<QJsonArray, AVTaskOutputParam, QString>> rows = {
        {{whole, image}, output("whole.mp4"), mp4 + "50 pictures, 2.0 s"},
        {{clip(sound, 0, 600), clip(sound, 1200, 800, 600)},
         output("cuts.mp4"),
         mp4 + "35 pictures, 1.4 s"},
        {{clip(sound, 200, 800, 0, 0.5)}, output("slow.mp4"), mp4 + "40 pictures, 1.6 s"},
        {{clip(sound, 0, 800, 0, 2.0), clip(sound, 800, 1200, 400, 2.0)},
         output("fast.mp4"),
         mp4 + "25 pictures, 1.0 s"},
        {{clip(sound, 0, 1000)}, record, "hevc 320x240 30, mp3 44100 1, cover; 30 pictures, 1.0 s"},
        {{music}, output("music.mp4"), mp4 + "76 pictures, 3.0 s"},
        {{clip(sound, 0, 1000)},
         output("song.mp3", "mp3", "mp3"),
         "mp3 48000 2, cover; 0 pictures, 1.0 s"},
        {{clip(noisy.fileName(), 0, 3000)},
         output("damaged.m4a", "ipod"),
         "aac 48000 2, cover; 0 pictures, 3.0 s"},
        {{clip(sound, 0, 0)}, output("bad.mp4"), "nothing to play"},
        {{clip(sound, 0, 1000), lost}, output("bad.mp4"), missing},
        {{clip("/nonexistent/clip.mp4", 0, 1000)}, output("bad.mp4"), "/nonexistent/clip.mp4"},
        {{clip(sound, 0, 1000)}, output("bad.mp4", "mp4", "aac", "nosuchcodec"), "nosuchcodec"},
        {{clip(toneFile(), 0, 1000)}, output("bad.mp4"), "no decodable video stream"},
        {{clip(dead, 0, 1000)}, output("bad.m4a", "ipod"), "no sound of"},
    };
    LogCapture log;
    for (const auto& [clips, out, expected] : rows) {
        QJsonObject doc = document(160, 120, 25, clips);
        doc.insert("cover", QJsonObject{{"path", coverJpeg()}});
        doc.insert("meta_data", QJsonObject{{"title", "Engine title"}});
        const RenderOutcome outcome = render(doc, out);
        if (outcome.status == RenderStatus::Failed) {
            EXPECT_TRUE(outcome.error.contains(expected)) << outcome.error.toStdString();
            EXPECT_FALSE(QFileInfo::exists(out.outputPath));
            continue;
        }
        const Probe p = probe(out.outputPath, true);
        const double seconds = p.audioDuration > 0 ? p.audioDuration : p.formatDuration;
        EXPECT_EQ(QString("%1; %2 pictures, %3 s %4")
                      .arg(p.streams)
                      .arg(p.videoFrames)
                      .arg(seconds, 0, 'f', 1)
                      .arg(p.title)
                      .toStdString(),
                  (expected + " Engine title").toStdString());
    }
    for (const QString& file : {noisy.fileName(), dead}) {
        EXPECT_EQ(log.count("undecodable packets of the audio stream #0 of \"" + file + "\""), 1);
    }
    EXPECT_EQ(log.count("AIMosaic result \"/elsewhere/mosaic.json\" is not available here"), 1);
}

// The output looks like the same picture made by the ffmpeg program, shown
// as players show it (decoded to RGB by its tags), and states the colour of
// what it shows: a wrong range or a missing tone mapping shifts pixels by
// far more.
TEST(ProjectRenderer, PicturesLookLikeTheSameEditMadeByFfmpeg)
{
    const QString pq = "-vf zscale=tin=bt709:pin=bt709:min=bt709:t=smpte2084:p=bt2020:m=bt2020nc:"
                       "npl=100,format=yuv420p10le -c:v libx265 -x265-params log-level=error "
                       "-color_trc smpte2084 -color_primaries bt2020 -colorspace bt2020nc";
    // ffmpeg arguments that make the source from the test pattern, output codec, its pixel
    // format, primaries, transfer, matrix and range, the same picture made by ffmpeg
    const QList<std::tuple<QString, QString, QString, QString>> rows = {
        {"-c:v libx264 -pix_fmt yuv420p -color_primaries smpte170m -color_trc smpte170m "
         "-colorspace smpte170m -color_range tv",
         "h264", "yuv420p smpte170m smpte170m smpte170m tv", "null"},
        // Without a colour description H.264 leaves limited range unsaid;
        // phones describe their full-range pictures.
        {"-vf scale=out_range=pc,format=yuvj420p -c:v libx264 -color_primaries bt709 -color_trc "
         "bt709 -colorspace bt709",
         "h264", "yuv420p bt709 bt709 bt709 tv", "null"},
        {pq, "h264", "yuv420p bt709 bt709 bt709 tv",
         "zscale=t=linear:npl=100,format=gbrpf32le,zscale=p=bt709,tonemap=tonemap=hable:"
         "desat=0,zscale=t=bt709:m=bt709:r=tv,format=yuv420p"},
        {pq, "hevc", "yuv420p10le bt2020 smpte2084 bt2020nc tv", "null"},
    };
    for (const auto& [make, codec, colour, graph] : rows) {
        SCOPED_TRACE(colour.toStdString());
        const QString source = TestMedia::generate(
            QString("engine/look-%1.mp4").arg(qHash(make)),
            QStringList{"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2"} +
                make.split(' '));
        const AVTaskOutputParam out = output("look.mp4", "mp4", "aac", codec);
        const RenderOutcome outcome =
            render(document(160, 120, 25, {clip(source, 0, 2000, 0, 1.0, "video_only")}), out);
        ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
        EXPECT_EQ(probe(out.outputPath).colour, colour);
        const QString reference = outputPath("look-reference.mp4");
        ASSERT_EQ(TestMedia::run(TestMedia::ffmpeg(),
                                 {"-loglevel", "error", "-i", source, "-vf", graph, "-c:v",
                                  "libx264", "-crf", "10", "-pix_fmt", "yuv420p", reference}),
                  0);
        EXPECT_LT(pictureDifference(out.outputPath, reference, 1.0, {0, 0, 160, 120}), 5.0);
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
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), "the user's own file");
    // Other tests write into the same folder; only names of this output count.
    const QFileInfo info(out.outputPath);
    EXPECT_EQ(info.dir().entryList({"*" + info.fileName() + "*"}, QDir::Files | QDir::Hidden),
              QStringList{info.fileName()});
}

// Each file has one cue on stream 2 from the start to about 1.2 s: SubRip
// text drawn by libass, and a DVD picture overlaid. The second file's
// pictures all fall in its first 49 ms: only its first frame is looked at.
TEST(ProjectRenderer, EmbeddedSubtitlesOfRealFilesAreDrawn)
{
    const QString shared = TestMedia::sharedMediaDir();
    if (shared.isEmpty()) {
        GTEST_SKIP() << "shared media folder absent";
    }
    for (const auto& [name, atS] : {std::pair{"h264-ac3-srt-subtitle.mkv", 0.6},
                                    std::pair{"h264-ac3-vobsub-subtitle.mkv", 0.0}}) {
        QStringList shown; // with the cues, without
        for (const bool display : {true, false}) {
            QJsonObject main = mainClip(shared + "/" + name, 0, 1200, 0);
            main.insert("transform", transform(1080, 720));
            main.insert("subtitles",
                        QJsonArray{QJsonObject{{"embedded_subtitle_stream_index", 2},
                                               {"attached_file_path", shared + "/" + name},
                                               {"display", display}}});
            const AVTaskOutputParam out = output("real-subtitles.mp4");
            EXPECT_EQ(render(document(1080, 720, 25, {main}), out).status, RenderStatus::Finished);
            shown.append(out.outputPath);
        }
        const double cueArea = pictureDifference(shown[0], shown[1], atS, {0, 560, 1080, 160});
        // Above the cue only the coding of a re-encoded frame differs.
        EXPECT_GT(cueArea, 3.0) << name;
        EXPECT_LT(pictureDifference(shown[0], shown[1], atS, {0, 0, 1080, 200}), cueArea / 4.0);
    }
}
