#include "korvane-convert/OptionValues.h"

#include <QRegularExpression>

namespace Korvane {

namespace {

bool toInt(const QString& text, qint64 min, qint64 max, qint64* value)
{
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok);
    if (!ok || v < min || v > max) {
        return false;
    }
    *value = v;
    return true;
}

bool toDouble(const QString& text, double min, double max, double* value)
{
    bool ok = false;
    const double v = text.trimmed().toDouble(&ok);
    if (!ok || !(v >= min && v <= max)) {
        return false;
    }
    *value = v;
    return true;
}

// Reads the ",alpha=A" and ",scale=S" endings off `rest`, each at most once.
bool takeWatermarkOptions(QString* rest, WaterMarkParam* mark)
{
    static const QRegularExpression option(QStringLiteral(",(alpha|scale)=([^,@]*)$"));
    bool alphaSeen = false;
    bool scaleSeen = false;
    for (QRegularExpressionMatch m = option.match(*rest); m.hasMatch(); m = option.match(*rest)) {
        const bool isAlpha = m.captured(1) == QLatin1String("alpha");
        double number = 0;
        if (isAlpha ? (alphaSeen || !toDouble(m.captured(2), 0.0, 1.0, &number))
                    : (scaleSeen || !toDouble(m.captured(2), 0.001, 100.0, &number))) {
            return false;
        }
        if (isAlpha) {
            alphaSeen = true;
            mark->alpha = float(number);
        } else {
            scaleSeen = true;
            mark->scaleX = mark->scaleY = float(number);
        }
        rest->chop(m.capturedLength(0));
    }
    return true;
}

} // namespace

ApplyValue flag(std::function<void(OptionState&)> set)
{
    return [set](OptionState& state, const QString&) {
        set(state);
        return QString();
    };
}

ApplyValue integer(qint64 min, qint64 max, std::function<void(OptionState&, qint64)> set)
{
    return [=](OptionState& state, const QString& value) {
        qint64 n = 0;
        if (!toInt(value, min, max, &n)) {
            return QStringLiteral("an integer from %1 to %2").arg(min).arg(max);
        }
        set(state, n);
        return QString();
    };
}

ApplyValue decimal(double min, double max, const QString& what,
                   std::function<void(OptionState&, double)> set)
{
    return [=](OptionState& state, const QString& value) {
        double n = 0;
        if (!toDouble(value, min, max, &n)) {
            return what;
        }
        set(state, n);
        return QString();
    };
}

ApplyValue text(const QString& what, Spaces spaces,
                std::function<void(OptionState&, const QString&)> set)
{
    return [=](OptionState& state, const QString& value) {
        const QString t = spaces == Spaces::Trimmed ? value.trimmed() : value;
        if (t.isEmpty()) {
            return what;
        }
        set(state, t);
        return QString();
    };
}

ApplyValue oneOf(const QStringList& choices, const QString& what, Spaces spaces,
                 std::function<void(OptionState&, const QString&)> set)
{
    return [=](OptionState& state, const QString& value) {
        const QString choice = (spaces == Spaces::Trimmed ? value.trimmed() : value).toLower();
        if (!choices.contains(choice)) {
            return what;
        }
        set(state, choice);
        return QString();
    };
}

QString applySize(OptionState& state, const QString& value)
{
    static const QRegularExpression size(QStringLiteral("^(\\d{1,5})[xX](\\d{1,5})$"));
    const QRegularExpressionMatch m = size.match(value.trimmed());
    if (!m.hasMatch() || m.captured(1).toInt() < 2 || m.captured(2).toInt() < 2) {
        return QStringLiteral("WxH in pixels, such as 1280x720");
    }
    state.job.output.video.width = m.captured(1).toInt();
    state.job.output.video.height = m.captured(2).toInt();
    state.commandLine.sizeGiven = true;
    return {};
}

QString applyAudioCodec(OptionState& state, const QString& value)
{
    static const QRegularExpression name(QStringLiteral("^[a-z0-9_]+$"));
    const QString c = value.trimmed().toLower();
    if (!name.match(c).hasMatch()) {
        return QStringLiteral("an audio codec name such as aac, or none");
    }
    state.job.output.audio.codecName = c == QLatin1String("none") ? QString() : c;
    return {};
}

QString applyCrop(OptionState& state, const QString& value)
{
    const QStringList parts = value.split(',');
    double n[4] = {0, 0, 0, 0};
    bool ok = parts.size() == 4;
    for (int i = 0; ok && i < 4; ++i) {
        ok = toDouble(parts[i], 0.0, 1.0, &n[i]);
    }
    if (!ok || n[2] <= 0 || n[3] <= 0 || n[0] + n[2] > 1.000001 || n[1] + n[3] > 1.000001) {
        return QStringLiteral("X,Y,W,H as fractions of the picture inside 0..1");
    }
    CropParam& crop = cropOf(state.job);
    crop.cropX = n[0];
    crop.cropY = n[1];
    crop.cropW = n[2];
    crop.cropH = n[3];
    return {};
}

// Parsed from the right so that the path itself may hold '@' and ','.
QString applyWatermark(OptionState& state, const QString& value)
{
    static const QRegularExpression position(QStringLiteral("@(-?\\d+),(-?\\d+)$"));
    WaterMarkParam mark;
    QString rest = value;
    if (!takeWatermarkOptions(&rest, &mark)) {
        return QStringLiteral("PATH[@X,Y][,alpha=0..1][,scale=S>0] once each");
    }
    const QRegularExpressionMatch at = position.match(rest);
    if (at.hasMatch()) {
        mark.centerPos = QPoint(at.captured(1).toInt(), at.captured(2).toInt());
        rest.chop(at.capturedLength(0));
    }
    if (rest.isEmpty()) {
        return QStringLiteral("a picture path");
    }
    mark.filePath = rest;
    QList<WaterMarkParam>& marks = state.job.source.waterMark;
    if (!at.hasMatch()) {
        state.commandLine.unplacedWatermarks.append(int(marks.size()));
    }
    marks.append(mark);
    return {};
}

QString applyCut(OptionState& state, const QString& value)
{
    static const QRegularExpression range(QStringLiteral("^(\\d{1,12})-(\\d{1,12})$"));
    const QRegularExpressionMatch m = range.match(value.trimmed());
    if (!m.hasMatch() || m.captured(2).toLongLong() <= m.captured(1).toLongLong()) {
        return QStringLiteral("BEGIN_MS-END_MS with END after BEGIN");
    }
    const qint64 begin = m.captured(1).toLongLong();
    state.job.source.cut.append({begin, m.captured(2).toLongLong() - begin});
    return {};
}

QString applyMeta(OptionState& state, const QString& value)
{
    const int eq = value.indexOf('=');
    if (eq <= 0) {
        return QStringLiteral("KEY=VALUE");
    }
    state.job.source.metaData.insert(value.left(eq), value.mid(eq + 1));
    return {};
}

CropParam& cropOf(ConvertJob& job)
{
    if (!job.source.crop) {
        job.source.crop = CropParam();
    }
    return *job.source.crop;
}

} // namespace Korvane
