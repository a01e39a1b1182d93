// The ffmpeg process operator and the controller that falls back to the
// worker, run with stand-in ffmpeg programs (one per behaviour) on a
// generated clip.
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
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace Korvane;

namespace {

// Debug-stream messages of the code under test, gathered across the process.
QMutex gDebugMutex;
QStringList gDebugMessages;

bool debugSeen(const QString& text)
{
    QMutexLocker lock(&gDebugMutex);
    return !gDebugMessages.filter(text).isEmpty();
}

QString fakeFFmpeg(const QString& mode)
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/fake-ffmpeg-") + mode;
}

// The values of a spied signal, blank-separated: "1 5".
QString valuesOf(const QSignalSpy& spy)
{
    QStringList values;
    for (const QList<QVariant>& call : spy) {
        values << QString::number(call.at(0).toDouble());
    }
    return values.join(' ');
}

QString joined(const QList<int>& states)
{
    QStringList values;
    for (int s : states) {
        values << QString::number(s);
    }
    return values.join(' ');
}

// One operator on a fresh task, with a spy on each of its signals.
struct OperatorRun
{
    OperatorRun(const ConvertSource& source, const AVTaskOutputParam& output)
        : task(QSharedPointer<AVFFmpegTask>::create(source, output)),
          op(QSharedPointer<KvFFmpegOperator>::create(task)),
          states(std::make_unique<QSignalSpy>(op.data(), SIGNAL(ffmpegTaskStateChanged(int)))),
          progress(std::make_unique<QSignalSpy>(op.data(), SIGNAL(ffmpegTaskProgress(double))))
    {}

    // Waits for the final state, then a little longer so that a stray later
    // signal would be seen too.
    bool waitForEnd()
    {
        const bool done = QTest::qWaitFor(
            [this] {
                const QString s = valuesOf(*states);
                return (s.endsWith('5') || s.endsWith('6')) && !isHardwareTranscode();
            },
            20000);
        QTest::qWait(150);
        return done;
    }

    QSharedPointer<AVFFmpegTask> task;
    QSharedPointer<KvFFmpegOperator> op;
    std::unique_ptr<QSignalSpy> states;
    std::unique_ptr<QSignalSpy> progress;
};

class FFmpegProcessTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
            QMutexLocker lock(&gDebugMutex);
            gDebugMessages.append(text);
        });
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
        // A blank in the folder name: paths must reach ffmpeg as one argument each.
        mDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/korvane op XXXXXX");
        ASSERT_TRUE(mDir->isValid());
        mSource.filePath = sClip;
        mSource.selfAudios = {1};
        mOutput.outputPath = mDir->filePath("out folder/result.mp4");
        mOutput.format = "mp4";
        mOutput.video.codecName = "h264";
        mOutput.video.width = 320;
        mOutput.video.height = 240;
        mOutput.audio.codecName = "aac";
    }

    void TearDown() override
    {
        KorvaneBaseEntry()->settings().remove("kFFmpeg_Path");
        KorvaneBaseEntry()->settings().remove("kWorker_Path");
        EXPECT_FALSE(isHardwareTranscode()) << "a run was left active";
    }

    void useFFmpeg(const QString& mode) { setting("kFFmpeg_Path", fakeFFmpeg(mode)); }
    void setting(const QString& key, const QString& value)
    {
        KorvaneBaseEntry()->settings().setValue(key, value);
    }

    // The share ffmpeg reports for `outTimeUs` of output on the test clip.
    static double share(qint64 outTimeUs)
    {
        return parseProgressLine(QStringLiteral("out_time_us=%1").arg(outTimeUs), sClipDurationMs);
    }

    // The progress expected from blank-separated values: ffmpeg's out_time_us
    // (1000 and more), "end" for the 1.0 of its end marker, and the worker's
    // own shares (below 1000) as they are.
    static QString shares(const QString& values)
    {
        QStringList expected;
        for (const QString& v : values.split(' ', Qt::SkipEmptyParts)) {
            const double value = v == "end" ? 1.0 : v.toDouble();
            expected << QString::number(value >= 1000 ? share(qint64(value)) : value);
        }
        return expected.join(' ');
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
    std::unique_ptr<QTemporaryDir> mDir;
    ConvertSource mSource;
    AVTaskOutputParam mOutput;
};

