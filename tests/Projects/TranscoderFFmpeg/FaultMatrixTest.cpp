// Bad inputs, bad outputs and process faults, run through the exported
// factories with the real ffmpeg and the real worker program. Whatever goes
// wrong, a job must end in one final state, say in the log what happened,
// leave no half-written output and no job files behind, and never touch its
// input.
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include "Common/IAVTask.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFDemuxer.h"
#include "KvTaskIPC/KvTaskIPC.h"
#include "LogCapture.h"
#include "ScriptedWorkerHarness.h"
#include "TestMedia.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include <csignal>
#include <sys/types.h>
#include <unistd.h>

using namespace Korvane;

namespace {

QString binFile(const QString& name)
{
    return QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
}

QByteArray digest(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256);
}

// Waits for a child of this process whose command is `name`, not in `killed`,
// and, when given, for `ready`, and kills that child.
bool killChild(const QString& name, QList<pid_t>* killed, const std::function<bool()>& ready = {})
{
    pid_t victim = 0;
    const auto find = [&] {
        for (const QString& entry : QDir("/proc").entryList(QDir::Dirs)) {
            QFile stat("/proc/" + entry + "/stat");
            const QByteArray text = stat.open(QIODevice::ReadOnly) ? stat.readAll() : "";
            // "pid (comm) state ppid ...": the command may hold blanks.
            const qsizetype end = text.lastIndexOf(')');
            const QByteArray command = text.mid(text.indexOf('(') + 1, end - text.indexOf('(') - 1);
            if (end > 0 && text.mid(end + 2).split(' ').value(1).toInt() == getpid() &&
                command == name.left(15).toUtf8() && !killed->contains(entry.toInt())) {
                victim = entry.toInt();
            }
        }
    };
    const bool seen = QTest::qWaitFor(
        [&] {
            if (victim == 0) {
                find();
            }
            return victim != 0 && (!ready || ready());
        },
        60000);
    killed->append(victim);
    return seen && ::kill(victim, SIGKILL) == 0;
}

class FaultMatrixTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // A private home makes the generic cache location, where the job
        // files live, this process's own (children inherit it), so that
        // leftovers can be counted exactly while other suites run.
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
    }

    static void TearDownTestSuite() { sHome.reset(); }

    void SetUp() override
    {
        ASSERT_FALSE(sClip.isEmpty());
        ASSERT_FALSE(sLongClip.isEmpty());
        ASSERT_TRUE(mDir.isValid());
        ASSERT_TRUE(QFileInfo(binFile("korvane-worker")).isExecutable());
        KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", TestMedia::ffmpeg());
        KorvaneBaseEntry()->settings().setValue("kWorker_Path", binFile("korvane-worker"));
        mOutput.outputPath = mDir.filePath("result.mp4");
        mOutput.format = "mp4";
        mOutput.video.codecName = "h264";
        mOutput.video.width = 160;
        mOutput.video.height = 120;
        mOutput.audio.codecName = "aac";
    }

    void TearDown() override
    {
        KorvaneBaseEntry()->settings().remove("kFFmpeg_Path");
        KorvaneBaseEntry()->settings().remove("kWorker_Path");
        EXPECT_FALSE(isHardwareTranscode()) << "a run was left active";
        const QString cache = sHome->filePath(".qttest/cache");
        for (const QString& folder :
             {QStringLiteral("KvFFmpeg/.temp"), QStringLiteral("Korvane/ipc")}) {
            const QStringList left =
                QDir(cache + QLatin1Char('/') + folder)
                    .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
            EXPECT_TRUE(left.isEmpty())
                << folder.toStdString() << " keeps " << left.join(", ").toStdString();
        }
    }

    // Runs one job to its end; `during` acts on the running job. Returns every
    // state the host saw.
    QList<int> runJob(const ConvertSource& source,
                      const std::function<void(IAVTaskOperator&)>& during = {})
    {
        return runOperator(rawCreateNvidiaFFmpegConverter(source, mOutput), during);
    }

    // The same on the worker path alone: the converter operator the
    // controller falls back to.
    QList<int> runWorkerJob(const ConvertSource& source,
                            const std::function<void(IAVTaskOperator&)>& during = {})
    {
        return runOperator(createConverterContainRetryOp_IPC(source, mOutput), during);
    }

    QList<int> runOperator(QSharedPointer<IAVTaskOperator> op,
                           const std::function<void(IAVTaskOperator&)>& during)
    {
        QList<int> states;
        {
            BusRecorder bus(op->task());
            EXPECT_TRUE(op->start());
            if (during) {
                during(*op);
            }
            EXPECT_TRUE(bus.waitForFinalState(120000)) << "no final state";
            // Late reports would show up here.
            QTest::qWait(300);
            states = bus.states();
            // After a stop the killed ffmpeg still writes its 6 to the task
            // (the controller no longer relays it), so only ends other than
            // a stop are compared with the task's own state.
            if (states.value(states.size() - 1) != int(TaskState::Stopped)) {
                EXPECT_EQ(int(op->task()->state()), states.value(states.size() - 1));
            }
            op.reset();
        }
        // Operators let go of themselves through the event loop.
        EXPECT_TRUE(QTest::qWaitFor([] { return !isHardwareTranscode(); }, 10000));
        QTest::qWait(100);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return states;
    }

    // A finished job left a playable file; a failed one left nothing.
    void expectOutputMatches(int finalState)
    {
        if (finalState == int(TaskState::Finished)) {
            FFDemuxer demuxer;
            ASSERT_TRUE(demuxer.open(mOutput.outputPath));
            ASSERT_TRUE(demuxer.mediaInfo());
            EXPECT_FALSE(demuxer.mediaInfo()->streams.isEmpty());
        } else {
            EXPECT_FALSE(QFileInfo::exists(mOutput.outputPath))
                << "partial output left: " << mOutput.outputPath.toStdString();
        }
    }

    static inline std::unique_ptr<QTemporaryDir> sHome;
    static inline QString sClip, sLongClip, sAudioOnly, sStill, sNoFrames;
    QTemporaryDir mDir;
    AVTaskOutputParam mOutput;
};

