#include "KorvaneDec/Adapter/MediaSource.h"

#include "KorvaneBase/Record.h"
#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QLoggingCategory>

#include <cmath>

extern "C" {
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

// Debug chatter is off unless QT_LOGGING_RULES turns it on.
Q_LOGGING_CATEGORY(lcMediaSource, "korvane.adapter.mediasource", QtInfoMsg)

namespace Korvane {

namespace {

// Clockwise display rotation from the display matrix, snapped to quarters.
int displayRotation(const AVStream* stream)
{
    const auto* matrix = reinterpret_cast<const int32_t*>(
        av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
    if (!matrix) {
        return 0;
    }
    const double counterClockwise = av_display_rotation_get(matrix);
    if (std::isnan(counterClockwise)) {
        return 0;
    }
    int clockwise = static_cast<int>(std::lround(-counterClockwise / 90.0)) * 90;
    clockwise %= 360;
    return clockwise < 0 ? clockwise + 360 : clockwise;
}

QSharedPointer<AVCodecContext> openDecoder(const AVStream* stream, QString* error)
{
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec) {
        *error = QStringLiteral("no decoder for stream %1 (%2)")
                     .arg(stream->index)
                     .arg(QString::fromLatin1(avcodec_get_name(stream->codecpar->codec_id)));
        return {};
    }
    auto context = makeAVCodecContextPtr(codec);
    if (!context) {
        *error = QStringLiteral("cannot allocate a decoder");
        return {};
    }
    int ret = avcodec_parameters_to_context(context.data(), stream->codecpar);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("decoder parameters"), ret);
        return {};
    }
    context->pkt_timebase = stream->time_base;
    context->thread_count = 0;
    ret = avcodec_open2(context.data(), codec, nullptr);
    if (ret < 0) {
        *error = ffFailure(
            QStringLiteral("cannot open the %1 decoder").arg(QString::fromLatin1(codec->name)),
            ret);
        return {};
    }
    return context;
}

// A frame's length in `timeBase`: its samples, or one frame period (25 per
// second when the stream does not say).
qint64 frameDuration(const AVFrame& frame, AVRational frameRate, AVRational timeBase)
{
    if (frame.sample_rate > 0) {
        return av_rescale_q(frame.nb_samples, AVRational{1, frame.sample_rate}, timeBase);
    }
    const AVRational period =
        frameRate.num > 0 && frameRate.den > 0 ? av_inv_q(frameRate) : AVRational{1, 25};
    return av_rescale_q(1, period, timeBase);
}

bool isFullRangeFormat(AVPixelFormat format)
{
    return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P ||
           format == AV_PIX_FMT_YUVJ444P || format == AV_PIX_FMT_YUVJ440P ||
           format == AV_PIX_FMT_YUVJ411P;
}

void describeColour(const AVCodecParameters* par, AVPixelFormat format, VideoStreamFacts* facts)
{
    facts->primaries = par->color_primaries;
    facts->transfer = par->color_trc;
    facts->matrix = par->color_space;
    facts->range = isFullRangeFormat(format) ? AVCOL_RANGE_JPEG : par->color_range;
}

int chooseAudioStream(AVFormatContext* format, int choice)
{
    if (choice >= 0 && choice < static_cast<int>(format->nb_streams) &&
        format->streams[choice]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
        return choice;
    }
    if (choice >= 0) {
        int seen = 0;
        for (unsigned i = 0; i < format->nb_streams; ++i) {
            if (format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO &&
                seen++ == choice) {
                return static_cast<int>(i);
            }
        }
    }
    return av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
}

} // namespace

MediaSource::~MediaSource()
{
    logSkipped(mVideoCounts, mVideo.streamIndex, "video");
    logSkipped(mAudioCounts, mAudio.streamIndex, "audio");
}

