#include "KorvaneGPUHardwareAcceleration/GpuDetection.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// A fake /sys: cards are given as "entry" -> {vendor text, device text};
// an empty vendor text leaves the vendor file out.
struct FakeCard
{
    QString entry;
    QByteArray vendor;
    QByteArray device;
};

class FakeSysfs
{
public:
    explicit FakeSysfs(const QList<FakeCard>& cards)
    {
        for (const FakeCard& card : cards) {
            const QString deviceDir = root() + "/class/drm/" + card.entry + "/device";
            QDir().mkpath(deviceDir);
            write(deviceDir + "/vendor", card.vendor);
            write(deviceDir + "/device", card.device);
        }
    }
    QString root() const { return mDir.path(); }

private:
    static void write(const QString& path, const QByteArray& text)
    {
        if (text.isEmpty()) {
            return;
        }
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    }
    QTemporaryDir mDir;
};

} // namespace

TEST(GpuDetection, ListsCardsInNumericOrderAndSkipsConnectorsRenderNodesAndBrokenEntries)
{
    FakeSysfs sysfs({{"card10", "0x8086\n", "0x3e92\n"},
                     {"card2", "0x10de\n", "0x2330\n"},
                     {"card2-HDMI-A-1", "0x10de\n", "0x2330\n"},
                     {"renderD128", "0x10de\n", "0x2330\n"},
                     {"card3", "", "0x1234\n"},
                     {"card4", "garbage\n", "0x1234\n"},
                     {"card5", "0x1002\n", "0x73bf\n"}});
    const QList<GpuDevice> devices = detectGpus(sysfs.root());
    ASSERT_EQ(devices.size(), 3);
    EXPECT_EQ(devices[0].card, "card2");
    EXPECT_EQ(devices[0].vendorId, kPciVendorNvidia);
    EXPECT_EQ(devices[0].deviceId, 0x2330u);
    EXPECT_EQ(devices[0].name, "NVIDIA GPU [10de:2330]");
    EXPECT_EQ(devices[1].card, "card5");
    EXPECT_EQ(devices[1].name, "GPU [1002:73bf]");
    EXPECT_EQ(devices[2].card, "card10");
    EXPECT_EQ(devices[2].name, "Intel GPU [8086:3e92]");
}

TEST(GpuDetection, AutoPrefersNvidiaThenIntelAndNeverAnotherMaker)
{
    struct Case
    {
        const char* label;
        QList<FakeCard> cards;
        QString expected;
    };
    const QList<Case> cases = {
        {"no drm folder", {}, ""},
        {"other maker only", {{"card0", "0x1002\n", "0x73bf\n"}}, ""},
        {"intel only", {{"card0", "0x8086\n", "0x9a49\n"}}, "Intel GPU [8086:9a49]"},
        {"intel listed before nvidia",
         {{"card0", "0x8086\n", "0x9a49\n"}, {"card1", "0x10de\n", "0x1eb8\n"}},
         "NVIDIA GPU [10de:1eb8]"},
        {"two nvidia cards: the first",
         {{"card1", "0x10de\n", "0x2204\n"}, {"card0", "0x10de\n", "0x1eb8\n"}},
         "NVIDIA GPU [10de:1eb8]"},
        {"id without newline or prefix", {{"card0", "10de", "1eb8"}}, "NVIDIA GPU [10de:1eb8]"},
        {"missing device id", {{"card0", "0x8086\n", ""}}, "Intel GPU [8086:0000]"},
    };
    for (const Case& c : cases) {
        FakeSysfs sysfs(c.cards);
        EXPECT_EQ(autoGpuName(sysfs.root()), c.expected) << c.label;
    }
}

TEST(GpuDetection, AutoNameCarriesTheMakerWordTheCommandBuilderLooksFor)
{
    FakeSysfs nvidia({{"card0", "0x10de\n", "0x2330\n"}});
    FakeSysfs intel({{"card0", "0x8086\n", "0x3e92\n"}});
    EXPECT_TRUE(autoGpuName(nvidia.root()).contains("NVIDIA"));
    EXPECT_FALSE(autoGpuName(nvidia.root()).contains("Intel"));
    EXPECT_TRUE(autoGpuName(intel.root()).contains("Intel"));
    EXPECT_FALSE(autoGpuName(intel.root()).contains("NVIDIA"));
}
