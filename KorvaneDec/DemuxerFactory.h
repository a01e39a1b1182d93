#pragma once

#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneDec/KorvaneDecExport.h"

#include <QSharedPointer>
#include <QString>

namespace Korvane {

// A new, unopened demuxer for `path`: an FFVobDemuxer when `forceVob` is true,
// or when the suffix is "vob" (any case) and the setting "kVob_DeMux_Enabled"
// is true; an FFDemuxer otherwise.
KORVANEDEC_EXPORT QSharedPointer<FFDemuxer> createDemuxer(const QString& path, bool forceVob);

} // namespace Korvane
