#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneBase/ChildProcess.h"
#include "KorvaneBase/DeferredCall.h"
#include "KorvaneBase/FileIdentity.h"
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

#include <unistd.h>

using namespace Korvane;

// A record is handed over once: at flush() or at the end of its statement.
TEST(Record, StreamsTextAndIsHandedOverOnce)
{
    LogCapture capture;
    {
        Record record("Korvane::Test::fn", 42, "tests/KorvaneBaseTest", nullptr, 0);
        record << "size " << 1920 << "x" << qint64(1080) << " ratio " << 0.5 << QString(" é");
        record.flush();
        record << " late";
    }
    Record("f", 1, "file", nullptr, 0) << "at the end of the statement";
    ASSERT_EQ(capture.entries().size(), 2);
    const LogEntry e = capture.entries()[0];
    EXPECT_EQ(QStringList({e.text, e.function, QString::number(e.line), e.file,
                           QString::number(e.level), capture.entries()[1].text}),
              QStringList({QString::fromUtf8("size 1920x1080 ratio 0.5 é"), "Korvane::Test::fn",
                           "42", "tests/KorvaneBaseTest", "0", "at the end of the statement"}));
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
    QList<QThread*> threads;
    for (int t = 0; t < 4; ++t) {
        threads << QThread::create([t] {
            for (int i = 0; i < 500; ++i) {
                Record("Korvane::A::b", 7, "Projects/X", nullptr, 0) << "thread " << t << " end";
            }
        });
        threads.back()->start();
    }
    for (QThread* thread : threads) {
        thread->wait();
        delete thread;
    }
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2000);
    EXPECT_EQ(lines.filter(QRegularExpression(
                  "^\\S+ \\[0\\] Korvane::A::b \\(Projects/X:7\\) thread \\d end$")),
              lines);
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
    QSettings other(dir.filePath("s.ini"), QSettings::IniFormat);
    EXPECT_TRUE(other.value("kLog_Stderr").toBool());
    // What another process writes is read at the next sync.
    QFile ini(dir.filePath("s.ini"));
    ASSERT_TRUE(ini.open(QIODevice::WriteOnly) && ini.write("[General]\nkWorker_Path=/w\n") > 0);
    ini.close();
    settings.sync();
    EXPECT_EQ(settings.value("kWorker_Path").toString(), "/w");
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

// Whole lines leave the buffer without a Windows carriage return; the rest
// waits. A deferred call runs later, once per posting, never for a lost receiver.
TEST(ChildProcess, LinesAndDeferredCalls)
{
    QByteArray buffer("a\r\n\nb\rc\nrest");
    EXPECT_EQ(takeLines(buffer) << buffer, QList<QByteArray>({"a", "", "b\rc", "rest"}));
    int calls = 0;
    QObject receiver;
    auto lost = std::make_unique<QObject>();
    DeferredCall once(&receiver, [&] { ++calls; });
    DeferredCall never(lost.get(), [&] { calls += 10; });
    once.post(), once.post(), never.post(), lost.reset();
    EXPECT_EQ(calls, 0);
    QCoreApplication::processEvents();
    once.post();
    QCoreApplication::processEvents();
    EXPECT_EQ(calls, 2);
}
