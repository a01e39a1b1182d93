#include "KorvaneDec/NLEditor/AudioSampleQueue.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

namespace Korvane {

bool AudioSampleQueue::open(const AVCodecContext* encoder, QString* error)
{
    mEncoder = encoder;
    const bool fixedFrames = !(encoder->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) &&
                             encoder->frame_size > 0;
    mFrameSize = fixedFrames ? encoder->frame_size : 0;
    mShortLastFrame =
        !fixedFrames || (encoder->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME);
    mFifo = makeAVAudioFifoPtr(encoder->sample_fmt, encoder->ch_layout.nb_channels,
                               qMax(mFrameSize, encoder->sample_rate / 10));
    if (!mFifo) {
        *error = QStringLiteral("out of memory for the sound queue");
        return false;
    }
    return true;
}

int64_t AudioSampleQueue::held() const
{
    return mTaken + av_audio_fifo_size(mFifo.data());
}

bool AudioSampleQueue::push(const AVFrame* frame, QString* error)
{
    const int ret = av_audio_fifo_write(
        mFifo.data(), reinterpret_cast<void**>(frame->extended_data), frame->nb_samples);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot queue the sound"), ret);
        return false;
    }
    return true;
}

bool AudioSampleQueue::pushSilence(int samples, QString* error)
{
    const QSharedPointer<AVFrame> silence = blankFrame(samples, error);
    return silence && push(silence.data(), error);
}

// A silent frame of the encoder's form.
QSharedPointer<AVFrame> AudioSampleQueue::blankFrame(int samples, QString* error) const
{
    auto frame = makeAVFramePtr();
    frame->nb_samples = samples;
    frame->format = mEncoder->sample_fmt;
    frame->sample_rate = mEncoder->sample_rate;
    int ret = av_channel_layout_copy(&frame->ch_layout, &mEncoder->ch_layout);
    if (ret >= 0) {
        ret = av_frame_get_buffer(frame.data(), 0);
    }
    if (ret >= 0) {
        ret = av_samples_set_silence(frame->extended_data, 0, samples,
                                     mEncoder->ch_layout.nb_channels, mEncoder->sample_fmt);
    }
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot make a sound frame"), ret);
        return {};
    }
    return frame;
}

QSharedPointer<AVFrame> AudioSampleQueue::take(int64_t end, bool last, QString* error)
{
    error->clear();
    int64_t count = qMin<int64_t>(av_audio_fifo_size(mFifo.data()), end - mTaken);
    if (mFrameSize > 0) {
        count = qMin<int64_t>(count, mFrameSize);
    }
    if (count <= 0 || (mFrameSize > 0 && count < mFrameSize && !last)) {
        return {};
    }
    QSharedPointer<AVFrame> frame =
        blankFrame(mShortLastFrame ? static_cast<int>(count) : mFrameSize, error);
    if (!frame) {
        return {};
    }
    const int ret = av_audio_fifo_read(mFifo.data(), reinterpret_cast<void**>(frame->extended_data),
                                       static_cast<int>(count));
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot take the sound from its queue"), ret);
        return {};
    }
    frame->pts = mTaken;
    mTaken += frame->nb_samples;
    return frame;
}

} // namespace Korvane
