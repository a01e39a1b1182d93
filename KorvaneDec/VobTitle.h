#pragma once

#include "KorvaneDec/KorvaneDecExport.h"
#include "KorvaneDec/MediaDescription.h"

#include <QHash>

#include <optional>

extern "C" {
#include <libavcodec/packet.h>
}

// Time and byte arithmetic on the chapter table of a DVD program stream.
// `timeBase` is the time base of the chapter's stream; times are in ms.
namespace Korvane {

// (last pts - first pts) in ms, at least 1.
KORVANEDEC_EXPORT qint64 chapterLengthMs(const VobChapter& chapter, AVRational timeBase);
// The chapter's start on the title's time line.
KORVANEDEC_EXPORT qint64 chapterStartMs(const VobChapter& chapter, AVRational timeBase);
// Bytes of the file per ms of the chapter (integer division).
KORVANEDEC_EXPORT qint64 bytesPerMs(const VobChapter& chapter, AVRational timeBase);

// The time base of stream `streamIndex` in the description; 0/1 when the
// description has no such stream.
KORVANEDEC_EXPORT AVRational chapterTimeBase(const MediaDescription& description,
                                             qint32 streamIndex);

// The index of the chapter holding `ms` when the chapters' lengths are laid
// end to end from 0, in table order; -1 when none does.
KORVANEDEC_EXPORT int findChapter(const VobTitleInfo& title, const MediaDescription& description,
                                  qint64 ms);

// The title's duration: the summed lengths of its video chapters, or without
// video the longest summed audio stream.
KORVANEDEC_EXPORT qint64 titleDurationMs(const VobTitleInfo& title,
                                         const MediaDescription& description);

// What the packet time line keeps between packets.
struct VobTimeLine
{
    std::optional<VobChapter> lastChapter; // the chapter that matched last
    // Per stream, the chapter of its last packet that had a byte position.
    QHash<qint32, VobChapter> streamChapters;
};

// Moves the packet's timestamps from its stream's own time line onto the
// title's, using the chapter whose stream and byte range hold it; the
// chapter that matched last is tried first. Parsers split a stored packet
// into several and only the first keeps its byte position: a packet without
// one goes with the chapter of its stream's last positioned packet. A packet
// that no chapter holds is left unchanged and false returned.
KORVANEDEC_EXPORT bool placeOnTitleLine(const VobTitleInfo& title, VobTimeLine& timeLine,
                                        AVPacket& packet);

} // namespace Korvane
