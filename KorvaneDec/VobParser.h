#pragma once

#include "KorvaneDec/KorvaneDecExport.h"
#include "KorvaneDec/MediaDescription.h"

#include <QDateTime>
#include <QList>
#include <QMutex>
#include <QSharedPointer>
#include <QString>

namespace Korvane {

// The process-wide reader of DVD program-stream titles. Reading a title
// means reading every packet of the file, so titles are kept for the most
// recently asked paths (at most cacheSize()); a kept title is read again when
// its file's size or modification time has changed. Thread-safe.
class KORVANEDEC_EXPORT VobParser
{
public:
    static VobParser& instance();

    // The title of the file at `path`; null when the file does not open.
    QSharedPointer<const VobTitleInfo> title(const QString& path);

    // Reads the title of `path` without the cache; null when it does not open.
    static QSharedPointer<const VobTitleInfo> parse(const QString& path);

    static constexpr int cacheSize() { return 4; }
    int cachedCount() const;
    void clear();

private:
    VobParser() = default;

    struct Entry
    {
        QString path;
        qint64 size = 0;
        QDateTime modified;
        QSharedPointer<const VobTitleInfo> title;
    };

    mutable QMutex mMutex;
    QList<Entry> mEntries; // most recently used first
};

} // namespace Korvane
