#include "KorvaneDec/FFVobDemuxer.h"

#include "KorvaneDec/VobParser.h"
#include "KorvaneDec/VobTitle.h"

namespace Korvane {

FFVobDemuxer::FFVobDemuxer() = default;

FFVobDemuxer::~FFVobDemuxer() = default;

bool FFVobDemuxer::open(const QString& path)
{
    const bool opened = FFDemuxer::open(path);
    mTitle = VobParser::instance().title(path);
    mDescription = mediaInfo();
    mTimeLine = VobTimeLine();
    return opened;
}

void FFVobDemuxer::close()
{
    FFDemuxer::close();
    mTitle.reset();
    mDescription.reset();
    mTimeLine = VobTimeLine();
}

void FFVobDemuxer::seek(qint64 ms, qint32 streamIndex)
{
    Q_UNUSED(streamIndex)
    if (!mTitle || !mDescription) {
        return;
    }
    const int found = findChapter(*mTitle, *mDescription, ms);
    if (found < 0) {
        return;
    }
    const VobChapter& chapter = mTitle->chapters[found];
    const AVRational timeBase = chapterTimeBase(*mDescription, chapter.streamIndex);
    qint64 offset = ms - chapterStartMs(chapter, timeBase);
    // Land a little before the wanted time, so that it is read, not skipped.
    if (offset >= 501) {
        offset -= 500;
    }
    seekByFilePos(bytesPerMs(chapter, timeBase) * offset + chapter.headPosInFile);
}

QSharedPointer<AVPacket> FFVobDemuxer::readPacket()
{
    QSharedPointer<AVPacket> packet = FFDemuxer::readPacket();
    if (packet && mTitle) {
        placeOnTitleLine(*mTitle, mTimeLine, *packet);
    }
    return packet;
}

qint64 FFVobDemuxer::durationMs()
{
    if (mTitle && mDescription) {
        return titleDurationMs(*mTitle, *mDescription);
    }
    return FFDemuxer::durationMs();
}

} // namespace Korvane
