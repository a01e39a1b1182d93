#include "Common/Records/TimelineOptions.h"

#include "Common/Records/TimelineKeys.h"

namespace Korvane {

QVariantMap timelineOutputOptions(const AVTaskOutputParam& output, UnsetOutputSize unset)
{
    const bool sizeSet = output.video.width >= 1 && output.video.height >= 1;
    if (!sizeSet && unset == UnsetOutputSize::Omitted) {
        return {};
    }
    return {{TimelineKeys::kOptionWidth, output.video.width},
            {TimelineKeys::kOptionHeight, output.video.height}};
}

} // namespace Korvane
