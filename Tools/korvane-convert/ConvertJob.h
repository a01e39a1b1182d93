#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Records/TimelineOptions.h"

#include <QVariantMap>

#include <optional>

namespace Korvane {

// One conversion as the host program handles it: the two records the plug-in
// takes, plus the options of the timeline project document for the export
// path. Without explicit options the document gets the output size, as the
// plug-in's controller passes it.
struct ConvertJob
{
    ConvertSource source;
    AVTaskOutputParam output;
    std::optional<QVariantMap> timelineOptions;

    QVariantMap effectiveTimelineOptions() const
    {
        if (timelineOptions) {
            return *timelineOptions;
        }
        return timelineOutputOptions(output, UnsetOutputSize::Passed);
    }
};

// The program's exit codes.
enum ExitCode : int
{
    ExitFinished = 0,    // every job ended Finished (or a print mode succeeded)
    ExitFailed = 1,      // a job ended Failed or Stopped, or could not start
    ExitUsage = 2,       // bad command line or job file, missing input
    ExitInterrupt = 130, // Ctrl-C: the job was stopped and its output removed
};

} // namespace Korvane
