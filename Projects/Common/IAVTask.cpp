#include "Common/IAVTask.h"

namespace Korvane {

IAVTask::~IAVTask() = default;

} // namespace Korvane