QString FFmpegProcessTest::sClip;
qint64 FFmpegProcessTest::sClipDurationMs = 0;

const char* const kAll = "500000 1000000 1500000 2000000";

TEST_F(FFmpegProcessTest, OperatorEndings)
{
    const struct
    {
        const char* mode;
        const char* states;
        QString progress;
        int outputKept; // -1: either, as the kill races ffmpeg's exit
        const char* logged;
        const char* debugLogged;
    } cases[] = {
        {"success", "1 5", kAll + QString(" end"), 1, "", ""},
        // The progress file is a folder at first: opening fails and is retried.
        {"blocked", "1 5", kAll + QString(" end"), 1, "", "open file failed..."},
        // Half-written lines are read whole at a later poll: no spurious
        // 15 us progress, and the end marker is not lost.
        {"torn", "1 5", "500000 1500000 end", 1, "", ""},
        {"noend", "1 6", kAll, 1, "", "cannot read end."},
        {"fail", "1 6", "500000", 0, "", ""},
        {"crash", "1 6", "500000", 0, "", ""},
        {"stderr", "1 6", "500000", 0, "ffmpeg cnv failed: [h264 @ 0x1] fake error line", ""},
        {"errorexit0", "1 6", kAll + QString(" end"), -1,
         "ffmpeg cnv failed: fake error after the end", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        useFFmpeg(c.mode);
        LogCapture log;
        OperatorRun run(mSource, mOutput);
        ASSERT_TRUE(run.op->start());
        EXPECT_TRUE(isHardwareTranscode());
        EXPECT_EQ(run.task->state(), TaskState::Started);
        ASSERT_TRUE(run.waitForEnd());

        EXPECT_EQ(valuesOf(*run.states), c.states);
        EXPECT_EQ(valuesOf(*run.progress), shares(c.progress));
        EXPECT_EQ(QString::number(int(run.task->state())), QString(c.states).right(1));
        EXPECT_EQ(QString::number(run.task->progress()), shares(c.progress).section(' ', -1));
        if (c.outputKept >= 0) {
            EXPECT_EQ(QFileInfo::exists(mOutput.outputPath), c.outputKept == 1);
        }
        EXPECT_TRUE(QString(c.logged).isEmpty() || log.contains(c.logged));
        EXPECT_TRUE(QString(c.debugLogged).isEmpty() || debugSeen(c.debugLogged));
    }
}

TEST_F(FFmpegProcessTest, OperatorStopGivesFourThenSix)
{
    useFFmpeg("hang");
    OperatorRun run(mSource, mOutput);
    ASSERT_TRUE(run.op->start());
    // The first block arrives through the 500 ms poll while ffmpeg still runs.
    ASSERT_TRUE(run.progress->wait(5000));
    EXPECT_EQ(run.task->state(), TaskState::Running);

    run.op->stop();
    EXPECT_FALSE(isHardwareTranscode());
    EXPECT_EQ(run.task->state(), TaskState::Stopped);
    EXPECT_EQ(valuesOf(*run.states), "1 4");
    ASSERT_TRUE(run.waitForEnd());
    EXPECT_EQ(valuesOf(*run.states), "1 4 6");
    EXPECT_EQ(valuesOf(*run.progress), shares("500000"));
    EXPECT_FALSE(QFileInfo::exists(mOutput.outputPath));
}

// One flag for all runs: a second run that ends while the first still runs
// clears it, and a later start sets it again.
TEST_F(FFmpegProcessTest, HardwareFlagIsOneFlagSharedByOverlappingRuns)
{
    useFFmpeg("hang");
    OperatorRun first(mSource, mOutput);
    ASSERT_TRUE(first.op->start());
    EXPECT_TRUE(isHardwareTranscode());

    useFFmpeg("success");
    AVTaskOutputParam otherOutput = mOutput;
    otherOutput.outputPath = mDir->filePath("second.mp4");
    OperatorRun second(mSource, otherOutput);
    ASSERT_TRUE(second.op->start());
    ASSERT_TRUE(QTest::qWaitFor([&] { return second.states->count() == 2; }, 20000));
    EXPECT_EQ(valuesOf(*second.states), "1 5");
    EXPECT_FALSE(isHardwareTranscode());

    useFFmpeg("hang");
    otherOutput.outputPath = mDir->filePath("third.mp4");
    OperatorRun third(mSource, otherOutput);
    ASSERT_TRUE(third.op->start());
    EXPECT_TRUE(isHardwareTranscode());
    third.op->stop();
    first.op->stop();
    ASSERT_TRUE(third.waitForEnd());
    ASSERT_TRUE(first.waitForEnd());
}

// Regression: progress files outlived their operators and piled up in the
// cache folder.
TEST_F(FFmpegProcessTest, CommandLineReachesFFmpegArgumentByArgument)
{
    useFFmpeg("success");
    QString progressPath;
    {
        OperatorRun run(mSource, mOutput);
        progressPath = run.op->progressFilePath();
        EXPECT_NE(KvFFmpegOperator(run.task).progressFilePath(), progressPath);
        testing::internal::CaptureStderr();
        const bool started = run.op->start();
        const std::string printed = testing::internal::GetCapturedStderr();
        ASSERT_TRUE(started);
        ASSERT_TRUE(run.waitForEnd());

        const QString cache =
            QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
        EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(QDir::cleanPath(cache)) +
                                       "/KvFFmpeg/\\.temp/[0-9a-f]{8}$")
                        .match(progressPath)
                        .hasMatch())
            << progressPath.toStdString();
        EXPECT_TRUE(QFileInfo(progressPath).isFile()) << "kept while the operator lives";
        QFile list(mOutput.outputPath + ".args");
        ASSERT_TRUE(list.open(QIODevice::ReadOnly | QIODevice::Text));
        const QStringList args = QString::fromUtf8(list.readAll()).split('\n', Qt::SkipEmptyParts);
        EXPECT_EQ(args.value(args.indexOf("-progress") + 1), progressPath);
        EXPECT_TRUE(args.contains(sClip));
        EXPECT_EQ(args.value(args.size() - 1), mOutput.outputPath);
        const std::string prefix =
            "execute cmd: \"" + fakeFFmpeg("success").toStdString() + "\" -v error -progress \"";
        EXPECT_EQ(printed.rfind(prefix, 0), 0u) << printed;
        EXPECT_NE(printed.find("\"" + mOutput.outputPath.toStdString() + "\"\n"),
                  std::string::npos);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(QFileInfo::exists(progressPath));
}

