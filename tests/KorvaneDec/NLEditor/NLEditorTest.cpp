// The timeline document reader, the output choices and the graph text a
// project becomes, checked by table and by handing it to libavfilter's parser.
#include "KorvaneDec/NLEditor/OutputFormat.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "KorvaneDec/NLEditor/RenderGraph.h"

#include "KvAVGlue/KvAVGlue.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
}

using namespace Korvane;

namespace {

// The facts of a document that the renderer goes by, or "rejected".
QString read(const QString& json)
{
    ProjectDocument doc;
    QString error;
    if (!parseProjectDocument(json, &doc, &error)) {
        return "rejected";
    }
    QStringList facts{QString::asprintf("%g fps %dx%d %g ms", doc.fps, doc.canvas().width(),
                                        doc.canvas().height(), doc.durationMs())};
    for (const MediaClip& c : doc.mainClips) {
        facts << QString::asprintf("main %s %dx%d %g", qPrintable(c.filePath),
                                   c.transform.bgSize.width(), c.transform.bgSize.height(),
                                   c.speed);
    }
    for (const MediaClip& c : doc.audioClips) {
        facts << "sound " + c.filePath;
    }
    for (const ImageClip& i : doc.imageClips) {
        facts << QString("image %1 ").arg(i.zOrder) + imageClipChain(i) + " " + imageOverlayText(i);
    }
    return facts.join(", ");
}

// A main clip read from its document keys.
MediaClip clip(const QString& keys)
{
    ProjectDocument doc;
    QString error;
    const QString json = R"({"clips": [{"kind": "video", "file_path": "/a.mp4", %1}]})";
    EXPECT_TRUE(parseProjectDocument(json.arg(keys), &doc, &error)) << error.toStdString();
    return doc.mainClips.value(0);
}

SourcePicture picture(int w, int h, double aspect = 1.0, int rotation = 0, bool interlaced = false,
                      bool still = false, const QString& toneMap = {})
{
    return SourcePicture{w, h, aspect, rotation, interlaced, still, toneMap};
}

// The open inputs and outputs libavfilter finds in the text.
QString labels(const QString& text)
{
    auto graph = makeAVFilterGraphPtr();
    AVFilterInOut* in = nullptr;
    AVFilterInOut* out = nullptr;
    QStringList names;
    if (avfilter_graph_parse2(graph.data(), text.toUtf8().constData(), &in, &out) >= 0) {
        for (AVFilterInOut* i = in; i; i = i->next) {
            names.append(QString::fromUtf8(i->name));
        }
        names.sort();
        for (AVFilterInOut* o = out; o; o = o->next) {
            names << ">" << QString::fromUtf8(o->name);
        }
    }
    avfilter_inout_free(&in);
    avfilter_inout_free(&out);
    return names.join(" ");
}

} // namespace

// Each clip read from its document keys, then turned into its picture chain.
TEST(MainClipVideoChain, WritesEachEditInOrder)
{
    const QString cut = R"("range_begin": 500, "range_length": 1000)";
    const QList<std::tuple<QString, SourcePicture, QSize, QString>> rows = {
        {cut, picture(160, 120), QSize(160, 120),
         "trim=start=0.5:end=1.5,setpts=(PTS-0.5/TB)/1,scale=160:120,setsar=1"},
        {R"("range_length": 2000, "speed": 2,
            "transform": {"bg_size": "160,120", "crop": "0.25,0,0.5,1", "rotation": 90})",
         picture(160, 120), QSize(160, 120),
         "trim=start=0:end=2,setpts=(PTS-0/TB)/2,crop=w=80:h=120:x=40:y=0:exact=1,"
         "scale=80:120,transpose=clock,pad=160:120:(ow-iw)/2:(oh-ih)/2:black,setsar=1"},
        {R"("range_length": 1000, "transform": {"bg_size": "320,240", "flip_x": true,
            "flip_y": true, "scale_x": 2})",
         picture(160, 120), QSize(160, 120),
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,hflip,vflip,scale=320:240,scale=640:240,"
         "crop=320:240,scale=160:120,setsar=1"},
        {R"("range_length": 1000, "transform": {"bg_size": "160,120", "rotation": 180})",
         picture(160, 120), QSize(160, 120),
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,scale=160:120,hflip,vflip,setsar=1"},
        {cut, picture(120, 160, 1.0, 270, true), QSize(160, 120),
         "yadif=mode=send_frame:deint=interlaced,trim=start=0.5:end=1.5,"
         "setpts=(PTS-0.5/TB)/1,transpose=cclock,scale=160:120,setsar=1"},
        {cut, picture(64, 64, 1.0, 0, false, true), QSize(160, 120),
         "scale=120:120,pad=160:120:(ow-iw)/2:(oh-ih)/2:black,setsar=1"},
        {cut, picture(128, 72, 1.0, 90, false, false, "tonemap=tonemap=hable"), QSize(72, 128),
         "trim=start=0.5:end=1.5,setpts=(PTS-0.5/TB)/1,tonemap=tonemap=hable,transpose=clock,"
         "scale=72:128,setsar=1"},
        {cut, picture(800, 640, 64.0 / 45.0), QSize(1280, 720),
         "trim=start=0.5:end=1.5,setpts=(PTS-0.5/TB)/1,scale=1280:720,setsar=1"},
        {R"("range_length": 1000, "video_filters": [{"anaglyph_type": "Anaglyph Side by Side"},
            {"name": "Contrast", "value": 50}, {"name": "Brightness"}])",
         picture(320, 120), QSize(160, 120),
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,stereo3d=sbsl:arcc,eq=contrast=1.5,"
         "scale=160:120,setsar=1"},
        {R"("range_length": 1000, "video_filters": [{"anaglyph_type": "Anaglyph Top and Bottom"}])",
         picture(160, 240), QSize(160, 120),
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,stereo3d=abl:arcc,scale=160:120,setsar=1"},
    };
    for (const auto& [keys, picture, canvas, expected] : rows) {
        EXPECT_EQ(mainClipVideoChain(clip(keys), picture, canvas, "m0").toStdString(),
                  expected.toStdString());
    }
}

