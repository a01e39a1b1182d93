#include "TranscoderFFmpeg/KvFFmpegOperator.h"

#include "Common/AVFFmpegTask.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFDemuxer.h"
#include "LogCapture.h"
#include "TestMedia.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

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

// Debug-stream messages of the code under test ("open file failed...",
// "cannot read end."), gathered across the whole test process.
QMutex gDebugMutex;
QStringList gDebugMessages;

void collectDebug(QtMsgType, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&gDebugMutex);
    gDebugMessages.append(text);
}

bool debugSeen(const QString& text)
{
    QMutexLocker lock(&gDebugMutex);
    return !gDebugMessages.filter(text).isEmpty();
}

QString fakeFFmpeg(const QString& mode)
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/fake-ffmpeg-") + mode;
}

QList<int> intsOf(const QSignalSpy& spy)
{
    QList<int> values;
    for (const QList<QVariant>& call : spy) {
        values.append(call.at(0).toInt());
    }
    return values;
}

QList<double> doublesOf(const QSignalSpy& spy)
{
    QList<double> values;
    for (const QList<QVariant>& call : spy) {
        values.append(call.at(0).toDouble());
    }
    return values;
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

    bool ended() const
    {
        const QList<int> s = intsOf(*states);
        return (s.contains(5) || s.contains(6)) && !isHardwareTranscode();
    }

    // Waits for the final state, then a little longer so that a stray later
    // signal would be seen too.
    bool waitForEnd(int timeoutMs = 20000)
    {
        const bool done = QTest::qWaitFor([this] { return ended(); }, timeoutMs);
        QTest::qWait(150);
        return done;
    }

    QSharedPointer<AVFFmpegTask> task;
    QSharedPointer<KvFFmpegOperator> op;
    std::unique_ptr<QSignalSpy> states;
    std::unique_ptr<QSignalSpy> progress;
};

class KvFFmpegOperatorTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        qInstallMessageHandler(collectDebug);
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
        mOutput.outputPath = mDir->filePath("out folder/result.mp4");
        mOutput.format = "mp4";
        mOutput.video.codecName = "h264";
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

    // The share ffmpeg reports for `outTimeUs` of output on the test clip.
    static double share(qint64 outTimeUs)
    {
        return parseProgressLine(QStringLiteral("out_time_us=%1").arg(outTimeUs), sClipDurationMs);
    }

    QStringList receivedArguments() const
    {
        QFile list(mOutput.outputPath + ".args");
        if (!list.open(QIODevice::ReadOnly | QIODevice::Text)) {
            return {};
        }
        return QString::fromUtf8(list.readAll()).split('\n', Qt::SkipEmptyParts);
    }

    static QString sClip;
    static qint64 sClipDurationMs;
    std::unique_ptr<QTemporaryDir> mDir;
    ConvertSource mSource;
    AVTaskOutputParam mOutput;
};

QString KvFFmpegOperatorTest::sClip;
qint64 KvFFmpegOperatorTest::sClipDurationMs = 0;

// How each behaviour of ffmpeg ends a run.
struct EndingCase
{
    const char* mode;
    QList<int> states;
    QList<qint64> progressUs; // out_time_us values expected as progress, in order
    bool endMarkerProgress;   // a final 1.0 from the end marker
    bool outputKept;
    QStringList logged;
    QString debugLogged;
};

class OperatorEnding : public KvFFmpegOperatorTest, public ::testing::WithParamInterface<EndingCase>
{};

TEST_P(OperatorEnding, ReportsStateProgressAndOutput)
{
    const EndingCase& c = GetParam();
    useFFmpeg(fakeFFmpeg(c.mode));
    LogCapture log;
    OperatorRun run(mSource, mOutput);

    ASSERT_TRUE(run.op->start());
    EXPECT_TRUE(isHardwareTranscode());
    EXPECT_EQ(run.task->state(), TaskState::Started);
    ASSERT_TRUE(run.waitForEnd());

    EXPECT_EQ(intsOf(*run.states), c.states);
    QList<double> expected;
    for (qint64 us : c.progressUs) {
        expected.append(share(us));
    }
    if (c.endMarkerProgress) {
        expected.append(1.0);
    }
    EXPECT_EQ(doublesOf(*run.progress), expected);
    EXPECT_EQ(int(run.task->state()), c.states.last());
    EXPECT_EQ(run.task->progress(), expected.last());
    EXPECT_EQ(QFileInfo::exists(mOutput.outputPath), c.outputKept);
    for (const QString& text : c.logged) {
        EXPECT_TRUE(log.contains(text)) << text.toStdString();
    }
    if (!c.debugLogged.isEmpty()) {
        EXPECT_TRUE(debugSeen(c.debugLogged)) << c.debugLogged.toStdString();
    }
}

