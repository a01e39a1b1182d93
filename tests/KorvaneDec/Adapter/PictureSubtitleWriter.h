#pragma once

#include <QList>
#include <QRect>
#include <QSize>
#include <QString>

// Picture subtitles for tests: the ffmpeg program cannot turn text cues into
// pictures, so the tests encode their own with libavcodec.
namespace SubtitleTest {

// An opaque box of one colour (0xRRGGBB) shown from `startMs` to `endMs`.
struct BoxCue
{
    int startMs = 0;
    int endMs = 0;
    QRect box;
    quint32 rgb = 0xffffff;
};

// Writes a Matroska file whose only stream is a picture subtitle stream of
// `plane` size holding the cues, encoded with `codec` ("dvdsub", "dvbsub").
// False with `error` set on failure.
bool writePictureSubtitles(const QString& path, const QSize& plane, const QList<BoxCue>& cues,
                           QString* error, const char* codec = "dvdsub");

} // namespace SubtitleTest
