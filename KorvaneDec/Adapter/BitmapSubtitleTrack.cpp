#include "KorvaneDec/Adapter/BitmapSubtitleTrack.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QLoggingCategory>

#include <cmath>
#include <cstring>
#include <limits>

// Debug chatter (skipped packets) is off unless QT_LOGGING_RULES turns it on.
Q_LOGGING_CATEGORY(lcBitmapSubtitles, "korvane.adapter.bitmapsubtitles", QtInfoMsg)

namespace Korvane {

namespace {

// Larger than any video frame these subtitles are drawn for (8K).
constexpr int kMaxPlaneSide = 8192;

} // namespace

QList<SubtitleChangeTime> cueChanges(const SubtitleCueTimes& current, const SubtitleCueTimes* next)
{
    QList<SubtitleChangeTime> changes;
    if (next && next->startMs <= current.startMs) {
        return changes;
    }
    changes.append({current.startMs, !current.empty});
    const bool ends = !current.empty && current.endMs > current.startMs;
    if (ends && (!next || current.endMs < next->startMs)) {
        changes.append({current.endMs, false});
    }
    return changes;
}

BitmapSubtitleTrack::~BitmapSubtitleTrack() = default;

std::unique_ptr<BitmapSubtitleTrack> BitmapSubtitleTrack::open(const QString& path, int streamIndex,
                                                               const QSize& fallbackPlane,
                                                               qint64 offsetMs, double speed,
                                                               QString* error)
{
    std::unique_ptr<BitmapSubtitleTrack> track(new BitmapSubtitleTrack);
    track->mPath = path;
    track->mOffsetMs = offsetMs;
    track->mSpeed = speed > 0.0 ? speed : 1.0;
    AVFormatContext* raw = nullptr;
    int ret = avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr);
    if (ret < 0) {
        *error = QStringLiteral("cannot open \"%1\": %2").arg(path, ffErrorText(ret));
        return nullptr;
    }
    track->mFormat = makeAVFormatContextPtr(raw);
    ret = avformat_find_stream_info(raw, nullptr);
    if (ret < 0) {
        *error =
            QStringLiteral("cannot read the streams of \"%1\": %2").arg(path, ffErrorText(ret));
        return nullptr;
    }
    if (streamIndex < 0 || streamIndex >= static_cast<int>(raw->nb_streams) ||
        raw->streams[streamIndex]->codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE) {
        *error =
            QStringLiteral("subtitle stream %1 not found in \"%2\"").arg(streamIndex).arg(path);
        return nullptr;
    }
    // Only the subtitle packets are wanted from this opening of the file.
    for (unsigned i = 0; i < raw->nb_streams; ++i) {
        raw->streams[i]->discard =
            static_cast<int>(i) == streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    const AVStream* stream = raw->streams[streamIndex];
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec) {
        *error = QStringLiteral("no decoder for the subtitles (%1) of \"%2\"")
                     .arg(QString::fromLatin1(avcodec_get_name(stream->codecpar->codec_id)), path);
        return nullptr;
    }
    track->mDecoder = makeAVCodecContextPtr(codec);
    track->mPacket = makeAVPacketPtr();
    if (!track->mDecoder || !track->mPacket) {
        *error = QStringLiteral("out of memory for the subtitles of \"%1\"").arg(path);
        return nullptr;
    }
    ret = avcodec_parameters_to_context(track->mDecoder.data(), stream->codecpar);
    if (ret >= 0) {
        track->mDecoder->pkt_timebase = stream->time_base;
        ret = avcodec_open2(track->mDecoder.data(), codec, nullptr);
    }
    if (ret < 0) {
        *error = QStringLiteral("cannot open the subtitle decoder for \"%1\": %2")
                     .arg(path, ffErrorText(ret));
        return nullptr;
    }
    track->mStream = streamIndex;
    track->mStartUs = raw->start_time == AV_NOPTS_VALUE ? 0 : raw->start_time;
    // DVD subtitles state their plane in the stream header; PGS learns it
    // from the first cue, too late for the filter graph: the video's size is
    // the plane such cues are authored for. So is it when a damaged header
    // states a size no picture has.
    const int width = track->mDecoder->width > 0 ? track->mDecoder->width : stream->codecpar->width;
    const int height =
        track->mDecoder->height > 0 ? track->mDecoder->height : stream->codecpar->height;
    const bool stated =
        width > 0 && height > 0 && width <= kMaxPlaneSide && height <= kMaxPlaneSide;
    track->mPlane = stated ? QSize(width, height) : fallbackPlane;
    if (track->mPlane.isEmpty()) {
        *error = QStringLiteral("the subtitles of \"%1\" have no picture size").arg(path);
        return nullptr;
    }