void MediaSource::logSkipped(const StreamCounts& counts, int streamIndex, const char* kind) const
{
    if (counts.skipped == 0) {
        return;
    }
    Korvane::Record("Korvane::MediaSource::next", __LINE__, "KorvaneDec/Adapter/MediaSource",
                    nullptr, 0)
        << QStringLiteral("skipped %1 undecodable packets of the %2 stream #%3 of \"%4\"")
               .arg(counts.skipped)
               .arg(QLatin1String(kind))
               .arg(streamIndex)
               .arg(mPath);
}

std::unique_ptr<MediaSource> MediaSource::open(const QString& path, bool wantVideo, bool wantAudio,
                                               int audioChoice, QString* error)
{
    std::unique_ptr<MediaSource> source(new MediaSource);
    source->mPath = path;
    AVFormatContext* raw = nullptr;
    int ret = avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr);
    if (ret < 0) {
        *error = QStringLiteral("cannot open \"%1\": %2").arg(path, ffErrorText(ret));
        return nullptr;
    }
    source->mFormat = makeAVFormatContextPtr(raw);
    ret = avformat_find_stream_info(raw, nullptr);
    if (ret < 0) {
        *error =
            QStringLiteral("cannot read the streams of \"%1\": %2").arg(path, ffErrorText(ret));
        return nullptr;
    }
    source->mStartUs = raw->start_time == AV_NOPTS_VALUE ? 0 : raw->start_time;

    for (unsigned i = 0; i < raw->nb_streams; ++i) {
        raw->streams[i]->discard = AVDISCARD_ALL;
    }
    if (wantVideo) {
        for (unsigned i = 0; i < raw->nb_streams; ++i) {
            AVStream* stream = raw->streams[i];
            // A stream whose format no packet revealed has nothing to show.
            if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO ||
                (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) ||
                stream->codecpar->format == AV_PIX_FMT_NONE) {
                continue;
            }
            source->mVideoDecoder = openDecoder(stream, error);
            if (!source->mVideoDecoder) {
                *error = QStringLiteral("\"%1\": %2").arg(path, *error);
                return nullptr;
            }
            stream->discard = AVDISCARD_DEFAULT;
            VideoStreamFacts& facts = source->mVideo;
            facts.streamIndex = stream->index;
            facts.width = source->mVideoDecoder->width;
            facts.height = source->mVideoDecoder->height;
            facts.pixelFormat = source->mVideoDecoder->pix_fmt;
            facts.sampleAspect = av_guess_sample_aspect_ratio(raw, stream, nullptr);
            facts.timeBase = stream->time_base;
            facts.frameRate = av_guess_frame_rate(raw, stream, nullptr);
            facts.rotation = displayRotation(stream);
            const AVFieldOrder order = stream->codecpar->field_order;
            facts.interlaced = order == AV_FIELD_TT || order == AV_FIELD_BB ||
                               order == AV_FIELD_TB || order == AV_FIELD_BT;
            describeColour(stream->codecpar, facts.pixelFormat, &facts);
            break;
        }
    }
    if (wantAudio) {
        const int index = chooseAudioStream(raw, audioChoice);
        if (index >= 0) {
            AVStream* stream = raw->streams[index];
            source->mAudioDecoder = openDecoder(stream, error);
            if (!source->mAudioDecoder) {
                *error = QStringLiteral("\"%1\": %2").arg(path, *error);
                return nullptr;
            }
            stream->discard = AVDISCARD_DEFAULT;
            AudioStreamFacts& facts = source->mAudio;
            facts.streamIndex = index;
            facts.sampleRate = source->mAudioDecoder->sample_rate;
            facts.sampleFormat = source->mAudioDecoder->sample_fmt;
            facts.channels = source->mAudioDecoder->ch_layout.nb_channels;
            facts.channelMask = source->mAudioDecoder->ch_layout.order == AV_CHANNEL_ORDER_NATIVE
                                    ? source->mAudioDecoder->ch_layout.u.mask
                                    : 0;
            facts.timeBase = stream->time_base;
        }
    }
    source->mPacket = makeAVPacketPtr();
    qCDebug(lcMediaSource) << "opened" << path << "video" << source->mVideo.streamIndex << "audio"
                           << source->mAudio.streamIndex;
    return source;
}

