#include "Common/Timeline/TimelineProject.h"

#include "Common/Timeline/TimelineProjectBuilder.h"
#include "KvMediaInfo/KvMediaInfo.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

namespace Korvane {

QString makeTimelineProjectJson(const ConvertSource& source, const QVariantMap& options)
{
    // The stream durations are only worth computing when the caller does not
    // know the length already.
    const QSharedPointer<ContainerInfo> info =
        getContainInfo(source.filePath, !options.contains("duration"));
    return TimelineProjectBuilder(source, options, info.data()).build();
}

bool isSocialOutputType(const QString& type)
{
    static const QStringList platforms{"YouTube",  "Instagram", "TikTok",
                                       "Facebook", "Likee",     "Vimeo"};
    return platforms.contains(type, Qt::CaseSensitive);
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
