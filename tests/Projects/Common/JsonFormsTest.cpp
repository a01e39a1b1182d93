#include "Common/JsonForms.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QJsonObject written(const ConvertSource& source)
{
    return QJsonDocument::fromJson(convertSourceToJson(source).toUtf8())["ConvertSource"]
        .toObject();
}

ConvertSource read(const QString& inner)
{
    return convertSourceFromJson(QStringLiteral("{\"ConvertSource\": %1}").arg(inner));
}

// Every field of a record, sub-records flattened, so that two records compare in one step.
auto fields(const ConvertSource& s)
{
    const CropParam c = s.crop.value_or(CropParam{0, 0, 0, 0, false, false, -1});
    const BaseFilterParam& f = s.baseFilter;
    const WaterMarkParam w = s.waterMark.value(0);
    const SelfSubtitle t = s.selfSubtitles.value(1);
    const AttachedSubtitle a = s.attachedSubtitle.value(0);
    return std::make_tuple(
        s.filePath.toStdString(), std::vector<qint32>(s.selfAudios.begin(), s.selfAudios.end()),
        s.selfSubtitles.size(), t.index, t.title.toStdString(), s.attachedAudio.size(),
        s.attachedAudio.value(0).startMs, s.attachedAudio.value(0).filePath.toStdString(),
        s.attachedSubtitle.size(), a.startMs, a.title.toStdString(), a.filePath.toStdString(),
        s.cut.size(), s.cut.value(1).begin, s.cut.value(1).length, s.metaData,
        s.coverPath.toStdString(), c.cropX, c.cropY, c.cropW, c.cropH, c.flipX, c.flipY, c.rotation,
        s.speed.value_or(-1), f.brightness, f.contrast, f.saturation, f.sharpen, f.shadow,
        f.highlight, f.colorTemperature, f.hue, f.volume, s.effectFilter.toStdString(),
        s.waterMark.size(), w.filePath.toStdString(), w.centerPos.x(), w.centerPos.y(), w.alpha,
        w.flipX, w.flipY, w.rotation, w.scaleX, w.scaleY, s.waterMark.value(1).alpha,
        s.aiMosaic.path.toStdString(), s.aiAutoReframe.path.toStdString(), s.extraParam);
}

} // namespace

TEST(ConvertSourceReading, EmptyOrMissingObjectGivesTheDefaultRecord)
{
    for (const QString& text : {"", "{}", "{\"ConvertSource\": {}}", "not json", "[1,2]", "null",
                                "{\"ConvertSource\": 5}", "{\"ConvertSource\": [\"a\"]}",
                                "{\"ConvertSource\": {\"filePath\": "}) {
        SCOPED_TRACE(text.toStdString());
        const ConvertSource s = convertSourceFromJson(text);
        EXPECT_EQ(fields(s), fields(ConvertSource{}));
        // Printed again, such a record has no "extraParam".
        EXPECT_FALSE(written(s).contains("extraParam"));
    }
}

TEST(ConvertSourceReading, PresentObjectReadsMissingKeysAsZero)
{
    const ConvertSource s = read(R"({"filePath": "/x.mp4", "waterMark": [{"filePath": "/w.png"}],
        "extraParam": {"operator": "op", "other": 1, "plugin": {"a": 2}}})");
    const WaterMarkParam& w = s.waterMark.value(0);
    // The volume deliberately reads 0, not 100.
    EXPECT_EQ(std::make_tuple(s.filePath, s.baseFilter.volume, s.speed, s.crop.has_value(),
                              s.waterMark.size(), w.alpha, w.scaleX, w.scaleY, w.centerPos),
              std::make_tuple("/x.mp4", 0, 1.0f, false, 1, 0.0f, 0.0f, 0.0f, QPoint(0, 0)));
    // Exactly the five known keys of "extraParam" are kept, missing ones empty.
    EXPECT_EQ(s.extraParam, (QVariantMap{{"operator", "op"},
                                         {"plugin", QVariantMap{{"a", 2}}},
                                         {"converterMode", ""},
                                         {"operatorDllPath", ""},
                                         {"deviceId", ""}}));
}

