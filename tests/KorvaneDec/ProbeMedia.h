#pragma once

#include <QString>
#include <QStringList>

// Media for the probing tests, generated on first use into the build tree
// (see TestMedia::generate). Each function returns the absolute path, or an
// empty string when ffmpeg could not make the file.
namespace ProbeMedia {

// H.264 320x240 at 25 fps with AAC 44.1 kHz mono, 2 s, in the container that
// `suffix` names (mp4, mkv, mov, avi, flv, ts, m4v).
QString h264(const QString& suffix);
// HEVC 320x240 at 25 fps with AAC, 2 s.
QString hevc(const QString& suffix);
// H.264 tagged with rotate=`degrees`. ffmpeg 5.1 turns the tag into a
// display matrix of `degrees` counter-clockwise, which is (360 - degrees)
// clockwise: check with displayMatrixAngle().
QString rotatedH264(int degrees);
// H.264 with a sample aspect ratio of 64:45.
QString anamorphicH264();
// 10-bit H.264 or HEVC ("h264" / "hevc") in MP4.
QString tenBit(const QString& codec);
// MP3 of 2 s, audio only.
QString toneMp3();
// MP3 with a PNG cover as an attached picture.
QString mp3WithCover();
// ASF with WMV2 video of `frames` frames and 3 s of WMA audio.
QString wmv(int frames);
// The same two-frame video in MP4.
QString twoFrameMp4();
// MPEG program stream, MPEG-2 video and MP2 audio, two runs of `seconds`
// each whose timestamps start again at the second run, with a .vob suffix.
QString concatenatedVob(int seconds);
// A program stream behind 1.2 MB of zero bytes, more than probing looks at,
// named with `suffix`.
QString hiddenProgramStream(const QString& suffix);
// The angle of the first video stream's display matrix as ffprobe prints it
// (counter-clockwise degrees); 0 when it has none.
double displayMatrixAngle(const QString& path);
// An MP4 cut to its first half: the moov box at the end is lost.
QString truncatedMp4();
QString emptyFile();
QString randomBytes(const QString& suffix);
// A copy of the H.264 MP4 under a name with spaces and non-ASCII letters.
QString unusualName();
// A 1080p H.264 MP4 of `seconds` seconds with audio.
QString fullHd(int seconds);

// Copies `source` to `target` (relative to the media folder) unless present.
QString copyAs(const QString& source, const QString& target);

} // namespace ProbeMedia