// A job that cannot start emits nothing; a refused one ends in 6 from within
// start(), before ffmpeg runs. Nothing is written either way.
TEST_F(FFmpegProcessTest, StartFailuresAndRefusedJobs)
{
    const QString garbage = mDir->filePath("garbage.mp4");
    QFile file(garbage);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, '\x5a'));
    file.close();
    const QString injection = "aac -map 0:a -f wav " + mDir->filePath("victim.txt");
    const QString mark = mDir->filePath("mark.png");
    const struct
    {
        const char* name;
        std::function<void(ConvertSource&, AVTaskOutputParam&)> change;
        const char* mode;
        const char* states; // empty: start() fails
        QString logged;
    } cases[] = {
        {"missing source", [&](ConvertSource& s, auto&) { s.filePath = garbage + ".no"; },
         "success", "", ""},
        {"not a media file", [&](ConvertSource& s, auto&) { s.filePath = garbage; }, "success", "",
         ""},
        // The command line cannot carry a double quote inside a quoted path.
        {"no command", [&](auto&, AVTaskOutputParam& o) { o.outputPath = garbage + "\".mp4"; },
         "success", "", ""},
        {"ffmpeg missing", [](auto&, auto&) {}, "missing", "", "ffmpeg cannot be started: "},
        {"audio codec", [&](auto&, AVTaskOutputParam& o) { o.audio.codecName = injection; },
         "success", "6", "invalid job field: audio.codecName \""},
        {"video codec", [](auto&, AVTaskOutputParam& o) { o.video.codecName = "h264 -attach x"; },
         "success", "6", "invalid job field: video.codecName \""},
        {"format", [](auto&, AVTaskOutputParam& o) { o.format = "wav\t-y"; }, "success", "6",
         "invalid job field: format \""},
        {"output is the watermark",
         [&](ConvertSource& s, AVTaskOutputParam& o) {
             s.waterMark = {WaterMarkParam()};
             s.waterMark[0].filePath = o.outputPath = mark;
         },
         "success", "6", "output equals input, refused: \""},
    };
    QFile picture(mark);
    ASSERT_TRUE(picture.open(QIODevice::WriteOnly));
    picture.close();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        useFFmpeg(c.mode);
        LogCapture log;
        ConvertSource source = mSource;
        AVTaskOutputParam output = mOutput;
        c.change(source, output);
        OperatorRun run(source, output);
        EXPECT_EQ(run.op->start(), !QString(c.states).isEmpty());
        QTest::qWait(700);
        EXPECT_FALSE(isHardwareTranscode());
        EXPECT_EQ(valuesOf(*run.states), c.states);
        EXPECT_EQ(run.progress->count(), 0);
        EXPECT_EQ(QString::number(int(run.task->state())), QString(c.states).isEmpty() ? "0" : "6");
        EXPECT_TRUE(QString(c.logged).isEmpty() || log.contains(c.logged));
        EXPECT_FALSE(QFileInfo::exists(output.outputPath + ".args"));
        EXPECT_EQ(QFileInfo(output.outputPath).size(), 0);
    }
}

