#pragma once

#include "KorvaneDec/Adapter/AdapterExport.h"

#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/rational.h>
#include <libavutil/samplefmt.h>
}

struct SwrContext;

namespace Korvane {

// Brings one stream's decoded audio to one fixed sample rate, format and
// channel layout with swresample, and lays it on a continuous sample clock:
// an output frame's pts counts samples at the target rate (time base
// 1/rate) from the start of the file. Decoders and containers give
// timestamps that overlap, jump or restart where several frames share one
// packet time; downstream filters and encoders need them to advance by
// exactly the samples delivered. So the clock follows the samples, and only
// where the input's timestamps drift from it by more than
// kDriftLimitSeconds is it brought back: a gap is filled with silence, an
// overlap is dropped. The input may change its rate, format or layout
// midway; the clock goes on.
class KORVANEADAPTER_EXPORT AudioFrameConverter
{
public:
    // Below one AAC frame at 48 kHz: the sound stays within a frame of the
    // picture.
    static constexpr double kDriftLimitSeconds = 0.02;

    // `inputTimeBase` is that of the decoded frames' pts. The clock starts
    // at `startSeconds`: input before it is dropped, a first frame after it
    // is preceded by silence.
    AudioFrameConverter(int sampleRate, AVSampleFormat format, const AVChannelLayout& layout,
                        AVRational inputTimeBase, double startSeconds);
    ~AudioFrameConverter();
    AudioFrameConverter(const AudioFrameConverter&) = delete;
    AudioFrameConverter& operator=(const AudioFrameConverter&) = delete;

    // Null with `error` set when swresample fails; a frame with no samples is
    // possible (the resampler fills its delay line, or the frame was all
    // overlap). A frame without pts continues the clock.
    QSharedPointer<AVFrame> convert(const QSharedPointer<AVFrame>& frame, QString* error);
    // What the resampler still holds, at the end of the input (possibly no
    // samples). Null with `error` set on failure.
    QSharedPointer<AVFrame> flush(QString* error);
    // The pts the next sample will have: the end of what came out so far.
    int64_t nextPts() const { return mNextPts; }

private:
    bool configure(AVFrame& frame, QString* error);
    QSharedPointer<AVFrame> run(const AVFrame* frame, int inputSamples, QString* error);

    int mRate;
    AVSampleFormat mFormat;
    AVChannelLayout mLayout{};
    AVRational mInputTimeBase;
    int64_t mNextPts;
    // The input form the resampler was made for.
    int mInputRate = 0;
    int mInputFormat = -1;
    AVChannelLayout mInputLayout{};
    QSharedPointer<SwrContext> mContext;
};

} // namespace Korvane
