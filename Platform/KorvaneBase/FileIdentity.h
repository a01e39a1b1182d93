#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QString>
#include <QStringList>

namespace Korvane {

// True when writing `output` would write the existing file `input`: the two
// paths lead to one file by its identity (device and inode number on POSIX,
// volume serial number and file index on Windows), so hard links, symbolic
// links, "dir/../name" and every other spelling of one file are recognised.
// When `output` does not exist yet, its folder's identity and its file name
// are compared with those of `input`'s real location (the name ignoring case
// where the file system does: Windows, macOS). False when `input` does not
// exist or either path is empty.
KORVANEBASE_EXPORT bool isSameFile(const QString& input, const QString& output);

// The first of `inputs` that isSameFile as `output`; empty when none is.
KORVANEBASE_EXPORT QString inputThatIs(const QStringList& inputs, const QString& output);

} // namespace Korvane
