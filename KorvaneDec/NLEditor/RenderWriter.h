#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "KorvaneDec/NLEditor/AudioSampleQueue.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "KorvaneDec/NLEditor/RenderFilterGraphs.h"
#include "KorvaneDec/NLEditor/RenderPlan.h"

#include <QSharedPointer>
#include <QString>

#include <functional>
#include <memory>

class QSaveFile;

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Korvane {

// The encoding and muxing end of a render: opens the encoders and the output
// file (cover picture and container tags included), encodes what the graphs'
// sinks give, and finishes the file. The file is written beside the output
// and moved into place by close(); discard() drops it, so a failed or
// stopped render leaves whatever was at the output path untouched.
// Sound reaches its encoder through an AudioSampleQueue; sound that ends
// before the picture is filled with silence to the picture's end.
class RenderWriter
{
public:
    RenderWriter(const RenderPlan& plan, const AVTaskOutputParam& out);
    ~RenderWriter();
    RenderWriter(const RenderWriter&) = delete;
    RenderWriter& operator=(const RenderWriter&) = delete;

    // Creates the file and writes its header. False with `error` set.
    bool open(const ProjectDocument& doc, const RenderFilterGraphs& graphs, QString* error);

    // Encodes every frame the sinks have ready; at a sink's end flushes its
    // encoder. `progress` gets the timeline share written (0..1) after each
    // picture (each sound frame when there is no picture).
    bool drain(const std::function<void(double)>& progress, QString* error);

    // True once both sinks have ended and their encoders are flushed.
    bool finished() const { return mVideoDone && mAudioDone; }

    // Writes the trailer and moves the file into place.
    bool close(QString* error);
    // Drops a file that was started.
    void discard();

private:
    bool openOutputFile(QString* error);
    bool openVideo(AVFormatContext* format, QString* error);
    bool openAudio(AVFormatContext* format, QString* error);
    bool addCover(AVFormatContext* format, QString* error);
    bool writeCover(AVFormatContext* format, QString* error);
    bool encode(AVCodecContext* encoder, AVStream* stream, AVFrame* frame, QString* error);
    bool drainVideo(const std::function<void(double)>& progress, QString* error);
    bool drainAudio(const std::function<void(double)>& progress, QString* error);
    void reportProgress(double ms, const std::function<void(double)>& progress);
    // The end of the pictures written, in samples of the sound.
    int64_t videoEndInSamples() const;
    bool pullAudio(QString* error);
    // Encodes queued sound up to sample `end`; `last` lets a short final
    // frame go.
    bool writeAudio(int64_t end, bool last, const std::function<void(double)>& progress,
                    QString* error);
    bool finishAudio(const std::function<void(double)>& progress, QString* error);

    const RenderPlan& mPlan;
    AVTaskOutputParam mOut;
    AVFilterContext* mVideoSink = nullptr;
    AVFilterContext* mAudioSink = nullptr;
    // Declared before the format context, which uses them until it goes.
    std::unique_ptr<QSaveFile> mFile;
    QSharedPointer<AVIOContext> mIo;
    QSharedPointer<AVFormatContext> mOutput;
    QSharedPointer<AVCodecContext> mVideoEncoder;
    QSharedPointer<AVCodecContext> mAudioEncoder;
    QSharedPointer<AVFrame> mFrame;
    AVStream* mVideoStream = nullptr;
    AVStream* mAudioStream = nullptr;
    AVStream* mCoverStream = nullptr;
    AudioSampleQueue mAudioQueue;
    bool mAudioSinkEnded = false;
    int64_t mVideoEnd = 0;        // where the pictures written end (encoder time base)
    int64_t mVideoFrameTicks = 1; // one picture's length in that time base
    bool mCreated = false;
    bool mVideoDone = true;
    bool mAudioDone = true;
    double mWrittenMs = 0.0;
};

} // namespace Korvane
