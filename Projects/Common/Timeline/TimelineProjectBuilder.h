#pragma once

#include "Common/Records/ConvertSource.h"
#include "Common/Timeline/TimelineExport.h"
#include "KvMediaInfo/KvMediaInfo.h"

#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <optional>

namespace Korvane {

// Turns one conversion job into the timeline project that the export engine
// of the other process reads. Pure apart from two reads of the file system
// (the cover picture's size and the effect folder's config.json) and the
// process-wide counter behind "transform_%1" and "2dTo3d_%1".
//
// `info` holds the probed facts of the source file; null stands for a file
// that could not be probed (defaults: 25 fps, 640 x 480, duration 0). It is
// only read, and must outlive the builder; the source and the options are
// copied. One builder makes one document: call build() once.
class KORVANETIMELINE_EXPORT TimelineProjectBuilder
{
public:
    TimelineProjectBuilder(const ConvertSource& source, const QVariantMap& options,
                           const ContainerInfo* info);

    // The indented JSON text of the project.
    QString build();

private:
    void readMediaFacts();
    void writePreviewParam();
    void writeZoom();
    void createTracks();
    void buildMainTransform();
    void buildMainFilters();
    void appendSourceClips();
    QVariantList subtitles() const;
    void appendAttachedAudioClips();
    void appendWaterMarks();

    QVariantMap makeTrack(const QString& kind, int zOrder, bool trunk);
    QVariantMap makeMediaClip(const QString& kind, const QString& filePath, int track);
    void appendMediaClip(QVariantMap clip);
    QVariantMap makeVideoFilter(const QString& name, const QVariant& value);
    QString nextFilterId(const QString& prefix);
    // Uniform scale that fits a picture turned by 90 or 270 degrees into the
    // canvas; none for other rotations, an empty canvas or an empty crop.
    std::optional<float> rotationScale(int rotation) const;
    qint64 usedLength() const;
    qint64 durationRule() const;

    const ConvertSource m_source;
    const QVariantMap m_options;
    const ContainerInfo* m_info;
    const float m_speed;

    double m_fps = 25.0;
    qint32 m_width = 640; // canvas, after the output options
    qint32 m_height = 480;
    qint32 m_pictureWidth = 640; // canvas as probed, before the output options
    qint32 m_pictureHeight = 480;
    qint64 m_durationMs = 0;
    bool m_realPicture = false;
    int m_selfAudioTracks = 0; // selfAudios that the file can serve

    int m_trackCounter = 0;
    int m_clipCounter = 0;
    int m_filterCounter = 0;

    QVariantMap m_document;
    QVariantMap m_previewParam;
    QVariantMap m_mainTransform;
    QVariantList m_mainVideoFilters;
    QVariantList m_mainAudioFilters;
    QVariantList m_tracks;
    QVariantList m_clips;
};

} // namespace Korvane
