#include "Common/IAVTaskOperator.h"

namespace Korvane {

IAVTaskOperator::~IAVTaskOperator() = default;

} // namespace Korvane
