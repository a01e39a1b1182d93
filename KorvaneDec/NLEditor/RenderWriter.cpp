#include "NLEditor/RenderWriter.h"

#include "Common/OutputRules.h"
#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QFile>
#include <QLoggingCategory>

#include <cstring>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/opt.h>
}

// Debug chatter is off unless QT_LOGGING_RULES turns it on.
Q_LOGGING_CATEGORY(lcRenderWriter, "korvane.nleditor.writer", QtInfoMsg)

namespace Korvane {

RenderWriter::RenderWriter(const RenderPlan& plan, const AVTaskOutputParam& out)
    : mPlan(plan), mOut(out), mFrame(makeAVFramePtr())
{}

RenderWriter::~RenderWriter() = default;

bool RenderWriter::openVideo(AVFormatContext* format, QString* error)
{
    mVideoEncoder = makeAVCodecContextPtr(mPlan.videoCodec);
    AVCodecContext* enc = mVideoEncoder.data();
    if (!enc) {
        *error = QStringLiteral("cannot allocate the video encoder");
        return false;
    }
    enc->width = av_buffersink_get_w(mVideoSink);
    enc->height = av_buffersink_get_h(mVideoSink);
    enc->pix_fmt = static_cast<AVPixelFormat>(av_buffersink_get_format(mVideoSink));
    enc->sample_aspect_ratio = AVRational{1, 1};
    enc->color_primaries = mPlan.colour.primaries;
    enc->color_trc = mPlan.colour.transfer;
    enc->colorspace = mPlan.colour.matrix;
    enc->color_range = mPlan.colour.range;
    enc->time_base = av_buffersink_get_time_base(mVideoSink);
    enc->framerate = av_buffersink_get_frame_rate(mVideoSink);
    enc->gop_size = 15;
    if (mOut.video.bitrateKbps >= 1) {
        enc->bit_rate = mOut.video.bitrateKbps * 1000;
        enc->rc_max_rate = enc->bit_rate;
        enc->rc_min_rate = enc->bit_rate;
        enc->rc_buffer_size = static_cast<int>(2 * enc->bit_rate);
    } else {
        const int crf =
            crfQuality(mOut.video.codecName, mPlan.outputSize.width(), mPlan.outputSize.height());
        if (av_opt_set(enc->priv_data, "crf", QByteArray::number(crf).constData(), 0) < 0) {
            qCDebug(lcRenderWriter) << mPlan.videoCodec->name << "has no constant-quality mode";
        }
    }
    if (format->oformat->flags & AVFMT_GLOBALHEADER) {
        enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    int ret = avcodec_open2(enc, mPlan.videoCodec, nullptr);
    if (ret < 0) {
        *error = ffFailure(
            QStringLiteral("cannot open the video encoder %1").arg(mPlan.videoCodec->name), ret);
        return false;
    }
    mVideoStream = avformat_new_stream(format, nullptr);
    if (!mVideoStream) {
        *error = QStringLiteral("cannot add the video stream");
        return false;
    }
    ret = avcodec_parameters_from_context(mVideoStream->codecpar, enc);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot describe the video stream"), ret);
        return false;
    }
    mVideoStream->time_base = enc->time_base;
    mVideoStream->avg_frame_rate = enc->framerate;
    if (enc->codec_id == AV_CODEC_ID_HEVC &&
        (mPlan.muxer == QLatin1String("mp4") || mPlan.muxer == QLatin1String("mov"))) {
        mVideoStream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
    }
    mVideoDone = false;
    return true;
}

bool RenderWriter::openAudio(AVFormatContext* format, QString* error)
{
    mAudioEncoder = makeAVCodecContextPtr(mPlan.audioCodec);
    AVCodecContext* enc = mAudioEncoder.data();
    if (!enc) {
        *error = QStringLiteral("cannot allocate the audio encoder");
        return false;
    }
    enc->sample_rate = mPlan.sampleRate;
    enc->sample_fmt = mPlan.sampleFormat;
    int ret = av_channel_layout_copy(&enc->ch_layout, &mPlan.channelLayout);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot set the channel layout"), ret);
        return false;
    }
    enc->time_base = AVRational{1, mPlan.sampleRate};
    if (mOut.audio.bitrateKbps >= 1) {
        enc->bit_rate = mOut.audio.bitrateKbps * 1000;
    }
    if (format->oformat->flags & AVFMT_GLOBALHEADER) {
        enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    ret = avcodec_open2(enc, mPlan.audioCodec, nullptr);
    if (ret < 0) {
        *error = ffFailure(
            QStringLiteral("cannot open the audio encoder %1").arg(mPlan.audioCodec->name), ret);
        return false;
    }
    if (!(mPlan.audioCodec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) &&
        enc->frame_size > 0) {
        av_buffersink_set_frame_size(mAudioSink, enc->frame_size);
    }
    mAudioStream = avformat_new_stream(format, nullptr);
    if (!mAudioStream) {
        *error = QStringLiteral("cannot add the audio stream");
        return false;
    }
    ret = avcodec_parameters_from_context(mAudioStream->codecpar, enc);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot describe the audio stream"), ret);
        return false;
    }
    mAudioStream->time_base = enc->time_base;
    mAudioDone = false;
    return true;
}