TEST_F(FFmpegProcessTest, OperatorOutlivesItsOwnerButNotItsDestruction)
{
    useFFmpeg("success");
    OperatorRun run(mSource, mOutput);
    ASSERT_TRUE(run.op->start());
    QPointer<KvFFmpegOperator> watch(run.op.data());
    run.op.reset();
    ASSERT_FALSE(watch.isNull());
    ASSERT_TRUE(QTest::qWaitFor([&] { return run.states->count() == 2; }, 20000));
    EXPECT_EQ(valuesOf(*run.states), "1 5");
    // The run's own reference goes once it has ended.
    EXPECT_TRUE(QTest::qWaitFor([&] { return watch.isNull(); }, 5000));

    // Destroying an unowned running operator ends the run.
    useFFmpeg("hang");
    auto task = QSharedPointer<AVFFmpegTask>::create(mSource, mOutput);
    auto op = std::make_unique<KvFFmpegOperator>(task);
    QSignalSpy states(op.get(), SIGNAL(ffmpegTaskStateChanged(int)));
    ASSERT_TRUE(op->start());
    EXPECT_TRUE(isHardwareTranscode());
    op.reset();
    EXPECT_FALSE(isHardwareTranscode());
    EXPECT_EQ(valuesOf(states), "1");
}

