#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"

#include "KorvaneBase/KorvaneBase.h"

namespace Korvane {

bool KorvaneGPUHardwareAcceleration::qsvDeviceInitExplicit() const
{
    return KorvaneBaseEntry()
        ->settings()
        .value(QString::fromLatin1(kQsvInitDeviceExplicitKey))
        .toBool();
}

KorvaneGPUHardwareAcceleration* KorvaneGPUHardwareAccelerationEntry()
{
    static KorvaneGPUHardwareAcceleration instance;
    return &instance;
}

} // namespace Korvane
