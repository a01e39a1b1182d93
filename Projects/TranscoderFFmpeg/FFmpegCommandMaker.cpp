#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include "Common/Records/OutputRules.h"
#include "KorvaneBase/Record.h"
#include "KorvaneGPUHardwareAcceleration/KorvaneGPUHardwareAcceleration.h"

#include <QHash>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <optional>

// Off unless enabled with QT_LOGGING_RULES="korvane.transcoder.command.debug=true".
Q_LOGGING_CATEGORY(lcCommandMaker, "korvane.transcoder.command", QtInfoMsg)

namespace Korvane {

namespace {

const char* const kSourceFile = "Projects/TranscoderFFmpeg/FFmpegCommandMaker";
const char* const kCudaFunction = "Korvane::makeCudaFilterCommand";
const char* const kQsvFunction = "Korvane::makeQsvFilterCommand";
const char* const kCommandFunction = "Korvane::makeFFmpegCommand";

// ffmpeg's "general" number form with 6 significant digits: 29.97, 30, 0.5.
QString general(double value)
{
    return QString::number(value, 'g', 6);
}

QString quoted(const QString& path)
{
    return QLatin1Char('"') + path + QLatin1Char('"');
}

// The facts both graphs start from: first video stream of the input and the
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

// Null when there is no video stream; logs and gives null on invalid sizes.
std::optional<PictureFacts> pictureFacts(const AVTaskOutputParam::Video& video,
                                         const QSharedPointer<MediaInfoV3>& info,
                                         const char* function, int line)
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
        Record(function, line, kSourceFile, nullptr, 0)
            << "size invalid: " << facts.outH << " " << facts.inW << " " << facts.inH;
        return std::nullopt;
    }
    return facts;
}

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

bool isFullPicture(const CropParam& crop)
{
    return crop.cropX == 0.0 && crop.cropY == 0.0 && crop.cropW == 1.0 && crop.cropH == 1.0;
}

QSharedPointer<MediaInfoV3> probeMedia(const QString& path)
{
    return getMediaInfo(path, -2, true);
}

// Every element makeFFmpegCommand writes as an option and its value; %1 stands
// for a decimal number. Extend it with each such element the builder gains.
const char* const kPairedElements[] = {
    "-v error",        "-init_hw_device qsv=hw,child_device_type=d3d11va",
    "-hwaccel qsv",    "-hwaccel cuvid",
    "-hwaccel auto",   "-c:v h264_qsv",
    "-c:v hevc_qsv",   "-c:v h264_cuvid",
    "-c:v hevc_cuvid", "-threads %1",
    "-vtag hvc1",      "-bf 0",
    "-minrate %1k",    "-maxrate %1k",
    "-bufsize %1k",    "-vsync 1",
    "-g 15",           "-crf %1",
};

} // namespace

bool isPairedElement(const QString& element)
{
    static const QRegularExpression paired = [] {
        QStringList patterns;
        for (const char* text : kPairedElements) {
            QStringList parts = QString::fromLatin1(text).split(QStringLiteral("%1"));
            for (QString& part : parts) {
                part = QRegularExpression::escape(part);
            }
            patterns << parts.join(QStringLiteral("[0-9]+"));
        }
        return QRegularExpression(
            QRegularExpression::anchoredPattern(patterns.join(QLatin1Char('|'))));
    }();
    return paired.match(element).hasMatch();
}

