// Opening, describing, seeking and reading every packet of a damaged file.
// The first byte picks the file suffix (and so the format tables and the
// demuxer class); the rest is the file. Files go through a real path because
// that is how every caller opens media.
#include "KorvaneDec/DemuxerFactory.h"
#include "KorvaneDec/FFDemuxer.h"
#include "KvAVGlue/FFmpegLog.h"

#include <QDir>
#include <QFile>
#include <QString>

#include <cstdint>
#include <unistd.h>

extern "C" {
#include <libavutil/log.h>
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const char* suffixes[] = {"mp4", "ts", "flv", "vob", "wmv", "mkv", "avi", "mpg"};
    if (size < 1) {
        return 0;
    }
    av_log_set_level(AV_LOG_QUIET);
    const QString path =
        QDir::tempPath() +
        QStringLiteral("/korvane-fuzz-%1.%2").arg(getpid()).arg(suffixes[data[0] % 8]);
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly)) {
            return 0;
        }
        file.write(reinterpret_cast<const char*>(data + 1), qint64(size - 1));
    }
    // The VOB demuxer for .vob, the plain one otherwise.
    const QSharedPointer<Korvane::FFDemuxer> demuxer =
        Korvane::createDemuxer(path, path.endsWith(QLatin1String(".vob")));
    if (demuxer->open(path)) {
        const QSharedPointer<Korvane::MediaDescription> description = demuxer->mediaInfo();
        demuxer->durationMs();
        if (description && !description->streams.isEmpty()) {
            demuxer->selectStream(description->streams.first()->streamIndex);
            demuxer->seek(500, description->streams.first()->streamIndex);
        }
        for (int packets = 0; packets < 2000 && demuxer->readPacket(); ++packets) {
        }
        demuxer->seekByFilePos(0);
        demuxer->readPacket();
        demuxer->close();
    }
    QFile::remove(path);
    return 0;
}