QString writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        return {};
    }
    return path;
}

QString copyOf(const QString& from, const QString& to)
{
    return QFile::copy(from, to) ? to : QString();
}

QString logText(const LogCapture& log)
{
    QStringList lines;
    for (const LogEntry& entry : log.entries()) {
        lines << entry.text;
    }
    return lines.join(QLatin1Char('\n'));
}

// How an input is made in a test's folder.
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

TEST_F(FaultMatrixTest, BadInputsEndInOneDefinedState)
{
    QFile clip(sClip);
    ASSERT_TRUE(clip.open(QIODevice::ReadOnly));
    const QByteArray truncated = clip.read(clip.size() / 3);
    const char* kWorkerFailed = "worker failed: ";
    const struct
    {
        const char* name;
        MakeInput make;
        int finalState; // -1: either
        const char* logged;
    } cases[] = {
        {"missing", [](const QString& d) { return d + "/missing.mp4"; }, 6, kWorkerFailed},
        {"empty", written("/empty.mp4", {}), 6, kWorkerFailed},
        {"directory",
         [](const QString& d) { return QDir(d).mkdir("folder.mp4") ? d + "/folder.mp4" : ""; }, 6,
         kWorkerFailed},
        {"truncated mp4", written("/truncated.mp4", truncated), -1, ""},
        {"random bytes", written("/random.mp4", randomBytes()), 6, kWorkerFailed},
        {"header claiming 65535x65535",
         written("/huge.y4m", "YUV4MPEG2 W65535 H65535 F25:1 Ip A1:1 C420jpeg\nFRAME\n" +
                                  QByteArray(4096, '\x80')),
         6, kWorkerFailed},
        {"zero duration", given(&sNoFrames), 6, kWorkerFailed},
        {"audio only", given(&sAudioOnly), 5, ""},
        {"still image", given(&sStill), 5, ""},
        {"name with spaces", copied(&sClip, "/my holiday clip.mp4"), 5, ""},
        {"unicode name", copied(&sClip, QString::fromUtf8("/Пляж 海滩 ümlaut.mp4")), 5, ""},
        {"double quote in the name", copied(&sClip, "/say \"cheese\" -y.mp4"), 5, ""},
        {"leading dash", copied(&sClip, "/-i.mp4"), 5, ""},
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

        const QList<int> states = runJob(source);

        ASSERT_FALSE(states.isEmpty());
        const int last = states.last();
        EXPECT_TRUE(last == c.finalState || (c.finalState < 0 && (last == 5 || last == 6)))
            << last << logText(log).toStdString();
        EXPECT_EQ(states.count(5) + states.count(6), 1);
        expectOutputMatches(last);
        EXPECT_TRUE(last != 6 || log.contains("Complete convert failed"));
        EXPECT_TRUE(QString(c.logged).isEmpty() || log.contains(c.logged));
        EXPECT_EQ(digest(source.filePath), before) << "the input was changed";
    }
}

