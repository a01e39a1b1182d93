#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "KorvaneDec/NLEditor/NLEditorExport.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"

#include <QString>

#include <atomic>
#include <functional>
#include <memory>

namespace Korvane {

enum class RenderStatus
{
    Finished,
    Failed,
    Stopped
};

struct RenderOutcome
{
    RenderStatus status = RenderStatus::Failed;
    QString error; // the reason, for Failed
};

// Renders a project into the file of an output record, in this process, on
// the FFmpeg libraries: decodes every clip, runs the picture and the sound
// through one libavfilter graph each (see RenderGraph), encodes and muxes.
//
// Output: the video codec (h264 and h265 with the software encoders, any
// other FFmpeg encoder by name, the container's default when none is named),
// a constant quality from crfQuality when no bit rate is given, the
// record's size (else the canvas) and frame rate (else the project's); the
// audio codec, sample rate, channels and bit rate likewise; the container
// from the format name, else from the file's extension. The project's cover
// becomes the cover picture where the container holds one, its metadata the
// container tags.
//
// run() blocks the calling thread. On failure or stop nothing is left at
// the output path.
class KORVANENLEDITOR_EXPORT ProjectRenderer
{
public:
    ProjectRenderer(const ProjectDocument& document, const AVTaskOutputParam& output);
    ~ProjectRenderer();
    ProjectRenderer(const ProjectRenderer&) = delete;
    ProjectRenderer& operator=(const ProjectRenderer&) = delete;

    // Called on run()'s thread with the share of the timeline written so far
    // (0..1), after each written video frame (audio frame without video).
    void setProgressHandler(std::function<void(double)> handler);
    // Polled between frames; once true, run() ends with Stopped. The flag
    // must outlive run().
    void setStopFlag(const std::atomic<bool>* flag);

    RenderOutcome run();

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Korvane
