#pragma once

#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAccelerationExport.h"

namespace Korvane {

// Facts and switches about GPU decoding and encoding that the converters ask
// for.
class KORVANEGPUHARDWAREACCELERATION_EXPORT KorvaneGPUHardwareAcceleration
{
public:
    // Settings key (base library's store) behind qsvDeviceInitExplicit().
    // Absent means false.
    static constexpr const char* kQsvInitDeviceExplicitKey = "kQsv_InitDevice_Explicit";

    KorvaneGPUHardwareAcceleration() = default;
    virtual ~KorvaneGPUHardwareAcceleration() = default;
    KorvaneGPUHardwareAcceleration(const KorvaneGPUHardwareAcceleration&) = delete;
    KorvaneGPUHardwareAcceleration& operator=(const KorvaneGPUHardwareAcceleration&) = delete;

    // True when the Intel device must be created explicitly (on its Direct3D 11
    // child device) before Intel decoding is asked for; some driver setups
    // pick the wrong adapter otherwise. Read from the settings store on every
    // call, so a host or a user can switch it while the process runs.
    virtual bool qsvDeviceInitExplicit() const;
};

// The process-wide instance, created on first use and never destroyed before
// exit. Never null. Thread-safe.
KORVANEGPUHARDWAREACCELERATION_EXPORT KorvaneGPUHardwareAcceleration*
KorvaneGPUHardwareAccelerationEntry();

} // namespace Korvane
