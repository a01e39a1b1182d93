#include "KorvaneDec/VobParser.h"

#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneDec/VobTitleBuilder.h"

#include <QFileInfo>
#include <QMutexLocker>

namespace Korvane {

VobParser& VobParser::instance()
{
    static VobParser parser;
    return parser;
}

QSharedPointer<const VobTitleInfo> VobParser::parse(const QString& path)
{
    FFDemuxer demuxer;
    if (!demuxer.open(path)) {
        return {};
    }
    const QSharedPointer<MediaDescription> description = demuxer.mediaInfo();
    VobTitleBuilder builder;
    while (const QSharedPointer<AVPacket> packet = demuxer.readPacket()) {
        const int index = packet->stream_index;
        const qint32 type = index >= 0 && index < description->streams.size()
                                ? description->streams[index]->mediaType
                                : static_cast<qint32>(AVMEDIA_TYPE_UNKNOWN);
        builder.addPacket(index, type, packet->pos, packet->pts, packet->dts, packet->duration);
    }
    return QSharedPointer<const VobTitleInfo>::create(builder.finish());
}

QSharedPointer<const VobTitleInfo> VobParser::title(const QString& path)
{
    const QFileInfo file(path);
    const qint64 size = file.size();
    const QDateTime modified = file.lastModified();
    {
        QMutexLocker lock(&mMutex);
        for (int i = 0; i < mEntries.size(); ++i) {
            if (mEntries[i].path != path) {
                continue;
            }
            if (mEntries[i].size == size && mEntries[i].modified == modified) {
                mEntries.move(i, 0);
                return mEntries.first().title;
            }
            mEntries.removeAt(i);
            break;
        }
    }
    // Read outside the lock: a long file must not hold up other titles.
    const QSharedPointer<const VobTitleInfo> title = parse(path);
    if (!title) {
        return {};
    }
    QMutexLocker lock(&mMutex);
    mEntries.removeIf([&path](const Entry& entry) { return entry.path == path; });
    mEntries.prepend(Entry{path, size, modified, title});
    while (mEntries.size() > cacheSize()) {
        mEntries.removeLast();
    }
    return title;
}

int VobParser::cachedCount() const
{
    QMutexLocker lock(&mMutex);
    return mEntries.size();
}

void VobParser::clear()
{
    QMutexLocker lock(&mMutex);
    mEntries.clear();
}

} // namespace Korvane
