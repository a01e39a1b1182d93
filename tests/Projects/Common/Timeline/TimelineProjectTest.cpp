// The timeline project builder fed with media facts made here, not probed from files.
#include "Common/Timeline/TimelineProject.h"
#include "Common/Records/TimelineKeys.h"
#include "Common/Timeline/TimelineProjectBuilder.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"

#include "JsonFragment.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QSize>
#include <QTemporaryDir>

using namespace Korvane;

namespace {

ContainerVideoStream video(int num, int den, qint64 ms, int width, int height, bool cover = false)
{
    return {-1, num, den, ms, cover, width, height};
}

// A 1920 x 1080 picture at 30 fps lasting 10 s in a 10.05 s file, with `audios` audio streams.
ContainerInfo hdClip(int audios = 0)
{
    return {
        10050, {video(30, 1, 10000, 1920, 1080)}, QList<ContainerAudioStream>(audios, {-1, 9990})};
}

struct Job
{
    ConvertSource source;
    ContainerInfo info = hdClip();
    QVariantMap options;
    bool probed = true;
    Job() { source.filePath = "/media/clip.mp4"; }
    QString build() const
    {
        return TimelineProjectBuilder(source, options, probed ? &info : nullptr).build();
    }
};

template <typename... Args>
QString fill(const char* pattern, const Args&... args)
{
    QString text = QString::fromUtf8(pattern);
    ((text = text.arg(args)), ...);
    return text;
}

// Every key the builder writes is one the render engine reads, or one the
// key list says is for the editor only (by the list it is written in). The
// tags under "meta_data" are the user's.
void expectEngineReadsEveryKey(const QString& text)
{
    using namespace TimelineKeys;
    const QHash<QString, QSet<QString>> editorOnly{{kVideoFilters, {kRccPrefix, kSource, kTitle}},
                                                   {kClips, {kStreamIndex}}};
    QSet<QString> read;
    ProjectDocument document;
    QString error;
    parseProjectDocument(text, &document, &error, &read);
    QSet<QString> unread;
    const std::function<void(const QJsonValue&, const QString&)> walk = [&](const QJsonValue& value,
                                                                            const QString& list) {
        for (const QJsonValue& element : value.toArray()) {
            walk(element, list);
        }
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (!read.contains(it.key()) && !editorOnly.value(list).contains(it.key())) {
                unread.insert(it.key());
            }
            if (it.key() != kMetaData) {
                walk(it.value(), it.value().isArray() ? it.key() : list);
            }
        }
    };
    walk(QJsonDocument::fromJson(text.toUtf8()).object(), QString());
    EXPECT_EQ(unread, QSet<QString>());
}

QJsonObject expectDocument(const Job& job, const QString& fragment)
{
    expectEngineReadsEveryKey(job.build());
    return expectDocument(job.build(), fragment);
}

} // namespace

TEST(TimelineProject, PlainClipMusicWithACoverStreamAndUnprobedFile)
{
    Job job;
    expectDocument(
        job, R"({"id":"/","meta_data":null,"cover":null,"preview_param":{"id":"preview_param",)"
             R"("fps":30,"width":1920,"height":1080,"audio_disabled":true,"video_disabled":null,)"
             R"("zoom":null},"tracks":[{"id":"track_0","type":"track","kind":"video","z_order":0,)"
             R"("trunk":true,"disabled":false,"mute":false}],"clips":[{"id":"clip_0",)"
             R"("type":"clip","kind":"video_only","file_path":"/media/clip.mp4",)"
             R"("track_ref":"track_0","timeline_pos":0,"range_begin":0,"range_length":10000,)"
             R"("speed":1,"stream_index":0,"file_audio_stream_index":null,"video_filters":null,)"
             R"("audio_filters":null,"subtitles":[],"transform":{"type":"transform",)"
             R"("bg_size":"1920,1080","crop":"0,0,1,1","flip_x":false,"flip_y":false,)"
             R"("rotation":0,"scale_x":null,"scale_y":null}}]})");

    // A cover alone gives no frame rate, an even size and, but for social output, no picture.
    job.info = {2800, {video(90000, 1, 0, 1401, 1399, true)}, {{-1, 2696}}};
    job.source.selfAudios = {0};
    job.options = {{"socialType", "TikTok"}};
    expectDocument(
        job, R"({"preview_param":{"video_disabled":false,"fps":25,"width":1400,)"
             R"("height":1398,"audio_disabled":null},"tracks":[{}],"clips":[)"
             R"({"kind":"audio_with_cover","range_length":2696,"file_audio_stream_index":0}]})");
    job.options.clear();
    expectDocument(job, R"({"preview_param":{"video_disabled":true}})");
    // Attached sound without cuts plays whole from the start.
    job.source.attachedAudio = {{250, "/a.mp3"}};
    expectDocument(job, R"({"clips":[{},{"file_path":"/a.mp3","timeline_pos":0,"range_begin":0,)"
                        R"("range_length":2696}]})");

    // Without probed audio streams none of the own audio tracks can be served.
    job = Job();
    job.probed = false;
    job.source.selfAudios = {0, 1};
    expectDocument(job,
                   R"({"preview_param":{"width":640},"tracks":[{}],"clips":[{"range_length":0,)"
                   R"("kind":"video_only","file_audio_stream_index":0}]})");
}

