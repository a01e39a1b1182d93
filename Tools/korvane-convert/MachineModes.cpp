#include "korvane-convert/MachineModes.h"

#include "Common/Records/JsonForms.h"
#include "Common/Support/ConvertSourceHelper.h"
#include "Common/Task/AVFFmpegTask.h"
#include "Common/Timeline/TimelineProject.h"
#include "KorvaneDec/MediaDescription.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/KvFFmpegOperator.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace Korvane {

namespace {

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonArray rational(const AVRational& r)
{
    return QJsonArray{r.num, r.den};
}

} // namespace

QByteArray printCommand(const ConvertJob& job)
{
    // The operator names its progress file when it is made; ask one that is
    // never started, as a run would.
    const QSharedPointer<IAVTask> task(new AVFFmpegTask(job.source, job.output));
    const KvFFmpegOperator op(task);
    const QStringList arguments =
        makeFFmpegCommand(job.source, job.output, op.progressFilePath(), -1);
    return QJsonDocument(QJsonArray::fromStringList(arguments)).toJson(QJsonDocument::Compact) +
           '\n';
}

QByteArray printTimeline(const ConvertJob& job)
{
    return makeTimelineProjectJson(job.source, job.effectiveTimelineOptions()).toUtf8();
}

QByteArray printCheck(const ConvertJob& job)
{
    return compact(
        {{"ffmpeg", isConverterSourceSupportedByTranscoderFFmpeg(job.source, job.output)},
         {"transcoder", isConverterSourceSupportedByTranscoder(job.source, QString())}});
}

QByteArray printJob(const ConvertJob& job)
{
    // Written once: a second trip through the reader would fill in what the
    // job file left out (a record read from {} would gain "extraParam").
    const QVariantMap source = jsonToVariantMap(convertSourceToJson(job.source));
    const QVariantMap map{{"ConvertSource", source.value("ConvertSource")},
                          {"AVTaskOutputParam", jsonToVariantMap(outputParamToJson(job.output))}};
    return variantMapToJson(map, true).toUtf8();
}

QByteArray mediaDescriptionJson(const MediaDescription& d)
{
    QJsonArray video;
    for (const auto& v : d.videoStreams) {
        video.append(QJsonObject{{"streamIndex", v->streamIndex},
                                 {"reserved", v->reserved},
                                 {"codecId", v->codecId},
                                 {"timeBase", rational(v->timeBase)},
                                 {"codecTag", qint64(v->codecTag)},
                                 {"pixelFormat", v->pixelFormat},
                                 {"width", v->width},
                                 {"height", v->height},
                                 {"frameRateNum", v->frameRateNum},
                                 {"frameRateDen", v->frameRateDen},
                                 {"durationMs", v->durationMs},
                                 {"bitRate", v->bitRate},
                                 {"sarNum", v->sarNum},
                                 {"sarDen", v->sarDen},
                                 {"rotation", v->rotation},
                                 {"stillPicture", int(v->stillPicture)}});
    }
    QJsonArray audio;
    for (const auto& a : d.audioStreams) {
        audio.append(QJsonObject{{"streamIndex", a->streamIndex},
                                 {"reserved", a->reserved},
                                 {"codecId", a->codecId},
                                 {"timeBase", rational(a->timeBase)},
                                 {"sampleFormat", a->sampleFormat},
                                 {"channels", a->channels},
                                 {"sampleRate", a->sampleRate},
                                 {"durationMs", a->durationMs},
                                 {"bitRate", a->bitRate},
                                 {"channelLayout", qint64(a->channelLayout)},
                                 {"codecTag", qint64(a->codecTag)}});
    }
    QJsonArray subtitles;
    for (const auto& s : d.subtitleStreams) {
        subtitles.append(QJsonObject{{"streamIndex", s->streamIndex}, {"isText", s->isText}});
    }
    QJsonArray streams;
    for (const auto& s : d.streams) {
        streams.append(QJsonObject{{"streamIndex", s->streamIndex},
                                   {"mediaType", s->mediaType},
                                   {"codecId", s->codecId},
                                   {"timeBase", rational(s->timeBase)}});
    }
    return QJsonDocument(QJsonObject{{"durationMs", d.durationMs},
                                     {"startTimeMs", d.startTimeMs},
                                     {"bitRate", d.bitRate},
                                     {"formatName", d.formatName},
                                     {"videoStreams", video},
                                     {"audioStreams", audio},
                                     {"subtitleStreams", subtitles},
                                     {"streams", streams}})
        .toJson(QJsonDocument::Indented);
}

} // namespace Korvane
