#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include "Common/AVFFmpegTask.h"
#include "Common/JsonForms.h"
#include "Common/TaskSignalBus.h"
#include "Common/TimelineProject.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFDemuxer.h"
#include "LogCapture.h"
#include "ScriptedWorkerHarness.h"
#include "TestMedia.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

extern "C" {
#include <libavcodec/codec_id.h>
}

using namespace Korvane;

namespace {

QString fakeFFmpeg(const QString& mode)
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/fake-ffmpeg-") + mode;
}

// The scripted worker's "success" reports.
const QList<double> kWorkerProgress{0.25, 0.5, 1.0};

class FFmpegControllerTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        sClip = TestMedia::generate("transcoder/h264-2s.mp4",
                                    {"-f", "lavfi", "-i", "testsrc=duration=2:size=320x240:rate=25",
                                     "-f", "lavfi", "-i", "sine=frequency=440:duration=2", "-c:v",
                                     "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
        FFDemuxer demuxer;
        if (demuxer.open(sClip) && demuxer.mediaInfo()) {
            sClipDurationMs = demuxer.mediaInfo()->durationMs;
        }
    }

    void SetUp() override
    {
        ASSERT_FALSE(sClip.isEmpty()) << "test clip could not be generated";
        ASSERT_GT(sClipDurationMs, 0);
        ASSERT_TRUE(mDir.isValid());
        mSource.filePath = sClip;
        mSource.selfAudios = {1};
        mOutput.outputPath = mDir.filePath("result.mp4");
        mOutput.format = "mp4";
        mOutput.video.codecName = "h264";
        mOutput.video.width = 320;
        mOutput.video.height = 240;
        mOutput.audio.codecName = "aac";
    }

    void TearDown() override
    {
        KorvaneBaseEntry()->settings().remove("kFFmpeg_Path");
        EXPECT_FALSE(isHardwareTranscode()) << "a run was left active";
    }

    void useFFmpeg(const QString& program)
    {
        KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", program);
    }

    static double share(qint64 outTimeUs)
    {
        return parseProgressLine(QStringLiteral("out_time_us=%1").arg(outTimeUs), sClipDurationMs);
    }

    // Runs the event loop until no ffmpeg run is active any more and then a
    // little longer, so that late reports would be seen.
    static void settle()
    {
        EXPECT_TRUE(QTest::qWaitFor([] { return !isHardwareTranscode(); }, 20000));
        QTest::qWait(300);
    }

    static QString sClip;
    static qint64 sClipDurationMs;
    QTemporaryDir mDir;
    ConvertSource mSource;
    AVTaskOutputParam mOutput;
};

QString FFmpegControllerTest::sClip;
qint64 FFmpegControllerTest::sClipDurationMs = 0;

TEST_F(FFmpegControllerTest, FactoriesHandOutControllersOverTheirOwnTask)
{
    EXPECT_TRUE(rawCreateFFmpegConverter_Lossless(mSource, "mkv").isNull());
    using Factory =
        QSharedPointer<IAVTaskOperator> (*)(const ConvertSource&, const AVTaskOutputParam&);
    for (Factory factory : {&rawCreateIntelFFmpegConverter, &rawCreateNvidiaFFmpegConverter}) {
        ConvertSource source = mSource;
        const QSharedPointer<IAVTaskOperator> op = factory(source, mOutput);
        ASSERT_FALSE(op.isNull());
        source.filePath = "/changed.mp4";
        auto* object = dynamic_cast<QObject*>(op.data());
        ASSERT_NE(object, nullptr);
        EXPECT_STREQ(object->metaObject()->className(), "Korvane::FFmpegController");
        const auto task = qSharedPointerDynamicCast<AVFFmpegTask>(op->task());
        ASSERT_FALSE(task.isNull());
        EXPECT_EQ(task->source()->filePath, sClip);
        EXPECT_EQ(task->outputPath(), mOutput.outputPath);
        EXPECT_EQ(int(task->state()), 0);
        EXPECT_TRUE(op->operatorInfo().isEmpty());
        EXPECT_TRUE(op->errorString().isEmpty());
    }
}

