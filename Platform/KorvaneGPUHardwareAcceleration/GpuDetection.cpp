#include "KorvaneGPUHardwareAcceleration/GpuDetection.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QRegularExpression>

#include <algorithm>

namespace Korvane {

namespace {

Q_LOGGING_CATEGORY(lcGpuDetection, "korvane.gpu.detection")

// Reads a sysfs id file such as "0x10de\n"; 0 when absent or not a number.
quint32 readHexId(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    bool ok = false;
    const quint32 value = QString::fromLatin1(file.readAll()).trimmed().toUInt(&ok, 16);
    return ok ? value : 0;
}

QString makerWord(quint32 vendorId)
{
    switch (vendorId) {
    case kPciVendorNvidia:
        return QStringLiteral("NVIDIA ");
    case kPciVendorIntel:
        return QStringLiteral("Intel ");
    default:
        return {};
    }
}

} // namespace

QList<GpuDevice> detectGpus(const QString& sysfsRoot)
{
    static const QRegularExpression cardName(QStringLiteral("^card(\\d+)$"));
    const QDir drm(sysfsRoot + QStringLiteral("/class/drm"));
    QList<QPair<int, GpuDevice>> found;
    for (const QString& entry : drm.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System)) {
        const QRegularExpressionMatch match = cardName.match(entry);
        if (!match.hasMatch()) {
            continue;
        }
        const QString deviceDir = drm.filePath(entry) + QStringLiteral("/device/");
        GpuDevice device;
        device.card = entry;
        device.vendorId = readHexId(deviceDir + QStringLiteral("vendor"));
        if (device.vendorId == 0) {
            qCDebug(lcGpuDetection) << entry << "has no readable PCI vendor id";
            continue;
        }
        device.deviceId = readHexId(deviceDir + QStringLiteral("device"));
        device.name = QStringLiteral("%1GPU [%2:%3]")
                          .arg(makerWord(device.vendorId))
                          .arg(device.vendorId, 4, 16, QLatin1Char('0'))
                          .arg(device.deviceId, 4, 16, QLatin1Char('0'));
        found.append({match.captured(1).toInt(), device});
    }
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    QList<GpuDevice> devices;
    for (const auto& entry : found) {
        devices.append(entry.second);
    }
    return devices;
}

QString autoGpuName(const QString& sysfsRoot)
{
    const QList<GpuDevice> devices = detectGpus(sysfsRoot);
    for (const quint32 vendor : {kPciVendorNvidia, kPciVendorIntel}) {
        for (const GpuDevice& device : devices) {
            if (device.vendorId == vendor) {
                return device.name;
            }
        }
    }
    return {};
}

} // namespace Korvane
