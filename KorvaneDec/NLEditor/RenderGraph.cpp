#include "KorvaneDec/NLEditor/RenderGraph.h"

#include "KorvaneDec/Adapter/PictureFilters.h"
#include "KorvaneDec/Filters/IAudioFilter.h"
#include "KorvaneDec/Filters/VideoFilterMapping.h"

#include <QtGlobal>

#include <cmath>

namespace Korvane {

namespace {

QString num(double value)
{
    return QString::number(value, 'g', 10);
}

QString seconds(double ms)
{
    return num(ms / 1000.0);
}

int evenAtLeast2(double value)
{
    const int rounded = static_cast<int>(std::lround(value));
    return qMax(2, rounded - rounded % 2);
}

// Quarter turns as transposes; any other angle through "rotate" with the
// corners kept (the box grows to hold the turned picture).
void appendRotation(QStringList* chain, int degrees, QSize* size, const QString& fill)
{
    const int d = ((degrees % 360) + 360) % 360;
    if (d == 0) {
        return;
    }
    if (d == 90) {
        chain->append(QStringLiteral("transpose=clock"));
        size->transpose();
    } else if (d == 270) {
        chain->append(QStringLiteral("transpose=cclock"));
        size->transpose();
    } else if (d == 180) {
        chain->append(QStringLiteral("hflip"));
        chain->append(QStringLiteral("vflip"));
    } else {
        const double radians = d * M_PI / 180.0;
        const double w = std::abs(size->width() * std::cos(radians)) +
                         std::abs(size->height() * std::sin(radians));
        const double h = std::abs(size->width() * std::sin(radians)) +
                         std::abs(size->height() * std::cos(radians));
        *size = QSize(evenAtLeast2(w), evenAtLeast2(h));
        chain->append(QStringLiteral("rotate=a=%1:ow=%2:oh=%3:c=%4")
                          .arg(num(radians))
                          .arg(size->width())
                          .arg(size->height())
                          .arg(fill));
    }
}

// The clip's range of its file. A range to the file's end has no end here:
// the file ends it, however long its header says it is.
QString rangeTrim(const QString& filter, const MediaClip& clip)
{
    QString text = QStringLiteral("%1=start=%2").arg(filter, seconds(clip.rangeBeginMs));
    if (!clip.toFileEnd) {
        text += QStringLiteral(":end=%1").arg(seconds(clip.rangeBeginMs + clip.rangeLengthMs));
    }
    return text;
}

// A clip's pictures at the output rate, from its range's start rather than
// its first frame (a picture that starts late, as an edit list can make it,
// shows its first frame from 0, as players do), and no longer than its
// range: the concatenation then places each clip at its exact length.
QString clipRateChain(const MediaClip& clip, double fps)
{
    QString text = QStringLiteral("fps=%1:start_time=0").arg(num(fps));
    if (!clip.toFileEnd) {
        text += QStringLiteral(",trim=end=%1").arg(seconds(clip.timelineLengthMs()));
    }
    return text;
}

} // namespace

QSize fitInto(double aspect, const QSize& box)
{
    if (aspect <= 0.0 || box.isEmpty()) {
        return QSize(evenAtLeast2(box.width()), evenAtLeast2(box.height()));
    }
    const double boxAspect = double(box.width()) / box.height();
    if (aspect > boxAspect) {
        return QSize(evenAtLeast2(box.width()), evenAtLeast2(box.width() / aspect));
    }
    return QSize(evenAtLeast2(box.height() * aspect), evenAtLeast2(box.height()));
}

QString mainClipVideoChain(const MediaClip& clip, const SourcePicture& picture, const QSize& canvas,
                           const QString& labelPrefix)
{
    QStringList chain;
    if (picture.interlaced) {
        chain.append(deinterlaceFilterText());
    }
    if (!picture.still) {
        chain.append(rangeTrim(QStringLiteral("trim"), clip));
        chain.append(QStringLiteral("setpts=(PTS-%1/TB)/%2")
                         .arg(seconds(clip.rangeBeginMs), num(clip.speed)));
    }
    // Every later step works on the SDR picture.
    if (!picture.toneMap.isEmpty()) {
        chain.append(picture.toneMap);
    }

    // The file's own display rotation first: the document's crop and
    // transform describe the picture as it is shown.
    QSize pixels(picture.width, picture.height);
    double sampleAspect = picture.sampleAspect > 0.0 ? picture.sampleAspect : 1.0;
    appendRotation(&chain, picture.rotation, &pixels, QStringLiteral("black"));
    if (picture.rotation == 90 || picture.rotation == 270) {
        sampleAspect = 1.0 / sampleAspect;
    }

    const ClipTransform& t = clip.transform;
    const QRectF crop = clip.hasTransform ? t.crop : QRectF(0, 0, 1, 1);
    const int cropW = qMax(2, static_cast<int>(std::floor(crop.width() * pixels.width())));
    const int cropH = qMax(2, static_cast<int>(std::floor(crop.height() * pixels.height())));
    const int cropX = qBound(0, static_cast<int>(std::floor(crop.x() * pixels.width())),
                             qMax(0, pixels.width() - cropW));
    const int cropY = qBound(0, static_cast<int>(std::floor(crop.y() * pixels.height())),
                             qMax(0, pixels.height() - cropH));
    if (cropW != pixels.width() || cropH != pixels.height()) {
        chain.append(QStringLiteral("crop=w=%1:h=%2:x=%3:y=%4:exact=1")
                         .arg(cropW)
                         .arg(cropH)
                         .arg(cropX)
                         .arg(cropY));
    }
    double displayW = cropW * sampleAspect;
    double displayH = cropH;
    if (t.flipX) {
        chain.append(QStringLiteral("hflip"));
    }
    if (t.flipY) {
        chain.append(QStringLiteral("vflip"));
    }
    for (const VideoFilterEntry& filter : clip.videoFilters) {
        if (filter.anaglyphType.isEmpty()) {
            continue;
        }
        chain.append(anaglyphFilterText(filter.anaglyphType, labelPrefix + QLatin1String("ana")));
        if (filter.anaglyphType.contains(QLatin1String("Side by Side"))) {
            displayW /= 2.0;
        } else if (filter.anaglyphType.contains(QLatin1String("Top and Bottom"))) {
            displayH /= 2.0;
        }
        break;
    }
    for (const VideoFilterEntry& filter : clip.videoFilters) {
        const QString text = colourFilterText(filter.name, filter.value);
        if (!text.isEmpty()) {
            chain.append(text);
        }
    }

    const QSize box = clip.hasTransform && !t.bgSize.isEmpty() ? t.bgSize : canvas;
    QSize size = fitInto(displayW / displayH, box);
    chain.append(QStringLiteral("scale=%1:%2").arg(size.width()).arg(size.height()));
    appendRotation(&chain, clip.hasTransform ? t.rotation : 0, &size, QStringLiteral("black"));
    const double scaleX = clip.hasTransform && t.scaleX > 0.0 ? t.scaleX : 1.0;
    const double scaleY = clip.hasTransform && t.scaleY > 0.0 ? t.scaleY : 1.0;
    if (scaleX != 1.0 || scaleY != 1.0) {
        size = QSize(evenAtLeast2(size.width() * scaleX), evenAtLeast2(size.height() * scaleY));
        chain.append(QStringLiteral("scale=%1:%2").arg(size.width()).arg(size.height()));
    }
    if (size.width() > box.width() || size.height() > box.height()) {
        size = size.boundedTo(box);
        chain.append(QStringLiteral("crop=%1:%2").arg(size.width()).arg(size.height()));
    }
    if (size != box) {
        chain.append(QStringLiteral("pad=%1:%2:(ow-iw)/2:(oh-ih)/2:black")
                         .arg(box.width())
                         .arg(box.height()));
    }
    if (box != canvas) {
        chain.append(QStringLiteral("scale=%1:%2").arg(canvas.width()).arg(canvas.height()));
    }
    chain.append(QStringLiteral("setsar=1"));
    return chain.join(QLatin1Char(','));
}

QString imageClipChain(const ImageClip& image)
{
    QStringList chain{QStringLiteral("format=rgba")};
    const double scaleX = image.scaleX > 0.0 ? image.scaleX : 1.0;
    const double scaleY = image.scaleY > 0.0 ? image.scaleY : 1.0;
    if (scaleX != 1.0 || scaleY != 1.0) {
        chain.append(QStringLiteral("scale=w=max(1\\,iw*%1):h=max(1\\,ih*%2)")
                         .arg(num(scaleX), num(scaleY)));
    }
    if (image.flipX) {
        chain.append(QStringLiteral("hflip"));
    }
    if (image.flipY) {
        chain.append(QStringLiteral("vflip"));
    }
    const int d = ((image.rotation % 360) + 360) % 360;
    if (d != 0) {
        chain.append(
            QStringLiteral("rotate=a=%1:ow=rotw(a):oh=roth(a):c=none").arg(num(d * M_PI / 180.0)));
    }
    const double alpha = qBound(0.0, image.alpha, 1.0);
    if (alpha < 1.0) {
        chain.append(QStringLiteral("colorchannelmixer=aa=%1").arg(num(alpha)));
    }
    return chain.join(QLatin1Char(','));
}

QString imageOverlayText(const ImageClip& image)
{
    QString text = QStringLiteral("overlay=x=%1-w/2:y=%2-h/2:format=auto")
                       .arg(image.center.x())
                       .arg(image.center.y());
    if (image.rangeLengthMs > 0 || image.timelinePosMs > 0.0) {
        const double endMs = image.rangeLengthMs > 0
                                 ? image.timelinePosMs + image.rangeLengthMs / image.speed
                                 : 1e12;
        text += QStringLiteral(":enable='between(t,%1,%2)'")
                    .arg(seconds(image.timelinePosMs), seconds(endMs));
    }
    return text;
}

QStringList tempoFilters(double speed)
{
    QStringList filters;
    if (speed <= 0.0 || std::abs(speed - 1.0) < 1e-6) {
        return filters;
    }
    double rest = speed;
    while (rest < 0.5) {
        filters.append(QStringLiteral("atempo=0.5"));
        rest /= 0.5;
    }
    while (rest > 100.0) {
        filters.append(QStringLiteral("atempo=100"));
        rest /= 100.0;
    }
    filters.append(QStringLiteral("atempo=%1").arg(num(rest)));
    return filters;
}

QString clipAudioChain(const MediaClip& clip, bool place)
{
    QStringList chain;
    chain.append(rangeTrim(QStringLiteral("atrim"), clip));
    chain.append(QStringLiteral("asetpts=PTS-%1/TB").arg(seconds(clip.rangeBeginMs)));
    chain.append(tempoFilters(clip.speed));
    for (const AudioFilterEntry& entry : clip.audioFilters) {
        const auto filter = makeAudioFilter(entry.name, entry.value);
        const QString text = filter ? filter->graphText() : QString();
        if (!text.isEmpty()) {
            chain.append(text);
        }
    }
    const qint64 delayMs = std::llround(clip.timelinePosMs);
    if (place && delayMs > 0) {
        chain.append(QStringLiteral("adelay=delays=%1:all=1").arg(delayMs));
    }
    return chain.join(QLatin1Char(','));
}

QString buildVideoGraph(const VideoGraphRequest& request)
{
    QStringList parts;
    const int n = request.clips.size();
    for (int i = 0; i < n; ++i) {
        parts.append(QStringLiteral("[v%1]%2,%3[c%1]")
                         .arg(i)
                         .arg(mainClipVideoChain(request.clips[i], request.pictures[i],
                                                 request.canvas, QStringLiteral("m%1").arg(i)),
                              clipRateChain(request.clips[i], request.fps)));
    }
    QString joined;
    for (int i = 0; i < n; ++i) {
        joined += QStringLiteral("[c%1]").arg(i);
    }
    if (n > 1) {
        joined += QStringLiteral("concat=n=%1:v=1:a=0,").arg(n);
    } else {
        joined += QStringLiteral("null,");
    }
    QString current = QStringLiteral("base0");
    parts.append(joined + QStringLiteral("fps=%1[%2]").arg(num(request.fps), current));

    for (int j = 0; j < request.images.size(); ++j) {
        const ImageClip& image = request.images[j];
        parts.append(QStringLiteral("[w%1]%2[wm%1]").arg(j).arg(imageClipChain(image)));
        const QString next = QStringLiteral("base%1").arg(j + 1);
        parts.append(QStringLiteral("[%1][wm%2]%3[%4]")
                         .arg(current)
                         .arg(j)
                         .arg(imageOverlayText(image), next));
        current = next;
    }

    for (int k = 0; k < request.bitmapSubtitles.size(); ++k) {
        const BitmapSubtitleLayer& layer = request.bitmapSubtitles[k];
        const double aspect = layer.displayAspect > 0.0
                                  ? layer.displayAspect
                                  : double(layer.plane.width()) / qMax(1, layer.plane.height());
        const QSize fitted = fitInto(aspect, request.canvas);
        parts.append(QStringLiteral("[s%1]scale=%2:%3[sp%1]")
                         .arg(k)
                         .arg(fitted.width())
                         .arg(fitted.height()));
        // The renderer ends a layer with a transparent picture: past its end
        // the picture passes untouched instead of being blended with nothing.
        const QString next = QStringLiteral("sub%1").arg(k);
        parts.append(QStringLiteral("[%1][sp%2]overlay=x=(W-w)/2:y=(H-h)/2:eof_action=pass:"
                                    "format=auto[%3]")
                         .arg(current)
                         .arg(k)
                         .arg(next));
        current = next;
    }

    QStringList tail;
    for (const SubtitleDraw& draw : request.subtitles) {
        tail.append(subtitleFilterText(draw.path, draw.ordinal, draw.offsetMs, draw.speed));
    }
    if (request.output != request.canvas) {
        tail.append(
            QStringLiteral("scale=%1:%2").arg(request.output.width()).arg(request.output.height()));
    }
    tail.append(QStringLiteral("format=pix_fmts=%1").arg(request.pixelFormat));
    parts.append(QStringLiteral("[%1]%2[vout]").arg(current, tail.join(QLatin1Char(','))));
    return parts.join(QLatin1Char(';'));
}

QString buildAudioGraph(const AudioGraphRequest& request)
{
    bool anySound = !request.audioClips.isEmpty();
    for (const ClipAudio& audio : request.mainAudio) {
        anySound = anySound || audio.hasAudio;
    }
    if (!anySound || request.durationMs <= 0.0) {
        return {};
    }
    QStringList parts;
    QStringList mixInputs;
    const int n = request.mainClips.size();
    if (n > 0) {
        for (int i = 0; i < n; ++i) {
            const MediaClip& clip = request.mainClips[i];
            if (request.mainAudio.value(i).hasAudio) {
                parts.append(
                    QStringLiteral("[a%1]%2[ca%1]").arg(i).arg(clipAudioChain(clip, false)));
            } else {
                parts.append(QStringLiteral("anullsrc=r=%1:cl=%2,atrim=duration=%3[ca%4]")
                                 .arg(request.sampleRate)
                                 .arg(request.channelLayout)
                                 .arg(seconds(clip.timelineLengthMs()))
                                 .arg(i));
            }
        }
        QString joined;
        for (int i = 0; i < n; ++i) {
            joined += QStringLiteral("[ca%1]").arg(i);
        }
        joined += n > 1 ? QStringLiteral("concat=n=%1:v=0:a=1").arg(n) : QStringLiteral("anull");
        parts.append(joined + QStringLiteral("[amain]"));
        mixInputs.append(QStringLiteral("[amain]"));
    }
    for (int k = 0; k < request.audioClips.size(); ++k) {
        parts.append(QStringLiteral("[x%1]%2[cx%1]")
                         .arg(k)
                         .arg(clipAudioChain(request.audioClips[k], true)));
        mixInputs.append(QStringLiteral("[cx%1]").arg(k));
    }
    QString tail = mixInputs.join(QString());
    if (mixInputs.size() > 1) {
        tail +=
            QStringLiteral("amix=inputs=%1:duration=longest:normalize=0,").arg(mixInputs.size());
    } else {
        tail += QStringLiteral("anull,");
    }
    // A timeline whose length rests on a file's header is not padded to it:
    // the writer ends the sound with the picture instead.
    bool knownLength = true;
    for (const MediaClip& clip : request.mainClips + request.audioClips) {
        knownLength = knownLength && !clip.toFileEnd;
    }
    if (knownLength) {
        tail += QStringLiteral("apad=whole_dur=%1,atrim=end=%1,").arg(seconds(request.durationMs));
    }
    tail += QStringLiteral("aformat=sample_fmts=%1:sample_rates=%2:channel_layouts=%3[aout]")
                .arg(request.sampleFormat)
                .arg(request.sampleRate)
                .arg(request.channelLayout);
    parts.append(tail);
    return parts.join(QLatin1Char(';'));
}

} // namespace Korvane