TEST(ConvertSourceReading, CenterPosIsTruncatedTowardsZero)
{
    const std::pair<const char*, QPoint> cases[] = {
        {"12.9,-3.7", {12, -3}}, {"640,360", {640, 360}}, {"7", {7, 7}},
        {"1,2,3", {1, 3}},       {"abc,def", {0, 0}},     {"", {0, 0}},
        {"1e40,inf", {0, 0}},    {"-0.99,0.99", {0, 0}},
    };
    for (const auto& [text, expected] : cases) {
        const ConvertSource s =
            read(QStringLiteral("{\"waterMark\": [{\"centerPos\": \"%1\"}]}").arg(text));
        EXPECT_EQ(s.waterMark.value(0, WaterMarkParam{{}, {-1, -1}}).centerPos, expected) << text;
    }
}

TEST(ConvertSourceReading, WrongTypesAndHugeNumbersDegradeWithoutCrashing)
{
    const ConvertSource s = read(R"({"filePath": 12, "selfAudios": "notalist",
        "selfSubtitles": [1, "x", {"index": 1e300}], "cut": [{"range_begin": 1e30, "range_length": -5}],
        "crop": {"rotation": 1e12, "cropW": "half"}, "speed": 1e300,
        "baseFilter": {"brightness": 3000000000, "volume": "80"},
        "waterMark": [{"alpha": -1e300, "scaleX": "2"}], "extraParam": []})");
    ASSERT_TRUE(s.crop && s.speed && s.selfSubtitles.size() == 3 && s.cut.size() == 1);
    EXPECT_EQ(std::make_tuple(s.filePath, s.selfSubtitles[2].index, s.cut[0].begin, s.cut[0].length,
                              s.crop->rotation, s.crop->cropW, *s.speed, s.baseFilter.brightness,
                              s.baseFilter.volume, s.waterMark.value(0).alpha,
                              s.waterMark.value(0).scaleX, s.extraParam.size()),
              std::make_tuple("12", 0, 0, -5, 0, 0.0, 0.0f, 0, 80, 0.0f, 2.0f, 5));
}

TEST(ConvertSourceWriting, KeysAndConditionalEntries)
{
    ConvertSource source;
    source.waterMark = {WaterMarkParam{}};
    source.waterMark[0].centerPos = QPoint(640, 360);
    const QJsonObject o = written(source);
    EXPECT_EQ(o.keys(), (QStringList{"AIAutoReframe", "AIMosaic", "attachedAudio",
                                     "attachedSubtitle", "baseFilter", "crop", "cut", "filePath",
                                     "selfAudios", "selfSubtitles", "speed", "waterMark"}));
    EXPECT_EQ(o["speed"].toDouble(), 1.0);
    const char* crop =
        R"({"cropX":0,"cropY":0,"cropW":1,"cropH":1,"flipX":false,"flipY":false,"rotation":0})";
    EXPECT_EQ(o["crop"].toObject(), QJsonDocument::fromJson(crop).object());
    EXPECT_EQ(o["baseFilter"]["color temperature"], 0);
    EXPECT_EQ(o["baseFilter"]["volume"], 100);
    EXPECT_EQ(o["baseFilter"].toObject().size(), 9);
    EXPECT_EQ(o["waterMark"][0]["centerPos"], "640,360");
    EXPECT_EQ(o["waterMark"][0].toObject().size(), 8);
    EXPECT_TRUE(convertSourceToJson(source).contains("\n    \"ConvertSource\"")); // indented
}

