#include "KvAVGlue/FFmpegLog.h"

#include "KorvaneBase/Record.h"

#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <cstdio>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace Korvane {
namespace {

std::atomic<int> gMaxLevel{AV_LOG_WARNING};

// FFmpeg writes a line in several calls; each thread gathers its own pieces
// until a newline arrives.
thread_local QByteArray tPendingLine;

void forwardFFmpegLog(void* avcl, int level, const char* format, va_list args)
{
    if (level > gMaxLevel.load(std::memory_order_relaxed)) {
        return;
    }
    char piece[1024];
    int printPrefix = 1;
    av_log_format_line2(avcl, level, format, args, piece, sizeof(piece), &printPrefix);
    tPendingLine += piece;
    qsizetype newline;
    while ((newline = tPendingLine.indexOf('\n')) >= 0) {
        const QByteArray line = tPendingLine.left(newline);
        tPendingLine.remove(0, newline + 1);
        if (!line.trimmed().isEmpty()) {
            Record("av_log", 0, "Platform/KvAVGlue/FFmpegLog", nullptr, level)
                << QString::fromUtf8(line);
        }
    }
}

} // namespace

QString ffErrorText(int code)
{
    char buffer[256] = {0};
    av_strerror(code, buffer, sizeof(buffer));
    return QString::fromUtf8(buffer);
}

QString ffFailure(const QString& what, int code)
{
    return QStringLiteral("%1: %2").arg(what, ffErrorText(code));
}

void ffmpegLogToPLog(int maxLevel)
{
    gMaxLevel.store(maxLevel, std::memory_order_relaxed);
    av_log_set_callback(forwardFFmpegLog);
}

bool logIf_FF_Error(int code, const QString& message, const QString& function, int line,
                    const QString& file, const QObject* object)
{
    if (code >= 0) {
        return false;
    }
    Record(function, line, file, object, 0) << message << code << ": " << ffErrorText(code);
    return true;
}

} // namespace Korvane
