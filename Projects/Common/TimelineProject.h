#pragma once

#include "Common/CommonExport.h"
#include "Common/ConvertSource.h"

#include <QString>
#include <QVariantList>
#include <QVariantMap>

namespace Korvane {

// The indented JSON text of the timeline project for one job. Of `options`
// only "duration", "width", "height", "fps", "socialType" and "export_mode"
// are read, each only when present.
KORVANECOMMON_EXPORT QString makeTimelineProjectJson(const ConvertSource& source,
                                                     const QVariantMap& options);

// True exactly for "YouTube", "Instagram", "TikTok", "Facebook", "Likee", "Vimeo".
KORVANECOMMON_EXPORT bool isSocialOutputType(const QString& type);

// The whole file decoded as UTF-8; empty when it cannot be opened.
KORVANECOMMON_EXPORT QString readTextFile(const QString& path);

// The top-level array of JSON text; empty when it does not parse.
KORVANECOMMON_EXPORT QVariantList jsonToVariantList(const QString& json);

// The cleaned path of `first`, the native separator and `second`.
KORVANECOMMON_EXPORT QString joinPath(const QString& first, const QString& second);

} // namespace Korvane
