#pragma once

#include "KorvaneBase/BasicObject.h"
#include "KorvaneDec/KorvaneDecExport.h"
#include "KorvaneDec/MediaDescription.h"

#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavformat/avformat.h>
}

class QFile;

namespace Korvane {

// One media file opened with libavformat: its streams, its duration, the
// real start of a chosen stream, and packets read from a time or byte
// position. Plain paths are opened by libavformat itself; resource paths
// (":/...") are read through a QFile with custom I/O.
//
// Used by one thread at a time. Failures are reported by the result of open()
// and by null packets, and logged to the persistent log.
class KORVANEDEC_EXPORT FFDemuxer : public BasicObject
{
    Q_OBJECT
public:
    FFDemuxer();
    ~FFDemuxer() override;

    // Opens `path`, replacing any input opened before. True when the input
    // is open and its stream information was read. A failed open leaves no
    // context (formatContext() is null).
    virtual bool open(const QString& path);
    // Releases the input.
    virtual void close();
    // Positions the input so that the next packet of `streamIndex` is at or
    // before `ms`, counted from the stream's start (startPts()). Nothing
    // happens without an input or with an index out of range.
    virtual void seek(qint64 ms, qint32 streamIndex);
    // The next packet of any stream; null at the end, on an error or without
    // an input.
    virtual QSharedPointer<AVPacket> readPacket();
    // Container duration in ms, 0 when unknown.
    virtual qint64 durationMs();

    // Positions the input at a byte offset.
    void seekByFilePos(qint64 pos);
    // Chooses the stream that time seeks refer to and measures its start
    // (startPts()). Always returns 1.
    qint32 selectStream(qint32 streamIndex);
    // Marks every stream but `streamIndex` as discarded.
    void discardOtherStreams(qint32 streamIndex);

    // The probed description of the opened input; null without an input.
    QSharedPointer<MediaDescription> mediaInfo() const;

    QSharedPointer<AVFormatContext> formatContext() const { return mFormatCtx; }
    // Start offset of the chosen stream in its time base.
    qint64 startPts() const { return mStartPts; }
    // The path of the last successful open().
    QString filePath() const { return mFilePath; }
    bool isEof() const { return mEof != 0; }
    bool isSeeking() const { return mSeeking != 0; }
    // The last target timestamp seek() gave libavformat, in the stream's time base.
    qint64 seekTarget() const { return mSeekTarget; }
    // Set by selectStream() for video in MPEG-TS, Matroska and AVI inputs.
    bool containerTimestampFix() const { return mContainerTimestampFix != 0; }

    // Custom I/O callbacks for resource paths; `opaque` is the QFile (or
    // null). Reading answers -1 at the end and on errors; seeking answers the
    // new position, or -1 for an unknown whence (AVSEEK_SIZE included) and
    // on failure.
    static int readQrcFile(void* opaque, uint8_t* buffer, int size);
    static int64_t seekQrcFile(void* opaque, int64_t offset, int whence);

    // Whether a failed stream analysis is forgiven: a WMV3 stream that is the
    // best video stream but not stream 0.
    static bool toleratesStreamInfoFailure(int bestVideoIndex, int codecId);
    // The input format named for a lower-case suffix on the first try
    // ("flv", "ts") and after an invalid-data result ("vob"); empty for others.
    static QString firstTryFormat(const QString& suffix);
    static QString invalidDataFormat(const QString& suffix);

private:
    bool openResource(const QString& path);
    int openFile(const QString& path, AVFormatContext** context);
    bool finishOpen(const QString& path, int result);
    QSharedPointer<AVPacket> readFirstPacket(qint32 streamIndex);

    QSharedPointer<AVFormatContext> mFormatCtx;
    QFile* mQrcFile = nullptr;
    QString mFilePath;
    qint32 mStreamIndex = -1;
    qint32 mSeeking = 0;
    qint64 mSeekTarget = 0;
    qint64 mStartPts = 0;
    qint32 mContainerTimestampFix = 0;
    QSharedPointer<AVPacket> mPendingPacket;
    qint32 mEof = 0;
    // Owns the custom I/O of a resource path; released after mFormatCtx.
    QSharedPointer<AVIOContext> mIOCtx;
};

} // namespace Korvane
