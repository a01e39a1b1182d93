#include "TranscoderFFmpeg/PictureGeometry.h"

#include "KorvaneBase/Record.h"

#include <cmath>

// Off unless enabled with QT_LOGGING_RULES="korvane.transcoder.command.debug=true".
Q_LOGGING_CATEGORY(lcCommandMaker, "korvane.transcoder.command", QtInfoMsg)

namespace Korvane {

QString generalNumber(double value)
{
    return QString::number(value, 'g', 6);
}

QSharedPointer<MediaInfoV3> probeMedia(const QString& path)
{
    return getMediaInfo(path, -2, true);
}

std::optional<PictureFacts> pictureFacts(const AVTaskOutputParam::Video& video,
                                         const QSharedPointer<MediaInfoV3>& info,
                                         const char* function)
{
    if (!info || info->videoStreams.isEmpty()) {
        return std::nullopt;
    }
    const MediaInfoVideoStream& stream = info->videoStreams.first();
    PictureFacts facts;
    facts.inW = stream.width;
    facts.inH = stream.height;
    facts.streamRotation = static_cast<int>(stream.rotation);
    facts.sar = stream.sar();
    facts.outW = video.width;
    facts.outH = video.height;
    if (facts.outH < 1 || facts.inW < 1 || facts.inH < 1) {
        Record(function, __LINE__, kCommandMakerUnit, nullptr, 0)
            << "size invalid: " << facts.outH << " " << facts.inW << " " << facts.inH;
        return std::nullopt;
    }
    return facts;
}

QSize storedPicture(const PictureFacts& facts)
{
    return QSize(static_cast<int>(facts.inW * facts.sar), facts.inH);
}

bool pictureSizeValid(const QSize& picture, const char* function)
{
    if (picture.height() < 1) {
        Record(function, __LINE__, kCommandMakerUnit, nullptr, 0)
            << "imgH invalid: " << picture.height();
        return false;
    }
    if (picture.width() < 1) {
        Record(function, __LINE__, kCommandMakerUnit, nullptr, 0)
            << "imgW invalid: " << picture.width();
        return false;
    }
    return true;
}

PictureFit fitPicture(const QSize& picture, const PictureFacts& facts, EqualShapeMatch match)
{
    const int picW = picture.width();
    const int picH = picture.height();
    const float rIn = static_cast<float>(picW) / static_cast<float>(picH);
    const float rOut = static_cast<float>(facts.outW) / static_cast<float>(facts.outH);
    PictureFit fit;
    fit.w = picW;
    fit.h = picH;
    fit.sameShape = std::fabs(rIn - rOut) <= 0.001;
    // A picture as wide as the output, or as high and not wider, fits as it is.
    fit.resize =
        !((picW == facts.outW && picH <= facts.outH) || (picH == facts.outH && picW <= facts.outW));
    if (!fit.resize) {
        return fit;
    }
    if (rIn > rOut || (rIn == rOut && match == EqualShapeMatch::Width)) {
        fit.scale = static_cast<double>(facts.outW) / picW;
        fit.w = facts.outW;
        fit.h = static_cast<qint64>(facts.outW) * picH / picW;
    } else {
        fit.scale = static_cast<double>(facts.outH) / picH;
        fit.h = facts.outH;
        fit.w = static_cast<qint64>(facts.outH) * picW / picH;
    }
    return fit;
}

QString padStep(const PictureFacts& facts, const PictureFit& fit)
{
    return QStringLiteral("pad=%1:%2:%3:%4")
        .arg(facts.outW)
        .arg(facts.outH)
        .arg((facts.outW - fit.w) / 2)
        .arg((facts.outH - fit.h) / 2);
}

QStringList flipSteps(const CropParam& edits)
{
    QStringList steps;
    if (edits.flipX) {
        steps << QStringLiteral("hflip");
    }
    if (edits.flipY) {
        if (!edits.flipX) {
            steps << QStringLiteral("rotate=0");
        }
        steps << QStringLiteral("vflip");
    }
    return steps;
}

QStringList turnSteps(int rotation)
{
    switch (rotation) {
    case 90:
        return {QStringLiteral("transpose=1")};
    case 180:
        return {QStringLiteral("transpose=1,transpose=1")};
    case 270:
        return {QStringLiteral("transpose=2")};
    default:
        return {};
    }
}

std::optional<MarkBox> markBox(const WaterMarkParam& mark, const PictureFacts& facts, double fit,
                               const MediaInfoProbe& probe)
{
    const QSharedPointer<MediaInfoV3> markInfo = probe(mark.filePath);
    if (!markInfo || markInfo->videoStreams.isEmpty()) {
        return std::nullopt;
    }
    const int wmW = markInfo->videoStreams.first().width;
    const int wmH = markInfo->videoStreams.first().height;
    if (wmW < 1 || wmH < 1) {
        return std::nullopt;
    }
    qint64 w = 0;
    qint64 h = 0;
    if (facts.inW / facts.inH < wmW / wmH) {
        w = static_cast<qint64>(facts.inW * static_cast<double>(mark.scaleX));
        h = w * wmH / wmW;
    } else {
        h = static_cast<qint64>(facts.inH * static_cast<double>(mark.scaleY));
        w = h * wmW / wmH;
    }
    MarkBox box;
    box.pictureW = wmW;
    box.pictureH = wmH;
    box.w = static_cast<int>(w * fit);
    box.h = static_cast<int>(h * fit);
    const int dx = static_cast<int>(mark.centerPos.x() * fit);
    const int dy = static_cast<int>(mark.centerPos.y() * fit);
    box.x = facts.outW / 2 - box.w / 2 + dx;
    box.y = facts.outH / 2 - box.h / 2 - dy;
    return box;
}

QString overlayGraph(const QString& chain, const QList<WaterMarkParam>& marks,
                     const PictureFacts& facts, double fit, const MediaInfoProbe& probe,
                     OverlayText overlay)
{
    if (marks.isEmpty()) {
        return chain;
    }
    QString graph;
    QString label = QStringLiteral("0:v");
    if (!chain.isEmpty()) {
        graph = QStringLiteral("[%1]%2[video];").arg(label, chain);
        label = QStringLiteral("video");
    }
    for (int i = 1; i <= marks.size(); ++i) {
        const WaterMarkParam& mark = marks.at(i - 1);
        const std::optional<MarkBox> box = markBox(mark, facts, fit, probe);
        const std::optional<QString> text =
            box ? overlay(i, label, mark, *box, facts) : std::nullopt;
        if (!text) {
            return {};
        }
        graph += *text;
        if (i < marks.size()) {
            label = QStringLiteral("out%1").arg(i);
            graph += QStringLiteral("[%1];").arg(label);
        }
    }
    return graph;
}

} // namespace Korvane
