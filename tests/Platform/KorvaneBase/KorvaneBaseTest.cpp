#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneBase/FileIdentity.h"
#include "KorvaneBase/ProgramLocation.h"
#include "LogCapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <vector>

#include <unistd.h>

using namespace Korvane;

namespace {

QStringList readLines(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// Points the process logger at a private file for one test.
class LoggerFileTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mDir.isValid());
        mPath = mDir.filePath("test.log");
        mPrevious = KorvaneBaseEntry()->logger().filePath();
        KorvaneBaseEntry()->logger().setFilePath(mPath);
    }
    void TearDown() override { KorvaneBaseEntry()->logger().setFilePath(mPrevious); }

    QTemporaryDir mDir;
    QString mPath;
    QString mPrevious;
};

} // namespace

TEST(Record, StreamsTextAndHandsTheRecordOverAtTheEndOfTheStatement)
{
    LogCapture capture;
    QObject owner;
    Record("Korvane::Test::fn", 42, "tests/Platform/KorvaneBaseTest", &owner, 0)
        << "size invalid: " << 1920 << "x" << qint64(1080) << " ratio " << 0.5 << QString(" é");
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1);
    EXPECT_EQ(entries[0].text, QString("size invalid: 1920x1080 ratio 0.5 é"));
    EXPECT_EQ(entries[0].function, "Korvane::Test::fn");
    EXPECT_EQ(entries[0].line, 42);
    EXPECT_EQ(entries[0].file, "tests/Platform/KorvaneBaseTest");
    EXPECT_EQ(entries[0].object, &owner);
    EXPECT_EQ(entries[0].level, 0);
}

TEST(Record, FlushHandsOverOnceOnly)
{
    LogCapture capture;
    {
        Record r("f", 1, "file", nullptr, 0);
        r << "early";
        r.flush();
        EXPECT_EQ(capture.count("early"), 1);
        r << " late";
    }
    EXPECT_EQ(capture.entries().size(), 1);
}

TEST_F(LoggerFileTest, WritesOneFormattedLinePerRecord)
{
    Record("Korvane::A::b", 7, "Projects/X", nullptr, 0) << "first";
    Record("Korvane::C::d", 8, "Projects/Y", nullptr, 0) << "second";
    const QStringList lines = readLines(mPath);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines[0].endsWith("[0] Korvane::A::b (Projects/X:7) first"))
        << lines[0].toStdString();
    EXPECT_TRUE(lines[1].endsWith("[0] Korvane::C::d (Projects/Y:8) second"));
}

TEST_F(LoggerFileTest, RotatesAndKeepsABoundedNumberOfFiles)
{
    const QString chunk(64 * 1024, QLatin1Char('x'));
    const int records = int((Logger::rotateBytes() * (Logger::keptFiles() + 2)) / chunk.size()) + 1;
    for (int i = 0; i < records; ++i) {
        Record("f", i, "file", nullptr, 0) << chunk;
    }
    for (int i = 1; i <= Logger::keptFiles(); ++i) {
        EXPECT_TRUE(QFile::exists(mPath + QString(".%1").arg(i))) << i;
    }
    EXPECT_FALSE(QFile::exists(mPath + QString(".%1").arg(Logger::keptFiles() + 1)));
    EXPECT_LT(QFile(mPath).size(), Logger::rotateBytes());
}

TEST_F(LoggerFileTest, ConcurrentWritersNeverInterleaveLines)
{
    constexpr int threads = 4;
    constexpr int perThread = 500;
    std::vector<QThread*> workers;
    for (int t = 0; t < threads; ++t) {
        workers.push_back(QThread::create([t] {
            for (int i = 0; i < perThread; ++i) {
                Record("w", i, "file", nullptr, 0) << "thread " << t << " record " << i << " end";
            }
        }));
        workers.back()->start();
    }
    for (QThread* w : workers) {
        w->wait();
        delete w;
    }
    const QStringList lines = readLines(mPath);
    ASSERT_EQ(lines.size(), threads * perThread);
    for (const QString& line : lines) {
        ASSERT_TRUE(line.endsWith(" end")) << line.toStdString();
        ASSERT_EQ(line.count(" record "), 1);
    }
}

TEST_F(LoggerFileTest, UnwritableLogFileIsSkippedSilently)
{
    KorvaneBaseEntry()->logger().setFilePath(mDir.path()); // a directory
    LogCapture capture;
    Record("f", 1, "file", nullptr, 0) << "still delivered to sinks";
    EXPECT_TRUE(capture.contains("still delivered to sinks"));
}

TEST(Logger, RemovedSinkSeesNothingMore)
{
    Logger& logger = KorvaneBaseEntry()->logger();
    int seen = 0;
    const int id = logger.addSink([&seen](const LogEntry&) { ++seen; });
    Record("f", 1, "file", nullptr, 0) << "one";
    logger.removeSink(id);
    Record("f", 1, "file", nullptr, 0) << "two";
    EXPECT_EQ(seen, 1);
}

