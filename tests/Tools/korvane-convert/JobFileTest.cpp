#include "JobFile.h"

#include "Common/JsonForms.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

ConvertJob sampleJob()
{
    ConvertJob job;
    job.source.filePath = "/media/in.mp4";
    job.source.selfAudios = {1};
    job.source.crop = CropParam{0.1, 0.2, 0.5, 0.6, true, false, 90};
    job.source.cut = {{1000, 2000}};
    job.source.speed = 1.25f;
    job.source.baseFilter.volume = 80;
    WaterMarkParam mark;
    mark.filePath = "/media/logo.png";
    mark.centerPos = QPoint(640, 360);
    mark.alpha = 0.5f;
    job.source.waterMark = {mark};
    job.output.outputPath = "/out/x.mkv";
    job.output.format = "mkv";
    job.output.video = {"h265", 1280, 720, 25.0, 3000};
    job.output.audio = {"aac", 48000, 2, 128};
    job.output.acceleration = {"", true, "NVIDIA GPU [10de:2330]"};
    job.output.taskMode = 3;
    job.output.twoPassEncoding = true;
    return job;
}

void expectSameOutput(const AVTaskOutputParam& a, const AVTaskOutputParam& b)
{
    // The library's writer is the reference: equal records write equal text.
    EXPECT_EQ(outputParamToJson(a).toStdString(), outputParamToJson(b).toStdString());
}

} // namespace

TEST(JobFile, WrittenJobReadsBackAsTheLibraryWritesIt)
{
    QTemporaryDir dir;
    const ConvertJob job = sampleJob();
    const QString path = dir.filePath("nested/folder/job.json");
    QString error;
    ASSERT_TRUE(writeJobFile(path, job, &error)) << error.toStdString();
    ConvertJob back;
    ASSERT_TRUE(readJobFile(path, &back, &error)) << error.toStdString();
    // As the library's own reader gives it back (it adds the five extraParam keys).
    EXPECT_EQ(
        convertSourceToJson(back.source).toStdString(),
        convertSourceToJson(convertSourceFromJson(convertSourceToJson(job.source))).toStdString());
    EXPECT_EQ(back.source.waterMark[0].centerPos, QPoint(640, 360));
    expectSameOutput(back.output, job.output);
    EXPECT_FALSE(back.timelineOptions.has_value());
}

TEST(JobFile, TimelineOptionsAreKeptOnlyWhenGiven)
{
    ConvertJob job = sampleJob();
    EXPECT_EQ(job.effectiveTimelineOptions(), QVariantMap({{"width", 1280}, {"height", 720}}));
    job.timelineOptions = QVariantMap{{"socialType", "TikTok"}, {"fps", 30.0}};
    const QVariantMap map = jobToVariantMap(job);
    ASSERT_TRUE(map.contains("timelineOptions"));
    ConvertJob back;
    QString error;
    ASSERT_TRUE(jobFromJson(QJsonDocument::fromVariant(map).toJson(), &back, &error));
    ASSERT_TRUE(back.timelineOptions.has_value());
    EXPECT_EQ(back.effectiveTimelineOptions().value("socialType").toString(), "TikTok");
    EXPECT_FALSE(back.effectiveTimelineOptions().contains("width"));
}

TEST(JobFile, OutputObjectIsReadKeyByKeyWithMissingOrMistypedKeysAsZero)
{
    const QVariantMap flat = {{"outputPath", "/o.mp4"}, {"video.width", 1920},
                              {"video.height", "1080"}, {"video.frameRate", 29.97},
                              {"audio.channels", 2},    {"acceleration.hardwareEnabled", true},
                              {"ipcMode", "true"},      {"taskMode", 7}};
    const AVTaskOutputParam p = outputParamFromVariantMap(flat);
    EXPECT_EQ(p.outputPath, "/o.mp4");
    EXPECT_TRUE(p.format.isEmpty());
    EXPECT_TRUE(p.video.codecName.isEmpty());
    EXPECT_EQ(p.video.width, 1920);
    EXPECT_EQ(p.video.height, 0);
    EXPECT_DOUBLE_EQ(p.video.frameRate, 29.97);
    EXPECT_EQ(p.audio.channels, 2);
    EXPECT_EQ(p.audio.sampleRate, 0);
    EXPECT_TRUE(p.acceleration.hardwareEnabled);
    EXPECT_FALSE(p.ipcMode);
    EXPECT_EQ(p.taskMode, 7);
    EXPECT_TRUE(p.acceleration.gpuName.isEmpty());
}

TEST(JobFile, SourceObjectIsReadWithTheLibraryReaderAndItsZeroDefaults)
{
    const QByteArray text = R"({"ConvertSource": {"filePath": "in.mp4"},
                                "AVTaskOutputParam": {"outputPath": "o.mp4"}})";
    ConvertJob job;
    QString error;
    ASSERT_TRUE(jobFromJson(text, &job, &error)) << error.toStdString();
    EXPECT_EQ(job.source.filePath, "in.mp4");
    // A present source object without "baseFilter" reads volume 0, as the reader does.
    EXPECT_EQ(job.source.baseFilter.volume, 0);
    EXPECT_EQ(job.output.outputPath, "o.mp4");
}

TEST(JobFile, InvalidJobFilesAreRefusedWithAReason)
{
    const QList<QPair<QByteArray, QString>> cases = {
        {"", "not JSON"},
        {"{\"ConvertSource\": ", "not JSON"},
        {"[1, 2]", "not a JSON object"},
        {"{}", "\"ConvertSource\""},
        {R"({"ConvertSource": {}, "AVTaskOutputParam": 3})", "\"AVTaskOutputParam\""},
        {R"({"ConvertSource": "x", "AVTaskOutputParam": {}})", "\"ConvertSource\""},
        {R"({"ConvertSource": {}, "AVTaskOutputParam": {}, "timelineOptions": []})",
         "timelineOptions"},
    };
    for (const auto& [text, reason] : cases) {
        ConvertJob job;
        QString error;
        EXPECT_FALSE(jobFromJson(text, &job, &error)) << text.toStdString();
        EXPECT_TRUE(error.contains(reason)) << error.toStdString();
    }
}

TEST(JobFile, UnreadableAndUnwritableFilesNameThePath)
{
    QTemporaryDir dir;
    ConvertJob job;
    QString error;
    EXPECT_FALSE(readJobFile(dir.filePath("missing.json"), &job, &error));
    EXPECT_TRUE(error.contains("missing.json"));
    QFile blocker(dir.filePath("file"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    EXPECT_FALSE(writeJobFile(dir.filePath("file/job.json"), sampleJob(), &error));
    EXPECT_TRUE(error.contains("job.json"));
}
