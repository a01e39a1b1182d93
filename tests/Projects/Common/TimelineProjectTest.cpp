// The timeline project builder fed with media facts made here, so that every
// branch of the probing rules can be reached without real files. Documents
// are checked after parsing them back, key by key.
#include "Common/TimelineProjectBuilder.h"

#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

ContainerVideoStream videoStream(int num, int den, qint64 durationMs, int width, int height,
                                 bool attachedPic = false)
{
    ContainerVideoStream s;
    s.frameRateNum = num;
    s.frameRateDen = den;
    s.durationMs = durationMs;
    s.displayWidth = width;
    s.displayHeight = height;
    s.attachedPic = attachedPic;
    return s;
}

ContainerAudioStream audioStream(qint64 durationMs)
{
    ContainerAudioStream s;
    s.durationMs = durationMs;
    return s;
}

// A 1920 x 1080 clip at 30 fps, 10 s, with `audioCount` audio streams.
ContainerInfo hdClip(int audioCount = 0)
{
    ContainerInfo info;
    info.durationMs = 10050;
    info.videoStreams = {videoStream(30, 1, 10000, 1920, 1080)};
    for (int i = 0; i < audioCount; ++i) {
        info.audioStreams.append(audioStream(9990));
    }
    return info;
}

QJsonObject build(const ConvertSource& source, const QVariantMap& options,
                  const ContainerInfo* info)
{
    const QString text = TimelineProjectBuilder(source, options, info).build();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << text.toStdString();
    EXPECT_TRUE(document.isObject());
    return document.object();
}

QJsonObject build(const ConvertSource& source, const ContainerInfo& info,
                  const QVariantMap& options = {})
{
    return build(source, options, &info);
}

QList<QJsonObject> objects(const QJsonValue& array)
{
    QList<QJsonObject> list;
    for (const QJsonValue& value : array.toArray()) {
        list.append(value.toObject());
    }
    return list;
}

QList<QJsonObject> clipsOnTrack(const QJsonObject& document, const QString& track)
{
    QList<QJsonObject> list;
    for (const QJsonObject& clip : objects(document["clips"])) {
        if (clip["track_ref"].toString() == track) {
            list.append(clip);
        }
    }
    return list;
}

QJsonObject mainClip(const QJsonObject& document)
{
    const QList<QJsonObject> clips = clipsOnTrack(document, "track_0");
    EXPECT_FALSE(clips.isEmpty());
    return clips.value(0);
}

// The number behind "transform_%1".
int transformNumber(const QJsonObject& clip)
{
    const QString id = clip["transform"].toObject()["id"].toString();
    EXPECT_TRUE(id.startsWith("transform_")) << id.toStdString();
    return id.mid(int(strlen("transform_"))).toInt();
}

ConvertSource sourceFile(const QString& path = "/media/clip.mp4")
{
    ConvertSource s;
    s.filePath = path;
    return s;
}

} // namespace

TEST(TimelineProject, NoAudioAndNoCutsGiveOneVideoOnlyClip)
{
    const ContainerInfo info = hdClip();
    const QJsonObject doc = build(sourceFile(), info);

    EXPECT_EQ(doc["id"].toString(), "/");
    EXPECT_FALSE(doc.contains("meta_data"));
    EXPECT_FALSE(doc.contains("cover"));

    const QJsonObject preview = doc["preview_param"].toObject();
    EXPECT_EQ(preview["id"].toString(), "preview_param");
    EXPECT_EQ(preview["fps"].toDouble(), 30.0);
    EXPECT_EQ(preview["width"].toInt(), 1920);
    EXPECT_EQ(preview["height"].toInt(), 1080);
    EXPECT_EQ(preview["audio_disabled"], QJsonValue(true));
    EXPECT_FALSE(preview.contains("video_disabled"));
    EXPECT_FALSE(preview.contains("zoom"));

    const QList<QJsonObject> tracks = objects(doc["tracks"]);
    ASSERT_EQ(tracks.size(), 1);
    EXPECT_EQ(tracks[0], (QJsonObject{{"id", "track_0"},
                                      {"type", "track"},
                                      {"kind", "video"},
                                      {"z_order", 0},
                                      {"trunk", true},
                                      {"disabled", false},
                                      {"mute", false}}));

    const QList<QJsonObject> clips = objects(doc["clips"]);
    ASSERT_EQ(clips.size(), 1);
    const QJsonObject& clip = clips[0];
    EXPECT_EQ(clip["id"].toString(), "clip_0");
    EXPECT_EQ(clip["type"].toString(), "clip");
    EXPECT_EQ(clip["kind"].toString(), "video_only");
    EXPECT_EQ(clip["file_path"].toString(), "/media/clip.mp4");
    EXPECT_EQ(clip["track_ref"].toString(), "track_0");
    EXPECT_EQ(clip["timeline_pos"], QJsonValue(0));
    EXPECT_EQ(clip["range_begin"], QJsonValue(0));
    EXPECT_EQ(clip["range_length"], QJsonValue(10000)); // the stream's, not the container's
    EXPECT_EQ(clip["speed"].toDouble(), 1.0);
    EXPECT_EQ(clip["stream_index"], QJsonValue(0));
    EXPECT_FALSE(clip.contains("file_audio_stream_index"));
    EXPECT_FALSE(clip.contains("video_filters"));
    EXPECT_FALSE(clip.contains("audio_filters"));
    ASSERT_TRUE(clip["subtitles"].isArray());
    EXPECT_TRUE(clip["subtitles"].toArray().isEmpty());

    const QJsonObject transform = clip["transform"].toObject();
    EXPECT_EQ(transform["type"].toString(), "transform");
    EXPECT_EQ(transform["bg_size"].toString(), "1920,1080");
    EXPECT_EQ(transform["crop"].toString(), "0,0,1,1");
    EXPECT_EQ(transform["flip_x"], QJsonValue(false));
    EXPECT_EQ(transform["flip_y"], QJsonValue(false));
    EXPECT_EQ(transform["rotation"], QJsonValue(0));
    EXPECT_FALSE(transform.contains("scale_x"));
    EXPECT_FALSE(transform.contains("scale_y"));
}

