// The timeline project builder fed with media facts made here, so that every
// branch of the probing rules is reached without real files.
#include "Common/TimelineProject.h"
#include "Common/TimelineProjectBuilder.h"

#include "JsonFragment.h"
#include "TestMedia.h"

#include <QDir>
#include <QFile>
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

QJsonObject expectDocument(const Job& job, const QString& fragment)
{
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

    // A cover alone gives no frame rate; its size is rounded down to even.
    job.info = {2800, {video(90000, 1, 0, 1401, 1399, true)}, {{-1, 2696}}};
    job.source.selfAudios = {0};
    for (const auto& [social, disabled] :
         {std::pair{"", "true"}, std::pair{"TikTok", "false"}, std::pair{"tiktok", "true"}}) {
        SCOPED_TRACE(social);
        job.options = {{"socialType", social}};
        expectDocument(job, fill(R"({"preview_param":{"video_disabled":%1,"fps":25,"width":1400,)"
                                 R"("height":1398,"audio_disabled":null},"tracks":[{}],"clips":[)"
                                 R"({"kind":"audio_with_cover","range_length":2696,)"
                                 R"("file_audio_stream_index":0}]})",
                                 disabled));
    }

    // Without probed audio streams none of the own audio tracks can be served.
    job = Job();
    job.probed = false;
    job.source.selfAudios = {0, 1};
    expectDocument(job, R"({"preview_param":{"fps":25,"width":640,"height":480,)"
                        R"("video_disabled":true,"audio_disabled":null},"tracks":[{}],)"
                        R"("clips":[{"kind":"video_only","range_length":0,)"
                        R"("file_audio_stream_index":0,"transform":{"bg_size":"640,480"}}]})");
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
        {{video(1, 1, 0, 8, 8, true)}, 1, {}, R"("fps":25,"width":8,"height":8)", 1},
        // Integer division: 30000/1001 is written as 29.
        {{video(30000, 1001, 4000, 128, 72)}, 3, {}, R"("fps":29,"video_disabled":null)", 4000},
        {{video(30, 0, 0, 640, 360)}, 3000, {}, R"("fps":25,"width":640,"height":360)", 3000},
        {{cover, video(24, 1, 2500, 854, 480)}, 3, {}, R"("fps":90000,"width":854)", 2500},
        // Two covers count as a picture, the second one's.
        {{video(0, 1, 0, 8, 8, true), cover}, 3000, {}, R"("fps":25,"width":600)", 3000},
        {{video(30, 1, 4000, 1920, 1080)}, 3, options, R"("fps":23.976,"height":720)", 1LL << 40},
    };
    for (const auto& [videos, audio, options, preview, length] : rows) {
        SCOPED_TRACE(preview);
        Job job;
        job.info = {5000, videos, {{-1, audio}, {-1, 7000}}};
        job.options = options;
        expectDocument(
            job, fill(R"({"preview_param":{%1},"clips":[{"range_length":%2}]})", preview, length));
    }
}