QString makeCudaFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                              const QSharedPointer<MediaInfoV3>& info, const MediaInfoProbe& probe)
{
    const std::optional<PictureFacts> facts = pictureFacts(video, info, kCudaFunction, __LINE__);
    if (!facts) {
        return {};
    }
    const int inW = facts->inW;
    const int inH = facts->inH;
    const int outW = facts->outW;
    const int outH = facts->outH;
    const bool sideways = facts->streamRotation == 90 || facts->streamRotation == 270;

    QStringList steps;
    int picW = static_cast<int>(inW * facts->sar);
    int picH = inH;

    if (!source.crop) {
        if (sideways) {
            picW = inH;
            picH = inW;
        }
    } else {
        const CropParam& crop = *source.crop;
        if (isFullPicture(crop)) {
            if (sideways) {
                picW = inH;
                picH = inW;
            }
        } else {
            // Only a stream turned by exactly 90 degrees exchanges the axes.
            const int axisW = facts->streamRotation == 90 ? inH : inW;
            const int axisH = facts->streamRotation == 90 ? inW : inH;
            const int x = static_cast<int>(crop.cropX * axisW);
            const int y = static_cast<int>(crop.cropY * axisH);
            picW = static_cast<int>(crop.cropW * axisW);
            picH = static_cast<int>(crop.cropH * axisH);
            steps << QStringLiteral("crop=x=%1:y=%2:w=%3:h=%4").arg(x).arg(y).arg(picW).arg(picH);
        }
        if (crop.flipX) {
            steps << QStringLiteral("hflip");
        }
        if (crop.flipY) {
            if (steps.isEmpty() || !steps.last().contains(QLatin1String("hflip"))) {
                steps << QStringLiteral("rotate=0");
            }
            steps << QStringLiteral("vflip");
        }
        switch (crop.rotation) {
        case 90:
            steps << QStringLiteral("transpose=1");
            std::swap(picW, picH);
            break;
        case 180:
            steps << QStringLiteral("transpose=1,transpose=1");
            break;
        case 270:
            steps << QStringLiteral("transpose=2");
            std::swap(picW, picH);
            break;
        default:
            break;
        }
    }

    if (picH < 1) {
        Record(kCudaFunction, __LINE__, kSourceFile, nullptr, 0) << "imgH invalid: " << picH;
        return {};
    }
    if (picW < 1) {
        Record(kCudaFunction, __LINE__, kSourceFile, nullptr, 0) << "imgW invalid: " << picW;
        return {};
    }

    // Crop, flips and rotations run on the CPU, so the frames are in system
    // memory by the time the picture is fitted.
    const bool edited = !steps.isEmpty();
    const float rIn = static_cast<float>(picW) / static_cast<float>(picH);
    const float rOut = static_cast<float>(outW) / static_cast<float>(outH);
    double fit = 1.0;
    bool scaling = false;
    qint64 fitW = picW;
    qint64 fitH = picH;
    if (picW == outW && picH <= outH) {
        scaling = false;
    } else if (picH != outH || picW > outW) {
        scaling = true;
        if (rIn >= rOut) {
            fit = static_cast<double>(outW) / picW;
            fitW = outW;
            fitH = static_cast<qint64>(outW) * picH / picW;
        } else {
            fit = static_cast<double>(outH) / picH;
            fitH = outH;
            fitW = static_cast<qint64>(outH) * picW / picH;
        }
    }
    if (std::fabs(rIn - rOut) <= 0.001) {
        if (scaling) {
            if (edited) {
                steps << QStringLiteral("scale=w=%1:h=%2").arg(outW).arg(outH);
            } else if (!source.waterMark.isEmpty()) {
                steps << QStringLiteral("scale_cuda=w=%1:h=%2,hwdownload,format=nv12")
                             .arg(outW)
                             .arg(outH);
            } else {
                steps << QStringLiteral("scale_cuda=w=%1:h=%2").arg(outW).arg(outH);
            }
        }
    } else {
        if (scaling) {
            steps << QStringLiteral("scale=w=%1:h=%2").arg(fitW).arg(fitH);
        }
        steps << QStringLiteral("pad=%1:%2:%3:%4")
                     .arg(outW)
                     .arg(outH)
                     .arg((outW - fitW) / 2)
                     .arg((outH - fitH) / 2);
    }
    if (!(steps.size() == 1 && steps.first().contains(QLatin1String("scale_cuda")))) {
        steps.prepend(QStringLiteral("hwdownload,format=nv12"));
    }
    qCDebug(lcCommandMaker) << "cuda picture" << picW << "x" << picH << "fit" << fit << "into"
                            << outW << "x" << outH;

    const QString chain = steps.join(QLatin1Char(','));
    if (source.waterMark.isEmpty()) {
        return chain;
    }
    QString graph;
    QString label = QStringLiteral("0:v");
    if (!chain.isEmpty()) {
        graph = QStringLiteral("[%1]%2[video];").arg(label, chain);
        label = QStringLiteral("video");
    }
    for (int i = 1; i <= source.waterMark.size(); ++i) {
        const WaterMarkParam& mark = source.waterMark.at(i - 1);
        const std::optional<MarkBox> box = markBox(mark, *facts, fit, probe);
        if (!box) {
            return {};
        }
        graph += QStringLiteral("[%1:v]scale=w=%2:h=%3,format=yuva444p,colorchannelmixer=aa=%4"
                                "[mark%5];[%6][mark%7]overlay=x=%8:y=%9")
                     .arg(i)
                     .arg(box->w)
                     .arg(box->h)
                     .arg(general(mark.alpha))
                     .arg(i)
                     .arg(label)
                     .arg(i)
                     .arg(box->x)
                     .arg(box->y);
        if (i < source.waterMark.size()) {
            label = QStringLiteral("out%1").arg(i);
            graph += QStringLiteral("[%1];").arg(label);
        }
    }
    return graph;
}