// A job's names reach ffmpeg's arguments and the worker's libraries; none may
// become an option, so an unrelated file named in one stays as it was.
TEST_F(FaultMatrixTest, JobNamesNeverBecomeOptions)
{
    const QByteArray content = "the user's own file\n";
    const QString victim = writeFile(mDir.filePath("victim.txt"), content);
    ASSERT_FALSE(victim.isEmpty());
    const QString injection = "aac -map 0:a -f wav " + victim + " -map 0 -acodec aac";
    for (const QString field : {"audio.codecName", "video.codecName"}) {
        SCOPED_TRACE(field.toStdString());
        ConvertSource source;
        source.filePath = sClip;
        mOutput.audio.codecName = field.startsWith("audio") ? injection : "aac";
        mOutput.video.codecName = field.startsWith("video") ? "h264 " + injection : "h264";
        LogCapture log;

        const QList<int> states = runJob(source);

        EXPECT_EQ(states.value(states.size() - 1), 6);
        EXPECT_FALSE(states.contains(5));
        // The operator and then the worker refuse, each before it writes.
        EXPECT_TRUE(log.contains(QStringLiteral("invalid job field: %1 \"").arg(field)))
            << logText(log).toStdString();
        EXPECT_TRUE(
            log.contains(QStringLiteral("worker failed: invalid job field: %1").arg(field)));
        EXPECT_EQ(digest(victim), QCryptographicHash::hash(content, QCryptographicHash::Sha256));
        expectOutputMatches(6);
    }
}

TEST_F(FaultMatrixTest, OutputFolders)
{
    ConvertSource source;
    source.filePath = sClip;
    mOutput.outputPath = mDir.filePath("new/deeper/result.mp4");
    EXPECT_EQ(runJob(source), (QList<int>{1, 5})) << "a missing output folder is created";
    expectOutputMatches(5);

    // An output that is a folder fails, and the folder stays.
    const QString folder = mDir.filePath("taken.mp4");
    ASSERT_TRUE(QDir(mDir.path()).mkdir("taken.mp4"));
    ASSERT_TRUE(QFile::copy(sClip, folder + "/inside.mp4"));
    mOutput.outputPath = folder;
    LogCapture log;
    EXPECT_EQ(runJob(source).last(), 6);
    EXPECT_TRUE(QFileInfo::exists(folder + "/inside.mp4"));
    EXPECT_TRUE(log.contains("ffmpeg cnv failed: "));
    EXPECT_TRUE(log.contains("worker failed: "));
}

