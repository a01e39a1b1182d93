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

// Children of this process whose program file is named `name`.
QList<pid_t> childProcesses(const QString& name)
{
    QList<pid_t> found;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& entry : entries) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        if (!isPid) {
            continue;
        }
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly)) {
            continue;
        }
        const QByteArray text = stat.readAll();
        // "pid (comm) state ppid ...": the command may hold blanks.
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (fields.size() < 2 || fields.at(1).toInt() != getpid()) {
            continue;
        }
        const QString exe = QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
        if (QFileInfo(exe).fileName() == name) {
            found << pid;
        }
    }
    return found;
}

// Waits for a child named `name` that is not in `killed` and, when given,
// for `ready`, and kills that child.
bool killChild(const QString& name, QList<pid_t>* killed, const std::function<bool()>& ready = {},
               int timeoutMs = 60000)
{
    pid_t victim = 0;
    const bool seen = QTest::qWaitFor(
        [&] {
            if (victim == 0) {
                for (pid_t pid : childProcesses(name)) {
                    if (!killed->contains(pid)) {
                        victim = pid;
                        break;
                    }
                }
            }
            return victim != 0 && (!ready || ready());
        },
        timeoutMs);
    if (!seen) {
        return false;
    }
    killed->append(victim);
    return ::kill(victim, SIGKILL) == 0;
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
        sClip = TestMedia::generate("hardening/h264-2s.mp4",
                                    {"-f", "lavfi", "-i", "testsrc=duration=2:size=160x120:rate=25",
                                     "-f", "lavfi", "-i", "sine=frequency=440:duration=2", "-c:v",
                                     "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest",
                                     "-movflags", "+faststart"});
        sLongClip = TestMedia::generate(
            "hardening/h264-30s.mp4",
            {"-f", "lavfi", "-i", "testsrc=duration=30:size=640x480:rate=25", "-f", "lavfi", "-i",
             "sine=frequency=440:duration=30", "-c:v", "libx264", "-preset", "ultrafast",
             "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
        sAudioOnly = TestMedia::generate(
            "hardening/audio-only.m4a",
            {"-f", "lavfi", "-i", "sine=frequency=440:duration=2", "-c:a", "aac"});
        sStill = TestMedia::generate(
            "hardening/still.png", {"-f", "lavfi", "-i", "testsrc=size=160x120", "-frames:v", "1"});
        sNoFrames = TestMedia::generate(
            "hardening/no-frames.mp4",
            {"-f", "lavfi", "-i", "testsrc=size=160x120", "-frames:v", "0", "-c:v", "libx264"});
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
                      const std::function<void(IAVTaskOperator&)>& during = {},
                      int timeoutMs = 120000)
    {
        return runOperator(rawCreateNvidiaFFmpegConverter(source, mOutput), during, timeoutMs);
    }

    // The same on the worker path alone: the converter operator the
    // controller falls back to.
    QList<int> runWorkerJob(const ConvertSource& source,
                            const std::function<void(IAVTaskOperator&)>& during = {})
    {
        return runOperator(createConverterContainRetryOp_IPC(source, mOutput), during, 120000);
    }

    QList<int> runOperator(QSharedPointer<IAVTaskOperator> op,
                           const std::function<void(IAVTaskOperator&)>& during, int timeoutMs)
    {
        QList<int> states;
        {
            BusRecorder bus(op->task());
            EXPECT_TRUE(op->start());
            if (during) {
                during(*op);
            }
            EXPECT_TRUE(bus.waitForFinalState(timeoutMs)) << "no final state";
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

    static std::unique_ptr<QTemporaryDir> sHome;
    static QString sClip;
    static QString sLongClip;
    static QString sAudioOnly;
    static QString sStill;
    static QString sNoFrames;
    QTemporaryDir mDir;
    AVTaskOutputParam mOutput;
};

std::unique_ptr<QTemporaryDir> FaultMatrixTest::sHome;
QString FaultMatrixTest::sClip;
QString FaultMatrixTest::sLongClip;
QString FaultMatrixTest::sAudioOnly;
QString FaultMatrixTest::sStill;
QString FaultMatrixTest::sNoFrames;

// Each input is made in the test's folder; `finalState` is what the host sees
// last and `logged` a text some record must hold.
struct InputCase
{
    const char* name;
    std::function<QString(const QString& dir)> make;
    int finalState;
    const char* logged;
};

QString writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        return {};
    }
    return path;
}

QString logText(const LogCapture& log)
{
    QStringList lines;
    for (const LogEntry& entry : log.entries()) {
        lines << entry.text;
    }
    return lines.join(QLatin1Char('\n'));
}

QString copyOf(const QString& from, const QString& to)
{
    return QFile::copy(from, to) ? to : QString();
}

TEST_F(FaultMatrixTest, BadInputsEndInOneDefinedState)
{
    const QString clip = sClip;
    const QString audio = sAudioOnly;
    const QString still = sStill;
    const QString noFrames = sNoFrames;
    const char* kWorkerFailed = "worker failed: ";
    const QList<InputCase> cases{
        {"missing", [](const QString& d) { return d + "/missing.mp4"; }, 6, kWorkerFailed},
        {"empty", [](const QString& d) { return writeFile(d + "/empty.mp4", {}); }, 6,
         kWorkerFailed},
        {"directory",
         [](const QString& d) {
             QDir(d).mkdir("folder.mp4");
             return d + "/folder.mp4";
         },
         6, kWorkerFailed},
        {"truncated mp4",
         [clip](const QString& d) {
             QFile in(clip);
             in.open(QIODevice::ReadOnly);
             return writeFile(d + "/truncated.mp4", in.read(in.size() / 3));
         },
         -1, nullptr},
        {"random bytes",
         [](const QString& d) {
             QByteArray bytes(64 * 1024, '\0');
             QRandomGenerator generator(8);
             for (char& c : bytes) {
                 c = char(generator.bounded(256));
             }
             return writeFile(d + "/random.mp4", bytes);
         },
         6, kWorkerFailed},
        {"header claiming 65535x65535",
         [](const QString& d) {
             return writeFile(d + "/huge.y4m", "YUV4MPEG2 W65535 H65535 F25:1 Ip A1:1 C420jpeg\n"
                                               "FRAME\n" +
                                                   QByteArray(4096, '\x80'));
         },
         6, kWorkerFailed},
        {"zero duration", [noFrames](const QString&) { return noFrames; }, 6, kWorkerFailed},
        {"audio only", [audio](const QString&) { return audio; }, 5, nullptr},
        {"still image", [still](const QString&) { return still; }, 5, nullptr},
        {"name with spaces",
         [clip](const QString& d) { return copyOf(clip, d + "/my holiday clip.mp4"); }, 5, nullptr},
        {"unicode name",
         [clip](const QString& d) {
             return copyOf(clip, d + QString::fromUtf8("/Пляж 海滩 ümlaut.mp4"));
         },
         5, nullptr},
        {"double quote in the name",
         [clip](const QString& d) { return copyOf(clip, d + "/say \"cheese\" -y.mp4"); }, 5,
         nullptr},
        {"leading dash", [clip](const QString& d) { return copyOf(clip, d + "/-i.mp4"); }, 5,
         nullptr},
    };
    for (const InputCase& c : cases) {
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
        if (c.finalState > 0) {
            EXPECT_EQ(last, c.finalState) << logText(log).toStdString();
        } else {
            EXPECT_TRUE(last == 5 || last == 6) << last;
        }
        EXPECT_EQ(states.count(5) + states.count(6), 1);
        expectOutputMatches(last);
        if (last == 6) {
            EXPECT_TRUE(log.contains("Complete convert failed"));
        }
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged));
        }
        EXPECT_EQ(digest(source.filePath), before) << "the input was changed";
    }
}

