// The graph text a project becomes, checked by table and by handing it to
// libavfilter's own parser.
#include "NLEditor/RenderGraph.h"
#include "NLEditor/OutputColour.h"

#include "KvAVGlue/KvAVGlue.h"

#include <gtest/gtest.h>

extern "C" {
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
    auto inOwner = makeAVFilterInOutPtr(in);
    auto outOwner = makeAVFilterInOutPtr(out);
    for (AVFilterInOut* i = in; i; i = i->next) {
        inputs->append(QString::fromUtf8(i->name));
    }
    for (AVFilterInOut* o = out; o; o = o->next) {
        outputs->append(QString::fromUtf8(o->name));
    }
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
    MediaClip plain = clip(500, 1000);
    MediaClip cropped = clip(0, 2000, 2.0);
    cropped.hasTransform = true;
    cropped.transform.bgSize = QSize(160, 120);
    cropped.transform.crop = QRectF(0.25, 0, 0.5, 1);
    cropped.transform.rotation = 90;
    MediaClip scaled = clip(0, 1000);
    scaled.hasTransform = true;
    scaled.transform.bgSize = QSize(320, 240);
    scaled.transform.flipX = true;
    scaled.transform.flipY = true;
    scaled.transform.scaleX = 2.0;
    SourcePicture interlacedTurned = picture(120, 160);
    interlacedTurned.interlaced = true;
    interlacedTurned.rotation = 270;
    SourcePicture still = picture(64, 64);
    still.still = true;
    SourcePicture hdrTurned = picture(128, 72);
    hdrTurned.rotation = 90;
    hdrTurned.toneMap = QStringLiteral("tonemap=tonemap=hable");
    SourcePicture anamorphic = picture(800, 640);
    anamorphic.sampleAspect = 64.0 / 45.0;
    MediaClip sideBySide = clip(0, 1000);
    VideoFilterEntry anaglyph;
    anaglyph.anaglyphType = QStringLiteral("Anaglyph Side by Side");
    VideoFilterEntry contrast;
    contrast.name = QStringLiteral("Contrast");
    contrast.value = 50;
    VideoFilterEntry brightness;
    brightness.name = QStringLiteral("Brightness");
    sideBySide.videoFilters = {anaglyph, contrast, brightness};

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
        EXPECT_EQ(mainClipVideoChain(row.clip, row.picture, row.canvas, "m0"), row.expected);
    }
}

TEST(OutputColour, KeepsTheInputsTagsOrToneMapsHdrIntoEightBits)
{
    struct Row
    {
        const char* name;
        VideoStreamFacts input;
        AVPixelFormat output;
        ColourTags expected;
        bool toneMapped;
    };
    auto facts = [](AVColorPrimaries p, AVColorTransferCharacteristic t, AVColorSpace m,
                    AVColorRange r) {
        VideoStreamFacts f;
        f.primaries = p;
        f.transfer = t;
        f.matrix = m;
        f.range = r;
        return f;
    };
    const ColourTags bt709{AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG};
    const VideoStreamFacts pq =
        facts(AVCOL_PRI_BT2020, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_MPEG);
    const VideoStreamFacts hlg = facts(AVCOL_PRI_UNSPECIFIED, AVCOL_TRC_ARIB_STD_B67,
                                       AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED);
    const QList<Row> rows = {
        {"bt601_kept",
         facts(AVCOL_PRI_SMPTE170M, AVCOL_TRC_BT709, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG),
         AV_PIX_FMT_YUV420P,
         {AVCOL_PRI_SMPTE170M, AVCOL_TRC_BT709, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG},
         false},
        {"full_range_becomes_limited",
         facts(AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG),
         AV_PIX_FMT_YUV420P, bt709, false},
        {"unstated_stays_unstated", VideoStreamFacts{}, AV_PIX_FMT_YUV420P, ColourTags{}, false},
        {"rgb_matrix_dropped",
         facts(AVCOL_PRI_BT709, AVCOL_TRC_IEC61966_2_1, AVCOL_SPC_RGB, AVCOL_RANGE_JPEG),
         AV_PIX_FMT_YUV420P,
         {AVCOL_PRI_BT709, AVCOL_TRC_IEC61966_2_1, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_MPEG},
         false},
        {"pq_into_8_bits", pq, AV_PIX_FMT_YUV420P, bt709, true},
        {"hlg_unstated_matrix_into_8_bits", hlg, AV_PIX_FMT_NV12, bt709, true},
        {"pq_kept_in_10_bits",
         pq,
         AV_PIX_FMT_YUV420P10LE,
         {AVCOL_PRI_BT2020, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_MPEG},
         false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(outputColour(row.input, row.output) == row.expected);
        const QString chain = toneMapChain(row.input, row.output);
        EXPECT_EQ(!chain.isEmpty(), row.toneMapped);
        if (row.toneMapped) {
            // libavfilter takes every option of it, and the picture ends in SDR 8-bit.
            QStringList inputs;
            QStringList outputs;
            EXPECT_TRUE(parseLabels(QStringLiteral("[in]%1[out]").arg(chain), &inputs, &outputs));
            EXPECT_TRUE(
                chain.contains(QLatin1String("tin=") + av_color_transfer_name(row.input.transfer)));
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
    image.flipY = true;
    image.rotation = 90;
    EXPECT_EQ(imageClipChain(image), "format=rgba,scale=w=max(1\\,iw*0.5):h=max(1\\,ih*1),vflip,"
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
