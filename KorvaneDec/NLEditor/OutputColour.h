#pragma once

#include "KorvaneDec/Adapter/MediaSource.h"
#include "KorvaneDec/NLEditor/NLEditorExport.h"

#include <QString>

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace Korvane {

// The colour an output states: set on the encoder, it is written into the
// bitstream and the container, so that players need not guess.
struct ColourTags
{
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;

    bool operator==(const ColourTags& other) const
    {
        return primaries == other.primaries && transfer == other.transfer &&
               matrix == other.matrix && range == other.range;
    }
};

// True for the transfers of HDR pictures: PQ (SMPTE ST 2084) and HLG.
KORVANENLEDITOR_EXPORT bool isHdrTransfer(AVColorTransferCharacteristic transfer);

// True when pictures of `input` written as `outputFormat` must be tone-mapped
// to SDR: an HDR picture into fewer than 10 bits cannot keep its range.
KORVANENLEDITOR_EXPORT bool needsToneMapping(const VideoStreamFacts& input,
                                             AVPixelFormat outputFormat);

// The tags of an output whose pictures come from `input`, written as
// `outputFormat` (a YUV format, limited range): the input's own where they
// survive, BT.709 after tone mapping, limited range wherever the input
// states a range. What the input leaves unstated stays unstated.
KORVANENLEDITOR_EXPORT ColourTags outputColour(const VideoStreamFacts& input,
                                               AVPixelFormat outputFormat);

// The filter chain (libavfilter text, no labels) that brings an HDR picture
// of `input` to BT.709 SDR in yuv420p; empty when needsToneMapping() is
// false.
KORVANENLEDITOR_EXPORT QString toneMapChain(const VideoStreamFacts& input,
                                            AVPixelFormat outputFormat);

} // namespace Korvane
