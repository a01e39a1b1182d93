#include "NLEditor/OutputFormat.h"

#include <QHash>
#include <QStringList>

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Korvane {

QString muxerForFormat(const QString& format)
{
    static const QHash<QString, QString> table = {
        {"mp4", "mp4"},     {"mov", "mov"},         {"mkv", "matroska"},
        {"m4v", "mp4"},     {"avi", "avi"},         {"hevc", "hevc"},
        {"hevc2", "hevc2"}, {"wmv", "asf"},         {"divx", "divx"},
        {"mxf", "mxf"},     {"mpg", "mpeg"},        {"mpeg2", "mpeg2"},
        {"dv", "dv"},       {"vob", "vob"},         {"3gp", "3gp"},
        {"3g2", "3g2"},     {"ogv", "ogv"},         {"webm", "webm"},
        {"asf", "asf"},     {"youtube", "youtube"}, {"facebook", "facebook"},
        {"vimeo", "vimeo"}, {"flv", "f4v"},         {"f4v", "f4v"},
        {"swf", "swf"},     {"ts", "mpegts"},       {"trp", "mpegts"},
        {"xvid", "xvid"},   {"m2ts", "mpegts"},     {"mp3", "mp3"},
        {"m4a", "ipod"},    {"wav", "wav"},         {"m4r", "mp4"},
        {"aiff", "aiff"},   {"ape", "ape"},         {"flac", "flac"},
        {"ac3", "ac3"},     {"aac", "mp4"},         {"ogg", "ogg"},
        {"caf", "caf"},     {"au", "au"},           {"mka", "matroska"},
        {"wma", "asf"},     {"opus", "opus"},       {"gif", "gif"},
    };
    return table.value(format.toLower());
}

QString resolveMuxer(const QString& format, const QString& outputPath)
{
    const QString fromTable = muxerForFormat(format);
    if (!fromTable.isEmpty() &&
        av_guess_format(fromTable.toLatin1().constData(), nullptr, nullptr)) {
        return fromTable;
    }
    const AVOutputFormat* byName =
        av_guess_format(nullptr, outputPath.toUtf8().constData(), nullptr);
    return byName ? QString::fromLatin1(byName->name) : QString();
}

bool isAudioOnlyMuxer(const QString& muxer)
{
    static const QStringList audioOnly = {"mp3", "ipod", "wav", "aiff", "ape",  "flac",
                                          "ac3", "ogg",  "caf", "au",   "opus", "adts"};
    return audioOnly.contains(muxer);
}

int qualityForOutput(const QString& videoCodec, int width, int height)
{
    const int start = videoCodec.toLower() == QLatin1String("h264") ? 23 : 28;
    double diagonal = std::sqrt(double(width) * width + double(height) * height);
    const double reference = diagonal > 2000.0 ? 2800.0 : 2000.0;
    diagonal = std::min(diagonal, reference);
    const int value = start - static_cast<int>(std::trunc((1.0 - diagonal / reference) * 10.0));
    return std::max(1, value);
}

QString videoEncoderName(const QString& codec)
{
    const QString name = codec.toLower();
    if (name.isEmpty() || name == QLatin1String("0")) {
        return {};
    }
    if (name == QLatin1String("h264")) {
        return QStringLiteral("libx264");
    }
    if (name == QLatin1String("h265") || name == QLatin1String("hevc")) {
        return QStringLiteral("libx265");
    }
    return name;
}

QString audioEncoderName(const QString& codec)
{
    const QString name = codec.toLower();
    if (name.isEmpty() || name == QLatin1String("0")) {
        return {};
    }
    if (name == QLatin1String("pcm")) {
        return QStringLiteral("pcm_s16le");
    }
    if (name == QLatin1String("adpcm")) {
        return QStringLiteral("adpcm_ima_wav");
    }
    return name;
}

const AVCodec* findEncoder(const QString& name)
{
    const QByteArray latin = name.toLatin1();
    if (const AVCodec* codec = avcodec_find_encoder_by_name(latin.constData())) {
        return codec;
    }
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name(latin.constData());
    return descriptor ? avcodec_find_encoder(descriptor->id) : nullptr;
}

} // namespace Korvane
