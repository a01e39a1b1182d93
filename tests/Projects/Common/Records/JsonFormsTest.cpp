#include "Common/Records/JsonForms.h"
#include "Common/Records/OutputRules.h"
#include "Common/Records/TimelineOptions.h"

#include "JsonFragment.h"

#include <QDir>

using namespace Korvane;

namespace {

QJsonObject written(const ConvertSource& source)
{
    const QString text = convertSourceToJson(source);
    return QJsonDocument::fromJson(text.toUtf8())["ConvertSource"].toObject();
}

// The record of a job text whose "ConvertSource" object is `inner`, written again.
QJsonObject reread(const QString& inner)
{
    return written(convertSourceFromJson(QStringLiteral("{\"ConvertSource\": %1}").arg(inner)));
}

} // namespace

TEST(ConvertSourceJson, DefaultRecordAndTextsWithoutAnObject)
{
    const QJsonObject empty = expectDocument(
        written(ConvertSource{}),
        R"({"filePath":"","selfAudios":[],"selfSubtitles":[],"attachedAudio":[],)"
        R"("attachedSubtitle":[],"metaData":null,"coverPath":null,"cut":[],"crop":{"cropX":0,)"
        R"("cropY":0,"cropW":1,"cropH":1,"flipX":false,"flipY":false,"rotation":0},"speed":1,)"
        R"("baseFilter":{"brightness":0,"contrast":0,"saturation":0,"sharpen":0,"shadow":0,)"
        R"("highlight":0,"color temperature":0,"hue":0,"volume":100},"AIMosaic":{"path":""},)"
        R"("AIAutoReframe":{"path":""},"waterMark":[],"effectFilter":null,"extraParam":null})");
    EXPECT_EQ(empty.size(), 12);
    for (const char* text :
         {"", "{}", "not json", "[1,2]", "null", "{\"ConvertSource\": 5}",
          "{\"ConvertSource\": [\"a\"]}", "{\"ConvertSource\": {\"filePath\": "}) {
        EXPECT_EQ(written(convertSourceFromJson(text)), empty) << text;
    }
}

TEST(ConvertSourceJson, EveryFieldIsReadAndWrittenUnderItsName)
{
    const QString inner = QString::fromUtf8(
        R"({"filePath":"/media/Vidéos/été «1».mp4","selfAudios":[0,2],"selfSubtitles":[)"
        R"({"index":4,"title":"日本語"}],"attachedAudio":[{"startMs":1500,"filePath":"/a.mp3"}],)"
        R"("attachedSubtitle":[{"startMs":250,"title":"Extra","filePath":"/a/subs.srt"}],)"
        R"("metaData":{"title":"T","genre":"12"},"coverPath":"/a/cover.png","cut":[)"
        R"({"range_begin":5000,"range_length":2500}],"crop":{"cropX":0.1,"cropY":0.2,)"
        R"("cropW":0.5,"cropH":0.6,"flipX":true,"flipY":true,"rotation":270},"speed":2,)"
        R"("baseFilter":{"brightness":1,"contrast":2,"saturation":3,"sharpen":4,"shadow":5,)"
        R"("highlight":6,"color temperature":7,"hue":8,"volume":80},"effectFilter":"Old Film",)"
        R"("AIMosaic":{"path":"/a/m.json"},"AIAutoReframe":{"path":"/a/r.json"},"waterMark":[)"
        R"({"filePath":"/a/logo.png","centerPos":"640,-360","alpha":0.5,"flipX":true,)"
        R"("flipY":true,"scaleX":0.25,"scaleY":1.5,"rotation":90}],"extraParam":{"plugin":)"
        R"({"name":"x"},"operator":"op","converterMode":"m","operatorDllPath":"/p.dll",)"
        R"("deviceId":"d0"}})");
    EXPECT_EQ(reread(inner), QJsonDocument::fromJson(inner.toUtf8()).object());

    // Once read, a record is written and read back unchanged.
    const QJsonObject once = reread(R"({"waterMark":[{"centerPos":"1.5"}],"speed":0.3})");
    EXPECT_EQ(reread(QJsonDocument(once).toJson()), once);
}

