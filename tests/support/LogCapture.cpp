#include "LogCapture.h"

#include "KorvaneBase/KorvaneBase.h"

LogCapture::LogCapture()
{
    mSinkId = Korvane::KorvaneBaseEntry()->logger().addSink([this](const Korvane::LogEntry& e) {
        QMutexLocker lock(&mMutex);
        mEntries.append(e);
    });
}

LogCapture::~LogCapture()
{
    Korvane::KorvaneBaseEntry()->logger().removeSink(mSinkId);
}

QList<Korvane::LogEntry> LogCapture::entries() const
{
    QMutexLocker lock(&mMutex);
    return mEntries;
}

bool LogCapture::contains(const QString& text) const
{
    return count(text) > 0;
}

int LogCapture::count(const QString& text) const
{
    QMutexLocker lock(&mMutex);
    int n = 0;
    for (const Korvane::LogEntry& e : mEntries) {
        if (e.text.contains(text)) {
            ++n;
        }
    }
    return n;
}
