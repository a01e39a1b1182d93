// The ffmpeg process operator, the controller that falls back to the worker,
// and the worker-process operators (converter and export), run with stand-in ffmpeg programs (one
// per behaviour), the scripted worker, and the real ffmpeg and worker programs. Whatever goes
// wrong, a job must end in one final state, say in the log what happened,
// leave no half-written output and no job files behind, and never touch its
// input.
#include "TranscoderFFmpeg/KvFFmpegOperator.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include "Common/Records/JsonForms.h"
#include "Common/Task/AVFFmpegTask.h"
#include "Common/Timeline/TimelineProject.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFDemuxer.h"
#include "KvExportHost/KvExportHost.h"
#include "KvTaskIPC/KvTaskIPC.h"
#include "KvTaskIPC/WorkerProcessOperator.h"
#include "LogCapture.h"
#include "ScriptedWorkerHarness.h"
#include "TestMedia.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <memory>

#include <unistd.h>

using namespace Korvane;

namespace {

QString binFile(const QString& name)
{
    return QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
}

template <typename List>
QString joined(const List& values)
{
    QStringList texts;
    for (const auto v : values) {
        texts << QString::number(v);
    }
    return texts.join(' ');
}
QByteArray digest(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly)
               ? QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256)
               : QByteArray();
}

QString writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? path : "";
}

QString copyOf(const QString& from, const QString& to)
{
    return QFile::copy(from, to) ? to : QString();
}

const QString kProject = QString::fromUtf8("{\n    \"title\": \"Überschrift ✓\"\n}\n");

ConvertSource jobSource()
{
    ConvertSource source;
    source.filePath = QString::fromUtf8("/media/clip été.mp4");
    source.speed = 1.5f;
    return source;
}

struct Seen
{
    QList<int> states;
    QList<int> errorCodes;
    QList<double> progress;
    bool quietStart = false; // nothing reported from inside start()
};

class ProcessTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // A private home (children inherit it) holds the job files, so that
        // leftovers can be counted while other suites run.
        sHome = std::make_unique<QTemporaryDir>();
        qputenv("HOME", sHome->path().toUtf8());
        const auto make = [](const QString& name, const QString& args) {
            return TestMedia::generate("hardening/" + name, args.split(' '));
        };
        const QString x264 = " -c:v libx264 -pix_fmt yuv420p -c:a aac -shortest";
        sClip = make("h264-2s.mp4", "-f lavfi -i testsrc=duration=2:size=160x120:rate=25 -f lavfi "
                                    "-i sine=frequency=440:duration=2 -movflags +faststart" +
                                        x264);
        sLongClip =
            make("h264-30s.mp4", "-f lavfi -i testsrc=duration=30:size=640x480:rate=25 -f lavfi -i "
                                 "sine=frequency=440:duration=30 -preset ultrafast" +
                                     x264);
        sAudioOnly = make("audio-only.m4a", "-f lavfi -i sine=frequency=440:duration=2 -c:a aac");
        sStill = make("still.png", "-f lavfi -i testsrc=size=160x120 -frames:v 1");
        sNoFrames =
            make("no-frames.mp4", "-f lavfi -i testsrc=size=160x120 -frames:v 0 -c:v libx264");
        FFDemuxer demuxer;
        if (demuxer.open(sClip) && demuxer.mediaInfo()) {
            sClipDurationMs = demuxer.mediaInfo()->durationMs;
        }
    }

    static void TearDownTestSuite() { sHome.reset(); }

    void SetUp() override
    {
        ASSERT_GT(sClipDurationMs, 0);
        ASSERT_FALSE(sLongClip.isEmpty());
        // A blank in the folder name: paths reach ffmpeg as one argument each.
        mDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/korvane op XXXXXX");
        ASSERT_TRUE(mDir->isValid());
        KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", TestMedia::ffmpeg());
        KorvaneBaseEntry()->settings().setValue("kWorker_Path", binFile("korvane-worker"));
        mSource.filePath = sClip;
        mSource.selfAudios = {1};
        mOutput = {mDir->filePath("result.mp4"), "mp4", {"h264", 160, 120}, {"aac"}};
    }

    void TearDown() override
    {
        KorvaneBaseEntry()->settings().remove("kFFmpeg_Path");
        KorvaneBaseEntry()->settings().remove("kWorker_Path");
        EXPECT_FALSE(isHardwareTranscode()) << "a run was left active";
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        for (const QString folder : {"KvFFmpeg/.temp", "Korvane/ipc"}) {
            const QStringList left =
                QDir(sHome->filePath(".qttest/cache/" + folder))
                    .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
            EXPECT_TRUE(left.isEmpty())
                << folder.toStdString() << " keeps " << left.join(", ").toStdString();
        }
    }

    void useFFmpeg(const QString& mode)
    {
        KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", binFile("fake-ffmpeg-" + mode));
    }

    // Until no ffmpeg run is active, and long enough to see late reports.
    static void settle()
    {
        EXPECT_TRUE(QTest::qWaitFor([] { return !isHardwareTranscode(); }, 20000));
        QTest::qWait(300);
    }

    // Runs one job to its end, through the controller or only the worker
    // path it falls back to; `during` acts on the running job.
    Seen runJob(const ConvertSource& source,
                const std::function<void(IAVTaskOperator&)>& during = {}, bool worker = false)
    {
        QSharedPointer<IAVTaskOperator> op =
            worker ? createConverterContainRetryOp_IPC(source, mOutput)
                   : rawCreateNvidiaFFmpegConverter(source, mOutput);
        BusRecorder bus(op->task());
        EXPECT_TRUE(op->start());
        const bool quietStart = bus.states().isEmpty();
        if (during) {
            during(*op);
        }
        EXPECT_TRUE(bus.waitForFinalState(120000)) << "no final state";
        settle();
        // A killed ffmpeg still writes its 6 to the task after a stop.
        if (bus.states().value(bus.states().size() - 1) != int(TaskState::Stopped)) {
            EXPECT_EQ(int(op->task()->state()), bus.states().value(bus.states().size() - 1));
        }
        op.reset();
        QTest::qWait(100);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return {bus.states(), bus.errorCodes(), bus.progress(), quietStart};
    }

    // A finished job left a playable file; a failed one left nothing.
    void expectOutputMatches(int finalState)
    {
        if (finalState == int(TaskState::Finished)) {
            FFDemuxer demuxer;
            ASSERT_TRUE(demuxer.open(mOutput.outputPath) && demuxer.mediaInfo());
            EXPECT_FALSE(demuxer.mediaInfo()->streams.isEmpty());
        } else {
            EXPECT_FALSE(QFileInfo::exists(mOutput.outputPath)) << "partial output left";
        }
    }

    // The progress expected from ffmpeg's out_time_us values (1000 and more),
    // "end" for its end marker, and the worker's own shares (below 1000).
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

    static inline std::unique_ptr<QTemporaryDir> sHome;
    static inline QString sClip, sLongClip, sAudioOnly, sStill, sNoFrames;
    static inline qint64 sClipDurationMs = 0;
    std::unique_ptr<QTemporaryDir> mDir;
    ConvertSource mSource;
    AVTaskOutputParam mOutput;
};

const QString kAll = "500000 1000000 1500000 2000000";

