#include "Common/Records/JsonForms.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QStringList>

#include <cmath>
#include <limits>

namespace Korvane {
namespace {

// Readers of dynamically typed JSON values. A number out of the target's range
// (or not finite) reads as 0 instead of an undefined conversion; anything in
// range converts exactly as QVariant does.
qint64 readInt64(const QVariant& value)
{
    if (value.typeId() == QMetaType::Double) {
        const double d = value.toDouble();
        // 2^63 itself is not representable, hence the strict upper bound.
        if (!std::isfinite(d) || d < -9223372036854775808.0 || d >= 9223372036854775808.0) {
            return 0;
        }
    }
    return value.toLongLong();
}

qint32 readInt(const QVariant& value)
{
    const qint64 wide = readInt64(value);
    if (wide < std::numeric_limits<qint32>::min() || wide > std::numeric_limits<qint32>::max()) {
        return 0;
    }
    return qint32(wide);
}

float readFloat(const QVariant& value)
{
    const double d = value.toDouble();
    if (!std::isfinite(d) || std::fabs(d) > double(std::numeric_limits<float>::max())) {
        return 0.0f;
    }
    return float(d);
}

// Truncates towards zero; text that is no finite number in range reads 0.
qint32 truncatedInt(const QString& text)
{
    const float f = text.toFloat();
    if (!std::isfinite(f) || f <= float(std::numeric_limits<qint32>::min()) ||
        f >= float(std::numeric_limits<qint32>::max())) {
        return 0;
    }
    return qint32(f);
}

QPoint readCenterPos(const QString& text)
{
    const QStringList parts = text.split(QLatin1Char(','));
    return QPoint(truncatedInt(parts.first()), truncatedInt(parts.last()));
}

QList<QVariantMap> readObjects(const QVariant& value)
{
    QList<QVariantMap> objects;
    const QVariantList list = value.toList();
    for (const QVariant& element : list) {
        objects.append(element.toMap());
    }
    return objects;
}

// Readers of the flat output object, which people also write by hand: a
// value of another JSON kind than the field's (text for a number, a number
// for a flag) reads as the field's zero rather than being converted, and a
// number outside the field's range reads 0.
QString textOf(const QVariantMap& map, const char* key)
{
    const QVariant value = map.value(QLatin1String(key));
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

double numberOf(const QVariantMap& map, const char* key)
{
    const QVariant value = map.value(QLatin1String(key));
    switch (value.typeId()) {
    case QMetaType::Double:
    case QMetaType::LongLong:
    case QMetaType::Int:
        return value.toDouble();
    default:
        return 0.0;
    }
}

// Truncated towards zero.
template <typename Integer>
Integer wholeOf(const QVariantMap& map, const char* key)
{
    const double value = numberOf(map, key);
    // Both bounds are powers of two, so exact as doubles.
    const double low = double(std::numeric_limits<Integer>::min());
    const double high = -low;
    return value >= low && value < high ? Integer(value) : Integer(0);
}

bool flagOf(const QVariantMap& map, const char* key)
{
    const QVariant value = map.value(QLatin1String(key));
    return value.typeId() == QMetaType::Bool && value.toBool();
}

QJsonObject cropToJson(const std::optional<CropParam>& crop)
{
    const CropParam c = crop.value_or(CropParam{});
    return QJsonObject{{"cropW", c.cropW},      {"cropH", c.cropH}, {"cropX", c.cropX},
                       {"cropY", c.cropY},      {"flipX", c.flipX}, {"flipY", c.flipY},
                       {"rotation", c.rotation}};
}

QJsonObject baseFilterToJson(const BaseFilterParam& f)
{
    return QJsonObject{{"brightness", f.brightness},
                       {"contrast", f.contrast},
                       {"saturation", f.saturation},
                       {"sharpen", f.sharpen},
                       {"shadow", f.shadow},
                       {"highlight", f.highlight},
                       {"color temperature", f.colorTemperature},
                       {"hue", f.hue},
                       {"volume", f.volume}};
}

QJsonObject waterMarkToJson(const WaterMarkParam& w)
{
    return QJsonObject{
        {"filePath", w.filePath},
        {"centerPos", QStringLiteral("%1,%2").arg(w.centerPos.x()).arg(w.centerPos.y())},
        {"alpha", double(w.alpha)},
        {"flipX", w.flipX},
        {"flipY", w.flipY},
        {"scaleX", double(w.scaleX)},
        {"scaleY", double(w.scaleY)},
        {"rotation", w.rotation}};
}

BaseFilterParam readBaseFilter(const QVariantMap& m)
{
    BaseFilterParam f;
    f.brightness = readInt(m.value("brightness"));
    f.contrast = readInt(m.value("contrast"));
    f.saturation = readInt(m.value("saturation"));
    f.sharpen = readInt(m.value("sharpen"));
    f.shadow = readInt(m.value("shadow"));
    f.highlight = readInt(m.value("highlight"));
    f.colorTemperature = readInt(m.value("color temperature"));
    f.hue = readInt(m.value("hue"));
    f.volume = readInt(m.value("volume"));
    return f;
}

WaterMarkParam readWaterMark(const QVariantMap& m)
{
    WaterMarkParam w;
    w.filePath = m.value("filePath").toString();
    w.centerPos = readCenterPos(m.value("centerPos").toString());
    w.alpha = readFloat(m.value("alpha"));
    w.flipX = m.value("flipX").toBool();
    w.flipY = m.value("flipY").toBool();
    w.rotation = readInt(m.value("rotation"));
    w.scaleX = readFloat(m.value("scaleX"));
    w.scaleY = readFloat(m.value("scaleY"));
    return w;
}

} // namespace

QString variantMapToJson(const QVariantMap& map, bool indented)
{
    const QJsonDocument document(QJsonObject::fromVariantMap(map));
    return QString::fromUtf8(
        document.toJson(indented ? QJsonDocument::Indented : QJsonDocument::Compact));
}

QVariantMap jsonToVariantMap(const QString& json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || document.isNull() || !document.isObject()) {
        return {};
    }
    return document.object().toVariantMap();
}

QString convertSourceToJson(const ConvertSource& s)
{
    QJsonObject o;
    o.insert("filePath", s.filePath);

    QJsonArray selfAudios;
    for (qint32 index : s.selfAudios) {
        selfAudios.append(index);
    }
    o.insert("selfAudios", selfAudios);

    QJsonArray selfSubtitles;
    for (const SelfSubtitle& sub : s.selfSubtitles) {
        selfSubtitles.append(QJsonObject{{"index", sub.index}, {"title", sub.title}});
    }
    o.insert("selfSubtitles", selfSubtitles);

    QJsonArray attachedAudio;
    for (const AttachedAudio& a : s.attachedAudio) {
        attachedAudio.append(QJsonObject{{"startMs", a.startMs}, {"filePath", a.filePath}});
    }
    o.insert("attachedAudio", attachedAudio);

    QJsonArray attachedSubtitle;
    for (const AttachedSubtitle& a : s.attachedSubtitle) {
        attachedSubtitle.append(
            QJsonObject{{"startMs", a.startMs}, {"title", a.title}, {"filePath", a.filePath}});
    }
    o.insert("attachedSubtitle", attachedSubtitle);

    if (!s.metaData.isEmpty()) {
        o.insert("metaData", QJsonObject::fromVariantMap(s.metaData));
    }
    if (!s.coverPath.isEmpty()) {
        o.insert("coverPath", s.coverPath);
    }

    QJsonArray cut;
    for (const CutRange& c : s.cut) {
        cut.append(QJsonObject{{"range_begin", c.begin}, {"range_length", c.length}});
    }
    o.insert("cut", cut);

    o.insert("crop", cropToJson(s.crop));
    o.insert("speed", double(s.speedOrOne()));
    o.insert("baseFilter", baseFilterToJson(s.baseFilter));
    o.insert("AIMosaic", QJsonObject{{"path", s.aiMosaic.path}});
    o.insert("AIAutoReframe", QJsonObject{{"path", s.aiAutoReframe.path}});

    QJsonArray waterMarks;
    for (const WaterMarkParam& w : s.waterMark) {
        waterMarks.append(waterMarkToJson(w));
    }
    o.insert("waterMark", waterMarks);

    if (!s.effectFilter.isEmpty()) {
        o.insert("effectFilter", s.effectFilter);
    }
    if (!s.extraParam.isEmpty()) {
        o.insert("extraParam", QJsonObject::fromVariantMap(s.extraParam));
    }

    const QJsonDocument document(QJsonObject{{"ConvertSource", o}});
    return QString::fromUtf8(document.toJson(QJsonDocument::Indented));
}

ConvertSource convertSourceFromJson(const QString& json)
{
    ConvertSource s;
    const QVariantMap m = jsonToVariantMap(json).value("ConvertSource").toMap();
    if (m.isEmpty()) {
        return s;
    }

    s.filePath = m.value("filePath").toString();
    for (const QVariant& index : m.value("selfAudios").toList()) {
        s.selfAudios.append(readInt(index));
    }
    for (const QVariantMap& o : readObjects(m.value("selfSubtitles"))) {
        s.selfSubtitles.append({readInt(o.value("index")), o.value("title").toString()});
    }
    for (const QVariantMap& o : readObjects(m.value("attachedAudio"))) {
        s.attachedAudio.append({readInt64(o.value("startMs")), o.value("filePath").toString()});
    }
    for (const QVariantMap& o : readObjects(m.value("attachedSubtitle"))) {
        s.attachedSubtitle.append({readInt64(o.value("startMs")), o.value("title").toString(),
                                   o.value("filePath").toString()});
    }
    s.metaData = m.value("metaData").toMap();
    s.coverPath = m.value("coverPath").toString();

    const QVariantMap crop = m.value("crop").toMap();
    if (!crop.isEmpty()) {
        CropParam c;
        c.cropX = crop.value("cropX").toDouble();
        c.cropY = crop.value("cropY").toDouble();
        c.cropW = crop.value("cropW").toDouble();
        c.cropH = crop.value("cropH").toDouble();
        c.flipX = crop.value("flipX").toBool();
        c.flipY = crop.value("flipY").toBool();
        c.rotation = readInt(crop.value("rotation"));
        s.crop = c;
    }

    for (const QVariantMap& o : readObjects(m.value("cut"))) {
        s.cut.append({readInt64(o.value("range_begin")), readInt64(o.value("range_length"))});
    }

    s.speed = m.contains("speed") ? readFloat(m.value("speed")) : 1.0f;
    s.baseFilter = readBaseFilter(m.value("baseFilter").toMap());
    s.effectFilter = m.value("effectFilter").toString();
    for (const QVariantMap& o : readObjects(m.value("waterMark"))) {
        s.waterMark.append(readWaterMark(o));
    }
    s.aiMosaic.path = m.value("AIMosaic").toMap().value("path").toString();
    s.aiAutoReframe.path = m.value("AIAutoReframe").toMap().value("path").toString();

    // Only the five entries the host's converters read survive, present or not.
    const QVariantMap extra = m.value("extraParam").toMap();
    s.extraParam.insert("plugin", extra.value("plugin").toMap());
    s.extraParam.insert("operator", extra.value("operator").toString());
    s.extraParam.insert("converterMode", extra.value("converterMode").toString());
    s.extraParam.insert("operatorDllPath", extra.value("operatorDllPath").toString());
    s.extraParam.insert("deviceId", extra.value("deviceId").toString());
    return s;
}

QString outputParamToJson(const AVTaskOutputParam& p)
{
    QJsonObject o;
    o.insert("type", "AVTaskOutputParam");
    o.insert("outputPath", p.outputPath);
    o.insert("format", p.format);
    o.insert("ipcMode", p.ipcMode);
    o.insert("taskMode", p.taskMode);
    o.insert("vodDeMuxEnable", p.vodDeMuxEnable);
    o.insert("twoPassEncoding", p.twoPassEncoding);
    o.insert("isAlpha", p.isAlpha);
    o.insert("isUseSourceSDKPlatformSolution", p.isUseSourceSDKPlatformSolution);
    if (!p.video.codecName.isEmpty()) {
        o.insert("video.codecName", p.video.codecName);
        o.insert("video.width", p.video.width);
        o.insert("video.height", p.video.height);
        o.insert("video.frameRate", p.video.frameRate);
        o.insert("video.bitrateKbps", p.video.bitrateKbps);
    }
    if (!p.audio.codecName.isEmpty()) {
        o.insert("audio.codecName", p.audio.codecName);
        o.insert("audio.sampleRate", p.audio.sampleRate);
        o.insert("audio.channels", p.audio.channels);
        o.insert("audio.bitrateKbps", p.audio.bitrateKbps);
    }
    o.insert("acceleration.losslessFormat", p.acceleration.losslessFormat);
    o.insert("acceleration.hardwareEnabled", p.acceleration.hardwareEnabled);
    o.insert("acceleration.gpuName", p.acceleration.gpuName);
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Indented));
}