// An output that is one of the job's inputs under any name is refused on
// both paths before anything is written; the worker writes beside the output
// and moves the result into place only when it finished, so a failed or
// stopped worker job leaves an existing file at the output path as it was.
TEST_F(FaultMatrixTest, NoJobDestroysAFileTheUserHas)
{
    using Make = std::function<QString(const QString& dir, ConvertSource&, QString& output)>;
    // The input is in.mp4; `output` names it (or the file returned) some other way.
    const auto withInput =
        [this](
            const std::function<QString(const QString&, ConvertSource&, QString&)>& make) -> Make {
        return [=](const QString& d, ConvertSource& s, QString& output) {
            s.filePath = copyOf(sClip, d + "/in.mp4");
            return make(d, s, output);
        };
    };
    const auto mine = [](const QString& d, ConvertSource&, QString& output) {
        return output = writeFile(d + "/mine.mp4", "the user's own file");
    };
    const auto stopOnProgress = [](IAVTaskOperator& op) {
        BusRecorder progress(op.task());
        EXPECT_TRUE(QTest::qWaitFor([&] { return !progress.progress().isEmpty(); }, 60000));
        op.stop();
    };
    const struct
    {
        const char* name;
        Make make;
        // Empty: refused on both paths. Otherwise the worker job runs (and
        // fails or is stopped by `during`) and the ffmpeg path is not tried.
        QString source;
        std::function<void(IAVTaskOperator&)> during;
    } cases[] = {
        {"hard link", withInput([](const QString& d, ConvertSource& s, QString& o) {
             o = d + "/same.mp4";
             return ::link(QFile::encodeName(s.filePath), QFile::encodeName(o)) == 0 ? s.filePath
                                                                                     : "";
         })},
        {"symbolic link", withInput([](const QString& d, ConvertSource& s, QString& o) {
             o = d + "/link.mp4";
             return QFile::link(s.filePath, o) ? s.filePath : "";
         })},
        {"dir/../name", withInput([](const QString& d, ConvertSource& s, QString& o) {
             o = d + "/sub/../in.mp4";
             return QDir(d).mkdir("sub") ? s.filePath : "";
         })},
        {"folder through a symbolic link",
         withInput([](const QString& d, ConvertSource& s, QString& o) {
             o = d + "/alias/in.mp4";
             return QFile::link(d, d + "/alias") ? s.filePath : "";
         })},
        {"watermark", withInput([this](const QString& d, ConvertSource& s, QString& o) {
             s.waterMark = {WaterMarkParam()};
             s.waterMark[0].filePath = copyOf(sStill, d + "/mark.png");
             o = d + "/./mark.png";
             return s.waterMark[0].filePath;
         })},
        {"cover", withInput([this](const QString& d, ConvertSource& s, QString& o) {
             return o = s.coverPath = copyOf(sStill, d + "/cover.png");
         })},
        {"attached audio", withInput([this](const QString& d, ConvertSource& s, QString& o) {
             s.attachedAudio = {{0, copyOf(sAudioOnly, d + "/sound.m4a")}};
             return o = s.attachedAudio.first().filePath;
         })},
        {"attached subtitle", withInput([](const QString& d, ConvertSource& s, QString& o) {
             o = writeFile(d + "/subs.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
             s.attachedSubtitle = {{0, "subs", o}};
             s.speed = 1.5f;
             return o;
         })},
        {"unrelated file at the output, failed worker job", mine, sNoFrames},
        {"unrelated file at the output, stopped worker job", mine, sLongClip, stopOnProgress},
    };
    for (const auto& c : cases) {
        for (const bool ffmpegPath : {true, false}) {
            if (ffmpegPath && !c.source.isEmpty()) {
                continue;
            }
            SCOPED_TRACE(std::string(c.name) + (ffmpegPath ? " (ffmpeg path)" : " (worker)"));
            QTemporaryDir dir;
            ConvertSource source;
            source.filePath = c.source;
            const QString kept = c.make(dir.path(), source, mOutput.outputPath);
            ASSERT_FALSE(kept.isEmpty());
            const QByteArray before = digest(kept);
            LogCapture log;

            const QList<int> states = ffmpegPath ? runJob(source) : runWorkerJob(source, c.during);

            EXPECT_EQ(digest(kept), before) << "the file was changed";
            EXPECT_FALSE(states.contains(5));
            if (!c.source.isEmpty()) {
                EXPECT_TRUE(states.contains(c.during ? 4 : 6));
                EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 1)
                    << "a temporary file was left";
            } else if (ffmpegPath) {
                // The operator refuses, and so does the controller instead of
                // starting the fallback.
                EXPECT_EQ(states, QList<int>{6});
                EXPECT_TRUE(log.contains("output equals input, refused: \"" + mOutput.outputPath +
                                         "\" is the input \""));
                EXPECT_TRUE(log.contains("output equals input, no fallback: "));
            } else {
                EXPECT_EQ(states.value(states.size() - 1), 6);
                EXPECT_TRUE(log.contains("\" is the input \"")) << logText(log).toStdString();
            }
        }
    }
}