// What the host sees of a controller's job: ffmpeg's reports, then, after a
// failed run, those of exactly one fallback run of the worker.
TEST_F(ProcessTest, EndingsOfFFmpegAndOfTheFallback)
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
        // Stopped: ffmpeg without a fallback (its late 6 must not reach the
        // bus), or the running fallback.
        {"hang", "hang", 1.0f, "", "1 4", "500000", 0, "", ""},
        {"fail", "hang", 1.0f, "", "1 1 4", "500000", 0, "", "convert"},
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
        QFile::remove(mOutput.outputPath);
        const bool stop = QString(c.states).endsWith('4');
        const Seen seen = runJob(mSource, [&](IAVTaskOperator& op) {
            if (stop) {
                // Once ffmpeg has reported, and the fallback, when there is one, runs.
                BusRecorder bus(op.task());
                EXPECT_TRUE(QTest::qWaitFor(
                    [&] {
                        return !bus.progress().isEmpty() && worker.runs() == (*c.command ? 1 : 0);
                    },
                    60000));
                op.stop();
            }
        });

        EXPECT_EQ(joined(seen.states), c.states);
        // Reports come through the event loop, never from inside start().
        EXPECT_EQ(seen.quietStart, QString(c.states) != "6");
        EXPECT_EQ(seen.errorCodes, QList<int>(seen.states.size(), 0));
        EXPECT_EQ(joined(seen.progress), shares(c.progress));
        if (c.outputKept >= 0) {
            EXPECT_EQ(QFileInfo::exists(mOutput.outputPath), c.outputKept == 1);
        }
        EXPECT_TRUE(!*c.logged || log.contains(c.logged));
        EXPECT_EQ(worker.runs(), QString(c.command).isEmpty() ? 0 : 1);
        EXPECT_EQ(worker.arguments(1).value(0), c.command);
        EXPECT_EQ(worker.stopped(1), stop && *c.command);
        EXPECT_EQ(log.count(QString("Complete convert failed, convert type: %1, file, src: %2 "
                                    "dst: %3.")
                                .arg(c.speed == 1.0f ? "Codec Cpu" : "Codec Gl", mSource.filePath,
                                     mOutput.outputPath)),
                  (QString(c.states) != "1 5" && !stop) || *c.command ? 1 : 0);
        // The export gets the timeline document of the job as its JSON form
        // gives it back; transform names carry a process-wide counter.
        const auto withoutCounter = [](QString document) {
            return document.replace(QRegularExpression("(transform|2dTo3d)_\\d+"), "\\1_N");
        };
        const QString document = makeTimelineProjectJson(
            convertSourceFromJson(convertSourceToJson(mSource)), {{"width", 160}, {"height", 120}});
        EXPECT_EQ(withoutCounter(worker.fileContent(1, "--project")),
                  QString(c.command) == "export" ? withoutCounter(document) : "");
    }
}

// The operator names the decoder it probed and the encoder it chose for the
// GPU, and clears the run flag itself when ffmpeg fails.
TEST_F(ProcessTest, OperatorInfoAndRunFlag)
{
    mOutput.acceleration = {"", true, "NVIDIA GeForce RTX 3060"};
    for (const QString mode : {"success", "fail"}) {
        useFFmpeg(mode);
        const auto op = QSharedPointer<KvFFmpegOperator>::create(
            QSharedPointer<AVFFmpegTask>::create(mSource, mOutput));
        ASSERT_TRUE(op->start());
        settle();
        EXPECT_EQ(op->operatorInfo(), QVariantMap({{"operatorName", "ConvertGpuOperator"},
                                                   {"processMode", "FFMPEG Mode"},
                                                   {"decoderName", "H264"},
                                                   {"encoderName", "H264_nvenc"}}));
    }
}

using MakeInput = std::function<QString(const QString& dir)>;

MakeInput written(const QString& name, const QByteArray& content)
{
    return [=](const QString& d) { return writeFile(d + name, content); };
}

MakeInput copied(const QString* clip, const QString& name)
{
    return [=](const QString& d) { return copyOf(*clip, d + name); };
}

MakeInput given(const QString* path)
{
    return [=](const QString&) { return *path; };
}

QByteArray randomBytes()
{
    QByteArray bytes(64 * 1024, '\0');
    QRandomGenerator generator(8);
    for (char& c : bytes) {
        c = char(generator.bounded(256));
    }
    return bytes;
}

