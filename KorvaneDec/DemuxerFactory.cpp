#include "KorvaneDec/DemuxerFactory.h"

#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneDec/FFVobDemuxer.h"

#include <QFileInfo>

namespace Korvane {

QSharedPointer<FFDemuxer> createDemuxer(const QString& path, bool forceVob)
{
    const bool vob =
        forceVob ||
        (QFileInfo(path).suffix().toLower() == QLatin1String("vob") &&
         KorvaneBaseEntry()->settings().value(QStringLiteral("kVob_DeMux_Enabled")).toBool());
    if (vob) {
        return QSharedPointer<FFVobDemuxer>::create();
    }
    return QSharedPointer<FFDemuxer>::create();
}

} // namespace Korvane
