#pragma once

#include "KorvaneDec/NLEditor/NLEditorExport.h"

#include <QList>
#include <QPoint>
#include <QRectF>
#include <QSet>
#include <QSize>
#include <QString>
#include <QVariantMap>

namespace Korvane {

// The project tree of a timeline document, as far as this engine renders it.
// Times are milliseconds.

struct ClipTransform
{
    QSize bgSize;            // the box the picture is fitted into, centred
    QRectF crop{0, 0, 1, 1}; // fractions of the picture
    bool flipX = false;
    bool flipY = false;
    int rotation = 0;    // degrees clockwise, applied after fitting
    double scaleX = 1.0; // applied after rotation, about the centre
    double scaleY = 1.0;
};

struct VideoFilterEntry
{
    QString name; // "Brightness", ... ; empty for the effect kinds
    int value = 0;
    QString anaglyphType; // set for the Anaglyph entry
    QString dirPath;      // set for the effect-folder entry
    QString path;         // AIMosaic / AIAutoReframe result file
};

struct AudioFilterEntry
{
    QString name;
    int value = 0;
};

struct SubtitleEntry
{
    int embeddedStreamIndex = 0;
    QString filePath;
    qint64 offsetMs = 0;
    QString title;
    bool display = false;
};

struct MediaClip
{
    QString id;
    QString kind; // "video", "video_only", "audio_with_cover", "audio"
    QString filePath;
    QString trackRef;
    double timelinePosMs = 0.0;
    qint64 rangeBeginMs = 0;
    qint64 rangeLengthMs = 0;
    double speed = 1.0;
    int fileAudioStreamIndex = -1;
    bool hasTransform = false;
    ClipTransform transform;
    QList<VideoFilterEntry> videoFilters;
    QList<AudioFilterEntry> audioFilters;
    QList<SubtitleEntry> subtitles;
    // Not read from the document: the renderer sets it when the range
    // reaches the end the file announces, and then plays the file to its
    // real end, which a header can misstate either way.
    bool toFileEnd = false;

    // Length on the timeline: the range played at the clip's speed.
    double timelineLengthMs() const { return rangeLengthMs / speed; }
};

struct ImageClip
{
    QString id;
    QString filePath;
    QString trackRef;
    int zOrder = 0;
    double timelinePosMs = 0.0;
    qint64 rangeLengthMs = 0;
    double speed = 1.0;
    double alpha = 1.0;
    QPoint center;
    int rotation = 0;
    bool flipX = false;
    bool flipY = false;
    double scaleX = 1.0;
    double scaleY = 1.0;
};

struct Track
{
    QString id;
    QString kind; // "video", "audio", "effect"
    int zOrder = 0;
    bool trunk = false;
    bool disabled = false;
    bool mute = false;
};

struct KORVANENLEDITOR_EXPORT ProjectDocument
{
    double fps = 25.0;
    double previewWidth = 640.0;
    double previewHeight = 480.0;
    double zoom = 0.0; // 0: not written
    bool audioDisabled = false;
    bool videoDisabled = false;
    QVariantMap metaData; // without its "id"
    QString coverPath;
    QList<Track> tracks;
    QList<MediaClip> mainClips;  // on the trunk track, in timeline order
    QList<MediaClip> audioClips; // every other media clip: mixed as audio
    QList<ImageClip> imageClips; // in z-order, lowest first

    // The picture size the document composes on: the preview size, times the
    // zoom when one is written; each side at least 2 and even.
    QSize canvas() const;
    // The end of the last main-track clip, or of the last audio clip when the
    // main track is empty.
    double durationMs() const;
};

// Reads a timeline document. Keys this engine does not render are ignored;
// missing keys take the defaults above. Returns false with `error` set when
// the text is not a JSON object or holds no clip at all. With `keysRead`,
// every key name the reader looked up is added to it (for checking a writer
// of documents against the reader).
KORVANENLEDITOR_EXPORT bool parseProjectDocument(const QString& json, ProjectDocument* document,
                                                 QString* error, QSet<QString>* keysRead = nullptr);

} // namespace Korvane
