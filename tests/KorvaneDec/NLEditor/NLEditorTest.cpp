// The timeline document reader, the output choices and the graph text a
// project becomes, checked by table and by handing it to libavfilter's parser.
#include "NLEditor/OutputColour.h"
#include "NLEditor/OutputFormat.h"
#include "NLEditor/ProjectDocument.h"
#include "NLEditor/RenderGraph.h"

#include "KvAVGlue/KvAVGlue.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavutil/pixdesc.h>
}

using namespace Korvane;

namespace {

// The document of `clips` with the top-level keys `more`, read as the renderer reads it.
ProjectDocument parsed(const QString& clips, const QString& more = {}, bool* ok = nullptr)
{
    ProjectDocument document;
    QString error;
    const bool read =
        parseProjectDocument(QString(R"({%1 "clips": [%2]})").arg(more, clips), &document, &error);
    EXPECT_TRUE(read || ok) << error.toStdString();
    if (ok) {
        *ok = read;
    }
    return document;
}

// A main clip read from its document keys.
MediaClip clip(const QString& keys)
{
    return parsed(QString(R"({"kind": "video", "file_path": "/a.mp4", %1})").arg(keys))
        .mainClips.value(0);
}

SourcePicture picture(int w, int h, double aspect = 1.0, int rotation = 0, bool interlaced = false,
                      bool still = false, const QString& toneMap = {})
{
    return SourcePicture{w, h, aspect, rotation, interlaced, still, toneMap};
}

// Labels of the open inputs and outputs libavfilter finds in the text.
bool parseLabels(const QString& text, QStringList* inputs, QStringList* outputs)
{
    auto graph = makeAVFilterGraphPtr();
    AVFilterInOut* in = nullptr;
    AVFilterInOut* out = nullptr;
    const int ret = avfilter_graph_parse2(graph.data(), text.toUtf8().constData(), &in, &out);
    for (AVFilterInOut* i = in; i; i = i->next) {
        inputs->append(QString::fromUtf8(i->name));
    }
    for (AVFilterInOut* o = out; o; o = o->next) {
        outputs->append(QString::fromUtf8(o->name));
    }
    avfilter_inout_free(&in);
    avfilter_inout_free(&out);
    inputs->sort();
    return ret >= 0;
}

} // namespace

TEST(FitInto, KeepsAspectCentredWithEvenSides)
{
    const QList<std::tuple<double, QSize, QSize>> rows = {
        {4.0 / 3.0, {160, 120}, {160, 120}},   {16.0 / 9.0, {160, 120}, {160, 90}},
        {0.5, {160, 120}, {60, 120}},          {1.0, {101, 51}, {50, 50}},
        {9.0 / 16.0, {1280, 720}, {404, 720}}, {0.0, {160, 120}, {160, 120}},
    };
    for (const auto& [aspect, box, expected] : rows) {
        EXPECT_EQ(fitInto(aspect, box), expected) << aspect;
    }
}

// Each clip read from its document keys, then turned into its picture chain.
TEST(MainClipVideoChain, WritesEachEditInOrder)
{
    struct Row
    {
        QString keys;
        SourcePicture picture;
        QSize canvas;
        QString expected;
    };
    const QString cut = R"("range_begin": 500, "range_length": 1000)";
    const QList<Row> rows = {
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
    };
    for (const Row& row : rows) {
        EXPECT_EQ(mainClipVideoChain(clip(row.keys), row.picture, row.canvas, "m0"), row.expected);
    }
}

