#include "korvane-convert/PathChoice.h"

#include "TranscoderFFmpeg/GpuBackend.h"

namespace Korvane {

QString pathName(ConvertPath path)
{
    switch (path) {
    case ConvertPath::FFmpeg:
        return QStringLiteral("ffmpeg");
    case ConvertPath::Converter:
        return QStringLiteral("converter");
    case ConvertPath::Export:
        return QStringLiteral("export");
    }
    return {};
}

QStringList editsNeedingGpuFilters(const ConvertJob& job, const QSize& inputDisplaySize)
{
    QStringList edits;
    if (const auto& crop = job.source.crop) {
        if (!crop->isFullPicture()) {
            edits << QStringLiteral("crop");
        }
        if (crop->flipX || crop->flipY) {
            edits << QStringLiteral("flip");
        }
        if (crop->rotation % 360 != 0) {
            edits << QStringLiteral("rotation %1").arg(crop->rotation);
        }
    }
    if (!job.source.waterMark.isEmpty()) {
        edits << QStringLiteral("watermark");
    }
    const QSize wanted(job.output.video.width, job.output.video.height);
    if (wanted.width() > 0 && wanted.height() > 0 && wanted != inputDisplaySize) {
        edits << (inputDisplaySize.isValid()
                      ? QStringLiteral("size %1x%2 differs from the input's %3x%4")
                            .arg(wanted.width())
                            .arg(wanted.height())
                            .arg(inputDisplaySize.width())
                            .arg(inputDisplaySize.height())
                      : QStringLiteral("size %1x%2 (input size unknown)")
                            .arg(wanted.width())
                            .arg(wanted.height()));
    }
    return edits;
}

PathDecision choosePath(const ConvertJob& job, ForcedPath forced, const PathFacts& facts)
{
    const GpuBackend* gpu = gpuBackendFor(job.output.acceleration.gpuName);
    PathDecision decision;
    decision.intelFactory = gpu && gpu->intelFactory;
    auto decide = [&decision](ConvertPath path, const QString& why) {
        decision.path = path;
        decision.reason = QStringLiteral("path %1: %2").arg(pathName(path), why);
        return decision;
    };
    switch (forced) {
    case ForcedPath::FFmpeg:
        return decide(ConvertPath::FFmpeg, QStringLiteral("forced with --path"));
    case ForcedPath::Converter:
        return decide(ConvertPath::Converter, QStringLiteral("forced with --path"));
    case ForcedPath::Export:
        return decide(ConvertPath::Export, QStringLiteral("forced with --path"));
    case ForcedPath::None:
        break;
    }

    QString why;
    if (!facts.ffmpegSupported()) {
        why = QStringLiteral("the ffmpeg support check refuses the job");
    } else if (gpu) {
        return decide(ConvertPath::FFmpeg,
                      QStringLiteral("the ffmpeg support check passes and the %1 GPU applies "
                                     "every edit")
                          .arg(QLatin1String(gpu->vendor)));
    } else {
        const QStringList edits = editsNeedingGpuFilters(job, facts.inputDisplaySize());
        if (edits.isEmpty()) {
            return decide(ConvertPath::FFmpeg,
                          QStringLiteral("the ffmpeg support check passes and no edit needs a "
                                         "GPU filter graph"));
        }
        why = QStringLiteral("without an NVIDIA or Intel GPU the ffmpeg path would drop: %1")
                  .arg(edits.join(QStringLiteral(", ")));
    }
    if (facts.transcoderSupported()) {
        return decide(ConvertPath::Converter, why + QStringLiteral("; the converter check passes"));
    }
    return decide(ConvertPath::Export,
                  why + QStringLiteral("; the converter check refuses (speed, colour, volume, "
                                       "mosaic, social output or HDR)"));
}

} // namespace Korvane