// A job's names reach ffmpeg's arguments and the worker's libraries; none may
// become an option, so an unrelated file named in one stays as it was.
TEST_F(FaultMatrixTest, JobNamesNeverBecomeOptions)
{
    const QString victim = writeFile(mDir.filePath("victim.txt"), "the user's own file\n");
    ASSERT_FALSE(victim.isEmpty());
    const QString injection = "aac -map 0:a -f wav " + victim + " -map 0 -acodec aac";
    const QList<std::pair<const char*, std::function<void(AVTaskOutputParam&)>>> cases{
        {"audio.codecName", [&](AVTaskOutputParam& o) { o.audio.codecName = injection; }},
        {"video.codecName", [&](AVTaskOutputParam& o) { o.video.codecName = "h264 " + injection; }},
    };
    for (const auto& [field, change] : cases) {
        SCOPED_TRACE(field);
        ConvertSource source;
        source.filePath = sClip;
        mOutput.outputPath = mDir.filePath("result.mp4");
        mOutput.audio.codecName = "aac";
        mOutput.video.codecName = "h264";
        change(mOutput);
        LogCapture log;

        const QList<int> states = runJob(source);

        EXPECT_EQ(states.value(states.size() - 1), 6);
        EXPECT_FALSE(states.contains(5));
        // The operator and then the worker refuse, each before it writes.
        EXPECT_TRUE(log.contains(QStringLiteral("invalid job field: %1 \"").arg(field)))
            << logText(log).toStdString();
        EXPECT_TRUE(log.contains(QStringLiteral("worker failed: invalid job field: %1").arg(field)))
            << logText(log).toStdString();
        EXPECT_EQ(digest(victim),
                  QCryptographicHash::hash("the user's own file\n", QCryptographicHash::Sha256));
        expectOutputMatches(6);
    }
}

