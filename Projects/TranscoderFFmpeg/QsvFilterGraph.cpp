// The Intel backend's filter graph (declared in FFmpegCommandMaker.h): one
// vpp_qsv step crops and resizes on the GPU, flips and turns follow, and the
// watermarks are uploaded and blended on the GPU.
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/PictureGeometry.h"

#include "KorvaneBase/Record.h"

#include <algorithm>

namespace Korvane {

namespace {

const char* const kFunction = "Korvane::makeQsvFilterCommand";

// The rectangle vpp_qsv keeps of the stored picture.
struct VppCrop
{
    int x = 0;
    int y = 0;
    int w = 0;
    int h = 0;
};

// Null when nothing is cut away. The rectangle is mapped for streams turned by
// 0 or 90 degrees only.
std::optional<VppCrop> vppCrop(const ConvertSource& source, const PictureFacts& facts)
{
    if (!source.crop || (facts.streamRotation != 0 && facts.streamRotation != 90)) {
        return std::nullopt;
    }
    const CropParam& crop = *source.crop;
    const int inW = facts.inW;
    const int inH = facts.inH;
    const VppCrop rect =
        facts.streamRotation == 0
            ? VppCrop{static_cast<int>(inW * crop.cropX), static_cast<int>(inH * crop.cropY),
                      static_cast<int>(inW * crop.cropW), static_cast<int>(inH * crop.cropH)}
            : VppCrop{static_cast<int>(inW * crop.cropY),
                      static_cast<int>((crop.cropW + crop.cropX) * inH),
                      static_cast<int>(inW * crop.cropH), static_cast<int>(inH * crop.cropW)};
    if (rect.w < inW || rect.h < inH) {
        return rect;
    }
    return std::nullopt;
}

// The vpp_qsv step; it resizes before the turn, so it gets the size sideways.
QString vppStep(const std::optional<VppCrop>& crop, const PictureFit& fit, bool sideways)
{
    const QString size =
        QStringLiteral("w=%1:h=%2").arg(sideways ? fit.h : fit.w).arg(sideways ? fit.w : fit.h);
    if (!crop) {
        return fit.resize ? QStringLiteral("vpp_qsv=") + size
                          : QStringLiteral("vpp_qsv=format=qsv");
    }
    const QString step = QStringLiteral("vpp_qsv=cx=%1:cy=%2:cw=%3:ch=%4")
                             .arg(crop->x)
                             .arg(crop->y)
                             .arg(crop->w)
                             .arg(crop->h);
    return fit.resize ? step + QLatin1Char(':') + size : step;
}

// Only the width of a mark past an edge is cut back to the edge; the overlay
// keeps the box's height, so the picture keeps its full height and loses the
// part of its width that would lie outside.
std::optional<QString> overlay(int input, const QString& under, const WaterMarkParam& mark,
                               MarkBox box, const PictureFacts& facts)
{
    QString markCrop;
    if (facts.outW < box.x + box.w || facts.outH < box.y + box.h) {
        if (box.h == 0) {
            Record(kFunction, __LINE__, kCommandMakerUnit, nullptr, 0) << "marKH invalid: " << 0;
            return std::nullopt;
        }
        const qint64 visibleW = facts.outW - box.x;
        const qint64 keptW = std::clamp<qint64>(visibleW * box.pictureH / box.h, 1, box.pictureW);
        box.w = static_cast<int>(visibleW);
        markCrop = QStringLiteral(",vpp_qsv=cx=0:cy=0:cw=%1:ch=%2").arg(keptW).arg(box.pictureH);
    }
    return QStringLiteral("[%1:v]hwupload=extra_hw_frames=10%2[mark%3];[%4][mark%5]"
                          "overlay_qsv=x=%6:y=%7:w=%8:h=%9:alpha=%10")
        .arg(input)
        .arg(markCrop)
        .arg(input)
        .arg(under)
        .arg(input)
        .arg(box.x)
        .arg(box.y)
        .arg(box.w)
        .arg(box.h)
        .arg(static_cast<int>(mark.alpha * 255.0));
}

} // namespace

QString makeQsvFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                             const QSharedPointer<MediaInfoV3>& info, const MediaInfoProbe& probe)
{
    const std::optional<PictureFacts> facts = pictureFacts(video, info, kFunction);
    if (!facts) {
        return {};
    }
    const std::optional<VppCrop> crop = vppCrop(source, *facts);
    QSize picture = crop ? QSize(crop->w, crop->h) : storedPicture(*facts);
    // Without a record there are no flips and no turn of the job's own; the
    // stream's own turn is added to the job's.
    const CropParam edits = source.crop.value_or(CropParam{});
    const int rotation = edits.rotation + facts->streamRotation;
    const bool sideways = rotation == 90 || rotation == 270;
    if (sideways) {
        picture.transpose();
    }
    if (!pictureSizeValid(picture, kFunction)) {
        return {};
    }
    const PictureFit fit = fitPicture(picture, *facts, EqualShapeMatch::Height);
    QStringList steps{vppStep(crop, fit, sideways)};
    steps << flipSteps(edits) << turnSteps(rotation);
    if (fit.w != facts->outW || fit.h != facts->outH) {
        steps << padStep(*facts, fit);
        // Deliberately only with the pad step.
        if (!source.waterMark.isEmpty()) {
            steps << QStringLiteral("hwupload=extra_hw_frames=10");
        }
    }
    // A lone format conversion does nothing.
    if (steps.size() == 1 && !crop && !fit.resize) {
        steps.clear();
    }
    qCDebug(lcCommandMaker) << "qsv picture" << picture << "fit" << fit.scale << "into"
                            << facts->outW << "x" << facts->outH;
    return overlayGraph(steps.join(QLatin1Char(',')), source.waterMark, *facts, fit.scale, probe,
                        overlay);
}

QString makeQsvFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                             const QSharedPointer<MediaInfoV3>& info)
{
    return makeQsvFilterCommand(source, video, info, probeMedia);
}

} // namespace Korvane