TEST_F(ProcessTest, BadInputsEndInOneDefinedState)
{
    QFile clip(sClip);
    ASSERT_TRUE(clip.open(QIODevice::ReadOnly));
    const QByteArray truncated = clip.read(clip.size() / 3);
    const QByteArray huge =
        "YUV4MPEG2 W65535 H65535 F25:1 Ip A1:1 C420jpeg\nFRAME\n" + QByteArray(4096, '\x80');
    const struct
    {
        const char* name;
        MakeInput make;
        int finalState; // -1: either; 6 also logs "worker failed: "
    } cases[] = {
        {"missing", [](const QString& d) { return d + "/missing.mp4"; }, 6},
        {"empty", written("/empty.mp4", {}), 6},
        {"directory",
         [](const QString& d) { return QDir(d).mkdir("folder.mp4") ? d + "/folder.mp4" : ""; }, 6},
        {"truncated mp4", written("/truncated.mp4", truncated), -1},
        {"random bytes", written("/random.mp4", randomBytes()), 6},
        {"header claiming 65535x65535", written("/huge.y4m", huge), 6},
        {"zero duration", given(&sNoFrames), 6},
        {"audio only", given(&sAudioOnly), 5},
        {"still image", given(&sStill), 5},
        {"name with spaces", copied(&sClip, "/my holiday clip.mp4"), 5},
        {"unicode name", copied(&sClip, QString::fromUtf8("/Пляж 海滩 ümlaut.mp4")), 5},
        {"double quote in the name", copied(&sClip, "/say \"cheese\" -y.mp4"), 5},
        {"leading dash", copied(&sClip, "/-i.mp4"), 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir dir;
        ConvertSource source;
        source.filePath = c.make(dir.path());
        ASSERT_FALSE(source.filePath.isEmpty());
        source.selfAudios = {1};
        const QByteArray before = digest(source.filePath);
        // The output carries the input's oddity too.
        mOutput.outputPath = dir.filePath(QStringLiteral("out %1.mp4").arg(c.name));
        LogCapture log;

        const QList<int> states = runJob(source).states;

        ASSERT_FALSE(states.isEmpty());
        const int last = states.last();
        EXPECT_TRUE(last == c.finalState || (c.finalState < 0 && (last == 5 || last == 6)));
        EXPECT_EQ(states.count(5) + states.count(6), 1);
        expectOutputMatches(last);
        EXPECT_TRUE(last != 6 || log.contains("Complete convert failed"));
        EXPECT_TRUE(c.finalState != 6 || log.contains("worker failed: "));
        EXPECT_EQ(digest(source.filePath), before) << "the input was changed";
    }
}

// A job's names reach ffmpeg's arguments and the worker's libraries; none may
// become an option, so an unrelated file named in one stays as it was.
TEST_F(ProcessTest, JobNamesNeverBecomeOptions)
{
    const QByteArray content = "the user's own file\n";
    const QString victim = writeFile(mDir->filePath("victim.txt"), content);
    ASSERT_FALSE(victim.isEmpty());
    const QString injection = "aac -map 0:a -f wav " + victim + " -map 0 -acodec aac";
    for (const QString field : {"audio.codecName", "video.codecName", "format"}) {
        SCOPED_TRACE(field.toStdString());
        mOutput.audio.codecName = field.startsWith("audio") ? injection : "aac";
        mOutput.video.codecName = field.startsWith("video") ? "h264 " + injection : "h264";
        mOutput.format = field == "format" ? "mp4 -f wav " + victim : "mp4";
        ConvertSource source;
        source.filePath = sClip;
        LogCapture log;

        const QList<int> states = runJob(source).states;

        EXPECT_EQ(states.value(states.size() - 1), 6);
        EXPECT_FALSE(states.contains(5));
        // The operator and then the worker refuse, each before it writes.
        EXPECT_TRUE(log.contains(QStringLiteral("invalid job field: %1 \"").arg(field)));
        EXPECT_TRUE(
            log.contains(QStringLiteral("worker failed: invalid job field: %1").arg(field)));
        EXPECT_EQ(digest(victim), QCryptographicHash::hash(content, QCryptographicHash::Sha256));
        expectOutputMatches(6);
    }
}

// An output that is one of the job's inputs under any name is refused on
// both paths before anything is written; the worker writes beside the output
// and moves the result into place only when it finished, so a failed or
// stopped worker job leaves an existing file at the output path as it was.
TEST_F(ProcessTest, NoJobDestroysAFileTheUserHas)
{
    const auto stopOnProgress = [](IAVTaskOperator& op) {
        BusRecorder progress(op.task());
        EXPECT_TRUE(QTest::qWaitFor([&] { return !progress.progress().isEmpty(); }, 60000));
        op.stop();
    };
    const auto mine = [](const QString& d, ConvertSource&) {
        return !writeFile(d + "/mine.mp4", "the user's own file").isEmpty();
    };
    const struct
    {
        const char* name;
        const char* output; // in the job's folder, where the input is in.mp4
        std::function<bool(const QString& d, ConvertSource& s)> prepare;
        // Empty: refused on both paths. Otherwise the worker job runs on it
        // (and fails or is stopped by `during`); the ffmpeg path is not tried.
        QString source;
        std::function<void(IAVTaskOperator&)> during;
    } cases[] = {
        {"hard link", "same.mp4",
         [](const QString& d, ConvertSource& s) {
             return ::link(QFile::encodeName(s.filePath), QFile::encodeName(d + "/same.mp4")) == 0;
         }},
        {"symbolic link", "link.mp4",
         [](const QString& d, ConvertSource& s) {
             return QFile::link(s.filePath, d + "/link.mp4");
         }},
        {"dir/../name", "sub/../in.mp4",
         [](const QString& d, ConvertSource&) { return QDir(d).mkdir("sub"); }},
        {"folder through a symbolic link", "alias/in.mp4",
         [](const QString& d, ConvertSource&) { return QFile::link(d, d + "/alias"); }},
        {"watermark", "./mark.png",
         [](const QString& d, ConvertSource& s) {
             s.waterMark = {WaterMarkParam()};
             return !(s.waterMark[0].filePath = copyOf(sStill, d + "/mark.png")).isEmpty();
         }},
        {"cover", "cover.png",
         [](const QString& d, ConvertSource& s) {
             return !(s.coverPath = copyOf(sStill, d + "/cover.png")).isEmpty();
         }},
        {"attached audio", "sound.m4a",
         [](const QString& d, ConvertSource& s) {
             s.attachedAudio = {{0, copyOf(sAudioOnly, d + "/sound.m4a")}};
             return !s.attachedAudio.first().filePath.isEmpty();
         }},
        {"attached subtitle", "subs.srt",
         [](const QString& d, ConvertSource& s) {
             s.attachedSubtitle = {{0, "subs", d + "/subs.srt"}};
             s.speed = 1.5f;
             return !writeFile(d + "/subs.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n")
                         .isEmpty();
         }},
        {"unrelated file at the output, failed worker job", "mine.mp4", mine, sNoFrames},
        {"unrelated file at the output, stopped worker job", "mine.mp4", mine, sLongClip,
         stopOnProgress},
    };
    for (const auto& c : cases) {
        for (const bool ffmpegPath : {true, false}) {
            if (ffmpegPath && !c.source.isEmpty()) {
                continue;
            }
            SCOPED_TRACE(std::string(c.name) + (ffmpegPath ? " (ffmpeg path)" : " (worker)"));
            QTemporaryDir dir;
            ConvertSource source;
            source.filePath = c.source.isEmpty() ? copyOf(sClip, dir.filePath("in.mp4")) : c.source;
            ASSERT_TRUE(c.prepare(dir.path(), source));
            mOutput.outputPath = dir.filePath(c.output);
            const QByteArray before = digest(mOutput.outputPath);
            ASSERT_FALSE(before.isEmpty());
            LogCapture log;

            const QList<int> states = runJob(source, c.during, !ffmpegPath).states;

            EXPECT_EQ(digest(mOutput.outputPath), before) << "the file was changed";
            EXPECT_FALSE(states.contains(5));
            if (!c.source.isEmpty()) {
                EXPECT_TRUE(states.contains(c.during ? 4 : 6));
                EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 1)
                    << "a temporary file was left";
            } else if (ffmpegPath) {
                // The controller refuses too instead of starting the fallback.
                EXPECT_EQ(states, QList<int>{6});
                EXPECT_TRUE(log.contains("output equals input, refused: \"" + mOutput.outputPath +
                                         "\" is the input \""));
                EXPECT_TRUE(log.contains("output equals input, no fallback: "));
            } else {
                EXPECT_EQ(states.value(states.size() - 1), 6);
                EXPECT_TRUE(log.contains("\" is the input \""));
            }
        }
    }
}