TEST_F(FaultMatrixTest, MissingOutputFolderIsCreated)
{
    ConvertSource source;
    source.filePath = sClip;
    mOutput.outputPath = mDir.filePath("new/deeper/result.mp4");
    EXPECT_EQ(runJob(source), (QList<int>{1, 5}));
    expectOutputMatches(5);
}

TEST_F(FaultMatrixTest, OutputThatIsAFolderFailsAndTheFolderStays)
{
    ConvertSource source;
    source.filePath = sClip;
    ASSERT_TRUE(QDir(mDir.path()).mkdir("taken.mp4"));
    const QString folder = mDir.filePath("taken.mp4");
    ASSERT_TRUE(QFile::copy(sClip, folder + "/inside.mp4"));
    mOutput.outputPath = folder;
    LogCapture log;

    const QList<int> states = runJob(source);

    EXPECT_EQ(states.value(states.size() - 1), 6);

    EXPECT_TRUE(QFileInfo(folder).isDir());
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
    struct Case
    {
        const char* name;
        // Sets up the job in `dir`; returns the file that must stay as it is.
        std::function<QString(const QString& dir, ConvertSource&, AVTaskOutputParam&)> make;
        // Empty: refused on both paths. Otherwise the worker job runs (and
        // fails or is stopped by `during`) and the ffmpeg path is not tried.
        QString source;
        std::function<void(IAVTaskOperator&)> during;
    };
    const QString clip = sClip;
    const QString still = sStill;
    const QString audio = sAudioOnly;
    auto input = [clip](const QString& dir, ConvertSource& s) {
        s.filePath = copyOf(clip, dir + "/in.mp4");
        return s.filePath;
    };
    auto stopOnProgress = [](IAVTaskOperator& op) {
        BusRecorder progress(op.task());
        EXPECT_TRUE(QTest::qWaitFor([&] { return !progress.progress().isEmpty(); }, 60000));
        op.stop();
    };
    const QList<Case> cases{
        {"hard link",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             o.outputPath = d + "/same.mp4";
             const QString kept = input(d, s);
             return ::link(QFile::encodeName(kept), QFile::encodeName(o.outputPath)) == 0
                        ? kept
                        : QString();
         },
         {},
         {}},
        {"symbolic link",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             o.outputPath = d + "/link.mp4";
             const QString kept = input(d, s);
             return QFile::link(kept, o.outputPath) ? kept : QString();
         },
         {},
         {}},
        {"dir/../name",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             QDir(d).mkdir("sub");
             o.outputPath = d + "/sub/../in.mp4";
             return input(d, s);
         },
         {},
         {}},
        {"folder through a symbolic link",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             const QString kept = input(d, s);
             o.outputPath = d + "/alias/in.mp4";
             return QFile::link(d, d + "/alias") ? kept : QString();
         },
         {},
         {}},
        {"watermark",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             input(d, s);
             WaterMarkParam mark;
             mark.filePath = copyOf(still, d + "/mark.png");
             s.waterMark = {mark};
             o.outputPath = d + "/./mark.png";
             return mark.filePath;
         },
         {},
         {}},
        {"cover",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             input(d, s);
             s.coverPath = copyOf(still, d + "/cover.png");
             o.outputPath = s.coverPath;
             return s.coverPath;
         },
         {},
         {}},
        {"attached audio",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             input(d, s);
             s.attachedAudio = {{0, copyOf(audio, d + "/sound.m4a")}};
             o.outputPath = s.attachedAudio.first().filePath;
             return o.outputPath;
         },
         {},
         {}},
        {"attached subtitle",
         [=](const QString& d, ConvertSource& s, AVTaskOutputParam& o) {
             input(d, s);
             const QString subtitle =
                 writeFile(d + "/subs.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
             s.attachedSubtitle = {{0, "subs", subtitle}};
             s.speed = 1.5f;
             o.outputPath = subtitle;
             return subtitle;
         },
         {},
         {}},
        {"unrelated file at the output, failed worker job",
         [=](const QString& d, ConvertSource&, AVTaskOutputParam& o) {
             o.outputPath = writeFile(d + "/mine.mp4", "the user's own file");
             return o.outputPath;
         },
         sNoFrames,
         {}},
        {"unrelated file at the output, stopped worker job",
         [=](const QString& d, ConvertSource&, AVTaskOutputParam& o) {
             o.outputPath = writeFile(d + "/mine.mp4", "the user's own file");
             return o.outputPath;
         },
         sLongClip, stopOnProgress},
    };
    for (const Case& c : cases) {
        for (const bool ffmpegPath : {true, false}) {
            if (ffmpegPath && !c.source.isEmpty()) {
                continue;
            }
            SCOPED_TRACE(std::string(c.name) + (ffmpegPath ? " (ffmpeg path)" : " (worker)"));
            QTemporaryDir dir;
            ConvertSource source;
            source.filePath = c.source;
            const QString kept = c.make(dir.path(), source, mOutput);
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
    mOutput.video.width = 640;
    mOutput.video.height = 480;
    LogCapture log;

    const QList<int> states = runJob(source);

    EXPECT_EQ(states.value(states.size() - 1), 6);
    EXPECT_TRUE(QDir(mountPoint).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
    EXPECT_TRUE(log.contains("worker failed: "));
    EXPECT_EQ(QProcess::execute("umount", {mountPoint}), 0);
}

TEST_F(FaultMatrixTest, MissingFFmpegFallsBackToTheWorker)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", mDir.filePath("no-ffmpeg"));
    ConvertSource source;
    source.filePath = sClip;
    LogCapture log;

    EXPECT_EQ(runJob(source), (QList<int>{1, 5}));

    expectOutputMatches(5);
    EXPECT_TRUE(log.contains("ffmpeg cannot be started: "));
    EXPECT_EQ(log.count("Complete convert failed"), 1);
}

TEST_F(FaultMatrixTest, FFmpegKilledMidRunFallsBackOnce)
{
    ConvertSource source;
    source.filePath = sLongClip;
    mOutput.video.width = 640;
    mOutput.video.height = 480;
    LogCapture log;
    QList<pid_t> killed;

    const QList<int> states = runJob(source, [&](IAVTaskOperator&) {
        const QString output = mOutput.outputPath;
        ASSERT_TRUE(killChild(QFileInfo(TestMedia::ffmpeg()).canonicalFilePath().section('/', -1),
                              &killed, [&] { return QFileInfo::exists(output); }));
    });

    // ffmpeg's 1, then the worker's 1 and 5; the failed ffmpeg run is silent.
    EXPECT_EQ(states, (QList<int>{1, 1, 5}));
    expectOutputMatches(5);
    EXPECT_EQ(log.count("Complete convert failed"), 1);
}

TEST_F(FaultMatrixTest, HangingFFmpegEndsWithStop)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", binFile("fake-ffmpeg-hang"));
    ConvertSource source;
    source.filePath = sClip;
    LogCapture log;

    const QList<int> states = runJob(source, [](IAVTaskOperator& op) {
        QTest::qWait(1500);
        EXPECT_TRUE(isHardwareTranscode());
        op.stop();
    });

    EXPECT_EQ(states, (QList<int>{1, 4}));
    expectOutputMatches(4);
    EXPECT_FALSE(log.contains("Complete convert failed"));
}

