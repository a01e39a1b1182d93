#pragma once

#include "Common/Records/ConvertSource.h"
#include "Common/Records/RecordsExport.h"

#include <QString>
#include <QStringList>

namespace Korvane {

// Every file the job reads, in this order: the source, each watermark
// picture, the cover picture, each attached audio and subtitle file, the
// mosaic and reframe results, and every file under the effect folder (when
// the effect names a folder). Empty paths are left out.
KORVANERECORDS_EXPORT QStringList jobInputFiles(const ConvertSource& source);

// The first of jobInputFiles(source) that writing `outputPath` would
// overwrite (the same file by identity, see isSameFile); empty when none.
KORVANERECORDS_EXPORT QString inputOverwrittenBy(const ConvertSource& source,
                                                 const QString& outputPath);

} // namespace Korvane