AVTaskOutputParam outputParamFromVariantMap(const QVariantMap& map)
{
    AVTaskOutputParam p;
    p.outputPath = textOf(map, "outputPath");
    p.format = textOf(map, "format");
    p.ipcMode = flagOf(map, "ipcMode");
    p.taskMode = wholeOf<qint32>(map, "taskMode");
    p.vodDeMuxEnable = flagOf(map, "vodDeMuxEnable");
    p.twoPassEncoding = flagOf(map, "twoPassEncoding");
    p.isAlpha = flagOf(map, "isAlpha");
    p.isUseSourceSDKPlatformSolution = flagOf(map, "isUseSourceSDKPlatformSolution");
    p.video.codecName = textOf(map, "video.codecName");
    p.video.width = wholeOf<qint32>(map, "video.width");
    p.video.height = wholeOf<qint32>(map, "video.height");
    p.video.frameRate = numberOf(map, "video.frameRate");
    p.video.bitrateKbps = wholeOf<qint64>(map, "video.bitrateKbps");
    p.audio.codecName = textOf(map, "audio.codecName");
    p.audio.sampleRate = wholeOf<qint32>(map, "audio.sampleRate");
    p.audio.channels = wholeOf<qint32>(map, "audio.channels");
    p.audio.bitrateKbps = wholeOf<qint64>(map, "audio.bitrateKbps");
    p.acceleration.losslessFormat = textOf(map, "acceleration.losslessFormat");
    p.acceleration.hardwareEnabled = flagOf(map, "acceleration.hardwareEnabled");
    p.acceleration.gpuName = textOf(map, "acceleration.gpuName");
    return p;
}

QString readTextFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(file.readAll());
}

QVariantList jsonToVariantList(const QString& json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) {
        return {};
    }
    return document.array().toVariantList();
}

QString joinPath(const QString& first, const QString& second)
{
    return QDir::cleanPath(first + QDir::separator() + second);
}

} // namespace Korvane
