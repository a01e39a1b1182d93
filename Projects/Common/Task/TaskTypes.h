#pragma once

#include "Common/Task/TaskExport.h"

#include <QMetaType>

namespace Korvane {

// The state of a task. Operators of this library produce 1, 4, 5 and 6 on
// signals; 2 is only ever stored in a task. Every value of 6 and above counts
// as a failure.
enum class TaskState : qint32
{
    Started = 1,
    Running = 2,
    Stopped = 4,
    Finished = 5,
    Failed = 6,
};

enum class TaskProgressType : qint32
{
    Whole = 0, // progress of the whole conversion
};

// Registers both enumerations with Qt under "Korvane::TaskState" and
// "Korvane::TaskProgressType", as queued string-based connections need.
// Idempotent and thread-safe; the bus calls it on construction.
KORVANETASK_EXPORT void registerTaskMetaTypes();

} // namespace Korvane

Q_DECLARE_METATYPE(Korvane::TaskState)
Q_DECLARE_METATYPE(Korvane::TaskProgressType)