TEST_F(ProcessTest, FullDiskFailsCleanly)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "mounting a small file system needs root";
    }
    const QString mountPoint = mDir->filePath("small");
    ASSERT_TRUE(QDir(mDir->path()).mkdir("small"));
    if (QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=64k", "tmpfs", mountPoint}) != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    ConvertSource source;
    source.filePath = sLongClip;
    mOutput.outputPath = mountPoint + "/result.mp4";
    LogCapture log;

    EXPECT_EQ(runJob(source).states.last(), 6);
    EXPECT_TRUE(QDir(mountPoint).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
    EXPECT_TRUE(log.contains("worker failed: "));
    EXPECT_EQ(QProcess::execute("umount", {mountPoint}), 0);
}

// The worker this process started, 0 when none runs.
pid_t workerPid()
{
    QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(getpid()));
    if (children.open(QIODevice::ReadOnly)) {
        for (const QByteArray& pid : children.readAll().split(' ')) {
            QFile comm("/proc/" + pid.trimmed() + "/comm");
            if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "korvane-worker") {
                return pid.trimmed().toInt();
            }
        }
    }
    return 0;
}

// Both worker runs of a fallback killed while they write: the job fails once,
// and neither an unfinished file nor a temporary of it shows at the output.
TEST_F(ProcessTest, WorkerKilledWhileWritingLeavesNothing)
{
    useFFmpeg("fail");
    mSource.filePath = sLongClip;
    LogCapture log;
    const Seen seen = runJob(mSource, [](IAVTaskOperator& op) {
        BusRecorder bus(op.task());
        for (int run = 1; run <= 2; ++run) {
            pid_t pid = 0;
            ASSERT_TRUE(QTest::qWaitFor([&] { return (pid = workerPid()) != 0; }, 60000));
            const qsizetype before = bus.progress().size();
            ASSERT_TRUE(QTest::qWaitFor([&] { return bus.progress().size() > before; }, 60000));
            ASSERT_EQ(::kill(pid, SIGKILL), 0);
            ASSERT_TRUE(QTest::qWaitFor([&] { return workerPid() != pid; }, 10000));
        }
    });
    EXPECT_EQ(seen.states.count(6), 1);
    EXPECT_EQ(seen.states.value(seen.states.size() - 1), 6);
    expectOutputMatches(6);
    EXPECT_EQ(QDir(mDir->path()).entryList({"result.mp4*"}, QDir::Files | QDir::Hidden),
              QStringList());
    EXPECT_EQ(log.count("the worker crashed without reporting a result"), 2);
}