TEST(OutputColour, KeepsTheInputsTagsOrToneMapsHdrIntoEightBits)
{
    const ColourTags bt709{AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG};
    const ColourTags pq{AVCOL_PRI_BT2020, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL,
                        AVCOL_RANGE_MPEG};
    const ColourTags bt601{AVCOL_PRI_SMPTE170M, AVCOL_TRC_BT709, AVCOL_SPC_SMPTE170M,
                           AVCOL_RANGE_MPEG};
    const QList<std::tuple<ColourTags, AVPixelFormat, ColourTags>> rows = {
        {bt601, AV_PIX_FMT_YUV420P, bt601},
        {ColourTags{AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG},
         AV_PIX_FMT_YUV420P, bt709},
        {ColourTags{}, AV_PIX_FMT_YUV420P, ColourTags{}},
        {ColourTags{AVCOL_PRI_BT709, AVCOL_TRC_IEC61966_2_1, AVCOL_SPC_RGB, AVCOL_RANGE_JPEG},
         AV_PIX_FMT_YUV420P,
         ColourTags{AVCOL_PRI_BT709, AVCOL_TRC_IEC61966_2_1, AVCOL_SPC_UNSPECIFIED,
                    AVCOL_RANGE_MPEG}},
        {pq, AV_PIX_FMT_YUV420P, bt709}, // with a tone mapping, as every HDR into 8 bits
        {ColourTags{AVCOL_PRI_UNSPECIFIED, AVCOL_TRC_ARIB_STD_B67}, AV_PIX_FMT_NV12, bt709},
        {pq, AV_PIX_FMT_YUV420P10LE, pq},
    };
    for (const auto& [tags, format, expected] : rows) {
        VideoStreamFacts input;
        input.primaries = tags.primaries;
        input.transfer = tags.transfer;
        input.matrix = tags.matrix;
        input.range = tags.range;
        EXPECT_TRUE(outputColour(input, format) == expected) << tags.transfer << " " << format;
        const QString chain = toneMapChain(input, format);
        EXPECT_EQ(chain.isEmpty(), !isHdrTransfer(tags.transfer) || !(expected == bt709));
        QStringList inputs;
        QStringList outputs;
        // libavfilter takes every option of it.
        EXPECT_TRUE(chain.isEmpty() ||
                    (chain.contains(QString("tin=") + av_color_transfer_name(tags.transfer)) &&
                     parseLabels("[in]" + chain + "[out]", &inputs, &outputs)));
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
    const QList<QPair<double, QStringList>> tempo = {{1.0, {}},
                                                     {0.25, {"atempo=0.5", "atempo=0.5"}},
                                                     {0.3, {"atempo=0.5", "atempo=0.6"}},
                                                     {250.0, {"atempo=100", "atempo=2.5"}}};
    for (const auto& [speed, expected] : tempo) {
        EXPECT_EQ(tempoFilters(speed), expected) << speed;
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
    QStringList inputs;
    QStringList outputs;
    // The subtitles filter opens its file while parsing: leave it out here.
    request.subtitles.clear();
    ASSERT_TRUE(parseLabels(buildVideoGraph(request), &inputs, &outputs));
    EXPECT_EQ(inputs.join(" ") + " > " + outputs.join(" "), "s0 v0 v1 w0 > vout");
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
    QStringList inputs;
    QStringList outputs;
    ASSERT_TRUE(parseLabels(text, &inputs, &outputs));
    EXPECT_EQ(inputs.join(" ") + " > " + outputs.join(" "), "a0 x0 > aout");
    // A length that rests on a file's header is not padded to.
    request.mainClips[1].toFileEnd = true;
    EXPECT_TRUE(buildAudioGraph(request).contains("normalize=0,aformat="));
    request.mainAudio = {ClipAudio{false}, ClipAudio{false}};
    request.audioClips.clear();
    EXPECT_TRUE(buildAudioGraph(request).isEmpty());
}

TEST(OutputFormat, MuxerAndEncoderChoices)
{
    // The format wins over the name; a preset name lets the extension decide.
    const QList<std::tuple<QString, QString, QString>> muxers = {
        {"mp4", "/x/out.mkv", "mp4"},     {"mkv", "/x/out.mp4", "matroska"},
        {"YouTube", "/x/out.mp4", "mp4"}, {"divx", "/x/out.avi", "avi"},
        {"", "/x/out.mov", "mov"},        {"nosuch", "/x/out.nosuchext", ""}};
    for (const auto& [format, path, muxer] : muxers) {
        EXPECT_EQ(resolveMuxer(format, path), muxer) << format.toStdString();
    }
    // video encoder, audio encoder
    const QList<QPair<QString, QString>> encoders = {{"H264", "libx264 h264"},
                                                     {"h265", "libx265 h265"},
                                                     {"HEVC", "libx265 hevc"},
                                                     {"0", " "},
                                                     {"PCM", "pcm pcm_s16le"},
                                                     {"AAC", "aac aac"},
                                                     {"", " "},
                                                     {"ADPCM", "adpcm adpcm_ima_wav"}};
    for (const auto& [codec, encoders] : encoders) {
        EXPECT_EQ(videoEncoderName(codec) + " " + audioEncoderName(codec), encoders);
    }
}

TEST(ProjectDocument, ReadsTracksClipsAndTheirParts)
{
    // Clips come sorted by timeline position; one on an unknown track is
    // still sound, one on a disabled track is not; images take their
    // track's z-order.
    const ProjectDocument doc = parsed(
        R"({"kind": "video", "file_path": "/b.mp4", "track_ref": "track_0", "timeline_pos": 1500,
            "range_begin": 4000, "range_length": 2000, "speed": 2, "file_audio_stream_index": 1},
        {"kind": "video", "file_path": "/a.mp4", "track_ref": "track_0", "range_length": 3000,
         "speed": 2, "subtitles": [{"embedded_subtitle_stream_index": 2,
         "attached_file_path": "/s.srt", "attached_offset": 700, "display": true}]},
        {"kind": "audio", "file_path": "/m.mp3", "track_ref": "track_9", "range_length": 100},
        {"kind": "audio", "file_path": "/off.mp3", "track_ref": "track_3"},
        {"type": "image", "file_path": "/w.png", "track_ref": "track_2", "alpha": 0.5,
         "timeline_pos": 500, "range_length": 1000, "speed": 2, "transform": {"center_pos":
         "100,60", "rotation": 90, "scale_x": 0.5, "scale_y": 0, "flip_x": true, "flip_y": true}})",
        R"("preview_param": {"fps": 29.0, "width": 1280, "height": 405.0},
        "meta_data": {"id": "meta_data", "title": "T"}, "cover": {"path": "/c.jpg"},
        "tracks": [{"id": "track_0", "kind": "video", "z_order": 0, "trunk": true},
                   {"id": "track_2", "kind": "effect", "z_order": 2},
                   {"id": "track_3", "kind": "audio", "disabled": true}],)");
    EXPECT_DOUBLE_EQ(doc.fps, 29.0);
    EXPECT_EQ(doc.canvas(), QSize(1280, 404));
    EXPECT_EQ(doc.metaData, QVariantMap({{"title", "T"}}));
    EXPECT_EQ(doc.coverPath, "/c.jpg");
    ASSERT_EQ(doc.mainClips.size(), 2);
    const SubtitleEntry& cue = doc.mainClips[0].subtitles.value(0);
    EXPECT_EQ(QString("%1 %2 %3 %4 %5 %6")
                  .arg(doc.mainClips[0].filePath, cue.filePath)
                  .arg(cue.embeddedStreamIndex)
                  .arg(cue.offsetMs)
                  .arg(cue.display)
                  .arg(doc.mainClips[1].fileAudioStreamIndex),
              "/a.mp4 /s.srt 2 700 1 1");
    EXPECT_DOUBLE_EQ(doc.durationMs(), 2500.0);
    ASSERT_EQ(doc.audioClips.size(), 1);
    EXPECT_EQ(doc.audioClips[0].filePath, "/m.mp3");
    ASSERT_EQ(doc.imageClips.size(), 1);
    EXPECT_EQ(doc.imageClips[0].zOrder, 2);
    // A scale of 0 keeps the natural size.
    EXPECT_EQ(imageClipChain(doc.imageClips[0]) + ";" + imageOverlayText(doc.imageClips[0]),
              "format=rgba,scale=w=max(1\\,iw*0.5):h=max(1\\,ih*1),hflip,vflip,"
              "rotate=a=1.570796327:ow=rotw(a):oh=roth(a):c=none,colorchannelmixer=aa=0.5;"
              "overlay=x=100-w/2:y=60-h/2:format=auto:enable='between(t,0.5,1)'");
}

