#include "KorvaneDec/VobTitleBuilder.h"

#include "KorvaneDec/KorvaneDecLog.h"
#include "KorvaneDec/SaturatingMath.h"

#include <algorithm>

extern "C" {
#include <libavutil/avutil.h>
}

namespace Korvane {

VobChapter VobTitleBuilder::startChapter(qint32 streamIndex, qint32 mediaType, qint64 pos,
                                         qint64 pts, qint64 dts)
{
    VobChapter chapter;
    chapter.streamIndex = streamIndex;
    chapter.mediaType = mediaType;
    chapter.headPosInFile = pos;
    chapter.tailPosInFile = pos;
    chapter.ptsFromDts = pts == AV_NOPTS_VALUE ? 1 : 0;
    chapter.firstPtsInFile = pts == AV_NOPTS_VALUE ? dts : pts;
    chapter.firstDtsInFile = dts;
    chapter.lastPtsInFile = chapter.firstPtsInFile;
    chapter.lastDtsInFile = dts;
    chapter.titleStartPts = chapter.firstPtsInFile;
    chapter.titleStartDts = dts;
    return chapter;
}

void VobTitleBuilder::addPacket(qint32 streamIndex, qint32 mediaType, qint64 pos, qint64 pts,
                                qint64 dts, qint64 duration)
{
    if (mediaType == AVMEDIA_TYPE_AUDIO && dts == AV_NOPTS_VALUE && pts != AV_NOPTS_VALUE) {
        mTitle.audioDtsFromPts = 1;
    }
    auto open = mOpen.find(streamIndex);
    if (open == mOpen.end()) {
        // A chapter starts at a packet that places it on a time line.
        if (dts != AV_NOPTS_VALUE) {
            mOpen.insert(
                streamIndex,
                OpenChapter{startChapter(streamIndex, mediaType, pos, pts, dts), duration});
        }
        return;
    }
    VobChapter& current = open->chapter;
    if (dts != AV_NOPTS_VALUE && dts < current.lastDtsInFile) {
        VobChapter next = startChapter(streamIndex, mediaType, pos, pts, dts);
        // The next chapter begins one packet after the closed one ends, so
        // that the title's time line runs on without a gap or an overlap.
        next.titleStartDts = saturatingRunOn(current.titleStartDts, current.lastDtsInFile,
                                             current.firstDtsInFile, 1);
        next.titleStartPts =
            saturatingRunOn(current.titleStartPts, current.lastPtsInFile, current.firstPtsInFile,
                            std::max<qint64>(open->lastDuration, 1));
        mTitle.chapters.append(current);
        current = next;
        open->lastDuration = duration;
        return;
    }
    if (pos >= 0) {
        current.tailPosInFile = pos;
    }
    if (pts != AV_NOPTS_VALUE) {
        current.lastPtsInFile = pts;
    }
    if (dts != AV_NOPTS_VALUE) {
        current.lastDtsInFile = dts;
    }
    open->lastDuration = duration;
}

VobTitleInfo VobTitleBuilder::finish()
{
    for (const OpenChapter& open : std::as_const(mOpen)) {
        mTitle.chapters.append(open.chapter);
    }
    qCDebug(lcKorvaneDec) << "chapter count: " << mTitle.chapters.size();
    VobTitleInfo title = mTitle;
    mTitle = VobTitleInfo();
    mOpen.clear();
    return title;
}

} // namespace Korvane
