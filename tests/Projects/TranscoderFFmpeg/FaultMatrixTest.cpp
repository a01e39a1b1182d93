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

// Kills a child of this process named `name`, not in `killed`, once `ready` holds.
bool killChild(const QString& name, QList<pid_t>* killed, const std::function<bool()>& ready)
{
    pid_t victim = 0;
    const bool seen = QTest::qWaitFor(
        [&] {
            QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(getpid()));
            const QByteArray list = children.open(QIODevice::ReadOnly) ? children.readAll() : "";
            for (const QByteArray& pid : list.simplified().split(' ')) {
                QFile comm("/proc/" + pid + "/comm");
                if (victim == 0 && !killed->contains(pid.toInt()) &&
                    comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == name) {
                    victim = pid.toInt();
                }
            }
            return victim != 0 && ready();
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
        KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", TestMedia::ffmpeg());
        KorvaneBaseEntry()->settings().setValue("kWorker_Path", binFile("korvane-worker"));
        mOutput = {mDir.filePath("result.mp4"), "mp4", {"h264", 160, 120}, {"aac"}};
    }

    void TearDown() override
    {
        KorvaneBaseEntry()->settings().remove("kFFmpeg_Path");
        KorvaneBaseEntry()->settings().remove("kWorker_Path");
        EXPECT_FALSE(isHardwareTranscode()) << "a run was left active";
        for (const QString folder : {"KvFFmpeg/.temp", "Korvane/ipc"}) {
            const QStringList left =
                QDir(sHome->filePath(".qttest/cache/" + folder))
                    .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
            EXPECT_TRUE(left.isEmpty())
                << folder.toStdString() << " keeps " << left.join(", ").toStdString();
        }
    }

    // Runs one job to its end, through the controller or only the worker
    // path it falls back to; `during` acts on the running job. Returns every
    // state the host saw.
    QList<int> runJob(const ConvertSource& source,
                      const std::function<void(IAVTaskOperator&)>& during = {}, bool worker = false)
    {
        QSharedPointer<IAVTaskOperator> op =
            worker ? createConverterContainRetryOp_IPC(source, mOutput)
                   : rawCreateNvidiaFFmpegConverter(source, mOutput);
        QList<int> states;
        {
            BusRecorder bus(op->task());
            EXPECT_TRUE(op->start());
            if (during) {
                during(*op);
            }
            EXPECT_TRUE(bus.waitForFinalState(120000)) << "no final state";
            QTest::qWait(300); // late reports would show up here
            states = bus.states();
            // A killed ffmpeg still writes its 6 to the task after a stop.
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
            EXPECT_FALSE(QFileInfo::exists(mOutput.outputPath)) << "partial output left";
        }
    }

    static inline std::unique_ptr<QTemporaryDir> sHome;
    static inline QString sClip, sLongClip, sAudioOnly, sStill, sNoFrames;
    QTemporaryDir mDir;
    AVTaskOutputParam mOutput;
};

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

        const QList<int> states = runJob(source);

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
TEST_F(FaultMatrixTest, JobNamesNeverBecomeOptions)
{
    const QByteArray content = "the user's own file\n";
    const QString victim = writeFile(mDir.filePath("victim.txt"), content);
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

        const QList<int> states = runJob(source);

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

TEST_F(FaultMatrixTest, OutputFolders)
{
    ConvertSource source;
    source.filePath = sClip;
    mOutput.outputPath = mDir.filePath("new/deeper/result.mp4");
    EXPECT_EQ(runJob(source), (QList<int>{1, 5})) << "a missing output folder is created";
    expectOutputMatches(5);

    // An output that is a folder fails on both paths, and the folder stays.
    mOutput.outputPath = mDir.filePath("taken.mp4");
    ASSERT_TRUE(QDir(mDir.path()).mkdir("taken.mp4"));
    ASSERT_TRUE(QFile::copy(sClip, mOutput.outputPath + "/inside.mp4"));
    LogCapture log;
    EXPECT_EQ(runJob(source).last(), 6);
    EXPECT_TRUE(QFileInfo::exists(mOutput.outputPath + "/inside.mp4"));
    EXPECT_TRUE(log.contains("ffmpeg cnv failed: ") && log.contains("worker failed: "));
}

// An output that is one of the job's inputs under any name is refused on
// both paths before anything is written; the worker writes beside the output
// and moves the result into place only when it finished, so a failed or
// stopped worker job leaves an existing file at the output path as it was.
TEST_F(FaultMatrixTest, NoJobDestroysAFileTheUserHas)
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

            const QList<int> states = runJob(source, c.during, !ffmpegPath);

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

// The whole fallback for real: without ffmpeg the worker converts the job.
TEST_F(FaultMatrixTest, MissingFFmpegFallsBackToTheWorker)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", mDir.filePath("no-ffmpeg"));
    ConvertSource source;
    source.filePath = sClip;
    LogCapture log;
    EXPECT_EQ(runJob(source), (QList<int>{1, 5}));
    EXPECT_TRUE(log.contains("ffmpeg cannot be started: "));
    EXPECT_EQ(log.count("Complete convert failed"), 1);
    expectOutputMatches(5);
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
    expectOutputMatches(6);
    // Nor does a temporary file of the killed writers stay beside it (the fake
    // ffmpeg leaves its argument record there).
    EXPECT_EQ(QDir(output.path()).entryList({output.fileName() + "*"}, QDir::Files),
              QStringList{output.fileName() + ".args"});
    EXPECT_EQ(log.count("the worker crashed without reporting a result"), 2);
}

} // namespace