qint64 MediaSource::durationMs() const
{
    return mFormat->duration == AV_NOPTS_VALUE ? 0 : mFormat->duration / 1000;
}

QList<qint64> MediaSource::announcedLengthsMs() const
{
    QList<qint64> lengths;
    if (durationMs() > 0) {
        lengths.append(durationMs());
    }
    for (unsigned i = 0; i < mFormat->nb_streams; ++i) {
        const AVStream* stream = mFormat->streams[i];
        const AVMediaType type = stream->codecpar->codec_type;
        if ((type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO) &&
            !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC) &&
            stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
            lengths.append(av_rescale_q(stream->duration, stream->time_base, AVRational{1, 1000}));
        }
    }
    return lengths;
}

QSharedPointer<AVFrame> MediaSource::attachedPicture(QString* error) const
{
    for (unsigned i = 0; i < mFormat->nb_streams; ++i) {
        const AVStream* stream = mFormat->streams[i];
        if (!(stream->disposition & AV_DISPOSITION_ATTACHED_PIC) ||
            stream->attached_pic.size <= 0) {
            continue;
        }
        auto decoder = openDecoder(stream, error);
        if (!decoder) {
            return {};
        }
        auto frame = makeAVFramePtr();
        int ret = avcodec_send_packet(decoder.data(), &stream->attached_pic);
        if (ret >= 0) {
            ret = avcodec_send_packet(decoder.data(), nullptr);
        }
        if (ret >= 0) {
            ret = avcodec_receive_frame(decoder.data(), frame.data());
        }
        if (ret < 0) {
            *error = ffFailure(
                QStringLiteral("cannot decode the attached picture of \"%1\"").arg(mPath), ret);
            return {};
        }
        return frame;
    }
    return {};
}

bool MediaSource::seek(qint64 ms, QString* error)
{
    const int ret = av_seek_frame(mFormat.data(), -1, mStartUs + ms * 1000, AVSEEK_FLAG_BACKWARD);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot seek \"%1\" to %2 ms").arg(mPath).arg(ms), ret);
        return false;
    }
    if (mVideoDecoder) {
        avcodec_flush_buffers(mVideoDecoder.data());
    }
    if (mAudioDecoder) {
        avcodec_flush_buffers(mAudioDecoder.data());
    }
    mDraining = mVideoDrained = mAudioDrained = false;
    mNextVideoPts = av_rescale_q(ms, AVRational{1, 1000}, mVideo.timeBase);
    mNextAudioPts = av_rescale_q(ms, AVRational{1, 1000}, mAudio.timeBase);
    mSeeked = true;
    if (mPacketPending) {
        av_packet_unref(mPacket.data());
        mPacketPending = false;
    }
    return true;
}

bool MediaSource::receive(AVCodecContext* decoder, bool isVideo, DecodedFrame* out, QString* error)
{
    StreamCounts& counts = isVideo ? mVideoCounts : mAudioCounts;
    auto frame = makeAVFramePtr();
    int ret = avcodec_receive_frame(decoder, frame.data());
    // A frame the decoder lost is skipped; the next packets resynchronise it.
    while (ret < 0 && ret != AVERROR(EAGAIN) && ret != AVERROR_EOF && ret != AVERROR(ENOMEM)) {
        ++counts.skipped;
        ret = avcodec_receive_frame(decoder, frame.data());
    }
    if (ret == AVERROR(EAGAIN)) {
        return false;
    }
    if (ret == AVERROR_EOF) {
        (isVideo ? mVideoDrained : mAudioDrained) = true;
        return false;
    }
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("decoding \"%1\" failed").arg(mPath), ret);
        return false;
    }
    ++counts.frames;
    const AVRational timeBase = isVideo ? mVideo.timeBase : mAudio.timeBase;
    qint64& nextPts = isVideo ? mNextVideoPts : mNextAudioPts;
    qint64 pts = frame->best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE) {
        pts = frame->pts;
    }
    pts = pts == AV_NOPTS_VALUE ? nextPts : pts - av_rescale_q(mStartUs, AV_TIME_BASE_Q, timeBase);
    frame->pts = pts;
    out->duration = frameDuration(*frame, isVideo ? mVideo.frameRate : AVRational{0, 1}, timeBase);
    nextPts = pts + out->duration;
    out->isVideo = isVideo;
    out->frame = frame;
    out->seconds = pts * av_q2d(timeBase);
    return true;
}