TEST(TimelineProject, MusicFileWithCoverStream)
{
    ContainerInfo info;
    info.durationMs = 2800;
    info.videoStreams = {videoStream(90000, 1, 0, 1401, 1399, true)};
    info.audioStreams = {audioStream(2696)};

    struct Case
    {
        QVariantMap options;
        bool videoDisabled;
    };
    const Case cases[] = {
        {{}, true},
        {{{"socialType", "TikTok"}}, false},
        {{{"socialType", "Vimeo"}}, false},
        {{{"socialType", "tiktok"}}, true},
        {{{"socialType", "MP4"}}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options.value("socialType").toString().toStdString());
        ConvertSource source = sourceFile("/music/song.mp3");
        source.selfAudios = {0};
        const QJsonObject doc = build(source, info, c.options);

        const QJsonObject preview = doc["preview_param"].toObject();
        EXPECT_EQ(preview["video_disabled"], QJsonValue(c.videoDisabled));
        EXPECT_FALSE(preview.contains("audio_disabled"));
        // A cover alone gives no frame rate; its size is rounded down to even.
        EXPECT_EQ(preview["fps"].toDouble(), 25.0);
        EXPECT_EQ(preview["width"].toInt(), 1400);
        EXPECT_EQ(preview["height"].toInt(), 1398);

        ASSERT_EQ(objects(doc["tracks"]).size(), 1);
        const QJsonObject clip = mainClip(doc);
        EXPECT_EQ(clip["kind"].toString(), "audio_with_cover");
        EXPECT_EQ(clip["range_length"], QJsonValue(2696));
        EXPECT_EQ(clip["file_audio_stream_index"], QJsonValue(0));
    }
}

TEST(TimelineProject, DurationRulesWithoutARealPicture)
{
    struct Case
    {
        const char* name;
        QList<ContainerVideoStream> video;
        QList<ContainerAudioStream> audio;
        QVariantMap options;
        qint64 expected;
    };
    const Case cases[] = {
        {"audio only", {}, {audioStream(4000), audioStream(7000)}, {}, 4000},
        {"first audio 0 ms", {}, {audioStream(0), audioStream(7000)}, {}, 5000},
        {"no streams", {}, {}, {}, 5000},
        {"cover only", {videoStream(1, 1, 0, 8, 8, true)}, {audioStream(1)}, {}, 1},
        {"override", {}, {audioStream(4000)}, {{"duration", qint64(123456789012)}}, 123456789012},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ContainerInfo info;
        info.durationMs = 5000;
        info.videoStreams = c.video;
        info.audioStreams = c.audio;
        const QJsonObject doc = build(sourceFile(), info, c.options);
        EXPECT_EQ(mainClip(doc)["range_length"].toInteger(), c.expected);
        EXPECT_EQ(doc["preview_param"].toObject()["video_disabled"], QJsonValue(true));
    }
}

TEST(TimelineProject, RealPictureTakesFrameRateCanvasAndDurationFromTheRightStream)
{
    struct Case
    {
        const char* name;
        QList<ContainerVideoStream> video;
        QVariantMap options;
        double fps;
        int width;
        int height;
        qint64 duration;
    };
    const Case cases[] = {
        {"29.97 is written as 29",
         {videoStream(30000, 1001, 4000, 1280, 720)},
         {},
         29,
         1280,
         720,
         4000},
        {"59.94", {videoStream(60000, 1001, 4000, 1280, 720)}, {}, 59, 1280, 720, 4000},
        {"unknown rate keeps 25", {videoStream(0, 0, 4000, 1281, 721)}, {}, 25, 1281, 721, 4000},
        {"rate without denominator", {videoStream(30, 0, 4000, 640, 360)}, {}, 25, 640, 360, 4000},
        {"stream without duration", {videoStream(25, 1, 0, 640, 360)}, {}, 25, 640, 360, 3000},
        {"cover before the picture",
         {videoStream(90000, 1, 0, 600, 600, true), videoStream(24, 1, 2500, 854, 480)},
         {},
         90000,
         854,
         480,
         2500},
        {"two covers count as a picture",
         {videoStream(0, 1, 0, 600, 600, true), videoStream(0, 1, 0, 300, 300, true)},
         {},
         25,
         300,
         300,
         3000},
        {"options override",
         {videoStream(30, 1, 4000, 1920, 1080)},
         {{"fps", 23.976}, {"width", 1280}, {"height", 720}, {"duration", 999}},
         23.976,
         1280,
         720,
         999},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ContainerInfo info;
        info.durationMs = 5000;
        info.videoStreams = c.video;
        info.audioStreams = {audioStream(3000)};
        const QJsonObject doc = build(sourceFile(), info, c.options);
        const QJsonObject preview = doc["preview_param"].toObject();
        EXPECT_DOUBLE_EQ(preview["fps"].toDouble(), c.fps);
        EXPECT_EQ(preview["width"].toInt(), c.width);
        EXPECT_EQ(preview["height"].toInt(), c.height);
        EXPECT_FALSE(preview.contains("video_disabled"));
        EXPECT_EQ(mainClip(doc)["range_length"].toInteger(), c.duration);
        EXPECT_EQ(mainClip(doc)["kind"].toString(), "video_only");
    }
}

