// The ffmpeg process operator and the controller that falls back to the
// worker, run with stand-in ffmpeg programs (one per behaviour) on a
// generated clip, and the scripted worker.
#include "TranscoderFFmpeg/KvFFmpegOperator.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include "Common/AVFFmpegTask.h"
#include "Common/JsonForms.h"
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

using namespace Korvane;

namespace {

// Values blank-separated: "1 5".
template <typename List>
QString joined(const List& values)
{
    QStringList texts;
    for (const auto v : values) {
        texts << QString::number(v);
    }
    return texts.join(' ');
}

class FFmpegProcessTest : public ::testing::Test
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
        ASSERT_GT(sClipDurationMs, 0) << "test clip could not be generated";
        // A blank in the folder name: paths must reach ffmpeg as one argument
        // each; the output's folder is made for it.
        mDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/korvane op XXXXXX");
        ASSERT_TRUE(mDir->isValid());
        mSource.filePath = sClip;
        mSource.selfAudios = {1};
        mOutput = {mDir->filePath("out folder/result.mp4"), "mp4", {"h264", 320, 240}, {"aac"}};
    }

    void TearDown() override
    {
        KorvaneBaseEntry()->settings().remove("kFFmpeg_Path");
        KorvaneBaseEntry()->settings().remove("kWorker_Path");
        EXPECT_FALSE(isHardwareTranscode()) << "a run was left active";
    }

    void useFFmpeg(const QString& mode)
    {
        KorvaneBaseEntry()->settings().setValue(
            "kFFmpeg_Path", QCoreApplication::applicationDirPath() + "/fake-ffmpeg-" + mode);
    }

    // The progress expected from blank-separated values: ffmpeg's out_time_us
    // (1000 and more), "end" for the 1.0 of its end marker, and the worker's
    // own shares (below 1000) as they are.
    static QString shares(const QString& values)
    {
        QList<double> expected;
        for (const QString& v : values.split(' ', Qt::SkipEmptyParts)) {
            const double value = v == "end" ? 1.0 : v.toDouble();
            expected << (value < 1000 ? value
                                      : parseProgressLine("out_time_us=" + v, sClipDurationMs));
        }
        return joined(expected);
    }

    // Waits until no ffmpeg run is active any more and a little longer, so
    // that late reports would be seen.
    static void settle()
    {
        EXPECT_TRUE(QTest::qWaitFor([] { return !isHardwareTranscode(); }, 20000));
        QTest::qWait(300);
    }

    static inline QString sClip;
    static inline qint64 sClipDurationMs = 0;
    std::unique_ptr<QTemporaryDir> mDir;
    ConvertSource mSource;
    AVTaskOutputParam mOutput;
};

const QString kAll = "500000 1000000 1500000 2000000";

