#include "KorvaneDec/NLEditor/OutputFormat.h"

#include "Common/Records/OutputRules.h"

#include <QHash>
#include <QStringList>

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Korvane {

QString resolveMuxer(const QString& format, const QString& outputPath)
{
    const QString fromTable = muxerName(format);
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
