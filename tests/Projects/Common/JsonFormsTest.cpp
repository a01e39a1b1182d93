#include "Common/JsonForms.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QJsonObject parse(const QString& text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

QString wrap(const QString& inner)
{
    return QStringLiteral("{\"ConvertSource\": %1}").arg(inner);
}

void expectDefault(const ConvertSource& s)
{
    EXPECT_TRUE(s.filePath.isEmpty());
    EXPECT_EQ(s.baseFilter.volume, 100);
    EXPECT_FALSE(s.speed.has_value());
    EXPECT_FALSE(s.crop.has_value());
    EXPECT_TRUE(s.extraParam.isEmpty());
    EXPECT_TRUE(s.cut.isEmpty());
}

ConvertSource fullSource()
{
    ConvertSource s;
    s.filePath = QString::fromUtf8("/media/Vidéos/été 2024/clip «1».mp4");
    s.selfAudios = {0, 2};
    s.selfSubtitles = {{3, "English"}, {4, QString::fromUtf8("日本語")}};
    s.attachedAudio = {{1500, "/a/music.mp3"}};
    s.attachedSubtitle = {{250, "Extra", "/a/subs.srt"}};
    s.metaData = {{"title", "T"}, {"genre", "12"}};
    s.coverPath = "/a/cover.png";
    s.crop = CropParam{0.1, 0.2, 0.5, 0.6, true, false, 270};
    s.cut = {{0, 1000}, {5000, 2500}};
    s.speed = 2.0f;
    s.baseFilter = {1, 2, 3, 4, 5, 6, 7, 8, 80};
    s.effectFilter = "Old Film";
    WaterMarkParam w;
    w.filePath = "/a/logo.png";
    w.centerPos = QPoint(640, -360);
    w.alpha = 0.5f;
    w.flipY = true;
    w.rotation = 90;
    w.scaleX = 0.25f;
    w.scaleY = 1.5f;
    s.waterMark = {w, WaterMarkParam{}};
    s.aiMosaic.path = "/a/mosaic.json";
    s.aiAutoReframe.path = "/a/reframe.json";
    s.extraParam = {{"plugin", QVariantMap{{"name", "x"}}},
                    {"operator", "op"},
                    {"converterMode", "m"},
                    {"operatorDllPath", "/p.dll"},
                    {"deviceId", "d0"}};
    return s;
}

} // namespace

TEST(ConvertSourceReading, EmptyOrMissingObjectGivesTheDefaultRecord)
{
    for (const QString& text :
         {QString(), QString("{}"), wrap("{}"), QString("not json"), QString("[1,2]"),
          QString("{\"ConvertSource\": 5}"), QString("{\"ConvertSource\": [\"a\"]}"),
          QString("{\"ConvertSource\": {\"filePath\": "), QString("null")}) {
        SCOPED_TRACE(text.toStdString());
        expectDefault(convertSourceFromJson(text));
        EXPECT_FALSE(parse(convertSourceToJson(convertSourceFromJson(text)))
                         .value("ConvertSource")
                         .toObject()
                         .contains("extraParam"));
    }
}

TEST(ConvertSourceReading, PresentObjectReadsMissingKeysAsZero)
{
    const ConvertSource s = convertSourceFromJson(wrap("{\"filePath\": \"/x.mp4\"}"));
    EXPECT_EQ(s.filePath, "/x.mp4");
    EXPECT_EQ(s.baseFilter.volume, 0); // deliberately not 100
    ASSERT_TRUE(s.speed.has_value());
    EXPECT_FLOAT_EQ(*s.speed, 1.0f);
    EXPECT_FALSE(s.crop.has_value());
    ASSERT_EQ(s.extraParam.size(), 5);
    EXPECT_EQ(s.extraParam.value("plugin").toMap(), QVariantMap());
    for (const char* key : {"operator", "converterMode", "operatorDllPath", "deviceId"}) {
        EXPECT_TRUE(s.extraParam.contains(key)) << key;
        EXPECT_EQ(s.extraParam.value(key).toString(), QString()) << key;
    }
}

