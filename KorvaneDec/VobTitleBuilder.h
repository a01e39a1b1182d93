#pragma once

#include "KorvaneDec/KorvaneDecExport.h"
#include "KorvaneDec/MediaDescription.h"

#include <QMap>

namespace Korvane {

// Builds the chapter table of a DVD program stream from its packets in file
// order. Each stream has one open chapter; a packet whose dts goes back
// closes it and opens the next, which continues the title's time line where
// the closed one ended.
class KORVANEDEC_EXPORT VobTitleBuilder
{
public:
    // `mediaType` is the stream's AVMediaType; `pos` the packet's byte
    // position (-1 when unknown); `pts`, `dts` and `duration` in the stream's
    // time base, AV_NOPTS_VALUE when absent.
    void addPacket(qint32 streamIndex, qint32 mediaType, qint64 pos, qint64 pts, qint64 dts,
                   qint64 duration);
    // The table: closed chapters in the order they closed, then the open
    // ones by stream index. The builder is empty afterwards.
    VobTitleInfo finish();

private:
    struct OpenChapter
    {
        VobChapter chapter;
        qint64 lastDuration = 0;
    };

    static VobChapter startChapter(qint32 streamIndex, qint32 mediaType, qint64 pos, qint64 pts,
                                   qint64 dts);

    QMap<qint32, OpenChapter> mOpen;
    VobTitleInfo mTitle;
};

} // namespace Korvane
