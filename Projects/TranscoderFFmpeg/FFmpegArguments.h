#pragma once

#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QString>
#include <QStringList>

namespace Korvane {

// The builder's list (makeFFmpegCommand) as the ffmpeg program's arguments:
// an element the builder pairs itself (isPairedElement) becomes the option
// and its value, an element wrapped in double quotes becomes its content, and
// every other element, whatever it holds, is exactly one argument.
TRANSCODERFFMPEG_EXPORT QStringList ffmpegProgramArguments(const QStringList& elements);

// The arguments as one Windows command line tail (program excluded), each
// quoted where needed so that the C runtime's and CommandLineToArgvW's
// splitting give back exactly `arguments`: backslashes before a double quote
// are doubled and an embedded double quote is escaped.
TRANSCODERFFMPEG_EXPORT QString windowsArgumentLine(const QStringList& arguments);

} // namespace Korvane