TEST(TimelineProject, UnprobedFileGivesTheDefaults)
{
    ConvertSource source = sourceFile();
    source.selfAudios = {0, 1};
    const QJsonObject doc = build(source, {}, nullptr);
    const QJsonObject preview = doc["preview_param"].toObject();
    EXPECT_EQ(preview["fps"].toDouble(), 25.0);
    EXPECT_EQ(preview["width"].toInt(), 640);
    EXPECT_EQ(preview["height"].toInt(), 480);
    EXPECT_EQ(preview["video_disabled"], QJsonValue(true));
    EXPECT_FALSE(preview.contains("audio_disabled"));
    // Without probed audio streams none of the own audio tracks can be served.
    ASSERT_EQ(objects(doc["tracks"]).size(), 1);
    const QList<QJsonObject> clips = objects(doc["clips"]);
    ASSERT_EQ(clips.size(), 1);
    EXPECT_EQ(clips[0]["kind"].toString(), "video_only");
    EXPECT_EQ(clips[0]["range_length"], QJsonValue(0));
    EXPECT_EQ(clips[0]["file_audio_stream_index"], QJsonValue(0));
    EXPECT_EQ(clips[0]["transform"].toObject()["bg_size"].toString(), "640,480");
}

TEST(TimelineProject, EmptyCanvasSideIsWrittenAsDefaultInPreviewButZeroInTransform)
{
    const ContainerInfo info = hdClip();
    ConvertSource source = sourceFile();
    source.crop = CropParam{0, 0, 1, 1, false, false, 90};
    source.waterMark = {WaterMarkParam{}};
    const QJsonObject doc = build(source, info, {{"width", 0}});
    const QJsonObject preview = doc["preview_param"].toObject();
    EXPECT_EQ(preview["width"].toInt(), 640);
    EXPECT_EQ(preview["height"].toInt(), 1080);
    EXPECT_FALSE(preview.contains("zoom"));
    const QJsonObject transform = mainClip(doc)["transform"].toObject();
    EXPECT_EQ(transform["bg_size"].toString(), "0,1080");
    EXPECT_FALSE(transform.contains("scale_x"));
    EXPECT_EQ(transform["rotation"], QJsonValue(90));
}

TEST(TimelineProject, TwoCutsAtDoubleSpeed)
{
    ContainerInfo info = hdClip(2);
    ConvertSource source = sourceFile();
    source.selfAudios = {1};
    source.cut = {{1000, 3000}, {8000, 2000}};
    source.speed = 2.0f;
    source.selfSubtitles = {{2, "English"}};
    source.baseFilter.contrast = 5;

    const QJsonObject doc = build(source, info);
    ASSERT_EQ(objects(doc["tracks"]).size(), 1);
    const QList<QJsonObject> clips = objects(doc["clips"]);
    ASSERT_EQ(clips.size(), 2);
    const double positions[] = {0.0, 1500.0};
    const qint64 begins[] = {1000, 8000};
    const qint64 lengths[] = {3000, 2000};
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(clips[i]["id"].toString(), QStringLiteral("clip_%1").arg(i));
        EXPECT_EQ(clips[i]["kind"].toString(), "video");
        EXPECT_EQ(clips[i]["track_ref"].toString(), "track_0");
        EXPECT_DOUBLE_EQ(clips[i]["timeline_pos"].toDouble(), positions[i]);
        EXPECT_EQ(clips[i]["range_begin"].toInteger(), begins[i]);
        EXPECT_EQ(clips[i]["range_length"].toInteger(), lengths[i]);
        EXPECT_DOUBLE_EQ(clips[i]["speed"].toDouble(), 2.0);
        EXPECT_EQ(clips[i]["file_audio_stream_index"], QJsonValue(1));
        EXPECT_FALSE(clips[i].contains("subtitles"));
        // Every main-track clip carries the one transform and filter set.
        EXPECT_EQ(clips[i]["transform"], clips[0]["transform"]);
        ASSERT_EQ(clips[i]["video_filters"].toArray().size(), 1);
        EXPECT_EQ(clips[i]["video_filters"].toArray()[0].toObject()["id"].toString(), "vfilter_0");
    }
}

TEST(TimelineProject, OwnAudioTracksAreLimitedByTheFileStreams)
{
    struct Case
    {
        QList<qint32> selfAudios;
        int audioStreams;
        int tracks;
        const char* mainKind;
    };
    const Case cases[] = {
        {{}, 3, 1, "video_only"},   {{2}, 3, 1, "video"},         {{2, 0}, 3, 2, "video"},
        {{2, 0, 1}, 2, 2, "video"}, {{0, 1}, 0, 1, "video_only"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tracks);
        ConvertSource source = sourceFile();
        source.selfAudios = c.selfAudios;
        source.cut = {{0, 100}, {500, 300}};
        const ContainerInfo info = hdClip(c.audioStreams);
        const QJsonObject doc = build(source, info);

        const QList<QJsonObject> tracks = objects(doc["tracks"]);
        ASSERT_EQ(tracks.size(), c.tracks);
        for (int t = 1; t < tracks.size(); ++t) {
            EXPECT_EQ(tracks[t]["id"].toString(), QStringLiteral("track_%1").arg(t));
            EXPECT_EQ(tracks[t]["kind"].toString(), "audio");
            EXPECT_EQ(tracks[t]["z_order"], QJsonValue(-1));
            EXPECT_EQ(tracks[t]["trunk"], QJsonValue(false));
        }
        const QList<QJsonObject> clips = objects(doc["clips"]);
        ASSERT_EQ(clips.size(), 2 * c.tracks);
        for (int i = 0; i < clips.size(); ++i) {
            const int t = i / 2;
            EXPECT_EQ(clips[i]["id"].toString(), QStringLiteral("clip_%1").arg(i));
            EXPECT_EQ(clips[i]["track_ref"].toString(), QStringLiteral("track_%1").arg(t));
            EXPECT_EQ(clips[i]["stream_index"], QJsonValue(t));
            EXPECT_EQ(clips[i]["kind"].toString(), t == 0 ? c.mainKind : "audio");
            EXPECT_EQ(clips[i].contains("transform"), t == 0);
            if (c.selfAudios.isEmpty()) {
                EXPECT_FALSE(clips[i].contains("file_audio_stream_index"));
            } else {
                EXPECT_EQ(clips[i]["file_audio_stream_index"], QJsonValue(c.selfAudios[t]));
            }
        }
        // The second cut starts after the first one's 100 ms on every track.
        EXPECT_DOUBLE_EQ(clips.last()["timeline_pos"].toDouble(), 100.0);
    }
}

