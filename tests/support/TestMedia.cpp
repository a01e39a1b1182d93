#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QUuid>

#include <cstdio>

namespace TestMedia {

QString dir()
{
    const QString d = QStringLiteral(KORVANE_TEST_MEDIA_DIR);
    QDir().mkpath(d);
    return d;
}

QString ffmpeg()
{
    return QStringLiteral(KORVANE_FFMPEG_PROGRAM);
}

QString ffprobe()
{
    return QStringLiteral(KORVANE_FFPROBE_PROGRAM);
}

int run(const QString& program, const QStringList& args, QByteArray* out, int timeoutMs)
{
    QProcess p;
    p.setProcessChannelMode(out ? QProcess::SeparateChannels : QProcess::ForwardedErrorChannel);
    p.start(program, args);
    if (!p.waitForStarted() || !p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        return -1;
    }
    if (out) {
        *out = p.readAllStandardOutput();
    }
    return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
}

QString generate(const QString& path, const QStringList& args)
{
    const QString target = QFileInfo(path).isAbsolute() ? path : dir() + QLatin1Char('/') + path;
    // The cache is kept between builds: a file made from other arguments under
    // the same name (a test that changed) is made again.
    const QByteArray recipe = args.join(QLatin1Char('\n')).toUtf8();
    QFile recipeFile(target + QStringLiteral(".args"));
    if (QFileInfo::exists(target) && recipeFile.open(QIODevice::ReadOnly) &&
        recipeFile.readAll() == recipe) {
        return target;
    }
    recipeFile.close();
    QDir().mkpath(QFileInfo(target).absolutePath());
    // Keep the suffix so that ffmpeg picks the muxer from the name.
    const QFileInfo info(target);
    const QString temporary = info.absolutePath() + QStringLiteral("/.tmp-") +
                              QUuid::createUuid().toString(QUuid::Id128) + QLatin1Char('.') +
                              info.completeSuffix();
    QStringList full{"-y", "-hide_banner", "-loglevel", "error"};
    full << args << temporary;
    if (run(ffmpeg(), full) != 0) {
        QFile::remove(temporary);
        return {};
    }
    // rename(2) replaces an older file in one step: a test process reading it
    // meanwhile sees the old file or the new one, never none.
    if (std::rename(QFile::encodeName(temporary).constData(),
                    QFile::encodeName(target).constData()) != 0) {
        QFile::remove(temporary);
        return {};
    }
    QSaveFile recipeOut(recipeFile.fileName());
    if (recipeOut.open(QIODevice::WriteOnly)) {
        recipeOut.write(recipe);
        recipeOut.commit();
    }
    return target;
}

QString sharedMediaDir()
{
    const QString d = QStringLiteral(KORVANE_SOURCE_DIR "/../shared/media");
    return QFileInfo(d).isDir() ? QDir(d).canonicalPath() : QString();
}

} // namespace TestMedia