QString makeQsvFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                             const QSharedPointer<MediaInfoV3>& info, const MediaInfoProbe& probe)
{
    const std::optional<PictureFacts> facts = pictureFacts(video, info, kQsvFunction, __LINE__);
    if (!facts) {
        return {};
    }
    const int inW = facts->inW;
    const int inH = facts->inH;
    const int outW = facts->outW;
    const int outH = facts->outH;

    int picW = static_cast<int>(inW * facts->sar);
    int picH = inH;
    int cx = 0;
    int cy = 0;
    int cw = inW;
    int ch = inH;
    bool cropped = false;
    // Without a record there are no flips and no rotation of the job's own.
    const CropParam edits = source.crop.value_or(CropParam{});
    // The rectangle is mapped for streams turned by 0 or 90 degrees only.
    if (source.crop && (facts->streamRotation == 0 || facts->streamRotation == 90)) {
        if (facts->streamRotation == 0) {
            cw = static_cast<int>(inW * edits.cropW);
            ch = static_cast<int>(inH * edits.cropH);
            cx = static_cast<int>(inW * edits.cropX);
            cy = static_cast<int>(inH * edits.cropY);
        } else {
            cw = static_cast<int>(inW * edits.cropH);
            ch = static_cast<int>(inH * edits.cropW);
            cx = static_cast<int>(inW * edits.cropY);
            cy = static_cast<int>((edits.cropW + edits.cropX) * inH);
        }
        if (cw < inW || ch < inH) {
            cropped = true;
            picW = cw;
            picH = ch;
        }
    }
    const int rotation = edits.rotation + facts->streamRotation;
    const bool sideways = rotation == 90 || rotation == 270;
    if (sideways) {
        std::swap(picW, picH);
    }

    if (picH <= 0) {
        Record(kQsvFunction, __LINE__, kSourceFile, nullptr, 0) << "imgH invalid: " << picH;
        return {};
    }
    if (picW <= 0) {
        Record(kQsvFunction, __LINE__, kSourceFile, nullptr, 0) << "imgW invalid: " << picW;
        return {};
    }

    // The size after the resize, in the output's orientation.
    qint64 sizeW = picW;
    qint64 sizeH = picH;
    double fit = 1.0;
    const bool resize = !((picW == outW && picH <= outH) || (picH == outH && picW <= outW));
    if (resize) {
        const float rIn = static_cast<float>(picW) / static_cast<float>(picH);
        const float rOut = static_cast<float>(outW) / static_cast<float>(outH);
        if (!(rIn > rOut)) {
            sizeH = outH;
            sizeW = static_cast<qint64>(picW) * outH / picH;
            fit = static_cast<double>(outH) / picH;
        } else {
            sizeW = outW;
            sizeH = static_cast<qint64>(picH) * outW / picW;
            fit = static_cast<double>(outW) / picW;
        }
    }
    const bool pad = sizeW != outW || sizeH != outH;
    // vpp_qsv resizes before the transpose, so it gets the size sideways.
    const qint64 vppW = sideways ? sizeH : sizeW;
    const qint64 vppH = sideways ? sizeW : sizeH;

    QString chain;
    if (!cropped) {
        chain = resize ? QStringLiteral("vpp_qsv=w=%1:h=%2").arg(vppW).arg(vppH)
                       : QStringLiteral("vpp_qsv=format=qsv");
    } else {
        chain = QStringLiteral("vpp_qsv=cx=%1:cy=%2:cw=%3:ch=%4").arg(cx).arg(cy).arg(cw).arg(ch);
        if (resize) {
            chain += QStringLiteral(":w=%1:h=%2").arg(vppW).arg(vppH);
        }
    }
    if (edits.flipX) {
        chain += QStringLiteral(",hflip");
    }
    if (edits.flipY) {
        if (!edits.flipX) {
            chain += QStringLiteral(",rotate=0");
        }
        chain += QStringLiteral(",vflip");
    }
    switch (rotation) {
    case 90:
        chain += QStringLiteral(",transpose=1");
        break;
    case 180:
        chain += QStringLiteral(",transpose=1,transpose=1");
        break;
    case 270:
        chain += QStringLiteral(",transpose=2");
        break;
    default:
        break;
    }
    if (pad) {
        chain += QStringLiteral(",pad=%1:%2:%3:%4")
                     .arg(outW)
                     .arg(outH)
                     .arg((outW - sizeW) / 2)
                     .arg((outH - sizeH) / 2);
        if (!source.waterMark.isEmpty()) {
            chain += QStringLiteral(",hwupload=extra_hw_frames=10");
        }
    }
    const bool turned = rotation == 90 || rotation == 180 || rotation == 270;
    if (!cropped && !resize && !edits.flipX && !edits.flipY && !turned && !pad) {
        chain.clear();
    }
    qCDebug(lcCommandMaker) << "qsv picture" << picW << "x" << picH << "fit" << fit << "into"
                            << outW << "x" << outH;

    if (source.waterMark.isEmpty()) {
        return chain;
    }
    QString graph;
    QString label = QStringLiteral("0:v");
    if (!chain.isEmpty()) {
        graph = QStringLiteral("[%1]%2[video];").arg(label, chain);
        label = QStringLiteral("video");
    }
    for (int i = 1; i <= source.waterMark.size(); ++i) {
        const WaterMarkParam& mark = source.waterMark.at(i - 1);
        std::optional<MarkBox> box = markBox(mark, *facts, fit, probe);
        if (!box) {
            return {};
        }
        const int alpha = static_cast<int>(mark.alpha * 255.0);
        QString markCrop;
        if (outW < box->x + box->w || outH < box->y + box->h) {
            if (box->h == 0) {
                Record(kQsvFunction, __LINE__, kSourceFile, nullptr, 0) << "marKH invalid: " << 0;
                return {};
            }
            // Only the width is cut back to the edge; the overlay keeps the
            // box's height, so the picture keeps its full height and loses the
            // part of its width that would lie outside.
            const qint64 visibleW = outW - box->x;
            const qint64 keptW =
                std::clamp<qint64>(visibleW * box->pictureH / box->h, 1, box->pictureW);
            box->w = static_cast<int>(visibleW);
            markCrop =
                QStringLiteral(",vpp_qsv=cx=0:cy=0:cw=%1:ch=%2").arg(keptW).arg(box->pictureH);
        }
        graph += QStringLiteral("[%1:v]hwupload=extra_hw_frames=10%2[mark%3];[%4][mark%5]"
                                "overlay_qsv=x=%6:y=%7:w=%8:h=%9:alpha=%10")
                     .arg(i)
                     .arg(markCrop)
                     .arg(i)
                     .arg(label)
                     .arg(i)
                     .arg(box->x)
                     .arg(box->y)
                     .arg(box->w)
                     .arg(box->h)
                     .arg(alpha);
        if (i < source.waterMark.size()) {
            label = QStringLiteral("out%1").arg(i);
            graph += QStringLiteral("[%1];").arg(label);
        }
    }
    return graph;
}