TEST(Settings, AbsentKeysAreInvalidAndValuesConvert)
{
    QTemporaryDir dir;
    Settings settings;
    settings.setFilePath(dir.filePath("s.ini"));
    EXPECT_FALSE(settings.value("kVob_DeMux_Enabled").isValid());
    EXPECT_FALSE(settings.value("kVob_DeMux_Enabled").toBool());

    settings.setValue("kVob_DeMux_Enabled", true);
    settings.setValue("kNumber", 12);
    settings.setValue("kFFmpeg_Path", QString("/opt/ff mpeg/ffmpeg"));
    EXPECT_TRUE(settings.value("kVob_DeMux_Enabled").toBool());
    EXPECT_EQ(settings.value("kNumber").toInt(), 12);
    EXPECT_EQ(settings.value("kFFmpeg_Path").toString(), "/opt/ff mpeg/ffmpeg");

    settings.remove("kNumber");
    EXPECT_FALSE(settings.value("kNumber").isValid());
}

TEST(Settings, PersistsAsIniTextOtherProgramsRead)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("s.ini");
    {
        Settings settings;
        settings.setFilePath(path);
        settings.setValue("kLog_Stderr", true);
    }
    // Another process (another QSettings) sees text values that convert alike.
    QSettings other(path, QSettings::IniFormat);
    EXPECT_TRUE(other.value("kLog_Stderr").toBool());

    QSettings writer(path, QSettings::IniFormat);
    writer.setValue("kVob_DeMux_Enabled", "1");
    writer.sync();
    Settings reader;
    reader.setFilePath(path);
    EXPECT_TRUE(reader.value("kVob_DeMux_Enabled").toBool());
}

TEST(Settings, DefaultPathFollowsTheEnvironment)
{
    // The test main exports KORVANE_SETTINGS_FILE for children; the process
    // store uses the same file.
    EXPECT_EQ(Settings::defaultFilePath(), qEnvironmentVariable("KORVANE_SETTINGS_FILE"));
    EXPECT_EQ(KorvaneBaseEntry()->settings().filePath(), Settings::defaultFilePath());
}

TEST(ProgramLocation, SettingThenApplicationDirectoryThenPathThenApplicationDirectory)
{
    QTemporaryDir pathDir;
    const QString onPathOnly = "korvane-on-path-only";
    QFile program(pathDir.filePath(onPathOnly));
    ASSERT_TRUE(program.open(QIODevice::WriteOnly));
    program.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    program.close();
    const QByteArray oldPath = qgetenv("PATH");
    qputenv("PATH", pathDir.path().toUtf8() + ':' + oldPath);
    KorvaneBaseEntry()->settings().setValue("kLocate_Test", "/opt/chosen/tool");
    const QDir appDir(QCoreApplication::applicationDirPath());

    // The build links the system's ffmpeg beside the test programs.
    const struct
    {
        QString key, name, expected;
    } rows[] = {
        {"kLocate_Test", "ffmpeg", "/opt/chosen/tool"},
        {"kLocate_Unset", "ffmpeg", appDir.filePath("ffmpeg")},
        {"kLocate_Unset", onPathOnly, pathDir.filePath(onPathOnly)},
        {"kLocate_Unset", "korvane-nowhere", appDir.filePath("korvane-nowhere")},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(locateProgram(row.key, row.name), row.expected) << row.name.toStdString();
    }
    KorvaneBaseEntry()->settings().remove("kLocate_Test");
    qputenv("PATH", oldPath);
}

// Identity, not spelling: every second name of one file is the same file, a
// file that does not exist yet is only the same when its folder and name are.
TEST(FileIdentity, SecondNamesOfOneFileAreTheSameFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString file = dir.filePath("in.mp4");
    const QString other = dir.filePath("other.mp4");
    for (const QString& path : {file, other}) {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("content");
    }
    ASSERT_EQ(::link(QFile::encodeName(file), QFile::encodeName(dir.filePath("hard.mp4"))), 0);
    ASSERT_TRUE(QFile::link(file, dir.filePath("soft.mp4")));
    ASSERT_TRUE(QDir(dir.path()).mkdir("sub"));
    ASSERT_TRUE(QFile::link(dir.path(), dir.filePath("sub/up")));
    const struct
    {
        QString output;
        bool same;
    } cases[] = {
        {file, true},
        {dir.filePath("hard.mp4"), true},
        {dir.filePath("soft.mp4"), true},
        {dir.filePath("sub/../in.mp4"), true},
        {dir.filePath("sub/up/in.mp4"), true},
        {other, false},
        {dir.filePath("IN.mp4"), false},
        {dir.filePath("sub/in.mp4"), false},
        {dir.filePath("missing/in.mp4"), false},
        {QString(), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Korvane::isSameFile(file, c.output), c.same) << c.output.toStdString();
    }
    EXPECT_FALSE(Korvane::isSameFile(dir.filePath("gone.mp4"), dir.filePath("gone.mp4")));
}
