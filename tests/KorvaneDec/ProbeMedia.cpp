#include "ProbeMedia.h"

#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSaveFile>

namespace ProbeMedia {
namespace {

QStringList args(const QString& text)
{
    return text.split(QLatin1Char(' '));
}

QString video(int seconds)
{
    return QString("-f lavfi -i testsrc2=size=320x240:rate=25:duration=%1 ").arg(seconds);
}

QString tone(int seconds)
{
    return QString("-f lavfi -i sine=frequency=440:sample_rate=44100:duration=%1 ").arg(seconds);
}

const QString kX264 = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p";
const QString kX265 = "-c:v libx265 -preset ultrafast -x265-params log-level=error";

QByteArray readAll(const QString& path)
{
    QFile in(path);
    return !path.isEmpty() && in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
}

QString writeFile(const QString& name, const QByteArray& bytes)
{
    const QString path = TestMedia::dir() + QLatin1Char('/') + name;
    if (QFileInfo::exists(path) || bytes.isEmpty()) {
        return bytes.isEmpty() ? QString() : path;
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    // Written under a private name and renamed, so that test processes
    // running side by side never see half a file.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
        return {};
    }
    return file.commit() || QFileInfo::exists(path) ? path : QString();
}

} // namespace

QString copyAs(const QString& source, const QString& target)
{
    return writeFile(target, readAll(source));
}

// FLV carries AAC only at 44.1 kHz and below, which the tone already is;
// only the MP4 family takes the hvc1 tag.
QString h264(const QString& suffix)
{
    const QString audio = suffix == "avi" ? " -c:a libmp3lame -shortest" : " -c:a aac -shortest";
    return TestMedia::generate("probe/h264." + suffix, args(video(2) + tone(2) + kX264 + audio));
}

QString hevc(const QString& suffix)
{
    const QString tag = QString("mp4 mov m4v").contains(suffix) ? " -tag:v hvc1" : "";
    return TestMedia::generate("probe/hevc." + suffix,
                               args(video(2) + tone(2) + kX265 + tag + " -c:a aac -shortest"));
}

QString rotatedH264(int degrees)
{
    // The muxer writes a display matrix from the rotate tag only when the
    // stream is copied, so the clip is encoded first and tagged second.
    const QString plain =
        TestMedia::generate("probe/plain-for-rotation.mp4", args(video(1) + kX264));
    return plain.isEmpty() ? QString()
                           : TestMedia::generate(QString("probe/rotated-%1.mp4").arg(degrees),
                                                 {"-i", plain, "-c", "copy", "-metadata:s:v:0",
                                                  QString("rotate=%1").arg(degrees)});
}

QString anamorphicH264()
{
    return TestMedia::generate("probe/anamorphic.mp4",
                               args(video(1) + kX264 + " -vf setsar=64/45"));
}

QString tenBit(const QString& codec)
{
    const QString encoder =
        codec == "hevc" ? kX265 + " -tag:v hvc1" : "-c:v libx264 -preset ultrafast";
    return TestMedia::generate("probe/" + codec + "-10bit.mp4",
                               args(video(1) + encoder + " -pix_fmt yuv420p10le"));
}

QString concatenatedVob(int seconds)
{
    const QString part = TestMedia::generate(
        QString("probe/part-%1s.mpg").arg(seconds),
        args(video(seconds) + tone(seconds) + "-c:v mpeg2video -g 12 -bf 0 -c:a mp2 -f vob"));
    const QByteArray bytes = readAll(part);
    return writeFile(QString("probe/two-runs-%1s.vob").arg(seconds), bytes + bytes);
}

QString hiddenProgramStream(const QString& suffix)
{
    const QByteArray part = readAll(concatenatedVob(2));
    return part.isEmpty()
               ? QString()
               : writeFile("probe/hidden-ps." + suffix, QByteArray(1200 * 1024, '\0') + part);
}

QString truncatedMp4()
{
    const QByteArray full = readAll(h264("mp4"));
    return writeFile("probe/truncated.mp4", full.left(full.size() / 2));
}

QString emptyFile()
{
    QDir().mkpath(TestMedia::dir() + "/probe");
    QFile file(TestMedia::dir() + "/probe/empty.mp4");
    return file.open(QIODevice::WriteOnly) ? file.fileName() : QString();
}

QString randomBytes(const QString& suffix)
{
    QByteArray bytes(64 * 1024, Qt::Uninitialized);
    QRandomGenerator generator(20240611);
    for (char& c : bytes) {
        c = static_cast<char>(generator.bounded(256));
    }
    return writeFile("probe/random." + suffix, bytes);
}

} // namespace ProbeMedia
