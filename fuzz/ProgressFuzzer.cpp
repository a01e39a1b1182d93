// Progress lines are whatever ffmpeg (or a damaged file) put there. Reading
// one never crashes, the end marker always reads as 1.0, and a line that is
// not one key and one value carries no progress.
#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <QLoggingCategory>
#include <QString>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The parser reports unexpected lines on the debug stream.
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace Korvane;
    // The first eight bytes choose the duration, the rest is the line.
    qint64 durationMs = 0;
    if (size >= sizeof durationMs) {
        std::memcpy(&durationMs, data, sizeof durationMs);
        data += sizeof durationMs;
        size -= sizeof durationMs;
    }
    const QString line = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    const float value = parseProgressLine(line, durationMs);
    const bool end = isProgressEnd(line);
    if (end && value != 1.0f) {
        std::abort();
    }
    if (line.trimmed().count(QLatin1Char('=')) != 1 && (value != -1.0f || end)) {
        std::abort();
    }
    if (durationMs < 1 && !end && value != -1.0f) {
        std::abort();
    }
    return 0;
}
