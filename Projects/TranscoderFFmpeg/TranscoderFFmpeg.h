#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Task/IAVTaskOperator.h"
#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QSharedPointer>
#include <QString>

// The plug-in's exported entry points.
namespace Korvane {

// True only for jobs the ffmpeg path handles as they are.
TRANSCODERFFMPEG_EXPORT bool
isConverterSourceSupportedByTranscoderFFmpeg(const ConvertSource& source,
                                             const AVTaskOutputParam& output);

// True while some ffmpeg operator's process runs in this process.
TRANSCODERFFMPEG_EXPORT bool isHardwareTranscode();

// Always null: the lossless path is not offered.
TRANSCODERFFMPEG_EXPORT QSharedPointer<IAVTaskOperator>
rawCreateFFmpegConverter_Lossless(const ConvertSource& source, const QString& format);

// A new task holding copies of both records and a controller that owns it.
// Nothing starts until the host calls start().
TRANSCODERFFMPEG_EXPORT QSharedPointer<IAVTaskOperator>
rawCreateIntelFFmpegConverter(const ConvertSource& source, const AVTaskOutputParam& output);
TRANSCODERFFMPEG_EXPORT QSharedPointer<IAVTaskOperator>
rawCreateNvidiaFFmpegConverter(const ConvertSource& source, const AVTaskOutputParam& output);

} // namespace Korvane
