#include "KorvaneDec/NLEditor/RenderWriter.h"

#include "Common/Records/OutputRules.h"
#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QFile>
#include <QLoggingCategory>
#include <QSaveFile>

#include <cstring>
#include <limits>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/opt.h>
}

// Debug chatter is off unless QT_LOGGING_RULES turns it on.
Q_LOGGING_CATEGORY(lcRenderWriter, "korvane.nleditor.writer", QtInfoMsg)

namespace Korvane {

namespace {

constexpr int kIoBufferSize = 64 * 1024;

#if LIBAVFORMAT_VERSION_MAJOR < 61
int writeToFile(void* opaque, uint8_t* data, int size)
#else
int writeToFile(void* opaque, const uint8_t* data, int size)
#endif
{
    auto* file = static_cast<QSaveFile*>(opaque);
    return file->write(reinterpret_cast<const char*>(data), size) == size ? size : AVERROR(EIO);
}

int64_t seekInFile(void* opaque, int64_t offset, int whence)
{
    auto* file = static_cast<QSaveFile*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE:
        return file->size();
    case SEEK_SET:
        break;
    case SEEK_CUR:
        offset += file->pos();
        break;
    case SEEK_END:
        offset += file->size();
        break;
    default:
        return AVERROR(EINVAL);
    }
    return file->seek(offset) ? offset : AVERROR(EIO);
}

} // namespace

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
    if (enc->framerate.num > 0 && enc->framerate.den > 0) {
        mVideoFrameTicks =
            qMax<int64_t>(1, av_rescale_q(1, av_inv_q(enc->framerate), enc->time_base));
    }
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
    if (!mAudioQueue.open(enc, error)) {
        return false;
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
    if (raw->oformat->flags & AVFMT_NOFILE) {
        // Such a muxer writes its files itself, at the output path.
        mCreated = true;
    } else if (!openOutputFile(error)) {
        return false;
    } else {
        raw->pb = mIo.data();
    }
    ret = avformat_write_header(raw, nullptr);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot write the %1 header").arg(mPlan.muxer), ret);
        return false;
    }
    return !mCoverStream || writeCover(raw, error);
}

bool RenderWriter::openOutputFile(QString* error)
{
    // The render goes to a file beside the output that replaces it only once
    // it is complete: a failed or stopped render leaves whatever was at the
    // output path exactly as it was.
    mFile = std::make_unique<QSaveFile>(mOut.outputPath);
    if (!mFile->open(QIODevice::WriteOnly)) {
        *error =
            QStringLiteral("cannot create \"%1\": %2").arg(mOut.outputPath, mFile->errorString());
        return false;
    }
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    AVIOContext* io = buffer ? avio_alloc_context(buffer, kIoBufferSize, 1, mFile.get(), nullptr,
                                                  writeToFile, seekInFile)
                             : nullptr;
    if (!io) {
        av_free(buffer);
        *error = QStringLiteral("cannot allocate the output's I/O context");
        return false;
    }
    mIo = makeAVIOContextPtr(io);
    return true;
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
        const int64_t pts = frame->pts;
        const double ms = pts * av_q2d(mVideoEncoder->time_base) * 1000.0;
        const bool ok = encode(mVideoEncoder.data(), mVideoStream, frame, error);
        av_frame_unref(frame);
        if (!ok) {
            return false;
        }
        mVideoEnd = qMax(mVideoEnd, pts + mVideoFrameTicks);
        reportProgress(ms, progress);
    }
    return true;
}

void RenderWriter::reportProgress(double ms, const std::function<void(double)>& progress)
{
    mWrittenMs = qMax(mWrittenMs, ms);
    if (progress) {
        progress(qBound(0.0, mWrittenMs / mPlan.durationMs, 1.0));
    }
}

int64_t RenderWriter::videoEndInSamples() const
{
    return mPlan.wantVideo
               ? av_rescale_q(mVideoEnd, mVideoEncoder->time_base, mAudioEncoder->time_base)
               : 0;
}

bool RenderWriter::pullAudio(QString* error)
{
    AVFrame* frame = mFrame.data();
    while (!mAudioSinkEnded) {
        const int ret = av_buffersink_get_frame(mAudioSink, frame);
        if (ret == AVERROR(EAGAIN)) {
            return true;
        }
        if (ret == AVERROR_EOF) {
            mAudioSinkEnded = true;
            return true;
        }
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("sound filtering failed"), ret);
            return false;
        }
        const bool queued = mAudioQueue.push(frame, error);
        av_frame_unref(frame);
        if (!queued) {
            return false;
        }
    }
    return true;
}

bool RenderWriter::writeAudio(int64_t end, bool last, const std::function<void(double)>& progress,
                              QString* error)
{
    AVCodecContext* enc = mAudioEncoder.data();
    for (;;) {
        const QSharedPointer<AVFrame> frame = mAudioQueue.take(end, last, error);
        if (!frame) {
            return error->isEmpty();
        }
        if (!encode(enc, mAudioStream, frame.data(), error)) {
            return false;
        }
        if (!mPlan.wantVideo) {
            reportProgress(mAudioQueue.taken() * 1000.0 / enc->sample_rate, progress);
        }
    }
}

// Sound that ends before the picture is filled with silence to its end, a
// few samples at a time; a longer one stays whole, as the input has it.
bool RenderWriter::finishAudio(const std::function<void(double)>& progress, QString* error)
{
    const int64_t end = qMax(mAudioQueue.held(), videoEndInSamples());
    while (mAudioQueue.held() < end) {
        const int count = static_cast<int>(qMin<int64_t>(4096, end - mAudioQueue.held()));
        if (!mAudioQueue.pushSilence(count, error) || !writeAudio(end, false, progress, error)) {
            return false;
        }
    }
    mAudioDone = true;
    return writeAudio(end, true, progress, error) &&
           encode(mAudioEncoder.data(), mAudioStream, nullptr, error);
}

bool RenderWriter::drainAudio(const std::function<void(double)>& progress, QString* error)
{
    if (mAudioDone) {
        return true;
    }
    if (!pullAudio(error) ||
        !writeAudio(std::numeric_limits<int64_t>::max(), false, progress, error)) {
        return false;
    }
    if (mAudioSinkEnded && (!mPlan.wantVideo || mVideoDone)) {
        return finishAudio(progress, error);
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
    mCreated = false;
    if (!mIo) {
        return true;
    }
    avio_flush(mIo.data());
    if (mIo->error < 0) {
        *error =
            ffFailure(QStringLiteral("writing \"%1\" failed").arg(mOut.outputPath), mIo->error);
        return false;
    }
    if (!mFile->commit()) {
        *error =
            QStringLiteral("cannot finish \"%1\": %2").arg(mOut.outputPath, mFile->errorString());
        return false;
    }
    return true;
}

void RenderWriter::discard()
{
    mOutput.reset();
    mIo.reset();
    if (mFile) {
        mFile->cancelWriting();
        mFile.reset();
    }
    if (mCreated) {
        QFile::remove(mOut.outputPath);
        mCreated = false;
    }
}

} // namespace Korvane
