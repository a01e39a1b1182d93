// The small file and JSON helpers of the timeline project unit.
#include "Common/TimelineProject.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

TEST(TimelineHelpers, SocialOutputTypesAreMatchedExactly)
{
    for (const char* type : {"YouTube", "Instagram", "TikTok", "Facebook", "Likee", "Vimeo"}) {
        EXPECT_TRUE(isSocialOutputType(type)) << type;
    }
    for (const char* type : {"", "youtube", "TIKTOK", "YouTube ", " Vimeo", "Twitter", "MP4",
                             "Instagram Reels", "Face book"}) {
        EXPECT_FALSE(isSocialOutputType(type)) << type;
    }
}

TEST(TimelineHelpers, ReadTextFileDecodesUtf8AndGivesEmptyOnFailure)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QString::fromUtf8("réglages ✓/config 日本.json"));
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).absolutePath()));
    const QString text = QString::fromUtf8("{\"title\": \"Été ✦ 日本語\"}\nline two\r\n");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text.toUtf8());
    file.close();

    EXPECT_EQ(readTextFile(path), text);
    EXPECT_EQ(readTextFile(dir.filePath("missing.json")), QString());
    EXPECT_EQ(readTextFile(dir.path()), QString()); // a folder is no text file
    EXPECT_EQ(readTextFile(QString()), QString());

    QFile empty(dir.filePath("empty.txt"));
    ASSERT_TRUE(empty.open(QIODevice::WriteOnly));
    empty.close();
    EXPECT_EQ(readTextFile(empty.fileName()), QString());
}

TEST(TimelineHelpers, JsonToVariantListTakesOnlyATopLevelArray)
{
    const QVariantList list =
        jsonToVariantList(QString::fromUtf8("[1, \"été\", {\"a\": [true, null]}, [2.5]]"));
    ASSERT_EQ(list.size(), 4);
    EXPECT_EQ(list[0].toInt(), 1);
    EXPECT_EQ(list[1].toString(), QString::fromUtf8("été"));
    EXPECT_EQ(list[2].toMap().value("a").toList().value(0).toBool(), true);
    EXPECT_EQ(list[3].toList().value(0).toDouble(), 2.5);

    EXPECT_TRUE(jsonToVariantList("[]").isEmpty());
    for (const char* text : {"", "{\"a\": [1]}", "[1, 2", "not json", "3", "null", "[1] x"}) {
        EXPECT_TRUE(jsonToVariantList(text).isEmpty()) << text;
    }
}

TEST(TimelineHelpers, JoinPathCleansTheResult)
{
    struct Case
    {
        const char* first;
        const char* second;
        const char* expected;
    };
    const Case cases[] = {
        {"/effects/old film", "config.json", "/effects/old film/config.json"},
        {"/effects/", "config.json", "/effects/config.json"},
        {"/a/./b", "../c", "/a/c"},
        {"/a//b", "/c/", "/a/b/c"},
        {"relative", "x", "relative/x"},
        {"a", "", "a"},
        {"", "x", "/x"},
        {"/vidéos/été", "日本.srt", "/vidéos/été/日本.srt"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(joinPath(QString::fromUtf8(c.first), QString::fromUtf8(c.second)),
                  QString::fromUtf8(c.expected))
            << c.first << " + " << c.second;
    }
}
