#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QRect>
#include <QString>
#include <QStringList>

// Media, documents and measurements shared by the render tests.
namespace RenderTest {

// Made once: 160x120 test pattern, 2 s at 25 fps, with a 440 Hz 48 kHz
// stereo tone or without sound; a 3 s 1 kHz tone; a 64x64 JPEG cover.
QString clipWithSound();
QString clipWithoutSound();
QString toneFile();
QString coverJpeg();

// A fresh output path; clip and document builders with the document's keys.
QString outputPath(const QString& name);
QJsonObject mainClip(const QString& path, qint64 beginMs, qint64 lengthMs, double posMs,
                     double speed = 1.0, const QString& kind = QStringLiteral("video"));
QJsonObject transform(int bgW, int bgH);
QJsonObject document(int width, int height, double fps, const QJsonArray& clips);

// ffprobe facts of a file; `countFrames` decodes the video to count them.
struct Probe
{
    int width = 0;
    int height = 0;
    double formatDuration = 0.0; // seconds
    double audioDuration = 0.0;
    int videoFrames = 0;
    int audioStreams = 0;
    QString streams; // each stream's codec and size and rate, or rate and channels; "cover"
    QString colour;  // pixel format, primaries, transfer, matrix, range, as ffprobe names them
    QString title;
};
Probe probe(const QString& path, bool countFrames = false);

// True when every stream's packets of a file have increasing decoding times.
bool packetTimesIncrease(const QString& path);
// SSIM ("All") of two videos of the same size, over their common frames.
double ssim(const QString& a, const QString& b);
// Mean absolute difference (0..255) of the RGB pictures of two files at a
// time, in a rectangle.
double pictureDifference(const QString& a, const QString& b, double atS, const QRect& r);

} // namespace RenderTest