TEST(ClipAudioChain, CutsRetimesFiltersAndPlaces)
{
    MediaClip c = clip(R"("range_begin": 500, "range_length": 1000, "speed": 2,
        "timeline_pos": 1500, "audio_filters": [{"name": "Volume", "value": 50},
        {"name": "Echo", "value": 10}])");
    EXPECT_EQ(clipAudioChain(c, true), "atrim=start=0.5:end=1.5,asetpts=PTS-0.5/TB,atempo=2,"
                                       "volume=0.5,adelay=delays=1500:all=1");
    c.toFileEnd = true;
    EXPECT_EQ(clipAudioChain(c, false), "atrim=start=0.5,asetpts=PTS-0.5/TB,atempo=2,volume=0.5");
    // atempo takes 0.5 to 100: other speeds are split.
    const QList<QPair<double, QString>> tempo = {
        {1.0, ""}, {0.3, "atempo=0.5,atempo=0.6"}, {250.0, "atempo=100,atempo=2.5"}};
    for (const auto& [speed, expected] : tempo) {
        EXPECT_EQ(tempoFilters(speed).join(','), expected) << speed;
    }
}

TEST(BuildVideoGraph, ParsesWithOneSourcePerClipAndImage)
{
    VideoGraphRequest request;
    request.clips = {clip(R"("range_length": 1000)"), clip(R"("range_length": 500)")};
    request.clips[1].toFileEnd = true;
    request.pictures = {picture(160, 120), picture(160, 120)};
    request.images = {ImageClip{}};
    request.subtitles = {{QStringLiteral("/tmp/a b,c'd.srt"), 0, 1000}};
    // A wide DVD picture subtitle plane: letterboxed like its film.
    request.bitmapSubtitles = {{QSize(720, 576), 16.0 / 9.0}};
    request.canvas = QSize(160, 120);
    request.output = QSize(320, 240);
    request.fps = 29.97;
    const QString text = buildVideoGraph(request);
    // Each clip at the output rate from its range's start, cut to its
    // length unless the file's end decides.
    EXPECT_TRUE(text.contains("setsar=1,fps=29.97:start_time=0,trim=end=1[c0]"));
    EXPECT_TRUE(text.contains("setsar=1,fps=29.97:start_time=0[c1]"));
    EXPECT_TRUE(text.contains("concat=n=2:v=1:a=0,fps=29.97[base0]"));
    EXPECT_TRUE(text.contains("scale=320:240,format=pix_fmts=yuv420p[vout]"));
    EXPECT_TRUE(text.contains("[s0]scale=160:90[sp0];[base1][sp0]overlay=x=(W-w)/2:y=(H-h)/2:"));
    // The subtitles filter opens its file while parsing: leave it out here.
    request.subtitles.clear();
    EXPECT_EQ(labels(buildVideoGraph(request)), "s0 v0 v1 w0 > vout");
}

TEST(BuildAudioGraph, MixesMainTrackAndPlacedClips)
{
    AudioGraphRequest request;
    request.durationMs = 3000;
    request.mainClips = {clip(R"("range_length": 1000)"), clip(R"("range_length": 1000)")};
    request.mainAudio = {ClipAudio{true}, ClipAudio{false}};
    EXPECT_FALSE(buildAudioGraph(request).contains("amix"));
    request.audioClips = {clip(R"("range_length": 2000, "timeline_pos": 1000)")};
    const QString text = buildAudioGraph(request);
    EXPECT_TRUE(text.contains("anullsrc=r=48000:cl=stereo,atrim=duration=1[ca1]"));
    EXPECT_TRUE(text.contains("[ca0][ca1]concat=n=2:v=0:a=1[amain]"));
    EXPECT_TRUE(text.contains("[amain][cx0]amix=inputs=2:duration=longest:normalize=0,"
                              "apad=whole_dur=3,atrim=end=3,"));
    EXPECT_EQ(labels(text), "a0 x0 > aout");
    // A length that rests on a file's header is not padded to.
    request.mainClips[1].toFileEnd = true;
    EXPECT_TRUE(buildAudioGraph(request).contains("normalize=0,aformat="));
    request.mainAudio = {ClipAudio{false}, ClipAudio{false}};
    request.audioClips.clear();
    EXPECT_TRUE(buildAudioGraph(request).isEmpty());
}

