#include "Common/Task/IAVTask.h"

namespace Korvane {

IAVTask::~IAVTask() = default;

} // namespace Korvane
