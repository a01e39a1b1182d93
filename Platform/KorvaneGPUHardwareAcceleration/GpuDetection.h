#pragma once

#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAccelerationExport.h"

#include <QList>
#include <QString>

namespace Korvane {

// PCI vendor ids of the GPU makers whose encoders the ffmpeg path drives.
constexpr quint32 kPciVendorNvidia = 0x10de;
constexpr quint32 kPciVendorIntel = 0x8086;

// One display device as the kernel lists it under <sysfs>/class/drm/cardN.
struct GpuDevice
{
    QString card; // "card0"
    quint32 vendorId = 0;
    quint32 deviceId = 0;
    // "NVIDIA GPU [10de:2330]", "Intel GPU [8086:3e92]", or the ids alone
    // ("GPU [1002:73bf]") for other makers. The maker word is what the
    // command builder looks for in a GPU name.
    QString name;
};

// Every cardN under `sysfsRoot`/class/drm whose device/vendor file holds a
// hexadecimal PCI vendor id, ordered by card number. Connector entries
// (card0-HDMI-A-1) and render nodes are skipped. A missing or unreadable
// tree gives an empty list. `sysfsRoot` is "/sys" on a real machine; tests
// pass a fake tree.
KORVANEGPUHARDWAREACCELERATION_EXPORT QList<GpuDevice> detectGpus(const QString& sysfsRoot);

// The name of the GPU a host would pick: the first NVIDIA card, else the
// first Intel card; empty when there is neither.
KORVANEGPUHARDWAREACCELERATION_EXPORT QString autoGpuName(const QString& sysfsRoot);

} // namespace Korvane
