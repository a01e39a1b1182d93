#pragma once

#include "KorvaneBase/Logger.h"

#include <QList>
#include <QMutex>
#include <QString>

// Collects every log record written while it lives.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QList<Korvane::LogEntry> entries() const;
    // True when some record's text contains `text`.
    bool contains(const QString& text) const;
    // Records whose text contains `text`.
    int count(const QString& text) const;

private:
    mutable QMutex mMutex;
    QList<Korvane::LogEntry> mEntries;
    int mSinkId;
};
