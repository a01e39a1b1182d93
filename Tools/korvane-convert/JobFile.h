#pragma once

#include "korvane-convert/ConvertJob.h"

#include <QString>
#include <QVariantMap>

namespace Korvane {

// Job files: a JSON object with
//   "ConvertSource": the object the library writes inside its "ConvertSource"
//                    key (read back with convertSourceFromJson),
//   "AVTaskOutputParam": the flat object outputParamToJson writes,
//   "timelineOptions": optional, the options of the timeline project document.

// The job as a job-file object: the source and output records written by the
// library's writers, and "timelineOptions" when the job has its own.
QVariantMap jobToVariantMap(const ConvertJob& job);

// Parses job-file text. False, with a one-line reason in `error`, when the
// text is not a JSON object or lacks the "ConvertSource" or
// "AVTaskOutputParam" object, or when "timelineOptions" is present but not an
// object.
bool jobFromJson(const QByteArray& text, ConvertJob* job, QString* error);

// The same for a file; the reason names the file.
bool readJobFile(const QString& path, ConvertJob* job, QString* error);

// Writes the job (indented), creating the folder. False with a reason when
// the file cannot be written.
bool writeJobFile(const QString& path, const ConvertJob& job, QString* error);

} // namespace Korvane
