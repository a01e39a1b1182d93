#include "Common/Records/OutputRules.h"

#include <QHash>
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <cmath>

namespace Korvane {
namespace {

const QHash<QString, QString>& muxerTable()
{
    static const QHash<QString, QString> table{
        {"mp4", "mp4"},     {"mov", "mov"},         {"mkv", "matroska"},
        {"m4v", "mp4"},     {"avi", "avi"},         {"hevc", "hevc"},
        {"hevc2", "hevc2"}, {"wmv", "asf"},         {"divx", "divx"},
        {"mxf", "mxf"},     {"mpg", "mpeg"},        {"mpeg2", "mpeg2"},
        {"dv", "dv"},       {"vob", "vob"},         {"3gp", "3gp"},
        {"3g2", "3g2"},     {"ogv", "ogv"},         {"webm", "webm"},
        {"asf", "asf"},     {"youtube", "youtube"}, {"facebook", "facebook"},
        {"vimeo", "vimeo"}, {"flv", "f4v"},         {"f4v", "f4v"},
        {"swf", "swf"},     {"ts", "mpegts"},       {"trp", "mpegts"},
        {"xvid", "xvid"},   {"m2ts", "mpegts"},     {"mp3", "mp3"},
        {"m4a", "ipod"},    {"wav", "wav"},         {"m4r", "mp4"},
        {"aiff", "aiff"},   {"ape", "ape"},         {"flac", "flac"},
        {"ac3", "ac3"},     {"aac", "mp4"},         {"ogg", "ogg"},
        {"caf", "caf"},     {"au", "au"},           {"mka", "matroska"},
        {"wma", "asf"},     {"opus", "opus"},       {"gif", "gif"},
    };
    return table;
}

QString plainNameProblem(const char* field, const QString& name)
{
    static const QRegularExpression plainName(
        QRegularExpression::anchoredPattern(QStringLiteral("[a-z0-9_]*")));
    if (plainName.match(name.toLower()).hasMatch()) {
        return {};
    }
    return QStringLiteral("%1 \"%2\" is not a plain name").arg(QLatin1String(field), name);
}

} // namespace

int crfQuality(const QString& videoCodecName, qint32 width, qint32 height)
{
    const int start = videoCodecName.toLower() == QLatin1String("h264") ? 23 : 28;
    const double d0 =
        std::sqrt(static_cast<double>(width) * width + static_cast<double>(height) * height);
    const double reference = d0 > 2000.0 ? 2800.0 : 2000.0;
    const double d = std::min(d0, reference);
    return std::max(1, start - static_cast<int>((1.0 - d / reference) * 10.0));
}

QString muxerName(const QString& format)
{
    return muxerTable().value(format.toLower());
}

QString invalidOutputField(const AVTaskOutputParam& output)
{
    for (const auto& [field, name] : {std::pair{"format", &output.format},
                                      std::pair{"video.codecName", &output.video.codecName},
                                      std::pair{"audio.codecName", &output.audio.codecName}}) {
        const QString problem = plainNameProblem(field, *name);
        if (!problem.isEmpty()) {
            return problem;
        }
    }
    if (!std::isfinite(output.video.frameRate)) {
        return QStringLiteral("video.frameRate is not a number");
    }
    // Far beyond any encoder, and small enough that doubling it for the
    // buffer size cannot overflow into a negative "-bufsize".
    constexpr qint64 kMaxKbps = 100'000'000;
    if (output.video.bitrateKbps > kMaxKbps) {
        return QStringLiteral("video.bitrateKbps %1 is out of range").arg(output.video.bitrateKbps);
    }
    if (output.audio.bitrateKbps > kMaxKbps) {
        return QStringLiteral("audio.bitrateKbps %1 is out of range").arg(output.audio.bitrateKbps);
    }
    if (output.outputPath.startsWith(QLatin1Char('-'))) {
        return QStringLiteral("outputPath \"%1\" would be read as an option")
            .arg(output.outputPath);
    }
    return {};
}

bool isSocialOutputType(const QString& type)
{
    static const QStringList platforms{"YouTube",  "Instagram", "TikTok",
                                       "Facebook", "Likee",     "Vimeo"};
    return platforms.contains(type, Qt::CaseSensitive);
}

} // namespace Korvane
