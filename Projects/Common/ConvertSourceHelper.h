#pragma once

#include "Common/AVTaskOutputParam.h"
#include "Common/CommonExport.h"
#include "Common/ConvertSource.h"

#include <QString>

namespace Korvane {

namespace ConvertSourceHelper {

// The ffmpeg-path support check behind the plug-in's exported
// isConverterSourceSupportedByTranscoderFFmpeg.
KORVANECOMMON_EXPORT bool isSupportedByTranscoderFFmpeg(const ConvertSource& source,
                                                        const AVTaskOutputParam& output);

} // namespace ConvertSourceHelper

// Whether the host's own converter (rather than its export engine) can take
// the job; `platform` is the social output type or empty.
KORVANECOMMON_EXPORT bool isConverterSourceSupportedByTranscoder(const ConvertSource& source,
                                                                 const QString& platform);

} // namespace Korvane
