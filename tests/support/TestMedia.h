#pragma once

#include <QString>
#include <QStringList>

// Test media is made at test time with the ffmpeg program, never committed.
namespace TestMedia {

// The folder in the build tree where generated media is kept between runs.
QString dir();

// Runs `ffmpeg -y -hide_banner -loglevel error <args> <path>` unless `path`
// (relative to dir(), or absolute) was made from the same `args` already (they
// are kept beside it in `<path>.args`); writes through a temporary
// name so that concurrent test processes never see half a file. Returns the
// absolute path, or an empty string when ffmpeg failed.
QString generate(const QString& path, const QStringList& args);

// Runs a program to completion; returns its exit code (-1 when it could not
// start or crashed) and stores its standard output in `out` when given.
int run(const QString& program, const QStringList& args, QByteArray* out = nullptr,
        int timeoutMs = 120000);

QString ffmpeg();
QString ffprobe();

// ../shared/media beside the source tree, or empty when it is absent.
QString sharedMediaDir();

} // namespace TestMedia