TEST_F(FFmpegControllerTest, SupportCheckIsForwarded)
{
    // The full check belongs to ConvertSourceHelper; here only that the export
    // answers both ways.
    EXPECT_TRUE(isConverterSourceSupportedByTranscoderFFmpeg(mSource, mOutput));
    ConvertSource missing = mSource;
    missing.filePath = mDir.filePath("missing.mp4");
    EXPECT_FALSE(isConverterSourceSupportedByTranscoderFFmpeg(missing, mOutput));
    AVTaskOutputParam vp9 = mOutput;
    vp9.video.codecName = "vp9";
    EXPECT_FALSE(isConverterSourceSupportedByTranscoderFFmpeg(mSource, vp9));
}

TEST_F(FFmpegControllerTest, SuccessfulRunIsRelayedWithoutFallback)
{
    ScriptedWorker worker("success");
    useFFmpeg(fakeFFmpeg("success"));
    const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());

    ASSERT_TRUE(op->start());
    // Reports come through the event loop, never from inside start().
    EXPECT_TRUE(bus.states().isEmpty());
    ASSERT_TRUE(bus.waitForFinalState());
    settle();

    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    EXPECT_EQ(bus.errorCodes(), (QList<int>{0, 0}));
    EXPECT_EQ(bus.progress(),
              (QList<double>{share(500000), share(1000000), share(1500000), share(2000000), 1.0}));
    EXPECT_EQ(bus.progressTypes(), (QList<int>{0, 0, 0, 0, 0}));
    EXPECT_EQ(op->task()->state(), TaskState::Finished);
    EXPECT_EQ(worker.runs(), 0);
}

TEST_F(FFmpegControllerTest, OperatorThatCannotStartFallsBackAtOnce)
{
    ScriptedWorker worker("success");
    useFFmpeg(fakeFFmpeg("success"));
    LogCapture log;
    // An unreadable source: the ffmpeg operator cannot start, and the
    // converter check gives such a file the benefit of the doubt.
    mSource.filePath = mDir.filePath("missing.mp4");
    const auto op = rawCreateIntelFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());

    EXPECT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());
    settle();

    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    EXPECT_EQ(bus.progress(), kWorkerProgress);
    EXPECT_EQ(bus.progressTypes(), (QList<int>{0, 0, 0}));
    EXPECT_EQ(op->task()->state(), TaskState::Finished);
    EXPECT_EQ(op->task()->progress(), 1.0);
    EXPECT_EQ(worker.runs(), 1);
    EXPECT_EQ(worker.arguments(1).value(0), "convert");
    EXPECT_EQ(log.count(QStringLiteral("Complete convert failed, convert type: Codec Cpu, file, "
                                       "src: %1 dst: %2.")
                            .arg(mSource.filePath, mOutput.outputPath)),
              1);
}

// How the fallback's own reports reach the bus after a failed ffmpeg run.
struct FallbackCase
{
    const char* name;
    const char* ffmpegMode;
    const char* workerBehaviour;
    float speed;         // 2.0 sends the job to the export engine
    const char* command; // the worker command the fallback ran
    const char* logKind; // "Codec Cpu" or "Codec Gl"
    QList<int> states;   // ffmpeg's 1, then the fallback's states
    QList<double> workerProgress;
};

class ControllerFallback : public FFmpegControllerTest,
                           public ::testing::WithParamInterface<FallbackCase>
{};

