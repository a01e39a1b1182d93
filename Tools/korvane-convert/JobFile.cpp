#include "korvane-convert/JobFile.h"

#include "Common/Records/JsonForms.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace Korvane {

namespace {

const QString kSourceKey = QStringLiteral("ConvertSource");
const QString kOutputKey = QStringLiteral("AVTaskOutputParam");
const QString kTimelineKey = QStringLiteral("timelineOptions");

} // namespace

QVariantMap jobToVariantMap(const ConvertJob& job)
{
    QVariantMap map;
    map.insert(kSourceKey, jsonToVariantMap(convertSourceToJson(job.source)).value(kSourceKey));
    map.insert(kOutputKey, jsonToVariantMap(outputParamToJson(job.output)));
    if (job.timelineOptions) {
        map.insert(kTimelineKey, *job.timelineOptions);
    }
    return map;
}

bool jobFromJson(const QByteArray& text, ConvertJob* job, QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("not JSON (%1 at offset %2)")
                     .arg(parseError.errorString())
                     .arg(parseError.offset);
        return false;
    }
    if (!document.isObject()) {
        *error = QStringLiteral("not a JSON object");
        return false;
    }
    const QJsonObject root = document.object();
    for (const QString& key : {kSourceKey, kOutputKey}) {
        if (!root.value(key).isObject()) {
            *error = QStringLiteral("no \"%1\" object").arg(key);
            return false;
        }
    }
    if (root.contains(kTimelineKey) && !root.value(kTimelineKey).isObject()) {
        *error = QStringLiteral("\"%1\" is not an object").arg(kTimelineKey);
        return false;
    }
    ConvertJob result;
    const QJsonObject wrapped{{kSourceKey, root.value(kSourceKey)}};
    result.source = convertSourceFromJson(QString::fromUtf8(QJsonDocument(wrapped).toJson()));
    result.output = outputParamFromVariantMap(root.value(kOutputKey).toObject().toVariantMap());
    if (root.contains(kTimelineKey)) {
        result.timelineOptions = root.value(kTimelineKey).toObject().toVariantMap();
    }
    *job = result;
    return true;
}

bool readJobFile(const QString& path, ConvertJob* job, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read job file '%1': %2").arg(path, file.errorString());
        return false;
    }
    QString reason;
    if (!jobFromJson(file.readAll(), job, &reason)) {
        *error = QStringLiteral("invalid job file '%1': %2").arg(path, reason);
        return false;
    }
    return true;
}

bool writeJobFile(const QString& path, const ConvertJob& job, QString* error)
{
    const QFileInfo info(path);
    QDir().mkpath(info.absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        *error = QStringLiteral("cannot write job file '%1': %2").arg(path, file.errorString());
        return false;
    }
    file.write(variantMapToJson(jobToVariantMap(job), true).toUtf8());
    if (!file.commit()) {
        *error = QStringLiteral("cannot write job file '%1': %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace Korvane
