#include "KorvaneBase/ChildProcess.h"

#include <QProcess>

namespace Korvane {

void startChildProcess(QProcess& process, const QString& program, const QStringList& arguments,
                       QIODevice::OpenMode mode)
{
    // QProcess would quote the list by its own rules; the command line is
    // built here so that every child sees the splitting windowsCommandLine
    // promises.
    process.setProgram(program);
    process.setArguments({});
    process.setNativeArguments(windowsCommandLine(arguments));
    process.start(mode);
}

} // namespace Korvane