TEST_P(ControllerFallback, FallsBackExactlyOnceAndRelays)
{
    const FallbackCase& c = GetParam();
    ScriptedWorker worker(c.workerBehaviour);
    useFFmpeg(fakeFFmpeg(c.ffmpegMode));
    LogCapture log;
    mSource.speed = c.speed;
    const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());

    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForStateCount(c.states.size()));
    settle();

    EXPECT_EQ(bus.states(), c.states);
    EXPECT_EQ(bus.progress(), QList<double>{share(500000)} + c.workerProgress);
    EXPECT_EQ(bus.progressTypes(), QList<int>(c.workerProgress.size() + 1, 0));
    EXPECT_EQ(int(op->task()->state()), c.states.last());
    EXPECT_EQ(worker.runs(), 1);
    EXPECT_EQ(worker.arguments(1).value(0), c.command);
    EXPECT_EQ(log.count("Complete convert failed, convert type: "), 1);
    EXPECT_EQ(log.count(QStringLiteral("Complete convert failed, convert type: %1, file, src: %2 "
                                       "dst: %3.")
                            .arg(c.logKind, sClip, mOutput.outputPath)),
              1);
}

INSTANTIATE_TEST_SUITE_P(
    AfterFailedRun, ControllerFallback,
    ::testing::Values(
        FallbackCase{"ConverterSucceeds",
                     "fail",
                     "success",
                     1.0f,
                     "convert",
                     "Codec Cpu",
                     {1, 1, 5},
                     kWorkerProgress},
        FallbackCase{
            "ConverterFails", "fail", "failure", 1.0f, "convert", "Codec Cpu", {1, 1, 6}, {0.1}},
        FallbackCase{"AfterErrorOutput",
                     "stderr",
                     "success",
                     1.0f,
                     "convert",
                     "Codec Cpu",
                     {1, 1, 5},
                     kWorkerProgress},
        FallbackCase{"AfterCrash",
                     "crash",
                     "success",
                     1.0f,
                     "convert",
                     "Codec Cpu",
                     {1, 1, 5},
                     kWorkerProgress},
        FallbackCase{"ExportSucceeds",
                     "fail",
                     "success",
                     2.0f,
                     "export",
                     "Codec Gl",
                     {1, 1, 5},
                     kWorkerProgress},
        FallbackCase{
            "ExportFails", "fail", "failure", 2.0f, "export", "Codec Gl", {1, 1, 6}, {0.1}}),
    [](const ::testing::TestParamInfo<FallbackCase>& info) {
        return std::string(info.param.name);
    });

TEST_F(FFmpegControllerTest, ExportFallbackGetsTheTimelineDocumentOfTheJob)
{
    ScriptedWorker worker("success");
    useFFmpeg(fakeFFmpeg("noend"));
    mSource.speed = 2.0f;
    mOutput.video.width = 1280;
    mOutput.video.height = 720;
    const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForStateCount(3));
    settle();

    ASSERT_EQ(worker.runs(), 1);
    EXPECT_EQ(worker.arguments(1).value(0), "export");
    // Built from the job as its JSON form gives it back. Transform names
    // carry a process-wide counter, so they differ from call to call.
    const auto withoutCounter = [](QString document) {
        return document.replace(QRegularExpression("(transform|2dTo3d)_\\d+"), "\\1_N");
    };
    const ConvertSource source = convertSourceFromJson(op->task()->sourceJson());
    const QString sent = worker.fileContent(1, "--project");
    EXPECT_TRUE(sent.contains("\"width\": 1280")) << sent.toStdString();
    EXPECT_EQ(withoutCounter(sent),
              withoutCounter(makeTimelineProjectJson(source, {{"width", 1280}, {"height", 720}})));
}

TEST_F(FFmpegControllerTest, StoppedRunRelaysFourAndNoFallback)
{
    ScriptedWorker worker("success");
    useFFmpeg(fakeFFmpeg("hang"));
    const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForState(1));

    op->stop();
    ASSERT_TRUE(bus.waitForFinalState());
    // The killed ffmpeg still reports 6 afterwards; it must not reach the bus.
    settle();

    EXPECT_EQ(bus.states(), (QList<int>{1, 4}));
    EXPECT_EQ(worker.runs(), 0);
}

TEST_F(FFmpegControllerTest, StopReachesTheRunningFallback)
{
    ScriptedWorker worker("hang");
    useFFmpeg(fakeFFmpeg("fail"));
    const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForStateCount(2));
    ASSERT_EQ(worker.runs(), 1);

    op->stop();
    ASSERT_TRUE(bus.waitForFinalState());
    settle();
    EXPECT_EQ(bus.states(), (QList<int>{1, 1, 4}));
    EXPECT_TRUE(worker.stopped(1));
}

