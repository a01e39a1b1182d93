#include "TranscoderFFmpeg/GpuBackend.h"

#include <algorithm>
#include <iterator>

namespace Korvane {

namespace {

// A new backend is one more row here and its graph maker.
const GpuBackend kBackends[] = {
    {"Intel", "-init_hw_device qsv=hw,child_device_type=d3d11va", "qsv", "h264_qsv", "hevc_qsv",
     "qsv", "", true, makeQsvFilterCommand, true},
    {"NVIDIA", "", "cuvid", "h264_cuvid", "hevc_cuvid", "nvenc", "-bf 0", false,
     makeCudaFilterCommand, false},
};

bool matches(const GpuBackend& backend, const QString& gpuName)
{
    return gpuName.contains(QLatin1String(backend.vendor));
}

} // namespace

QString GpuBackend::encoder(const QString& codec) const
{
    return QStringLiteral("%1_%2").arg(codec, QLatin1String(encoderSuffix));
}

QString GpuBackend::decoderElement(const QString& inputCodec) const
{
    // Exact names: "H264" or "hevc" get no decoder.
    const char* decoder = inputCodec == QLatin1String("h264")   ? h264Decoder
                          : inputCodec == QLatin1String("h265") ? hevcDecoder
                                                                : "";
    return *decoder ? QStringLiteral("-c:v %1").arg(QLatin1String(decoder)) : QString();
}

QStringList GpuBackend::pairedElements() const
{
    QStringList elements{QStringLiteral("-hwaccel %1").arg(QLatin1String(hwaccel)),
                         decoderElement(QStringLiteral("h264")),
                         decoderElement(QStringLiteral("h265"))};
    for (const char* element : {deviceInit, h264Option}) {
        if (*element) {
            elements << QLatin1String(element);
        }
    }
    return elements;
}

const GpuBackend* gpuBackendFor(const QString& gpuName)
{
    for (const GpuBackend& backend : kBackends) {
        if (matches(backend, gpuName)) {
            return &backend;
        }
    }
    return nullptr;
}

QList<const GpuBackend*> gpuBackends()
{
    QList<const GpuBackend*> backends;
    for (const GpuBackend& backend : kBackends) {
        backends << &backend;
    }
    return backends;
}

bool h264RateBounds(const QString& gpuName)
{
    return std::all_of(std::begin(kBackends), std::end(kBackends),
                       [&gpuName](const GpuBackend& backend) {
                           return backend.h264RateBounds || !matches(backend, gpuName);
                       });
}

} // namespace Korvane
