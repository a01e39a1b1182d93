#pragma once

#include "KorvaneDec/KorvaneDecExport.h"

#include <QList>
#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavutil/rational.h>
}

namespace Korvane {

// The probed facts of one video stream. Times in milliseconds.
struct VideoStreamInfo
{
    qint32 streamIndex = 0;
    qint32 reserved = -1;
    qint32 codecId = 0; // AVCodecID
    AVRational timeBase{0, 0};
    quint32 codecTag = 0;
    qint32 pixelFormat = -1; // AVPixelFormat
    qint32 width = 0;        // coded size
    qint32 height = 0;
    qint32 frameRateNum = 25; // chosen rate, see videoStreamInfo()
    qint32 frameRateDen = 1;
    qint64 durationMs = 0; // 0 when the stream does not know it
    qint64 bitRate = 0;
    qint32 sarNum = 1; // sample aspect ratio as stored; 0/1 when unknown
    qint32 sarDen = 1;
    qint32 rotation = 0;     // degrees clockwise: 0, 90, 180 or 270
    quint8 stillPicture = 0; // attached picture, or an ASF stream of at most 3 packets
};

struct AudioStreamInfo
{
    qint32 streamIndex = 0;
    qint32 reserved = -1;
    qint32 codecId = 0; // AVCodecID
    AVRational timeBase{0, 0};
    qint32 sampleFormat = -1; // AVSampleFormat
    qint32 channels = 0;
    qint32 sampleRate = 0;
    qint64 durationMs = 0;
    qint64 bitRate = 0;
    quint64 channelLayout = 0; // channel mask; 0 when the layout is not a native one
    quint32 codecTag = 0;
};

struct SubtitleStreamInfo
{
    qint32 streamIndex = 0;
    qint32 isText = 0; // 1 for text subtitles (SubRip, ASS...), 0 for bitmaps
};

// One row per stream of any type.
struct StreamInfo
{
    qint32 streamIndex = 0;
    qint32 mediaType = -1; // AVMediaType
    qint32 codecId = 0;    // AVCodecID
    AVRational timeBase{0, 0};
};

// The probed description of an opened input. All times in milliseconds.
struct MediaDescription
{
    qint64 durationMs = 0;  // (duration + 5000) / 1000, see containerDurationMs()
    qint64 startTimeMs = 0; // start_time / 1000
    qint64 bitRate = 0;
    QString formatName; // the input format's long name
    QList<QSharedPointer<VideoStreamInfo>> videoStreams;
    QList<QSharedPointer<AudioStreamInfo>> audioStreams;
    QList<QSharedPointer<SubtitleStreamInfo>> subtitleStreams;
    QList<QSharedPointer<StreamInfo>> streams; // every stream, in stream order
};

// One row of the chapter table of a DVD program stream: a run of packets of
// one stream whose timestamps rise. Positions are byte offsets in the file;
// timestamps are in the stream's time base. "title" values place the chapter
// on the continuous time line of the whole title, "file" values are the
// stream's own, which jump back where a new chapter begins.
struct VobChapter
{
    qint32 streamIndex = 0;
    qint32 mediaType = 0; // 0 video, 1 audio
    qint64 headPosInFile = 0;
    qint64 tailPosInFile = 0;
    qint64 titleStartPts = 0;
    qint64 titleStartDts = 0;
    qint64 firstPtsInFile = 0;
    qint64 firstDtsInFile = 0;
    qint64 lastPtsInFile = 0;
    qint64 lastDtsInFile = 0;
    quint8 ptsFromDts = 0; // the chapter's first packet had no pts
};

struct VobTitleInfo
{
    QList<VobChapter> chapters;
    quint8 audioDtsFromPts = 0; // audio packets take their pts as dts
};

} // namespace Korvane
