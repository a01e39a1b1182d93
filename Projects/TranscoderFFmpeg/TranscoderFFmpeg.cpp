#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include "Common/Support/ConvertSourceHelper.h"
#include "Common/Task/AVFFmpegTask.h"
#include "TranscoderFFmpeg/FFmpegController.h"
#include "TranscoderFFmpeg/KvFFmpegOperator.h"

namespace Korvane {
namespace {

QSharedPointer<IAVTaskOperator> createController(const ConvertSource& source,
                                                 const AVTaskOutputParam& output)
{
    QSharedPointer<IAVTask> task = QSharedPointer<AVFFmpegTask>::create(source, output);
    return QSharedPointer<FFmpegController>(new FFmpegController(task));
}

} // namespace

bool isConverterSourceSupportedByTranscoderFFmpeg(const ConvertSource& source,
                                                  const AVTaskOutputParam& output)
{
    return ConvertSourceHelper::isSupportedByTranscoderFFmpeg(source, output);
}

bool isHardwareTranscode()
{
    return KvFFmpegOperator::isTranscodeRunning();
}

QSharedPointer<IAVTaskOperator> rawCreateFFmpegConverter_Lossless(const ConvertSource&,
                                                                  const QString&)
{
    return {};
}

// Both hardware factories build the same objects: the hardware actually used
// follows from the output's acceleration settings when the command is built.
QSharedPointer<IAVTaskOperator> rawCreateIntelFFmpegConverter(const ConvertSource& source,
                                                              const AVTaskOutputParam& output)
{
    return createController(source, output);
}

QSharedPointer<IAVTaskOperator> rawCreateNvidiaFFmpegConverter(const ConvertSource& source,
                                                               const AVTaskOutputParam& output)
{
    return createController(source, output);
}

} // namespace Korvane