TEST(TimelineProject, CutsOwnAudioTracksAndAttachedAudio)
{
    // Own audio tracks are limited by the file's streams; every cut of every
    // track starts after the earlier cuts, at the job's speed.
    Job job;
    job.info = hdClip(2);
    job.source.selfAudios = {1, 0, 2};
    job.source.cut = {{1000, 3000}, {8000, 2000}};
    job.source.speed = 2.0f;
    job.source.selfSubtitles = {{2, "English"}};
    job.source.baseFilter.contrast = 5;
    const QJsonObject document = expectDocument(
        job, R"({"tracks":[{"kind":"video"},{"id":"track_1","type":"track","kind":"audio",)"
             R"("z_order":-1,"trunk":false}],"clips":[{"id":"clip_0","kind":"video",)"
             R"("track_ref":"track_0","stream_index":0,"timeline_pos":0,"range_begin":1000,)"
             R"("range_length":3000,"speed":2,"file_audio_stream_index":1,"subtitles":null,)"
             R"("video_filters":[{}]},{"id":"clip_1","timeline_pos":1500,"range_begin":8000,)"
             R"("range_length":2000,"video_filters":[{}]},{"id":"clip_2","track_ref":"track_1",)"
             R"("stream_index":1,"kind":"audio","file_audio_stream_index":0,"transform":null,)"
             R"("video_filters":null},{"id":"clip_3","timeline_pos":1500}]})");
    EXPECT_EQ(document["clips"][1]["transform"], document["clips"][0]["transform"]);

    // Without own audio the attached files start on the picture's track. Own
    // audio the file cannot serve still shifts them past the tracks created.
    const std::tuple<QList<qint32>, int, int, int> rows[] = {
        {{}, 1, 2, 0}, {{0}, 1, 3, 1}, {{0, 1}, 0, 2, 1}};
    for (const auto& [selfAudios, streams, tracks, first] : rows) {
        job = Job();
        job.source.selfAudios = selfAudios;
        job.info = hdClip(streams);
        job.source.attachedAudio = {{250, "/music/a.mp3"}, {500, "/music/b.mp3"}};
        const QJsonObject document = expectDocument(job, R"({"preview_param":{}})");
        EXPECT_EQ(document["tracks"].toArray().size(), tracks) << first;
        const QJsonArray clips = document["clips"].toArray();
        expectDocument(clips.at(clips.size() - 2).toObject(),
                       fill(R"({"file_path":"/music/a.mp3","track_ref":"track_%1",)"
                            R"("stream_index":%1,"kind":"audio","type":"clip",)"
                            R"("file_audio_stream_index":-1,"range_begin":0,"timeline_pos":0,)"
                            R"("range_length":10000,"transform":null,"subtitles":null})",
                            first));
        EXPECT_EQ(clips.last()["track_ref"].toString(), fill("track_%1", first + 1));
    }

    // With cuts the k-th cut of every attached file starts at the k-th file's
    // offset; the third cut has no third file and starts at 0.
    job = Job();
    job.source.attachedAudio = {{250, "/music/a.mp3"}, {500, "/music/b.mp3"}};
    job.source.selfAudios = {0};
    job.info = hdClip(1);
    job.source.cut = {{100, 1000}, {5000, 600}, {9000, 300}};
    job.source.speed = 0.5f;
    expectDocument(
        job, R"({"clips":[{},{},{},{"track_ref":"track_1","timeline_pos":0,"range_begin":250,)"
             R"("range_length":1000,"speed":0.5},{"timeline_pos":2000,"range_begin":500,)"
             R"("range_length":600},{"timeline_pos":3200,"range_begin":0,"range_length":300},)"
             R"({"track_ref":"track_2","range_begin":250},{"range_begin":500},)"
             R"({"id":"clip_8","timeline_pos":3200,"range_begin":0}]})");
}

TEST(TimelineProject, FiltersShareOneCounterInTableOrder)
{
    QTemporaryDir effects;
    const QString effect = effects.filePath(QString::fromUtf8("Vieux film ✦"));
    ASSERT_TRUE(QDir().mkpath(effect));
    QFile config(effect + "/config.json");
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write(
        R"({"rcc_prefix": ":/fx", "source": "film.qml", "title": "Vieux film ✦", "x": 3})");
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

    // An effect folder without configuration gives empty texts.
    job = Job();
    job.source.effectFilter = "/no/such/effect";
    job.source.baseFilter.volume = 0;
    expectDocument(job, R"({"clips":[{"video_filters":[{"id":"video_filter_0",)"
                        R"("dir_path":"/no/such/effect","rcc_prefix":"","source":"","title":""}],)"
                        R"("audio_filters":[{"id":"afilter_1","value":0}]}]})");
}

TEST(TimelineProject, AnaglyphScalesAndTransformNumbers)
{
    const std::array<const char*, 3> rows[] = {
        {"Anaglyph Top and Bottom", "", R"("scale_x":null,"scale_y":2)"},
        {"Anaglyph Top and Bottom", "cuts", R"("scale_x":0.5,"scale_y":null)"},
        {"Anaglyph Side by Side", "", R"("scale_x":2,"scale_y":null)"},
        {"Anaglyph Side by Side Top and Bottom", "cuts", R"("scale_x":2,"scale_y":null)"},
        {"Red Cyan Anaglyph", "cuts", R"("scale_x":null,"scale_y":null)"},
    };
    for (const auto& [effect, cuts, scales] : rows) {
        Job job;
        job.source.effectFilter = effect;
        if (*cuts) {
            job.source.cut = {{0, 500}, {1000, 500}};
        }
        // The 2D-to-3D source takes the process-wide number right after the transform's.
        const QString document = job.build();
        const QJsonValue id =
            QJsonDocument::fromJson(document.toUtf8())["clips"][0]["transform"]["id"];
        const QString clip = fill(R"({"transform":{%1},"video_filters":[{"id":"video_filter_0",)"
                                  R"("anaglyph_type":"%2","source":"2dTo3d_%3"}]})",
                                  scales, effect, id.toString().section('_', 1).toInt() + 1);
        expectDocument(document, fill(R"({"clips":[%1%2]})", clip, *cuts ? "," + clip : ""));
    }
}

