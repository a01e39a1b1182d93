#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/RecordsExport.h"

#include <QString>

// Output rules shared by the ffmpeg command line and the render engine, so
// that both paths produce the same container and quality for one job.
namespace Korvane {

// The muxer name for a container or preset name (compared in lower case);
// empty for a name that is not known. Some values are the host's preset
// names rather than FFmpeg muxers, kept as they are.
KORVANERECORDS_EXPORT QString muxerName(const QString& format);

// The constant-quality ("-crf") value used when no video bit rate is given:
// 23 for h264 (else 28), lowered by up to 10 for output diagonals below the
// reference (2800 above a 2000-pixel diagonal, else 2000); never below 1.
KORVANERECORDS_EXPORT int crfQuality(const QString& videoCodecName, qint32 width, qint32 height);

// Names from a job reach ffmpeg's argument list and the FFmpeg libraries, so
// each must be a plain name: "format", "video.codecName" and
// "audio.codecName" lower-cased match [a-z0-9_]+ (empty is allowed, and
// every name the muxer table and the encoder choice know has that form);
// "video.frameRate" is a finite number; the bit rates are at most
// 100000000 kbps (twice the video rate still fits); "outputPath" does not start with
// "-", where ffmpeg would read it as an option. Returns a sentence naming
// the first field that breaks its rule ("audio.codecName \"aac -map 0\" is
// not a plain name"), empty when all hold.
KORVANERECORDS_EXPORT QString invalidOutputField(const AVTaskOutputParam& output);

// True exactly for "YouTube", "Instagram", "TikTok", "Facebook", "Likee", "Vimeo".
KORVANERECORDS_EXPORT bool isSocialOutputType(const QString& type);

} // namespace Korvane