const QList<qint64> kAllBlocks{500000, 1000000, 1500000, 2000000};

INSTANTIATE_TEST_SUITE_P(
    FailureTable, OperatorEnding,
    ::testing::Values(EndingCase{"success", {1, 5}, kAllBlocks, true, true, {}, {}},
                      // The progress file is a folder at first: opening fails and is retried.
                      EndingCase{
                          "blocked", {1, 5}, kAllBlocks, true, true, {}, "open file failed..."},
                      // Half-written lines are read whole at a later poll: no spurious
                      // 15 us progress, and the end marker is not lost.
                      EndingCase{"torn", {1, 5}, {500000, 1500000}, true, true, {}, {}},
                      EndingCase{"noend", {1, 6}, kAllBlocks, false, true, {}, "cannot read end."},
                      EndingCase{"fail", {1, 6}, {500000}, false, false, {}, {}},
                      EndingCase{"crash", {1, 6}, {500000}, false, false, {}, {}},
                      EndingCase{"stderr",
                                 {1, 6},
                                 {500000},
                                 false,
                                 false,
                                 {"some error output ready, terminate ffmpeg",
                                  "ffmpeg cnv failed: [h264 @ 0x1] fake error line"},
                                 {}}),
    [](const ::testing::TestParamInfo<EndingCase>& info) { return std::string(info.param.mode); });

TEST_F(KvFFmpegOperatorTest, ErrorTextAfterTheEndMarkerStillFails)
{
    // Whether the kill lands before ffmpeg exits decides the exit code, and
    // with it the fate of the output; the state is 6 either way.
    useFFmpeg(fakeFFmpeg("errorexit0"));
    LogCapture log;
    OperatorRun run(mSource, mOutput);
    ASSERT_TRUE(run.op->start());
    ASSERT_TRUE(run.waitForEnd());
    EXPECT_EQ(intsOf(*run.states), (QList<int>{1, 6}));
    EXPECT_TRUE(log.contains("ffmpeg cnv failed: fake error after the end"));
}

TEST_F(KvFFmpegOperatorTest, StopDuringARunGivesFourThenSix)
{
    useFFmpeg(fakeFFmpeg("hang"));
    OperatorRun run(mSource, mOutput);
    ASSERT_TRUE(run.op->start());
    // The first block arrives through the 500 ms poll while ffmpeg still runs.
    ASSERT_TRUE(run.progress->wait(5000));
    EXPECT_TRUE(isHardwareTranscode());
    EXPECT_EQ(run.task->state(), TaskState::Running);

    run.op->stop();
    EXPECT_FALSE(isHardwareTranscode());
    EXPECT_EQ(run.task->state(), TaskState::Stopped);
    EXPECT_EQ(intsOf(*run.states), (QList<int>{1, 4}));

    ASSERT_TRUE(run.waitForEnd());
    EXPECT_EQ(intsOf(*run.states), (QList<int>{1, 4, 6}));
    EXPECT_EQ(doublesOf(*run.progress), (QList<double>{share(500000)}));
    EXPECT_EQ(run.task->state(), TaskState::Failed);
    EXPECT_FALSE(QFileInfo::exists(mOutput.outputPath));
}

