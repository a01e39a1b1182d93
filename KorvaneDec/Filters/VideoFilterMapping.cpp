#include "KorvaneDec/Filters/VideoFilterMapping.h"

#include <QStringList>
#include <QtGlobal>

namespace Korvane {

namespace {

QString number(double value)
{
    return QString::number(value, 'g', 6);
}

// A curve through the ends and one control point that is lifted or lowered.
QString curvesText(double point, int value)
{
    const double moved = qBound(0.0, point + 0.15 * value / 100.0, 1.0);
    return QStringLiteral("curves=all='0/0 %1/%2 1/1'").arg(number(point), number(moved));
}

} // namespace

bool isColourFilterName(const QString& name)
{
    static const QStringList names = {"Brightness", "Contrast",  "Saturation",       "Sharpen",
                                      "Shadow",     "HighLight", "ColorTemperature", "ColorHue"};
    return names.contains(name);
}

QString colourFilterText(const QString& name, int value)
{
    const int v = qBound(-100, value, 100);
    if (v == 0) {
        return {};
    }
    if (name == QLatin1String("Brightness")) {
        return QStringLiteral("eq=brightness=%1").arg(number(v / 200.0));
    }
    if (name == QLatin1String("Contrast")) {
        return QStringLiteral("eq=contrast=%1").arg(number(1.0 + v / 100.0));
    }
    if (name == QLatin1String("Saturation")) {
        return QStringLiteral("eq=saturation=%1").arg(number(1.0 + v / 100.0));
    }
    if (name == QLatin1String("Sharpen")) {
        return QStringLiteral("unsharp=5:5:%1").arg(number(1.5 * v / 100.0));
    }
    if (name == QLatin1String("Shadow")) {
        return curvesText(0.25, v);
    }
    if (name == QLatin1String("HighLight")) {
        return curvesText(0.75, v);
    }
    if (name == QLatin1String("ColorTemperature")) {
        return QStringLiteral("colortemperature=temperature=%1").arg(6500 - 35 * v);
    }
    if (name == QLatin1String("ColorHue")) {
        return QStringLiteral("hue=h=%1").arg(number(1.8 * v));
    }
    return {};
}

QString anaglyphFilterText(const QString& anaglyphType, const QString& labelPrefix)
{
    if (anaglyphType.contains(QLatin1String("Side by Side"))) {
        return QStringLiteral("stereo3d=sbsl:arcc");
    }
    if (anaglyphType.contains(QLatin1String("Top and Bottom"))) {
        return QStringLiteral("stereo3d=abl:arcc");
    }
    // 2D input: the right view is the picture moved 8 pixels to the left
    // the uncovered strip black), which gives a slight depth in front of
    // the screen.
    return QStringLiteral("split[%1l][%1r];[%1r]crop=iw-8:ih:8:0,pad=iw+8:ih:0:0[%1s];"
                          "[%1l][%1s]hstack,stereo3d=sbsl:arcc")
        .arg(labelPrefix);
}

} // namespace Korvane
