#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QByteArray>
#include <QIODevice>
#include <QList>
#include <QString>
#include <QStringList>

class QProcess;

namespace Korvane {

// Starts `program` in `process` (opened with `mode`) so that it receives
// exactly `arguments`, each element one argument, never through a shell. On
// POSIX the list goes to the program as it is. On Windows, where a program
// gets one command line and splits it itself, the list is handed over as
// windowsCommandLine(arguments). Failure shows the way QProcess shows it
// (state NotRunning, errorOccurred); `process` is not waited for.
KORVANEBASE_EXPORT void startChildProcess(QProcess& process, const QString& program,
                                          const QStringList& arguments,
                                          QIODevice::OpenMode mode = QIODevice::ReadWrite);

// The arguments as one Windows command line tail (program excluded), each
// quoted where needed so that the C runtime's and CommandLineToArgvW's
// splitting give back exactly `arguments`: backslashes before a double quote
// are doubled and an embedded double quote is escaped.
KORVANEBASE_EXPORT QString windowsCommandLine(const QStringList& arguments);

// Splits the complete lines off the front of `buffer` (a child's output as
// it arrives); the unfinished rest stays there. Carriage returns of Windows
// line ends are dropped.
KORVANEBASE_EXPORT QList<QByteArray> takeLines(QByteArray& buffer);

// `relativePath` under the generic cache location, where files handed to
// and from child processes lie; cleaned, not created.
KORVANEBASE_EXPORT QString cacheFolder(const QString& relativePath);

} // namespace Korvane
