#include "KvMediaInfo/KvMediaInfo.h"

#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneDec/StreamProbing.h"

#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/pixdesc.h>
}

// Each call opens the file exactly once: the facts given out need no
// few-packet check, which would reopen ASF-family files.
namespace Korvane {
namespace {

QString codecName(int codecId)
{
    switch (codecId) {
    case AV_CODEC_ID_H264:
        return QStringLiteral("h264");
    case AV_CODEC_ID_HEVC:
        return QStringLiteral("h265");
    default:
        return QString::fromUtf8(avcodec_get_name(static_cast<AVCodecID>(codecId)));
    }
}

// Every entry of the container's metadata dictionary.
QMap<QString, QString> containerMetadata(const AVFormatContext* context)
{
    QMap<QString, QString> tags;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(context->metadata, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        tags.insert(QString::fromUtf8(entry->key), QString::fromUtf8(entry->value));
    }
    return tags;
}

// A container without a duration carries FFmpeg's no-value marker, which the
// probing arithmetic turns into a huge negative number: callers get 0.
qint64 knownDurationMs(qint64 durationMs)
{
    return durationMs > 0 ? durationMs : 0;
}

// Opens the file once with `demuxer` and describes it; null when it cannot
// be read. The demuxer keeps the file open for the facts the description
// does not carry.
QSharedPointer<MediaDescription> openAndDescribe(FFDemuxer* demuxer, const QString& path)
{
    if (!demuxer->open(path) || !demuxer->formatContext()) {
        return {};
    }
    return describeMedia(demuxer->formatContext().data(), path, false);
}

} // namespace

QSharedPointer<MediaInfoV3> getMediaInfo(const QString& path, int hint, bool probeStreams)
{
    Q_UNUSED(hint)
    Q_UNUSED(probeStreams)
    FFDemuxer demuxer;
    const QSharedPointer<MediaDescription> description = openAndDescribe(&demuxer, path);
    if (!description) {
        return {};
    }
    const QSharedPointer<AVFormatContext> context = demuxer.formatContext();
    auto info = QSharedPointer<MediaInfoV3>::create();
    info->filePath = path;
    info->formatName = context->iformat ? QString::fromUtf8(context->iformat->name) : QString();
    info->durationMs = knownDurationMs(description->durationMs);
    info->metadata = containerMetadata(context.data());
    for (const QSharedPointer<VideoStreamInfo>& video : description->videoStreams) {
        MediaInfoVideoStream stream;
        stream.index = video->streamIndex;
        stream.codecName = codecName(video->codecId);
        stream.width = video->width;
        stream.height = video->height;
        stream.rotation = video->rotation;
        stream.sarNum = video->sarNum;
        stream.sarDen = video->sarDen;
        const AVPixFmtDescriptor* pixel =
            av_pix_fmt_desc_get(static_cast<AVPixelFormat>(video->pixelFormat));
        if (pixel) {
            stream.pixelFormat = QString::fromUtf8(pixel->name);
            stream.bitDepth = pixel->comp[0].depth;
        }
        stream.colorSpace = context->streams[video->streamIndex]->codecpar->color_space;
        info->videoStreams.append(stream);
    }
    for (const QSharedPointer<AudioStreamInfo>& audio : description->audioStreams) {
        MediaInfoAudioStream stream;
        stream.index = audio->streamIndex;
        stream.codecName = codecName(audio->codecId);
        stream.channels = audio->channels;
        stream.sampleRate = audio->sampleRate;
        info->audioStreams.append(stream);
    }
    return info;
}

QSharedPointer<ContainerInfo> getContainInfo(const QString& path, bool computeDuration)
{
    FFDemuxer demuxer;
    const QSharedPointer<MediaDescription> description = openAndDescribe(&demuxer, path);
    if (!description) {
        return {};
    }
    const QSharedPointer<AVFormatContext> context = demuxer.formatContext();
    auto info = QSharedPointer<ContainerInfo>::create();
    info->durationMs = knownDurationMs(description->durationMs);
    for (const QSharedPointer<VideoStreamInfo>& video : description->videoStreams) {
        const AVStream* avStream = context->streams[video->streamIndex];
        ContainerVideoStream stream;
        stream.index = video->streamIndex;
        stream.frameRateNum = avStream->avg_frame_rate.num;
        stream.frameRateDen = avStream->avg_frame_rate.den;
        stream.durationMs = computeDuration ? video->durationMs : 0;
        stream.attachedPic = (avStream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        const auto width = static_cast<qint32>(
            std::trunc(video->width * MediaInfoVideoStream::sarOf(video->sarNum, video->sarDen)));
        const bool sideways = video->rotation == 90 || video->rotation == 270;
        stream.displayWidth = sideways ? video->height : width;
        stream.displayHeight = sideways ? width : video->height;
        info->videoStreams.append(stream);
    }
    for (const QSharedPointer<AudioStreamInfo>& audio : description->audioStreams) {
        ContainerAudioStream stream;
        stream.index = audio->streamIndex;
        stream.durationMs = computeDuration ? audio->durationMs : 0;
        info->audioStreams.append(stream);
    }
    return info;
}

qint64 mediaDuration(const QString& path)
{
    // The container duration alone: no stream needs describing.
    FFDemuxer demuxer;
    if (!demuxer.open(path)) {
        return 0;
    }
    return knownDurationMs(containerDurationMs(demuxer.formatContext()->duration));
}

} // namespace Korvane
