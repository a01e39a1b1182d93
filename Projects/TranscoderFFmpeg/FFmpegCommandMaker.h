#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "KvMediaInfo/KvMediaInfo.h"
#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QSharedPointer>
#include <QString>
#include <QStringList>

#include <functional>

namespace Korvane {

// The ordered argument list for one ffmpeg run (program name excluded). Paths
// are wrapped in double quotes and some elements hold an option and its value
// separated by a blank, because the list is joined with blanks into one
// command line. `progressTarget` is where ffmpeg writes its -progress report;
// `option` is reserved (callers pass -1). Empty when no command can be built:
// the input cannot be probed, or a path that must be quoted (input, watermark,
// progress target, output) itself holds a double quote (logged).
// Probes the input and the watermark pictures with getMediaInfo and asks the
// GPU acceleration library whether the Intel device is created explicitly.
TRANSCODERFFMPEG_EXPORT QStringList makeFFmpegCommand(const ConvertSource& source,
                                                      const AVTaskOutputParam& param,
                                                      const QString& progressTarget, int option);

// True when `element` is one of the elements the builder itself writes as an
// option and its value separated by a blank ("-threads 4", "-hwaccel qsv",
// "-crf 21", ...): only those may be split into two program arguments. Every
// other element, job values included, is exactly one argument.
TRANSCODERFFMPEG_EXPORT bool isPairedElement(const QString& element);

// Media facts of one file as getMediaInfo(path, -2, true) gives them; null
// when the file cannot be probed.
using MediaInfoProbe = std::function<QSharedPointer<MediaInfoV3>(const QString& path)>;

// Everything makeFFmpegCommand learns from outside the job records.
struct FFmpegCommandFacts
{
    QSharedPointer<MediaInfoV3> info;   // the input's facts; null: not probed
    MediaInfoProbe probe;               // for the watermark pictures; must be set
    bool qsvDeviceInitExplicit = false; // the GPU library's answer
    int hardwareThreads = 1;            // of the machine that runs ffmpeg
};

// The same list built from facts gathered by the caller; no file is opened
// except through `facts.probe`.
TRANSCODERFFMPEG_EXPORT QStringList makeFFmpegCommand(const ConvertSource& source,
                                                      const AVTaskOutputParam& param,
                                                      const QString& progressTarget,
                                                      const FFmpegCommandFacts& facts);

// Filter graph for the NVIDIA path (the text after -lavfi, unquoted): crop,
// flips, rotation, fit into video.width x video.height with bars, watermark
// overlays; frames are downloaded from the GPU whenever CPU filters follow.
// `info` is the input's facts. Empty when nothing can be built (no video
// stream, invalid sizes (logged), a watermark picture that cannot be probed).
// Watermark pictures are probed with getMediaInfo.
TRANSCODERFFMPEG_EXPORT QString makeCudaFilterCommand(const ConvertSource& source,
                                                      const AVTaskOutputParam::Video& video,
                                                      const QSharedPointer<MediaInfoV3>& info);
TRANSCODERFFMPEG_EXPORT QString makeCudaFilterCommand(const ConvertSource& source,
                                                      const AVTaskOutputParam::Video& video,
                                                      const QSharedPointer<MediaInfoV3>& info,
                                                      const MediaInfoProbe& probe);

// Filter graph for the Intel path: one vpp_qsv step crops and resizes on the
// GPU, flips and transposes follow, watermarks are uploaded and blended with
// overlay_qsv. Empty when nothing is to be done or nothing can be built (as
// above, plus a watermark of zero height running past an edge, logged).
TRANSCODERFFMPEG_EXPORT QString makeQsvFilterCommand(const ConvertSource& source,
                                                     const AVTaskOutputParam::Video& video,
                                                     const QSharedPointer<MediaInfoV3>& info);
TRANSCODERFFMPEG_EXPORT QString makeQsvFilterCommand(const ConvertSource& source,
                                                     const AVTaskOutputParam::Video& video,
                                                     const QSharedPointer<MediaInfoV3>& info,
                                                     const MediaInfoProbe& probe);

} // namespace Korvane
