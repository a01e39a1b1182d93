#include "KorvaneDec/NLEditor/ProjectDocument.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtGlobal>

#include <algorithm>
#include <cmath>

namespace Korvane {

namespace {

// A pixel number from a document that may be damaged: converting a double
// that no int holds is undefined, so values stick at +-2^20 (far beyond any
// picture) and a NaN reads as 0.
int pixels(double value)
{
    constexpr double kLimit = 1 << 20;
    if (std::isnan(value)) {
        return 0;
    }
    return static_cast<int>(qBound(-kLimit, value, kLimit));
}

int even(double value)
{
    const int rounded = pixels(std::round(value));
    return qMax(2, rounded - rounded % 2);
}

// "a,b" -> two numbers; false when the text has not exactly two parts.
bool pair(const QString& text, double* first, double* second)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != 2) {
        return false;
    }
    bool ok1 = false;
    bool ok2 = false;
    *first = parts[0].trimmed().toDouble(&ok1);
    *second = parts[1].trimmed().toDouble(&ok2);
    return ok1 && ok2;
}

ClipTransform readTransform(const QJsonObject& object)
{
    ClipTransform transform;
    double w = 0;
    double h = 0;
    if (pair(object.value(QLatin1String("bg_size")).toString(), &w, &h)) {
        transform.bgSize = QSize(pixels(w), pixels(h));
    }
    const QStringList crop = object.value(QLatin1String("crop")).toString().split(QLatin1Char(','));
    if (crop.size() == 4) {
        transform.crop =
            QRectF(crop[0].toDouble(), crop[1].toDouble(), crop[2].toDouble(), crop[3].toDouble());
    }
    transform.flipX = object.value(QLatin1String("flip_x")).toBool();
    transform.flipY = object.value(QLatin1String("flip_y")).toBool();
    transform.rotation = object.value(QLatin1String("rotation")).toInt();
    transform.scaleX = object.value(QLatin1String("scale_x")).toDouble(1.0);
    transform.scaleY = object.value(QLatin1String("scale_y")).toDouble(1.0);
    return transform;
}

MediaClip readMediaClip(const QJsonObject& object)
{
    MediaClip clip;
    clip.id = object.value(QLatin1String("id")).toString();
    clip.kind = object.value(QLatin1String("kind")).toString();
    clip.filePath = object.value(QLatin1String("file_path")).toString();
    clip.trackRef = object.value(QLatin1String("track_ref")).toString();
    clip.timelinePosMs = object.value(QLatin1String("timeline_pos")).toDouble();
    clip.rangeBeginMs = object.value(QLatin1String("range_begin")).toVariant().toLongLong();
    clip.rangeLengthMs = object.value(QLatin1String("range_length")).toVariant().toLongLong();
    const double speed = object.value(QLatin1String("speed")).toDouble(1.0);
    clip.speed = speed > 0.0 ? speed : 1.0;
    clip.fileAudioStreamIndex = object.value(QLatin1String("file_audio_stream_index")).toInt(-1);
    if (object.contains(QLatin1String("transform"))) {
        clip.hasTransform = true;
        clip.transform = readTransform(object.value(QLatin1String("transform")).toObject());
    }
    for (const QJsonValue& value : object.value(QLatin1String("video_filters")).toArray()) {
        const QJsonObject filter = value.toObject();
        VideoFilterEntry entry;
        entry.name = filter.value(QLatin1String("name")).toString();
        entry.anaglyphType = filter.value(QLatin1String("anaglyph_type")).toString();
        entry.dirPath = filter.value(QLatin1String("dir_path")).toString();
        const QJsonValue v = filter.value(QLatin1String("value"));
        if (v.isString()) {
            entry.path = v.toString();
        } else {
            entry.value = v.toInt();
        }
        clip.videoFilters.append(entry);
    }
    for (const QJsonValue& value : object.value(QLatin1String("audio_filters")).toArray()) {
        const QJsonObject filter = value.toObject();
        clip.audioFilters.append({filter.value(QLatin1String("name")).toString(),
                                  filter.value(QLatin1String("value")).toInt()});
    }
    for (const QJsonValue& value : object.value(QLatin1String("subtitles")).toArray()) {
        const QJsonObject subtitle = value.toObject();
        SubtitleEntry entry;
        entry.embeddedStreamIndex =
            subtitle.value(QLatin1String("embedded_subtitle_stream_index")).toInt();
        entry.filePath = subtitle.value(QLatin1String("attached_file_path")).toString();
        entry.offsetMs = subtitle.value(QLatin1String("attached_offset")).toVariant().toLongLong();
        entry.title = subtitle.value(QLatin1String("title")).toString();
        entry.display = subtitle.value(QLatin1String("display")).toBool();
        clip.subtitles.append(entry);
    }
    return clip;
}