TEST_F(KvFFmpegOperatorTest, HardwareFlagIsOneFlagSharedByOverlappingRuns)
{
    useFFmpeg(fakeFFmpeg("hang"));
    EXPECT_FALSE(isHardwareTranscode());
    OperatorRun first(mSource, mOutput);
    ASSERT_TRUE(first.op->start());
    EXPECT_TRUE(isHardwareTranscode());

    // One flag for all runs: a second run that ends while the first still
    // runs clears it, and a later start sets it again.
    useFFmpeg(fakeFFmpeg("success"));
    AVTaskOutputParam otherOutput = mOutput;
    otherOutput.outputPath = mDir->filePath("second.mp4");
    OperatorRun second(mSource, otherOutput);
    ASSERT_TRUE(second.op->start());
    EXPECT_TRUE(isHardwareTranscode());
    ASSERT_TRUE(QTest::qWaitFor([&] { return second.states->count() == 2; }, 20000));
    EXPECT_EQ(intsOf(*second.states), (QList<int>{1, 5}));
    EXPECT_FALSE(isHardwareTranscode());

    useFFmpeg(fakeFFmpeg("hang"));
    AVTaskOutputParam thirdOutput = mOutput;
    thirdOutput.outputPath = mDir->filePath("third.mp4");
    OperatorRun third(mSource, thirdOutput);
    ASSERT_TRUE(third.op->start());
    EXPECT_TRUE(isHardwareTranscode());
    third.op->stop();
    ASSERT_TRUE(third.waitForEnd());
    EXPECT_FALSE(isHardwareTranscode());

    first.op->stop();
    ASSERT_TRUE(first.waitForEnd());
    EXPECT_FALSE(isHardwareTranscode());
}

TEST_F(KvFFmpegOperatorTest, CommandLineReachesFFmpegArgumentByArgument)
{
    useFFmpeg(fakeFFmpeg("success"));
    OperatorRun run(mSource, mOutput);
    ASSERT_FALSE(QDir(QFileInfo(mOutput.outputPath).absolutePath()).exists());

    testing::internal::CaptureStderr();
    const bool started = run.op->start();
    const std::string printed = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(started);
    ASSERT_TRUE(run.waitForEnd());

    const QString progressPath = run.op->progressFilePath();
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(QDir::cleanPath(cache)) +
                                   "/KvFFmpeg/\\.temp/[0-9a-f]{8}$")
                    .match(progressPath)
                    .hasMatch())
        << progressPath.toStdString();
    EXPECT_TRUE(QFileInfo(progressPath).isFile());

    const QStringList args = receivedArguments();
    ASSERT_FALSE(args.isEmpty());
    const qsizetype progressAt = args.indexOf("-progress");
    ASSERT_GE(progressAt, 0);
    EXPECT_EQ(args.value(progressAt + 1), progressPath);
    EXPECT_TRUE(args.contains(sClip));
    EXPECT_EQ(args.last(), mOutput.outputPath);

    const std::string prefix =
        "execute cmd: \"" + fakeFFmpeg("success").toStdString() + "\" -v error -progress \"";
    EXPECT_EQ(printed.rfind(prefix, 0), 0u) << printed;
    EXPECT_NE(printed.find("\"" + mOutput.outputPath.toStdString() + "\"\n"), std::string::npos)
        << printed;
}

TEST_F(KvFFmpegOperatorTest, EachOperatorHasItsOwnProgressFile)
{
    const AVTaskOutputParam output = mOutput;
    auto task = QSharedPointer<AVFFmpegTask>::create(mSource, output);
    KvFFmpegOperator a(task);
    KvFFmpegOperator b(task);
    EXPECT_NE(a.progressFilePath(), b.progressFilePath());
    EXPECT_EQ(a.progressFilePath(), a.progressFilePath());
    EXPECT_TRUE(QFileInfo(QFileInfo(a.progressFilePath()).absolutePath()).isDir());
}

TEST_F(KvFFmpegOperatorTest, StartFailuresEmitNothing)
{
    struct Case
    {
        const char* name;
        QString sourcePath;
        QString program;
        QString outputPath;
        const char* logged;
    };
    const QString garbage = mDir->filePath("garbage.mp4");
    {
        QFile file(garbage);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(4096, '\x5a'));
    }
    const QString output = mOutput.outputPath;
    const QList<Case> cases{
        {"missing source", mDir->filePath("missing.mp4"), fakeFFmpeg("success"), output, nullptr},
        {"not a media file", garbage, fakeFFmpeg("success"), output, nullptr},
        // The command line cannot carry a double quote inside a quoted path,
        // so the builder gives no arguments.
        {"no command", sClip, fakeFFmpeg("success"), mDir->filePath("say \"cheese\".mp4"), nullptr},
        {"ffmpeg missing", sClip, mDir->filePath("no-such-ffmpeg"), output,
         "ffmpeg cannot be started: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        useFFmpeg(c.program);
        LogCapture log;
        ConvertSource source = mSource;
        source.filePath = c.sourcePath;
        AVTaskOutputParam outputParam = mOutput;
        outputParam.outputPath = c.outputPath;
        OperatorRun run(source, outputParam);
        EXPECT_FALSE(run.op->start());
        EXPECT_FALSE(isHardwareTranscode());
        QTest::qWait(700);
        EXPECT_EQ(run.states->count(), 0);
        EXPECT_EQ(run.progress->count(), 0);
        EXPECT_EQ(int(run.task->state()), 0);
        EXPECT_FALSE(QFileInfo::exists(c.outputPath + ".args"));
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged));
        }
    }
}

