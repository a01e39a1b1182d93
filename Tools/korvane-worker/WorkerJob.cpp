#include "korvane-worker/WorkerJob.h"

#include "korvane-worker/WorkerProtocol.h"

#include "Common/Records/JobInputs.h"
#include "Common/Records/JsonForms.h"
#include "Common/Records/OutputRules.h"
#include "Common/Records/TimelineOptions.h"
#include "Common/Timeline/TimelineProject.h"
#include "KorvaneBase/Record.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "KorvaneDec/NLEditor/ProjectRenderer.h"

#include <QFile>

namespace Korvane {

namespace {

const char* const kFile = "Tools/korvane-worker/WorkerJob";

bool readFile(const QString& path, QString* text, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read \"%1\": %2").arg(path, file.errorString());
        return false;
    }
    *text = QString::fromUtf8(file.readAll());
    return true;
}

} // namespace

WorkerArguments parseWorkerArguments(const QStringList& arguments)
{
    WorkerArguments parsed;
    if (arguments.size() != 5) {
        return parsed;
    }
    const QString mode = arguments[0];
    QVariantMap options;
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        if (options.contains(arguments[i]) || arguments[i + 1].isEmpty()) {
            return parsed;
        }
        options.insert(arguments[i], arguments[i + 1]);
    }
    const QString input =
        mode == QLatin1String("convert") ? QStringLiteral("--source") : QStringLiteral("--project");
    if ((mode != QLatin1String("convert") && mode != QLatin1String("export")) ||
        !options.contains(input) || !options.contains(QStringLiteral("--output"))) {
        return parsed;
    }
    parsed.outputFile = options.value(QStringLiteral("--output")).toString();
    if (mode == QLatin1String("convert")) {
        parsed.mode = WorkerArguments::Mode::Convert;
        parsed.sourceFile = options.value(input).toString();
    } else {
        parsed.mode = WorkerArguments::Mode::Export;
        parsed.projectFile = options.value(input).toString();
    }
    return parsed;
}

QString workerUsage()
{
    return QStringLiteral("usage: korvane-worker convert --source FILE --output FILE\n"
                          "       korvane-worker export --project FILE --output FILE\n");
}

bool runWorkerJob(const WorkerArguments& arguments, WorkerProtocol& protocol,
                  const std::atomic<bool>& stop)
{
    auto fail = [&](const QString& error) {
        Korvane::Record("Korvane::runWorkerJob", __LINE__, kFile, nullptr, 0)
            << "job failed: " << error;
        protocol.failed(error);
        return false;
    };
    QString error;
    QString outputText;
    if (!readFile(arguments.outputFile, &outputText, &error)) {
        return fail(error);
    }
    const AVTaskOutputParam output = outputParamFromVariantMap(jsonToVariantMap(outputText));
    // The names go to libavformat and libavcodec as they are.
    const QString invalidField = invalidOutputField(output);
    if (!invalidField.isEmpty()) {
        return fail(QStringLiteral("invalid job field: %1").arg(invalidField));
    }

    QString documentText;
    if (arguments.mode == WorkerArguments::Mode::Convert) {
        QString sourceText;
        if (!readFile(arguments.sourceFile, &sourceText, &error)) {
            return fail(error);
        }
        const ConvertSource source = convertSourceFromJson(sourceText);
        if (source.filePath.isEmpty()) {
            return fail(QStringLiteral("the job names no input file"));
        }
        const QString overwritten = inputOverwrittenBy(source, output.outputPath);
        if (!overwritten.isEmpty()) {
            return fail(QStringLiteral("the output \"%1\" is the input \"%2\", refused")
                            .arg(output.outputPath, overwritten));
        }
        // The output's size becomes the canvas; a record without a size keeps
        // the probed picture size.
        documentText = makeTimelineProjectJson(
            source, timelineOutputOptions(output, UnsetOutputSize::Omitted));
    } else if (!readFile(arguments.projectFile, &documentText, &error)) {
        return fail(error);
    }

    ProjectDocument document;
    if (!parseProjectDocument(documentText, &document, &error)) {
        return fail(error);
    }
    protocol.started();
    ProjectRenderer renderer(document, output);
    renderer.setStopFlag(&stop);
    renderer.setProgressHandler([&protocol](double value) { protocol.progress(value); });
    const RenderOutcome outcome = renderer.run();
    switch (outcome.status) {
    case RenderStatus::Finished:
        protocol.finished();
        return true;
    case RenderStatus::Stopped:
        protocol.stopped();
        return false;
    case RenderStatus::Failed:
        break;
    }
    return fail(outcome.error);
}

} // namespace Korvane