TEST(ConvertSourceReading, WaterMarkFieldsMissingReadAsZero)
{
    const ConvertSource s =
        convertSourceFromJson(wrap("{\"waterMark\": [{\"filePath\": \"/w.png\"}]}"));
    ASSERT_EQ(s.waterMark.size(), 1);
    EXPECT_EQ(s.waterMark[0].alpha, 0.0f);
    EXPECT_EQ(s.waterMark[0].scaleX, 0.0f);
    EXPECT_EQ(s.waterMark[0].scaleY, 0.0f);
    EXPECT_EQ(s.waterMark[0].centerPos, QPoint(0, 0));
}

TEST(ConvertSourceReading, CenterPosIsTruncatedTowardsZero)
{
    struct Case
    {
        const char* text;
        QPoint expected;
    };
    const Case cases[] = {
        {"12.9,-3.7", {12, -3}}, {"640,360", {640, 360}}, {"7", {7, 7}},
        {"1,2,3", {1, 3}},       {"abc,def", {0, 0}},     {"", {0, 0}},
        {"1e40,inf", {0, 0}},    {"-0.99,0.99", {0, 0}},
    };
    for (const Case& c : cases) {
        const QString json =
            wrap(QStringLiteral("{\"waterMark\": [{\"centerPos\": \"%1\"}]}").arg(c.text));
        const ConvertSource s = convertSourceFromJson(json);
        ASSERT_EQ(s.waterMark.size(), 1) << c.text;
        EXPECT_EQ(s.waterMark[0].centerPos, c.expected) << c.text;
    }
}

TEST(ConvertSourceReading, ExtraParamKeepsExactlyTheFiveKnownKeys)
{
    const ConvertSource s = convertSourceFromJson(
        wrap("{\"extraParam\": {\"operator\": \"op\", \"other\": 1, \"plugin\": {\"a\": 2}}}"));
    EXPECT_EQ(s.extraParam.size(), 5);
    EXPECT_FALSE(s.extraParam.contains("other"));
    EXPECT_EQ(s.extraParam.value("operator").toString(), "op");
    EXPECT_EQ(s.extraParam.value("plugin").toMap().value("a").toInt(), 2);
}

TEST(ConvertSourceReading, WrongTypesAndHugeNumbersDegradeWithoutCrashing)
{
    const ConvertSource s = convertSourceFromJson(wrap(R"({
        "filePath": 12,
        "selfAudios": "notalist",
        "selfSubtitles": [1, "x", {"index": 1e300}],
        "cut": [{"range_begin": 1e30, "range_length": -5}],
        "crop": {"rotation": 1e12, "cropW": "half"},
        "speed": 1e300,
        "baseFilter": {"brightness": 3000000000, "volume": "80"},
        "waterMark": [{"alpha": -1e300, "scaleX": "2"}],
        "extraParam": []
    })"));
    EXPECT_EQ(s.filePath, "12");
    ASSERT_EQ(s.selfSubtitles.size(), 3);
    EXPECT_EQ(s.selfSubtitles[2].index, 0);
    ASSERT_EQ(s.cut.size(), 1);
    EXPECT_EQ(s.cut[0].begin, 0);
    EXPECT_EQ(s.cut[0].length, -5);
    ASSERT_TRUE(s.crop.has_value());
    EXPECT_EQ(s.crop->rotation, 0);
    EXPECT_EQ(s.crop->cropW, 0.0);
    EXPECT_EQ(*s.speed, 0.0f);
    EXPECT_EQ(s.baseFilter.brightness, 0);
    EXPECT_EQ(s.baseFilter.volume, 80);
    EXPECT_EQ(s.waterMark[0].alpha, 0.0f);
    EXPECT_EQ(s.waterMark[0].scaleX, 2.0f);
    EXPECT_EQ(s.extraParam.size(), 5);
}