// Refused jobs end in 6 from within start(), before ffmpeg runs, with the
// reason in the log; nothing is written.
TEST_F(KvFFmpegOperatorTest, RefusedJobsEndInSixBeforeFFmpegStarts)
{
    struct Case
    {
        const char* name;
        std::function<void(ConvertSource&, AVTaskOutputParam&)> change;
        const char* logged;
    };
    const QString injection = "aac -map 0:a -f wav " + mDir->filePath("victim.txt");
    const QList<Case> cases{
        {"audio codec",
         [&](ConvertSource&, AVTaskOutputParam& o) { o.audio.codecName = injection; },
         "invalid job field: audio.codecName \""},
        {"video codec",
         [&](ConvertSource&, AVTaskOutputParam& o) { o.video.codecName = "h264 -attach x"; },
         "invalid job field: video.codecName \""},
        {"format", [&](ConvertSource&, AVTaskOutputParam& o) { o.format = "wav\t-y"; },
         "invalid job field: format \""},
        {"output is the watermark",
         [&](ConvertSource& s, AVTaskOutputParam& o) {
             WaterMarkParam mark;
             mark.filePath = o.outputPath = mDir->filePath("mark.png");
             QFile picture(mark.filePath);
             ASSERT_TRUE(picture.open(QIODevice::WriteOnly));
             s.waterMark = {mark};
         },
         "output equals input, refused: \""},
    };
    useFFmpeg(fakeFFmpeg("success"));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        ConvertSource source = mSource;
        AVTaskOutputParam output = mOutput;
        c.change(source, output);
        OperatorRun run(source, output);
        EXPECT_TRUE(run.op->start());
        EXPECT_EQ(intsOf(*run.states), QList<int>{6});
        EXPECT_EQ(int(run.task->state()), 6);
        EXPECT_FALSE(isHardwareTranscode());
        EXPECT_TRUE(log.contains(c.logged));
        EXPECT_FALSE(QFileInfo::exists(output.outputPath + ".args"));
        EXPECT_EQ(QFileInfo(output.outputPath).size(), 0);
    }
}

TEST_F(KvFFmpegOperatorTest, OutlivesItsOwnerWhileFFmpegRuns)
{
    useFFmpeg(fakeFFmpeg("success"));
    OperatorRun run(mSource, mOutput);
    ASSERT_TRUE(run.op->start());
    QPointer<KvFFmpegOperator> watch(run.op.data());
    run.op.reset();
    ASSERT_FALSE(watch.isNull());

    ASSERT_TRUE(QTest::qWaitFor([&] { return run.states->count() == 2; }, 20000));
    EXPECT_EQ(intsOf(*run.states), (QList<int>{1, 5}));
    // The run's own reference goes once it has ended.
    EXPECT_TRUE(QTest::qWaitFor([&] { return watch.isNull(); }, 5000));
}

TEST_F(KvFFmpegOperatorTest, DestroyingAnUnownedRunningOperatorEndsTheRun)
{
    useFFmpeg(fakeFFmpeg("hang"));
    auto task = QSharedPointer<AVFFmpegTask>::create(mSource, mOutput);
    auto op = std::make_unique<KvFFmpegOperator>(task);
    QSignalSpy states(op.get(), SIGNAL(ffmpegTaskStateChanged(int)));
    ASSERT_TRUE(op->start());
    EXPECT_TRUE(isHardwareTranscode());
    op.reset();
    EXPECT_FALSE(isHardwareTranscode());
    EXPECT_EQ(intsOf(states), (QList<int>{1}));
}

