#include "Common/Task/TaskSignalBus.h"

namespace Korvane {

void registerTaskMetaTypes()
{
    qRegisterMetaType<Korvane::TaskState>("Korvane::TaskState");
    qRegisterMetaType<Korvane::TaskProgressType>("Korvane::TaskProgressType");
}

TaskSignalBus::TaskSignalBus() : QObject(nullptr)
{
    registerTaskMetaTypes();
}

} // namespace Korvane
