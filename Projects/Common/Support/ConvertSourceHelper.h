#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Support/SupportExport.h"

#include <QString>

namespace Korvane {

namespace ConvertSourceHelper {

// The ffmpeg-path support check behind the plug-in's exported
// isConverterSourceSupportedByTranscoderFFmpeg.
KORVANESUPPORT_EXPORT bool isSupportedByTranscoderFFmpeg(const ConvertSource& source,
                                                         const AVTaskOutputParam& output);

} // namespace ConvertSourceHelper

// Whether the host's own converter (rather than its export engine) can take
// the job; `platform` is the social output type or empty.
KORVANESUPPORT_EXPORT bool isConverterSourceSupportedByTranscoder(const ConvertSource& source,
                                                                  const QString& platform);

} // namespace Korvane
