#include "KorvaneDec/Filters/IAudioFilter.h"

#include "KorvaneDec/Filters/VolumeFilter.h"

namespace Korvane {

IAudioFilter::~IAudioFilter() = default;

std::unique_ptr<IAudioFilter> makeAudioFilter(const QString& name, int value)
{
    if (name == QLatin1String("Volume")) {
        return std::make_unique<VolumeFilter>(value);
    }
    return nullptr;
}

} // namespace Korvane
