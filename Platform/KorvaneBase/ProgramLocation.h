#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QString>

namespace Korvane {

// Where a helper program that conversions run lies (`name` without ".exe"):
// the settings value `settingsKey` when it is set; else `name` in the
// application's directory when it is there; else `name` on PATH, which is
// how an installed host that keeps nothing beside it finds the system's
// programs; else the path in the application's directory, so that the
// failure to start names the place a bundled copy is expected.
KORVANEBASE_EXPORT QString locateProgram(const QString& settingsKey, const QString& name);

} // namespace Korvane