    track->mClear = makeAVFramePtr();
    track->mClear->width = track->mPlane.width();
    track->mClear->height = track->mPlane.height();
    track->mClear->format = AV_PIX_FMT_RGBA;
    ret = av_frame_get_buffer(track->mClear.data(), 0);
    if (ret < 0) {
        *error = QStringLiteral("out of memory for the subtitles of \"%1\"").arg(path);
        return nullptr;
    }
    for (int y = 0; y < track->mClear->height; ++y) {
        std::memset(track->mClear->data[0] + y * track->mClear->linesize[0], 0,
                    static_cast<size_t>(track->mClear->width) * 4);
    }
    return track;
}

QSharedPointer<AVFrame> BitmapSubtitleTrack::paint(const AVSubtitle& subtitle) const
{
    auto frame = makeAVFramePtr(av_frame_clone(mClear.data()));
    if (!frame || av_frame_make_writable(frame.data()) < 0) {
        return {};
    }
    const int planeW = frame->width;
    const int planeH = frame->height;
    for (unsigned r = 0; r < subtitle.num_rects; ++r) {
        const AVSubtitleRect* rect = subtitle.rects[r];
        if (rect->type != SUBTITLE_BITMAP || !rect->data[0] || !rect->data[1]) {
            continue;
        }
        const auto* palette = reinterpret_cast<const uint32_t*>(rect->data[1]);
        for (int y = 0; y < rect->h; ++y) {
            const int py = rect->y + y;
            if (py < 0 || py >= planeH) {
                continue;
            }
            const uint8_t* indices = rect->data[0] + static_cast<ptrdiff_t>(y) * rect->linesize[0];
            uint8_t* row = frame->data[0] + static_cast<ptrdiff_t>(py) * frame->linesize[0];
            for (int x = 0; x < rect->w; ++x) {
                const int px = rect->x + x;
                if (px < 0 || px >= planeW || indices[x] >= rect->nb_colors) {
                    continue;
                }
                // The palette holds native-endian 0xAARRGGBB.
                const uint32_t argb = palette[indices[x]];
                uint8_t* out = row + px * 4;
                out[0] = (argb >> 16) & 0xff;
                out[1] = (argb >> 8) & 0xff;
                out[2] = argb & 0xff;
                out[3] = argb >> 24;
            }
        }
    }
    return frame;
}

