#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// Media, documents and measurements shared by the render tests.
namespace RenderTest {

// 160x120 test pattern at 25 fps with a 440 Hz tone (48 kHz stereo), 2 s.
QString clipWithSound();
// The same picture without sound.
QString clipWithoutSound();
// A 1 kHz tone, 3 s, AAC in M4A.
QString toneFile();
// A 40x30 PNG watermark: opaque red square.
QString watermarkPng();
// A 64x64 JPEG picture (cover).
QString coverJpeg();

// A fresh output path in the test's temporary area.
QString outputPath(const QString& name);

// Clip and document builders with the keys of the timeline document.
QJsonObject mainClip(const QString& path, qint64 beginMs, qint64 lengthMs, double posMs,
                     double speed = 1.0, const QString& kind = QStringLiteral("video"));
QJsonObject transform(int bgW, int bgH, const QString& crop = QStringLiteral("0,0,1,1"),
                      int rotation = 0, bool flipX = false, bool flipY = false);
QJsonObject document(int width, int height, double fps, const QJsonArray& clips,
                     const QJsonArray& extraTracks = {});

// ffprobe facts of a file; `countFrames` decodes the video to count them.
struct Probe
{
    int videoStreams = 0;
    int audioStreams = 0;
    int attachedPictures = 0;
    int width = 0;
    int height = 0;
    QString videoCodec;
    QString audioCodec;
    double formatDuration = 0.0; // seconds
    double videoDuration = 0.0;
    double audioDuration = 0.0;
    int sampleRate = 0;
    int channels = 0;
    double frameRate = 0.0;
    int videoFrames = 0; // counted by decoding with countFrames, else as stated
    // pixel format, primaries, transfer, matrix, range, as ffprobe names them
    QStringList colour;
    QJsonObject tags;
};
Probe probe(const QString& path, bool countFrames = false);

// True when every stream's packets of a file have increasing decoding times.
bool packetTimesIncrease(const QString& path);

// SSIM ("All") of two videos of the same size, over their common frames.
double ssim(const QString& a, const QString& b);
// Mean volume in dB of the first audio stream, optionally of a time window.
double meanVolume(const QString& path, double startS = 0.0, double lengthS = -1.0);
// Mean absolute difference (0..255) between the pictures of two files at a
// time, in a rectangle of the picture (RGB24).
double pictureDifference(const QString& a, const QString& b, double atS, int x, int y, int w,
                         int h);

// Runs the ffmpeg program; true on exit 0.
bool ffmpeg(const QStringList& args);

} // namespace RenderTest
