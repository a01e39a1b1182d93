#pragma once

#include "Common/OutputRules.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include <QMap>
#include <QRegularExpression>
#include <QSize>

#include <gtest/gtest.h>

// Media facts and jobs made in the tests, so the builders run without files.
namespace CommandJobs {

inline QSharedPointer<Korvane::MediaInfoV3> videoInfo(int width, int height,
                                                      const QString& codec = "h264",
                                                      double rotation = 0.0, int sarNum = 0,
                                                      int sarDen = 1, bool withAudio = true)
{
    auto info = QSharedPointer<Korvane::MediaInfoV3>::create();
    Korvane::MediaInfoVideoStream video;
    video.codecName = codec;
    video.width = width;
    video.height = height;
    video.rotation = rotation;
    video.sarNum = sarNum;
    video.sarDen = sarDen;
    info->videoStreams << video;
    if (withAudio) {
        info->audioStreams << Korvane::MediaInfoAudioStream{};
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

struct Job
{
    Korvane::ConvertSource source;
    Korvane::AVTaskOutputParam param;
    Korvane::FFmpegCommandFacts facts;
};

// An h264 1920x1080 input with audio, converted to h264/aac mp4 at 30 fps by a
// GPU of no known maker, changed by "key=value" pairs between ';'. A mark is
// centred at 0,0, opaque, at a quarter of its size.
inline Job job(const QString& changes = {})
{
    Job j;
    j.source.filePath = "/in/my clip.mp4";
    j.param.outputPath = "/out/result file.mp4";
    j.param.format = "mp4";
    j.param.video = {"h264", 1920, 1080, 30.0, 0};
    j.param.audio.codecName = "aac";
    j.param.acceleration.gpuName = "Generic Display Adapter";
    j.facts.info = videoInfo(1920, 1080);
    // A picture wider than 16:9 with the same integer ratio, one without video.
    j.facts.probe = pictureProbe({{"/wm/wide.png", {200, 100}},
                                  {"/wm/square.png", {100, 100}},
                                  {"/wm/190x100.png", {190, 100}},
                                  {"/wm/novideo.png", {}}});
    j.facts.hardwareThreads = 8;
    for (const QString& change : changes.split(';', Qt::SkipEmptyParts)) {
        const QString key = change.section('=', 0, 0);
        const QString value = change.section('=', 1);
        const QStringList numbers = value.split(QRegularExpression("[x,]"));
        if (key == "gpu") {
            j.param.acceleration.gpuName = value;
            j.param.acceleration.hardwareEnabled = true;
        } else if (key == "hw") {
            j.param.acceleration.hardwareEnabled = value == "1";
        } else if (key == "in") {
            j.facts.info = videoInfo(1920, 1080, value);
        } else if (key == "noaudio") {
            j.facts.info = videoInfo(1920, 1080, "h264", 0, 0, 1, false);
        } else if (key == "novideo") {
            j.facts.info = audioOnlyInfo();
        } else if (key == "unprobed") {
            j.facts.info.reset();
        } else if (key == "qsvinit") {
            j.facts.qsvDeviceInitExplicit = true;
        } else if (key == "threads") {
            j.facts.hardwareThreads = value.toInt();
        } else if (key == "vcodec") {
            j.param.video.codecName = value;
        } else if (key == "size") {
            j.param.video.width = numbers.value(0).toInt();
            j.param.video.height = numbers.value(1).toInt();
        } else if (key == "fps") {
            j.param.video.frameRate = value.toDouble();
        } else if (key == "vkbps") {
            j.param.video.bitrateKbps = value.toLongLong();
        } else if (key == "acodec") {
            j.param.audio.codecName = value;
        } else if (key == "audio") { // bit rate, sample rate, channels
            j.param.audio.bitrateKbps = numbers.value(0).toInt();
            j.param.audio.sampleRate = numbers.value(1).toInt();
            j.param.audio.channels = numbers.value(2).toInt();
        } else if (key == "format") {
            j.param.format = value;
        } else if (key == "input") {
            j.source.filePath = value;
        } else if (key == "output") {
            j.param.outputPath = value;
        } else if (key == "marks") {
            for (const QString& path : value.split(',')) {
                j.source.waterMark << mark(path, 0, 0, 1.0f, 0.25f, 0.25f);
            }
        } else if (key == "mark") { // path, centre x and y, alpha, scale
            const QStringList m = value.split(',');
            const auto n = [&](int i) { return m.value(i).toFloat(); };
            j.source.waterMark << mark(m[0], int(n(1)), int(n(2)), n(3), n(4), n(4));
        } else if (key == "picture") { // input width, height, rotation, sample aspect ratio
            j.facts.info = videoInfo(numbers.value(0).toInt(), numbers.value(1).toInt(), "h264",
                                     numbers.value(2).toDouble(), numbers.value(3).toInt(),
                                     numbers.value(4, "1").toInt());
        } else if (key == "crop") { // x, y, w, h, flip x, flip y, rotation
            const auto n = [&](int i) { return numbers.value(i).toDouble(); };
            j.source.crop =
                Korvane::CropParam{n(0), n(1), n(2), n(3), n(4) != 0, n(5) != 0, int(n(6))};
        } else {
            ADD_FAILURE() << "unknown job key " << key.toStdString();
        }
    }
    return j;
}

} // namespace CommandJobs
