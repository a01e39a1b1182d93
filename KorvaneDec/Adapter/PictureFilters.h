#pragma once

#include "KorvaneDec/Adapter/AdapterExport.h"

#include <QString>

namespace Korvane {

// A value escaped for use as a filter option inside libavfilter graph text
// (both the option level and the graph level), e.g. a file path given to the
// "subtitles" filter.
KORVANEADAPTER_EXPORT QString escapeFilterGraphValue(const QString& value);

// De-interlacing with "yadif": one frame out per frame in, and only frames
// flagged as interlaced are touched, so a stream that mixes both is safe.
KORVANEADAPTER_EXPORT QString deinterlaceFilterText();

// Text subtitles drawn over the picture by libass (through libavfilter's
// "subtitles" filter, which renders each event at the frame's own size).
// `subtitleOrdinal` is the number of the stream among the file's subtitle
// streams (0 for a .srt/.ass/.ssa file); `offsetMs` moves every event later
// by that much on the timeline; `speed` is the speed the picture plays at
// (the events keep to the picture).
KORVANEADAPTER_EXPORT QString subtitleFilterText(const QString& path, int subtitleOrdinal,
                                                 qint64 offsetMs, double speed = 1.0);

// Facts of one subtitle stream of a file for the renderer's choice.
struct SubtitleStreamInfo
{
    bool found = false;
    int ordinal = -1;      // number among the file's subtitle streams
    bool isBitmap = false; // a picture-based format (DVD, PGS, DVB)
};

// Looks up stream `streamIndex` of `path` (a subtitle file has one stream, 0).
KORVANEADAPTER_EXPORT SubtitleStreamInfo probeSubtitleStream(const QString& path, int streamIndex);

} // namespace Korvane
