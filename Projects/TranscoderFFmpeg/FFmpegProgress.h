#pragma once

#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QString>

// Reading ffmpeg's -progress report. ffmpeg appends blocks of "key=value"
// lines and ends its last block with "progress=end". Both functions trim the
// line first and only treat a split at '=' into exactly two parts as a key and
// a value. They keep no state.
namespace Korvane {

// The share of the source written so far, from an "out_time_us" line (output
// time in microseconds over `durationMs` milliseconds; not clamped, so it can
// pass 1.0, and a non-numeric value gives 0), 1.0 for the end marker, and
// -1.0 for every other line or when `durationMs` is below 1. Only results
// above 0 are progress.
TRANSCODERFFMPEG_EXPORT float parseProgressLine(const QString& line, qint64 durationMs);

// True only for the end marker "progress=end".
TRANSCODERFFMPEG_EXPORT bool isProgressEnd(const QString& line);

} // namespace Korvane
