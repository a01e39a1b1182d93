#include "KorvaneDec/Filters/VolumeFilter.h"

#include <QtGlobal>

namespace Korvane {

VolumeFilter::VolumeFilter(int percent) : mPercent(qMax(0, percent)) {}

QString VolumeFilter::name() const
{
    return QStringLiteral("Volume");
}

QString VolumeFilter::graphText() const
{
    if (mPercent == 100) {
        return {};
    }
    return QStringLiteral("volume=%1").arg(QString::number(mPercent / 100.0, 'g', 6));
}

} // namespace Korvane
