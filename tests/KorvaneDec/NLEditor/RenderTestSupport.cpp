#include "RenderTestSupport.h"

#include "TestMedia.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUuid>

namespace RenderTest {

namespace {

QString generate(const QString& name, const QString& args)
{
    return TestMedia::generate("engine/" + name, args.split(QLatin1Char(' ')));
}

} // namespace

QString clipWithSound()
{
    return generate("pattern-tone.mp4",
                    "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -f lavfi -i "
                    "sine=frequency=440:sample_rate=48000:duration=2 -ac 2 -c:v libx264 -pix_fmt "
                    "yuv420p -g 5 -c:a aac -b:a 128k");
}

QString clipWithoutSound()
{
    return generate("pattern.mp4", "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -c:v "
                                   "libx264 -pix_fmt yuv420p -g 5");
}

QString toneFile()
{
    return generate("tone-1k.m4a", "-f lavfi -i sine=frequency=1000:sample_rate=48000:duration=3 "
                                   "-ac 2 -c:a aac -b:a 128k");
}

QString watermarkPng()
{
    return generate("mark.png", "-f lavfi -i color=c=red:size=40x30 -frames:v 1");
}

QString coverJpeg()
{
    return generate("cover.jpg", "-f lavfi -i color=c=blue:size=64x64 -frames:v 1");
}

QString outputPath(const QString& name)
{
    const QString dir = TestMedia::dir() + QStringLiteral("/engine-out");
    QDir().mkpath(dir);
    const QString path = dir + QLatin1Char('/') + QUuid::createUuid().toString(QUuid::Id128) +
                         QLatin1Char('-') + name;
    QFile::remove(path);
    return path;
}

QJsonObject mainClip(const QString& path, qint64 beginMs, qint64 lengthMs, double posMs,
                     double speed, const QString& kind)
{
    return QJsonObject{{"kind", kind},           {"file_path", path},
                       {"track_ref", "track_0"}, {"timeline_pos", posMs},
                       {"range_begin", beginMs}, {"range_length", lengthMs},
                       {"speed", speed},         {"file_audio_stream_index", 1}};
}

QJsonObject transform(int bgW, int bgH, const QString& crop, int rotation, bool flipX, bool flipY)
{
    return QJsonObject{{"bg_size", QStringLiteral("%1,%2").arg(bgW).arg(bgH)},
                       {"crop", crop},
                       {"flip_x", flipX},
                       {"flip_y", flipY},
                       {"rotation", rotation}};
}

QJsonObject document(int width, int height, double fps, const QJsonArray& clips,
                     const QJsonArray& extraTracks)
{
    QJsonArray tracks{QJsonObject{{"id", "track_0"}, {"kind", "video"}, {"trunk", true}}};
    for (const QJsonValue& track : extraTracks) {
        tracks.append(track);
    }
    return QJsonObject{
        {"preview_param", QJsonObject{{"fps", fps}, {"width", width}, {"height", height}}},
        {"tracks", tracks},
        {"clips", clips}};
}

bool ffmpeg(const QStringList& args)
{
    return TestMedia::run(TestMedia::ffmpeg(), QStringList{"-y", "-loglevel", "error"} + args) == 0;
}

Probe probe(const QString& path, bool countFrames)
{
    Probe result;
    QByteArray out;
    QStringList args{"-v", "error", "-show_format", "-show_streams", "-of", "json", path};
    if (countFrames) {
        args.prepend("-count_frames");
    }
    if (TestMedia::run(TestMedia::ffprobe(), args, &out) != 0) {
        return result;
    }
    const QJsonObject root = QJsonDocument::fromJson(out).object();
    const QJsonObject format = root.value("format").toObject();
    result.formatDuration = format.value("duration").toString().toDouble();
    result.tags = format.value("tags").toObject();
    for (const QJsonValue& value : root.value("streams").toArray()) {
        const QJsonObject stream = value.toObject();
        const QString type = stream.value("codec_type").toString();
        if (type == QLatin1String("video")) {
            if (stream.value("disposition").toObject().value("attached_pic").toInt() == 1) {
                ++result.attachedPictures;
                continue;
            }
            ++result.videoStreams;
            result.width = stream.value("width").toInt();
            result.height = stream.value("height").toInt();
            result.videoCodec = stream.value("codec_name").toString();
            result.videoDuration = stream.value("duration").toString().toDouble();
            // Counted by decoding when asked for, else as the container states.
            result.videoFrames =
                stream.value(countFrames ? "nb_read_frames" : "nb_frames").toString().toInt();
            for (const char* key :
                 {"pix_fmt", "color_primaries", "color_transfer", "color_space", "color_range"}) {
                result.colour.append(stream.value(QLatin1String(key)).toString("unknown"));
            }
            const QStringList rate = stream.value("avg_frame_rate").toString().split('/');
            if (rate.size() == 2 && rate[1].toDouble() > 0) {
                result.frameRate = rate[0].toDouble() / rate[1].toDouble();
            }
        } else if (type == QLatin1String("audio")) {
            ++result.audioStreams;
            result.audioCodec = stream.value("codec_name").toString();
            result.audioDuration = stream.value("duration").toString().toDouble();
            result.sampleRate = stream.value("sample_rate").toString().toInt();
            result.channels = stream.value("channels").toInt();
        } else if (type == QLatin1String("attachment")) {
            ++result.attachedPictures;
        }
    }
    return result;
}

bool packetTimesIncrease(const QString& path)
{
    QByteArray out;
    if (TestMedia::run(
            TestMedia::ffprobe(),
            {"-v", "error", "-show_entries", "packet=stream_index,dts", "-of", "csv=p=0", path},
            &out) != 0 ||
        out.isEmpty()) {
        return false;
    }
    QHash<int, qint64> last;
    for (const QByteArray& line : out.split('\n')) {
        const QList<QByteArray> fields = line.trimmed().split(',');
        if (fields.size() != 2) {
            continue;
        }
        const int stream = fields[0].toInt();
        const qint64 dts = fields[1].toLongLong();
        if (last.contains(stream) && dts <= last.value(stream)) {
            return false;
        }
        last.insert(stream, dts);
    }
    return true;
}

namespace {

QString runForStderr(const QStringList& args)
{
    QProcess process;
    process.start(TestMedia::ffmpeg(), args);
    process.waitForFinished(120000);
    return QString::fromUtf8(process.readAllStandardError());
}

} // namespace

double ssim(const QString& a, const QString& b)
{
    const QString log = runForStderr(
        {"-hide_banner", "-i", a, "-i", b, "-lavfi", "[0:v][1:v]ssim", "-f", "null", "-"});
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("All:([0-9.]+)")).match(log);
    return match.hasMatch() ? match.captured(1).toDouble() : -1.0;
}

