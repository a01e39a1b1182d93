#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QDateTime>
#include <QFile>
#include <QList>
#include <QMutex>
#include <QPair>
#include <QString>

#include <functional>

class QObject;

namespace Korvane {

class Settings;

// One finished log record.
struct LogEntry
{
    QDateTime time;
    int level = 0;
    QString function; // fully qualified, e.g. "Korvane::FFDemuxer::open"
    int line = 0;
    QString file; // source path, e.g. "KorvaneDec/FFDemuxer"
    const QObject* object = nullptr;
    QString text;
};

// The persistent log. Thread-safe.
//
// Each entry becomes one line, "time level function (file:line) text", in a
// file: the path given to setFilePath(), else "<KORVANE_LOG_DIR or the generic
// data location/Korvane/logs>/<application name or korvane>.log". The file is
// rotated when it passes rotateBytes(): the current file becomes ".1", older
// ones move up, and at most keptFiles() old files stay. The line also goes to
// standard error when the setting "kLog_Stderr" is true or the environment
// variable KORVANE_LOG_STDERR is "1". Sinks see every entry, after the file.
// A log file that cannot be opened is skipped silently: logging never fails.
class KORVANEBASE_EXPORT Logger
{
public:
    using Sink = std::function<void(const LogEntry&)>;

    explicit Logger(Settings* settings);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void write(const LogEntry& entry);

    // Sinks are called on the writing thread, outside the logger's lock, so a
    // sink may log. Returns an id for removeSink().
    int addSink(Sink sink);
    void removeSink(int id);

    QString filePath() const;
    void setFilePath(const QString& path);

    static constexpr qint64 rotateBytes() { return 4 * 1024 * 1024; }
    static constexpr int keptFiles() { return 3; }
    static QString formatLine(const LogEntry& entry);

private:
    bool stderrWanted() const;
    void appendToFile(const QByteArray& line);
    void rotate();

    Settings* mSettings;
    mutable QMutex mMutex;
    QString mFilePath;
    QFile mFile;
    QList<QPair<int, Sink>> mSinks;
    int mNextSinkId = 1;
};

} // namespace Korvane