TEST_F(FaultMatrixTest, MissingWorkerFailsTheJob)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", binFile("fake-ffmpeg-fail"));
    KorvaneBaseEntry()->settings().setValue("kWorker_Path", mDir.filePath("no-worker"));
    ConvertSource source;
    source.filePath = sClip;
    LogCapture log;

    EXPECT_EQ(runJob(source), (QList<int>{1, 6}));

    expectOutputMatches(6);
    EXPECT_TRUE(log.contains("worker program not found: "));
}

TEST_F(FaultMatrixTest, CrashingWorkerIsStartedOnceMore)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", binFile("fake-ffmpeg-fail"));
    ConvertSource source;
    source.filePath = sClip;
    ScriptedWorker worker("crash-once");
    LogCapture log;

    const QList<int> states = runJob(source);

    EXPECT_EQ(states, (QList<int>{1, 1, 5}));
    EXPECT_EQ(worker.runs(), 2);
    EXPECT_TRUE(log.contains("the worker crashed without reporting a result"));
    EXPECT_TRUE(log.contains("starting the worker again"));
}

TEST_F(FaultMatrixTest, WorkerKilledTwiceFailsTheJob)
{
    KorvaneBaseEntry()->settings().setValue("kFFmpeg_Path", binFile("fake-ffmpeg-fail"));
    ConvertSource source;
    source.filePath = sLongClip;
    mOutput.video.width = 640;
    mOutput.video.height = 480;
    LogCapture log;
    QList<pid_t> killed;
    const QFileInfo output(mOutput.outputPath);
    // The fake ffmpeg leaves its argument record beside the output.
    const auto namedAfterOutput = [&] {
        QStringList names = QDir(output.path()).entryList({output.fileName() + "*"}, QDir::Files);
        names.removeAll(output.fileName() + ".args");
        return names;
    };

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
    // Nor does a temporary file of the killed writers stay beside it.
    EXPECT_EQ(namedAfterOutput(), QStringList());
    EXPECT_EQ(log.count("the worker crashed without reporting a result"), 2);
}

} // namespace
