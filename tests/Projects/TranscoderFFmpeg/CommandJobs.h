#pragma once

#include "Common/OutputRules.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include <QList>
#include <QMap>
#include <QSize>

#include <optional>

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
        audio.channels = 2;
        audio.sampleRate = 48000;
        info->audioStreams << audio;
    }
    return info;
}

inline QSharedPointer<Korvane::MediaInfoV3> audioOnlyInfo()
{
    auto info = QSharedPointer<Korvane::MediaInfoV3>::create();
    Korvane::MediaInfoAudioStream audio;
    audio.index = 0;
    audio.codecName = "mp3";
    info->audioStreams << audio;
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

inline Korvane::AVTaskOutputParam::Video videoOut(int width, int height)
{
    Korvane::AVTaskOutputParam::Video video;
    video.codecName = "h264";
    video.width = width;
    video.height = height;
    return video;
}

inline Korvane::CropParam crop(double x, double y, double w, double h, bool flipX = false,
                               bool flipY = false, int rotation = 0)
{
    return Korvane::CropParam{x, y, w, h, flipX, flipY, rotation};
}

inline Korvane::CropParam fullPicture(bool flipX = false, bool flipY = false, int rotation = 0)
{
    return crop(0.0, 0.0, 1.0, 1.0, flipX, flipY, rotation);
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

// One row of a filter-graph table: the input's facts, the job's edits, the
// output size and the graph text expected.
struct GraphCase
{
    const char* name;
    QSharedPointer<Korvane::MediaInfoV3> info;
    std::optional<Korvane::CropParam> crop;
    QList<Korvane::WaterMarkParam> waterMarks;
    int outW;
    int outH;
    QString expected;
};

// The job of a table row.
inline Korvane::ConvertSource graphSource(const GraphCase& c)
{
    Korvane::ConvertSource source;
    source.filePath = "/in/clip.mp4";
    source.crop = c.crop;
    source.waterMark = c.waterMarks;
    return source;
}

} // namespace CommandJobs