// What the host sees of a controller's job: ffmpeg's reports, then, after a
// failed run, those of exactly one fallback run of the worker.
TEST_F(FFmpegProcessTest, EndingsOfFFmpegAndOfTheFallback)
{
    const struct
    {
        const char* ffmpeg;
        const char* worker; // empty: none where the setting points
        float speed;        // 2.0 sends the job to the export engine
        QString source;     // empty: the clip
        const char* states; // what the host sees
        QString progress;   // ffmpeg's out_time_us values, then the worker's
        int outputKept;     // -1: either, as the kill races ffmpeg's exit
        const char* logged;
        const char* command; // the worker command the fallback ran; empty: none
    } cases[] = {
        {"success", "", 1.0f, "", "1 5", kAll + " end", 1, "", ""},
        // The progress file is a folder at first: opening fails and is retried.
        {"blocked", "", 1.0f, "", "1 5", kAll + " end", 1, "", ""},
        // Half-written lines are read whole at a later poll: no spurious
        // 15 us progress, and the end marker is not lost.
        {"torn", "", 1.0f, "", "1 5", "500000 1500000 end", 1, "", ""},
        {"noend", "", 1.0f, "", "1 6", kAll, 1, "", ""},
        {"fail", "", 1.0f, "", "1 6", "500000", 0, "", ""},
        {"crash", "", 1.0f, "", "1 6", "500000", 0, "", ""},
        {"stderr", "", 1.0f, "", "1 6", "500000", 0,
         "ffmpeg cnv failed: [h264 @ 0x1] fake error line", ""},
        {"errorexit0", "", 1.0f, "", "1 6", kAll + " end", -1,
         "ffmpeg cnv failed: fake error after the end", ""},
        // An unreadable source cannot start ffmpeg; the converter check gives
        // such a file the benefit of the doubt.
        {"success", "success", 1.0f, mDir->filePath("missing.mp4"), "1 5", "0.25 0.5 1", 0, "",
         "convert"},
        {"missing", "success", 1.0f, "", "1 5", "0.25 0.5 1", 0,
         "ffmpeg cannot be started: ", "convert"},
        {"fail", "success", 1.0f, "", "1 1 5", "500000 0.25 0.5 1", 0, "", "convert"},
        {"fail", "failure", 1.0f, "", "1 1 6", "500000 0.1", 0, "", "convert"},
        {"fail", "success", 2.0f, "", "1 1 5", "500000 0.25 0.5 1", 0, "", "export"},
        {"fail", "failure", 2.0f, "", "1 1 6", "500000 0.1", 0, "", "export"},
        // Neither ffmpeg nor the fallback starts: the 6 comes from start().
        {"fail", "", 1.0f, mDir->filePath("missing.mp4"), "6", "", 0, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ffmpeg) + " " + c.worker + " " + c.states + " " + c.command);
        ScriptedWorker worker(c.worker);
        if (!*c.worker) {
            KorvaneBaseEntry()->settings().setValue("kWorker_Path", mDir->filePath("no-worker"));
        }
        useFFmpeg(c.ffmpeg);
        LogCapture log;
        mSource.speed = c.speed;
        mSource.filePath = c.source.isEmpty() ? sClip : c.source;
        const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
        BusRecorder bus(op->task());
        ASSERT_TRUE(op->start());
        // Reports come through the event loop, never from inside start().
        EXPECT_EQ(bus.states().isEmpty(), QString(c.states) != "6");
        ASSERT_TRUE(bus.waitForFinalState());
        settle();

        EXPECT_EQ(joined(bus.states()), c.states);
        EXPECT_EQ(bus.errorCodes(), QList<int>(bus.states().size(), 0));
        EXPECT_EQ(joined(bus.progress()), shares(c.progress));
        EXPECT_EQ(bus.progressTypes(), QList<int>(bus.progress().size(), 0));
        EXPECT_EQ(QString::number(int(op->task()->state())), QString(c.states).right(1));
        EXPECT_EQ(QString::number(op->task()->progress()),
                  QString::number(bus.progress().value(bus.progress().size() - 1, 0.0)));
        if (c.outputKept >= 0) {
            EXPECT_EQ(QFileInfo::exists(mOutput.outputPath), c.outputKept == 1);
        }
        EXPECT_TRUE(log.contains(c.logged));
        EXPECT_EQ(worker.runs(), QString(c.command).isEmpty() ? 0 : 1);
        EXPECT_EQ(worker.arguments(1).value(0), c.command);
        EXPECT_EQ(log.count(QString("Complete convert failed, convert type: %1, file, src: %2 "
                                    "dst: %3.")
                                .arg(c.speed == 1.0f ? "Codec Cpu" : "Codec Gl", mSource.filePath,
                                     mOutput.outputPath)),
                  QString(c.states) != "1 5" || *c.command ? 1 : 0);
        // The export gets the timeline document of the job as its JSON form
        // gives it back; transform names carry a process-wide counter.
        const auto withoutCounter = [](QString document) {
            return document.replace(QRegularExpression("(transform|2dTo3d)_\\d+"), "\\1_N");
        };
        const QString document = makeTimelineProjectJson(
            convertSourceFromJson(op->task()->sourceJson()), {{"width", 320}, {"height", 240}});
        EXPECT_EQ(withoutCounter(worker.fileContent(1, "--project")),
                  QString(c.command) == "export" ? withoutCounter(document) : "");
    }
}

// A stop ends ffmpeg without a fallback, or reaches the running fallback.
TEST_F(FFmpegProcessTest, ControllerStop)
{
    for (const auto& [ffmpeg, states] : {std::pair{"hang", "1 4"}, {"fail", "1 1 4"}}) {
        SCOPED_TRACE(ffmpeg);
        ScriptedWorker worker("hang");
        useFFmpeg(ffmpeg);
        const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
        BusRecorder bus(op->task());
        ASSERT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForStateCount(int(QString(states).count(' '))));
        op->stop();
        ASSERT_TRUE(bus.waitForFinalState());
        // A killed ffmpeg still reports 6 afterwards; it must not reach the bus.
        settle();
        EXPECT_EQ(joined(bus.states()), states);
        EXPECT_EQ(worker.runs(), QString(states).count(' ') - 1);
        EXPECT_EQ(worker.stopped(1), worker.runs() == 1);
        EXPECT_FALSE(QFileInfo::exists(mOutput.outputPath));
    }
}

