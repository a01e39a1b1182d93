#pragma once

#include "KvAVGlue/KvAVGlueExport.h"

#include <QString>

class QObject;

namespace Korvane {

// The text av_strerror gives for an FFmpeg return code (from a zeroed 256-byte
// buffer).
KVAVGLUE_EXPORT QString ffErrorText(int code);

// "what: <ffErrorText(code)>", the form of an error message about a failed
// FFmpeg call.
KVAVGLUE_EXPORT QString ffFailure(const QString& what, int code);

// Routes FFmpeg's own log output into the persistent log: FFmpeg's pieces are
// joined into whole lines, and each line at or below maxLevel (AV_LOG_*) is
// recorded under the function "av_log" with FFmpeg's level as the record's
// level. Idempotent; the last maxLevel given wins.
KVAVGLUE_EXPORT void ffmpegLogToPLog(int maxLevel = 24 /* AV_LOG_WARNING */);

// When code is negative, records `message + code + ": " + ffErrorText(code)`
// under the given function, line, file and object (level 0) and returns true;
// otherwise records nothing and returns false.
KVAVGLUE_EXPORT bool logIf_FF_Error(int code, const QString& message, const QString& function,
                                    int line, const QString& file, const QObject* object = nullptr);

} // namespace Korvane
