#include "KorvaneDec/StreamProbing.h"

#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneDec/KorvaneDecLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <cmath>
#include <limits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/display.h>
}

namespace Korvane {
namespace {

bool positiveParts(AVRational r)
{
    return r.num != 0 && r.den != 0;
}

qint32 streamRotation(const AVStream* stream)
{
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
    if (!matrix) {
        return 0;
    }
    return rotationFromDisplayAngle(
        av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix)));
}

} // namespace

qint64 containerDurationMs(int64_t duration)
{
    const int64_t rounding = duration <= std::numeric_limits<int64_t>::max() - 5000 ? 5000 : 0;
    return (duration + rounding) / 1000;
}

qint64 streamDurationMs(int64_t duration, AVRational timeBase)
{
    const double base = timeBase.den == 0 ? 0.0 : av_q2d(timeBase);
    const double ms = static_cast<double>(duration) * base * 1000.0;
    // A stream without a duration (AV_NOPTS_VALUE) or a damaged time base
    // gives a product that no 64-bit integer holds; converting it would be
    // undefined, so it sticks at the limits (what x86 happened to give).
    if (std::isnan(ms)) {
        return 0;
    }
    if (ms >= 9223372036854775808.0) {
        return std::numeric_limits<qint64>::max();
    }
    if (ms < -9223372036854775808.0) {
        return std::numeric_limits<qint64>::min();
    }
    return static_cast<qint64>(ms);
}

AVRational chooseFrameRate(AVRational guessed, AVRational average, AVRational real)
{
    AVRational rate{0, 0};
    if (positiveParts(guessed) && guessed.num / guessed.den <= 120) {
        rate = guessed;
    } else {
        rate = average;
        if (!(positiveParts(average) && average.num / average.den < 121) && positiveParts(real) &&
            real.num / real.den < 120) {
            rate = real;
        }
    }
    if (rate.num <= 0) {
        rate.num = 25;
    }
    if (rate.den <= 0) {
        rate.den = 1;
    }
    if (static_cast<unsigned>(rate.num) / static_cast<unsigned>(rate.den) > 1000) {
        rate = AVRational{25, 1};
    }
    return rate;
}

qint32 rotationFromDisplayAngle(double angle)
{
    double theta = -angle;
    theta -= 360.0 * std::floor(theta / 360.0 + 0.0025);
    const auto degrees = static_cast<qint32>(theta);
    return degrees > 0 ? degrees : 0;
}

bool isAsfFamily(const QString& formatShortName)
{
    return formatShortName.contains(QLatin1String("asf")) ||
           formatShortName.contains(QLatin1String("wmv")) ||
           formatShortName.contains(QLatin1String("wma"));
}

QSharedPointer<VideoStreamInfo> videoStreamInfo(const AVStream* stream, AVFormatContext* context,
                                                int index)
{
    auto info = QSharedPointer<VideoStreamInfo>::create();
    const AVCodecParameters* par = stream->codecpar;
    info->streamIndex = index;
    info->codecId = par->codec_id;
    info->codecTag = par->codec_tag;
    info->pixelFormat = par->format;
    info->width = par->width;
    info->height = par->height;
    info->timeBase = stream->time_base;
    const AVRational rate =
        chooseFrameRate(av_guess_frame_rate(context, const_cast<AVStream*>(stream), nullptr),
                        stream->avg_frame_rate, stream->r_frame_rate);
    info->frameRateNum = rate.num;
    info->frameRateDen = rate.den;
    info->durationMs = streamDurationMs(stream->duration, stream->time_base);
    info->bitRate = par->bit_rate;
    const AVRational sar = positiveParts(stream->sample_aspect_ratio) ? stream->sample_aspect_ratio
                                                                      : par->sample_aspect_ratio;
    info->sarNum = sar.num;
    info->sarDen = sar.den;
    info->rotation = streamRotation(stream);
    info->stillPicture = (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) ? 1 : 0;
    return info;
}

