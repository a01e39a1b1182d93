#include "KorvaneBase/ProgramLocation.h"

#include "KorvaneBase/KorvaneBase.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace Korvane {

QString locateProgram(const QString& settingsKey, const QString& name)
{
    const QString configured = KorvaneBaseEntry()->settings().value(settingsKey).toString();
    if (!configured.isEmpty()) {
        return configured;
    }
#ifdef Q_OS_WIN
    const QString fileName = name + QStringLiteral(".exe");
#else
    const QString& fileName = name;
#endif
    const QString bundled = QDir(QCoreApplication::applicationDirPath()).filePath(fileName);
    if (QFileInfo(bundled).isExecutable()) {
        return bundled;
    }
    const QString onPath = QStandardPaths::findExecutable(fileName);
    return onPath.isEmpty() ? bundled : onPath;
}

} // namespace Korvane
