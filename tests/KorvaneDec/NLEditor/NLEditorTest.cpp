// The timeline document reader, the output choices and the graph text a
// project becomes, checked by table and by handing it to libavfilter's parser.
#include "NLEditor/OutputColour.h"
#include "NLEditor/OutputFormat.h"
#include "NLEditor/ProjectDocument.h"
#include "NLEditor/RenderGraph.h"

#include "KvAVGlue/KvAVGlue.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavutil/pixdesc.h>
}

using namespace Korvane;

namespace {

MediaClip clip(qint64 begin, qint64 length, double speed = 1.0)
{
    MediaClip c;
    c.kind = QStringLiteral("video");
    c.rangeBeginMs = begin;
    c.rangeLengthMs = length;
    c.speed = speed;
    return c;
}

SourcePicture picture(int w, int h)
{
    SourcePicture p;
    p.width = w;
    p.height = h;
    return p;
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
    struct Row
    {
        double aspect;
        QSize box;
        QSize expected;
    };
    const QList<Row> rows = {
        {4.0 / 3.0, {160, 120}, {160, 120}},   {16.0 / 9.0, {160, 120}, {160, 90}},
        {0.5, {160, 120}, {60, 120}},          {1.0, {101, 51}, {50, 50}},
        {9.0 / 16.0, {1280, 720}, {404, 720}}, {0.0, {160, 120}, {160, 120}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.aspect);
        EXPECT_EQ(fitInto(row.aspect, row.box), row.expected);
    }
}

TEST(MainClipVideoChain, WritesEachEditInOrder)
{
    struct Row
    {
        const char* name;
        MediaClip clip;
        SourcePicture picture;
        QSize canvas;
        QString expected;
    };
    const MediaClip plain = clip(500, 1000);
    auto edited = [](QSize bg, QRectF crop, int rotation, bool flip = false, double scale = 1.0) {
        MediaClip c = clip(0, 1000);
        c.hasTransform = true;
        c.transform.bgSize = bg;
        c.transform.crop = crop;
        c.transform.rotation = rotation;
        c.transform.flipX = c.transform.flipY = flip;
        c.transform.scaleX = scale;
        return c;
    };
    MediaClip cropped = edited({160, 120}, {0.25, 0, 0.5, 1}, 90);
    cropped.rangeLengthMs = 2000;
    cropped.speed = 2.0;
    const MediaClip scaled = edited({320, 240}, {0, 0, 1, 1}, 0, true, 2.0);
    const MediaClip upsideDown = edited({160, 120}, {0, 0, 1, 1}, 180);
    // width, height, sample aspect, rotation, interlaced, still, tone mapping
    const SourcePicture interlacedTurned{120, 160, 1.0, 270, true};
    const SourcePicture still{64, 64, 1.0, 0, false, true};
    const SourcePicture hdrTurned{128, 72, 1.0, 90, false, false, "tonemap=tonemap=hable"};
    const SourcePicture anamorphic{800, 640, 64.0 / 45.0};
    MediaClip sideBySide = clip(0, 1000);
    sideBySide.videoFilters = {{"", 0, "Anaglyph Side by Side"}, {"Contrast", 50}, {"Brightness"}};
    MediaClip toEnd = plain;
    toEnd.toFileEnd = true;
    const QList<Row> rows = {
        {"cut_only",
         plain,
         picture(160, 120),
         {160, 120},
         "trim=start=0.5:end=1.5,setpts=(PTS-0.5/TB)/1,scale=160:120,setsar=1"},
        {"crop_then_turn",
         cropped,
         picture(160, 120),
         {160, 120},
         "trim=start=0:end=2,setpts=(PTS-0/TB)/2,crop=w=80:h=120:x=40:y=0:exact=1,"
         "scale=80:120,transpose=clock,pad=160:120:(ow-iw)/2:(oh-ih)/2:black,setsar=1"},
        {"flips_scale_box_to_canvas",
         scaled,
         picture(160, 120),
         {160, 120},
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,hflip,vflip,scale=320:240,scale=640:240,"
         "crop=320:240,scale=160:120,setsar=1"},
        {"upside_down",
         upsideDown,
         picture(160, 120),
         {160, 120},
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,scale=160:120,hflip,vflip,setsar=1"},
        {"file_rotation_and_fields",
         plain,
         interlacedTurned,
         {160, 120},
         "yadif=mode=send_frame:deint=interlaced,trim=start=0.5:end=1.5,"
         "setpts=(PTS-0.5/TB)/1,transpose=cclock,scale=160:120,setsar=1"},
        {"still_picture",
         plain,
         still,
         {160, 120},
         "scale=120:120,pad=160:120:(ow-iw)/2:(oh-ih)/2:black,setsar=1"},
        {"tone_mapped_before_turning",
         plain,
         hdrTurned,
         {72, 128},
         "trim=start=0.5:end=1.5,setpts=(PTS-0.5/TB)/1,tonemap=tonemap=hable,transpose=clock,"
         "scale=72:128,setsar=1"},
        {"anamorphic",
         plain,
         anamorphic,
         {1280, 720},
         "trim=start=0.5:end=1.5,setpts=(PTS-0.5/TB)/1,scale=1280:720,setsar=1"},
        {"to_the_file_end",
         toEnd,
         picture(160, 120),
         {160, 120},
         "trim=start=0.5,setpts=(PTS-0.5/TB)/1,scale=160:120,setsar=1"},
        {"anaglyph_then_colour",
         sideBySide,
         picture(320, 120),
         {160, 120},
         "trim=start=0:end=1,setpts=(PTS-0/TB)/1,stereo3d=sbsl:arcc,eq=contrast=1.5,"
         "scale=160:120,setsar=1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(mainClipVideoChain(row.clip, row.picture, row.canvas, "m0").toStdString(),
                  row.expected.toStdString());
    }
}

TEST(OutputColour, KeepsTheInputsTagsOrToneMapsHdrIntoEightBits)
{
    auto tags = [](AVColorPrimaries p, AVColorTransferCharacteristic t, AVColorSpace m,
                   AVColorRange r) {
        return ColourTags{p, t, m, r};
    };
    const ColourTags bt709 =
        tags(AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG);
    const ColourTags pq =
        tags(AVCOL_PRI_BT2020, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_MPEG);
    const ColourTags bt601 =
        tags(AVCOL_PRI_SMPTE170M, AVCOL_TRC_BT709, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG);
    struct Row
    {
        ColourTags input;
        AVPixelFormat output;
        ColourTags expected; // with a tone mapping when it is bt709 from HDR
    };
    const Row rows[] = {
        {bt601, AV_PIX_FMT_YUV420P, bt601},
        {tags(AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG),
         AV_PIX_FMT_YUV420P, bt709},
        {ColourTags{}, AV_PIX_FMT_YUV420P, ColourTags{}},
        {tags(AVCOL_PRI_BT709, AVCOL_TRC_IEC61966_2_1, AVCOL_SPC_RGB, AVCOL_RANGE_JPEG),
         AV_PIX_FMT_YUV420P,
         tags(AVCOL_PRI_BT709, AVCOL_TRC_IEC61966_2_1, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_MPEG)},
        {pq, AV_PIX_FMT_YUV420P, bt709},
        {tags(AVCOL_PRI_UNSPECIFIED, AVCOL_TRC_ARIB_STD_B67, AVCOL_SPC_UNSPECIFIED,
              AVCOL_RANGE_UNSPECIFIED),
         AV_PIX_FMT_NV12, bt709},
        {pq, AV_PIX_FMT_YUV420P10LE, pq},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(av_color_transfer_name(row.input.transfer));
        VideoStreamFacts input;
        input.primaries = row.input.primaries;
        input.transfer = row.input.transfer;
        input.matrix = row.input.matrix;
        input.range = row.input.range;
        EXPECT_TRUE(outputColour(input, row.output) == row.expected);
        const QString chain = toneMapChain(input, row.output);
        EXPECT_EQ(chain.isEmpty(),
                  !isHdrTransfer(input.transfer) ||
                      row.output != AV_PIX_FMT_YUV420P && row.output != AV_PIX_FMT_NV12);
        if (!chain.isEmpty()) {
            // libavfilter takes every option of it, and the picture ends in SDR 8-bit.
            QStringList inputs;
            QStringList outputs;
            EXPECT_TRUE(parseLabels("[in]" + chain + "[out]", &inputs, &outputs));
            EXPECT_TRUE(chain.contains(QString("tin=") + av_color_transfer_name(input.transfer)));
            EXPECT_TRUE(chain.endsWith("zscale=t=bt709:m=bt709:r=tv,format=yuv420p"));
        }
    }
}

TEST(TempoFilters, SplitsSpeedsOutsideAtempoRange)
{
    struct Row
    {
        double speed;
        QStringList expected;
    };
    const QList<Row> rows = {
        {1.0, {}},
        {2.0, {"atempo=2"}},
        {0.5, {"atempo=0.5"}},
        {0.25, {"atempo=0.5", "atempo=0.5"}},
        {0.3, {"atempo=0.5", "atempo=0.6"}},
        {250.0, {"atempo=100", "atempo=2.5"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.speed);
        EXPECT_EQ(tempoFilters(row.speed), row.expected);
    }
}

TEST(ClipAudioChain, CutsRetimesFiltersAndPlaces)
{
    MediaClip c = clip(500, 1000, 2.0);
    c.timelinePosMs = 1500;
    c.audioFilters.append({QStringLiteral("Volume"), 50});
    c.audioFilters.append({QStringLiteral("Echo"), 10});
    EXPECT_EQ(clipAudioChain(c, true),
              "atrim=start=0.5:end=1.5,asetpts=PTS-0.5/TB,atempo=2,volume=0.5,"
              "adelay=delays=1500:all=1");
    EXPECT_EQ(clipAudioChain(c, false),
              "atrim=start=0.5:end=1.5,asetpts=PTS-0.5/TB,atempo=2,volume=0.5");
    c.toFileEnd = true;
    EXPECT_EQ(clipAudioChain(c, false), "atrim=start=0.5,asetpts=PTS-0.5/TB,atempo=2,volume=0.5");
}

TEST(ImageClip, ChainAndOverlayFollowTheClip)
{
    ImageClip image;
    image.center = QPoint(100, 60);
    image.alpha = 0.5;
    EXPECT_EQ(imageClipChain(image), "format=rgba,colorchannelmixer=aa=0.5");
    EXPECT_EQ(imageOverlayText(image), "overlay=x=100-w/2:y=60-h/2:format=auto");

    image.alpha = 1.0;
    image.scaleX = 0.5;
    image.scaleY = 0.0; // unset in the document: natural size
    image.flipX = true;
    image.flipY = true;
    image.rotation = 90;
    EXPECT_EQ(imageClipChain(image),
              "format=rgba,scale=w=max(1\\,iw*0.5):h=max(1\\,ih*1),hflip,vflip,"
              "rotate=a=1.570796327:ow=rotw(a):oh=roth(a):c=none");
    image.timelinePosMs = 500;
    image.rangeLengthMs = 1000;
    image.speed = 2.0;
    EXPECT_EQ(imageOverlayText(image),
              "overlay=x=100-w/2:y=60-h/2:format=auto:enable='between(t,0.5,1)'");
}

TEST(BuildVideoGraph, ParsesWithOneSourcePerClipAndImage)
{
    VideoGraphRequest request;
    request.clips = {clip(0, 1000), clip(1500, 500)};
    request.clips[1].toFileEnd = true;
    request.pictures = {picture(160, 120), picture(160, 120)};
    ImageClip image;
    image.center = QPoint(20, 20);
    request.images = {image};
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
    EXPECT_EQ(inputs, QStringList({"s0", "v0", "v1", "w0"}));
    EXPECT_EQ(outputs, QStringList({"vout"}));
}

TEST(BuildAudioGraph, MixesMainTrackAndPlacedClips)
{
    AudioGraphRequest request;
    request.durationMs = 3000;
    EXPECT_TRUE(buildAudioGraph(request).isEmpty());

    request.mainClips = {clip(0, 1000), clip(0, 1000)};
    request.mainAudio = {ClipAudio{true}, ClipAudio{false}};
    EXPECT_FALSE(buildAudioGraph(request).contains("amix"));
    MediaClip music = clip(0, 2000);
    music.timelinePosMs = 1000;
    request.audioClips = {music};
    const QString text = buildAudioGraph(request);
    EXPECT_TRUE(text.contains("anullsrc=r=48000:cl=stereo,atrim=duration=1[ca1]"));
    EXPECT_TRUE(text.contains("[ca0][ca1]concat=n=2:v=0:a=1[amain]"));
    EXPECT_TRUE(text.contains("[amain][cx0]amix=inputs=2:duration=longest:normalize=0,"
                              "apad=whole_dur=3,atrim=end=3,"));
    QStringList inputs;
    QStringList outputs;
    ASSERT_TRUE(parseLabels(text, &inputs, &outputs));
    EXPECT_EQ(inputs, QStringList({"a0", "x0"}));
    EXPECT_EQ(outputs, QStringList({"aout"}));

    // A length that rests on a file's header is not padded to.
    request.mainClips[1].toFileEnd = true;
    EXPECT_TRUE(buildAudioGraph(request).contains("[amain][cx0]amix=inputs=2:duration=longest:"
                                                  "normalize=0,aformat="));

    request.mainAudio = {ClipAudio{false}, ClipAudio{false}};
    request.audioClips.clear();
    EXPECT_TRUE(buildAudioGraph(request).isEmpty());
}

TEST(OutputFormat, MuxerAndEncoderChoices)
{
    struct Row
    {
        const char* format;
        const char* path;
        const char* muxer;
    };
    const Row rows[] = {
        {"mp4", "/x/out.mkv", "mp4"}, // the format wins over the name
        {"mkv", "/x/out.mp4", "matroska"},
        {"YouTube", "/x/out.mp4", "mp4"}, // preset name: extension decides
        {"divx", "/x/out.avi", "avi"},
        {"", "/x/out.mov", "mov"},
        {"nosuch", "/x/out.nosuchext", ""},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(resolveMuxer(row.format, row.path), row.muxer) << row.format;
    }
    const QList<QPair<QString, QString>> video = {{"H264", "libx264"}, {"h265", "libx265"},
                                                  {"HEVC", "libx265"}, {"mpeg4", "mpeg4"},
                                                  {"0", ""},           {"", ""}};
    for (const auto& [codec, encoder] : video) {
        EXPECT_EQ(videoEncoderName(codec), encoder) << codec.toStdString();
    }
    const QList<QPair<QString, QString>> audio = {{"PCM", "pcm_s16le"},
                                                  {"adpcm", "adpcm_ima_wav"},
                                                  {"ADPCM", "adpcm_ima_wav"},
                                                  {"AAC", "aac"},
                                                  {"0", ""}};
    for (const auto& [codec, encoder] : audio) {
        EXPECT_EQ(audioEncoderName(codec), encoder) << codec.toStdString();
    }
    ASSERT_NE(findEncoder("mp3"), nullptr); // by codec name
    EXPECT_EQ(findEncoder("mp3")->id, AV_CODEC_ID_MP3);
    EXPECT_EQ(findEncoder("nosuchcodec"), nullptr);
    for (const char* muxer : {"mp3", "ipod", "wav", "flac", "opus"}) {
        EXPECT_TRUE(isAudioOnlyMuxer(muxer)) << muxer;
    }
    for (const char* muxer : {"mp4", "matroska", "asf", ""}) {
        EXPECT_FALSE(isAudioOnlyMuxer(muxer)) << muxer;
    }
}

namespace {

bool parse(const QString& json, ProjectDocument* parsed, QString* error = nullptr)
{
    QString ignored;
    return parseProjectDocument(json, parsed, error ? error : &ignored);
}

} // namespace

TEST(ProjectDocument, ReadsTracksClipsAndTheirParts)
{
    // Clips come sorted by timeline position; one on an unknown track is
    // still sound, one on a disabled track is not.
    const char* json = R"({
  "preview_param": {"fps": 29.0, "width": 1280, "height": 405.0},
  "meta_data": {"id": "meta_data", "title": "T"},
  "cover": {"path": "/c.jpg"},
  "tracks": [
    {"id": "track_0", "kind": "video", "z_order": 0, "trunk": true},
    {"id": "track_2", "kind": "effect", "z_order": 2},
    {"id": "track_3", "kind": "audio", "disabled": true}
  ],
  "clips": [
    {"kind": "video", "file_path": "/a.mp4", "track_ref": "track_0", "timeline_pos": 1500.0,
     "range_begin": 4000, "range_length": 2000, "speed": 2.0, "file_audio_stream_index": 1},
    {"id": "clip_0", "kind": "video", "file_path": "/a.mp4", "track_ref": "track_0",
     "range_length": 3000, "speed": 2.0,
     "transform": {"bg_size": "1280,720", "crop": "0.1,0.2,0.5,0.25", "flip_x": true,
                   "rotation": 90, "scale_x": 0.5625},
     "video_filters": [{"name": "Brightness", "value": 30},
                       {"anaglyph_type": "Anaglyph Side by Side"},
                       {"name": "AIMosaic", "value": "/m.json"}],
     "audio_filters": [{"name": "Volume", "value": 50}],
     "subtitles": [{"embedded_subtitle_stream_index": 2, "attached_file_path": "/s.srt",
                    "attached_offset": 700, "display": true}]},
    {"kind": "audio", "file_path": "/m.mp3", "track_ref": "track_9", "range_length": 100},
    {"kind": "audio", "file_path": "/off.mp3", "track_ref": "track_3"},
    {"type": "image", "file_path": "/w.png", "track_ref": "track_2", "alpha": 0.5,
     "range_length": 5000, "transform": {"center_pos": "640,360", "rotation": 45, "scale_x": 2.0}}
  ]})";
    ProjectDocument parsed;
    ASSERT_TRUE(parse(json, &parsed));
    EXPECT_DOUBLE_EQ(parsed.fps, 29.0);
    EXPECT_EQ(parsed.canvas(), QSize(1280, 404));
    EXPECT_EQ(parsed.metaData, QVariantMap({{"title", "T"}}));
    EXPECT_EQ(parsed.coverPath, "/c.jpg");
    ASSERT_EQ(parsed.mainClips.size(), 2);
    const MediaClip& first = parsed.mainClips[0];
    EXPECT_EQ(first.id, "clip_0");
    EXPECT_TRUE(first.hasTransform);
    EXPECT_EQ(first.transform.bgSize, QSize(1280, 720));
    EXPECT_EQ(first.transform.crop, QRectF(0.1, 0.2, 0.5, 0.25));
    EXPECT_TRUE(first.transform.flipX && !first.transform.flipY);
    EXPECT_EQ(first.transform.rotation, 90);
    EXPECT_DOUBLE_EQ(first.transform.scaleX, 0.5625);
    ASSERT_EQ(first.videoFilters.size(), 3);
    EXPECT_EQ(first.videoFilters[0].name + first.videoFilters[1].anaglyphType +
                  first.videoFilters[2].path,
              "BrightnessAnaglyph Side by Side/m.json");
    EXPECT_EQ(first.videoFilters[0].value, 30);
    ASSERT_EQ(first.audioFilters.size(), 1);
    EXPECT_EQ(first.audioFilters[0].value, 50);
    ASSERT_EQ(first.subtitles.size(), 1);
    EXPECT_EQ(first.subtitles[0].embeddedStreamIndex, 2);
    EXPECT_EQ(first.subtitles[0].offsetMs, 700);
    EXPECT_TRUE(first.subtitles[0].display);
    const MediaClip& second = parsed.mainClips[1];
    EXPECT_EQ(second.rangeBeginMs, 4000);
    EXPECT_EQ(second.fileAudioStreamIndex, 1);
    EXPECT_FALSE(second.hasTransform);
    EXPECT_DOUBLE_EQ(parsed.durationMs(), 2500.0);
    ASSERT_EQ(parsed.audioClips.size(), 1);
    EXPECT_EQ(parsed.audioClips[0].filePath, "/m.mp3");
    ASSERT_EQ(parsed.imageClips.size(), 1);
    const ImageClip& image = parsed.imageClips[0];
    EXPECT_EQ(image.center, QPoint(640, 360));
    EXPECT_EQ(image.rotation, 45);
    EXPECT_DOUBLE_EQ(image.scaleX, 2.0);
    EXPECT_DOUBLE_EQ(image.scaleY, 1.0);
    EXPECT_DOUBLE_EQ(image.alpha, 0.5);
    EXPECT_EQ(image.zOrder, 2);
}

TEST(ProjectDocument, DefaultsAndRejections)
{
    ProjectDocument parsed;
    QString error;
    const QList<QPair<QString, QString>> bad = {{"{not json", "not valid JSON"},
                                                {"[1,2]", "not a JSON object"},
                                                {R"({"clips":[]})", "no clip"}};
    for (const auto& [json, reason] : bad) {
        EXPECT_FALSE(parse(json, &parsed, &error));
        EXPECT_TRUE(error.contains(reason)) << error.toStdString();
    }
    // Without tracks every non-audio clip is on the main track; a missing
    // preview gives 25 fps on 640x480; a speed of 0 would never end.
    ASSERT_TRUE(parse(R"({"clips": [
        {"kind": "video_only", "file_path": "/v.mp4", "range_length": 1000, "speed": 0},
        {"kind": "audio", "file_path": "/a.mp3", "range_length": 5000}]})",
                      &parsed));
    EXPECT_DOUBLE_EQ(parsed.fps, 25.0);
    EXPECT_EQ(parsed.canvas(), QSize(640, 480));
    ASSERT_EQ(parsed.mainClips.size(), 1);
    EXPECT_DOUBLE_EQ(parsed.mainClips[0].speed, 1.0);
    EXPECT_EQ(parsed.audioClips.size(), 1);
    EXPECT_DOUBLE_EQ(parsed.durationMs(), 1000.0); // the main track sets the length
}

// Found by fuzzing: pixel numbers no int holds were converted as they were.
// They stick at the limit instead, whatever part of the document holds them.
TEST(ProjectDocument, HugePixelNumbersStickAtTheLimit)
{
    constexpr int kLimit = 1 << 20;
    const QString huge = QString(41, QLatin1Char('7'));
    const QString json = QString(R"({"preview_param": {"width": 1e300, "height": -1e300}, "clips": [
        {"kind": "video_only", "file_path": "/v.mp4", "range_length": 1000,
         "transform": {"bg_size": "%1,-%1"}},
        {"type": "image", "file_path": "/w.png", "range_length": 1000,
         "transform": {"center_pos": "%1,-%1"}}]})")
                             .arg(huge);
    ProjectDocument parsed;
    ASSERT_TRUE(parse(json, &parsed));
    ASSERT_EQ(parsed.imageClips.size(), 1);
    EXPECT_EQ(parsed.imageClips[0].center, QPoint(kLimit, -kLimit));
    ASSERT_EQ(parsed.mainClips.size(), 1);
    EXPECT_EQ(parsed.mainClips[0].transform.bgSize, QSize(kLimit, -kLimit));
    EXPECT_EQ(parsed.canvas(), QSize(kLimit, 2));
}
