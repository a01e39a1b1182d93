#pragma once

#include <QList>
#include <QPoint>
#include <QString>
#include <QVariantMap>

#include <optional>

namespace Korvane {

// The input file of a conversion job and every edit to apply. A plain value:
// the host fills it, everything else only reads it. Times are milliseconds,
// crop rectangles fractions (0..1) of the picture, rotations degrees
// clockwise.

struct SelfSubtitle
{
    qint32 index = 0; // stream index in the input
    QString title;
};

struct AttachedAudio
{
    qint64 startMs = 0; // where the file starts on the output timeline
    QString filePath;
};

struct AttachedSubtitle
{
    qint64 startMs = 0;
    QString title;
    QString filePath;
};

struct CutRange
{
    qint64 begin = 0;
    qint64 length = 0;
};

// Crop rectangle plus flips and rotation: a job that only rotates still
// carries a crop record with the full rectangle.
struct CropParam
{
    double cropX = 0.0;
    double cropY = 0.0;
    double cropW = 1.0;
    double cropH = 1.0;
    bool flipX = false; // mirror left-right
    bool flipY = false; // mirror top-bottom
    qint32 rotation = 0;

    // The rectangle is the whole picture, exactly (flips and turns aside).
    bool isFullPicture() const
    {
        return cropX == 0.0 && cropY == 0.0 && cropW == 1.0 && cropH == 1.0;
    }
};

struct BaseFilterParam
{
    qint32 brightness = 0;
    qint32 contrast = 0;
    qint32 saturation = 0;
    qint32 sharpen = 0;
    qint32 shadow = 0;
    qint32 highlight = 0;
    qint32 colorTemperature = 0;
    qint32 hue = 0;
    qint32 volume = 100; // percent
};

struct WaterMarkParam
{
    QString filePath;
    QPoint centerPos;   // centre of the watermark in output pixels
    float alpha = 1.0f; // opacity 0..1
    bool flipX = false;
    bool flipY = false;
    qint32 rotation = 0;
    float scaleX = 1.0f;
    float scaleY = 1.0f;
};

struct AIPathParam
{
    QString path;
};

struct ConvertSource
{
    QString filePath;
    QList<qint32> selfAudios;
    QList<SelfSubtitle> selfSubtitles;
    QList<AttachedAudio> attachedAudio;
    QList<AttachedSubtitle> attachedSubtitle;
    QVariantMap metaData;
    QString coverPath;
    std::optional<CropParam> crop;
    QList<CutRange> cut;
    // Absent means "not set" and reads as 1.0.
    std::optional<float> speed;
    BaseFilterParam baseFilter;
    QString effectFilter;
    QList<WaterMarkParam> waterMark;
    AIPathParam aiMosaic;
    AIPathParam aiAutoReframe;
    // Operator selection for the host's own converters, passed through as is.
    QVariantMap extraParam;

    float speedOrOne() const { return speed.value_or(1.0f); }
};

} // namespace Korvane
