#include "Common/OutputRules.h"

#include <QHash>

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

} // namespace Korvane
