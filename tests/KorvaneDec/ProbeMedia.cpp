#include "ProbeMedia.h"

#include "TestMedia.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSaveFile>

namespace ProbeMedia {
namespace {

QStringList video(const QString& size, int seconds)
{
    return {"-f", "lavfi", "-i",
            QString("testsrc2=size=%1:rate=25:duration=%2").arg(size).arg(seconds)};
}

QStringList tone(int seconds)
{
    return {"-f", "lavfi", "-i",
            QString("sine=frequency=440:sample_rate=44100:duration=%1").arg(seconds)};
}

const QStringList kX264{"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"};
const QStringList kX265{"-c:v",         "libx265",         "-preset",  "ultrafast",
                        "-x265-params", "log-level=error", "-pix_fmt", "yuv420p"};

QString writeFile(const QString& name, const QByteArray& bytes)
{
    const QString path = TestMedia::dir() + QLatin1Char('/') + name;
    if (QFileInfo::exists(path)) {
        return path;
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
    if (source.isEmpty()) {
        return {};
    }
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly)) {
        return {};
    }
    return writeFile(target, in.readAll());
}

QString h264(const QString& suffix)
{
    QStringList args = video("320x240", 2) + tone(2) + kX264;
    // FLV carries AAC only at 44.1 kHz and below, which the tone already is.
    args << "-c:a" << (suffix == "avi" ? "libmp3lame" : "aac") << "-shortest";
    return TestMedia::generate("probe/h264." + suffix, args);
}

QString hevc(const QString& suffix)
{
    QStringList args = video("320x240", 2) + tone(2) + kX265;
    args << "-c:a"
         << "aac"
         << "-shortest";
    if (suffix == "mp4" || suffix == "mov" || suffix == "m4v") {
        args << "-tag:v"
             << "hvc1";
    }
    return TestMedia::generate("probe/hevc." + suffix, args);
}

QString rotatedH264(int degrees)
{
    // The muxer writes a display matrix from the rotate tag only when the
    // stream is copied, so the clip is encoded first and tagged second.
    const QString plain =
        TestMedia::generate("probe/plain-for-rotation.mp4", video("320x240", 1) + kX264);
    if (plain.isEmpty()) {
        return {};
    }
    return TestMedia::generate(
        QString("probe/rotated-%1.mp4").arg(degrees),
        {"-i", plain, "-c", "copy", "-metadata:s:v:0", QString("rotate=%1").arg(degrees)});
}

QString anamorphicH264()
{
    return TestMedia::generate("probe/anamorphic.mp4",
                               video("320x240", 1) + kX264 + QStringList{"-vf", "setsar=64/45"});
}

QString tenBit(const QString& codec)
{
    QStringList args = video("320x240", 1);
    if (codec == "hevc") {
        args << "-c:v"
             << "libx265"
             << "-preset"
             << "ultrafast"
             << "-x265-params"
             << "log-level=error"
             << "-tag:v"
             << "hvc1";
    } else {
        args << "-c:v"
             << "libx264"
             << "-preset"
             << "ultrafast";
    }
    args << "-pix_fmt"
         << "yuv420p10le";
    return TestMedia::generate("probe/" + codec + "-10bit.mp4", args);
}

QString toneMp3()
{
    return TestMedia::generate("probe/tone.mp3", tone(2) + QStringList{"-c:a", "libmp3lame"});
}

QString mp3WithCover()
{
    return TestMedia::generate(
        "probe/cover.mp3",
        tone(2) + QStringList{"-f", "lavfi", "-i", "color=c=red:size=64x64:duration=1", "-map", "0",
                              "-map", "1", "-c:a", "libmp3lame", "-c:v", "png", "-frames:v", "1",
                              "-disposition:v", "attached_pic", "-id3v2_version", "3"});
}

QString wmv(int frames)
{
    return TestMedia::generate(
        QString("probe/frames-%1.wmv").arg(frames),
        QStringList{"-f", "lavfi", "-i",
                    QString("color=c=blue:size=64x64:rate=1:duration=%1").arg(frames)} +
            tone(3) + QStringList{"-c:v", "wmv2", "-c:a", "wmav2", "-f", "asf"});
}

QString twoFrameMp4()
{
    return TestMedia::generate(
        "probe/frames-2.mp4",
        QStringList{"-f", "lavfi", "-i", "color=c=blue:size=64x64:rate=1:duration=2"} + tone(3) +
            kX264 + QStringList{"-c:a", "aac"});
}

QString concatenatedVob(int seconds)
{
    const QString part = TestMedia::generate(
        QString("probe/part-%1s.mpg").arg(seconds),
        video("320x240", seconds) + tone(seconds) +
            QStringList{"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "mp2", "-f", "vob"});
    if (part.isEmpty()) {
        return {};
    }
    QFile in(part);
    if (!in.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QByteArray bytes = in.readAll();
    return writeFile(QString("probe/two-runs-%1s.vob").arg(seconds), bytes + bytes);
}

QString hiddenProgramStream(const QString& suffix)
{
    const QString part = concatenatedVob(2);
    QFile in(part);
    if (part.isEmpty() || !in.open(QIODevice::ReadOnly)) {
        return {};
    }
    return writeFile("probe/hidden-ps." + suffix, QByteArray(1200 * 1024, '\0') + in.readAll());
}

double displayMatrixAngle(const QString& path)
{
    QByteArray out;
    TestMedia::run(TestMedia::ffprobe(),
                   {"-v", "error", "-select_streams", "v:0", "-show_entries",
                    "stream_side_data=rotation", "-of", "csv=p=0", path},
                   &out);
    return out.trimmed().toDouble();
}

QString truncatedMp4()
{
    const QString full = h264("mp4");
    QFile in(full);
    if (full.isEmpty() || !in.open(QIODevice::ReadOnly)) {
        return {};
    }
    return writeFile("probe/truncated.mp4", in.readAll().left(in.size() / 2));
}

QString emptyFile()
{
    return writeFile("probe/empty.mp4", QByteArray());
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

QString unusualName()
{
    return copyAs(h264("mp4"), QString::fromUtf8("probe/clip with spaces ÄÖü ünïcødé.mp4"));
}

QString fullHd(int seconds)
{
    return TestMedia::generate(QString("probe/full-hd-%1s.mp4").arg(seconds),
                               video("1920x1080", seconds) + tone(seconds) + kX264 +
                                   QStringList{"-c:a", "aac"});
}

} // namespace ProbeMedia
