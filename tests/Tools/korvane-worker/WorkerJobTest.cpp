// The worker's command line, output record reading and line protocol.
#include "WorkerJob.h"
#include "WorkerProtocol.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <gtest/gtest.h>

#include <cstdio>

using namespace Korvane;

TEST(WorkerArguments, AcceptsExactlyTheTwoForms)
{
    using Mode = WorkerArguments::Mode;
    struct Row
    {
        QStringList args;
        Mode mode;
    };
    const QList<Row> rows = {
        {{"convert", "--source", "s.json", "--output", "o.json"}, Mode::Convert},
        {{"convert", "--output", "o.json", "--source", "s.json"}, Mode::Convert},
        {{"export", "--project", "p.json", "--output", "o.json"}, Mode::Export},
        {{}, Mode::Invalid},
        {{"convert"}, Mode::Invalid},
        {{"convert", "--source", "s.json"}, Mode::Invalid},
        {{"convert", "--project", "p.json", "--output", "o.json"}, Mode::Invalid},
        {{"export", "--source", "s.json", "--output", "o.json"}, Mode::Invalid},
        {{"render", "--project", "p.json", "--output", "o.json"}, Mode::Invalid},
        {{"convert", "--source", "a", "--source", "b"}, Mode::Invalid},
        {{"convert", "--source", "", "--output", "o.json"}, Mode::Invalid},
        {{"export", "--project", "p.json", "--output", "o.json", "extra"}, Mode::Invalid},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.args.join(' ').toStdString());
        EXPECT_EQ(parseWorkerArguments(row.args).mode, row.mode);
    }
    const WorkerArguments convert =
        parseWorkerArguments({"convert", "--output", "o.json", "--source", "s.json"});
    EXPECT_EQ(convert.sourceFile, "s.json");
    EXPECT_EQ(convert.outputFile, "o.json");
    EXPECT_EQ(
        parseWorkerArguments({"export", "--project", "p.json", "--output", "o.json"}).projectFile,
        "p.json");
}

TEST(OutputParamFromFlatJson, ReadsEveryKeyAndZeroesMissingOnes)
{
    const QVariantMap map = {{"type", "AVTaskOutputParam"},
                             {"outputPath", "/tmp/x.mkv"},
                             {"format", "mkv"},
                             {"video.codecName", "h265"},
                             {"video.width", 1280},
                             {"video.height", 720},
                             {"video.frameRate", 29.97},
                             {"video.bitrateKbps", 4000},
                             {"audio.codecName", "aac"},
                             {"audio.sampleRate", 44100},
                             {"audio.channels", 2},
                             {"audio.bitrateKbps", 192},
                             {"acceleration.gpuName", "NVIDIA X"},
                             {"acceleration.hardwareEnabled", true},
                             {"twoPassEncoding", true},
                             {"taskMode", 3}};
    const AVTaskOutputParam p = outputParamFromFlatJson(map);
    EXPECT_EQ(p.outputPath, "/tmp/x.mkv");
    EXPECT_EQ(p.format, "mkv");
    EXPECT_EQ(p.video.codecName, "h265");
    EXPECT_EQ(p.video.width, 1280);
    EXPECT_EQ(p.video.height, 720);
    EXPECT_DOUBLE_EQ(p.video.frameRate, 29.97);
    EXPECT_EQ(p.video.bitrateKbps, 4000);
    EXPECT_EQ(p.audio.codecName, "aac");
    EXPECT_EQ(p.audio.sampleRate, 44100);
    EXPECT_EQ(p.audio.channels, 2);
    EXPECT_EQ(p.audio.bitrateKbps, 192);
    EXPECT_EQ(p.acceleration.gpuName, "NVIDIA X");
    EXPECT_TRUE(p.acceleration.hardwareEnabled);
    EXPECT_TRUE(p.twoPassEncoding);
    EXPECT_EQ(p.taskMode, 3);
    EXPECT_FALSE(p.isAlpha);
    EXPECT_TRUE(p.acceleration.losslessFormat.isEmpty());

    const AVTaskOutputParam empty = outputParamFromFlatJson({});
    EXPECT_TRUE(empty.outputPath.isEmpty());
    EXPECT_TRUE(empty.video.codecName.isEmpty());
    EXPECT_EQ(empty.video.width, 0);
    EXPECT_EQ(empty.audio.channels, 0);
}

namespace {

QList<QJsonObject> readLines(std::FILE* file)
{
    std::rewind(file);
    QList<QJsonObject> lines;
    char buffer[512];
    while (std::fgets(buffer, sizeof(buffer), file)) {
        lines.append(QJsonDocument::fromJson(QByteArray(buffer).trimmed()).object());
    }
    return lines;
}

} // namespace

TEST(WorkerProtocol, WritesOneCompactObjectPerLine)
{
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    WorkerProtocol protocol(file);
    protocol.started();
    protocol.progress(0.42);
    protocol.failed(QStringLiteral("bad \"thing\""));
    protocol.stopped();
    protocol.finished();
    const QList<QJsonObject> lines = readLines(file);
    std::fclose(file);
    ASSERT_EQ(lines.size(), 5);
    EXPECT_EQ(lines[0], QJsonObject({{"state", 1}}));
    EXPECT_EQ(lines[1], QJsonObject({{"progress", 0.42}}));
    EXPECT_EQ(lines[2], QJsonObject({{"state", 6}, {"error", "bad \"thing\""}}));
    EXPECT_EQ(lines[3], QJsonObject({{"state", 4}}));
    EXPECT_EQ(lines[4], QJsonObject({{"state", 5}}));
}

TEST(WorkerProtocol, ProgressAtMostEvery250Milliseconds)
{
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    WorkerProtocol protocol(file);
    protocol.progress(0.1);
    protocol.progress(0.2); // too soon: dropped
    protocol.progress(0.3);
    QThread::msleep(300);
    protocol.progress(1.7); // clamped
    const QList<QJsonObject> lines = readLines(file);
    std::fclose(file);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_DOUBLE_EQ(lines[0].value("progress").toDouble(), 0.1);
    EXPECT_DOUBLE_EQ(lines[1].value("progress").toDouble(), 1.0);
}