TEST(TimelineProject, AttachedAudioTrackNumbers)
{
    struct Case
    {
        const char* name;
        QList<qint32> selfAudios;
        int audioStreams;
        int attachedCount;
        int tracks;
        QList<int> attachedTracks;
    };
    const Case cases[] = {
        // Without own audio the attached files start on the picture's track.
        {"no own audio", {}, 1, 2, 2, {0, 1}},
        {"one own audio", {0}, 1, 2, 3, {1, 2}},
        {"two own audio", {0, 1}, 2, 1, 3, {2}},
        // Own audio the file cannot serve still shifts them: the track given
        // to the attached file is not one of those created.
        {"own audio not in the file", {0, 1}, 0, 1, 1, {1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ConvertSource source = sourceFile();
        source.selfAudios = c.selfAudios;
        for (int i = 0; i < c.attachedCount; ++i) {
            source.attachedAudio.append({250 * (i + 1), QStringLiteral("/music/%1.mp3").arg(i)});
        }
        const ContainerInfo info = hdClip(c.audioStreams);
        const QJsonObject doc = build(source, info);
        EXPECT_EQ(objects(doc["tracks"]).size(), c.tracks);
        EXPECT_FALSE(doc["preview_param"].toObject().contains("audio_disabled"));

        QList<QJsonObject> attached;
        for (const QJsonObject& clip : objects(doc["clips"])) {
            if (clip["file_path"].toString().startsWith("/music/")) {
                attached.append(clip);
            }
        }
        ASSERT_EQ(attached.size(), c.attachedCount);
        for (int i = 0; i < c.attachedCount; ++i) {
            const QJsonObject& clip = attached[i];
            EXPECT_EQ(clip["file_path"].toString(), QStringLiteral("/music/%1.mp3").arg(i));
            EXPECT_EQ(clip["track_ref"].toString(),
                      QStringLiteral("track_%1").arg(c.attachedTracks[i]));
            EXPECT_EQ(clip["stream_index"], QJsonValue(c.attachedTracks[i]));
            EXPECT_EQ(clip["kind"].toString(), "audio");
            EXPECT_EQ(clip["type"].toString(), "clip");
            EXPECT_EQ(clip["file_audio_stream_index"], QJsonValue(-1));
            // The offset of the whole-file form is not used.
            EXPECT_EQ(clip["range_begin"], QJsonValue(0));
            EXPECT_EQ(clip["timeline_pos"], QJsonValue(0));
            EXPECT_EQ(clip["range_length"], QJsonValue(10000));
            EXPECT_FALSE(clip.contains("transform"));
            EXPECT_FALSE(clip.contains("subtitles"));
        }
    }
}

TEST(TimelineProject, AttachedAudioWithCutsTakesTheOffsetOfTheCutsIndex)
{
    ConvertSource source = sourceFile();
    source.selfAudios = {0};
    source.attachedAudio = {{700, "/music/a.mp3"}, {900, "/music/b.mp3"}};
    source.cut = {{100, 1000}, {5000, 600}, {9000, 300}};
    source.speed = 0.5f;
    const ContainerInfo info = hdClip(1);
    const QJsonObject doc = build(source, info);

    const QList<QJsonObject> clips = objects(doc["clips"]);
    ASSERT_EQ(clips.size(), 9);
    for (int i = 0; i < clips.size(); ++i) {
        EXPECT_EQ(clips[i]["id"].toString(), QStringLiteral("clip_%1").arg(i));
    }
    const double positions[] = {0, 2000, 3200};
    const qint64 lengths[] = {1000, 600, 300};
    // The third cut has no third attached file to take an offset from.
    const qint64 begins[] = {700, 900, 0};
    for (int file = 0; file < 2; ++file) {
        const QList<QJsonObject> onTrack =
            clipsOnTrack(doc, QStringLiteral("track_%1").arg(file + 1));
        ASSERT_EQ(onTrack.size(), 3);
        for (int k = 0; k < 3; ++k) {
            SCOPED_TRACE(k);
            EXPECT_DOUBLE_EQ(onTrack[k]["timeline_pos"].toDouble(), positions[k]);
            EXPECT_EQ(onTrack[k]["range_length"].toInteger(), lengths[k]);
            EXPECT_EQ(onTrack[k]["range_begin"].toInteger(), begins[k]);
            EXPECT_DOUBLE_EQ(onTrack[k]["speed"].toDouble(), 0.5);
        }
    }
}

TEST(TimelineProject, NeutralVolumeAndBrightnessWriteNoFilters)
{
    const ContainerInfo info = hdClip(1);
    ConvertSource source = sourceFile();
    source.selfAudios = {0};
    ASSERT_EQ(source.baseFilter.volume, 100);
    ASSERT_EQ(source.baseFilter.brightness, 0);
    const QJsonObject clip = mainClip(build(source, info));
    EXPECT_FALSE(clip.contains("audio_filters"));
    EXPECT_FALSE(clip.contains("video_filters"));
}

TEST(TimelineProject, EachAdjustmentWritesItsOwnFilter)
{
    struct Case
    {
        qint32 BaseFilterParam::*field;
        const char* name;
    };
    const Case cases[] = {
        {&BaseFilterParam::brightness, "Brightness"},
        {&BaseFilterParam::contrast, "Contrast"},
        {&BaseFilterParam::saturation, "Saturation"},
        {&BaseFilterParam::sharpen, "Sharpen"},
        {&BaseFilterParam::shadow, "Shadow"},
        {&BaseFilterParam::highlight, "HighLight"},
        {&BaseFilterParam::colorTemperature, "ColorTemperature"},
        {&BaseFilterParam::hue, "ColorHue"},
    };
    const ContainerInfo info = hdClip();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const qint32 value : {-37, 1}) {
            ConvertSource source = sourceFile();
            source.baseFilter.*c.field = value;
            const QJsonArray filters = mainClip(build(source, info))["video_filters"].toArray();
            ASSERT_EQ(filters.size(), 1);
            EXPECT_EQ(filters[0].toObject(), (QJsonObject{{"id", "vfilter_0"},
                                                          {"type", "video_filter"},
                                                          {"name", c.name},
                                                          {"value", value}}));
        }
    }
}

