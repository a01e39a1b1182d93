#include "KorvaneDec/NLEditor/ProjectRenderer.h"

#include "KorvaneDec/NLEditor/RenderFilterGraphs.h"
#include "KorvaneDec/NLEditor/RenderPlan.h"
#include "KorvaneDec/NLEditor/RenderWriter.h"
#include "KorvaneDec/NLEditor/TimelineFeeder.h"

namespace Korvane {

class ProjectRenderer::Private
{
public:
    Private(const ProjectDocument& document, const AVTaskOutputParam& output)
        : doc(document), out(output)
    {}

    RenderOutcome run();

    ProjectDocument doc;
    AVTaskOutputParam out;
    std::function<void(double)> progress;
    const std::atomic<bool>* stop = nullptr;
};

ProjectRenderer::ProjectRenderer(const ProjectDocument& document, const AVTaskOutputParam& output)
    : d(std::make_unique<Private>(document, output))
{}

ProjectRenderer::~ProjectRenderer() = default;

void ProjectRenderer::setProgressHandler(std::function<void(double)> handler)
{
    d->progress = std::move(handler);
}

void ProjectRenderer::setStopFlag(const std::atomic<bool>* flag)
{
    d->stop = flag;
}

RenderOutcome ProjectRenderer::run()
{
    return d->run();
}

RenderOutcome ProjectRenderer::Private::run()
{
    RenderOutcome outcome;
    QString error;
    RenderPlan plan;
    RenderFilterGraphs graphs;
    RenderWriter writer(plan, out);
    auto fail = [&](const QString& reason) {
        writer.discard();
        outcome.status = RenderStatus::Failed;
        outcome.error = reason;
        return outcome;
    };
    if (!makeRenderPlan(doc, out, &plan, &error) || !graphs.build(doc, plan, &error) ||
        !writer.open(doc, graphs, &error)) {
        return fail(error);
    }
    TimelineFeeder feeder(plan, graphs);
    if (!feeder.start(&error)) {
        return fail(error);
    }
    // Pull what the graphs have ready before each new frame goes in, so
    // that frames never pile up inside them.
    while (!writer.finished()) {
        if (stop && stop->load()) {
            writer.discard();
            outcome.status = RenderStatus::Stopped;
            return outcome;
        }
        if (!writer.drain(progress, &error) || !feeder.step(&error)) {
            return fail(error);
        }
        if (feeder.ended() && (!writer.drain(progress, &error) || !writer.finished())) {
            return fail(error.isEmpty() ? QStringLiteral("the filter graph stalled") : error);
        }
    }
    if (!writer.close(&error)) {
        return fail(error);
    }
    outcome.status = RenderStatus::Finished;
    return outcome;
}

} // namespace Korvane
