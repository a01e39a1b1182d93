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

// The arguments as one Windows command line tail (program excluded), quoted
// so that the C runtime's and CommandLineToArgvW's splitting give back exactly
// `arguments`: windowsCommandLine (KorvaneBase/ChildProcess.h), the line the
// launch hands to ffmpeg there, under the name the plug-in exports.
TRANSCODERFFMPEG_EXPORT QString windowsArgumentLine(const QStringList& arguments);

} // namespace Korvane