TEST(TimelineProject, AllFiltersShareOneCounterInTableOrder)
{
    QTemporaryDir effects;
    ASSERT_TRUE(effects.isValid());
    const QString effect = effects.filePath(QString::fromUtf8("Vieux film ✦"));
    ASSERT_TRUE(QDir().mkpath(effect));
    QFile config(effect + "/config.json");
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write(QString::fromUtf8("{\"rcc_prefix\": \":/fx\", \"source\": \"film.qml\", "
                                   "\"title\": \"Vieux film ✦\", \"other\": 3}")
                     .toUtf8());
    config.close();

    ConvertSource source = sourceFile();
    source.baseFilter = {1, 2, 3, 4, 5, 6, 7, 8, 40};
    source.aiMosaic.path = "/ai/mosaic.json";
    source.aiAutoReframe.path = "/ai/reframe.json";
    source.effectFilter = effect;
    const ContainerInfo info = hdClip();
    const QJsonObject clip = mainClip(build(source, info));

    const QList<QJsonObject> filters = objects(clip["video_filters"]);
    ASSERT_EQ(filters.size(), 11);
    const char* names[] = {"Brightness", "Contrast",     "Saturation",       "Sharpen",
                           "Shadow",     "HighLight",    "ColorTemperature", "ColorHue",
                           "AIMosaic",   "AIAutoReframe"};
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(filters[i]["id"].toString(), QStringLiteral("vfilter_%1").arg(i));
        EXPECT_EQ(filters[i]["name"].toString(), names[i]);
        EXPECT_EQ(filters[i]["type"].toString(), "video_filter");
        if (i < 8) {
            EXPECT_EQ(filters[i]["value"], QJsonValue(i + 1));
        }
    }
    EXPECT_EQ(filters[8]["value"].toString(), "/ai/mosaic.json");
    EXPECT_EQ(filters[9]["value"].toString(), "/ai/reframe.json");
    EXPECT_EQ(filters[10], (QJsonObject{{"id", "video_filter_10"},
                                        {"type", "video_filter"},
                                        {"value", 100},
                                        {"dir_path", effect},
                                        {"rcc_prefix", ":/fx"},
                                        {"source", "film.qml"},
                                        {"title", QString::fromUtf8("Vieux film ✦")},
                                        {"kind", "video"}}));

    const QList<QJsonObject> audio = objects(clip["audio_filters"]);
    ASSERT_EQ(audio.size(), 1);
    EXPECT_EQ(
        audio[0],
        (QJsonObject{
            {"id", "afilter_11"}, {"type", "audio_filter"}, {"name", "Volume"}, {"value", 40}}));
}

TEST(TimelineProject, EffectWithoutConfigurationGivesEmptyTexts)
{
    ConvertSource source = sourceFile();
    source.effectFilter = "/no/such/effect";
    source.baseFilter.volume = 0;
    const ContainerInfo info = hdClip();
    const QJsonObject clip = mainClip(build(source, info));
    const QList<QJsonObject> filters = objects(clip["video_filters"]);
    ASSERT_EQ(filters.size(), 1);
    EXPECT_EQ(filters[0]["id"].toString(), "video_filter_0");
    EXPECT_EQ(filters[0]["dir_path"].toString(), "/no/such/effect");
    for (const char* key : {"rcc_prefix", "source", "title"}) {
        EXPECT_TRUE(filters[0][key].isString()) << key;
        EXPECT_TRUE(filters[0][key].toString().isEmpty()) << key;
    }
    ASSERT_EQ(clip["audio_filters"].toArray().size(), 1);
    EXPECT_EQ(clip["audio_filters"].toArray()[0].toObject()["id"].toString(), "afilter_1");
    EXPECT_EQ(clip["audio_filters"].toArray()[0].toObject()["value"], QJsonValue(0));
}