TEST_F(FFmpegProcessTest, OperatorInfoNamesDecoderAndEncoder)
{
    const char* const h264 = "-c:v libx264 -pix_fmt yuv420p";
    const char* const hevc = "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=error";
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
        {"info-h264.mp4", h264, false, "NVIDIA GeForce RTX 3060", "H264", "H264"},
        {"info-h264.mp4", h264, true, "Intel(R) UHD Graphics 630", "H264", "H264_qsv"},
        {"info-h264.mp4", h264, true, "NVIDIA GeForce RTX 3060", "H264", "H264_nvenc"},
        {"info-h264.mp4", h264, true, "AMD Radeon RX 6600", "H264", ""},
        {"info-h264.mp4", h264, true, "intel arc", "H264", ""},
        {"info-hevc.mp4", hevc, true, "NVIDIA GeForce RTX 3060", "HEVC", "HEVC_nvenc"},
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
        OperatorRun run(mSource, mOutput);
        EXPECT_EQ(run.op->operatorInfo().value("decoderName").toString(), "");
        ASSERT_TRUE(run.op->start());
        ASSERT_TRUE(run.waitForEnd());
        const QVariantMap info = run.op->operatorInfo();
        EXPECT_EQ(info.size(), 4);
        EXPECT_EQ(info.value("operatorName").toString(), "ConvertGpuOperator");
        EXPECT_EQ(info.value("processMode").toString(), "FFMPEG Mode");
        EXPECT_EQ(info.value("decoderName").toString(), c.decoder);
        EXPECT_EQ(info.value("encoderName").toString(), c.encoder);
    }
}

TEST_F(FFmpegProcessTest, FactoriesHandOutControllersOverTheirOwnTask)
{
    EXPECT_TRUE(rawCreateFFmpegConverter_Lossless(mSource, "mkv").isNull());
    for (auto factory : {&rawCreateIntelFFmpegConverter, &rawCreateNvidiaFFmpegConverter}) {
        ConvertSource source = mSource;
        const QSharedPointer<IAVTaskOperator> op = factory(source, mOutput);
        ASSERT_FALSE(op.isNull());
        source.filePath = "/changed.mp4";
        EXPECT_STREQ(dynamic_cast<QObject*>(op.data())->metaObject()->className(),
                     "Korvane::FFmpegController");
        const auto task = qSharedPointerDynamicCast<AVFFmpegTask>(op->task());
        ASSERT_FALSE(task.isNull());
        EXPECT_EQ(task->source()->filePath, sClip);
        EXPECT_EQ(task->outputPath(), mOutput.outputPath);
        EXPECT_EQ(int(task->state()), 0);
        EXPECT_TRUE(op->operatorInfo().isEmpty());
        EXPECT_TRUE(op->errorString().isEmpty());
    }
    // The support check belongs to ConvertSourceHelper; here only that the
    // export answers both ways.
    EXPECT_TRUE(isConverterSourceSupportedByTranscoderFFmpeg(mSource, mOutput));
    mOutput.video.codecName = "vp9";
    EXPECT_FALSE(isConverterSourceSupportedByTranscoderFFmpeg(mSource, mOutput));
}

