#include "Common/Support/ConvertSourceHelper.h"

#include "Common/Records/OutputRules.h"
#include "KorvaneBase/Record.h"
#include "KvMediaInfo/KvMediaInfo.h"

#include <QLoggingCategory>
#include <QMap>
#include <QStringList>

#include <cmath>

Q_LOGGING_CATEGORY(lcConvertSourceHelper, "korvane.common.convertsource")

namespace Korvane {

namespace {

const QString kSourceFile = QStringLiteral("Projects/Common/Support/ConvertSourceHelper");

// Built afresh on each call; membership is tested on lower-cased words.
QStringList h264ContainerList()
{
    return {"mp4", "mkv", "avi", "mov", "m4v", "f4v", "flv"};
}

QStringList hevcContainerList()
{
    return {"mp4", "mkv", "avi", "mov"};
}

// The first stream of the file when it is a video stream; null otherwise
// (no streams, or sound, subtitles or data first).
const MediaInfoVideoStream* firstStreamAsVideo(const MediaInfoV3& info)
{
    for (const MediaInfoVideoStream& video : info.videoStreams) {
        if (video.index == 0) {
            return &video;
        }
    }
    return nullptr;
}

// The job keeps the file's tags: the texts and the genre read as an integer
// agree. Missing keys read as empty text or 0.
bool keepsMetadata(const QMap<QString, QString>& fileTags, const QVariantMap& requested)
{
    for (const char* key : {"title", "artist", "album", "date", "comment", "composer"}) {
        const QString name = QString::fromLatin1(key);
        if (fileTags.value(name) != requested.value(name).toString()) {
            qCDebug(lcConvertSourceHelper) << "metadata differs:" << name;
            return false;
        }
    }
    return fileTags.value(QStringLiteral("genre")).toInt() ==
           requested.value(QStringLiteral("genre")).toString().toInt();
}

bool hasBaseFilterEdits(const BaseFilterParam& filter)
{
    return filter.brightness != 0 || filter.contrast != 0 || filter.saturation != 0 ||
           filter.sharpen != 0 || filter.shadow != 0 || filter.highlight != 0 ||
           filter.colorTemperature != 0 || filter.hue != 0 || filter.volume != 100;
}

bool speedWithin(const ConvertSource& source, double tolerance)
{
    return !source.speed || std::fabs(double(*source.speed) - 1.0) <= tolerance;
}

} // namespace

bool ConvertSourceHelper::isSupportedByTranscoderFFmpeg(const ConvertSource& source,
                                                        const AVTaskOutputParam& output)
{
    // A name that is not plain would reach ffmpeg's arguments.
    const QString invalidField = invalidOutputField(output);
    if (!invalidField.isEmpty()) {
        Record(QStringLiteral("Korvane::ConvertSourceHelper::isSupportedByTranscoderFFmpeg"),
               __LINE__, kSourceFile, nullptr, 0)
            << "invalid job field: " << invalidField;
        return false;
    }
    // One probe answers every question about the file.
    const QSharedPointer<MediaInfoV3> info = getMediaInfo(source.filePath, -1, true);
    if (!info) {
        return false;
    }
    const qsizetype dot = source.filePath.lastIndexOf(QLatin1Char('.'));
    const QString extension = source.filePath.mid(dot + 1).toLower();
    const QString format = output.format.toLower();
    const QString videoCodec = output.video.codecName.toLower();

    const MediaInfoVideoStream* first = firstStreamAsVideo(*info);
    if (!first) {
        return false;
    }
    if (first->codecName == QLatin1String("h264")) {
        // High-bit-depth H.264 is refused.
        if (!h264ContainerList().contains(extension) || first->bitDepth >= 10) {
            return false;
        }
    } else if (first->codecName == QLatin1String("h265")) {
        if (!hevcContainerList().contains(extension)) {
            return false;
        }
    } else {
        return false;
    }

    if (videoCodec == QLatin1String("h264")) {
        if (!h264ContainerList().contains(format)) {
            return false;
        }
    } else if (videoCodec == QLatin1String("h265")) {
        if (!hevcContainerList().contains(format)) {
            return false;
        }
    } else {
        return false;
    }

    if (!keepsMetadata(info->metadata, source.metaData)) {
        return false;
    }
    const qsizetype audioCount = info->audioStreams.size();
    if (source.selfAudios.size() > 1 || source.selfAudios.size() < audioCount) {
        return false;
    }
    if (!source.selfSubtitles.isEmpty() || !source.attachedAudio.isEmpty() ||
        !source.attachedSubtitle.isEmpty() || !source.coverPath.isEmpty() ||
        !source.cut.isEmpty()) {
        return false;
    }
    if (!speedWithin(source, 0.000001)) {
        return false;
    }
    if (hasBaseFilterEdits(source.baseFilter)) {
        return false;
    }
    if (!source.aiMosaic.path.isEmpty()) {
        return false;
    }
    for (const char* key : {"plugin", "operator", "operatorDllPath"}) {
        if (!source.extraParam.value(QString::fromLatin1(key)).toString().isEmpty()) {
            return false;
        }
    }
    return true;
}

bool isConverterSourceSupportedByTranscoder(const ConvertSource& source, const QString& platform)
{
    // Deliberately looser than the ffmpeg check's tolerance.
    if (!speedWithin(source, 0.01)) {
        return false;
    }
    if (hasBaseFilterEdits(source.baseFilter) || !source.aiMosaic.path.isEmpty()) {
        return false;
    }
    if (isSocialOutputType(platform)) {
        Record(QStringLiteral("Korvane::isConverterSourceSupportedByTranscoder"), __LINE__,
               kSourceFile, nullptr, 0)
            << "social output.";
        return false;
    }

    // A file that cannot be read gets the benefit of the doubt.
    const QSharedPointer<MediaInfoV3> info = getMediaInfo(source.filePath, -1, true);
    const MediaInfoVideoStream* first = info ? firstStreamAsVideo(*info) : nullptr;
    if (first && first->isBt2020()) {
        Record(QStringLiteral("Korvane::isConverterSourceSupportedByTranscoder"), __LINE__,
               kSourceFile, nullptr, 0)
            << "HDR video";
        return false;
    }
    return true;
}

} // namespace Korvane
