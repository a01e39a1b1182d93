#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Task/IAVTaskOperator.h"
#include "KvExportHost/KvExportHostExport.h"

#include <QSharedPointer>
#include <QString>

namespace Korvane {

// The host's export engine, run out of process by the worker program
// ("korvane-worker export") on a timeline project document. No retry.
KVEXPORTHOST_EXPORT QSharedPointer<IAVTaskOperator>
rawCreateExportOp_IPC(const QString& projectDocument, const AVTaskOutputParam& output);

} // namespace Korvane