TEST(TimelineProject, AnaglyphScalesDependOnTheClipForm)
{
    struct Case
    {
        const char* effect;
        bool cuts;
        double scaleX; // 0: absent
        double scaleY;
    };
    const Case cases[] = {
        {"Anaglyph Top and Bottom", false, 0, 2.0},
        {"Anaglyph Top and Bottom", true, 0.5, 0},
        {"Anaglyph Side by Side", false, 2.0, 0},
        {"Anaglyph Side by Side", true, 2.0, 0},
        {"Anaglyph Side by Side Top and Bottom", true, 2.0, 0},
        {"Red Cyan Anaglyph", true, 0, 0},
    };
    const ContainerInfo info = hdClip();
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.effect) + (c.cuts ? " with cuts" : " whole"));
        ConvertSource source = sourceFile();
        source.effectFilter = c.effect;
        if (c.cuts) {
            source.cut = {{0, 500}, {1000, 500}};
        }
        const QJsonObject doc = build(source, info);
        for (const QJsonObject& clip : clipsOnTrack(doc, "track_0")) {
            const QJsonObject transform = clip["transform"].toObject();
            EXPECT_EQ(transform.contains("scale_x"), c.scaleX != 0);
            EXPECT_EQ(transform.contains("scale_y"), c.scaleY != 0);
            EXPECT_EQ(transform["scale_x"].toDouble(), c.scaleX);
            EXPECT_EQ(transform["scale_y"].toDouble(), c.scaleY);

            const QList<QJsonObject> filters = objects(clip["video_filters"]);
            ASSERT_EQ(filters.size(), 1);
            // The 2D-to-3D source takes the process-wide number right after
            // the transform's.
            EXPECT_EQ(filters[0],
                      (QJsonObject{
                          {"id", "video_filter_0"},
                          {"anaglyph_type", c.effect},
                          {"source", QStringLiteral("2dTo3d_%1").arg(transformNumber(clip) + 1)}}));
        }
    }
}

TEST(TimelineProject, AnaglyphIsMatchedCaseSensitively)
{
    ConvertSource source = sourceFile();
    source.effectFilter = "anaglyph Top and Bottom";
    const ContainerInfo info = hdClip();
    const QJsonObject clip = mainClip(build(source, info));
    EXPECT_FALSE(clip["transform"].toObject().contains("scale_y"));
    const QList<QJsonObject> filters = objects(clip["video_filters"]);
    ASSERT_EQ(filters.size(), 1);
    EXPECT_EQ(filters[0]["dir_path"].toString(), "anaglyph Top and Bottom");
    EXPECT_FALSE(filters[0].contains("anaglyph_type"));
}

TEST(TimelineProject, TransformNumbersKeepRisingAcrossDocuments)
{
    const ContainerInfo info = hdClip();
    const int first = transformNumber(mainClip(build(sourceFile(), info)));
    EXPECT_EQ(transformNumber(mainClip(build(sourceFile(), info))), first + 1);

    ConvertSource anaglyph = sourceFile();
    anaglyph.effectFilter = "Anaglyph Side by Side";
    const QJsonObject clip = mainClip(build(anaglyph, info));
    EXPECT_EQ(transformNumber(clip), first + 2);
    EXPECT_EQ(transformNumber(mainClip(build(sourceFile(), info))), first + 4);
}

TEST(TimelineProject, CropFlipsAndRotationReachTheTransform)
{
    struct Case
    {
        CropParam crop;
        const char* text;
    };
    const Case cases[] = {
        {{0.1, 0.2, 0.5, 0.6, true, false, 180}, "0.1,0.2,0.5,0.6"},
        {{0, 0, 1, 1, false, true, 0}, "0,0,1,1"},
        {{1.0 / 3, 0.25, 0.123456789012345, 2e-7, false, false, 0},
         "0.3333333333333333,0.25,0.123456789012345,2e-07"},
    };
    const ContainerInfo info = hdClip();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ConvertSource source = sourceFile();
        source.crop = c.crop;
        const QJsonObject transform = mainClip(build(source, info))["transform"].toObject();
        EXPECT_EQ(transform["crop"].toString(), c.text);
        EXPECT_EQ(transform["flip_x"], QJsonValue(c.crop.flipX));
        EXPECT_EQ(transform["flip_y"], QJsonValue(c.crop.flipY));
        EXPECT_EQ(transform["rotation"], QJsonValue(c.crop.rotation));
        EXPECT_FALSE(transform.contains("scale_x"));
    }
}

TEST(TimelineProject, QuarterTurnScalesThePictureIntoTheCanvas)
{
    struct Case
    {
        const char* name;
        int pictureWidth;
        int pictureHeight;
        QVariantMap options;
        CropParam crop;
        float scale;
    };
    const CropParam full90{0, 0, 1, 1, false, false, 90};
    const CropParam full270{0, 0, 1, 1, false, false, 270};
    const Case cases[] = {
        {"landscape into landscape", 1920, 1080, {}, full90, 1080.0f / 1920},
        {"270 degrees", 1920, 1080, {}, full270, 1080.0f / 1920},
        {"portrait into portrait", 1080, 1920, {}, full90, 1080.0f / 1920},
        {"landscape into portrait",
         1920,
         1080,
         {{"width", 1080}, {"height", 1920}},
         full90,
         float(1920.0 / 1080)},
        // 1.5 is landscape although 1500 div 1000 is 1.
        {"3:2 into landscape", 1500, 1000, {}, full90, 1080.0f / 1920},
        {"square picture", 1000, 1000, {}, full90, float(1920.0 / 1080)},
        {"half-width crop", 1920, 1080, {}, {0.25, 0, 0.5, 1, false, false, 90}, 1080.0f / 960},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ContainerInfo info;
        info.videoStreams = {videoStream(25, 1, 1000, c.pictureWidth, c.pictureHeight)};
        ConvertSource source = sourceFile();
        source.crop = c.crop;
        QVariantMap options = c.options;
        if (!options.contains("width")) {
            options = {{"width", 1920}, {"height", 1080}};
            if (c.pictureWidth < c.pictureHeight) {
                options = {{"width", 1080}, {"height", 1920}};
            }
        }
        const QJsonObject transform =
            mainClip(build(source, info, options))["transform"].toObject();
        EXPECT_FLOAT_EQ(float(transform["scale_x"].toDouble()), c.scale);
        EXPECT_FLOAT_EQ(float(transform["scale_y"].toDouble()), c.scale);
        EXPECT_EQ(transform["rotation"], QJsonValue(c.crop.rotation));
    }
}