TEST(ConvertSourceWriting, KeysAndConditionalEntries)
{
    const QJsonObject bare = parse(convertSourceToJson(ConvertSource{}));
    ASSERT_EQ(bare.keys(), QStringList{"ConvertSource"});
    const QJsonObject o = bare.value("ConvertSource").toObject();
    for (const char* key :
         {"filePath", "selfAudios", "selfSubtitles", "attachedAudio", "attachedSubtitle", "cut",
          "crop", "speed", "baseFilter", "AIMosaic", "AIAutoReframe", "waterMark"}) {
        EXPECT_TRUE(o.contains(key)) << key;
    }
    for (const char* key : {"metaData", "coverPath", "effectFilter", "extraParam"}) {
        EXPECT_FALSE(o.contains(key)) << key;
    }
    EXPECT_EQ(o.value("speed").toDouble(), 1.0);
    const QJsonObject crop = o.value("crop").toObject();
    EXPECT_EQ(crop.value("cropW").toDouble(), 1.0);
    EXPECT_EQ(crop.value("cropH").toDouble(), 1.0);
    EXPECT_EQ(crop.value("cropX").toDouble(), 0.0);
    EXPECT_EQ(crop.value("rotation").toInt(), 0);
    EXPECT_EQ(crop.value("flipX").toBool(true), false);
    const QJsonObject base = o.value("baseFilter").toObject();
    EXPECT_TRUE(base.contains("color temperature"));
    EXPECT_EQ(base.value("volume").toInt(), 100);
    EXPECT_EQ(base.size(), 9);
    // The indented layout.
    EXPECT_TRUE(convertSourceToJson(ConvertSource{}).contains("\n    \"ConvertSource\""));
}

TEST(ConvertSourceWriting, WaterMarkCenterIsText)
{
    ConvertSource s;
    WaterMarkParam w;
    w.centerPos = QPoint(640, 360);
    s.waterMark = {w};
    const QJsonObject mark = parse(convertSourceToJson(s))
                                 .value("ConvertSource")
                                 .toObject()
                                 .value("waterMark")
                                 .toArray()
                                 .first()
                                 .toObject();
    EXPECT_EQ(mark.value("centerPos").toString(), "640,360");
    EXPECT_EQ(mark.size(), 8);
}

TEST(ConvertSourceRoundTrip, AbsentCropReadsBackAsFullCrop)
{
    const ConvertSource s = convertSourceFromJson(convertSourceToJson(ConvertSource{}));
    ASSERT_TRUE(s.crop.has_value());
    EXPECT_EQ(s.crop->cropW, 1.0);
    EXPECT_EQ(s.crop->cropH, 1.0);
    EXPECT_EQ(s.crop->cropX, 0.0);
    EXPECT_EQ(s.baseFilter.volume, 100);
}

TEST(ConvertSourceRoundTrip, EveryFieldSurvivesAndWritingIsAFixpoint)
{
    const ConvertSource in = fullSource();
    const QString first = convertSourceToJson(in);
    const ConvertSource out = convertSourceFromJson(first);

    EXPECT_EQ(out.filePath, in.filePath);
    EXPECT_EQ(out.selfAudios, in.selfAudios);
    ASSERT_EQ(out.selfSubtitles.size(), 2);
    EXPECT_EQ(out.selfSubtitles[1].title, in.selfSubtitles[1].title);
    EXPECT_EQ(out.selfSubtitles[1].index, 4);
    ASSERT_EQ(out.attachedAudio.size(), 1);
    EXPECT_EQ(out.attachedAudio[0].startMs, 1500);
    ASSERT_EQ(out.attachedSubtitle.size(), 1);
    EXPECT_EQ(out.attachedSubtitle[0].title, "Extra");
    EXPECT_EQ(out.metaData, in.metaData);
    EXPECT_EQ(out.coverPath, in.coverPath);
    ASSERT_TRUE(out.crop.has_value());
    EXPECT_EQ(out.crop->cropX, 0.1);
    EXPECT_EQ(out.crop->cropH, 0.6);
    EXPECT_TRUE(out.crop->flipX);
    EXPECT_EQ(out.crop->rotation, 270);
    ASSERT_EQ(out.cut.size(), 2);
    EXPECT_EQ(out.cut[1].begin, 5000);
    EXPECT_EQ(out.cut[1].length, 2500);
    EXPECT_EQ(*out.speed, 2.0f);
    EXPECT_EQ(out.baseFilter.colorTemperature, 7);
    EXPECT_EQ(out.baseFilter.volume, 80);
    EXPECT_EQ(out.effectFilter, in.effectFilter);
    ASSERT_EQ(out.waterMark.size(), 2);
    EXPECT_EQ(out.waterMark[0].centerPos, QPoint(640, -360));
    EXPECT_EQ(out.waterMark[0].alpha, 0.5f);
    EXPECT_TRUE(out.waterMark[0].flipY);
    EXPECT_EQ(out.waterMark[0].rotation, 90);
    EXPECT_EQ(out.waterMark[0].scaleX, 0.25f);
    EXPECT_EQ(out.waterMark[1].alpha, 1.0f);
    EXPECT_EQ(out.aiMosaic.path, in.aiMosaic.path);
    EXPECT_EQ(out.aiAutoReframe.path, in.aiAutoReframe.path);
    EXPECT_EQ(out.extraParam, in.extraParam);

    EXPECT_EQ(convertSourceToJson(out), first);
}

