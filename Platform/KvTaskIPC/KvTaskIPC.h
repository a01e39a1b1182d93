#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Task/IAVTaskOperator.h"
#include "KvTaskIPC/KvTaskIPCExport.h"

#include <QSharedPointer>

namespace Korvane {

// The host's own converter, run out of process by the worker program
// ("korvane-worker convert"). Its task carries both records; it reports on
// its task's bus. A worker that dies without a final state is started once
// more.
KVTASKIPC_EXPORT QSharedPointer<IAVTaskOperator>
createConverterContainRetryOp_IPC(const ConvertSource& source, const AVTaskOutputParam& output);

} // namespace Korvane
