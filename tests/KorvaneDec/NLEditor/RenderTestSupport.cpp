#include "RenderTestSupport.h"

#include "TestMedia.h"

#include <QDir>
#include <QHash>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QUuid>

namespace RenderTest {

namespace {

QString generate(const QString& name, const QString& args)
{
    return TestMedia::generate("engine/" + name, args.split(QLatin1Char(' ')));
}

// What the ffmpeg program writes to its log (where its measuring filters
// report), or to its output.
QByteArray ffmpegOutput(const QStringList& args, bool log = true)
{
    QProcess process;
    process.start(TestMedia::ffmpeg(), QStringList{"-hide_banner"} + args);
    process.waitForFinished(120000);
    return log ? process.readAllStandardError() : process.readAllStandardOutput();
}

// The number a measuring filter of the ffmpeg program logs, or `otherwise`.
double logged(const QStringList& args, const QString& pattern, double otherwise)
{
    const QRegularExpressionMatch match = QRegularExpression(pattern).match(ffmpegOutput(args));
    return match.hasMatch() ? match.captured(1).toDouble() : otherwise;
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

QString coverJpeg()
{
    return generate("cover.jpg", "-f lavfi -i color=c=blue:size=64x64 -frames:v 1");
}

QString outputPath(const QString& name)
{
    const QString dir = TestMedia::dir() + QStringLiteral("/engine-out");
    QDir().mkpath(dir);
    return dir + QLatin1Char('/') + QUuid::createUuid().toString(QUuid::Id128) + QLatin1Char('-') +
           name;
}

QJsonObject mainClip(const QString& path, qint64 beginMs, qint64 lengthMs, double posMs,
                     double speed, const QString& kind)
{
    return QJsonObject{{"kind", kind},           {"file_path", path},
                       {"track_ref", "track_0"}, {"timeline_pos", posMs},
                       {"range_begin", beginMs}, {"range_length", lengthMs},
                       {"speed", speed},         {"file_audio_stream_index", 1}};
}

QJsonObject transform(int bgW, int bgH)
{
    return QJsonObject{{"bg_size", QStringLiteral("%1,%2").arg(bgW).arg(bgH)}};
}

QJsonObject document(int width, int height, double fps, const QJsonArray& clips)
{
    const QJsonObject trunk{{"id", "track_0"}, {"kind", "video"}, {"trunk", true}};
    return QJsonObject{
        {"preview_param", QJsonObject{{"fps", fps}, {"width", width}, {"height", height}}},
        {"tracks", QJsonArray{trunk}},
        {"clips", clips}};
}

Probe probe(const QString& path, bool countFrames)
{
    QByteArray out;
    QStringList args{"-v", "error", "-show_format", "-show_streams", "-of", "json", path};
    if (countFrames) {
        args.prepend("-count_frames");
    }
    TestMedia::run(TestMedia::ffprobe(), args, &out);
    const QJsonObject root = QJsonDocument::fromJson(out).object();
    Probe p;
    p.formatDuration = root["format"]["duration"].toString().toDouble();
    p.title = root["format"]["tags"]["title"].toString();
    QStringList streams;
    for (const QJsonValue& s : root["streams"].toArray()) {
        const QString type = s["codec_type"].toString();
        const QString codec = s["codec_name"].toString();
        if (type == "attachment" || s["disposition"]["attached_pic"].toInt() == 1) {
            streams.append("cover");
        } else if (type == "video") {
            p.width = s["width"].toInt();
            p.height = s["height"].toInt();
            // Counted by decoding when asked for, else as the container states.
            p.videoFrames = s[countFrames ? "nb_read_frames" : "nb_frames"].toString().toInt();
            const QStringList rate = s["avg_frame_rate"].toString().split('/');
            streams << QString::asprintf("%s %dx%d %d", qPrintable(codec), p.width, p.height,
                                         qRound(rate[0].toDouble() / rate.value(1).toDouble()));
            for (const char* key :
                 {"pix_fmt", "color_primaries", "color_transfer", "color_space", "color_range"}) {
                p.colour += (p.colour.isEmpty() ? "" : " ") + s[key].toString("unknown");
            }
        } else if (type == "audio") {
            ++p.audioStreams;
            p.audioDuration = s["duration"].toString().toDouble();
            streams << codec + " " + s["sample_rate"].toString() + " " +
                           QString::number(s["channels"].toInt());
        }
    }
    p.streams = streams.join(", ");
    return p;
}

bool packetTimesIncrease(const QString& path)
{
    QByteArray out;
    TestMedia::run(
        TestMedia::ffprobe(),
        {"-v", "error", "-show_entries", "packet=stream_index,dts", "-of", "csv=p=0", path}, &out);
    QHash<int, qint64> last;
    for (const QByteArray& line : out.split('\n')) {
        const QList<QByteArray> fields = line.trimmed().split(',');
        if (fields.size() != 2) {
            continue;
        }
        const int stream = fields[0].toInt();
        if (last.contains(stream) && fields[1].toLongLong() <= last.value(stream)) {
            return false;
        }
        last.insert(stream, fields[1].toLongLong());
    }
    return !last.isEmpty();
}

double ssim(const QString& a, const QString& b)
{
    return logged({"-i", a, "-i", b, "-lavfi", "[0:v][1:v]ssim", "-f", "null", "-"},
                  "All:([0-9.]+)", -1.0);
}

double pictureDifference(const QString& a, const QString& b, double atS, const QRect& r)
{
    QByteArray pictures[2];
    for (int i = 0; i < 2; ++i) {
        pictures[i] = ffmpegOutput(
            {"-ss", QString::number(atS), "-i", i ? b : a, "-frames:v", "1", "-vf",
             QString("crop=%1:%2:%3:%4").arg(r.width()).arg(r.height()).arg(r.x()).arg(r.y()), "-f",
             "rawvideo", "-pix_fmt", "rgb24", "-"},
            false);
    }
    if (pictures[0].isEmpty() || pictures[0].size() != pictures[1].size()) {
        return -1.0;
    }
    double sum = 0.0;
    for (int i = 0; i < pictures[0].size(); ++i) {
        sum += std::abs(quint8(pictures[0][i]) - quint8(pictures[1][i]));
    }
    return sum / pictures[0].size();
}

} // namespace RenderTest