TEST(OutputParamWriting, GroupsAppearOnlyWithACodecName)
{
    AVTaskOutputParam p;
    p.outputPath = "/out/a.mp4";
    p.format = "MP4";
    p.video.width = 1920;
    p.video.height = 1080;
    p.audio.sampleRate = 48000;
    const QJsonObject without = parse(outputParamToJson(p));
    EXPECT_EQ(without.value("type").toString(), "AVTaskOutputParam");
    EXPECT_FALSE(without.contains("video.width"));
    EXPECT_FALSE(without.contains("video.codecName"));
    EXPECT_FALSE(without.contains("audio.sampleRate"));
    EXPECT_EQ(without.size(), 12);

    p.video.codecName = "h264";
    p.video.frameRate = 29.97;
    p.video.bitrateKbps = 8000;
    p.audio.codecName = "aac";
    p.acceleration.hardwareEnabled = true;
    p.acceleration.gpuName = "NVIDIA GeForce RTX 3060";
    p.taskMode = 3;
    const QJsonObject with = parse(outputParamToJson(p));
    EXPECT_EQ(with.size(), 21);
    EXPECT_EQ(with.value("video.width").toInt(), 1920);
    EXPECT_EQ(with.value("video.frameRate").toDouble(), 29.97);
    EXPECT_EQ(with.value("video.bitrateKbps").toInteger(), 8000);
    EXPECT_EQ(with.value("audio.sampleRate").toInt(), 48000);
    EXPECT_EQ(with.value("acceleration.hardwareEnabled").toBool(), true);
    EXPECT_EQ(with.value("acceleration.gpuName").toString(), "NVIDIA GeForce RTX 3060");
    EXPECT_EQ(with.value("taskMode").toInt(), 3);
    EXPECT_EQ(with.value("outputPath").toString(), "/out/a.mp4");
}

TEST(VariantMapJson, LayoutsAndFailures)
{
    const QVariantMap map{{"a", 1}, {"b", QVariantList{1, "x"}}, {"c", QVariantMap{{"d", true}}}};
    const QString compact = variantMapToJson(map, false);
    EXPECT_EQ(compact, R"({"a":1,"b":[1,"x"],"c":{"d":true}})");
    EXPECT_TRUE(variantMapToJson(map, true).contains("\n"));
    EXPECT_EQ(jsonToVariantMap(compact), jsonToVariantMap(variantMapToJson(map, true)));
    EXPECT_EQ(jsonToVariantMap(compact).value("c").toMap().value("d").toBool(), true);
    EXPECT_TRUE(jsonToVariantMap("").isEmpty());
    EXPECT_TRUE(jsonToVariantMap("{").isEmpty());
    EXPECT_TRUE(jsonToVariantMap("[1]").isEmpty());
    EXPECT_TRUE(jsonToVariantMap("\"text\"").isEmpty());
    EXPECT_EQ(jsonToVariantMap(QString::fromUtf8("{\"ключ\": \"значение\"}"))
                  .value(QString::fromUtf8("ключ")),
              QString::fromUtf8("значение"));
}

TEST(ConvertSourceRoundTrip, OneReadAndWriteNormalisesAnyText)
{
    // The first read may add the five "extraParam" keys; after that, reading
    // and writing change nothing.
    for (const QString& text :
         {QString(), wrap("{\"filePath\": \"x\"}"), convertSourceToJson(fullSource()),
          wrap("{\"waterMark\": [{\"centerPos\": \"1.5\"}], \"speed\": 0.3}")}) {
        const QString once = convertSourceToJson(convertSourceFromJson(text));
        const QString twice = convertSourceToJson(convertSourceFromJson(once));
        EXPECT_EQ(convertSourceToJson(convertSourceFromJson(twice)), twice) << text.toStdString();
    }
}
