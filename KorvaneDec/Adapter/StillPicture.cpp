#include "KorvaneDec/Adapter/StillPicture.h"

#include "KorvaneDec/Adapter/MediaSource.h"
#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QFileInfo>

namespace Korvane {

QSharedPointer<AVFrame> loadStillPicture(const QString& path, QString* error)
{
    if (!QFileInfo(path).isFile()) {
        *error = QStringLiteral("picture file not found: \"%1\"").arg(path);
        return {};
    }
    auto source = MediaSource::open(path, true, false, -1, error);
    if (!source) {
        return {};
    }
    if (!source->hasVideo()) {
        *error = QStringLiteral("\"%1\" holds no picture").arg(path);
        return {};
    }
    DecodedFrame decoded;
    if (!source->next(&decoded, error)) {
        if (error->isEmpty()) {
            *error = QStringLiteral("\"%1\" holds no decodable picture").arg(path);
        }
        return {};
    }
    return decoded.frame;
}

EncodedPicture readEncodedPicture(const QString& path, QString* error)
{
    EncodedPicture picture;
    AVFormatContext* raw = nullptr;
    int ret = avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr);
    if (ret < 0) {
        *error = QStringLiteral("cannot open the picture \"%1\": %2").arg(path, ffErrorText(ret));
        return picture;
    }
    auto format = makeAVFormatContextPtr(raw);
    ret = avformat_find_stream_info(raw, nullptr);
    if (ret < 0 || raw->nb_streams < 1 ||
        raw->streams[0]->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
        *error = QStringLiteral("\"%1\" is not a picture").arg(path);
        return picture;
    }
    auto packet = makeAVPacketPtr();
    ret = av_read_frame(raw, packet.data());
    if (ret < 0) {
        *error = QStringLiteral("cannot read the picture \"%1\": %2").arg(path, ffErrorText(ret));
        return picture;
    }
    const AVCodecParameters* parameters = raw->streams[0]->codecpar;
    picture.codec = parameters->codec_id;
    picture.width = parameters->width;
    picture.height = parameters->height;
    picture.data = QByteArray(reinterpret_cast<const char*>(packet->data), packet->size);
    return picture;
}

} // namespace Korvane
