#include "KorvaneGPUHardwareAcceleration/GpuDetection.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// A fake /sys in `dir`: each card is {entry, vendor text, device text}; an
// empty text leaves the file out.
QString fakeSysfs(const QTemporaryDir& dir, const QList<QStringList>& cards)
{
    for (const QStringList& card : cards) {
        const QString device = dir.filePath("class/drm/" + card[0] + "/device/");
        QDir().mkpath(device);
        for (const int i : {1, 2}) {
            QFile file(device + (i == 1 ? "vendor" : "device"));
            if (!card[i].isEmpty() && file.open(QIODevice::WriteOnly)) {
                file.write(card[i].toLatin1());
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
    const QList<QPair<QList<QStringList>, QString>> cases{
        {{}, ""},
        {{{"card0", "0x1002\n", "0x73bf\n"}}, ""},
        {{{"card0", "0x8086\n", "0x9a49\n"}}, "Intel GPU [8086:9a49]"},
        {{{"card0", "0x8086\n", "0x9a49\n"}, {"card1", "0x10de\n", "0x1eb8\n"}},
         "NVIDIA GPU [10de:1eb8]"},
        {{{"card10", "0x10de\n", "0x2204\n"}, {"card2", "0x10de\n", "0x1eb8\n"}},
         "NVIDIA GPU [10de:1eb8]"},
        {{{"card0-HDMI-A-1", "0x10de\n", "0x2204\n"},
          {"renderD128", "0x10de\n", "0x2204\n"},
          {"card1", "", "0x2204\n"},
          {"card2", "garbage\n", "0x2204\n"},
          {"card3", "0x8086\n", "0x3e92\n"}},
         "Intel GPU [8086:3e92]"},
        {{{"card0", "10de", "1eb8"}}, "NVIDIA GPU [10de:1eb8]"},
        {{{"card0", "0x8086\n", ""}}, "Intel GPU [8086:0000]"},
    };
    for (const auto& [cards, expected] : cases) {
        QTemporaryDir dir;
        EXPECT_EQ(autoGpuName(fakeSysfs(dir, cards)), expected) << expected.toStdString();
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