TEST(TimelineProject, CropFlipsRotationAndQuarterTurnScale)
{
    // Six significant digits, as the export engine reads them.
    const CropParam fine{1.0 / 3, 0.25, 0.123456789012345, 2e-7, true, false, 180};
    const CropParam turn{0, 0, 1, 1, false, false, 90};
    const QSize hd(1920, 1080);
    const std::tuple<CropParam, QSize, QSize, const char*> rows[] = {
        {fine, hd, hd, R"("crop":"0.333333,0.25,0.123457,2e-07","flip_x":true,"flip_y":false)"},
        {{0, 0, 0, 1, false, true, 90}, hd, hd, R"("crop":"0,0,0,1","scale_x":null,"flip_y":true)"},
        // An empty canvas side is written as it is here, as the default in the preview.
        {turn, hd, QSize(0, 1080), R"("bg_size":"0,1080","scale_x":null,"rotation":90)"},
        {{0, 0, 1, 1, false, false, 270},
         hd,
         hd,
         R"("rotation":270,"scale_x":0.5625,"scale_y":0.5625)"},
        {turn, hd, QSize(1080, 1920), R"("scale_x":1.7777778,"scale_y":1.7777778)"},
        // 1.5 is landscape although 1500 div 1000 is 1.
        {turn, QSize(1500, 1000), hd, R"("scale_x":0.5625)"},
        {turn, QSize(1000, 1000), hd, R"("scale_x":1.7777778)"},
        {{0.25, 0, 0.5, 1, false, false, 90}, hd, hd, R"("scale_x":1.125,"scale_y":1.125)"},
    };
    for (const auto& [crop, picture, canvas, transform] : rows) {
        Job job;
        job.info.videoStreams = {video(25, 1, 1000, picture.width(), picture.height())};
        job.source.crop = crop;
        job.options = {{"width", canvas.width()}, {"height", canvas.height()}};
        expectDocument(job, fill(R"({"clips":[{"transform":{%1}}]})", transform));
    }
}

TEST(TimelineProject, ZoomFitsTheCanvasToThePictureWhenThereAreWaterMarks)
{
    const std::tuple<QSize, QSize, int, const char*> rows[] = {
        {{1280, 720}, {1920, 1080}, 1, R"("zoom":0.6666667,"width":1920,"height":1080)"},
        {{720, 1280}, {1920, 1080}, 1, R"("zoom":0.375,"width":1920,"height":3413.3333333)"},
        {{1920, 1080}, {1080, 1920}, 2, R"("zoom":0.5625,"width":3413.3333333,"height":1920)"},
        {{1280, 720}, {1920, 1080}, 0, R"("zoom":null,"width":1280,"height":720)"},
    };
    for (const auto& [canvas, picture, waterMarks, preview] : rows) {
        Job job;
        job.info.videoStreams = {video(25, 1, 1000, picture.width(), picture.height())};
        job.source.waterMark = QList<WaterMarkParam>(waterMarks);
        job.options = {{"width", canvas.width()}, {"height", canvas.height()}};
        expectDocument(job, fill(R"({"preview_param":{%1}})", preview));
    }
}

