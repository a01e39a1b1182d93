#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include "Common/Records/OutputRules.h"
#include "KorvaneBase/Record.h"
#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"
#include "TranscoderFFmpeg/GpuBackend.h"
#include "TranscoderFFmpeg/PictureGeometry.h"

#include <QRegularExpression>
#include <QThread>

namespace Korvane {

namespace {

const char* const kCommandFunction = "Korvane::makeFFmpegCommand";

QString quoted(const QString& path)
{
    return QLatin1Char('"') + path + QLatin1Char('"');
}

// Every element makeFFmpegCommand writes as an option and its value besides
// those of the GPU backends; %1 stands for a decimal number. Extend it with
// each such element the builder gains.
const char* const kPairedElements[] = {
    "-v error",     "-hwaccel auto", "-threads %1", "-vtag hvc1", "-minrate %1k",
    "-maxrate %1k", "-bufsize %1k",  "-vsync 1",    "-g 15",      "-crf %1",
};

// The list is joined into one command line, so a double quote inside a quoted
// path would end the quoting early and let the rest of the name be read as
// options.
bool pathsCanBeQuoted(const ConvertSource& source, const AVTaskOutputParam& param,
                      const QString& progressTarget)
{
    QStringList quotedPaths{progressTarget, source.filePath};
    for (const WaterMarkParam& mark : source.waterMark) {
        quotedPaths << mark.filePath;
    }
    quotedPaths << param.outputPath;
    for (const QString& path : quotedPaths) {
        if (path.contains(QLatin1Char('"'))) {
            Record(kCommandFunction, __LINE__, kCommandMakerUnit, nullptr, 0)
                << "path holds a double quote and cannot be passed to ffmpeg: " << path;
            return false;
        }
    }
    return true;
}

QStringList hardwareDecoding(const GpuBackend* gpu, const QString& inputVideoCodec,
                             bool deviceInitExplicit)
{
    if (!gpu) {
        return {QStringLiteral("-hwaccel auto")};
    }
    QStringList args;
    if (deviceInitExplicit && *gpu->deviceInit) {
        args << QLatin1String(gpu->deviceInit);
    }
    args << QStringLiteral("-hwaccel %1").arg(QLatin1String(gpu->hwaccel));
    const QString decoder = gpu->decoderElement(inputVideoCodec);
    if (!decoder.isEmpty()) {
        args << decoder;
    }
    return args;
}

QStringList audioOptions(const AVTaskOutputParam::Audio& audio)
{
    QStringList args;
    if (!audio.codecName.isEmpty() && audio.codecName != QLatin1String("0")) {
        QString codec = audio.codecName.toLower();
        if (codec == QLatin1String("pcm")) {
            codec = QStringLiteral("pcm_s16le");
        } else if (codec == QLatin1String("adpcm")) {
            codec = QStringLiteral("adpcm_ima_wav");
        }
        args << QStringLiteral("-acodec") << codec;
    }
    if (audio.bitrateKbps >= 1) {
        args << QStringLiteral("-ab") << QStringLiteral("%1k").arg(audio.bitrateKbps);
    }
    if (audio.sampleRate >= 1) {
        args << QStringLiteral("-ar") << QString::number(audio.sampleRate);
    }
    if (audio.channels >= 1) {
        args << QStringLiteral("-ac") << QString::number(audio.channels);
    }
    return args;
}

// With any other GPU name no graph is passed, deliberately: the edits are
// then not applied by this path.
QStringList filterGraphOptions(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                               const FFmpegCommandFacts& facts, const GpuBackend* gpu)
{
    if (video.width < 1 || video.height < 1 || !gpu) {
        return {};
    }
    const QString graph = quoted(gpu->filterGraph(source, video, facts.info, facts.probe));
    if (graph.size() == 2) {
        return {};
    }
    return {QStringLiteral("-lavfi"), graph};
}

// The encoder looks only at the GPU name, deliberately not at the hardware
// flag.
QStringList videoOptions(const ConvertSource& source, const AVTaskOutputParam& param,
                         const FFmpegCommandFacts& facts, const GpuBackend* gpu)
{
    const AVTaskOutputParam::Video& video = param.video;
    const QString named = video.codecName.toLower();
    const QString codec = named == QLatin1String("h265") ? QStringLiteral("hevc") : named;
    QStringList args;
    if (!codec.isEmpty() && codec != QLatin1String("0")) {
        if (codec != named) {
            args << QStringLiteral("-vtag hvc1");
        }
        args << QStringLiteral("-vcodec") << (gpu ? gpu->encoder(codec) : codec);
        if (gpu && *gpu->h264Option && codec == QLatin1String("h264")) {
            args << QLatin1String(gpu->h264Option);
        }
    }
    args << filterGraphOptions(source, video, facts, gpu);
    if (video.bitrateKbps >= 1) {
        args << QStringLiteral("-vb") << QStringLiteral("%1k").arg(video.bitrateKbps);
        if (codec != QLatin1String("h264") || h264RateBounds(param.acceleration.gpuName)) {
            args << QStringLiteral("-minrate %1k").arg(video.bitrateKbps)
                 << QStringLiteral("-maxrate %1k").arg(video.bitrateKbps)
                 << QStringLiteral("-bufsize %1k").arg(video.bitrateKbps * 2);
        }
    }
    if (video.frameRate > 0) {
        if (param.format.toLower() == QLatin1String("mkv") &&
            (named == QLatin1String("h264") || named == QLatin1String("h265"))) {
            args << QStringLiteral("-vsync 1");
        }
        args << QStringLiteral("-r") << generalNumber(video.frameRate);
    }
    return args;
}

} // namespace

bool isPairedElement(const QString& element)
{
    static const QRegularExpression paired = [] {
        QStringList patterns;
        for (const char* text : kPairedElements) {
            QStringList parts = QString::fromLatin1(text).split(QStringLiteral("%1"));
            for (QString& part : parts) {
                part = QRegularExpression::escape(part);
            }
            patterns << parts.join(QStringLiteral("[0-9]+"));
        }
        for (const GpuBackend* backend : gpuBackends()) {
            for (const QString& element : backend->pairedElements()) {
                patterns << QRegularExpression::escape(element);
            }
        }
        return QRegularExpression(
            QRegularExpression::anchoredPattern(patterns.join(QLatin1Char('|'))));
    }();
    return paired.match(element).hasMatch();
}

QStringList makeFFmpegCommand(const ConvertSource& source, const AVTaskOutputParam& param,
                              const QString& progressTarget, const FFmpegCommandFacts& facts)
{
    if (!pathsCanBeQuoted(source, param, progressTarget) || !facts.info) {
        return {};
    }
    const MediaInfoV3& info = *facts.info;
    const GpuBackend* gpu = gpuBackendFor(param.acceleration.gpuName);

    QStringList args;
    args << QStringLiteral("-v error") << QStringLiteral("-progress") << quoted(progressTarget)
         << QStringLiteral("-y");
    if (param.acceleration.hardwareEnabled) {
        const QString inputVideoCodec =
            info.videoStreams.isEmpty() ? QString() : info.videoStreams.first().codecName;
        args << hardwareDecoding(gpu, inputVideoCodec, facts.qsvDeviceInitExplicit);
    }
    args << QStringLiteral("-threads %1").arg((facts.hardwareThreads + 1) / 2);
    args << QStringLiteral("-i") << quoted(source.filePath);
    for (const WaterMarkParam& mark : source.waterMark) {
        args << QStringLiteral("-i") << quoted(mark.filePath);
    }
    if (param.audio.codecName.isEmpty() || info.audioStreams.isEmpty()) {
        args << QStringLiteral("-an");
    } else {
        args << audioOptions(param.audio);
    }
    if (param.video.codecName.isEmpty() || info.videoStreams.isEmpty()) {
        args << QStringLiteral("-vn");
    } else {
        args << videoOptions(source, param, facts, gpu);
    }
    args << QStringLiteral("-g 15");
    args << QStringLiteral("-crf %1").arg(
        crfQuality(param.video.codecName, param.video.width, param.video.height));
    args << QStringLiteral("-f") << muxerName(param.format);
    args << quoted(param.outputPath);
    return args;
}

QStringList makeFFmpegCommand(const ConvertSource& source, const AVTaskOutputParam& param,
                              const QString& progressTarget, int /*option*/)
{
    FFmpegCommandFacts facts;
    facts.info = probeMedia(source.filePath);
    facts.probe = probeMedia;
    facts.qsvDeviceInitExplicit = KorvaneGPUHardwareAccelerationEntry()->qsvDeviceInitExplicit();
    facts.hardwareThreads = QThread::idealThreadCount();
    return makeFFmpegCommand(source, param, progressTarget, facts);
}

} // namespace Korvane