TEST(TimelineProject, QuarterTurnWithAnEmptyCropWritesNoScale)
{
    const ContainerInfo info = hdClip();
    ConvertSource source = sourceFile();
    source.crop = CropParam{0, 0, 0, 1, false, false, 90};
    const QJsonObject transform = mainClip(build(source, info))["transform"].toObject();
    EXPECT_FALSE(transform.contains("scale_x"));
    EXPECT_EQ(transform["crop"].toString(), "0,0,0,1");
}

TEST(TimelineProject, ZoomFitsTheCanvasToThePicture)
{
    struct Case
    {
        const char* name;
        int canvasWidth;
        int canvasHeight;
        int pictureWidth;
        int pictureHeight;
        double zoom;
        double width;
        double height;
    };
    const Case cases[] = {
        {"smaller canvas", 1280, 720, 1920, 1080, 1280.0 / 1920, 1920, 720 / (1280.0 / 1920)},
        {"portrait canvas", 720, 1280, 1920, 1080, 720.0 / 1920, 1920, 1280 / (720.0 / 1920)},
        {"portrait picture", 1920, 1080, 1080, 1920, 1080.0 / 1920, 1920 / (1080.0 / 1920), 1920},
        {"same size", 1920, 1080, 1920, 1080, 1.0, 1920, 1080},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ContainerInfo info;
        info.videoStreams = {videoStream(25, 1, 1000, c.pictureWidth, c.pictureHeight)};
        ConvertSource source = sourceFile();
        source.waterMark = {WaterMarkParam{}};
        const QJsonObject preview =
            build(source, info,
                  {{"width", c.canvasWidth}, {"height", c.canvasHeight}})["preview_param"]
                .toObject();
        EXPECT_DOUBLE_EQ(preview["zoom"].toDouble(), c.zoom);
        EXPECT_DOUBLE_EQ(preview["width"].toDouble(), c.width);
        EXPECT_DOUBLE_EQ(preview["height"].toDouble(), c.height);
    }
}

TEST(TimelineProject, NoZoomWithoutWaterMarks)
{
    const ContainerInfo info = hdClip();
    const QJsonObject preview =
        build(sourceFile(), info, {{"width", 1280}, {"height", 720}})["preview_param"].toObject();
    EXPECT_FALSE(preview.contains("zoom"));
    EXPECT_EQ(preview["width"], QJsonValue(1280));
    EXPECT_EQ(preview["height"], QJsonValue(720));
}

TEST(TimelineProject, SubtitlesOfTheWholeFileClip)
{
    struct Case
    {
        QVariantMap options;
        bool display;
    };
    const Case cases[] = {
        {{}, false},
        {{{"export_mode", false}}, true},
        {{{"export_mode", true}}, false},
    };
    const QString attachedPath = QString::fromUtf8("/subs/Sous-titres été.fr.srt");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.display);
        ConvertSource source = sourceFile(QString::fromUtf8("/vidéos/日本語.mkv"));
        source.selfSubtitles = {{3, "English"}, {5, QString()}};
        source.attachedSubtitle = {{250, QString(), attachedPath}, {0, "Named", "/subs/x.ass"}};
        const ContainerInfo info = hdClip();
        const QList<QJsonObject> subtitles =
            objects(mainClip(build(source, info, c.options))["subtitles"]);
        ASSERT_EQ(subtitles.size(), 4);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(subtitles[i]["id"].toString(), QStringLiteral("subtitle_%1").arg(i));
            EXPECT_EQ(subtitles[i]["display"], QJsonValue(c.display));
        }
        EXPECT_EQ(subtitles[0]["embedded_subtitle_stream_index"], QJsonValue(3));
        EXPECT_EQ(subtitles[0]["attached_file_path"].toString(), source.filePath);
        EXPECT_EQ(subtitles[0]["attached_offset"], QJsonValue(0));
        EXPECT_EQ(subtitles[0]["title"].toString(), "English");
        EXPECT_EQ(subtitles[1]["embedded_subtitle_stream_index"], QJsonValue(5));
        EXPECT_EQ(subtitles[1]["title"].toString(), ""); // no fallback for own streams
        EXPECT_EQ(subtitles[2]["embedded_subtitle_stream_index"], QJsonValue(0));
        EXPECT_EQ(subtitles[2]["attached_file_path"].toString(), attachedPath);
        EXPECT_EQ(subtitles[2]["attached_offset"], QJsonValue(250));
        EXPECT_EQ(subtitles[2]["title"].toString(), QString::fromUtf8("Sous-titres été.fr"));
        EXPECT_EQ(subtitles[3]["title"].toString(), "Named");
    }
}

