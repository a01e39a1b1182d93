#pragma once

#include "KorvaneDec/Filters/FiltersExport.h"
#include "KorvaneDec/Filters/IAudioFilter.h"

namespace Korvane {

// Volume in percent of the original level: 100 unchanged, 50 about -6 dB,
// 0 silence, above 100 amplified (no limiter: the host caps the control).
class KORVANEFILTERS_EXPORT VolumeFilter : public IAudioFilter
{
public:
    explicit VolumeFilter(int percent);
    QString name() const override;
    QString graphText() const override;
    int percent() const { return mPercent; }

private:
    int mPercent;
};

} // namespace Korvane
