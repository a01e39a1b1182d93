#include "KvTaskIPC/KvTaskIPC.h"

#include "KvTaskIPC/WorkerProcessOperator.h"

namespace Korvane {

QSharedPointer<IAVTaskOperator> createConverterContainRetryOp_IPC(const ConvertSource& source,
                                                                  const AVTaskOutputParam& output)
{
    auto task = QSharedPointer<AVFFmpegTask>::create(source, output);
    QList<WorkerProcessOperator::JobFile> files{
        {QStringLiteral("--source"), task->sourceJson().toUtf8()},
        {QStringLiteral("--output"), task->outputParamJson().toUtf8()},
    };
    // A worker that dies without a result (crash, killed) gets one more try.
    return QSharedPointer<WorkerProcessOperator>(
        new WorkerProcessOperator(task, QStringLiteral("convert"), std::move(files), 1));
}

} // namespace Korvane