TEST(ConvertSourceRoundTrip, EveryFieldSurvivesAndWritingIsAFixpoint)
{
    ConvertSource in;
    in.filePath = QString::fromUtf8("/media/Vidéos/été 2024/clip «1».mp4");
    in.selfAudios = {0, 2};
    in.selfSubtitles = {{3, "English"}, {4, QString::fromUtf8("日本語")}};
    in.attachedAudio = {{1500, "/a/music.mp3"}};
    in.attachedSubtitle = {{250, "Extra", "/a/subs.srt"}};
    in.metaData = {{"title", "T"}, {"genre", "12"}};
    in.coverPath = "/a/cover.png";
    in.crop = CropParam{0.1, 0.2, 0.5, 0.6, true, true, 270};
    in.cut = {{0, 1000}, {5000, 2500}};
    in.speed = 2.0f;
    in.baseFilter = {1, 2, 3, 4, 5, 6, 7, 8, 80};
    in.effectFilter = "Old Film";
    in.waterMark = {{"/a/logo.png", QPoint(640, -360), 0.5f, true, true, 90, 0.25f, 1.5f}, {}};
    in.aiMosaic.path = "/a/mosaic.json";
    in.aiAutoReframe.path = "/a/reframe.json";
    in.extraParam = {{"plugin", QVariantMap{{"name", "x"}}},
                     {"operator", "op"},
                     {"converterMode", "m"},
                     {"operatorDllPath", "/p.dll"},
                     {"deviceId", "d0"}};
    const QString first = convertSourceToJson(in);
    const ConvertSource out = convertSourceFromJson(first);
    EXPECT_EQ(fields(out), fields(in));
    EXPECT_EQ(convertSourceToJson(out), first);
    // An absent crop reads back as the full picture.
    const ConvertSource back = convertSourceFromJson(convertSourceToJson({}));
    ASSERT_TRUE(back.crop.has_value());
    EXPECT_EQ(
        std::tie(back.crop->cropX, back.crop->cropW, back.crop->cropH, back.baseFilter.volume),
        std::make_tuple(0.0, 1.0, 1.0, 100));

    // The first read may add the five "extraParam" keys; after that, reading
    // and writing change nothing, whatever the text was.
    for (const QString& text :
         {QString(), QString(R"({"ConvertSource": {"filePath": "x"}})"), first,
          QString(R"({"ConvertSource": {"waterMark": [{"centerPos": "1.5"}], "speed": 0.3}})")}) {
        const QString once = convertSourceToJson(convertSourceFromJson(text));
        const QString twice = convertSourceToJson(convertSourceFromJson(once));
        EXPECT_EQ(convertSourceToJson(convertSourceFromJson(twice)), twice) << text.toStdString();
    }
}

TEST(OutputParamWriting, GroupsAppearOnlyWithACodecName)
{
    AVTaskOutputParam p;
    p.outputPath = "/out/a.mp4";
    p.video.width = 1920;
    p.audio.sampleRate = 48000;
    p.acceleration.gpuName = "NVIDIA GeForce RTX 3060";
    const auto written = [&p] { return QJsonDocument::fromJson(outputParamToJson(p).toUtf8()); };
    EXPECT_EQ(
        std::make_tuple(written()["type"], written()["video.width"], written()["audio.sampleRate"],
                        written().object().size()),
        std::make_tuple("AVTaskOutputParam", QJsonValue::Undefined, QJsonValue::Undefined, 12));
    p.video.codecName = "h264";
    p.audio.codecName = "aac";
    EXPECT_EQ(std::make_tuple(written()["video.width"], written()["video.codecName"],
                              written()["audio.sampleRate"], written()["acceleration.gpuName"],
                              written()["outputPath"], written().object().size()),
              std::make_tuple(1920, "h264", 48000, "NVIDIA GeForce RTX 3060", "/out/a.mp4", 21));
}

TEST(VariantMapJson, LayoutsAndFailures)
{
    const QVariantMap map{{"a", 1}, {"b", QVariantList{1, "x"}}, {"c", QVariantMap{{"d", true}}}};
    const QString compact = variantMapToJson(map, false);
    EXPECT_EQ(compact, R"({"a":1,"b":[1,"x"],"c":{"d":true}})");
    EXPECT_TRUE(variantMapToJson(map, true).contains("\n"));
    EXPECT_EQ(jsonToVariantMap(compact), jsonToVariantMap(variantMapToJson(map, true)));
    EXPECT_EQ(jsonToVariantMap(compact).value("c").toMap().value("d").toBool(), true);
    for (const char* text : {"", "{", "[1]", "\"text\""}) {
        EXPECT_TRUE(jsonToVariantMap(text).isEmpty()) << text;
    }
    EXPECT_EQ(jsonToVariantMap(R"({"ключ": "значение"})").value(QString::fromUtf8("ключ")),
              QString::fromUtf8("значение"));
}
