#include "KorvaneBase/Settings.h"

#include <QMutexLocker>
#include <QSettings>
#include <QStandardPaths>

namespace Korvane {

Settings::Settings()
{
    mStore = std::make_unique<QSettings>(defaultFilePath(), QSettings::IniFormat);
}

Settings::~Settings() = default;

QString Settings::defaultFilePath()
{
    const QString fromEnvironment = qEnvironmentVariable("KORVANE_SETTINGS_FILE");
    if (!fromEnvironment.isEmpty()) {
        return fromEnvironment;
    }
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Korvane/settings.ini");
}

QVariant Settings::value(const QString& key) const
{
    QMutexLocker lock(&mMutex);
    return mStore->value(key);
}

void Settings::setValue(const QString& key, const QVariant& value)
{
    QMutexLocker lock(&mMutex);
    mStore->setValue(key, value);
    mStore->sync();
}

void Settings::remove(const QString& key)
{
    QMutexLocker lock(&mMutex);
    mStore->remove(key);
    mStore->sync();
}

void Settings::sync()
{
    QMutexLocker lock(&mMutex);
    mStore->sync();
}

QString Settings::filePath() const
{
    QMutexLocker lock(&mMutex);
    return mStore->fileName();
}

void Settings::setFilePath(const QString& path)
{
    QMutexLocker lock(&mMutex);
    mStore->sync();
    mStore = std::make_unique<QSettings>(path, QSettings::IniFormat);
}

} // namespace Korvane
