#pragma once

#include "Common/AVTaskOutputParam.h"
#include "Common/ConvertSource.h"
#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QStringList>

namespace Korvane {

// The ordered argument list for one ffmpeg run (program name excluded). Paths
// are wrapped in double quotes and some elements hold an option and its value
// separated by a blank, because the list is joined with blanks into one
// command line. `progressTarget` is where ffmpeg writes its -progress report;
// `option` is reserved (callers pass -1). Empty when no command can be built.
TRANSCODERFFMPEG_EXPORT QStringList makeFFmpegCommand(const ConvertSource& source,
                                                      const AVTaskOutputParam& param,
                                                      const QString& progressTarget, int option);

} // namespace Korvane
