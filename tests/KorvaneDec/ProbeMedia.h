#pragma once

#include <QString>

// Media for the probing tests, generated on first use into the build tree
// (see TestMedia::generate). Each function returns the absolute path, or an
// empty string when ffmpeg could not make the file.
namespace ProbeMedia {

// H.264 or HEVC 320x240 at 25 fps with AAC 44.1 kHz mono (MP3 in AVI), 2 s,
// in the container that `suffix` names (mp4, mkv, mov, avi, flv, ts, m4v).
QString h264(const QString& suffix);
QString hevc(const QString& suffix);
// H.264 tagged with rotate=`degrees`. ffmpeg 5.1 turns the tag into a
// display matrix of `degrees` counter-clockwise.
QString rotatedH264(int degrees);
// H.264 with a sample aspect ratio of 64:45.
QString anamorphicH264();
// 10-bit H.264 or HEVC ("h264" / "hevc") in MP4.
QString tenBit(const QString& codec);
// A 2 s MP3, without or with a PNG cover as an attached picture.
QString toneMp3();
QString mp3WithCover();
// ASF with WMV2 video of `frames` frames at 1 fps and 3 s of WMA audio.
QString wmv(int frames);
// The same two-frame video in MP4.
QString twoFrameMp4();
// MPEG program stream, MPEG-2 video and MP2 audio, two runs of `seconds`
// each whose timestamps start again at the second run, with a .vob suffix.
QString concatenatedVob(int seconds);
// A program stream behind 1.2 MB of zero bytes, more than probing looks at.
QString hiddenProgramStream(const QString& suffix);
// An MP4 cut to its first half: the moov box at the end is lost.
QString truncatedMp4();
QString emptyFile();
QString randomBytes(const QString& suffix);
// A copy of the H.264 MP4 under a name with spaces and non-ASCII letters.
QString unusualName();

// Copies `source` to `target` (relative to the media folder) unless present.
QString copyAs(const QString& source, const QString& target);

} // namespace ProbeMedia
