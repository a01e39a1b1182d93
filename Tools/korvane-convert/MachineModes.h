#pragma once

#include "korvane-convert/ConvertJob.h"

#include <QByteArray>
#include <QString>

namespace Korvane {

struct MediaDescription;

// The machine-readable modes: each returns exactly what goes to standard
// output. They call the libraries as a host would, so their output can be
// compared with the libraries called directly.

// JSON array of makeFFmpegCommand's arguments for the job, with the progress
// file path an ffmpeg run would use and option -1; [] when none can be built.
QByteArray printCommand(const ConvertJob& job);

// makeTimelineProjectJson of the job's source and timeline options, as is.
QByteArray printTimeline(const ConvertJob& job);

// {"ffmpeg": bool, "transcoder": bool}: the two support checks, the second
// with an empty platform.
QByteArray printCheck(const ConvertJob& job);

// {"ConvertSource": ..., "AVTaskOutputParam": ...}: both records as the
// library's writers write them (the source as the job file's reading left it).
QByteArray printJob(const ConvertJob& job);

// The media description as JSON: container fields and one object per stream
// record, fields in camelCase, rationals as [num, den].
QByteArray mediaDescriptionJson(const MediaDescription& description);

} // namespace Korvane
