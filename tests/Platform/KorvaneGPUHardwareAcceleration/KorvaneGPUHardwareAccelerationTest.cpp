#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"

#include "KorvaneBase/KorvaneBase.h"

#include <QVariant>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

class QsvDeviceSwitch : public ::testing::Test
{
protected:
    void TearDown() override { settings().remove(key()); }
    static Settings& settings() { return KorvaneBaseEntry()->settings(); }
    static QString key()
    {
        return QString::fromLatin1(KorvaneGPUHardwareAcceleration::kQsvInitDeviceExplicitKey);
    }
};

} // namespace

TEST_F(QsvDeviceSwitch, EntryIsOneInstance)
{
    ASSERT_NE(KorvaneGPUHardwareAccelerationEntry(), nullptr);
    EXPECT_EQ(KorvaneGPUHardwareAccelerationEntry(), KorvaneGPUHardwareAccelerationEntry());
}

TEST_F(QsvDeviceSwitch, KeyName)
{
    EXPECT_EQ(key(), QStringLiteral("kQsv_InitDevice_Explicit"));
}

TEST_F(QsvDeviceSwitch, AbsentKeyMeansNo)
{
    settings().remove(key());
    EXPECT_FALSE(KorvaneGPUHardwareAccelerationEntry()->qsvDeviceInitExplicit());
}

TEST_F(QsvDeviceSwitch, FollowsTheStoredValue)
{
    const struct
    {
        QVariant stored;
        bool expected;
    } cases[] = {
        {true, true},
        {false, false},
        {QStringLiteral("true"), true},
        {QStringLiteral("1"), true},
        {QStringLiteral("0"), false},
        {QStringLiteral("false"), false},
    };
    for (const auto& c : cases) {
        settings().setValue(key(), c.stored);
        EXPECT_EQ(KorvaneGPUHardwareAccelerationEntry()->qsvDeviceInitExplicit(), c.expected)
            << c.stored.toString().toStdString();
    }
}

TEST_F(QsvDeviceSwitch, SwitchTakesEffectWithoutRestart)
{
    auto* entry = KorvaneGPUHardwareAccelerationEntry();
    settings().setValue(key(), true);
    EXPECT_TRUE(entry->qsvDeviceInitExplicit());
    settings().remove(key());
    EXPECT_FALSE(entry->qsvDeviceInitExplicit());
}
