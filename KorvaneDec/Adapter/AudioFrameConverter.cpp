#include "KorvaneDec/Adapter/AudioFrameConverter.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <cmath>

extern "C" {
#include <libavutil/opt.h>
}

namespace Korvane {

AudioFrameConverter::AudioFrameConverter(int sampleRate, AVSampleFormat format,
                                         const AVChannelLayout& layout, AVRational inputTimeBase,
                                         double startSeconds)
    : mRate(sampleRate), mFormat(format), mInputTimeBase(inputTimeBase),
      mNextPts(std::llround(startSeconds * sampleRate))
{
    av_channel_layout_copy(&mLayout, &layout);
}

AudioFrameConverter::~AudioFrameConverter()
{
    av_channel_layout_uninit(&mLayout);
    av_channel_layout_uninit(&mInputLayout);
}

// A new input form gets a new resampler that starts where the clock stands;
// the few samples the old one still held are given up.
bool AudioFrameConverter::configure(AVFrame& frame, QString* error)
{
    if (mContext && frame.sample_rate == mInputRate && frame.format == mInputFormat &&
        av_channel_layout_compare(&frame.ch_layout, &mInputLayout) == 0) {
        return true;
    }
    mContext.reset();
    SwrContext* raw = nullptr;
    int ret = swr_alloc_set_opts2(&raw, &mLayout, mFormat, mRate, &frame.ch_layout,
                                  static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0,
                                  nullptr);
    mContext = makeSwrContextPtr(raw);
    if (ret >= 0 && frame.sample_rate <= 0) {
        ret = AVERROR(EINVAL);
    }
    // Hard compensation only: stretching the sound to meet drifting
    // timestamps would change its pitch.
    if (ret >= 0) {
        ret = av_opt_set_double(raw, "min_comp", kDriftLimitSeconds, 0);
    }
    if (ret >= 0) {
        ret = av_opt_set_double(raw, "min_hard_comp", kDriftLimitSeconds, 0);
    }
    if (ret >= 0) {
        // In input samples.
        ret = av_opt_set_int(raw, "first_pts", av_rescale(mNextPts, frame.sample_rate, mRate), 0);
    }
    if (ret >= 0) {
        ret = swr_init(raw);
    }
    if (ret >= 0) {
        ret = av_channel_layout_copy(&mInputLayout, &frame.ch_layout);
    }
    if (ret < 0) {
        *error = QStringLiteral("cannot convert the audio: %1").arg(ffErrorText(ret));
        mContext.reset();
        return false;
    }
    mInputRate = frame.sample_rate;
    mInputFormat = frame.format;
    return true;
}

QSharedPointer<AVFrame> AudioFrameConverter::run(const AVFrame* frame, int inputSamples,
                                                 QString* error)
{
    auto out = makeAVFramePtr();
    out->sample_rate = mRate;
    out->format = mFormat;
    int ret = av_channel_layout_copy(&out->ch_layout, &mLayout);
    const int capacity = ret < 0 ? ret : swr_get_out_samples(mContext.data(), inputSamples);
    ret = qMin(ret, capacity);
    out->nb_samples = qMax(0, capacity);
    if (ret >= 0 && out->nb_samples > 0) {
        ret = av_frame_get_buffer(out.data(), 0);
    }
    if (ret >= 0) {
        ret = swr_convert(mContext.data(), out->extended_data, out->nb_samples,
                          frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr,
                          inputSamples);
    }
    if (ret < 0) {
        *error = QStringLiteral("audio conversion failed: %1").arg(ffErrorText(ret));
        return {};
    }
    out->nb_samples = ret;
    out->pts = mNextPts;
    mNextPts += ret;
    return out;
}

QSharedPointer<AVFrame> AudioFrameConverter::convert(const QSharedPointer<AVFrame>& frame,
                                                     QString* error)
{
    if (!configure(*frame, error)) {
        return {};
    }
    if (frame->pts != AV_NOPTS_VALUE) {
        // swresample counts time in 1/(input rate * output rate) units; its
        // return value is its own clock, which nextPts() keeps already.
        const int64_t ticks = av_rescale(
            frame->pts, int64_t(mInputTimeBase.num) * mInputRate * mRate, mInputTimeBase.den);
        swr_next_pts(mContext.data(), ticks);
    }
    return run(frame.data(), frame->nb_samples, error);
}

QSharedPointer<AVFrame> AudioFrameConverter::flush(QString* error)
{
    if (!mContext) {
        auto empty = makeAVFramePtr();
        empty->pts = mNextPts;
        return empty;
    }
    return run(nullptr, 0, error);
}

} // namespace Korvane