// Present keys that are missing read as zero (the volume too, not 100); values
// of a wrong type or out of range read as zero; only five "extraParam" keys stay.
TEST(ConvertSourceJson, MissingWrongAndHugeValuesReadAsZero)
{
    const std::pair<const char*, const char*> rows[] = {
        // A watermark's centre is truncated towards zero; a single number serves both.
        {R"({"filePath":"/x.mp4","waterMark":[{"filePath":"/w.png"},{"centerPos":"12.9,-3.7"},)"
         R"({"centerPos":"7"},{"centerPos":"1,2,3"},{"centerPos":"1e40,inf"}],"extraParam":)"
         R"({"operator":"op","other":1,"plugin":{"a":2}}})",
         R"({"filePath":"/x.mp4","speed":1,"baseFilter":{"volume":0},"waterMark":[{"alpha":0,)"
         R"("scaleX":0,"scaleY":0,"centerPos":"0,0"},{"centerPos":"12,-3"},{"centerPos":"7,7"},)"
         R"({"centerPos":"1,3"},{"centerPos":"0,0"}],"extraParam":{"operator":"op","other":null,)"
         R"("plugin":{"a":2},"converterMode":"","operatorDllPath":"","deviceId":""}})"},
        {R"({"filePath":12,"selfAudios":"notalist","selfSubtitles":[1,"x",{"index":1e300}],)"
         R"("cut":[{"range_begin":1e30,"range_length":-5}],"crop":{"rotation":1e12,)"
         R"("cropW":"half"},"speed":1e300,"baseFilter":{"brightness":3000000000,"volume":"80"},)"
         R"("waterMark":[{"alpha":-1e300,"scaleX":"2"}],"extraParam":[]})",
         R"({"filePath":"12","selfSubtitles":[{"index":0,"title":""},{},)"
         R"({"index":0}],"cut":[{"range_begin":0,"range_length":-5}],"crop":{"rotation":0,)"
         R"("cropW":0},"speed":0,"baseFilter":{"brightness":0,"volume":80},"waterMark":[)"
         R"({"alpha":0,"scaleX":2}],"extraParam":{"deviceId":""}})"},
    };
    for (const auto& [inner, fragment] : rows) {
        expectDocument(reread(inner), fragment);
    }
}

TEST(OutputParamWriting, GroupsAppearOnlyWithACodecName)
{
    AVTaskOutputParam p;
    p.outputPath = "/out/a.mp4";
    p.video.width = 1920;
    p.audio.sampleRate = 48000;
    expectDocument(outputParamToJson(p), R"({"type":"AVTaskOutputParam","outputPath":"/out/a.mp4",)"
                                         R"("video.width":null,"audio.sampleRate":null})");
    p.video.codecName = "h264";
    p.audio.codecName = "aac";
    expectDocument(outputParamToJson(p), R"({"video.codecName":"h264","video.width":1920,)"
                                         R"("audio.codecName":"aac","audio.sampleRate":48000})");
    p.video.bitrateKbps = 5000000000; // past 32 bits
    p.acceleration.hardwareEnabled = true;
    EXPECT_EQ(outputParamToJson(outputParamFromVariantMap(jsonToVariantMap(outputParamToJson(p)))),
              outputParamToJson(p));
    // Another JSON kind than the field's reads as missing; out of range as 0.
    const AVTaskOutputParam odd = outputParamFromVariantMap(
        jsonToVariantMap(R"({"video.codecName":"h264","video.width":"1920","video.height":1e12,)"
                         R"("ipcMode":1,"format":7,"taskMode":-2.9,"audio.codecName":"aac",)"
                         R"("audio.channels":-2147483648,"audio.sampleRate":2147483648})"));
    AVTaskOutputParam expected;
    expected.video.codecName = "h264";
    expected.audio = {"aac", 0, std::numeric_limits<qint32>::min(), 0};
    expected.taskMode = -2;
    EXPECT_EQ(outputParamToJson(odd), outputParamToJson(expected));
}

TEST(JsonAndPathHelpers, LayoutsFailuresAndSocialNames)
{
    const QVariantList list = jsonToVariantList(R"([1, "été", {"a": [true, null]}])");
    EXPECT_EQ(variantMapToJson({{"l", list}}, false), R"({"l":[1,"été",{"a":[true,null]}]})");
    EXPECT_EQ(jsonToVariantList("[1] x"), QVariantList());
    EXPECT_EQ(readTextFile(QDir::tempPath()), QString()); // a folder is no text file
    EXPECT_EQ(joinPath("/a/./b/", "../c"), "/a/c");
    for (const char* type : {"YouTube", "Instagram", "TikTok", "Facebook", "Likee", "Vimeo"}) {
        EXPECT_TRUE(isSocialOutputType(type) && !isSocialOutputType(QString(type).toLower()));
    }
}

// The smallest set size is kept; an unset side is passed on or left out.
TEST(TimelineOutputOptions, SetSizesAndUnsetOnes)
{
    AVTaskOutputParam output;
    output.video.width = 1;
    output.video.height = 1;
    EXPECT_EQ(timelineOutputOptions(output, UnsetOutputSize::Omitted),
              (QVariantMap{{"width", 1}, {"height", 1}}));
    output.video.width = 0;
    output.video.height = 720;
    EXPECT_EQ(timelineOutputOptions(output, UnsetOutputSize::Omitted), QVariantMap());
    EXPECT_EQ(timelineOutputOptions(output, UnsetOutputSize::Passed),
              (QVariantMap{{"width", 0}, {"height", 720}}));
}
