#pragma once

#include <QString>

// Media for the probing tests, generated on first use into the build tree
// (see TestMedia::generate): the absolute path, or empty when ffmpeg could
// not make the file. Clips are 320x240 at 25 fps with a 44.1 kHz mono tone.
namespace ProbeMedia {

// H.264 or HEVC with AAC (MP3 in AVI), 2 s, in the container `suffix` names.
QString h264(const QString& suffix);
QString hevc(const QString& suffix);
QString rotatedH264(int degrees);     // 1 s, a counter-clockwise display matrix
QString anamorphicH264();             // a sample aspect ratio of 64:45
QString tenBit(const QString& codec); // "h264" or "hevc", in MP4
// Two runs of `seconds` of MPEG-2 and MP2 in a program stream (.vob), the
// timestamps starting again at the second.
QString concatenatedVob(int seconds);
// A program stream behind 1.2 MB of zero bytes, more than probing looks at.
QString hiddenProgramStream(const QString& suffix);
QString truncatedMp4(); // the first half: the moov box at the end is lost
QString emptyFile();
QString randomBytes(const QString& suffix);
// Copies `source` to `target` (relative to the media folder) unless present.
QString copyAs(const QString& source, const QString& target);

} // namespace ProbeMedia
