// Reading the project tree out of a timeline document.
#include "NLEditor/ProjectDocument.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QString text(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson());
}

QJsonObject track(const QString& id, const QString& kind, int z, bool trunk = false,
                  bool disabled = false)
{
    return {{"id", id},       {"type", "track"},      {"kind", kind}, {"z_order", z},
            {"trunk", trunk}, {"disabled", disabled}, {"mute", false}};
}

} // namespace

TEST(ParseProjectDocument, ReadsTracksClipsAndTheirParts)
{
    const QJsonObject doc{
        {"id", "/"},
        {"preview_param",
         QJsonObject{{"fps", 29.0}, {"width", 1280}, {"height", 405.0}, {"zoom", 1.0}}},
        {"meta_data", QJsonObject{{"id", "meta_data"}, {"title", "T"}}},
        {"cover", QJsonObject{{"id", "cover"}, {"path", "/c.jpg"}}},
        {"tracks",
         QJsonArray{track("track_0", "video", 0, true), track("track_1", "audio", -1),
                    track("track_2", "effect", 2), track("track_3", "audio", -1, false, true)}},
        {"clips",
         QJsonArray{
             QJsonObject{{"id", "clip_1"},
                         {"type", "clip"},
                         {"kind", "video"},
                         {"file_path", "/a.mp4"},
                         {"track_ref", "track_0"},
                         {"timeline_pos", 1500.0},
                         {"range_begin", 4000},
                         {"range_length", 2000},
                         {"speed", 2.0},
                         {"file_audio_stream_index", 1}},
             QJsonObject{
                 {"id", "clip_0"},
                 {"type", "clip"},
                 {"kind", "video"},
                 {"file_path", "/a.mp4"},
                 {"track_ref", "track_0"},
                 {"timeline_pos", 0},
                 {"range_begin", 0},
                 {"range_length", 3000},
                 {"speed", 2.0},
                 {"transform", QJsonObject{{"bg_size", "1280,720"},
                                           {"crop", "0.1,0.2,0.5,0.25"},
                                           {"flip_x", true},
                                           {"rotation", 90},
                                           {"scale_x", 0.5625},
                                           {"scale_y", 0.5625}}},
                 {"video_filters",
                  QJsonArray{QJsonObject{{"name", "Brightness"}, {"value", 30}},
                             QJsonObject{{"anaglyph_type", "Anaglyph Side by Side"},
                                         {"source", "2dTo3d_4"}},
                             QJsonObject{{"name", "AIMosaic"}, {"value", "/m.json"}}}},
                 {"audio_filters", QJsonArray{QJsonObject{{"name", "Volume"}, {"value", 50}}}},
                 {"subtitles", QJsonArray{QJsonObject{{"embedded_subtitle_stream_index", 2},
                                                      {"attached_file_path", "/s.srt"},
                                                      {"attached_offset", 700},
                                                      {"display", true}}}}},
             QJsonObject{{"id", "clip_2"},
                         {"type", "clip"},
                         {"kind", "audio"},
                         {"file_path", "/m.mp3"},
                         {"track_ref", "track_9"},
                         {"range_length", 100}},
             QJsonObject{{"id", "clip_3"},
                         {"type", "clip"},
                         {"kind", "audio"},
                         {"file_path", "/off.mp3"},
                         {"track_ref", "track_3"}},
             QJsonObject{
                 {"id", "clip_image_0"},
                 {"type", "image"},
                 {"file_path", "/w.png"},
                 {"track_ref", "track_2"},
                 {"alpha", 0.5},
                 {"range_length", 5000},
                 {"transform",
                  QJsonObject{{"center_pos", "640,360"}, {"rotation", 45}, {"scale_x", 2.0}}}}}}};
    ProjectDocument parsed;
    QString error;
    ASSERT_TRUE(parseProjectDocument(text(doc), &parsed, &error)) << error.toStdString();
    EXPECT_DOUBLE_EQ(parsed.fps, 29.0);
    EXPECT_EQ(parsed.canvas(), QSize(1280, 404));
    EXPECT_EQ(parsed.metaData, QVariantMap({{"title", "T"}}));
    EXPECT_EQ(parsed.coverPath, "/c.jpg");

    ASSERT_EQ(parsed.mainClips.size(), 2);
    const MediaClip& first = parsed.mainClips[0]; // sorted by timeline position
    EXPECT_EQ(first.id, "clip_0");
    EXPECT_TRUE(first.hasTransform);
    EXPECT_EQ(first.transform.bgSize, QSize(1280, 720));
    EXPECT_EQ(first.transform.crop, QRectF(0.1, 0.2, 0.5, 0.25));
    EXPECT_TRUE(first.transform.flipX);
    EXPECT_FALSE(first.transform.flipY);
    EXPECT_EQ(first.transform.rotation, 90);
    EXPECT_DOUBLE_EQ(first.transform.scaleX, 0.5625);
    ASSERT_EQ(first.videoFilters.size(), 3);
    EXPECT_EQ(first.videoFilters[0].name, "Brightness");
    EXPECT_EQ(first.videoFilters[0].value, 30);
    EXPECT_EQ(first.videoFilters[1].anaglyphType, "Anaglyph Side by Side");
    EXPECT_EQ(first.videoFilters[2].path, "/m.json");
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
    EXPECT_DOUBLE_EQ(second.timelineLengthMs(), 1000.0);
    EXPECT_DOUBLE_EQ(parsed.durationMs(), 2500.0);

    // A clip on an unknown track is still sound; one on a disabled track is not.
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

TEST(ParseProjectDocument, DefaultsAndRejections)
{
    ProjectDocument parsed;
    QString error;
    EXPECT_FALSE(parseProjectDocument("{not json", &parsed, &error));
    EXPECT_TRUE(error.contains("not valid JSON"));
    EXPECT_FALSE(parseProjectDocument("[1,2]", &parsed, &error));
    EXPECT_TRUE(error.contains("not a JSON object"));
    EXPECT_FALSE(parseProjectDocument("{\"clips\":[]}", &parsed, &error));
    EXPECT_TRUE(error.contains("no clip"));

    // Without tracks every non-audio clip is on the main track; a missing
    // preview gives 25 fps on 640x480.
    const QJsonObject doc{{"clips", QJsonArray{QJsonObject{{"kind", "video_only"},
                                                           {"file_path", "/v.mp4"},
                                                           {"range_length", 1000},
                                                           {"speed", 0}},
                                               QJsonObject{{"kind", "audio"},
                                                           {"file_path", "/a.mp3"},
                                                           {"range_length", 5000}}}}};
    ASSERT_TRUE(parseProjectDocument(text(doc), &parsed, &error));
    EXPECT_DOUBLE_EQ(parsed.fps, 25.0);
    EXPECT_EQ(parsed.canvas(), QSize(640, 480));
    ASSERT_EQ(parsed.mainClips.size(), 1);
    EXPECT_DOUBLE_EQ(parsed.mainClips[0].speed, 1.0); // 0 would never end
    EXPECT_EQ(parsed.audioClips.size(), 1);
    EXPECT_DOUBLE_EQ(parsed.durationMs(), 1000.0); // the main track sets the length
}

// Found by fuzzing: pixel numbers no int holds were converted as they were.
// They stick at the limit instead, whatever part of the document holds them.
TEST(ParseProjectDocument, HugePixelNumbersStickAtTheLimit)
{
    constexpr int kLimit = 1 << 20;
    const QString huge = QStringLiteral("7") + QString(40, QLatin1Char('7'));
    const QJsonObject doc{
        {"preview_param", QJsonObject{{"width", 1e300}, {"height", -1e300}}},
        {"clips",
         QJsonArray{QJsonObject{{"kind", "video_only"},
                                {"file_path", "/v.mp4"},
                                {"range_length", 1000},
                                {"transform", QJsonObject{{"bg_size", huge + ",-" + huge}}}},
                    QJsonObject{{"type", "image"},
                                {"file_path", "/w.png"},
                                {"range_length", 1000},
                                {"transform", QJsonObject{{"center_pos", huge + ",-" + huge}}}}}}};
    ProjectDocument parsed;
    QString error;
    ASSERT_TRUE(parseProjectDocument(text(doc), &parsed, &error)) << error.toStdString();
    ASSERT_EQ(parsed.imageClips.size(), 1);
    EXPECT_EQ(parsed.imageClips[0].center, QPoint(kLimit, -kLimit));
    ASSERT_EQ(parsed.mainClips.size(), 1);
    EXPECT_EQ(parsed.mainClips[0].transform.bgSize, QSize(kLimit, -kLimit));
    EXPECT_EQ(parsed.canvas(), QSize(kLimit, 2));
}
