#include "KorvaneDec/Adapter/PictureFilters.h"

#include "KvAVGlue/KvAVGlue.h"

namespace Korvane {

namespace {

QString escapeWith(const QString& value, const QString& specials)
{
    QString out;
    out.reserve(value.size() * 2);
    for (const QChar c : value) {
        if (specials.contains(c)) {
            out += QLatin1Char('\\');
        }
        out += c;
    }
    return out;
}

} // namespace

QString escapeFilterGraphValue(const QString& value)
{
    // First for the option parser (key=value pairs split at ':'), then for
    // the graph parser (filters split at ',' and ';', labels in brackets).
    const QString optionLevel = escapeWith(value, QStringLiteral("\\':"));
    return escapeWith(optionLevel, QStringLiteral("\\'[],;"));
}

QString deinterlaceFilterText()
{
    return QStringLiteral("yadif=mode=send_frame:deint=interlaced");
}

QString subtitleFilterText(const QString& path, int subtitleOrdinal, qint64 offsetMs, double speed)
{
    const QString draw = QStringLiteral("subtitles=filename=%1:si=%2")
                             .arg(escapeFilterGraphValue(path))
                             .arg(subtitleOrdinal);
    if (offsetMs == 0 && speed == 1.0) {
        return draw;
    }
    // libass takes the frame time as the event clock: turn the timeline time
    // into event time around the drawing, and back.
    const QString seconds = QString::number(offsetMs / 1000.0, 'g', 12);
    if (speed == 1.0) {
        return QStringLiteral("setpts=PTS-%1/TB,%2,setpts=PTS+%1/TB").arg(seconds, draw);
    }
    const QString factor = QString::number(speed, 'g', 12);
    return QStringLiteral("setpts=PTS*%1-%2/TB,%3,setpts=(PTS+%2/TB)/%1")
        .arg(factor, seconds, draw);
}

SubtitleStreamInfo probeSubtitleStream(const QString& path, int streamIndex)
{
    SubtitleStreamInfo info;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr) < 0) {
        return info;
    }
    auto format = makeAVFormatContextPtr(raw);
    if (avformat_find_stream_info(raw, nullptr) < 0 || streamIndex < 0 ||
        streamIndex >= static_cast<int>(raw->nb_streams)) {
        return info;
    }
    const AVStream* stream = raw->streams[streamIndex];
    if (stream->codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE) {
        return info;
    }
    int ordinal = 0;
    for (int i = 0; i < streamIndex; ++i) {
        if (raw->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE) {
            ++ordinal;
        }
    }
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(stream->codecpar->codec_id);
    info.found = true;
    info.ordinal = ordinal;
    info.isBitmap = descriptor && (descriptor->props & AV_CODEC_PROP_BITMAP_SUB);
    return info;
}

} // namespace Korvane
