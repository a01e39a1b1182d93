#pragma once

#include "Common/OutputRules.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include <QMap>
#include <QSize>

// Media facts and jobs made in the tests, so the builders run without files.
namespace CommandJobs {

inline QSharedPointer<Korvane::MediaInfoV3> videoInfo(int width, int height,
                                                      const QString& codec = "h264",
                                                      double rotation = 0.0, int sarNum = 0,
                                                      int sarDen = 1, bool withAudio = true)
{
    auto info = QSharedPointer<Korvane::MediaInfoV3>::create();
    Korvane::MediaInfoVideoStream video;
    video.index = 0;
    video.codecName = codec;
    video.width = width;
    video.height = height;
    video.rotation = rotation;
    video.sarNum = sarNum;
    video.sarDen = sarDen;
    info->videoStreams << video;
    if (withAudio) {
        Korvane::MediaInfoAudioStream audio;
        audio.index = 1;
        audio.codecName = "aac";
        info->audioStreams << audio;
    }
    return info;
}

inline QSharedPointer<Korvane::MediaInfoV3> audioOnlyInfo()
{
    auto info = QSharedPointer<Korvane::MediaInfoV3>::create();
    info->audioStreams << Korvane::MediaInfoAudioStream();
    return info;
}

// Answers for the listed pictures only; any other path cannot be probed. A
// picture of size 0x0 is answered with a record that has no video stream.
inline Korvane::MediaInfoProbe pictureProbe(const QMap<QString, QSize>& pictures)
{
    return [pictures](const QString& path) -> QSharedPointer<Korvane::MediaInfoV3> {
        if (!pictures.contains(path)) {
            return {};
        }
        const QSize size = pictures.value(path);
        if (size.isEmpty()) {
            return QSharedPointer<Korvane::MediaInfoV3>::create();
        }
        return videoInfo(size.width(), size.height(), "png", 0.0, 0, 1, false);
    };
}

inline Korvane::WaterMarkParam mark(const QString& path, int centerX, int centerY, float alpha,
                                    float scaleX, float scaleY)
{
    Korvane::WaterMarkParam m;
    m.filePath = path;
    m.centerPos = QPoint(centerX, centerY);
    m.alpha = alpha;
    m.scaleX = scaleX;
    m.scaleY = scaleY;
    return m;
}

} // namespace CommandJobs
