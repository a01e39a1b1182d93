#pragma once

#include "Common/Records/AVTaskOutputParam.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <atomic>

namespace Korvane {

class WorkerProtocol;

// A parsed command line of korvane-worker.
struct WorkerArguments
{
    enum class Mode
    {
        Invalid,
        Convert, // --source FILE --output FILE
        Export   // --project FILE --output FILE
    };
    Mode mode = Mode::Invalid;
    QString sourceFile;  // convert: convertSourceToJson text
    QString projectFile; // export: timeline document
    QString outputFile;  // outputParamToJson text
};

// `arguments` without the program name. Mode Invalid for anything else than
// the two forms (options in any order, each exactly once).
WorkerArguments parseWorkerArguments(const QStringList& arguments);

QString workerUsage();

// Runs the job: reads its files, renders, and reports on `protocol`.
// Returns true exactly when it reported Finished (5).
bool runWorkerJob(const WorkerArguments& arguments, WorkerProtocol& protocol,
                  const std::atomic<bool>& stop);

} // namespace Korvane