bool RenderWriter::addCover(AVFormatContext* format, QString* error)
{
    const EncodedPicture& cover = mPlan.cover;
    const QString& muxer = mPlan.muxer;
    const bool attachedPicture = muxer == QLatin1String("mp4") || muxer == QLatin1String("mov") ||
                                 muxer == QLatin1String("ipod") || muxer == QLatin1String("mp3");
    if (attachedPicture) {
        mCoverStream = avformat_new_stream(format, nullptr);
        if (!mCoverStream) {
            *error = QStringLiteral("cannot add the cover stream");
            return false;
        }
        mCoverStream->disposition = AV_DISPOSITION_ATTACHED_PIC;
        mCoverStream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
        mCoverStream->codecpar->codec_id = cover.codec;
        mCoverStream->codecpar->width = cover.width;
        mCoverStream->codecpar->height = cover.height;
        mCoverStream->time_base = AVRational{1, 90000};
        return true;
    }
    if (muxer != QLatin1String("matroska")) {
        logRenderNoteOnce(
            QStringLiteral("the container %1 holds no cover picture; writing without it")
                .arg(muxer));
        return true;
    }
    AVStream* attachment = avformat_new_stream(format, nullptr);
    if (!attachment) {
        *error = QStringLiteral("cannot add the cover attachment");
        return false;
    }
    const bool png = cover.codec == AV_CODEC_ID_PNG;
    attachment->codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
    attachment->codecpar->codec_id = png ? AV_CODEC_ID_PNG : AV_CODEC_ID_MJPEG;
    attachment->codecpar->extradata =
        static_cast<uint8_t*>(av_mallocz(cover.data.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!attachment->codecpar->extradata) {
        *error = QStringLiteral("out of memory for the cover");
        return false;
    }
    std::memcpy(attachment->codecpar->extradata, cover.data.constData(), cover.data.size());
    attachment->codecpar->extradata_size = cover.data.size();
    av_dict_set(&attachment->metadata, "filename", png ? "cover.png" : "cover.jpg", 0);
    av_dict_set(&attachment->metadata, "mimetype", png ? "image/png" : "image/jpeg", 0);
    return true;
}

bool RenderWriter::writeCover(AVFormatContext* format, QString* error)
{
    const QByteArray& data = mPlan.cover.data;
    auto packet = makeAVPacketPtr();
    int ret = av_new_packet(packet.data(), data.size());
    if (ret >= 0) {
        std::memcpy(packet->data, data.constData(), data.size());
        packet->stream_index = mCoverStream->index;
        packet->flags |= AV_PKT_FLAG_KEY;
        packet->pts = packet->dts = 0;
        ret = av_interleaved_write_frame(format, packet.data());
    }
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot write the cover picture"), ret);
        return false;
    }
    return true;
}

bool RenderWriter::open(const ProjectDocument& doc, const RenderFilterGraphs& graphs,
                        QString* error)
{
    mVideoSink = graphs.videoSink();
    mAudioSink = graphs.audioSink();
    AVFormatContext* raw = nullptr;
    const QByteArray path = mOut.outputPath.toUtf8();
    int ret = avformat_alloc_output_context2(&raw, nullptr, mPlan.muxer.toLatin1().constData(),
                                             path.constData());
    if (ret < 0 || !raw) {
        *error =
            ffFailure(QStringLiteral("cannot write the container \"%1\"").arg(mPlan.muxer), ret);
        return false;
    }
    mOutput = makeAVFormatContextPtr(raw);
    if ((mPlan.wantVideo && !openVideo(raw, error)) ||
        (mPlan.wantAudio && !openAudio(raw, error)) ||
        (mPlan.cover.codec != AV_CODEC_ID_NONE && !addCover(raw, error))) {
        return false;
    }
    for (auto it = doc.metaData.cbegin(); it != doc.metaData.cend(); ++it) {
        av_dict_set(&raw->metadata, it.key().toUtf8().constData(),
                    it.value().toString().toUtf8().constData(), 0);
    }
    if (!(raw->oformat->flags & AVFMT_NOFILE)) {
        ret = avio_open(&raw->pb, path.constData(), AVIO_FLAG_WRITE);
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("cannot create \"%1\"").arg(mOut.outputPath), ret);
            return false;
        }
    }
    mCreated = true;
    ret = avformat_write_header(raw, nullptr);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot write the %1 header").arg(mPlan.muxer), ret);
        return false;
    }
    return !mCoverStream || writeCover(raw, error);
}

