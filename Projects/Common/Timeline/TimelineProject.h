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

} // namespace Korvane