// What the host sees of a controller's job: ffmpeg's reports, then, after a
// failed run, those of exactly one fallback run of the worker.
TEST_F(FFmpegProcessTest, ControllerRelaysAndFallsBackOnce)
{
    const QString missing = mDir->filePath("missing.mp4");
    const struct
    {
        const char* name;
        const char* ffmpeg;
        const char* worker;
        float speed;         // 2.0 sends the job to the export engine
        QString source;      // empty: the clip
        const char* states;  // what the host sees
        QString progress;    // ffmpeg's out_time_us values, then the worker's
        const char* command; // the worker command the fallback ran; empty: none
        const char* logKind;
    } cases[] = {
        {"success", "success", "success", 1.0f, "", "1 5", kAll + QString(" end"), "", ""},
        // An unreadable source cannot start ffmpeg; the converter check gives
        // such a file the benefit of the doubt.
        {"cannot start", "success", "success", 1.0f, missing, "1 5", "0.25 0.5 1", "convert",
         "Codec Cpu"},
        {"converter succeeds", "fail", "success", 1.0f, "", "1 1 5", "500000 0.25 0.5 1", "convert",
         "Codec Cpu"},
        {"converter fails", "fail", "failure", 1.0f, "", "1 1 6", "500000 0.1", "convert",
         "Codec Cpu"},
        {"after error output", "stderr", "success", 1.0f, "", "1 1 5", "500000 0.25 0.5 1",
         "convert", "Codec Cpu"},
        {"after a crash", "crash", "success", 1.0f, "", "1 1 5", "500000 0.25 0.5 1", "convert",
         "Codec Cpu"},
        {"export succeeds", "fail", "success", 2.0f, "", "1 1 5", "500000 0.25 0.5 1", "export",
         "Codec Gl"},
        {"export fails", "fail", "failure", 2.0f, "", "1 1 6", "500000 0.1", "export", "Codec Gl"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedWorker worker(c.worker);
        useFFmpeg(c.ffmpeg);
        LogCapture log;
        ConvertSource source = mSource;
        source.speed = c.speed;
        source.filePath = c.source.isEmpty() ? sClip : c.source;
        const auto op = rawCreateNvidiaFFmpegConverter(source, mOutput);
        BusRecorder bus(op->task());
        ASSERT_TRUE(op->start());
        // Reports come through the event loop, never from inside start().
        EXPECT_TRUE(bus.states().isEmpty());
        ASSERT_TRUE(bus.waitForStateCount(QString(c.states).count(' ') + 1));
        settle();

        EXPECT_EQ(joined(bus.states()), c.states);
        QStringList progress;
        for (double p : bus.progress()) {
            progress << QString::number(p);
        }
        EXPECT_EQ(progress.join(' '), shares(c.progress));
        EXPECT_EQ(bus.progressTypes(), QList<int>(progress.size(), 0));
        EXPECT_EQ(QString::number(int(op->task()->state())), QString(c.states).right(1));
        EXPECT_EQ(worker.runs(), QString(c.command).isEmpty() ? 0 : 1);
        EXPECT_EQ(worker.arguments(1).value(0), c.command);
        EXPECT_EQ(log.count("Complete convert failed, convert type: "),
                  QString(c.command).isEmpty() ? 0 : 1);
        EXPECT_EQ(log.count(QString("Complete convert failed, convert type: %1, file, src: %2 "
                                    "dst: %3.")
                                .arg(c.logKind, source.filePath, mOutput.outputPath)),
                  QString(c.command).isEmpty() ? 0 : 1);
    }
}

TEST_F(FFmpegProcessTest, ExportFallbackGetsTheTimelineDocumentOfTheJob)
{
    ScriptedWorker worker("success");
    useFFmpeg("noend");
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
        ASSERT_TRUE(bus.waitForStateCount(QString(states).count(' ')));
        op->stop();
        ASSERT_TRUE(bus.waitForFinalState());
        // A killed ffmpeg still reports 6 afterwards; it must not reach the bus.
        settle();
        EXPECT_EQ(joined(bus.states()), states);
        EXPECT_EQ(worker.runs(), QString(states).count(' ') - 1);
        EXPECT_EQ(worker.stopped(1), worker.runs() == 1);
    }
}

TEST_F(FFmpegProcessTest, FallbackThatCannotStartGivesSix)
{
    // After a failed run ffmpeg's 1 was relayed before the fallback; after a
    // failed start the host sees only the fallback's failure.
    for (const auto& [source, states] :
         {std::pair{sClip, "1 6"}, {mDir->filePath("missing.mp4"), "6"}}) {
        SCOPED_TRACE(states);
        useFFmpeg("fail");
        setting("kWorker_Path", mDir->filePath("no-such-worker"));
        mSource.filePath = source;
        const auto op = rawCreateNvidiaFFmpegConverter(mSource, mOutput);
        BusRecorder bus(op->task());
        EXPECT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForFinalState());
        settle();
        EXPECT_EQ(joined(bus.states()), states);
        EXPECT_EQ(bus.errorCodes().last(), 0);
        EXPECT_EQ(op->task()->state(), TaskState::Failed);
    }
}

TEST_F(FFmpegProcessTest, HostMayDropTheControllerWhileFFmpegRuns)
{
    useFFmpeg("success");
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

} // namespace
