#pragma once

#include "korvane-convert/CommandLine.h"
#include "korvane-convert/ConvertJob.h"

#include <QSize>
#include <QString>
#include <QStringList>

#include <functional>

namespace Korvane {

enum class ConvertPath
{
    FFmpeg,    // the plug-in's ffmpeg converter (NVIDIA or Intel factory)
    Converter, // the host's own converter, out of process, on the job records
    Export,    // the host's export engine, out of process, on the timeline document
};

QString pathName(ConvertPath path); // "ffmpeg", "converter", "export"

// The facts the choice needs, asked lazily and at most once each: the two
// support checks probe the input.
struct PathFacts
{
    std::function<bool()> ffmpegSupported;     // isConverterSourceSupportedByTranscoderFFmpeg
    std::function<bool()> transcoderSupported; // isConverterSourceSupportedByTranscoder(source, "")
    std::function<QSize()> inputDisplaySize;   // invalid when unknown
};

struct PathDecision
{
    ConvertPath path = ConvertPath::Converter;
    bool intelFactory = false; // on the ffmpeg path: the Intel factory instead of the NVIDIA one
    QString reason;            // one line, "path X: why"
};

// The edits of the job that the ffmpeg path applies only through a GPU
// filter graph, each as a short phrase ("crop", "rotation 90", "size
// 1280x720 differs from the input's 1920x1080"). A full-picture crop
// without flips or rotation is no edit; an unset size (0) is none either.
QStringList editsNeedingGpuFilters(const ConvertJob& job, const QSize& inputDisplaySize);

// The choice a host makes: the ffmpeg path when its support check passes and
// every edit will be applied there (a GPU named "NVIDIA" or "Intel", or no
// edit in editsNeedingGpuFilters); otherwise the converter when its check
// passes, else the export. `forced` overrides all of it.
PathDecision choosePath(const ConvertJob& job, ForcedPath forced, const PathFacts& facts);

} // namespace Korvane
