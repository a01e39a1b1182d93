#include "KorvaneGPUHardwareAcceleration/GpuDetection.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// A fake /sys in `dir`: cards between ';', each "entry vendor device", "-" for
// a file left out; numbers with "0x" end with a newline as the kernel writes them.
QString fakeSysfs(const QTemporaryDir& dir, const QString& cards)
{
    for (const QString& card : cards.split(';', Qt::SkipEmptyParts)) {
        const QStringList f = card.split(' ');
        const QString device = dir.filePath("class/drm/" + f[0] + "/device/");
        QDir().mkpath(device);
        for (const int i : {1, 2}) {
            QFile file(device + (i == 1 ? "vendor" : "device"));
            if (f[i] != "-" && file.open(QIODevice::WriteOnly)) {
                file.write((f[i] + (f[i].startsWith("0x") ? "\n" : "")).toLatin1());
            }
        }
    }
    return dir.path();
}

} // namespace

// Cards in numeric order, connectors, render nodes and entries without a
// readable vendor skipped; the command builder looks for the maker word.
TEST(GpuDetection, AutoPrefersNvidiaThenIntelAndNeverAnotherMaker)
{
    const QList<QPair<QString, QString>> cases{
        {"", ""},
        {"card0 0x1002 0x73bf", ""},
        {"card0 0x8086 0x9a49", "Intel GPU [8086:9a49]"},
        {"card0 0x8086 0x9a49;card1 0x10de 0x1eb8", "NVIDIA GPU [10de:1eb8]"},
        {"card10 0x10de 0x2204;card2 0x10de 0x1eb8", "NVIDIA GPU [10de:1eb8]"},
        {"card0-HDMI-A-1 0x10de 0x2204;renderD128 0x10de 0x2204;card1 - 0x2204;card2 garbage "
         "0x2204;card3 0x8086 0x3e92",
         "Intel GPU [8086:3e92]"},
        {"card0 0x8086 -", "Intel GPU [8086:0000]"},
    };
    for (const auto& [cards, expected] : cases) {
        QTemporaryDir dir;
        EXPECT_EQ(autoGpuName(fakeSysfs(dir, cards)), expected) << cards.toStdString();
    }
}

// The stored value as the settings file spells it; absent means no.
TEST(QsvDeviceSwitch, FollowsTheStoredValueAndAbsentMeansNo)
{
    Settings& settings = KorvaneBaseEntry()->settings();
    for (const auto& [stored, expected] :
         {std::pair{"1", true}, {"true", true}, {"0", false}, {"", false}}) {
        settings.setValue("kQsv_InitDevice_Explicit", stored);
        if (!*stored) {
            settings.remove("kQsv_InitDevice_Explicit");
        }
        EXPECT_EQ(KorvaneGPUHardwareAccelerationEntry()->qsvDeviceInitExplicit(), expected)
            << stored;
    }
}