ImageClip readImageClip(const QJsonObject& object)
{
    ImageClip clip;
    clip.id = object.value(QLatin1String("id")).toString();
    clip.filePath = object.value(QLatin1String("file_path")).toString();
    clip.trackRef = object.value(QLatin1String("track_ref")).toString();
    clip.timelinePosMs = object.value(QLatin1String("timeline_pos")).toDouble();
    clip.rangeLengthMs = object.value(QLatin1String("range_length")).toVariant().toLongLong();
    const double speed = object.value(QLatin1String("speed")).toDouble(1.0);
    clip.speed = speed > 0.0 ? speed : 1.0;
    clip.alpha = object.value(QLatin1String("alpha")).toDouble(1.0);
    const QJsonObject transform = object.value(QLatin1String("transform")).toObject();
    double x = 0;
    double y = 0;
    if (pair(transform.value(QLatin1String("center_pos")).toString(), &x, &y)) {
        clip.center = QPoint(pixels(x), pixels(y));
    }
    clip.rotation = transform.value(QLatin1String("rotation")).toInt();
    clip.flipX = transform.value(QLatin1String("flip_x")).toBool();
    clip.flipY = transform.value(QLatin1String("flip_y")).toBool();
    clip.scaleX = transform.value(QLatin1String("scale_x")).toDouble(1.0);
    clip.scaleY = transform.value(QLatin1String("scale_y")).toDouble(1.0);
    return clip;
}

} // namespace

QSize ProjectDocument::canvas() const
{
    const double factor = zoom > 0.0 ? zoom : 1.0;
    return QSize(even(previewWidth * factor), even(previewHeight * factor));
}

double ProjectDocument::durationMs() const
{
    const QList<MediaClip>& clips = mainClips.isEmpty() ? audioClips : mainClips;
    double end = 0.0;
    for (const MediaClip& clip : clips) {
        end = qMax(end, clip.timelinePosMs + clip.timelineLengthMs());
    }
    return end;
}

bool parseProjectDocument(const QString& json, ProjectDocument* document, QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument parsed = QJsonDocument::fromJson(json.toUtf8(), &parseError);
    if (!parsed.isObject()) {
        *error = parseError.error != QJsonParseError::NoError
                     ? QStringLiteral("the project is not valid JSON: %1 at offset %2")
                           .arg(parseError.errorString())
                           .arg(parseError.offset)
                     : QStringLiteral("the project is not a JSON object");
        return false;
    }
    const QJsonObject root = parsed.object();
    ProjectDocument doc;

    const QJsonObject preview = root.value(QLatin1String("preview_param")).toObject();
    doc.fps = preview.value(QLatin1String("fps")).toDouble(25.0);
    if (doc.fps <= 0.0) {
        doc.fps = 25.0;
    }
    doc.previewWidth = preview.value(QLatin1String("width")).toDouble(640.0);
    doc.previewHeight = preview.value(QLatin1String("height")).toDouble(480.0);
    doc.zoom = preview.value(QLatin1String("zoom")).toDouble(0.0);
    doc.audioDisabled = preview.value(QLatin1String("audio_disabled")).toBool();
    doc.videoDisabled = preview.value(QLatin1String("video_disabled")).toBool();

    doc.metaData = root.value(QLatin1String("meta_data")).toObject().toVariantMap();
    doc.metaData.remove(QStringLiteral("id"));
    doc.coverPath =
        root.value(QLatin1String("cover")).toObject().value(QLatin1String("path")).toString();

    QString trunkId;
    QHash<QString, Track> tracks;
    for (const QJsonValue& value : root.value(QLatin1String("tracks")).toArray()) {
        const QJsonObject object = value.toObject();
        Track track;
        track.id = object.value(QLatin1String("id")).toString();
        track.kind = object.value(QLatin1String("kind")).toString();
        track.zOrder = object.value(QLatin1String("z_order")).toInt();
        track.trunk = object.value(QLatin1String("trunk")).toBool();
        track.disabled = object.value(QLatin1String("disabled")).toBool();
        track.mute = object.value(QLatin1String("mute")).toBool();
        if (track.trunk && trunkId.isEmpty()) {
            trunkId = track.id;
        }
        tracks.insert(track.id, track);
        doc.tracks.append(track);
    }

    int clipCount = 0;
    for (const QJsonValue& value : root.value(QLatin1String("clips")).toArray()) {
        const QJsonObject object = value.toObject();
        const QString type = object.value(QLatin1String("type")).toString();
        const Track track = tracks.value(object.value(QLatin1String("track_ref")).toString());
        if (track.disabled) {
            continue;
        }
        ++clipCount;
        if (type == QLatin1String("image")) {
            ImageClip clip = readImageClip(object);
            clip.zOrder = track.zOrder;
            doc.imageClips.append(clip);
            continue;
        }
        MediaClip clip = readMediaClip(object);
        const bool onTrunk =
            trunkId.isEmpty() ? clip.kind != QLatin1String("audio") : clip.trackRef == trunkId;
        if (onTrunk) {
            doc.mainClips.append(clip);
        } else if (!track.mute) {
            doc.audioClips.append(clip);
        }
    }
    if (clipCount == 0) {
        *error = QStringLiteral("the project holds no clip");
        return false;
    }
    std::stable_sort(
        doc.mainClips.begin(), doc.mainClips.end(),
        [](const MediaClip& a, const MediaClip& b) { return a.timelinePosMs < b.timelinePosMs; });
    std::stable_sort(doc.imageClips.begin(), doc.imageClips.end(),
                     [](const ImageClip& a, const ImageClip& b) { return a.zOrder < b.zOrder; });
    *document = doc;
    return true;
}

} // namespace Korvane