TEST(TimelineProject, FrameRateCanvasAndDurationComeFromTheRightStream)
{
    const ContainerVideoStream cover = video(90000, 1, 0, 600, 600, true);
    const QVariantMap options{
        {"fps", 23.976}, {"width", 1280}, {"height", 720}, {"duration", qint64(1) << 40}};
    using Row = std::tuple<QList<ContainerVideoStream>, qint64, QVariantMap, const char*, qint64>;
    const Row rows[] = {
        // Without a real picture the first audio stream, if it lasts, gives the length.
        {{}, 4000, {}, R"("fps":25,"width":640,"height":480,"video_disabled":true)", 4000},
        {{}, 0, {}, R"("video_disabled":true)", 5000},
        {{}, 1, {}, R"("video_disabled":true)", 1},
        // Integer division: 30000/1001 is written as 29.
        {{video(30000, 1001, 4000, 128, 72)}, 3, {}, R"("fps":29,"video_disabled":null)", 4000},
        {{video(30, 0, 0, 640, 360)}, 3000, {}, R"("fps":25,"width":640,"height":360)", 3000},
        {{cover, video(24, 1, 2500, 854, 480)}, 3, {}, R"("fps":90000,"width":854)", 2500},
        {{video(30, 1, 4000, 1920, 1080)}, 3, options, R"("fps":23.976,"height":720)", 1LL << 40},
    };
    for (const auto& [videos, audio, options, preview, length] : rows) {
        Job job;
        job.info = {5000, videos, {{-1, audio}, {-1, 7000}}};
        job.options = options;
        expectDocument(
            job, fill(R"({"preview_param":{%1},"clips":[{"range_length":%2}]})", preview, length));
    }
}

TEST(TimelineProject, CutsOwnAudioTracksAndAttachedAudio)
{
    // Own audio tracks are limited by the file's streams; every cut of every track starts
    // after the earlier cuts, at the job's speed; attached files' k-th cuts at the k-th offset.
    Job job;
    job.info = hdClip(2);
    job.source.selfAudios = {1, 0, 2};
    job.source.cut = {{1000, 3000}, {8000, 2000}, {9000, 300}};
    job.source.speed = 2.0f;
    job.source.selfSubtitles = {{2, "English"}};
    job.source.baseFilter.contrast = 5;
    job.source.effectFilter = "Anaglyph Top and Bottom";
    job.source.attachedAudio = {{250, "/music/a.mp3"}, {500, "/music/b.mp3"}};
    const QJsonObject document = expectDocument(
        job,
        R"({"tracks":[{"kind":"video"},{"id":"track_1","type":"track","kind":"audio",)"
        R"("z_order":-1,"trunk":false},{},{}],"clips":[{"id":"clip_0","kind":"video",)"
        R"("track_ref":"track_0","stream_index":0,"timeline_pos":0,"range_begin":1000,)"
        R"("range_length":3000,"speed":2,"file_audio_stream_index":1,"subtitles":null,)"
        R"("transform":{"scale_x":0.5,"scale_y":null},"video_filters":[{"name":"Contrast"},)"
        R"({"anaglyph_type":"Anaglyph Top and Bottom"}]},{"timeline_pos":1500,"range_begin":8000,)"
        R"("range_length":2000,"video_filters":[{},{}]},{"timeline_pos":2500},{"id":"clip_3",)"
        R"("track_ref":"track_1","stream_index":1,"kind":"audio","file_audio_stream_index":0,)"
        R"("transform":null,"video_filters":null},{},{"timeline_pos":2500},{"track_ref":"track_2",)"
        R"("file_path":"/music/a.mp3","file_audio_stream_index":-1,"range_begin":250},)"
        R"({"range_begin":500},{"timeline_pos":2500,"range_begin":0},{"track_ref":"track_3",)"
        R"("range_begin":250},{},{"id":"clip_11","range_begin":0}]})");
    EXPECT_EQ(document["clips"][1]["transform"], document["clips"][0]["transform"]);

    // Attached files start on the picture's track, or past own audio even if it is not served.
    for (const int first : {0, 1}) {
        job = Job();
        job.source.selfAudios = QList<qint32>(first * 2);
        job.source.attachedAudio = {{250, "/music/a.mp3"}, {500, "/music/b.mp3"}};
        expectDocument(job,
                       fill(R"({"tracks":[{},{}],"clips":[{},{"track_ref":"track_%1",)"
                            R"("stream_index":%1,"timeline_pos":0},{"track_ref":"track_%2"}]})",
                            first, first + 1));
    }
}

