#pragma once

#include "KorvaneDec/Adapter/AdapterExport.h"

#include <QByteArray>
#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/frame.h>
}

namespace Korvane {

// The first picture of an image file (PNG, JPEG, BMP, ...) decoded with
// libavcodec; null with `error` naming the file when it is missing or holds
// no decodable picture.
KORVANEADAPTER_EXPORT QSharedPointer<AVFrame> loadStillPicture(const QString& path, QString* error);

// An image file as it is stored, for muxing as a cover picture without
// re-encoding.
struct EncodedPicture
{
    AVCodecID codec = AV_CODEC_ID_NONE;
    int width = 0;
    int height = 0;
    QByteArray data;
};

// The file's first packet and what it is; codec AV_CODEC_ID_NONE with
// `error` set when the file cannot be read as a picture.
KORVANEADAPTER_EXPORT EncodedPicture readEncodedPicture(const QString& path, QString* error);

} // namespace Korvane