bool RenderWriter::encode(AVCodecContext* encoder, AVStream* stream, AVFrame* frame, QString* error)
{
    int ret = avcodec_send_frame(encoder, frame);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("encoding failed"), ret);
        return false;
    }
    auto packet = makeAVPacketPtr();
    for (;;) {
        ret = avcodec_receive_packet(encoder, packet.data());
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
            return true;
        }
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("encoding failed"), ret);
            return false;
        }
        av_packet_rescale_ts(packet.data(), encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        ret = av_interleaved_write_frame(mOutput.data(), packet.data());
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("writing \"%1\" failed").arg(mOut.outputPath), ret);
            return false;
        }
    }
}

bool RenderWriter::drainVideo(const std::function<void(double)>& progress, QString* error)
{
    AVFrame* frame = mFrame.data();
    while (!mVideoDone) {
        const int ret = av_buffersink_get_frame(mVideoSink, frame);
        if (ret == AVERROR(EAGAIN)) {
            return true;
        }
        if (ret == AVERROR_EOF) {
            mVideoDone = true;
            return encode(mVideoEncoder.data(), mVideoStream, nullptr, error);
        }
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("picture filtering failed"), ret);
            return false;
        }
        frame->pict_type = AV_PICTURE_TYPE_NONE;
        const double ms = frame->pts * av_q2d(mVideoEncoder->time_base) * 1000.0;
        const bool ok = encode(mVideoEncoder.data(), mVideoStream, frame, error);
        av_frame_unref(frame);
        if (!ok) {
            return false;
        }
        mWrittenMs = qMax(mWrittenMs, ms);
        if (progress) {
            progress(qBound(0.0, mWrittenMs / mPlan.durationMs, 1.0));
        }
    }
    return true;
}

bool RenderWriter::drainAudio(const std::function<void(double)>& progress, QString* error)
{
    AVFrame* frame = mFrame.data();
    while (!mAudioDone) {
        const int ret = av_buffersink_get_frame(mAudioSink, frame);
        if (ret == AVERROR(EAGAIN)) {
            return true;
        }
        if (ret == AVERROR_EOF) {
            mAudioDone = true;
            return encode(mAudioEncoder.data(), mAudioStream, nullptr, error);
        }
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("sound filtering failed"), ret);
            return false;
        }
        const AVRational sinkBase = av_buffersink_get_time_base(mAudioSink);
        frame->pts = av_rescale_q(frame->pts, sinkBase, mAudioEncoder->time_base);
        const double ms = frame->pts * av_q2d(mAudioEncoder->time_base) * 1000.0;
        const bool ok = encode(mAudioEncoder.data(), mAudioStream, frame, error);
        av_frame_unref(frame);
        if (!ok) {
            return false;
        }
        if (!mPlan.wantVideo) {
            mWrittenMs = qMax(mWrittenMs, ms);
            if (progress) {
                progress(qBound(0.0, mWrittenMs / mPlan.durationMs, 1.0));
            }
        }
    }
    return true;
}

bool RenderWriter::drain(const std::function<void(double)>& progress, QString* error)
{
    return drainVideo(progress, error) && drainAudio(progress, error);
}

bool RenderWriter::close(QString* error)
{
    const int ret = av_write_trailer(mOutput.data());
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot finish \"%1\"").arg(mOut.outputPath), ret);
        return false;
    }
    if (mOutput->pb) {
        avio_closep(&mOutput->pb);
    }
    mCreated = false;
    return true;
}

void RenderWriter::discard()
{
    if (mOutput && mOutput->pb) {
        avio_closep(&mOutput->pb);
    }
    mOutput.reset();
    if (mCreated) {
        QFile::remove(mOut.outputPath);
        mCreated = false;
    }
}

} // namespace Korvane