TEST_F(FaultMatrixTest, FullDiskFailsCleanly)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "mounting a small file system needs root";
    }
    const QString mountPoint = mDir.filePath("small");
    ASSERT_TRUE(QDir(mDir.path()).mkdir("small"));
    if (QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=64k", "tmpfs", mountPoint}) != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    ConvertSource source;
    source.filePath = sLongClip;
    mOutput.outputPath = mountPoint + "/result.mp4";
    LogCapture log;

    EXPECT_EQ(runJob(source).last(), 6);
    EXPECT_TRUE(QDir(mountPoint).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
    EXPECT_TRUE(log.contains("worker failed: "));
    EXPECT_EQ(QProcess::execute("umount", {mountPoint}), 0);
}

// Faults of the programs a job runs: what the host sees and what the log says.
TEST_F(FaultMatrixTest, ProcessFaults)
{
    const QString longClip = sLongClip;
    QList<pid_t> killed;
    const QString realFFmpeg = QFileInfo(TestMedia::ffmpeg()).canonicalFilePath().section('/', -1);
    const struct
    {
        const char* name;
        QString ffmpeg; // empty: the real one
        QString worker; // empty: the real one; "script:" a scripted behaviour
        QString source;
        std::function<void(IAVTaskOperator&)> during;
        QList<int> states;
        QString logged;
        int failures; // "Complete convert failed" records
    } cases[] = {
        {"missing ffmpeg falls back to the worker",
         mDir.filePath("no-ffmpeg"),
         "",
         sClip,
         {},
         {1, 5},
         "ffmpeg cannot be started: ",
         1},
        // ffmpeg's 1, then the worker's 1 and 5; the failed ffmpeg run is silent.
        {"ffmpeg killed mid-run falls back once",
         "",
         "",
         longClip,
         [&](IAVTaskOperator&) {
             const QString output = mOutput.outputPath;
             ASSERT_TRUE(killChild(realFFmpeg, &killed, [&] { return QFileInfo::exists(output); }));
         },
         {1, 1, 5},
         "",
         1},
        {"hanging ffmpeg ends with stop",
         binFile("fake-ffmpeg-hang"),
         "",
         sClip,
         [](IAVTaskOperator& op) {
             QTest::qWait(1500);
             EXPECT_TRUE(isHardwareTranscode());
             op.stop();
         },
         {1, 4},
         "",
         0},
        {"missing worker fails the job",
         binFile("fake-ffmpeg-fail"),
         mDir.filePath("no-worker"),
         sClip,
         {},
         {1, 6},
         "worker program not found: ",
         1},
        {"crashing worker is started once more",
         binFile("fake-ffmpeg-fail"),
         "script:crash-once",
         sClip,
         {},
         {1, 1, 5},
         "starting the worker again",
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Settings& settings = KorvaneBaseEntry()->settings();
        settings.setValue("kFFmpeg_Path", c.ffmpeg.isEmpty() ? TestMedia::ffmpeg() : c.ffmpeg);
        settings.setValue("kWorker_Path",
                          c.worker.isEmpty() ? binFile("korvane-worker") : c.worker);
        std::unique_ptr<ScriptedWorker> scripted;
        if (c.worker.startsWith("script:")) {
            scripted = std::make_unique<ScriptedWorker>(c.worker.mid(7));
        }
        ConvertSource source;
        source.filePath = c.source;
        mOutput.outputPath = mDir.filePath(QString("%1.mp4").arg(c.name));
        LogCapture log;

        EXPECT_EQ(runJob(source, c.during), c.states);

        EXPECT_TRUE(c.logged.isEmpty() || log.contains(c.logged)) << logText(log).toStdString();
        EXPECT_EQ(log.count("Complete convert failed"), c.failures);
        EXPECT_EQ(log.contains("the worker crashed without reporting a result"), bool(scripted));
        if (scripted) {
            EXPECT_EQ(scripted->runs(), 2);
        } else {
            expectOutputMatches(c.states.last());
        }
    }
}

TEST_F(FaultMatrixTest, WorkerKilledTwiceFailsTheJob)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", binFile("fake-ffmpeg-fail"));
    ConvertSource source;
    source.filePath = sLongClip;
    LogCapture log;
    QList<pid_t> killed;
    const QFileInfo output(mOutput.outputPath);

    const QList<int> states = runJob(source, [&](IAVTaskOperator& op) {
        // Each worker is killed once it reports progress, that is while it
        // writes: its unfinished file must not show up at the output path.
        QSignalSpy progress(op.task()->signalBus().data(),
                            SIGNAL(taskProgress(Korvane::TaskProgressType, double)));
        qsizetype seen = 0;
        const auto writing = [&] { return progress.count() > seen; };
        ASSERT_TRUE(killChild("korvane-worker", &killed, writing));
        seen = progress.count();
        ASSERT_TRUE(killChild("korvane-worker", &killed, writing));
    });

    EXPECT_EQ(states.value(states.size() - 1), 6);
    EXPECT_EQ(states.count(6), 1);
    EXPECT_EQ(killed.size(), 2);
    expectOutputMatches(6);
    // Nor does a temporary file of the killed writers stay beside it (the fake
    // ffmpeg leaves its argument record there).
    EXPECT_EQ(QDir(output.path()).entryList({output.fileName() + "*"}, QDir::Files),
              QStringList{output.fileName() + ".args"});
    EXPECT_EQ(log.count("the worker crashed without reporting a result"), 2);
}

} // namespace
