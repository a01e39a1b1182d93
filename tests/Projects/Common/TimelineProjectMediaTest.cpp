// makeTimelineProjectJson on real files: the facts come from probing media
// that ffmpeg makes at test time, or from the shared corpus when present.
#include "Common/TimelineProject.h"

#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QJsonObject project(const ConvertSource& source, const QVariantMap& options = {})
{
    const QJsonDocument document =
        QJsonDocument::fromJson(makeTimelineProjectJson(source, options).toUtf8());
    EXPECT_TRUE(document.isObject());
    return document.object();
}

QJsonObject firstClip(const QJsonObject& document)
{
    const QJsonArray clips = document["clips"].toArray();
    EXPECT_FALSE(clips.isEmpty());
    return clips.first().toObject();
}

// Two seconds at 30000/1001 with one audio stream, in a folder whose name is
// not ASCII.
QString ntscClip()
{
    return TestMedia::generate(QString::fromUtf8("timeline/vidéos été/ntsc 日本.mp4"),
                               {"-f", "lavfi", "-i", "testsrc=s=320x240:r=30000/1001:d=2", "-f",
                                "lavfi", "-i", "sine=d=2", "-c:v", "libx264", "-c:a", "aac",
                                "-shortest"});
}

// Two seconds of MP3 with a 320 x 180 cover picture stored as a stream.
QString songWithCover()
{
    const QString cover =
        TestMedia::generate("timeline/cover 320x180.png",
                            {"-f", "lavfi", "-i", "color=c=blue:s=320x180", "-frames:v", "1"});
    if (cover.isEmpty()) {
        return {};
    }
    return TestMedia::generate(QString::fromUtf8("timeline/chanson été.mp3"),
                               {"-f", "lavfi", "-i", "sine=d=2", "-i", cover, "-map", "0", "-map",
                                "1", "-c:a", "libmp3lame", "-c:v", "mjpeg", "-disposition:v",
                                "attached_pic", "-id3v2_version", "3"});
}

} // namespace

TEST(TimelineProjectMedia, NtscClipIsWrittenWithAWholeFrameRate)
{
    const QString path = ntscClip();
    ASSERT_FALSE(path.isEmpty());
    ConvertSource source;
    source.filePath = path;
    source.selfAudios = {1};
    const QJsonObject document = project(source);

    const QJsonObject preview = document["preview_param"].toObject();
    EXPECT_EQ(preview["fps"].toDouble(), 29.0);
    EXPECT_EQ(preview["width"], QJsonValue(320));
    EXPECT_EQ(preview["height"], QJsonValue(240));
    EXPECT_FALSE(preview.contains("video_disabled"));
    EXPECT_FALSE(preview.contains("audio_disabled"));

    const QJsonObject clip = firstClip(document);
    EXPECT_EQ(clip["kind"].toString(), "video");
    EXPECT_EQ(clip["file_path"].toString(), path);
    EXPECT_EQ(clip["file_audio_stream_index"], QJsonValue(1));
    EXPECT_NEAR(double(clip["range_length"].toInteger()), 2000.0, 50.0);
}

TEST(TimelineProjectMedia, GivenDurationReplacesTheProbedOne)
{
    const QString path = ntscClip();
    ASSERT_FALSE(path.isEmpty());
    ConvertSource source;
    source.filePath = path;
    const QJsonObject clip = firstClip(project(source, {{"duration", 777}, {"width", 1280}}));
    EXPECT_EQ(clip["range_length"], QJsonValue(777));
    EXPECT_EQ(clip["transform"].toObject()["bg_size"].toString(), "1280,240");
}

TEST(TimelineProjectMedia, SongWithCoverIsAudioWithCover)
{
    const QString path = songWithCover();
    ASSERT_FALSE(path.isEmpty());
    ConvertSource source;
    source.filePath = path;
    source.selfAudios = {0};
    const QJsonObject document = project(source, {{"socialType", "YouTube"}});

    const QJsonObject preview = document["preview_param"].toObject();
    EXPECT_EQ(preview["video_disabled"], QJsonValue(false));
    EXPECT_EQ(preview["fps"].toDouble(), 25.0);
    EXPECT_EQ(preview["width"], QJsonValue(320));
    EXPECT_EQ(preview["height"], QJsonValue(180));
    const QJsonObject clip = firstClip(document);
    EXPECT_EQ(clip["kind"].toString(), "audio_with_cover");
    EXPECT_NEAR(double(clip["range_length"].toInteger()), 2000.0, 100.0);
}

TEST(TimelineProjectMedia, UnreadableFileGivesTheDefaults)
{
    const QString path = TestMedia::dir() + QString::fromUtf8("/timeline/pas une vidéo.mp4");
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("this is no media file\n");
    file.close();

    for (const QString& input : {path, QString("/no/such/file.mp4")}) {
        SCOPED_TRACE(input.toStdString());
        ConvertSource source;
        source.filePath = input;
        source.selfAudios = {0};
        const QJsonObject document = project(source);
        const QJsonObject preview = document["preview_param"].toObject();
        EXPECT_EQ(preview["fps"].toDouble(), 25.0);
        EXPECT_EQ(preview["width"], QJsonValue(640));
        EXPECT_EQ(preview["height"], QJsonValue(480));
        EXPECT_EQ(preview["video_disabled"], QJsonValue(true));
        const QJsonObject clip = firstClip(document);
        EXPECT_EQ(clip["kind"].toString(), "video_only");
        EXPECT_EQ(clip["range_length"], QJsonValue(0));
    }
}

TEST(TimelineProjectMedia, SharedCorpusFiles)
{
    const QString dir = TestMedia::sharedMediaDir();
    if (dir.isEmpty()) {
        GTEST_SKIP() << "shared media folder absent";
    }
    struct Case
    {
        const char* file;
        const char* kind;
        int width;
        int height;
    };
    const Case cases[] = {
        {"mp3-id3-tags-jpeg-cover.mp3", "audio_with_cover", 1400, 1400},
        {"m4a-aac-tags-png-cover.m4a", "audio_with_cover", 4, 4},
        {"h264-aac-bt601.mov", "video", 640, 428},
        {"wma-five-language-audio-streams.wma", "audio", 640, 480},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        ConvertSource source;
        source.filePath = dir + "/" + c.file;
        source.selfAudios = {0, 1};
        const QJsonObject document = project(source);
        const QJsonObject preview = document["preview_param"].toObject();
        EXPECT_EQ(preview["width"], QJsonValue(c.width));
        EXPECT_EQ(preview["height"], QJsonValue(c.height));
        const QJsonArray clips = document["clips"].toArray();
        ASSERT_FALSE(clips.isEmpty());
        const QString mainKind = clips.first().toObject()["kind"].toString();
        if (QString(c.kind) == "audio") {
            // Five audio streams and no picture: two own audio tracks, and a
            // main clip that is audio with a (missing) cover.
            EXPECT_EQ(mainKind, "audio_with_cover");
            EXPECT_EQ(document["tracks"].toArray().size(), 2);
            EXPECT_EQ(clips.last().toObject()["kind"].toString(), "audio");
        } else {
            EXPECT_EQ(mainKind, c.kind);
        }
        EXPECT_GT(clips.first().toObject()["range_length"].toInteger(), 0);
    }
}
