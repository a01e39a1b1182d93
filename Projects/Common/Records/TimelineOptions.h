#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/RecordsExport.h"

#include <QVariantMap>

namespace Korvane {

// What an unset output size (either side below 1) becomes in the options.
enum class UnsetOutputSize
{
    Passed,  // written as it is: the document then has the default 640x480 canvas
    Omitted, // left out: the document keeps the input's picture size
};

// The options of a job's timeline document (makeTimelineProjectJson) from its
// output record: the output video's "width" and "height". The plug-in's
// controller passes them as they are; the worker's own conversions leave an
// unset size out.
KORVANERECORDS_EXPORT QVariantMap timelineOutputOptions(const AVTaskOutputParam& output,
                                                        UnsetOutputSize unset);

} // namespace Korvane
