#include "PictureSubtitleWriter.h"

#include "KvAVGlue/KvAVGlue.h"

#include <cstring>

namespace SubtitleTest {

bool writePictureSubtitles(const QString& path, const QSize& plane, const QList<BoxCue>& cues,
                           QString* error, const char* codecName)
{
    *error = QStringLiteral("cannot write %1 subtitles to %2").arg(codecName, path);
    const QByteArray file = path.toUtf8();
    AVFormatContext* raw = nullptr;
    if (avformat_alloc_output_context2(&raw, nullptr, "matroska", file.constData()) < 0) {
        return false;
    }
    auto format = Korvane::makeAVFormatContextPtr(raw);
    const AVCodec* codec = avcodec_find_encoder_by_name(codecName);
    auto encoder = Korvane::makeAVCodecContextPtr(codec);
    AVStream* stream = avformat_new_stream(raw, nullptr);
    if (!codec || !encoder || !stream) {
        return false;
    }
    encoder->width = plane.width();
    encoder->height = plane.height();
    encoder->time_base = stream->time_base = AVRational{1, 1000};
    QByteArray buffer(1 << 20, '\0');
    // A cue is one rectangle of palette index 1 (the cue's colour, opaque);
    // index 0 is clear. An empty subtitle has no rectangle.
    auto write = [&](const BoxCue* cue, int startMs, int lengthMs) {
        auto subtitle = Korvane::makeAVSubtitlePtr();
        subtitle->pts = static_cast<int64_t>(startMs) * 1000;
        subtitle->end_display_time = static_cast<uint32_t>(lengthMs);
        if (cue) {
            const size_t pixels = static_cast<size_t>(cue->box.width()) * cue->box.height();
            subtitle->rects = static_cast<AVSubtitleRect**>(av_mallocz(sizeof(AVSubtitleRect*)));
            AVSubtitleRect* rect = subtitle->rects[0] =
                static_cast<AVSubtitleRect*>(av_mallocz(sizeof(AVSubtitleRect)));
            subtitle->num_rects = 1;
            *rect = {cue->box.x(), cue->box.y(), cue->box.width(), cue->box.height(), 4};
            rect->type = SUBTITLE_BITMAP;
            rect->linesize[0] = rect->w;
            rect->data[0] = static_cast<uint8_t*>(av_malloc(pixels));
            rect->data[1] = static_cast<uint8_t*>(av_mallocz(4 * sizeof(uint32_t)));
            std::memset(rect->data[0], 1, pixels);
            reinterpret_cast<uint32_t*>(rect->data[1])[1] = 0xff000000u | cue->rgb;
        }
        const int size =
            avcodec_encode_subtitle(encoder.data(), reinterpret_cast<uint8_t*>(buffer.data()),
                                    buffer.size(), subtitle.data());
        auto packet = Korvane::makeAVPacketPtr();
        if (size < 0 || av_new_packet(packet.data(), size) < 0) {
            return false;
        }
        std::memcpy(packet->data, buffer.constData(), size);
        packet->pts = packet->dts = startMs;
        packet->duration = lengthMs;
        return av_interleaved_write_frame(raw, packet.data()) >= 0;
    };
    // DVD cues carry their end; DVB streams end a cue with an empty page, as
    // broadcasters send them.
    const bool endsWithEmptyPage = codec->id != AV_CODEC_ID_DVD_SUBTITLE;
    bool ok = avcodec_open2(encoder.data(), codec, nullptr) >= 0 &&
              avcodec_parameters_from_context(stream->codecpar, encoder.data()) >= 0 &&
              avio_open(&raw->pb, file.constData(), AVIO_FLAG_WRITE) >= 0 &&
              avformat_write_header(raw, nullptr) >= 0;
    for (const BoxCue& cue : cues) {
        ok = ok && write(&cue, cue.startMs, cue.endMs - cue.startMs) &&
             (!endsWithEmptyPage || write(nullptr, cue.endMs, 0));
    }
    ok = ok && av_write_trailer(raw) >= 0;
    avio_closep(&raw->pb);
    if (ok) {
        error->clear();
    }
    return ok;
}

} // namespace SubtitleTest