// The whole fallback for real: without ffmpeg the worker converts the job.
TEST_F(ProcessTest, MissingFFmpegFallsBackToTheWorker)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", mDir->filePath("no-ffmpeg"));
    ConvertSource source;
    source.filePath = sClip;
    LogCapture log;
    EXPECT_EQ(runJob(source).states, (QList<int>{1, 5}));
    EXPECT_TRUE(log.contains("ffmpeg cannot be started: "));
    EXPECT_EQ(log.count("Complete convert failed"), 1);
    expectOutputMatches(5);
}

// A converter whose worker ends without a result gets exactly one more run on
// the same job files; an export none. The host sees one 1 and one final state,
// and a file the user already had at the output path outlives every run.
TEST_F(ProcessTest, RunsEndAsTheWorkerSays)
{
    const QList<double> full{0.25, 0.5, 1.0};
    const struct
    {
        bool exported;
        const char* behaviour;
        QList<int> states;
        QList<double> progress;
        int runs;
        const char* error; // the start of the error text; null: left unchecked
    } rows[] = {
        {false, "success", {1, 5}, full, 1, ""},
        {true, "success", {1, 5}, full, 1, ""},
        {false, "failure", {1, 6}, {0.1}, 1, "scripted failure"},
        {false, "crash-once", {1, 5}, {0.3, 0.25, 0.5, 1.0}, 2, nullptr},
        {false, "crash", {1, 6}, {0.3, 0.3}, 2, "the worker crashed"},
        {false, "quit", {1, 6}, {}, 2, "the worker ended with code 0"},
        {true, "crash-once", {1, 6}, {0.3}, 1, "the worker crashed"},
        // Stopped once running; the deaf one is killed after the grace
        // period: neither a crash to retry nor a failure.
        {false, "hang", {1, 4}, {}, 1, ""},
        {false, "deaf", {1, 4}, {}, 1, ""},
        // The reported result stands though the worker must be killed.
        {false, "linger", {1, 5}, full, 1, ""},
    };
    // Job files a dead host left go at the next start once they are a day old;
    // younger ones may belong to a host that still runs.
    const qint64 day = WorkerProcessOperator::kStaleJobFileAgeS;
    const QList<QPair<QString, qint64>> leftovers{
        {"week-old.json", 7 * day}, {"day-old.json", day + 600}, {"young.json", day - 600}};
    QDir folder(WorkerProcessOperator::workerJobFolder());
    ASSERT_TRUE(folder.mkpath("."));
    for (const auto& [name, age] : leftovers) {
        QFile file(folder.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(-age),
                         QFileDevice::FileModificationTime);
    }
    const AVTaskOutputParam output = mOutput;
    for (const auto& row : rows) {
        SCOPED_TRACE(QStringLiteral("%1 %2").arg(row.behaviour).arg(row.exported).toStdString());
        QFile existing(output.outputPath);
        ASSERT_TRUE(existing.open(QIODevice::WriteOnly) && existing.write("the user's file") > 0);
        existing.close();
        const bool stop = row.states.last() == 4;
        ScriptedWorker worker(row.behaviour);
        LogCapture log;
        const auto op = row.exported ? rawCreateExportOp_IPC(kProject, output)
                                     : createConverterContainRetryOp_IPC(jobSource(), output);
        BusRecorder bus(op->task());
        op->stop();
        ASSERT_TRUE(op->start());
        if (stop) {
            ASSERT_TRUE(bus.waitForStateCount(1));
            op->stop();
        }
        ASSERT_TRUE(bus.waitForFinalState(WorkerProcessOperator::kStopGraceMs + 10000));
        // Nothing else arrives afterwards, not even from a late stop.
        op->stop();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 300);

        EXPECT_EQ(bus.states(), row.states);
        EXPECT_EQ(bus.errorCodes(), QList<int>(row.states.size(), 0));
        EXPECT_EQ(bus.progress(), row.progress);
        EXPECT_EQ(int(op->task()->state()), row.states.last());
        EXPECT_EQ(op->task()->progress(), row.progress.value(row.progress.size() - 1, 0.0));
        if (row.error) {
            EXPECT_EQ(op->errorString().left(int(strlen(row.error))), row.error);
            EXPECT_EQ(op->errorString().isEmpty(), !*row.error);
        }
        EXPECT_EQ(worker.runs(), row.runs);
        EXPECT_EQ(worker.stopped(1), QString(row.behaviour) == "hang");
        const QStringList args = worker.arguments(1);
        const QString input = row.exported ? "--project" : "--source";
        EXPECT_EQ(QStringList({args.value(0), args.value(1), args.value(3)}),
                  QStringList({row.exported ? "export" : "convert", input, "--output"}));
        EXPECT_EQ(worker.arguments(row.runs), args);
        EXPECT_EQ(worker.fileContent(row.runs, input),
                  row.exported ? kProject : convertSourceToJson(jobSource()));
        EXPECT_EQ(worker.fileContent(row.runs, "--output"), outputParamToJson(output));
        EXPECT_FALSE(QFile::exists(args.value(2)) || QFile::exists(args.value(4)));
        EXPECT_EQ(log.contains("scripted worker: working on " + args[0]), row.progress.size() > 2);
        EXPECT_EQ(QFileInfo(output.outputPath).size(), 15) << "the user's file was changed";
    }
    for (const auto& [name, age] : leftovers) {
        EXPECT_EQ(folder.remove(name), age < day) << name.toStdString();
    }
}

} // namespace
