#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QMutex>
#include <QString>
#include <QVariant>

#include <memory>

class QSettings;

namespace Korvane {

// The process-wide key-value store for switches such as "kVob_DeMux_Enabled",
// "kFFmpeg_Path" or "kLog_Stderr".
//
// Backed by an INI file. Its location, in order of precedence: the path given
// to setFilePath(), the environment variable KORVANE_SETTINGS_FILE, else
// "Korvane/settings.ini" under the generic configuration location (on Linux
// ~/.config/Korvane/settings.ini), so every program of the host shares it.
// Values are stored as text; read them back with QVariant's conversions
// (toBool, toInt, toString). An absent key reads as an invalid QVariant,
// whose toBool() is false. All members are thread-safe.
class KORVANEBASE_EXPORT Settings
{
public:
    Settings();
    ~Settings();
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    QVariant value(const QString& key) const;
    void setValue(const QString& key, const QVariant& value);
    void remove(const QString& key);
    // Writes pending changes and reads changes made by other processes.
    void sync();

    QString filePath() const;
    // Switches the store to another file (tests, portable installs). Pending
    // changes of the old file are written first.
    void setFilePath(const QString& path);

    static QString defaultFilePath();

private:
    mutable QMutex mMutex;
    std::unique_ptr<QSettings> mStore;
};

} // namespace Korvane
