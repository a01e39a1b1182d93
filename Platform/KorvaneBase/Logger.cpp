#include "KorvaneBase/Logger.h"

#include "KorvaneBase/Settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMutexLocker>
#include <QStandardPaths>

#include <cstdio>

namespace Korvane {
namespace {

QString defaultLogPath()
{
    QString dir = qEnvironmentVariable("KORVANE_LOG_DIR");
    if (dir.isEmpty()) {
        dir = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
              QStringLiteral("/Korvane/logs");
    }
    QString name = QCoreApplication::applicationName();
    if (name.isEmpty()) {
        name = QStringLiteral("korvane");
    }
    return dir + QLatin1Char('/') + name + QStringLiteral(".log");
}

} // namespace

Logger::Logger(Settings* settings) : mSettings(settings) {}

QString Logger::formatLine(const LogEntry& entry)
{
    return QStringLiteral("%1 [%2] %3 (%4:%5) %6")
        .arg(entry.time.toString(Qt::ISODateWithMs))
        .arg(entry.level)
        .arg(entry.function, entry.file)
        .arg(entry.line)
        .arg(entry.text);
}

bool Logger::stderrWanted() const
{
    if (qEnvironmentVariable("KORVANE_LOG_STDERR") == QLatin1String("1")) {
        return true;
    }
    return mSettings && mSettings->value(QStringLiteral("kLog_Stderr")).toBool();
}

void Logger::write(const LogEntry& entry)
{
    const QByteArray line = formatLine(entry).toUtf8() + '\n';
    const bool toStderr = stderrWanted();
    QList<QPair<int, Sink>> sinks;
    {
        QMutexLocker lock(&mMutex);
        appendToFile(line);
        if (toStderr) {
            std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
            std::fflush(stderr);
        }
        sinks = mSinks;
    }
    for (const auto& sink : sinks) {
        sink.second(entry);
    }
}

void Logger::appendToFile(const QByteArray& line)
{
    if (mFilePath.isEmpty()) {
        mFilePath = defaultLogPath();
    }
    if (!mFile.isOpen()) {
        QDir().mkpath(QFileInfo(mFilePath).absolutePath());
        mFile.setFileName(mFilePath);
        if (!mFile.open(QIODevice::Append | QIODevice::WriteOnly)) {
            return;
        }
    }
    mFile.write(line);
    mFile.flush();
    if (mFile.size() >= rotateBytes()) {
        rotate();
    }
}

void Logger::rotate()
{
    mFile.close();
    QFile::remove(mFilePath + QStringLiteral(".%1").arg(keptFiles()));
    for (int i = keptFiles() - 1; i >= 1; --i) {
        QFile::rename(mFilePath + QStringLiteral(".%1").arg(i),
                      mFilePath + QStringLiteral(".%1").arg(i + 1));
    }
    QFile::rename(mFilePath, mFilePath + QStringLiteral(".1"));
}

int Logger::addSink(Sink sink)
{
    QMutexLocker lock(&mMutex);
    const int id = mNextSinkId++;
    mSinks.append({id, std::move(sink)});
    return id;
}

void Logger::removeSink(int id)
{
    QMutexLocker lock(&mMutex);
    mSinks.removeIf([id](const QPair<int, Sink>& s) { return s.first == id; });
}

QString Logger::filePath() const
{
    QMutexLocker lock(&mMutex);
    return mFilePath.isEmpty() ? defaultLogPath() : mFilePath;
}

void Logger::setFilePath(const QString& path)
{
    QMutexLocker lock(&mMutex);
    mFile.close();
    mFilePath = path;
}

} // namespace Korvane
