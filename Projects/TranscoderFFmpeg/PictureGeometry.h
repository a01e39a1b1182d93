#pragma once

#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include <QLoggingCategory>
#include <QSize>
#include <QString>
#include <QStringList>

#include <optional>

// What the filter graphs of every backend share: the picture's facts, its fit
// into the output, its flip and turn steps, the watermark boxes and the
// threading of the overlay labels. Inside the plug-in only.
Q_DECLARE_LOGGING_CATEGORY(lcCommandMaker)

namespace Korvane {

// The source unit the command and graph builders log under.
inline constexpr char kCommandMakerUnit[] = "Projects/TranscoderFFmpeg/FFmpegCommandMaker";

// ffmpeg's "general" number form with 6 significant digits: 29.97, 30, 0.5.
QString generalNumber(double value);

// The default MediaInfoProbe: getMediaInfo(path, -2, true).
QSharedPointer<MediaInfoV3> probeMedia(const QString& path);

// The facts every graph starts from: first video stream of the input and the
// wanted output size.
struct PictureFacts
{
    int inW = 0;
    int inH = 0;
    int streamRotation = 0;
    double sar = 1.0;
    int outW = 0;
    int outH = 0;
};

// Null when there is no video stream; logs "size invalid: " under `function`
// and gives null on invalid sizes.
std::optional<PictureFacts> pictureFacts(const AVTaskOutputParam::Video& video,
                                         const QSharedPointer<MediaInfoV3>& info,
                                         const char* function);

// The input's width corrected by its sample aspect ratio, and its height.
QSize storedPicture(const PictureFacts& facts);

// False, with "imgH invalid: " or "imgW invalid: " logged under `function`,
// when the picture left by the edits has no size.
bool pictureSizeValid(const QSize& picture, const char* function);

// The picture scaled, keeping its shape, to fit into the output.
struct PictureFit
{
    bool resize = false; // false: the picture fits as it is (w, h are its own)
    qint64 w = 0;
    qint64 h = 0;
    double scale = 1.0;     // also applied to the watermark boxes
    bool sameShape = false; // shapes within a thousandth
};

// Which side is matched when the shapes are exactly equal.
enum class EqualShapeMatch
{
    Width,
    Height
};

PictureFit fitPicture(const QSize& picture, const PictureFacts& facts, EqualShapeMatch match);

// "pad=..." centring the fitted picture in the output with bars.
QString padStep(const PictureFacts& facts, const PictureFit& fit);

// "hflip"; "rotate=0","vflip" for flipY alone (deliberately); both for both.
QStringList flipSteps(const CropParam& edits);

// The transposes for a turn of 90, 180 or 270 degrees; none for any other.
QStringList turnSteps(int rotation);

// Where one watermark lands in the output, in output pixels.
struct MarkBox
{
    int w = 0;
    int h = 0;
    int x = 0;
    int y = 0;
    int pictureW = 0; // the watermark picture's own size
    int pictureH = 0;
};

// The watermark's size follows the input picture's width or height (whichever
// the picture's shape is compared against, deliberately in integer ratios),
// scaled by the picture's fit factor; centerPos is the offset of its centre
// from the output's centre, y pointing up. Null when the picture cannot be
// probed or has no size.
std::optional<MarkBox> markBox(const WaterMarkParam& mark, const PictureFacts& facts, double fit,
                               const MediaInfoProbe& probe);

// The text that lays watermark `input` (ffmpeg input 1, 2, ...), placed at
// `box`, over the stream labelled `under`, without an output label; null
// stops the graph.
using OverlayText = std::optional<QString> (*)(int input, const QString& under,
                                               const WaterMarkParam& mark, MarkBox box,
                                               const PictureFacts& facts);

// The whole graph: `chain` applied to input 0 (labelled "video" when not
// empty), then one overlay per mark threaded through "out1", "out2", ...;
// the last overlay's output is the graph's. Without marks, `chain` itself;
// empty when a mark has no box or `overlay` gives null.
QString overlayGraph(const QString& chain, const QList<WaterMarkParam>& marks,
                     const PictureFacts& facts, double fit, const MediaInfoProbe& probe,
                     OverlayText overlay);

} // namespace Korvane
