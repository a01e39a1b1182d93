#pragma once

#include "KorvaneDec/Adapter/AdapterExport.h"

#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

struct SwsContext;

namespace Korvane {

// Brings video frames to one fixed size and pixel format with swscale. A
// frame that already has them passes through untouched (no copy), so the
// converter costs nothing while a stream keeps the format it announced.
class KORVANEADAPTER_EXPORT VideoFrameConverter
{
public:
    VideoFrameConverter(int width, int height, AVPixelFormat format);
    // The frame in the target size and format, timestamps and flags copied;
    // null with `error` set when swscale cannot convert it.
    QSharedPointer<AVFrame> convert(const QSharedPointer<AVFrame>& frame, QString* error);

private:
    int mWidth;
    int mHeight;
    AVPixelFormat mFormat;
    QSharedPointer<SwsContext> mContext;
    int mSourceWidth = 0;
    int mSourceHeight = 0;
    int mSourceFormat = AV_PIX_FMT_NONE;
};

} // namespace Korvane
