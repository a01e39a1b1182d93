#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "Common/Records/TimelineKeys.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QtGlobal>

#include <algorithm>
#include <cmath>

namespace Korvane {

using namespace TimelineKeys;

namespace {

// The keys looked up while a caller of parseProjectDocument collects them
// (null otherwise): writers of documents check against it that the engine
// reads what they write.
thread_local QSet<QString>* tKeysRead = nullptr;

QJsonValue field(const QJsonObject& object, QLatin1String key)
{
    if (tKeysRead) {
        tKeysRead->insert(key);
    }
    return object.value(key);
}

bool has(const QJsonObject& object, QLatin1String key)
{
    if (tKeysRead) {
        tKeysRead->insert(key);
    }
    return object.contains(key);
}

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
    if (pair(field(object, kBgSize).toString(), &w, &h)) {
        transform.bgSize = QSize(pixels(w), pixels(h));
    }
    const QStringList crop = field(object, kCrop).toString().split(QLatin1Char(','));
    if (crop.size() == 4) {
        transform.crop =
            QRectF(crop[0].toDouble(), crop[1].toDouble(), crop[2].toDouble(), crop[3].toDouble());
    }
    transform.flipX = field(object, kFlipX).toBool();
    transform.flipY = field(object, kFlipY).toBool();
    transform.rotation = field(object, kRotation).toInt();
    transform.scaleX = field(object, kScaleX).toDouble(1.0);
    transform.scaleY = field(object, kScaleY).toDouble(1.0);
    return transform;
}

MediaClip readMediaClip(const QJsonObject& object)
{
    MediaClip clip;
    clip.id = field(object, kId).toString();
    clip.kind = field(object, kKind).toString();
    clip.filePath = field(object, kFilePath).toString();
    clip.trackRef = field(object, kTrackRef).toString();
    clip.timelinePosMs = field(object, kTimelinePos).toDouble();
    clip.rangeBeginMs = field(object, kRangeBegin).toVariant().toLongLong();
    clip.rangeLengthMs = field(object, kRangeLength).toVariant().toLongLong();
    const double speed = field(object, kSpeed).toDouble(1.0);
    clip.speed = speed > 0.0 ? speed : 1.0;
    clip.fileAudioStreamIndex = field(object, kFileAudioStreamIndex).toInt(-1);
    if (has(object, kTransform)) {
        clip.hasTransform = true;
        clip.transform = readTransform(field(object, kTransform).toObject());
    }
    for (const QJsonValue& value : field(object, kVideoFilters).toArray()) {
        const QJsonObject filter = value.toObject();
        VideoFilterEntry entry;
        entry.name = field(filter, kName).toString();
        entry.anaglyphType = field(filter, kAnaglyphType).toString();
        entry.dirPath = field(filter, kDirPath).toString();
        const QJsonValue v = field(filter, kValue);
        if (v.isString()) {
            entry.path = v.toString();
        } else {
            entry.value = v.toInt();
        }
        clip.videoFilters.append(entry);
    }
    for (const QJsonValue& value : field(object, kAudioFilters).toArray()) {
        const QJsonObject filter = value.toObject();
        clip.audioFilters.append({field(filter, kName).toString(), field(filter, kValue).toInt()});
    }
    for (const QJsonValue& value : field(object, kSubtitles).toArray()) {
        const QJsonObject subtitle = value.toObject();
        SubtitleEntry entry;
        entry.embeddedStreamIndex = field(subtitle, kEmbeddedSubtitleStreamIndex).toInt();
        entry.filePath = field(subtitle, kAttachedFilePath).toString();
        entry.offsetMs = field(subtitle, kAttachedOffset).toVariant().toLongLong();
        entry.title = field(subtitle, kTitle).toString();
        entry.display = field(subtitle, kDisplay).toBool();
        clip.subtitles.append(entry);
    }
    return clip;
}

ImageClip readImageClip(const QJsonObject& object)
{
    ImageClip clip;
    clip.id = field(object, kId).toString();
    clip.filePath = field(object, kFilePath).toString();
    clip.trackRef = field(object, kTrackRef).toString();
    clip.timelinePosMs = field(object, kTimelinePos).toDouble();
    clip.rangeLengthMs = field(object, kRangeLength).toVariant().toLongLong();
    const double speed = field(object, kSpeed).toDouble(1.0);
    clip.speed = speed > 0.0 ? speed : 1.0;
    clip.alpha = field(object, kAlpha).toDouble(1.0);
    const QJsonObject transform = field(object, kTransform).toObject();
    double x = 0;
    double y = 0;
    if (pair(field(transform, kCenterPos).toString(), &x, &y)) {
        clip.center = QPoint(pixels(x), pixels(y));
    }
    clip.rotation = field(transform, kRotation).toInt();
    clip.flipX = field(transform, kFlipX).toBool();
    clip.flipY = field(transform, kFlipY).toBool();
    clip.scaleX = field(transform, kScaleX).toDouble(1.0);
    clip.scaleY = field(transform, kScaleY).toDouble(1.0);
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

static bool readDocument(const QString& json, ProjectDocument* document, QString* error)
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

    const QJsonObject preview = field(root, kPreviewParam).toObject();
    doc.fps = field(preview, kFps).toDouble(25.0);
    if (doc.fps <= 0.0) {
        doc.fps = 25.0;
    }
    doc.previewWidth = field(preview, kWidth).toDouble(640.0);
    doc.previewHeight = field(preview, kHeight).toDouble(480.0);
    doc.zoom = field(preview, kZoom).toDouble(0.0);
    doc.audioDisabled = field(preview, kAudioDisabled).toBool();
    doc.videoDisabled = field(preview, kVideoDisabled).toBool();

    doc.metaData = field(root, kMetaData).toObject().toVariantMap();
    doc.metaData.remove(QStringLiteral("id"));
    doc.coverPath = field(field(root, kCover).toObject(), kPath).toString();

    QString trunkId;
    QHash<QString, Track> tracks;
    for (const QJsonValue& value : field(root, kTracks).toArray()) {
        const QJsonObject object = value.toObject();
        Track track;
        track.id = field(object, kId).toString();
        track.kind = field(object, kKind).toString();
        track.zOrder = field(object, kZOrder).toInt();
        track.trunk = field(object, kTrunk).toBool();
        track.disabled = field(object, kDisabled).toBool();
        track.mute = field(object, kMute).toBool();
        if (track.trunk && trunkId.isEmpty()) {
            trunkId = track.id;
        }
        tracks.insert(track.id, track);
        doc.tracks.append(track);
    }

    int clipCount = 0;
    for (const QJsonValue& value : field(root, kClips).toArray()) {
        const QJsonObject object = value.toObject();
        const QString type = field(object, kType).toString();
        const Track track = tracks.value(field(object, kTrackRef).toString());
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

bool parseProjectDocument(const QString& json, ProjectDocument* document, QString* error,
                          QSet<QString>* keysRead)
{
    tKeysRead = keysRead;
    const bool read = readDocument(json, document, error);
    tKeysRead = nullptr;
    return read;
}

} // namespace Korvane
