#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <QDebug>
#include <QLoggingCategory>
#include <QStringList>

namespace Korvane {
namespace {

Q_LOGGING_CATEGORY(lcProgress, "korvane.transcoder.progress")

const QString kProgressKey = QStringLiteral("progress");
const QString kEndValue = QStringLiteral("end");
const QString kOutTimeKey = QStringLiteral("out_time_us");

QStringList splitKeyValue(const QString& line)
{
    return line.trimmed().split(QLatin1Char('='), Qt::KeepEmptyParts, Qt::CaseSensitive);
}

} // namespace

float parseProgressLine(const QString& line, qint64 durationMs)
{
    const QStringList parts = splitKeyValue(line);
    if (parts.size() != 2) {
        qCDebug(lcProgress).nospace() << "unexpected: " << parts;
        return -1.0f;
    }
    const QString& key = parts.at(0);
    const QString& value = parts.at(1);
    if (key == kProgressKey && value == kEndValue) {
        return 1.0f;
    }
    if (key == kOutTimeKey && durationMs >= 1) {
        // Microseconds to milliseconds, then the share of the source duration.
        return float(double(value.toFloat()) / 1000.0 / double(durationMs));
    }
    return -1.0f;
}

bool isProgressEnd(const QString& line)
{
    const QStringList parts = splitKeyValue(line);
    return parts.size() == 2 && parts.at(0) == kProgressKey && parts.at(1) == kEndValue;
}

} // namespace Korvane
