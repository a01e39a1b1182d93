#include "KorvaneDec/FFDemuxer.h"

#include "KorvaneBase/Record.h"
#include "KorvaneDec/KorvaneDecLog.h"
#include "KorvaneDec/StreamProbing.h"
#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>

extern "C" {
#include <libavutil/dict.h>
}

namespace Korvane {
namespace {

const char* const kSourceFile = "KorvaneDec/FFDemuxer";
const char* const kOpen = "Korvane::FFDemuxer::open";
const char* const kSeek = "Korvane::FFDemuxer::seek";
const char* const kSeekByFilePos = "Korvane::FFDemuxer::seekByFilePos";

constexpr AVRational kMicroseconds{1, 1000000};
constexpr AVRational kMilliseconds{1, 1000};

// Formats forced on the first try: these containers are detected late or
// wrongly by probing alone.
const QHash<QString, QString> kFirstTryFormats{
    {QStringLiteral("flv"), QStringLiteral("live_flv")},
    {QStringLiteral("ts"), QStringLiteral("mpegts")},
};

// Formats forced when probing found nothing it recognised: DVD program
// streams often start with sectors that no probe accepts.
const QHash<QString, QString> kInvalidDataFormats{
    {QStringLiteral("vob"), QStringLiteral("mpeg")},
};

const AVInputFormat* findInputFormat(const QString& name)
{
    return av_find_input_format(name.toUtf8().constData());
}

} // namespace

FFDemuxer::FFDemuxer() = default;

FFDemuxer::~FFDemuxer()
{
    // The format context may still refer to the custom I/O: release it first.
    mFormatCtx.reset();
    mIOCtx.reset();
    delete mQrcFile;
}

QString FFDemuxer::firstTryFormat(const QString& suffix)
{
    return kFirstTryFormats.value(suffix);
}

QString FFDemuxer::invalidDataFormat(const QString& suffix)
{
    return kInvalidDataFormats.value(suffix);
}

bool FFDemuxer::toleratesStreamInfoFailure(int bestVideoIndex, int codecId)
{
    return bestVideoIndex > 0 && codecId == AV_CODEC_ID_WMV3;
}

int FFDemuxer::readQrcFile(void* opaque, uint8_t* buffer, int size)
{
    auto* file = static_cast<QFile*>(opaque);
    if (!file) {
        return -1;
    }
    const qint64 got = file->read(reinterpret_cast<char*>(buffer), size);
    return got < 1 ? -1 : static_cast<int>(got);
}

int64_t FFDemuxer::seekQrcFile(void* opaque, int64_t offset, int whence)
{
    auto* file = static_cast<QFile*>(opaque);
    if (!file) {
        return -1;
    }
    qint64 position = 0;
    switch (whence) {
    case SEEK_SET:
        position = offset;
        break;
    case SEEK_CUR:
        position = file->pos() + offset;
        break;
    case SEEK_END:
        position = file->size() + offset;
        break;
    default:
        return -1;
    }
    if (!file->seek(position)) {
        return -1;
    }
    return file->pos();
}

bool FFDemuxer::open(const QString& path)
{
    ffmpegLogToPLog();
    if (path.isEmpty()) {
        return false;
    }
    close();
    mStreamIndex = -1;
    mStartPts = 0;
    mSeekTarget = 0;
    mSeeking = 0;
    mEof = 0;
    mContainerTimestampFix = 0;

    if (path.startsWith(QLatin1Char(':'))) {
        return openResource(path);
    }
    AVFormatContext* context = nullptr;
    const int result = openFile(path, &context);
    mFormatCtx = makeAVFormatContextPtr(context);
    return finishOpen(path, result);
}

bool FFDemuxer::openResource(const QString& path)
{
    delete mQrcFile;
    mQrcFile = new QFile(path);
    if (!mQrcFile->open(QIODevice::ReadOnly)) {
        Record(kOpen, __LINE__, kSourceFile, this, 0) << "mQrcFile->open failed.";
        return false;
    }
    // No buffer of our own: probing reads straight into its own buffer and
    // hands it to the I/O context afterwards.
    mIOCtx = makeAVIOContextPtr(
        avio_alloc_context(nullptr, 0, 0, mQrcFile, &readQrcFile, nullptr, &seekQrcFile));
    AVFormatContext* context = avformat_alloc_context();
    if (!mIOCtx || !context) {
        avformat_free_context(context);
        Record(kOpen, __LINE__, kSourceFile, this, 0) << "---demux--- out of memory";
        return false;
    }
    context->pb = mIOCtx.data();
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    // A failing avformat_open_input frees the context itself, so ownership
    // is taken only once it succeeded.
    const int result = avformat_open_input(&context, nullptr, nullptr, nullptr);
    if (result == 0) {
        mFormatCtx = makeAVFormatContextPtr(context);
    }
    return finishOpen(path, result);
}

int FFDemuxer::openFile(const QString& path, AVFormatContext** context)
{
    const QByteArray url = path.toUtf8();
    const QString suffix = QFileInfo(path).suffix().toLower();
    const AVInputFormat* forced = findInputFormat(firstTryFormat(suffix));
    const int result = avformat_open_input(context, url.constData(), forced, nullptr);
    Record(kOpen, __LINE__, kSourceFile, this, 0) << "maybe specific format, ret = " << result;

    if (result != 0 && forced) {
        // Only tells the log whether detection would have helped; the forced
        // format's verdict stands.
        AVFormatContext* detected = nullptr;
        const int detection = avformat_open_input(&detected, url.constData(), nullptr, nullptr);
        const QSharedPointer<AVFormatContext> released = makeAVFormatContextPtr(detected);
        qCDebug(lcKorvaneDec) << "automatic detection of" << path << "gives" << detection;
        Record(kOpen, __LINE__, kSourceFile, this, 0) << "retry auto detected, ret = " << result;
    }
    if (result != AVERROR_INVALIDDATA) {
        return result;
    }
    AVDictionary* options = nullptr;
    const int setPattern = av_dict_set(&options, "pattern_type", "none", 0);
    const int setMfra = av_dict_set_int(&options, "use_mfra_for", 1, 0);
    logIf_FF_Error(setPattern < 0 ? setPattern : setMfra, "---demux--- av_dict_set: ", kOpen,
                   __LINE__, kSourceFile, this);
    const int retried = avformat_open_input(context, url.constData(),
                                            findInputFormat(invalidDataFormat(suffix)), &options);
    av_dict_free(&options);
    Record(kOpen, __LINE__, kSourceFile, this, 0) << "try add option, ret = " << retried;
    return retried;
}

bool FFDemuxer::finishOpen(const QString& path, int result)
{
    if (result == 0 && mFormatCtx) {
        AVFormatContext* context = mFormatCtx.data();
        bool tolerant = false;
        if (context->nb_streams > 0) {
            const int best = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
            tolerant = best > 0 &&
                       toleratesStreamInfoFailure(best, context->streams[best]->codecpar->codec_id);
        }
        if (avformat_find_stream_info(context, nullptr) < 0 && !tolerant) {
            Record(kOpen, __LINE__, kSourceFile, this, 0)
                << "---demux--- avformat_find_stream_info failed";
            mFormatCtx.reset();
            return false;
        }
        mFilePath = path;
        return true;
    }
    Record(kOpen, __LINE__, kSourceFile, this, 0)
        << "---demux--- avformat_open_input: " << result << ": " << ffErrorText(result);
    Record(kOpen, __LINE__, kSourceFile, this, 0)
        << "---demux--- Could not open the file . fileSize :" << QFileInfo(path).size() << " "
        << path;
    mFormatCtx.reset();
    return false;
}

void FFDemuxer::close()
{
    mFormatCtx.reset();
    mIOCtx.reset();
    mPendingPacket.reset();
}

qint32 FFDemuxer::selectStream(qint32 streamIndex)
{
    mStreamIndex = streamIndex;
    AVFormatContext* context = mFormatCtx.data();
    if (!context || !context->iformat || streamIndex < 0 ||
        streamIndex >= static_cast<int>(context->nb_streams)) {
        return 1;
    }
    const AVStream* chosen = context->streams[streamIndex];
    const AVMediaType type = chosen->codecpar->codec_type;
    const QByteArray formatName = context->iformat->name;
    if (type == AVMEDIA_TYPE_VIDEO && chosen->codecpar->codec_id != AV_CODEC_ID_H261 &&
        (formatName.contains("mpegts") || formatName.contains("matroska") ||
         formatName.contains("avi"))) {
        mContainerTimestampFix = 1;
    }

    const auto startOf = [context](const QSharedPointer<AVPacket>& packet) -> int64_t {
        if (!packet || packet->pts == AV_NOPTS_VALUE) {
            return AV_NOPTS_VALUE;
        }
        return av_rescale_q(packet->pts, context->streams[packet->stream_index]->time_base,
                            kMicroseconds);
    };

    int64_t start = AV_NOPTS_VALUE;
    bool measured = false;
    if (type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO) {
        const AVMediaType otherType =
            type == AVMEDIA_TYPE_VIDEO ? AVMEDIA_TYPE_AUDIO : AVMEDIA_TYPE_VIDEO;
        const int other = av_find_best_stream(context, otherType, -1, -1, nullptr, 0);
        if (other >= 0 && other < static_cast<int>(context->nb_streams)) {
            seek(0, other);
            const QSharedPointer<AVPacket> otherFirst = readFirstPacket(other);
            seek(0, streamIndex);
            mPendingPacket = readFirstPacket(streamIndex);
            const int64_t chosenStart = startOf(mPendingPacket);
            const int64_t otherStart = startOf(otherFirst);
            const int64_t video = type == AVMEDIA_TYPE_VIDEO ? chosenStart : otherStart;
            const int64_t audio = type == AVMEDIA_TYPE_VIDEO ? otherStart : chosenStart;
            const int64_t container = context->start_time;
            if (audio > video) {
                start = audio;
            } else if (audio <= container && container <= video) {
                start = container;
            } else {
                start = video;
            }
            measured = true;
        }
    }
    if (!measured) {
        seek(0, streamIndex);
        if (context->start_time == AV_NOPTS_VALUE) {
            mPendingPacket = readFirstPacket(streamIndex);
            start = startOf(mPendingPacket);
        } else {
            start = context->start_time;
        }
    }
    mStartPts = start == AV_NOPTS_VALUE ? 0 : av_rescale_q(start, kMicroseconds, chosen->time_base);
    return 1;
}

QSharedPointer<AVPacket> FFDemuxer::readFirstPacket(qint32 streamIndex)
{
    while (const QSharedPointer<AVPacket> packet = FFDemuxer::readPacket()) {
        if (packet->stream_index == streamIndex) {
            return packet;
        }
    }
    return {};
}

void FFDemuxer::seek(qint64 ms, qint32 streamIndex)
{
    AVFormatContext* context = mFormatCtx.data();
    if (!context || streamIndex < 0 || streamIndex >= static_cast<int>(context->nb_streams)) {
        return;
    }
    const int64_t target =
        ms <= 0
            ? 0
            : av_rescale_q(ms, kMilliseconds, context->streams[streamIndex]->time_base) + mStartPts;
    int result = av_seek_frame(context, streamIndex, target, AVSEEK_FLAG_BACKWARD);
    if (result < 0) {
        // Some inputs only seek by bytes; the same number is tried as one.
        result = av_seek_frame(context, streamIndex, target, AVSEEK_FLAG_BYTE);
    }
    if (result < 0) {
        result = av_seek_frame(context, -1, target, AVSEEK_FLAG_ANY);
    }
    if (result < 0) {
        Record(kSeek, __LINE__, kSourceFile, this, 0)
            << "---player--- seekByStream streamIndex: " << streamIndex << ",res : " << result
            << ": " << ffErrorText(result);
    }
    mPendingPacket.reset();
    mSeekTarget = target;
    mSeeking = 1;
    mEof = 0;
}

void FFDemuxer::seekByFilePos(qint64 pos)
{
    AVFormatContext* context = mFormatCtx.data();
    if (!context) {
        return;
    }
    mSeeking = 1;
    mEof = 0;
    mPendingPacket.reset();
    logIf_FF_Error(avformat_flush(context), "---player--- avformat_flush: ", kSeekByFilePos,
                   __LINE__, kSourceFile, this);
    const int result = av_seek_frame(context, -1, pos, AVSEEK_FLAG_BYTE);
    logIf_FF_Error(result, "---player--- seekByFilePos av_seek_frame: ", kSeekByFilePos, __LINE__,
                   kSourceFile, this);
}

QSharedPointer<AVPacket> FFDemuxer::readPacket()
{
    if (!mFormatCtx) {
        return {};
    }
    if (mPendingPacket) {
        QSharedPointer<AVPacket> pending;
        pending.swap(mPendingPacket);
        return pending;
    }
    QSharedPointer<AVPacket> packet = makeAVPacketPtr();
    if (!packet) {
        return {};
    }
    const int result = av_read_frame(mFormatCtx.data(), packet.data());
    if (result == AVERROR_EOF) {
        mEof = 1;
        return {};
    }
    if (result >= 0 && packet->size > 0) {
        return packet;
    }
    return {};
}

qint64 FFDemuxer::durationMs()
{
    if (!mFormatCtx || mFormatCtx->duration <= 0) {
        return 0;
    }
    return mFormatCtx->duration / 1000;
}

void FFDemuxer::discardOtherStreams(qint32 streamIndex)
{
    if (!mFormatCtx) {
        return;
    }
    for (unsigned i = 0; i < mFormatCtx->nb_streams; ++i) {
        if (static_cast<int>(i) != streamIndex) {
            mFormatCtx->streams[i]->discard = AVDISCARD_ALL;
        }
    }
}

QSharedPointer<MediaDescription> FFDemuxer::mediaInfo() const
{
    return describeMedia(mFormatCtx.data(), mFilePath);
}

} // namespace Korvane