TEST_F(FFmpegControllerTest, FallbackThatCannotStartGivesSix)
{
    struct Case
    {
        const char* name;
        QString sourcePath;
        QList<int> states;
    };
    const QList<Case> cases{
        // ffmpeg ran and failed: its 1 was relayed before the fallback.
        {"after a failed run", sClip, {1, 6}},
        // ffmpeg never started: the host sees only the fallback's failure.
        {"after a failed start", mDir.filePath("missing.mp4"), {6}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        useFFmpeg(fakeFFmpeg("fail"));
        KorvaneBaseEntry()->settings().setValue("kWorker_Path", mDir.filePath("no-such-worker"));
        mSource.filePath = c.sourcePath;
        const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
        BusRecorder bus(op->task());
        EXPECT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForFinalState());
        settle();
        EXPECT_EQ(bus.states(), c.states);
        EXPECT_EQ(bus.errorCodes().last(), 0);
        EXPECT_EQ(op->task()->state(), TaskState::Failed);
        KorvaneBaseEntry()->settings().remove("kWorker_Path");
    }
}

TEST_F(FFmpegControllerTest, HostMayDropTheControllerWhileFFmpegRuns)
{
    useFFmpeg(fakeFFmpeg("success"));
    LogCapture log;
    auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    const QSharedPointer<IAVTask> task = op->task();
    ASSERT_TRUE(op->start());
    op.reset();
    EXPECT_EQ(log.count("~FFmpegController"), 1);
    // The ffmpeg operator finishes the run on its own and then goes.
    EXPECT_TRUE(QTest::qWaitFor([] { return !isHardwareTranscode(); }, 20000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return task->state() == TaskState::Finished; }, 5000));
}

// The real ffmpeg next to the test program, on the software path.
TEST_F(FFmpegControllerTest, RealFFmpegConvertsAGeneratedClip)
{
    const QString clip = TestMedia::generate(
        "transcoder/e2e-h264-4s.mp4",
        {"-f", "lavfi", "-i", "testsrc2=duration=4:size=640x360:rate=25", "-f", "lavfi", "-i",
         "sine=frequency=330:duration=4", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt",
         "yuv420p", "-c:a", "aac", "-shortest"});
    ASSERT_FALSE(clip.isEmpty());
    ScriptedWorker worker("success");
    mSource.filePath = clip;
    mOutput.outputPath = mDir.filePath("converted/e2e.mp4");
    mOutput.video.width = 640;
    mOutput.video.height = 360;
    mOutput.acceleration.hardwareEnabled = false;
    mOutput.acceleration.gpuName.clear();
    const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    BusRecorder bus(op->task());

    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState(120000));
    settle();

    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    const QList<double> progress = bus.progress();
    ASSERT_GE(progress.size(), 2);
    // Output time rises block by block and may pass the probed duration by a
    // few milliseconds; the end marker then reports exactly 1.0.
    for (qsizetype i = 1; i + 1 < progress.size(); ++i) {
        EXPECT_GT(progress.at(i), progress.at(i - 1)) << "at " << i;
    }
    EXPECT_GT(progress.first(), 0.0);
    EXPECT_NEAR(progress.at(progress.size() - 2), 1.0, 0.02);
    EXPECT_EQ(progress.last(), 1.0);
    EXPECT_EQ(worker.runs(), 0);

    FFDemuxer demuxer;
    ASSERT_TRUE(demuxer.open(mOutput.outputPath));
    const auto info = demuxer.mediaInfo();
    ASSERT_TRUE(info);
    ASSERT_FALSE(info->streams.isEmpty());
    EXPECT_EQ(info->streams.first()->codecId, AV_CODEC_ID_H264);
    EXPECT_NEAR(double(info->durationMs), 4000.0, 150.0);
}

} // namespace
