#pragma once

#include "KorvaneDec/KorvaneDecExport.h"
#include "KorvaneDec/MediaDescription.h"

#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavformat/avformat.h>
}

// Turning an opened input into its MediaDescription. All times given out are
// milliseconds.
namespace Korvane {

// The description of an opened input; null when `context` is null.
// With `checkFewPackets`, the first video stream of an ASF-family input is
// marked as a still picture when isFewPacketVideo() says so, which reopens
// `filePath` (one extra open for those inputs, none for others). Without it
// the still-picture flag is the attached-picture disposition alone.
KORVANEDEC_EXPORT QSharedPointer<MediaDescription>
describeMedia(AVFormatContext* context, const QString& filePath, bool checkFewPackets = true);

KORVANEDEC_EXPORT QSharedPointer<VideoStreamInfo>
videoStreamInfo(const AVStream* stream, AVFormatContext* context, int index);
KORVANEDEC_EXPORT QSharedPointer<AudioStreamInfo> audioStreamInfo(const AVStream* stream,
                                                                  int index);
KORVANEDEC_EXPORT QSharedPointer<StreamInfo> streamInfo(const AVStream* stream, int index);

// Whether stream `streamIndex` of the ASF-family file at `path` has at most 3
// packets (a still picture). False for other formats and when the file does
// not open. Opens the file once more and reads at most 4 packets of the stream.
KORVANEDEC_EXPORT bool isFewPacketVideo(const QString& path, int streamIndex);

// True for the short names of ASF-family input formats ("asf", "wmv", "wma").
KORVANEDEC_EXPORT bool isAsfFamily(const QString& formatShortName);

// Container duration in ms from AVFormatContext::duration (microseconds):
// (duration + 5000) / 1000, the 5000 added only where it cannot overflow.
KORVANEDEC_EXPORT qint64 containerDurationMs(int64_t duration);

// Stream duration in ms: duration x time base x 1000, truncated; 0 for a
// time base with a zero denominator. A product beyond 64 bits (a stream with
// no duration, AV_NOPTS_VALUE) sticks at the type's limits.
KORVANEDEC_EXPORT qint64 streamDurationMs(int64_t duration, AVRational timeBase);

// The frame rate a video stream is given: the guessed rate when it is at most
// 120 fps, else the average rate below 121 fps, else the real rate below
// 120 fps; non-positive parts become 25 and 1, and rates above 1000 fps 25/1.
KORVANEDEC_EXPORT AVRational chooseFrameRate(AVRational guessed, AVRational average,
                                             AVRational real);

// Clockwise rotation in degrees (0, 90, 180, 270) from the counter-clockwise
// angle that av_display_rotation_get gives for a display matrix.
KORVANEDEC_EXPORT qint32 rotationFromDisplayAngle(double angle);

} // namespace Korvane