QSharedPointer<AudioStreamInfo> audioStreamInfo(const AVStream* stream, int index)
{
    auto info = QSharedPointer<AudioStreamInfo>::create();
    const AVCodecParameters* par = stream->codecpar;
    info->streamIndex = index;
    info->codecId = par->codec_id;
    info->timeBase = stream->time_base;
    info->sampleFormat = par->format;
    info->channels = par->ch_layout.nb_channels;
    info->sampleRate = par->sample_rate;
    info->durationMs = streamDurationMs(stream->duration, stream->time_base);
    info->bitRate = par->bit_rate;
    info->channelLayout =
        par->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? par->ch_layout.u.mask : 0;
    info->codecTag = par->codec_tag;
    return info;
}

QSharedPointer<StreamInfo> streamInfo(const AVStream* stream, int index)
{
    auto info = QSharedPointer<StreamInfo>::create();
    info->streamIndex = index;
    info->mediaType = stream->codecpar->codec_type;
    info->codecId = stream->codecpar->codec_id;
    info->timeBase = stream->time_base;
    return info;
}

QSharedPointer<MediaDescription> describeMedia(AVFormatContext* context, const QString& filePath,
                                               bool checkFewPackets)
{
    if (!context) {
        return {};
    }
    auto description = QSharedPointer<MediaDescription>::create();
    description->durationMs = containerDurationMs(context->duration);
    description->startTimeMs = context->start_time / 1000;
    description->bitRate = context->bit_rate;
    const bool asf = checkFewPackets && context->iformat &&
                     isAsfFamily(QString::fromUtf8(context->iformat->name));
    if (context->iformat && context->iformat->long_name) {
        description->formatName = QString::fromUtf8(context->iformat->long_name);
    }
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream* stream = context->streams[i];
        const int index = static_cast<int>(i);
        switch (stream->codecpar->codec_type) {
        case AVMEDIA_TYPE_VIDEO: {
            QSharedPointer<VideoStreamInfo> video = videoStreamInfo(stream, context, index);
            // The private reopen of isFewPacketVideo() can only say yes for
            // ASF-family inputs, so other inputs skip it.
            if (description->videoStreams.isEmpty() && video->stillPicture == 0 && asf) {
                video->stillPicture = isFewPacketVideo(filePath, index) ? 1 : 0;
            }
            description->videoStreams.append(video);
            break;
        }
        case AVMEDIA_TYPE_AUDIO:
            description->audioStreams.append(audioStreamInfo(stream, index));
            break;
        case AVMEDIA_TYPE_SUBTITLE: {
            auto subtitle = QSharedPointer<SubtitleStreamInfo>::create();
            subtitle->streamIndex = index;
            if (stream->codecpar->codec_id != AV_CODEC_ID_NONE) {
                const AVCodecDescriptor* descriptor =
                    avcodec_descriptor_get(stream->codecpar->codec_id);
                subtitle->isText = descriptor && (descriptor->props & AV_CODEC_PROP_TEXT_SUB);
            }
            description->subtitleStreams.append(subtitle);
            break;
        }
        default:
            break;
        }
        description->streams.append(streamInfo(stream, index));
    }
    return description;
}

bool isFewPacketVideo(const QString& path, int streamIndex)
{
    FFDemuxer demuxer;
    if (!demuxer.open(path)) {
        return false;
    }
    const QSharedPointer<AVFormatContext> context = demuxer.formatContext();
    if (!context->iformat || !isAsfFamily(QString::fromUtf8(context->iformat->name))) {
        return false;
    }
    const QSharedPointer<AVPacket> packet = makeAVPacketPtr();
    if (!packet) {
        return false;
    }
    int count = 0;
    for (;;) {
        const int result = av_read_frame(context.data(), packet.data());
        if (result == AVERROR_EOF) {
            if (av_seek_frame(context.data(), -1, 0, AVSEEK_FLAG_BACKWARD) < 0) {
                qCDebug(lcKorvaneDec) << "could not rewind" << path;
            }
            return true;
        }
        if (result < 0) {
            return false;
        }
        const bool ofStream = packet->stream_index == streamIndex;
        av_packet_unref(packet.data());
        if (ofStream && ++count > 3) {
            return false;
        }
    }
}

} // namespace Korvane
