// The NVIDIA backend's filter graph (declared in FFmpegCommandMaker.h): the
// edits and the fit run as CPU filters on downloaded frames, except a plain
// resize, which stays on the GPU.
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/PictureGeometry.h"

namespace Korvane {

namespace {

const char* const kFunction = "Korvane::makeCudaFilterCommand";

// Appends the crop, flip and turn steps of the job; gives the picture's size
// after them.
QSize editSteps(const ConvertSource& source, const PictureFacts& facts, QStringList& steps)
{
    const bool sideways = facts.streamRotation == 90 || facts.streamRotation == 270;
    QSize picture = storedPicture(facts);
    const CropParam edits = source.crop.value_or(CropParam{});
    if (!source.crop || edits.isFullPicture()) {
        if (sideways) {
            picture = QSize(facts.inH, facts.inW);
        }
    } else {
        // Only a stream turned by exactly 90 degrees exchanges the axes.
        const int axisW = facts.streamRotation == 90 ? facts.inH : facts.inW;
        const int axisH = facts.streamRotation == 90 ? facts.inW : facts.inH;
        const int x = static_cast<int>(edits.cropX * axisW);
        const int y = static_cast<int>(edits.cropY * axisH);
        picture =
            QSize(static_cast<int>(edits.cropW * axisW), static_cast<int>(edits.cropH * axisH));
        steps << QStringLiteral("crop=x=%1:y=%2:w=%3:h=%4")
                     .arg(x)
                     .arg(y)
                     .arg(picture.width())
                     .arg(picture.height());
    }
    // Without a record there are no flips and no turn of the job's own.
    steps << flipSteps(edits) << turnSteps(edits.rotation);
    if (edits.rotation == 90 || edits.rotation == 270) {
        picture.transpose();
    }
    return picture;
}

// Appends the fit into the output. Edited frames are already in system
// memory, so only an unedited picture is resized on the GPU.
void fitSteps(const PictureFit& fit, const PictureFacts& facts, bool marked, QStringList& steps)
{
    const bool edited = !steps.isEmpty();
    if (!fit.sameShape) {
        if (fit.resize) {
            steps << QStringLiteral("scale=w=%1:h=%2").arg(fit.w).arg(fit.h);
        }
        steps << padStep(facts, fit);
    } else if (fit.resize) {
        const QString size = QStringLiteral("w=%1:h=%2").arg(facts.outW).arg(facts.outH);
        if (edited) {
            steps << QStringLiteral("scale=") + size;
        } else if (marked) {
            steps << QStringLiteral("scale_cuda=%1,hwdownload,format=nv12").arg(size);
        } else {
            steps << QStringLiteral("scale_cuda=") + size;
        }
    }
}

std::optional<QString> overlay(int input, const QString& under, const WaterMarkParam& mark,
                               MarkBox box, const PictureFacts& /*facts*/)
{
    return QStringLiteral("[%1:v]scale=w=%2:h=%3,format=yuva444p,colorchannelmixer=aa=%4"
                          "[mark%5];[%6][mark%7]overlay=x=%8:y=%9")
        .arg(input)
        .arg(box.w)
        .arg(box.h)
        .arg(generalNumber(mark.alpha))
        .arg(input)
        .arg(under)
        .arg(input)
        .arg(box.x)
        .arg(box.y);
}

} // namespace

QString makeCudaFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                              const QSharedPointer<MediaInfoV3>& info, const MediaInfoProbe& probe)
{
    const std::optional<PictureFacts> facts = pictureFacts(video, info, kFunction);
    if (!facts) {
        return {};
    }
    QStringList steps;
    const QSize picture = editSteps(source, *facts, steps);
    if (!pictureSizeValid(picture, kFunction)) {
        return {};
    }
    const PictureFit fit = fitPicture(picture, *facts, EqualShapeMatch::Width);
    fitSteps(fit, *facts, !source.waterMark.isEmpty(), steps);
    if (!(steps.size() == 1 && steps.first().contains(QLatin1String("scale_cuda")))) {
        steps.prepend(QStringLiteral("hwdownload,format=nv12"));
    }
    qCDebug(lcCommandMaker) << "cuda picture" << picture << "fit" << fit.scale << "into"
                            << facts->outW << "x" << facts->outH;
    return overlayGraph(steps.join(QLatin1Char(',')), source.waterMark, *facts, fit.scale, probe,
                        overlay);
}

QString makeCudaFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                              const QSharedPointer<MediaInfoV3>& info)
{
    return makeCudaFilterCommand(source, video, info, probeMedia);
}

} // namespace Korvane
