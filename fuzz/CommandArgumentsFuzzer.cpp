// Whatever text a job carries, ffmpeg's argument vector holds no option that
// the builder did not write itself: random text goes into every text field of
// the output record and the source, and ffmpeg's own way of reading options
// (each option but -y, -an and -vn takes the next argument as its value) may
// find no more options than the builder's fixed elements give, and exactly
// one output file after them.
#include "Common/Records/OutputRules.h"
#include "TranscoderFFmpeg/FFmpegArguments.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <QSet>

#include <cstdint>
#include <cstdlib>

namespace {

using namespace Korvane;

QString text(FuzzedDataProvider& data)
{
    return QString::fromStdString(data.ConsumeRandomLengthString(64));
}

QSharedPointer<MediaInfoV3> mediaFacts(int width, int height, const QString& codec)
{
    auto info = QSharedPointer<MediaInfoV3>::create();
    MediaInfoVideoStream video;
    video.codecName = codec;
    video.width = width;
    video.height = height;
    info->videoStreams << video;
    MediaInfoAudioStream audio;
    audio.index = 1;
    audio.codecName = QStringLiteral("aac");
    info->audioStreams << audio;
    return info;
}

// The options the builder writes as elements of their own.
const QSet<QString>& singleOptions()
{
    static const QSet<QString> options{"-progress", "-y",  "-i",  "-an", "-acodec",
                                       "-ab",       "-ar", "-ac", "-vn", "-vcodec",
                                       "-lavfi",    "-vb", "-r",  "-f"};
    return options;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    FuzzedDataProvider data(bytes, size);
    ConvertSource source;
    source.filePath = text(data);
    source.coverPath = text(data);
    source.effectFilter = text(data);
    source.metaData.insert(QStringLiteral("title"), text(data));
    source.attachedSubtitle.append({0, text(data), text(data)});
    source.attachedAudio.append({0, text(data)});
    for (int i = data.ConsumeIntegralInRange(0, 2); i > 0; --i) {
        WaterMarkParam mark;
        mark.filePath = text(data);
        source.waterMark << mark;
    }
    AVTaskOutputParam param;
    param.outputPath = text(data);
    param.format = text(data);
    param.video.codecName = text(data);
    param.audio.codecName = text(data);
    param.acceleration.gpuName = text(data);
    param.acceleration.losslessFormat = text(data);
    param.acceleration.hardwareEnabled = data.ConsumeBool();
    param.video.width = data.ConsumeIntegral<qint32>();
    param.video.height = data.ConsumeIntegral<qint32>();
    param.video.frameRate = data.ConsumeFloatingPoint<double>();
    param.video.bitrateKbps = data.ConsumeIntegral<qint64>();
    param.audio.bitrateKbps = data.ConsumeIntegral<qint64>();
    param.audio.sampleRate = data.ConsumeIntegral<qint32>();
    param.audio.channels = data.ConsumeIntegral<qint32>();

    FFmpegCommandFacts facts;
    facts.info = mediaFacts(data.ConsumeIntegralInRange(1, 4096),
                            data.ConsumeIntegralInRange(1, 4096), text(data));
    facts.probe = [](const QString&) { return mediaFacts(64, 64, QStringLiteral("png")); };
    facts.qsvDeviceInitExplicit = data.ConsumeBool();
    facts.hardwareThreads = data.ConsumeIntegralInRange(1, 256);

    // The operator refuses such a job before building anything.
    if (!invalidOutputField(param).isEmpty()) {
        return 0;
    }
    const QStringList elements = makeFFmpegCommand(source, param, QStringLiteral("/p"), facts);
    if (elements.isEmpty()) {
        return 0;
    }
    qsizetype fixedOptions = 0;
    for (const QString& element : elements) {
        if (isPairedElement(element) || singleOptions().contains(element)) {
            ++fixedOptions;
        }
    }
    const QStringList arguments = ffmpegProgramArguments(elements);
    qsizetype options = 0;
    qsizetype outputs = 0;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (argument.size() > 1 && argument.startsWith(QLatin1Char('-'))) {
            ++options;
            if (argument != QLatin1String("-y") && argument != QLatin1String("-an") &&
                argument != QLatin1String("-vn")) {
                ++i;
            }
        } else {
            ++outputs;
        }
    }
    if (options > fixedOptions || outputs != 1) {
        std::abort();
    }
    return 0;
}
