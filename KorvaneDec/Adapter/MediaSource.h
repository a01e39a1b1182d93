#pragma once

#include "KorvaneDec/Adapter/AdapterExport.h"

#include <QList>
#include <QSharedPointer>
#include <QString>

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Korvane {

// Facts of the video stream a clip plays, as the decoder delivers it.
struct VideoStreamFacts
{
    int streamIndex = -1;
    int width = 0;
    int height = 0;
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
    // As the ffmpeg program takes it: the container's when it states one,
    // else the bitstream's; 0/1 when unknown (square).
    AVRational sampleAspect{0, 1};
    AVRational timeBase{1, 1000};
    AVRational frameRate{0, 1};
    int rotation = 0; // display rotation, degrees clockwise: 0, 90, 180 or 270
    bool interlaced = false;
    // The colour the stream states; unspecified where it says nothing. A
    // full-range ("yuvj") pixel format counts as a stated full range.
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
};

// Facts of the audio stream a clip plays, as the decoder delivers it.
struct AudioStreamFacts
{
    int streamIndex = -1;
    int sampleRate = 0;
    AVSampleFormat sampleFormat = AV_SAMPLE_FMT_NONE;
    int channels = 0;
    quint64 channelMask = 0; // the layout as a mask; 0 for an unordered layout
    AVRational timeBase{1, 1000};
};

// One decoded frame. Its pts is counted from the start of the file (the
// container's start time removed) in the time base of its stream.
struct DecodedFrame
{
    bool isVideo = false;
    QSharedPointer<AVFrame> frame;
    double seconds = 0.0; // pts in seconds from the start of the file
    qint64 duration = 0;  // in the stream's time base: samples, or one frame period
};

// A media file opened for playing one video stream and/or one audio stream.
// Used by one thread at a time. Every FFmpeg object is owned here and freed
// with the source.
// Damaged data is skipped as the ffmpeg program skips it: a packet the
// decoder refuses, or a frame it cannot finish, is counted and left out, and
// a read error ends the file as its end would. When the source goes, it
// writes one log record per stream that had such packets, with their count.
class KORVANEADAPTER_EXPORT MediaSource
{
public:
    // Which audio stream plays: `audioChoice` names it by its stream index in
    // the file, or, when no stream of the file has that index or it is not an
    // audio stream, by its number among the audio streams; any other value
    // (e.g. -1) picks FFmpeg's best audio stream. Video is the first video
    // stream that is not an attached picture. With `wantVideo`/`wantAudio`
    // false that kind is neither decoded nor reported.
    // Null with `error` set when the file cannot be opened or a wanted
    // stream that exists cannot be decoded. A file that simply has no stream
    // of a wanted kind opens; hasVideo()/hasAudio() say what it has.
    static std::unique_ptr<MediaSource> open(const QString& path, bool wantVideo, bool wantAudio,
                                             int audioChoice, QString* error);
    ~MediaSource();
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;

    QString path() const { return mPath; }
    bool hasVideo() const { return mVideoDecoder != nullptr; }
    bool hasAudio() const { return mAudioDecoder != nullptr; }
    const VideoStreamFacts& video() const { return mVideo; }
    const AudioStreamFacts& audio() const { return mAudio; }
    // Container duration in milliseconds, 0 when unknown.
    qint64 durationMs() const;
    // The lengths the file announces, in milliseconds: its container's and
    // those of its audio and video streams, where known. Headers can be
    // wrong either way: a range that ends at one of them is taken to mean
    // "to the end of the file".
    QList<qint64> announcedLengthsMs() const;
    // The attached picture (cover) of the file, decoded; null when it has none.
    QSharedPointer<AVFrame> attachedPicture(QString* error) const;

    // Positions reading at or before `ms` (from the start of the file).
    bool seek(qint64 ms, QString* error);
    // The next decoded frame of the chosen streams. Returns false at the end
    // of the file (`error` empty), or with `error` set when the decoder runs
    // out of memory or, read from its start, a chosen stream ended without
    // a single frame. A frame without any timestamp gets the end of the one
    // before it.
    bool next(DecodedFrame* out, QString* error);

private:
    // What one chosen stream went through, for the damage report.
    struct StreamCounts
    {
        qint64 frames = 0;
        qint64 skipped = 0;
    };

    MediaSource() = default;
    bool receive(AVCodecContext* decoder, bool isVideo, DecodedFrame* out, QString* error);
    bool sendPacket(QString* error);
    void startDraining();
    // Sets `error` when, read from its start, a chosen stream gave nothing.
    void checkYield(QString* error) const;
    void logSkipped(const StreamCounts& counts, int streamIndex, const char* kind) const;

    QString mPath;
    QSharedPointer<AVFormatContext> mFormat;
    QSharedPointer<AVCodecContext> mVideoDecoder;
    QSharedPointer<AVCodecContext> mAudioDecoder;
    QSharedPointer<AVPacket> mPacket;
    bool mPacketPending = false; // refused with EAGAIN: sent again after a receive
    bool mSeeked = false;        // a stream may rightly yield nothing past a seek
    StreamCounts mVideoCounts;
    StreamCounts mAudioCounts;
    VideoStreamFacts mVideo;
    AudioStreamFacts mAudio;
    qint64 mStartUs = 0;
    // Where the next frame of each kind would start (stream time base, from
    // the start of the file): the time of a frame that has none.
    qint64 mNextVideoPts = 0;
    qint64 mNextAudioPts = 0;
    bool mDraining = false;
    bool mVideoDrained = false;
    bool mAudioDrained = false;
};

} // namespace Korvane
