#include "KorvaneDec/Adapter/VideoFrameConverter.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace Korvane {

VideoFrameConverter::VideoFrameConverter(int width, int height, AVPixelFormat format)
    : mWidth(width), mHeight(height), mFormat(format)
{}

QSharedPointer<AVFrame> VideoFrameConverter::convert(const QSharedPointer<AVFrame>& frame,
                                                     QString* error)
{
    if (frame->width == mWidth && frame->height == mHeight && frame->format == mFormat) {
        return frame;
    }
    if (!mContext || frame->width != mSourceWidth || frame->height != mSourceHeight ||
        frame->format != mSourceFormat) {
        mContext = makeSwsContextPtr(
            sws_getContext(frame->width, frame->height, static_cast<AVPixelFormat>(frame->format),
                           mWidth, mHeight, mFormat, SWS_BICUBIC, nullptr, nullptr, nullptr));
        if (!mContext) {
            *error = QStringLiteral("cannot convert %1x%2 %3 pictures to %4x%5 %6")
                         .arg(frame->width)
                         .arg(frame->height)
                         .arg(QString::fromLatin1(
                             av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame->format))))
                         .arg(mWidth)
                         .arg(mHeight)
                         .arg(QString::fromLatin1(av_get_pix_fmt_name(mFormat)));
            return {};
        }
        mSourceWidth = frame->width;
        mSourceHeight = frame->height;
        mSourceFormat = frame->format;
    }
    auto out = makeAVFramePtr();
    out->width = mWidth;
    out->height = mHeight;
    out->format = mFormat;
    int ret = av_frame_get_buffer(out.data(), 0);
    if (ret >= 0) {
        ret = av_frame_copy_props(out.data(), frame.data());
    }
    if (ret >= 0) {
        ret = sws_scale(mContext.data(), frame->data, frame->linesize, 0, frame->height, out->data,
                        out->linesize);
    }
    if (ret < 0) {
        *error = QStringLiteral("picture conversion failed: %1").arg(ffErrorText(ret));
        return {};
    }
    return out;
}

} // namespace Korvane
