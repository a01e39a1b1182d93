#include "PictureSubtitleWriter.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QByteArray>

#include <cstring>

namespace SubtitleTest {

namespace {

bool failed(QString* error, const QString& what, int code)
{
    *error = QStringLiteral("%1: %2").arg(what, Korvane::ffErrorText(code));
    return false;
}

// A subtitle of one rectangle, palette index 1 everywhere, index 0 clear.
QSharedPointer<AVSubtitle> boxSubtitle(const BoxCue& cue)
{
    auto subtitle = Korvane::makeAVSubtitlePtr();
    auto** rects = static_cast<AVSubtitleRect**>(av_mallocz(sizeof(AVSubtitleRect*)));
    auto* rect = static_cast<AVSubtitleRect*>(av_mallocz(sizeof(AVSubtitleRect)));
    if (!subtitle || !rects || !rect) {
        av_free(rects);
        av_free(rect);
        return {};
    }
    subtitle->rects = rects;
    subtitle->rects[0] = rect;
    subtitle->num_rects = 1;
    subtitle->start_display_time = 0;
    subtitle->end_display_time = static_cast<uint32_t>(cue.endMs - cue.startMs);
    subtitle->pts = static_cast<int64_t>(cue.startMs) * 1000;
    rect->type = SUBTITLE_BITMAP;
    rect->x = cue.box.x();
    rect->y = cue.box.y();
    rect->w = cue.box.width();
    rect->h = cue.box.height();
    rect->nb_colors = 4;
    rect->linesize[0] = rect->w;
    rect->data[0] = static_cast<uint8_t*>(av_malloc(static_cast<size_t>(rect->w) * rect->h));
    rect->data[1] = static_cast<uint8_t*>(av_mallocz(4 * sizeof(uint32_t)));
    if (!rect->data[0] || !rect->data[1]) {
        return {};
    }
    std::memset(rect->data[0], 1, static_cast<size_t>(rect->w) * rect->h);
    auto* palette = reinterpret_cast<uint32_t*>(rect->data[1]);
    palette[1] = 0xff000000u | cue.rgb;
    return subtitle;
}

} // namespace

bool writePictureSubtitles(const QString& path, const QSize& plane, const QList<BoxCue>& cues,
                           QString* error, const char* codecName)
{
    const QByteArray file = path.toUtf8();
    AVFormatContext* raw = nullptr;
    int ret = avformat_alloc_output_context2(&raw, nullptr, "matroska", file.constData());
    if (ret < 0) {
        return failed(error, QStringLiteral("muxer"), ret);
    }
    auto format = Korvane::makeAVFormatContextPtr(raw);
    const AVCodec* codec = avcodec_find_encoder_by_name(codecName);
    auto encoder = Korvane::makeAVCodecContextPtr(codec);
    if (!codec || !encoder) {
        *error = QStringLiteral("no encoder %1").arg(QLatin1String(codecName));
        return false;
    }
    encoder->width = plane.width();
    encoder->height = plane.height();
    encoder->time_base = AVRational{1, 1000};
    ret = avcodec_open2(encoder.data(), codec, nullptr);
    if (ret < 0) {
        return failed(error, QStringLiteral("encoder"), ret);
    }
    AVStream* stream = avformat_new_stream(raw, nullptr);
    if (!stream) {
        *error = QStringLiteral("no stream");
        return false;
    }
    ret = avcodec_parameters_from_context(stream->codecpar, encoder.data());
    if (ret < 0) {
        return failed(error, QStringLiteral("stream parameters"), ret);
    }
    stream->time_base = AVRational{1, 1000};
    ret = avio_open(&raw->pb, file.constData(), AVIO_FLAG_WRITE);
    if (ret < 0) {
        return failed(error, QStringLiteral("open"), ret);
    }
    ret = avformat_write_header(raw, nullptr);
    if (ret < 0) {
        avio_closep(&raw->pb);
        return failed(error, QStringLiteral("header"), ret);
    }
    QByteArray buffer(1 << 20, '\0');
    auto write = [&](const AVSubtitle* subtitle, int startMs, int lengthMs) {
        const int size = avcodec_encode_subtitle(
            encoder.data(), reinterpret_cast<uint8_t*>(buffer.data()), buffer.size(), subtitle);
        if (size < 0) {
            return failed(error, QStringLiteral("encode"), size);
        }
        auto packet = Korvane::makeAVPacketPtr();
        int written = av_new_packet(packet.data(), size);
        if (written >= 0) {
            std::memcpy(packet->data, buffer.constData(), size);
            packet->stream_index = stream->index;
            packet->pts = packet->dts =
                av_rescale_q(startMs, AVRational{1, 1000}, stream->time_base);
            packet->duration = av_rescale_q(lengthMs, AVRational{1, 1000}, stream->time_base);
            written = av_interleaved_write_frame(raw, packet.data());
        }
        return written >= 0 || failed(error, QStringLiteral("write"), written);
    };
    // DVD cues carry their end; DVB streams end a cue with an empty page, as
    // broadcasters send them.
    const bool endsWithEmptyPage = codec->id != AV_CODEC_ID_DVD_SUBTITLE;
    for (const BoxCue& cue : cues) {
        const auto subtitle = boxSubtitle(cue);
        bool ok = subtitle && write(subtitle.data(), cue.startMs, cue.endMs - cue.startMs);
        if (ok && endsWithEmptyPage) {
            const auto empty = Korvane::makeAVSubtitlePtr();
            empty->pts = static_cast<int64_t>(cue.endMs) * 1000;
            ok = write(empty.data(), cue.endMs, 0);
        }
        if (!ok) {
            avio_closep(&raw->pb);
            if (error->isEmpty()) {
                *error = QStringLiteral("out of memory");
            }
            return false;
        }
    }
    ret = av_write_trailer(raw);
    avio_closep(&raw->pb);
    return ret >= 0 || failed(error, QStringLiteral("trailer"), ret);
}

} // namespace SubtitleTest
