#include "KvExportHost/KvExportHost.h"

#include "KvTaskIPC/WorkerProcessOperator.h"

namespace Korvane {

QSharedPointer<IAVTaskOperator> rawCreateExportOp_IPC(const QString& projectDocument,
                                                      const AVTaskOutputParam& output)
{
    // The export job has no conversion source of its own: the project
    // document describes the input.
    auto task = QSharedPointer<AVFFmpegTask>::create(ConvertSource(), output);
    QList<WorkerProcessOperator::JobFile> files{
        {QStringLiteral("--project"), projectDocument.toUtf8()},
        {QStringLiteral("--output"), task->outputParamJson().toUtf8()},
    };
    // An export that died half-way is not started again.
    return QSharedPointer<WorkerProcessOperator>(
        new WorkerProcessOperator(task, QStringLiteral("export"), std::move(files), 0));
}

} // namespace Korvane
