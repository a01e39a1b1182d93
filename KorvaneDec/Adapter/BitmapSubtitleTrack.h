#pragma once

#include "KorvaneDec/Adapter/AdapterExport.h"

#include <QList>
#include <QSharedPointer>
#include <QSize>
#include <QString>

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Korvane {

// The times of one decoded picture-subtitle cue, in milliseconds from the
// start of its file. `endMs` below 0: the cue stays until the next one. An
// `empty` cue shows nothing: formats such as PGS end a cue with one.
struct SubtitleCueTimes
{
    double startMs = 0.0;
    double endMs = -1.0;
    bool empty = false;
};

// A moment at which the shown subtitle picture changes: from `ms` on, the
// cue's picture (`showsCue`) or nothing.
struct SubtitleChangeTime
{
    double ms = 0.0;
    bool showsCue = false;

    bool operator==(const SubtitleChangeTime& o) const
    {
        return ms == o.ms && showsCue == o.showsCue;
    }
};

// The changes `current` makes before `next` (null: the last cue) starts, in
// time order: nothing when the next cue starts no later (it replaces this one
// at once); else its picture (or nothing, for an empty cue) at its start, and
// nothing from its end when that comes before the next cue.
KORVANEADAPTER_EXPORT QList<SubtitleChangeTime> cueChanges(const SubtitleCueTimes& current,
                                                           const SubtitleCueTimes* next);

// One change of a track as a picture: `picture` is RGBA (straight alpha) of
// the track's plane size, fully transparent when nothing is shown.
struct SubtitleChange
{
    qint64 ms = 0; // on the timeline
    QSharedPointer<AVFrame> picture;
    bool showsCue = false; // false: `picture` is the transparent one
};

// A picture-based subtitle stream (DVD, PGS, DVB) read from its own opening
// of the file, one cue ahead, so that a two-hour film never holds more than
// two cue pictures. Used by one thread at a time; every FFmpeg object is
// owned here.
class KORVANEADAPTER_EXPORT BitmapSubtitleTrack
{
public:
    // Opens stream `streamIndex` of `path`, which must be a picture-based
    // subtitle stream. The plane (the picture the cue positions refer to) is
    // the stream's own size when it states one of at most 8192 pixels a
    // side, else `fallbackPlane` (the video's size). A cue at file time f is
    // shown on the timeline at (f + offsetMs) / speed, as text subtitles are;
    // times before the timeline's start count as its start. Null with
    // `error` set on failure.
    static std::unique_ptr<BitmapSubtitleTrack> open(const QString& path, int streamIndex,
                                                     const QSize& fallbackPlane, qint64 offsetMs,
                                                     double speed, QString* error);
    ~BitmapSubtitleTrack();
    BitmapSubtitleTrack(const BitmapSubtitleTrack&) = delete;
    BitmapSubtitleTrack& operator=(const BitmapSubtitleTrack&) = delete;

    QSize planeSize() const { return mPlane; }
    // The fully transparent picture of the plane's size.
    QSharedPointer<AVFrame> clearPicture() const { return mClear; }

    // The next change, with timeline times strictly increasing (changes that
    // fall on the same millisecond collapse into the last of them). Returns
    // false at the end of the stream (`error` empty) or on a read failure
    // (`error` set). Packets the decoder rejects are skipped: one damaged cue
    // must not stop a film.
    bool next(SubtitleChange* change, QString* error);

private:
    struct Cue
    {
        SubtitleCueTimes times;
        QSharedPointer<AVFrame> picture;
    };

    BitmapSubtitleTrack() = default;
    // Decodes the next cue of the stream; false at its end or on failure.
    bool readCue(Cue* cue, QString* error);
    QSharedPointer<AVFrame> paint(const AVSubtitle& subtitle) const;
    // Turns the next cue into timeline changes; false when none are left.
    bool produce(QString* error);

    QString mPath;
    QSharedPointer<AVFormatContext> mFormat;
    QSharedPointer<AVCodecContext> mDecoder;
    QSharedPointer<AVPacket> mPacket;
    int mStream = -1;
    QSize mPlane;
    qint64 mStartUs = 0;
    qint64 mOffsetMs = 0;
    double mSpeed = 1.0;

    bool mHaveCurrent = false;
    bool mEnded = false;
    Cue mCurrent;
    QList<SubtitleChange> mPending;
    qint64 mLastMs = -1;
    QSharedPointer<AVFrame> mClear;
};

} // namespace Korvane
