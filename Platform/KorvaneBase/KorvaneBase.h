#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"
#include "KorvaneBase/Logger.h"
#include "KorvaneBase/Record.h"
#include "KorvaneBase/Settings.h"

namespace Korvane {

// The base services every library of the host shares: one logger and one
// settings store per process.
class KORVANEBASE_EXPORT KorvaneBase
{
public:
    virtual ~KorvaneBase() = default;
    virtual Logger& logger() = 0;
    virtual Settings& settings() = 0;
};

// The process-wide instance, created on first use and never destroyed before
// exit. Never null.
KORVANEBASE_EXPORT KorvaneBase* KorvaneBaseEntry();

} // namespace Korvane