TEST(TimelineProject, SubtitlesMetaDataAndCover)
{
    // Own streams get no title of their own; attached files their base name.
    Job job;
    job.source.filePath = QString::fromUtf8("/vidéos/日本語.mkv");
    job.source.selfSubtitles = {{3, "English"}, {5, QString()}};
    job.source.attachedSubtitle = {{250, QString(), "/subs/Sous-titres.fr.srt"},
                                   {0, "Named", "/x"}};
    job.source.metaData = {{"title", QString::fromUtf8("Été")}, {"genre", "12"}, {"track", 7}};
    job.source.coverPath = QString::fromUtf8("/covers/pochette é.png");
    for (const auto& [options, display] : {std::pair{QVariantMap{}, "false"},
                                           {{{"export_mode", false}}, "true"},
                                           {{{"export_mode", true}}, "false"}}) {
        job.options = options;
        expectDocument(
            job, fill(R"({"clips":[{"subtitles":[{"id":"subtitle_0","display":%1,)"
                      R"("embedded_subtitle_stream_index":3,"attached_file_path":"%2",)"
                      R"("attached_offset":0,"title":"English"},{"display":%1,"title":""},)"
                      R"({"id":"subtitle_2","embedded_subtitle_stream_index":0,)"
                      R"("attached_file_path":"/subs/Sous-titres.fr.srt","attached_offset":250,)"
                      R"("title":"Sous-titres.fr"},{"title":"Named"}]}],"meta_data":{)"
                      R"("id":"meta_data","title":"Été","genre":"12","track":7},"cover":{)"
                      R"("id":"cover","path":"/covers/pochette é.png"},)"
                      R"("preview_param":{"width":1920}})",
                      display, job.source.filePath));
    }
}

// A cover picture made by ffmpeg, so that its size comes from a real PNG header;
// an unreadable one gives an empty canvas, written as the default in the preview.
TEST(TimelineProject, CoverPicturesAndWaterMarks)
{
    const QString cover =
        TestMedia::generate(QString::fromUtf8("timeline/pochette été.png"),
                            {"-f", "lavfi", "-i", "color=s=321x243", "-vframes", "1"});
    ASSERT_FALSE(cover.isEmpty());
    for (const auto& [path, preview, canvas] :
         {std::tuple{cover, 320, "320,242"}, {QString("/no/such.png"), 640, "0,0"}}) {
        Job job;
        job.info = {0, {video(1, 1, 0, 1400, 1400, true)}, {{-1, 2000}}};
        job.source.coverPath = path;
        expectDocument(job, fill(R"({"preview_param":{"width":%1},"clips":[{"transform":{)"
                                 R"("bg_size":"%2"}}]})",
                                 preview, canvas));
    }

    Job job;
    job.info = hdClip(1);
    job.source.selfAudios = {0};
    job.source.attachedAudio = {{0, "/music/a.mp3"}};
    job.source.waterMark = {{"/logo.png", QPoint(640, -360), 0.5f, true, false, 270, 0.25f, 1.5f},
                            WaterMarkParam{}};
    job.source.speed = 1.5f;
    job.source.cut = {{0, 1200}, {4000, 800}};
    expectDocument(
        job, R"({"tracks":[{},{},{"id":"track_2","type":"track","kind":"effect","z_order":2,)"
             R"("trunk":false},{"id":"track_3","kind":"effect","z_order":3}],"clips":[{},{},{},)"
             R"({},{"id":"clip_image_0","type":"image","file_path":"/logo.png",)"
             R"("track_ref":"track_2","timeline_pos":0,"range_length":2000,"alpha":0.5,)"
             R"("speed":1.5,"transform":{"id":"transform_image_0","rotation":270,"flip_x":true,)"
             R"("flip_y":false,"scale_x":0.25,"scale_y":1.5,"center_pos":"640,-360",)"
             R"("type":null}},{"id":"clip_image_1","track_ref":"track_3","alpha":1,)"
             R"("transform":{"center_pos":"0,0","scale_y":1}}]})");
}

// makeTimelineProjectJson probes the file itself: a second at 30000/1001 in a
// folder whose name is not ASCII.
TEST(TimelineProjectMedia, GeneratedFile)
{
    ConvertSource source;
    source.filePath = TestMedia::generate(
        QString::fromUtf8("timeline/vidéos été/ntsc 日本.mp4"),
        {"-f", "lavfi", "-i", "testsrc=s=320x240:r=30000/1001:d=1", "-f", "lavfi", "-i", "sine=d=1",
         "-c:v", "libx264", "-c:a", "aac", "-shortest"});
    ASSERT_FALSE(source.filePath.isEmpty());
    source.selfAudios = {1};
    const QJsonObject document = expectDocument(
        makeTimelineProjectJson(source, {}),
        R"({"preview_param":{"fps":29,"width":320,"height":240,"video_disabled":null,)"
        R"("audio_disabled":null},"clips":[{"kind":"video","file_audio_stream_index":1}]})");
    EXPECT_NEAR(document["clips"][0]["range_length"].toDouble(), 1000, 50);
}
