// Shared main of the unit tests: a Qt application object for event loops and
// signals, and a private settings file, log and cache so that no test reads
// or changes the user's own.
#include "KorvaneBase/KorvaneBase.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QStandardPaths::setTestModeEnabled(true);
    QTemporaryDir home;
    const QString settingsPath = home.filePath("settings.ini");
    // Children started by tests (fake programs, the worker) see the same store.
    qputenv("KORVANE_SETTINGS_FILE", settingsPath.toUtf8());
    qputenv("KORVANE_LOG_DIR", home.filePath("logs").toUtf8());
    // Programs the tests start keep their job files in a private cache too
    // (this process's own cache is Qt's test folder).
    qputenv("XDG_CACHE_HOME", home.filePath("cache").toUtf8());
    QCoreApplication app(argc, argv);
    Korvane::KorvaneBaseEntry()->settings().setFilePath(settingsPath);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
