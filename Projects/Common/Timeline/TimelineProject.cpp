#include "Common/Timeline/TimelineProject.h"

#include "Common/Records/TimelineKeys.h"
#include "Common/Timeline/TimelineProjectBuilder.h"
#include "KvMediaInfo/KvMediaInfo.h"

namespace Korvane {

QString makeTimelineProjectJson(const ConvertSource& source, const QVariantMap& options)
{
    // The stream durations are only worth computing when the caller does not
    // know the length already.
    const QSharedPointer<ContainerInfo> info =
        getContainInfo(source.filePath, !options.contains(TimelineKeys::kOptionDuration));
    return TimelineProjectBuilder(source, options, info.data()).build();
}

} // namespace Korvane
