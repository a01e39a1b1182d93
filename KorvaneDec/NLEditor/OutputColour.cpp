#include "KorvaneDec/NLEditor/OutputColour.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace Korvane {

namespace {

int bitDepth(AVPixelFormat format)
{
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor ? descriptor->comp[0].depth : 8;
}

} // namespace

bool isHdrTransfer(AVColorTransferCharacteristic transfer)
{
    return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

bool needsToneMapping(const VideoStreamFacts& input, AVPixelFormat outputFormat)
{
    return isHdrTransfer(input.transfer) && bitDepth(outputFormat) < 10;
}

ColourTags outputColour(const VideoStreamFacts& input, AVPixelFormat outputFormat)
{
    ColourTags tags;
    if (needsToneMapping(input, outputFormat)) {
        tags.primaries = AVCOL_PRI_BT709;
        tags.transfer = AVCOL_TRC_BT709;
        tags.matrix = AVCOL_SPC_BT709;
        tags.range = AVCOL_RANGE_MPEG;
        return tags;
    }
    tags.primaries = input.primaries;
    tags.transfer = input.transfer;
    // An RGB source is turned into YUV with a matrix of the converter's
    // choosing, not its own "RGB" one.
    tags.matrix = input.matrix == AVCOL_SPC_RGB ? AVCOL_SPC_UNSPECIFIED : input.matrix;
    // The graph ends in a limited-range format: full-range input is scaled
    // into it, so the output is limited whatever the input was.
    tags.range =
        input.range == AVCOL_RANGE_UNSPECIFIED ? AVCOL_RANGE_UNSPECIFIED : AVCOL_RANGE_MPEG;
    return tags;
}

QString toneMapChain(const VideoStreamFacts& input, AVPixelFormat outputFormat)
{
    if (!needsToneMapping(input, outputFormat)) {
        return {};
    }
    // HDR material that states no primaries or matrix is BT.2020 in practice.
    const char* primaries = input.primaries == AVCOL_PRI_UNSPECIFIED
                                ? "bt2020"
                                : av_color_primaries_name(input.primaries);
    const char* matrix =
        input.matrix == AVCOL_SPC_UNSPECIFIED ? "bt2020nc" : av_color_space_name(input.matrix);
    const char* range = input.range == AVCOL_RANGE_JPEG ? "pc" : "tv";
    // Hable's filmic curve: it rolls highlights off gently and keeps detail
    // in both ends of the range, where mobius, built to leave in-range
    // colours exact, clips the bright parts of 1000-nit PQ grades harshly,
    // and reinhard or clip grey or flatten them. desat=0 keeps the colours
    // of highlights instead of washing them towards white.
    return QStringLiteral("zscale=tin=%1:pin=%2:min=%3:rin=%4:t=linear:npl=100,format=gbrpf32le,"
                          "zscale=p=bt709,tonemap=tonemap=hable:desat=0,"
                          "zscale=t=bt709:m=bt709:r=tv,format=yuv420p")
        .arg(QLatin1String(av_color_transfer_name(input.transfer)), QLatin1String(primaries),
             QLatin1String(matrix), QLatin1String(range));
}

} // namespace Korvane
