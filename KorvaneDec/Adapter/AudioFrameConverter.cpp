#include "Adapter/AudioFrameConverter.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

namespace Korvane {

AudioFrameConverter::AudioFrameConverter(int sampleRate, AVSampleFormat format,
                                         const AVChannelLayout& layout)
    : mRate(sampleRate), mFormat(format)
{
    av_channel_layout_copy(&mLayout, &layout);
}

AudioFrameConverter::~AudioFrameConverter()
{
    av_channel_layout_uninit(&mLayout);
}

QSharedPointer<AVFrame> AudioFrameConverter::convert(const QSharedPointer<AVFrame>& frame,
                                                     QString* error)
{
    if (frame->sample_rate == mRate && frame->format == mFormat &&
        av_channel_layout_compare(&frame->ch_layout, &mLayout) == 0) {
        return frame;
    }
    if (!mContext) {
        SwrContext* raw = nullptr;
        int ret = swr_alloc_set_opts2(&raw, &mLayout, mFormat, mRate, &frame->ch_layout,
                                      static_cast<AVSampleFormat>(frame->format),
                                      frame->sample_rate, 0, nullptr);
        mContext = makeSwrContextPtr(raw);
        if (ret >= 0) {
            ret = swr_init(mContext.data());
        }
        if (ret < 0) {
            *error = QStringLiteral("cannot convert the audio: %1").arg(ffErrorText(ret));
            mContext.reset();
            return {};
        }
    }
    auto out = makeAVFramePtr();
    out->sample_rate = mRate;
    out->format = mFormat;
    int ret = av_channel_layout_copy(&out->ch_layout, &mLayout);
    out->nb_samples = swr_get_out_samples(mContext.data(), frame->nb_samples);
    if (ret >= 0 && out->nb_samples > 0) {
        ret = av_frame_get_buffer(out.data(), 0);
    }
    if (ret >= 0) {
        ret = swr_convert(mContext.data(), out->data, out->nb_samples,
                          const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
    }
    if (ret < 0) {
        *error = QStringLiteral("audio conversion failed: %1").arg(ffErrorText(ret));
        return {};
    }
    out->nb_samples = ret;
    out->pts = frame->pts;
    return out;
}

} // namespace Korvane
