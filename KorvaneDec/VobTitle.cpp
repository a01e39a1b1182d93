#include "KorvaneDec/VobTitle.h"

#include "KorvaneDec/KorvaneDecLog.h"

#include <QMap>

#include <algorithm>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
}

namespace Korvane {
namespace {

constexpr AVRational kMilliseconds{1, 1000};

bool holds(const VobChapter& chapter, const AVPacket& packet)
{
    return chapter.streamIndex == packet.stream_index && chapter.headPosInFile <= packet.pos &&
           packet.pos <= chapter.tailPosInFile;
}

void rewrite(const VobTitleInfo& title, const VobChapter& chapter, AVPacket& packet)
{
    if (packet.pts != AV_NOPTS_VALUE) {
        packet.pts = packet.pts - chapter.firstPtsInFile + chapter.titleStartPts;
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        packet.dts = packet.dts - chapter.firstDtsInFile + chapter.titleStartDts;
    }
    if (chapter.mediaType == AVMEDIA_TYPE_AUDIO && title.audioDtsFromPts) {
        packet.dts = packet.pts;
    }
}

} // namespace

qint64 chapterLengthMs(const VobChapter& chapter, AVRational timeBase)
{
    const qint64 length = std::max<qint64>(
        av_rescale_q(chapter.lastPtsInFile - chapter.firstPtsInFile, timeBase, kMilliseconds), 1);
    qCDebug(lcKorvaneDec) << "chapter len: " << length << "ms";
    return length;
}

qint64 chapterStartMs(const VobChapter& chapter, AVRational timeBase)
{
    return av_rescale_q(chapter.titleStartPts, timeBase, kMilliseconds);
}

qint64 bytesPerMs(const VobChapter& chapter, AVRational timeBase)
{
    const qint64 rate =
        (chapter.tailPosInFile - chapter.headPosInFile) / chapterLengthMs(chapter, timeBase);
    qCDebug(lcKorvaneDec) << "tailPosInFile : " << chapter.tailPosInFile
                          << "headPosInFile : " << chapter.headPosInFile
                          << "sz / durationMs(timeBase) : " << rate;
    return rate;
}

AVRational chapterTimeBase(const MediaDescription& description, qint32 streamIndex)
{
    for (const QSharedPointer<StreamInfo>& stream : description.streams) {
        if (stream->streamIndex == streamIndex) {
            return stream->timeBase;
        }
    }
    return AVRational{0, 1};
}

int findChapter(const VobTitleInfo& title, const MediaDescription& description, qint64 ms)
{
    qint32 start = 0;
    for (int i = 0; i < title.chapters.size(); ++i) {
        const VobChapter& chapter = title.chapters[i];
        const qint64 length =
            chapterLengthMs(chapter, chapterTimeBase(description, chapter.streamIndex));
        if (start <= ms && ms <= start + length) {
            return i;
        }
        start += static_cast<qint32>(std::max<qint64>(length, 1));
    }
    return -1;
}

qint64 titleDurationMs(const VobTitleInfo& title, const MediaDescription& description)
{
    qint64 video = 0;
    QMap<qint32, qint64> audio;
    for (const VobChapter& chapter : title.chapters) {
        const AVRational timeBase = chapterTimeBase(description, chapter.streamIndex);
        if (chapter.mediaType == AVMEDIA_TYPE_VIDEO) {
            video += chapterLengthMs(chapter, timeBase);
        } else if (chapter.mediaType == AVMEDIA_TYPE_AUDIO) {
            audio[chapter.streamIndex] += chapterLengthMs(chapter, timeBase);
        }
    }
    if (video != 0) {
        return video;
    }
    qint64 longest = 0;
    for (const qint64 sum : audio) {
        longest = std::max(longest, sum);
    }
    qCDebug(lcKorvaneDec) << "audio duration (ms) : " << longest;
    return longest;
}

bool placeOnTitleLine(const VobTitleInfo& title, VobTimeLine& timeLine, AVPacket& packet)
{
    if (packet.pos < 0) {
        const auto stream = timeLine.streamChapters.constFind(packet.stream_index);
        if (stream == timeLine.streamChapters.constEnd()) {
            return false;
        }
        rewrite(title, *stream, packet);
        return true;
    }
    if (timeLine.lastChapter && holds(*timeLine.lastChapter, packet)) {
        rewrite(title, *timeLine.lastChapter, packet);
        return true;
    }
    timeLine.lastChapter.reset();
    for (const VobChapter& chapter : title.chapters) {
        if (holds(chapter, packet)) {
            timeLine.lastChapter = chapter;
            timeLine.streamChapters.insert(packet.stream_index, chapter);
            rewrite(title, chapter, packet);
            return true;
        }
    }
    timeLine.streamChapters.remove(packet.stream_index);
    return false;
}

} // namespace Korvane