bool BitmapSubtitleTrack::readCue(Cue* cue, QString* error)
{
    AVFormatContext* format = mFormat.data();
    AVPacket* packet = mPacket.data();
    for (;;) {
        int ret = av_read_frame(format, packet);
        if (ret == AVERROR_EOF) {
            return false;
        }
        if (ret < 0) {
            *error = QStringLiteral("reading the subtitles of \"%1\" failed: %2")
                         .arg(mPath, ffErrorText(ret));
            return false;
        }
        if (packet->stream_index != mStream) {
            av_packet_unref(packet);
            continue;
        }
        const AVRational timeBase = format->streams[mStream]->time_base;
        auto subtitle = makeAVSubtitlePtr();
        if (!subtitle) {
            av_packet_unref(packet);
            *error = QStringLiteral("out of memory for the subtitles of \"%1\"").arg(mPath);
            return false;
        }
        int got = 0;
        ret = avcodec_decode_subtitle2(mDecoder.data(), subtitle.data(), &got, packet);
        const qint64 packetPts = packet->pts;
        const qint64 packetDuration = packet->duration;
        av_packet_unref(packet);
        if (ret < 0 || !got) {
            qCDebug(lcBitmapSubtitles) << "skipped a subtitle packet of" << mPath << ret;
            continue;
        }
        qint64 ptsUs = subtitle->pts;
        if (ptsUs == AV_NOPTS_VALUE && packetPts != AV_NOPTS_VALUE) {
            ptsUs = av_rescale_q(packetPts, timeBase, AV_TIME_BASE_Q);
        }
        if (ptsUs == AV_NOPTS_VALUE) {
            qCDebug(lcBitmapSubtitles) << "skipped a subtitle without a time in" << mPath;
            continue;
        }
        // The decoder's end is relative to the packet; a container that
        // states the cue's length (Matroska) leaves it 0.
        qint64 endDisplay = subtitle->end_display_time;
        if (endDisplay == 0 || endDisplay == std::numeric_limits<uint32_t>::max()) {
            endDisplay = packetDuration > 0 ? av_rescale_q(packetDuration, timeBase, {1, 1000}) : 0;
        }
        const double baseMs = (ptsUs - mStartUs) / 1000.0;
        cue->times.startMs = baseMs + subtitle->start_display_time;
        cue->times.endMs = endDisplay > subtitle->start_display_time ? baseMs + endDisplay : -1.0;
        cue->times.empty = true;
        for (unsigned r = 0; r < subtitle->num_rects; ++r) {
            const AVSubtitleRect* rect = subtitle->rects[r];
            if (rect->type == SUBTITLE_BITMAP && rect->w > 0 && rect->h > 0) {
                cue->times.empty = false;
            }
        }
        cue->picture.reset();
        if (!cue->times.empty) {
            cue->picture = paint(*subtitle);
            if (!cue->picture) {
                *error = QStringLiteral("out of memory for the subtitles of \"%1\"").arg(mPath);
                return false;
            }
        }
        return true;
    }
}

bool BitmapSubtitleTrack::produce(QString* error)
{
    while (!mEnded) {
        if (!mHaveCurrent) {
            mHaveCurrent = readCue(&mCurrent, error);
            mEnded = !mHaveCurrent;
            continue;
        }
        Cue following;
        const bool haveFollowing = readCue(&following, error);
        if (!haveFollowing && !error->isEmpty()) {
            return false;
        }
        const QList<SubtitleChangeTime> changes =
            cueChanges(mCurrent.times, haveFollowing ? &following.times : nullptr);
        for (const SubtitleChangeTime& change : changes) {
            const double timelineMs = (change.ms + mOffsetMs) / mSpeed;
            const qint64 ms = std::max<qint64>(0, std::llround(timelineMs));
            const bool shows = change.showsCue && mCurrent.picture;
            mPending.append({ms, shows ? mCurrent.picture : mClear, shows});
        }
        if (haveFollowing) {
            mCurrent = following;
        } else {
            mHaveCurrent = false;
            mEnded = true;
        }
        if (!changes.isEmpty()) {
            return true;
        }
    }
    return false;
}

bool BitmapSubtitleTrack::next(SubtitleChange* change, QString* error)
{
    for (;;) {
        // One change of look-ahead: a later change on the same millisecond
        // replaces the earlier one.
        while (mPending.size() < 2 && produce(error)) {
        }
        if (!error->isEmpty() || mPending.isEmpty()) {
            return false;
        }
        SubtitleChange taken = mPending.takeFirst();
        while (!mPending.isEmpty() && mPending.first().ms <= taken.ms) {
            const SubtitleChange later = mPending.takeFirst();
            taken.picture = later.picture;
            taken.showsCue = later.showsCue;
            while (mPending.isEmpty() && produce(error)) {
            }
            if (!error->isEmpty()) {
                return false;
            }
        }
        if (taken.ms <= mLastMs) {
            // Cues out of order in a damaged file: the picture shown already
            // stays rather than going back in time.
            continue;
        }
        mLastMs = taken.ms;
        *change = taken;
        return true;
    }
}

} // namespace Korvane