struct InfoCase
{
    const char* name;
    const char* clipArgs; // codec arguments of the generated source
    const char* clipName;
    bool hardware;
    const char* gpu;
    const char* decoder;
    const char* encoder;
};

class OperatorInfo : public KvFFmpegOperatorTest, public ::testing::WithParamInterface<InfoCase>
{};

TEST_P(OperatorInfo, NamesDecoderAndEncoder)
{
    const InfoCase& c = GetParam();
    const QString clip = TestMedia::generate(
        c.clipName, QStringList{"-f", "lavfi", "-i", "testsrc=duration=1:size=160x120:rate=10"} +
                        QString(c.clipArgs).split(' '));
    ASSERT_FALSE(clip.isEmpty());
    mSource.filePath = clip;
    mOutput.acceleration.hardwareEnabled = c.hardware;
    mOutput.acceleration.gpuName = c.gpu;
    useFFmpeg(fakeFFmpeg("success"));
    OperatorRun run(mSource, mOutput);

    const QVariantMap before = run.op->operatorInfo();
    EXPECT_EQ(before.value("decoderName").toString(), "");

    ASSERT_TRUE(run.op->start());
    ASSERT_TRUE(run.waitForEnd());
    const QVariantMap info = run.op->operatorInfo();
    EXPECT_EQ(info.size(), 4);
    EXPECT_EQ(info.value("operatorName").toString(), "ConvertGpuOperator");
    EXPECT_EQ(info.value("processMode").toString(), "FFMPEG Mode");
    EXPECT_EQ(info.value("decoderName").toString(), c.decoder);
    EXPECT_EQ(info.value("encoderName").toString(), c.encoder);
}

const char* const kH264 = "-c:v libx264 -pix_fmt yuv420p";
const char* const kHevc = "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=error";
const char* const kMpeg4 = "-c:v mpeg4";

INSTANTIATE_TEST_SUITE_P(
    Encoders, OperatorInfo,
    ::testing::Values(
        InfoCase{"SoftwareH264", kH264, "transcoder/info-h264.mp4", false, "", "H264", "H264"},
        InfoCase{"GpuNameIgnoredWithoutHardware", kH264, "transcoder/info-h264.mp4", false,
                 "NVIDIA GeForce RTX 3060", "H264", "H264"},
        InfoCase{"IntelH264", kH264, "transcoder/info-h264.mp4", true, "Intel(R) UHD Graphics 630",
                 "H264", "H264_qsv"},
        InfoCase{"NvidiaH264", kH264, "transcoder/info-h264.mp4", true, "NVIDIA GeForce RTX 3060",
                 "H264", "H264_nvenc"},
        InfoCase{"OtherGpu", kH264, "transcoder/info-h264.mp4", true, "AMD Radeon RX 6600", "H264",
                 ""},
        InfoCase{"GpuNameIsCaseSensitive", kH264, "transcoder/info-h264.mp4", true, "intel arc",
                 "H264", ""},
        InfoCase{"NvidiaHevc", kHevc, "transcoder/info-hevc.mp4", true, "NVIDIA GeForce RTX 3060",
                 "HEVC", "HEVC_nvenc"},
        InfoCase{"SoftwareMpeg4", kMpeg4, "transcoder/info-mpeg4.avi", false, "", "", ""},
        InfoCase{"IntelMpeg4", kMpeg4, "transcoder/info-mpeg4.avi", true, "Intel Iris Xe", "",
                 "_qsv"}),
    [](const ::testing::TestParamInfo<InfoCase>& info) { return std::string(info.param.name); });

} // namespace

namespace {

// Regression: progress files outlived their operators and piled up in the
// cache folder.
TEST_F(KvFFmpegOperatorTest, ProgressFileGoesWithTheOperator)
{
    useFFmpeg(fakeFFmpeg("success"));
    QString progressPath;
    {
        OperatorRun run(mSource, mOutput);
        progressPath = run.op->progressFilePath();
        ASSERT_TRUE(run.op->start());
        ASSERT_TRUE(run.waitForEnd());
        EXPECT_TRUE(QFileInfo::exists(progressPath)) << "kept while the operator lives";
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(QFileInfo::exists(progressPath));
}

} // namespace