TEST(TimelineProject, FiltersShareOneCounterInTableOrder)
{
    QTemporaryDir effects;
    const QString effect = effects.filePath(QString::fromUtf8("Vieux film ✦"));
    ASSERT_TRUE(QDir().mkpath(effect));
    QFile config(effect + "/config.json");
    ASSERT_TRUE(
        config.open(QIODevice::WriteOnly) &&
        config.write(R"({"rcc_prefix":":/fx","source":"film.qml","title":"Vieux film ✦"})"));
    config.close();

    Job job;
    job.source.baseFilter = {-37, 2, 3, 4, 5, 6, 7, 8, 40};
    job.source.aiMosaic.path = "/ai/mosaic.json";
    job.source.aiAutoReframe.path = "/ai/reframe.json";
    job.source.effectFilter = effect;
    expectDocument(
        job, fill(R"({"clips":[{"video_filters":[{"id":"vfilter_0","type":"video_filter",)"
                  R"("name":"Brightness","value":-37},{"id":"vfilter_1","name":"Contrast",)"
                  R"("value":2},{"name":"Saturation","value":3},{"name":"Sharpen","value":4},)"
                  R"({"name":"Shadow","value":5},{"name":"HighLight","value":6},)"
                  R"({"name":"ColorTemperature","value":7},{"name":"ColorHue","value":8},)"
                  R"({"id":"vfilter_8","name":"AIMosaic","value":"/ai/mosaic.json"},)"
                  R"({"id":"vfilter_9","type":"video_filter","name":"AIAutoReframe",)"
                  R"("value":"/ai/reframe.json"},{"id":"video_filter_10","type":"video_filter",)"
                  R"("value":100,"dir_path":"%1","rcc_prefix":":/fx","source":"film.qml",)"
                  R"("title":"Vieux film ✦","kind":"video"}],"audio_filters":[)"
                  R"({"id":"afilter_11","type":"audio_filter","name":"Volume","value":40}]}]})",
                  effect));
}

// The crop, flips and rotation; a quarter turn scales by the canvas and picture
// orientations; with watermarks the zoom fits the canvas to the picture.
TEST(TimelineProject, TransformAndZoom)
{
    const CropParam turn{0, 0, 1, 1, false, false, 90};
    const QSize hd(1920, 1080);
    const QSize tall(1080, 1920);
    const std::tuple<CropParam, QSize, QSize, int, const char*, const char*> rows[] = {
        // Six significant digits, as the export engine reads them.
        {{1.0 / 3, 0.25, 0.123456789012345, 2e-7, true, false, 180},
         hd,
         hd,
         0,
         "",
         R"("crop":"0.333333,0.25,0.123457,2e-07","flip_x":true,"flip_y":false)"},
        {{0, 0, 0, 1, false, true, 90}, hd, hd, 0, "", R"("crop":"0,0,0,1","scale_x":null)"},
        // An empty canvas side is written as it is here, as the default in the preview.
        {turn, hd, {0, 1080}, 0, "", R"("bg_size":"0,1080","scale_x":null,"rotation":90)"},
        {{0, 0, 1, 1, false, false, 270}, hd, hd, 0, "", R"("scale_x":0.5625,"scale_y":0.5625)"},
        {turn, hd, tall, 0, "", R"("scale_x":1.7777778,"scale_y":1.7777778)"},
        {turn, tall, tall, 0, "", R"("scale_x":0.5625,"scale_y":0.5625)"},
        // 1.5 is landscape although 1500 div 1000 is 1.
        {turn, {1500, 1000}, hd, 0, "", R"("scale_x":0.5625)"},
        {turn, {1000, 1000}, hd, 0, "", R"("scale_x":1.7777778)"},
        // A crop narrower than the canvas, and one a pixel high.
        {{0, 0, 0.5, 1, false, false, 90}, hd, hd, 0, "", R"("scale_x":1.125)"},
        {{0, 0, 0.5, 1, false, false, 90}, tall, hd, 0, "", R"("scale_x":1.7777778)"},
        {{0, 0, 0.5625, 1, false, false, 90}, hd, hd, 0, "", R"("scale_x":1)"},
        {{0, 0, 1, 0.001, false, false, 90}, hd, hd, 0, "", R"("scale_x":0.5625)"},
        {{}, hd, {1280, 720}, 1, R"("zoom":0.6666667,"width":1920,"height":1080)", ""},
        {{}, tall, hd, 2, R"("zoom":0.5625,"width":3413.3333333,"height":1920)", ""},
        {{}, hd, {1280, 720}, 0, R"("zoom":null,"width":1280,"height":720)", ""},
        // No zoom without a canvas or a picture side.
        {{}, hd, {0, 720}, 1, R"("zoom":null)", ""},
        {{}, hd, {1280, 0}, 1, R"("zoom":null)", ""},
        {{}, {0, 1080}, hd, 1, R"("zoom":null)", ""},
    };
    for (const auto& [crop, picture, canvas, waterMarks, preview, transform] : rows) {
        Job job;
        job.info.videoStreams = {video(25, 1, 1000, picture.width(), picture.height())};
        job.source.crop = crop;
        job.source.waterMark = QList<WaterMarkParam>(waterMarks);
        job.options = {{"width", canvas.width()}, {"height", canvas.height()}};
        const QJsonObject document =
            expectDocument(job, fill(R"({"preview_param":{%1}})", preview));
        expectDocument(document["clips"][0].toObject(), fill(R"({"transform":{%1}})", transform));
    }
}

