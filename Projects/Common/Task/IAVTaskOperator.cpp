#include "Common/Task/IAVTaskOperator.h"

namespace Korvane {

IAVTaskOperator::~IAVTaskOperator() = default;

} // namespace Korvane
