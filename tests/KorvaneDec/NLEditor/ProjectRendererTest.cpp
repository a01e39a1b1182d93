// Renders small generated clips through the engine and measures the results
// with ffprobe and the ffmpeg program.
#include "RenderTestSupport.h"
#include "TestMedia.h"

#include "NLEditor/ProjectDocument.h"
#include "NLEditor/ProjectRenderer.h"

#include <QFileInfo>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <atomic>

using namespace Korvane;
using namespace RenderTest;

namespace {

Korvane::AVTaskOutputParam h264Output(const QString& path, int w = 0, int h = 0)
{
    Korvane::AVTaskOutputParam out;
    out.outputPath = path;
    out.format = QStringLiteral("mp4");
    out.video.codecName = QStringLiteral("h264");
    out.video.width = w;
    out.video.height = h;
    out.audio.codecName = QStringLiteral("aac");
    return out;
}

RenderOutcome render(const QJsonObject& doc, const Korvane::AVTaskOutputParam& out,
                     const std::atomic<bool>* stop = nullptr, QList<double>* progress = nullptr)
{
    ProjectDocument document;
    QString error;
    if (!parseProjectDocument(QString::fromUtf8(QJsonDocument(doc).toJson()), &document, &error)) {
        return {RenderStatus::Failed, error};
    }
    ProjectRenderer renderer(document, out);
    renderer.setStopFlag(stop);
    if (progress) {
        renderer.setProgressHandler([progress](double v) { progress->append(v); });
    }
    return renderer.run();
}

} // namespace

TEST(ProjectRenderer, WholeClipKeepsDurationSizeAndStreams)
{
    const QString source = clipWithSound();
    ASSERT_FALSE(source.isEmpty());
    QJsonObject clip = mainClip(source, 0, 2000, 0);
    clip.insert("transform", transform(160, 120));
    const QString output = outputPath("whole.mp4");
    QList<double> progress;
    const RenderOutcome outcome =
        render(document(160, 120, 25, {clip}), h264Output(output), nullptr, &progress);
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_EQ(p.videoStreams, 1);
    EXPECT_EQ(p.audioStreams, 1);
    EXPECT_EQ(p.width, 160);
    EXPECT_EQ(p.height, 120);
    EXPECT_EQ(p.videoCodec, "h264");
    EXPECT_EQ(p.audioCodec, "aac");
    EXPECT_NEAR(p.videoDuration, 2.0, 0.08);
    EXPECT_NEAR(p.audioDuration, 2.0, 0.08);
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_GT(progress.last(), 0.9);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    // The picture is the source's own: nothing was moved or tinted.
    EXPECT_GT(ssim(output, source), 0.95);
}

struct CutCase
{
    const char* name;
    QList<QPair<qint64, qint64>> cuts; // begin, length
    double speed;
    double expectedSeconds;
};

class CutsAndSpeed : public ::testing::TestWithParam<CutCase>
{};

TEST_P(CutsAndSpeed, TimelineLengthIsTheCutsPlayedAtSpeed)
{
    const CutCase& c = GetParam();
    const QString source = clipWithSound();
    QJsonArray clips;
    double pos = 0.0;
    for (const auto& cut : c.cuts) {
        QJsonObject clip = mainClip(source, cut.first, cut.second, pos, c.speed);
        clip.insert("transform", transform(160, 120));
        clips.append(clip);
        pos += cut.second / c.speed;
    }
    const QString output = outputPath(QStringLiteral("%1.mp4").arg(c.name));
    const RenderOutcome outcome = render(document(160, 120, 25, clips), h264Output(output));
    ASSERT_EQ(outcome.status, RenderStatus::Finished) << outcome.error.toStdString();
    const Probe p = probe(output);
    EXPECT_NEAR(p.videoDuration, c.expectedSeconds, 0.1);
    EXPECT_NEAR(p.audioDuration, c.expectedSeconds, 0.1);
}

INSTANTIATE_TEST_SUITE_P(
    Render, CutsAndSpeed,
    ::testing::Values(CutCase{"one_cut", {{500, 1000}}, 1.0, 1.0},
                      CutCase{"two_cuts", {{0, 600}, {1200, 700}}, 1.0, 1.3},
                      CutCase{"double_speed", {{0, 1000}, {1000, 1000}}, 2.0, 1.0},
                      CutCase{"half_speed", {{200, 800}}, 0.5, 1.6}),
    [](const ::testing::TestParamInfo<CutCase>& info) { return std::string(info.param.name); });
