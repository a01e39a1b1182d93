#pragma once

#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "KorvaneDec/NLEditor/RenderPlan.h"

#include <QHash>
#include <QSharedPointer>
#include <QString>

extern "C" {
#include <libavfilter/avfilter.h>
}

namespace Korvane {

// The two libavfilter graphs of a render (picture and sound, see
// RenderGraph), configured with one buffer source per labelled input and one
// sink each. Owns the graphs; the filter contexts it hands out live as long
// as it does.
class RenderFilterGraphs
{
public:
    // Builds and configures the graphs the plan needs. False with `error`
    // set when libavfilter refuses them.
    bool build(const ProjectDocument& doc, const RenderPlan& plan, QString* error);

    // The buffer source of an input label ("v0", "a1", "w0", "x2", "s0");
    // null for a label the graphs do not have.
    AVFilterContext* source(const QString& label) const { return mSources.value(label); }
    AVFilterContext* videoSink() const { return mVideoSink; }
    AVFilterContext* audioSink() const { return mAudioSink; }

private:
    bool configure(QSharedPointer<AVFilterGraph>* graph, const QString& text,
                   const QHash<QString, QString>& sourceArgs, bool video, AVFilterContext** sink,
                   QString* error);

    QSharedPointer<AVFilterGraph> mVideoGraph;
    QSharedPointer<AVFilterGraph> mAudioGraph;
    QHash<QString, AVFilterContext*> mSources;
    AVFilterContext* mVideoSink = nullptr;
    AVFilterContext* mAudioSink = nullptr;
};

} // namespace Korvane