void MediaSource::startDraining()
{
    mDraining = true;
    for (AVCodecContext* decoder : {mVideoDecoder.data(), mAudioDecoder.data()}) {
        if (decoder && avcodec_send_packet(decoder, nullptr) < 0) {
            // Already drained or never fed: nothing more will come out.
            (decoder == mVideoDecoder.data() ? mVideoDrained : mAudioDrained) = true;
        }
    }
}

void MediaSource::checkYield(QString* error) const
{
    const auto skippedText = [](const StreamCounts& counts) {
        return QStringLiteral("%1 undecodable packets").arg(counts.skipped);
    };
    if (mSeeked) {
        return;
    }
    if (mVideoDecoder && mVideoCounts.frames == 0) {
        *error = QStringLiteral("no picture of \"%1\" could be decoded (%2)")
                     .arg(mPath, skippedText(mVideoCounts));
    } else if (mAudioDecoder && mAudioCounts.frames == 0) {
        *error = QStringLiteral("no sound of \"%1\" could be decoded (%2)")
                     .arg(mPath, skippedText(mAudioCounts));
    }
}

// Sends the packet read last to its decoder. A packet the decoder refuses
// is skipped and counted; one it cannot take yet waits for the next call.
bool MediaSource::sendPacket(QString* error)
{
    const bool video = mVideoDecoder && mPacket->stream_index == mVideo.streamIndex;
    const bool audio = mAudioDecoder && mPacket->stream_index == mAudio.streamIndex;
    if (video || audio) {
        const int ret = avcodec_send_packet(video ? mVideoDecoder.data() : mAudioDecoder.data(),
                                            mPacket.data());
        if (ret == AVERROR(EAGAIN)) {
            mPacketPending = true;
            return true;
        }
        if (ret == AVERROR(ENOMEM)) {
            av_packet_unref(mPacket.data());
            *error = ffFailure(QStringLiteral("decoding \"%1\" failed").arg(mPath), ret);
            return false;
        }
        if (ret < 0) {
            ++(video ? mVideoCounts : mAudioCounts).skipped;
        }
    }
    mPacketPending = false;
    av_packet_unref(mPacket.data());
    return true;
}

bool MediaSource::next(DecodedFrame* out, QString* error)
{
    error->clear();
    for (;;) {
        if (mVideoDecoder && !mVideoDrained && receive(mVideoDecoder.data(), true, out, error)) {
            return true;
        }
        if (!error->isEmpty()) {
            return false;
        }
        if (mAudioDecoder && !mAudioDrained && receive(mAudioDecoder.data(), false, out, error)) {
            return true;
        }
        if (!error->isEmpty()) {
            return false;
        }
        if (mDraining) {
            if ((!mVideoDecoder || mVideoDrained) && (!mAudioDecoder || mAudioDrained)) {
                checkYield(error);
                return false;
            }
            continue;
        }
        if (mPacketPending) {
            if (!sendPacket(error)) {
                return false;
            }
            continue;
        }
        const int ret = av_read_frame(mFormat.data(), mPacket.data());
        if (ret == AVERROR(EAGAIN)) {
            continue;
        }
        if (ret < 0) {
            // As the ffmpeg program does, a read error ends the file: what
            // was read so far is kept.
            if (ret != AVERROR_EOF) {
                Korvane::Record("Korvane::MediaSource::next", __LINE__,
                                "KorvaneDec/Adapter/MediaSource", nullptr, 0)
                    << ffFailure(QStringLiteral("reading \"%1\" stopped early, keeping what "
                                                "was read")
                                     .arg(mPath),
                                 ret);
            }
            startDraining();
            continue;
        }
        if (!sendPacket(error)) {
            return false;
        }
    }
}

} // namespace Korvane