double meanVolume(const QString& path, double startS, double lengthS)
{
    QStringList args{"-hide_banner", "-ss", QString::number(startS), "-i", path};
    if (lengthS > 0) {
        args << "-t" << QString::number(lengthS);
    }
    args += QStringList{"-vn", "-af", "volumedetect", "-f", "null", "-"};
    const QString log = runForStderr(args);
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("mean_volume: (-?[0-9.]+|-inf) dB")).match(log);
    if (!match.hasMatch() || match.captured(1) == QLatin1String("-inf")) {
        return -200.0;
    }
    return match.captured(1).toDouble();
}

double pictureDifference(const QString& a, const QString& b, double atS, int x, int y, int w, int h)
{
    auto grab = [&](const QString& path, QByteArray* pixels) {
        QProcess process;
        process.start(TestMedia::ffmpeg(),
                      {"-hide_banner", "-loglevel", "error", "-ss", QString::number(atS), "-i",
                       path, "-frames:v", "1", "-vf",
                       QStringLiteral("crop=%1:%2:%3:%4").arg(w).arg(h).arg(x).arg(y), "-f",
                       "rawvideo", "-pix_fmt", "rgb24", "-"});
        process.waitForFinished(60000);
        *pixels = process.readAllStandardOutput();
    };
    QByteArray first;
    QByteArray second;
    grab(a, &first);
    grab(b, &second);
    if (first.isEmpty() || first.size() != second.size()) {
        return -1.0;
    }
    double sum = 0.0;
    for (int i = 0; i < first.size(); ++i) {
        sum +=
            std::abs(static_cast<unsigned char>(first[i]) - static_cast<unsigned char>(second[i]));
    }
    return sum / first.size();
}

} // namespace RenderTest