QStringList makeFFmpegCommand(const ConvertSource& source, const AVTaskOutputParam& param,
                              const QString& progressTarget, const FFmpegCommandFacts& facts)
{
    // The list is joined into one command line, so a double quote inside a
    // quoted path would end the quoting early and let the rest of the name
    // be read as options.
    QStringList quotedPaths{progressTarget, source.filePath};
    for (const WaterMarkParam& mark : source.waterMark) {
        quotedPaths << mark.filePath;
    }
    quotedPaths << param.outputPath;
    for (const QString& path : quotedPaths) {
        if (path.contains(QLatin1Char('"'))) {
            Record(kCommandFunction, __LINE__, kSourceFile, nullptr, 0)
                << "path holds a double quote and cannot be passed to ffmpeg: " << path;
            return {};
        }
    }

    const QSharedPointer<MediaInfoV3>& info = facts.info;
    if (!info) {
        return {};
    }
    const bool noVideo = param.video.codecName.isEmpty() || info->videoStreams.isEmpty();
    const bool noAudio = param.audio.codecName.isEmpty() || info->audioStreams.isEmpty();
    const QString inputVideoCodec =
        info->videoStreams.isEmpty() ? QString() : info->videoStreams.first().codecName;
    const QString& gpu = param.acceleration.gpuName;
    const bool intel = gpu.contains(QLatin1String("Intel"));
    const bool nvidia = gpu.contains(QLatin1String("NVIDIA"));

    QStringList args;
    args << QStringLiteral("-v error") << QStringLiteral("-progress") << quoted(progressTarget)
         << QStringLiteral("-y");

    if (param.acceleration.hardwareEnabled) {
        if (intel) {
            if (facts.qsvDeviceInitExplicit) {
                args << QStringLiteral("-init_hw_device qsv=hw,child_device_type=d3d11va");
            }
            args << QStringLiteral("-hwaccel qsv");
            if (inputVideoCodec == QLatin1String("h264")) {
                args << QStringLiteral("-c:v h264_qsv");
            } else if (inputVideoCodec == QLatin1String("h265")) {
                args << QStringLiteral("-c:v hevc_qsv");
            }
        } else if (nvidia) {
            args << QStringLiteral("-hwaccel cuvid");
            if (inputVideoCodec == QLatin1String("h264")) {
                args << QStringLiteral("-c:v h264_cuvid");
            } else if (inputVideoCodec == QLatin1String("h265")) {
                args << QStringLiteral("-c:v hevc_cuvid");
            }
        } else {
            args << QStringLiteral("-hwaccel auto");
        }
    }
    args << QStringLiteral("-threads %1").arg((facts.hardwareThreads + 1) / 2);
    args << QStringLiteral("-i") << quoted(source.filePath);
    for (const WaterMarkParam& mark : source.waterMark) {
        args << QStringLiteral("-i") << quoted(mark.filePath);
    }

    if (noAudio) {
        args << QStringLiteral("-an");
    } else {
        const AVTaskOutputParam::Audio& audio = param.audio;
        if (!audio.codecName.isEmpty() && audio.codecName != QLatin1String("0")) {
            QString codec = audio.codecName.toLower();
            if (codec == QLatin1String("pcm")) {
                codec = QStringLiteral("pcm_s16le");
            } else if (codec == QLatin1String("adpcm")) {
                codec = QStringLiteral("adpcm_ima_wav");
            }
            args << QStringLiteral("-acodec") << codec;
        }
        if (audio.bitrateKbps >= 1) {
            args << QStringLiteral("-ab") << QStringLiteral("%1k").arg(audio.bitrateKbps);
        }
        if (audio.sampleRate >= 1) {
            args << QStringLiteral("-ar") << QString::number(audio.sampleRate);
        }
        if (audio.channels >= 1) {
            args << QStringLiteral("-ac") << QString::number(audio.channels);
        }
    }

    if (noVideo) {
        args << QStringLiteral("-vn");
    } else {
        const AVTaskOutputParam::Video& video = param.video;
        QString codec = video.codecName.toLower();
        if (!codec.isEmpty() && codec != QLatin1String("0")) {
            if (codec == QLatin1String("h265")) {
                codec = QStringLiteral("hevc");
                args << QStringLiteral("-vtag hvc1");
            }
            args << QStringLiteral("-vcodec");
            if (intel) {
                args << QStringLiteral("%1_qsv").arg(codec);
            } else if (nvidia) {
                args << QStringLiteral("%1_nvenc").arg(codec);
                if (codec == QLatin1String("h264")) {
                    args << QStringLiteral("-bf 0");
                }
            } else {
                args << codec;
            }
        }
        if (video.width >= 1 && video.height >= 1 && (intel || nvidia)) {
            const QString graph = intel ? makeQsvFilterCommand(source, video, info, facts.probe)
                                        : makeCudaFilterCommand(source, video, info, facts.probe);
            const QString quotedGraph = quoted(graph);
            if (quotedGraph.size() != 2) {
                args << QStringLiteral("-lavfi") << quotedGraph;
            }
        }
        if (video.bitrateKbps >= 1) {
            args << QStringLiteral("-vb") << QStringLiteral("%1k").arg(video.bitrateKbps);
            if (!(codec == QLatin1String("h264") && nvidia)) {
                args << QStringLiteral("-minrate %1k").arg(video.bitrateKbps)
                     << QStringLiteral("-maxrate %1k").arg(video.bitrateKbps)
                     << QStringLiteral("-bufsize %1k").arg(video.bitrateKbps * 2);
            }
        }
        if (video.frameRate > 0) {
            const QString videoCodec = video.codecName.toLower();
            if (param.format.toLower() == QLatin1String("mkv") &&
                (videoCodec == QLatin1String("h264") || videoCodec == QLatin1String("h265"))) {
                args << QStringLiteral("-vsync 1");
            }
            args << QStringLiteral("-r") << general(video.frameRate);
        }
    }

    args << QStringLiteral("-g 15");
    args << QStringLiteral("-crf %1").arg(
        crfQuality(param.video.codecName, param.video.width, param.video.height));
    args << QStringLiteral("-f") << muxerName(param.format);
    args << quoted(param.outputPath);
    return args;
}

QString makeCudaFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                              const QSharedPointer<MediaInfoV3>& info)
{
    return makeCudaFilterCommand(source, video, info, probeMedia);
}

QString makeQsvFilterCommand(const ConvertSource& source, const AVTaskOutputParam::Video& video,
                             const QSharedPointer<MediaInfoV3>& info)
{
    return makeQsvFilterCommand(source, video, info, probeMedia);
}

QStringList makeFFmpegCommand(const ConvertSource& source, const AVTaskOutputParam& param,
                              const QString& progressTarget, int /*option*/)
{
    FFmpegCommandFacts facts;
    facts.info = probeMedia(source.filePath);
    facts.probe = probeMedia;
    facts.qsvDeviceInitExplicit = KorvaneGPUHardwareAccelerationEntry()->qsvDeviceInitExplicit();
    facts.hardwareThreads = QThread::idealThreadCount();
    return makeFFmpegCommand(source, param, progressTarget, facts);
}

} // namespace Korvane