TEST(TimelineProject, MetaDataAndCoverAreCopied)
{
    ConvertSource source = sourceFile();
    source.metaData = {{"title", QString::fromUtf8("Été")}, {"genre", "12"}, {"track", 7}};
    source.coverPath = QString::fromUtf8("/covers/pochette é.png");
    const ContainerInfo info = hdClip();
    const QJsonObject doc = build(source, info);
    EXPECT_EQ(doc["meta_data"].toObject(), (QJsonObject{{"id", "meta_data"},
                                                        {"title", QString::fromUtf8("Été")},
                                                        {"genre", "12"},
                                                        {"track", 7}}));
    EXPECT_EQ(
        doc["cover"].toObject(),
        (QJsonObject{{"id", "cover"}, {"path", QString::fromUtf8("/covers/pochette é.png")}}));
    // A real picture keeps its own size even when a cover is given.
    EXPECT_EQ(doc["preview_param"].toObject()["width"], QJsonValue(1920));
}

// Pictures made by ffmpeg, so that their sizes come from real PNG headers.
class TimelineProjectPictures : public ::testing::Test
{
protected:
    static QString picture(const QString& name, const QString& size)
    {
        return TestMedia::generate(
            QStringLiteral("timeline/%1").arg(name),
            {"-f", "lavfi", "-i", "color=c=red:s=" + size, "-frames:v", "1"});
    }
};

TEST_F(TimelineProjectPictures, CoverPictureGivesTheCanvasOfASourceWithoutPicture)
{
    const QString cover = picture(QString::fromUtf8("pochette été 321x243.png"), "321x243");
    ASSERT_FALSE(cover.isEmpty());
    struct Case
    {
        const char* name;
        QList<ContainerVideoStream> video;
        QString coverPath;
        int width; // preview
        int height;
        QString bgSize;
    };
    const Case cases[] = {
        {"audio only", {}, cover, 320, 242, "320,242"},
        {"cover stream", {videoStream(1, 1, 0, 1400, 1400, true)}, cover, 320, 242, "320,242"},
        {"cover stream, no picture file",
         {videoStream(1, 1, 0, 1400, 1400, true)},
         "",
         1400,
         1400,
         "1400,1400"},
        {"unreadable picture", {}, "/no/such/cover.png", 640, 480, "0,0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ContainerInfo info;
        info.videoStreams = c.video;
        info.audioStreams = {audioStream(2000)};
        ConvertSource source = sourceFile("/music/song.m4a");
        source.coverPath = c.coverPath;
        const QJsonObject doc = build(source, info);
        const QJsonObject preview = doc["preview_param"].toObject();
        EXPECT_EQ(preview["width"], QJsonValue(c.width));
        EXPECT_EQ(preview["height"], QJsonValue(c.height));
        EXPECT_EQ(mainClip(doc)["transform"].toObject()["bg_size"].toString(), c.bgSize);
    }
}

TEST_F(TimelineProjectPictures, WaterMarksGetEffectTracksAndImageClips)
{
    const QString logo = picture(QString::fromUtf8("logo ✓ 64x32.png"), "64x32");
    const QString badge = picture("badge 16x16.png", "16x16");
    ASSERT_FALSE(logo.isEmpty());
    ASSERT_FALSE(badge.isEmpty());

    WaterMarkParam first;
    first.filePath = logo;
    first.centerPos = QPoint(640, -360);
    first.alpha = 0.5f;
    first.flipX = true;
    first.rotation = 270;
    first.scaleX = 0.25f;
    first.scaleY = 1.5f;
    WaterMarkParam second;
    second.filePath = badge;

    for (const bool cuts : {false, true}) {
        SCOPED_TRACE(cuts);
        ConvertSource source = sourceFile();
        source.selfAudios = {0};
        source.attachedAudio = {{0, "/music/a.mp3"}};
        source.waterMark = {first, second};
        source.speed = 1.5f;
        if (cuts) {
            source.cut = {{0, 1200}, {4000, 800}};
        }
        const ContainerInfo info = hdClip(1);
        const QJsonObject doc = build(source, info);

        const QList<QJsonObject> tracks = objects(doc["tracks"]);
        ASSERT_EQ(tracks.size(), 4);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(tracks[2 + i], (QJsonObject{{"id", QStringLiteral("track_%1").arg(2 + i)},
                                                  {"type", "track"},
                                                  {"kind", "effect"},
                                                  {"z_order", i + 2},
                                                  {"trunk", false},
                                                  {"disabled", false},
                                                  {"mute", false}}));
        }

        QList<QJsonObject> images;
        for (const QJsonObject& clip : objects(doc["clips"])) {
            if (clip["type"].toString() == "image") {
                images.append(clip);
            }
        }
        ASSERT_EQ(images.size(), 2);
        const qint64 used = cuts ? 2000 : 10000;
        EXPECT_EQ(images[0], (QJsonObject{{"id", "clip_image_0"},
                                          {"type", "image"},
                                          {"file_path", logo},
                                          {"track_ref", "track_2"},
                                          {"timeline_pos", 0},
                                          {"range_length", used},
                                          {"alpha", 0.5},
                                          {"speed", 1.5},
                                          {"transform", QJsonObject{{"id", "transform_image_0"},
                                                                    {"rotation", 270},
                                                                    {"flip_x", true},
                                                                    {"flip_y", false},
                                                                    {"scale_x", 0.25},
                                                                    {"scale_y", 1.5},
                                                                    {"center_pos", "640,-360"}}}}));
        EXPECT_EQ(images[1]["id"].toString(), "clip_image_1");
        EXPECT_EQ(images[1]["file_path"].toString(), badge);
        EXPECT_EQ(images[1]["track_ref"].toString(), "track_3");
        EXPECT_EQ(images[1]["alpha"].toDouble(), 1.0);
        EXPECT_EQ(images[1]["transform"].toObject()["center_pos"].toString(), "0,0");
        EXPECT_FALSE(images[1]["transform"].toObject().contains("type"));
    }
}
