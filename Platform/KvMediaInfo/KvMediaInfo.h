#pragma once

#include "KvMediaInfo/KvMediaInfoExport.h"

#include <QList>
#include <QMap>
#include <QSharedPointer>
#include <QString>

namespace Korvane {

// Media facts as the conversion side asks for them. Each call opens the file
// once and caches nothing.

// Codec names: "h264" for H.264, "h265" for HEVC, otherwise FFmpeg's codec
// name (e.g. "mpeg4", "aac").
struct MediaInfoVideoStream
{
    qint32 index = -1; // stream index in the container
    QString codecName;
    qint32 width = 0; // coded picture size
    qint32 height = 0;
    double rotation = 0.0; // degrees clockwise, 0, 90, 180 or 270 for usual files
    qint32 sarNum = 0;     // sample aspect ratio as stored (0/1 when unknown)
    qint32 sarDen = 1;
    qint32 bitDepth = 8;   // of the first component of the pixel format
    QString pixelFormat;   // FFmpeg's name, empty when unknown
    qint32 colorSpace = 2; // AVColorSpace as stored; 2 (unspecified) when the file says nothing

    // Sample aspect ratio for picture arithmetic: sarNum/sarDen when both are
    // positive, else 1.0.
    double sar() const { return sarOf(sarNum, sarDen); }
    static double sarOf(qint32 num, qint32 den)
    {
        return num > 0 && den > 0 ? double(num) / den : 1.0;
    }
    // The BT.2020 matrix, constant luminance or not (AVCOL_SPC_BT2020_NCL, _CL).
    bool isBt2020() const { return colorSpace == 9 || colorSpace == 10; }
};

struct MediaInfoAudioStream
{
    qint32 index = -1;
    QString codecName;
    qint32 channels = 0;
    qint32 sampleRate = 0;
};

struct MediaInfoV3
{
    QString filePath;
    QString formatName;    // short input-format name, e.g. "mov,mp4,m4a,3gp,3g2,mj2"
    qint64 durationMs = 0; // 0 when the container states no duration
    QList<MediaInfoVideoStream> videoStreams; // attached pictures included, in stream order
    QList<MediaInfoAudioStream> audioStreams;
    QMap<QString, QString> metadata; // the container's tags as stored, e.g. "title"
};

// `hint` and `probeStreams` are the host's (it passes -1 or -2, and true);
// they are accepted for compatibility and change none of the facts.
// Null when the file cannot be opened or probed.
KVMEDIAINFO_EXPORT QSharedPointer<MediaInfoV3> getMediaInfo(const QString& path, int hint,
                                                            bool probeStreams);

struct ContainerVideoStream
{
    qint32 index = -1;
    qint32 frameRateNum = 0; // average frame rate as stored in the stream
    qint32 frameRateDen = 0;
    qint64 durationMs = 0; // stream duration x time base x 1000, truncated; 0 when unknown
    bool attachedPic = false;
    // Display size: width = trunc(coded width x sar()), height = coded height,
    // exchanged when the rotation is 90 or 270.
    qint32 displayWidth = 0;
    qint32 displayHeight = 0;
};

struct ContainerAudioStream
{
    qint32 index = -1;
    qint64 durationMs = 0;
};

struct ContainerInfo
{
    qint64 durationMs = 0; // as MediaDescription::durationMs; 0 when the container has none
    QList<ContainerVideoStream> videoStreams;
    QList<ContainerAudioStream> audioStreams;
};

// Null when the file cannot be opened. With computeDuration false the stream
// durations may be left 0.
KVMEDIAINFO_EXPORT QSharedPointer<ContainerInfo> getContainInfo(const QString& path,
                                                                bool computeDuration);

// Container duration in ms; 0 when the file cannot be opened or the container
// states no duration.
KVMEDIAINFO_EXPORT qint64 mediaDuration(const QString& path);

} // namespace Korvane