// One flag for all runs: a second run that ends while the first still runs
// clears it, and a later start sets it again.
TEST_F(FFmpegProcessTest, HardwareFlagIsOneFlagSharedByOverlappingRuns)
{
    QList<QSharedPointer<IAVTaskOperator>> ops;
    for (const char* mode : {"hang", "success", "hang"}) {
        useFFmpeg(mode);
        mOutput.outputPath = mDir->filePath(QString("%1.mp4").arg(ops.size()));
        ops << rawCreateNvidiaFFmpegConverter(mSource, mOutput);
        BusRecorder bus(ops.last()->task());
        ASSERT_TRUE(ops.last()->start());
        EXPECT_TRUE(isHardwareTranscode());
        if (ops.size() == 2) {
            ASSERT_TRUE(bus.waitForFinalState());
            EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
            EXPECT_FALSE(isHardwareTranscode());
        }
    }
    ops.first()->stop();
    ops.last()->stop();
    settle();
}

// The host may drop the controller while ffmpeg runs: the ffmpeg operator
// finishes the run on its own. Destroying an unowned operator ends its run.
TEST_F(FFmpegProcessTest, ReleasedRuns)
{
    useFFmpeg("success");
    auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
    const QSharedPointer<IAVTask> task = op->task();
    ASSERT_TRUE(op->start());
    op.reset();
    settle();
    EXPECT_TRUE(QTest::qWaitFor([&] { return task->state() == TaskState::Finished; }, 5000));

    useFFmpeg("hang");
    auto unowned =
        std::make_unique<KvFFmpegOperator>(QSharedPointer<AVFFmpegTask>::create(mSource, mOutput));
    ASSERT_TRUE(unowned->start());
    EXPECT_TRUE(isHardwareTranscode());
    unowned.reset();
    EXPECT_FALSE(isHardwareTranscode());
}

TEST_F(FFmpegProcessTest, OperatorInfoNamesDecoderAndEncoder)
{
    const char* const h264 = "-c:v libx264 -pix_fmt yuv420p";
    const char* const hevc = "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=error";
    const char* const nvidia = "NVIDIA GeForce RTX 3060";
    const struct
    {
        const char* clip;
        const char* clipArgs;
        bool hardware;
        const char* gpu;
        const char* decoder;
        const char* encoder;
    } cases[] = {
        {"info-h264.mp4", h264, false, "", "H264", "H264"},
        {"info-h264.mp4", h264, false, nvidia, "H264", "H264"},
        {"info-h264.mp4", h264, true, "Intel(R) UHD Graphics 630", "H264", "H264_qsv"},
        {"info-h264.mp4", h264, true, nvidia, "H264", "H264_nvenc"},
        {"info-h264.mp4", h264, true, "AMD Radeon RX 6600", "H264", ""},
        {"info-h264.mp4", h264, true, "intel arc", "H264", ""},
        {"info-hevc.mp4", hevc, true, nvidia, "HEVC", "HEVC_nvenc"},
        {"info-mpeg4.avi", "-c:v mpeg4", false, "", "", ""},
        {"info-mpeg4.avi", "-c:v mpeg4", true, "Intel Iris Xe", "", "_qsv"},
    };
    useFFmpeg("success");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.clip) + " " + c.gpu);
        mSource.filePath = TestMedia::generate(
            QString("transcoder/") + c.clip,
            QStringList{"-f", "lavfi", "-i", "testsrc=duration=1:size=160x120:rate=10"} +
                QString(c.clipArgs).split(' '));
        ASSERT_FALSE(mSource.filePath.isEmpty());
        mOutput.acceleration.hardwareEnabled = c.hardware;
        mOutput.acceleration.gpuName = c.gpu;
        const auto op = QSharedPointer<KvFFmpegOperator>::create(
            QSharedPointer<AVFFmpegTask>::create(mSource, mOutput));
        ASSERT_TRUE(op->start());
        settle();
        EXPECT_EQ(op->operatorInfo(), QVariantMap({{"operatorName", "ConvertGpuOperator"},
                                                   {"processMode", "FFMPEG Mode"},
                                                   {"decoderName", c.decoder},
                                                   {"encoderName", c.encoder}}));
    }
}

TEST_F(FFmpegProcessTest, FactoriesHandOutControllersOverACopyOfTheJob)
{
    EXPECT_TRUE(rawCreateFFmpegConverter_Lossless(mSource, "mkv").isNull());
    for (auto factory : {&rawCreateIntelFFmpegConverter, &rawCreateNvidiaFFmpegConverter}) {
        ConvertSource source = mSource;
        const QSharedPointer<IAVTaskOperator> op = factory(source, mOutput);
        source.filePath = "/changed.mp4";
        const auto task = qSharedPointerDynamicCast<AVFFmpegTask>(op->task());
        ASSERT_FALSE(task.isNull());
        EXPECT_EQ(task->source()->filePath, sClip);
        EXPECT_EQ(task->outputPath(), mOutput.outputPath);
    }
}

} // namespace