TEST(TimelineProject, SubtitlesMetaDataCoverAnaglyphAndWaterMarksOnAPlainClip)
{
    // Own streams get no title of their own; attached files their base name.
    Job job;
    job.source.filePath = QString::fromUtf8("/vidéos/日本語.mkv");
    job.source.selfSubtitles = {{3, "English"}, {5, QString()}};
    job.source.attachedSubtitle = {{250, QString(), "/subs/Sous-titres.fr.srt"},
                                   {0, "Named", "/x"}};
    job.source.metaData = {{"title", QString::fromUtf8("Été")}, {"genre", "12"}, {"track", 7}};
    job.source.coverPath = QString::fromUtf8("/covers/pochette é.png");
    job.source.effectFilter = "Anaglyph Side by Side";
    job.source.waterMark = {{"/logo.png", QPoint(640, -360), 0.5f, true, false, 270, 0.25f, 1.5f},
                            WaterMarkParam{}};
    job.source.speed = 1.5f;
    job.options = {{"export_mode", false}};
    expectDocument(
        job,
        fill(R"({"clips":[{"transform":{"scale_x":2,"scale_y":null},"video_filters":[{)"
             R"("anaglyph_type":"Anaglyph Side by Side"}],"subtitles":[{"id":"subtitle_0",)"
             R"("display":true,"embedded_subtitle_stream_index":3,"attached_file_path":"%1",)"
             R"("attached_offset":0,"title":"English"},{"display":true,"title":""},)"
             R"({"id":"subtitle_2","embedded_subtitle_stream_index":0,)"
             R"("attached_file_path":"/subs/Sous-titres.fr.srt","attached_offset":250,)"
             R"("title":"Sous-titres.fr"},{"title":"Named"}]},{"id":"clip_image_0",)"
             R"("type":"image","file_path":"/logo.png","track_ref":"track_1","timeline_pos":0,)"
             R"("range_length":10000,"alpha":0.5,"speed":1.5,"transform":{"type":null,)"
             R"("id":"transform_image_0","rotation":270,"flip_x":true,"flip_y":false,)"
             R"("scale_x":0.25,"scale_y":1.5,"center_pos":"640,-360"}},{"id":"clip_image_1",)"
             R"("track_ref":"track_2","alpha":1,"transform":{"center_pos":"0,0","scale_y":1}}],)"
             R"("tracks":[{},{"id":"track_1","type":"track","kind":"effect","z_order":2,)"
             R"("trunk":false},{"id":"track_2","z_order":3}],"meta_data":{"id":"meta_data",)"
             R"("title":"Été","genre":"12","track":7},"cover":{"id":"cover",)"
             R"("path":"/covers/pochette é.png"},"preview_param":{"width":1920}})",
             job.source.filePath));
    // Shown only when the job says it is no export.
    job.options.clear();
    expectDocument(job, R"({"clips":[{"subtitles":[{},{},{},{"display":false}]},{},{}]})");
}
