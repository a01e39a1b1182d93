#include "KorvaneBase/ChildProcess.h"

#include <QProcess>

namespace Korvane {

void startChildProcess(QProcess& process, const QString& program, const QStringList& arguments,
                       QIODevice::OpenMode mode)
{
    process.start(program, arguments, mode);
}

} // namespace Korvane
