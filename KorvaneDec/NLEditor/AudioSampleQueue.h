#pragma once

#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
}

namespace Korvane {

// The sound's way from the graph's sink to its encoder: a sample FIFO cut
// into the encoder's frames (any size when the encoder takes any). The pts
// of a frame taken is the count of samples taken before it, in 1/rate:
// whatever timestamps the graph gave, the encoder sees them only go forward.
class AudioSampleQueue
{
public:
    // For frames of `encoder`'s form (an opened encoder). False with `error`
    // set when out of memory.
    bool open(const AVCodecContext* encoder, QString* error);

    // Queues a frame's samples (of the encoder's form).
    bool push(const AVFrame* frame, QString* error);
    // Queues `samples` of silence.
    bool pushSilence(int samples, QString* error);

    // The next frame for the encoder, ending no later than sample `end`.
    // Null with `error` empty while less than a whole frame is queued, unless
    // `last` (the short rest then goes, filled with silence where the
    // encoder wants whole frames); null with `error` set on failure.
    QSharedPointer<AVFrame> take(int64_t end, bool last, QString* error);

    // Samples taken so far: the pts of the next frame.
    int64_t taken() const { return mTaken; }
    // Samples taken plus samples queued.
    int64_t held() const;

private:
    QSharedPointer<AVFrame> blankFrame(int samples, QString* error) const;

    const AVCodecContext* mEncoder = nullptr;
    QSharedPointer<AVAudioFifo> mFifo;
    int mFrameSize = 0; // 0: any size
    bool mShortLastFrame = true;
    int64_t mTaken = 0;
};

} // namespace Korvane
