#pragma once

#include "Adapter/AdapterExport.h"

#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

struct SwrContext;

namespace Korvane {

// Brings audio frames to one fixed sample format, rate and channel layout
// with swresample. Frames already in that form pass through untouched.
// A converted frame keeps the input's pts (in the stream's time base).
class KORVANEADAPTER_EXPORT AudioFrameConverter
{
public:
    AudioFrameConverter(int sampleRate, AVSampleFormat format, const AVChannelLayout& layout);
    ~AudioFrameConverter();
    AudioFrameConverter(const AudioFrameConverter&) = delete;
    AudioFrameConverter& operator=(const AudioFrameConverter&) = delete;

    // Null with `error` set when swresample fails; a frame with no samples is
    // possible while the resampler fills its delay line.
    QSharedPointer<AVFrame> convert(const QSharedPointer<AVFrame>& frame, QString* error);

private:
    int mRate;
    AVSampleFormat mFormat;
    AVChannelLayout mLayout{};
    QSharedPointer<SwrContext> mContext;
};

} // namespace Korvane