TEST(ProjectDocument, DefaultsAndRejections)
{
    bool ok = true;
    for (const char* bad : {"{not json", "[1,2]"}) {
        QString error;
        ProjectDocument ignored;
        EXPECT_FALSE(parseProjectDocument(bad, &ignored, &error)) << bad;
    }
    parsed({}, {}, &ok);
    EXPECT_FALSE(ok); // no clip
    // Without tracks every non-audio clip is on the main track; a missing
    // preview gives 25 fps on 640x480; a speed of 0 would never end.
    const ProjectDocument doc =
        parsed(R"({"kind": "video_only", "file_path": "/v.mp4", "range_length": 1000, "speed": 0},
        {"kind": "audio", "file_path": "/a.mp3", "range_length": 5000})");
    EXPECT_DOUBLE_EQ(doc.fps, 25.0);
    EXPECT_EQ(doc.canvas(), QSize(640, 480));
    ASSERT_EQ(doc.mainClips.size(), 1);
    EXPECT_DOUBLE_EQ(doc.mainClips[0].speed, 1.0);
    EXPECT_EQ(doc.audioClips.size(), 1);
    EXPECT_DOUBLE_EQ(doc.durationMs(), 1000.0); // the main track sets the length
}

// Found by fuzzing: pixel numbers no int holds were converted as they were.
// They stick at the limit instead, whatever part of the document holds them.
TEST(ProjectDocument, HugePixelNumbersStickAtTheLimit)
{
    constexpr int kLimit = 1 << 20;
    const ProjectDocument doc =
        parsed(QString(R"({"kind": "video_only", "file_path": "/v.mp4", "range_length": 1000,
         "transform": {"bg_size": "%1,-%1"}},
        {"type": "image", "file_path": "/w.png", "range_length": 1000,
         "transform": {"center_pos": "%1,-%1"}})")
                   .arg(QString(41, QLatin1Char('7'))),
               R"("preview_param": {"width": 1e300, "height": -1e300},)");
    ASSERT_EQ(doc.imageClips.size(), 1);
    EXPECT_EQ(doc.imageClips[0].center, QPoint(kLimit, -kLimit));
    ASSERT_EQ(doc.mainClips.size(), 1);
    EXPECT_EQ(doc.mainClips[0].transform.bgSize, QSize(kLimit, -kLimit));
    EXPECT_EQ(doc.canvas(), QSize(kLimit, 2));
}
