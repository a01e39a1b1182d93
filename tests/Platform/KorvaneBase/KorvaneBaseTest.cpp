#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneBase/FileIdentity.h"
#include "KorvaneBase/ProgramLocation.h"
#include "LogCapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <vector>

#include <unistd.h>

using namespace Korvane;

// A record is handed over once: at flush() or at the end of its statement.
TEST(Record, StreamsTextAndIsHandedOverOnce)
{
    LogCapture capture;
    QObject owner;
    {
        Record record("Korvane::Test::fn", 42, "tests/KorvaneBaseTest", &owner, 0);
        record << "size " << 1920 << "x" << qint64(1080) << " ratio " << 0.5 << QString(" é");
        record.flush();
        record << " late";
    }
    Record("f", 1, "file", nullptr, 0) << "at the end of the statement";
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 2);
    EXPECT_EQ(entries[0].text, QString::fromUtf8("size 1920x1080 ratio 0.5 é"));
    EXPECT_EQ(std::make_tuple(entries[0].function, entries[0].line, entries[0].file,
                              entries[0].object, entries[0].level),
              std::make_tuple(QString("Korvane::Test::fn"), 42, QString("tests/KorvaneBaseTest"),
                              static_cast<const QObject*>(&owner), 0));
    EXPECT_EQ(entries[1].text, "at the end of the statement");
}

// Concurrent writers never interleave lines; the file rotates and keeps a
// bounded number of old files; an unwritable file is skipped silently. The
// store is INI text that other programs read and write alike.
TEST(Logger, WholeLinesRotationAndSettingsAsIniText)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("test.log");
    Logger& logger = KorvaneBaseEntry()->logger();
    const QString previous = logger.filePath();
    logger.setFilePath(path);
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back(QThread::create([t] {
            for (int i = 0; i < 500; ++i) {
                Record("Korvane::A::b", 7, "Projects/X", nullptr, 0) << "thread " << t << " end";
            }
        }));
        threads.back()->start();
    }
    for (const auto& thread : threads) {
        thread->wait();
    }
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
    EXPECT_EQ(lines
                  .filter(QRegularExpression("^\\S+ \\[0\\] Korvane::A::b \\(Projects/X:7\\) "
                                             "thread \\d end$"))
                  .size(),
              2000);
    EXPECT_EQ(lines.size(), 2000);
    const QString chunk(64 * 1024, QLatin1Char('x'));
    for (qint64 i = 0; i <= Logger::rotateBytes() * (Logger::keptFiles() + 2) / chunk.size(); ++i) {
        Record("f", 1, "file", nullptr, 0) << chunk;
    }
    for (int i = 1; i <= Logger::keptFiles() + 1; ++i) {
        EXPECT_EQ(QFile::exists(path + QString(".%1").arg(i)), i <= Logger::keptFiles()) << i;
    }
    EXPECT_LT(QFile(path).size(), Logger::rotateBytes());
    logger.setFilePath(dir.path());
    LogCapture capture;
    Record("f", 1, "file", nullptr, 0) << "still delivered to sinks";
    EXPECT_TRUE(capture.contains("still delivered to sinks"));
    logger.setFilePath(previous);

    Settings settings;
    settings.setFilePath(dir.filePath("s.ini"));
    settings.setValue("kLog_Stderr", true);
    settings.setValue("kNumber", 12);
    settings.remove("kNumber");
    QSettings other(dir.filePath("s.ini"), QSettings::IniFormat);
    EXPECT_EQ(other.allKeys(), QStringList({"kLog_Stderr"}));
    other.setValue("kVob_DeMux_Enabled", "1");
    other.sync();
    EXPECT_TRUE(settings.value("kVob_DeMux_Enabled").toBool());
    EXPECT_FALSE(settings.value("kNumber").isValid());
    EXPECT_EQ(KorvaneBaseEntry()->settings().filePath(),
              qEnvironmentVariable("KORVANE_SETTINGS_FILE"));
}

// Setting, then the application's folder, then PATH (an installed host finds
// the system's programs), then the application's folder again.
TEST(ProgramLocation, SettingThenApplicationDirectoryThenPath)
{
    QTemporaryDir pathDir;
    QFile program(pathDir.filePath("korvane-on-path-only"));
    ASSERT_TRUE(program.open(QIODevice::WriteOnly));
    program.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
    const QByteArray oldPath = qgetenv("PATH");
    qputenv("PATH", pathDir.path().toUtf8() + ':' + oldPath);
    KorvaneBaseEntry()->settings().setValue("kLocate_Test", "/opt/chosen/tool");
    const QDir appDir(QCoreApplication::applicationDirPath());
    // The build links the system's ffmpeg beside the test programs.
    const QString rows[][3] = {
        {"kLocate_Test", "ffmpeg", "/opt/chosen/tool"},
        {"kLocate_Unset", "ffmpeg", appDir.filePath("ffmpeg")},
        {"kLocate_Unset", "korvane-on-path-only", program.fileName()},
        {"kLocate_Unset", "korvane-nowhere", appDir.filePath("korvane-nowhere")},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(locateProgram(row[0], row[1]), row[2]) << row[1].toStdString();
    }
    KorvaneBaseEntry()->settings().remove("kLocate_Test");
    qputenv("PATH", oldPath);
}

// Identity, not spelling: every second name of one file is the same file; a
// file that does not exist yet is only the same when its folder and name are.
TEST(FileIdentity, SecondNamesOfOneFileAreTheSameFile)
{
    QTemporaryDir dir;
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
    for (const char* name : {"in.mp4", "hard.mp4", "soft.mp4", "sub/../in.mp4", "sub/up/in.mp4"}) {
        EXPECT_TRUE(isSameFile(file, dir.filePath(name))) << name;
    }
    // Same content, other case, other folder, missing folder, no name.
    for (const char* name : {"other.mp4", "IN.mp4", "sub/in.mp4", "missing/in.mp4", ""}) {
        EXPECT_FALSE(isSameFile(file, *name ? dir.filePath(name) : QString())) << name;
    }
    EXPECT_FALSE(isSameFile(dir.filePath("gone.mp4"), dir.filePath("gone.mp4")));
}
