#include "PictureSubtitleWriter.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <cstring>

namespace SubtitleTest {

namespace {

// A subtitle of one rectangle, palette index 1 everywhere, index 0 clear.
QSharedPointer<AVSubtitle> boxSubtitle(const BoxCue& cue)
{
    auto subtitle = Korvane::makeAVSubtitlePtr();
    subtitle->rects = static_cast<AVSubtitleRect**>(av_mallocz(sizeof(AVSubtitleRect*)));
    subtitle->rects[0] = static_cast<AVSubtitleRect*>(av_mallocz(sizeof(AVSubtitleRect)));
    subtitle->num_rects = 1;
    subtitle->end_display_time = static_cast<uint32_t>(cue.endMs - cue.startMs);
    subtitle->pts = static_cast<int64_t>(cue.startMs) * 1000;
    AVSubtitleRect* rect = subtitle->rects[0];
    rect->type = SUBTITLE_BITMAP;
    rect->x = cue.box.x();
    rect->y = cue.box.y();
    rect->w = cue.box.width();
    rect->h = cue.box.height();
    rect->nb_colors = 4;
    rect->linesize[0] = rect->w;
    rect->data[0] = static_cast<uint8_t*>(av_malloc(static_cast<size_t>(rect->w) * rect->h));
    rect->data[1] = static_cast<uint8_t*>(av_mallocz(4 * sizeof(uint32_t)));
    std::memset(rect->data[0], 1, static_cast<size_t>(rect->w) * rect->h);
    reinterpret_cast<uint32_t*>(rect->data[1])[1] = 0xff000000u | cue.rgb;
    return subtitle;
}

} // namespace

bool writePictureSubtitles(const QString& path, const QSize& plane, const QList<BoxCue>& cues,
                           QString* error, const char* codecName)
{
    // Each step's result, until the first that fails: it names the error.
    int ret = 0;
    auto step = [&](int result, const char* what) {
        ret = result;
        if (ret < 0 && error->isEmpty()) {
            *error = QStringLiteral("%1: %2").arg(what, Korvane::ffErrorText(ret));
        }
        return ret >= 0;
    };
    error->clear();
    const QByteArray file = path.toUtf8();
    AVFormatContext* raw = nullptr;
    if (!step(avformat_alloc_output_context2(&raw, nullptr, "matroska", file.constData()),
              "muxer")) {
        return false;
    }
    auto format = Korvane::makeAVFormatContextPtr(raw);
    const AVCodec* codec = avcodec_find_encoder_by_name(codecName);
    auto encoder = Korvane::makeAVCodecContextPtr(codec);
    AVStream* stream = avformat_new_stream(raw, nullptr);
    if (!step(codec && encoder && stream ? 0 : AVERROR(EINVAL), codecName)) {
        return false;
    }
    encoder->width = plane.width();
    encoder->height = plane.height();
    encoder->time_base = stream->time_base = AVRational{1, 1000};
    if (!step(avcodec_open2(encoder.data(), codec, nullptr), "encoder") ||
        !step(avcodec_parameters_from_context(stream->codecpar, encoder.data()), "stream") ||
        !step(avio_open(&raw->pb, file.constData(), AVIO_FLAG_WRITE), "open")) {
        return false;
    }
    QByteArray buffer(1 << 20, '\0');
    auto write = [&](const AVSubtitle* subtitle, int startMs, int lengthMs) {
        const int size = avcodec_encode_subtitle(
            encoder.data(), reinterpret_cast<uint8_t*>(buffer.data()), buffer.size(), subtitle);
        auto packet = Korvane::makeAVPacketPtr();
        if (!step(size, "encode") || !step(av_new_packet(packet.data(), size), "packet")) {
            return false;
        }
        std::memcpy(packet->data, buffer.constData(), size);
        packet->pts = packet->dts = av_rescale_q(startMs, {1, 1000}, stream->time_base);
        packet->duration = av_rescale_q(lengthMs, {1, 1000}, stream->time_base);
        return step(av_interleaved_write_frame(raw, packet.data()), "write");
    };
    // DVD cues carry their end; DVB streams end a cue with an empty page, as
    // broadcasters send them.
    const bool endsWithEmptyPage = codec->id != AV_CODEC_ID_DVD_SUBTITLE;
    bool ok = step(avformat_write_header(raw, nullptr), "header");
    for (const BoxCue& cue : cues) {
        ok = ok && write(boxSubtitle(cue).data(), cue.startMs, cue.endMs - cue.startMs);
        if (ok && endsWithEmptyPage) {
            const auto empty = Korvane::makeAVSubtitlePtr();
            empty->pts = static_cast<int64_t>(cue.endMs) * 1000;
            ok = write(empty.data(), cue.endMs, 0);
        }
    }
    ok = ok && step(av_write_trailer(raw), "trailer");
    avio_closep(&raw->pb);
    return ok;
}

} // namespace SubtitleTest
