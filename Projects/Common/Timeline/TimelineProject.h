#pragma once

#include "Common/Records/ConvertSource.h"
#include "Common/Timeline/TimelineExport.h"

#include <QString>
#include <QVariantList>
#include <QVariantMap>

namespace Korvane {

// The indented JSON text of the timeline project for one job. Of `options`
// only "duration", "width", "height", "fps", "socialType" and "export_mode"
// are read, each only when present.
KORVANETIMELINE_EXPORT QString makeTimelineProjectJson(const ConvertSource& source,
                                                       const QVariantMap& options);

// True exactly for "YouTube", "Instagram", "TikTok", "Facebook", "Likee", "Vimeo".
KORVANETIMELINE_EXPORT bool isSocialOutputType(const QString& type);

// The whole file decoded as UTF-8; empty when it cannot be opened.
KORVANETIMELINE_EXPORT QString readTextFile(const QString& path);

// The top-level array of JSON text; empty when it does not parse.
KORVANETIMELINE_EXPORT QVariantList jsonToVariantList(const QString& json);

// The cleaned path of `first`, the native separator and `second`.
KORVANETIMELINE_EXPORT QString joinPath(const QString& first, const QString& second);

} // namespace Korvane