TEST(OutputFormat, MuxerAndEncoderChoices)
{
    // video encoder, audio encoder
    const QList<QPair<QString, QString>> encoders = {
        {"H264", "libx264 h264"},        {"h265", "libx265 h265"},
        {"HEVC", "libx265 hevc"},        {"0", " "},
        {"PCM", "pcm pcm_s16le"},        {"AAC", "aac aac"},
        {"ADPCM", "adpcm adpcm_ima_wav"}};
    for (const auto& [codec, names] : encoders) {
        EXPECT_EQ(videoEncoderName(codec) + " " + audioEncoderName(codec), names);
    }
}

// Clips come sorted by timeline position; one on an unknown track is still
// sound, one on a disabled track is not; images take their track's z-order,
// and a scale of 0 keeps their natural size. Without tracks every non-audio
// clip is on the main track, which sets the length; a missing preview gives
// 25 fps on 640x480; a speed of 0 would never end. Found by fuzzing: pixel
// numbers no int holds were converted as they were; they stick at the limit
// instead, whatever part of the document holds them.
TEST(ProjectDocument, ReadsTracksClipsAndTheirParts)
{
    const QString huge = QString(41, QLatin1Char('7'));
    const QList<QPair<QString, QString>> rows = {
        {R"({"preview_param": {"fps": 29.0, "width": 1280, "height": 405.0}, "tracks": [
            {"id": "track_0", "kind": "video", "trunk": true},
            {"id": "track_2", "kind": "effect", "z_order": 2},
            {"id": "track_3", "kind": "audio", "disabled": true}], "clips": [
            {"kind": "video", "file_path": "/b.mp4", "track_ref": "track_0", "timeline_pos": 1500,
             "range_length": 2000, "speed": 2, "transform": {"bg_size": "1280,720"}},
            {"kind": "video", "file_path": "/a.mp4", "track_ref": "track_0", "range_length": 3000,
             "speed": 2},
            {"kind": "audio", "file_path": "/m.mp3", "track_ref": "track_9", "range_length": 100},
            {"kind": "audio", "file_path": "/off.mp3", "track_ref": "track_3"},
            {"type": "image", "file_path": "/w.png", "track_ref": "track_2", "alpha": 0.5,
             "timeline_pos": 500, "range_length": 1000, "speed": 2, "transform": {"center_pos":
             "100,60", "rotation": 90, "scale_x": 0.5, "scale_y": 0, "flip_x": true, "flip_y": true}}]})",
         "29 fps 1280x404 2500 ms, main /a.mp4 -1x-1 2, main /b.mp4 1280x720 2, sound /m.mp3, "
         "image 2 format=rgba,scale=w=max(1\\,iw*0.5):h=max(1\\,ih*1),hflip,vflip,"
         "rotate=a=1.570796327:ow=rotw(a):oh=roth(a):c=none,colorchannelmixer=aa=0.5 "
         "overlay=x=100-w/2:y=60-h/2:format=auto:enable='between(t,0.5,1)'"},
        {R"({"clips": [
            {"kind": "video_only", "file_path": "/v.mp4", "range_length": 1000, "speed": 0},
            {"kind": "audio", "file_path": "/a.mp3", "range_length": 5000}]})",
         "25 fps 640x480 1000 ms, main /v.mp4 -1x-1 1, sound /a.mp3"},
        {QString(R"({"preview_param": {"width": 1e300, "height": -1e300}, "clips": [
            {"kind": "video_only", "file_path": "/v.mp4", "transform": {"bg_size": "%1,-%1"}},
            {"type": "image", "file_path": "/w.png", "range_length": 1000,
             "transform": {"center_pos": "%1,-%1"}}]})")
             .arg(huge),
         "25 fps 1048576x2 0 ms, main /v.mp4 1048576x-1048576 1, "
         "image 0 format=rgba overlay=x=1048576-w/2:y=-1048576-h/2:format=auto:"
         "enable='between(t,0,1)'"},
        {"{not json", "rejected"},
        {"[1,2]", "rejected"},
        {R"({"clips": []})", "rejected"},
    };
    for (const auto& [json, facts] : rows) {
        EXPECT_EQ(read(json).toStdString(), facts.toStdString());
    }
    ProjectDocument document;
    QString error;
    ASSERT_TRUE(parseProjectDocument(rows.first().first, &document, &error));
    EXPECT_EQ(document.tracks.size(), 3);
}
