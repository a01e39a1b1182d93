#include "KorvaneDec/NLEditor/RenderFilterGraphs.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QLoggingCategory>

extern "C" {
#include <libavutil/pixdesc.h>
}

// Debug chatter (the graph texts) is off unless QT_LOGGING_RULES turns it on.
Q_LOGGING_CATEGORY(lcRenderGraphs, "korvane.nleditor.graphs", QtInfoMsg)

namespace Korvane {

namespace {

QString layoutText(const AVChannelLayout& layout)
{
    char text[128] = {};
    av_channel_layout_describe(&layout, text, sizeof(text));
    return QString::fromLatin1(text);
}

QString pictureSourceArgs(int width, int height, int pixelFormat, AVRational timeBase,
                          AVRational sampleAspect)
{
    return QStringLiteral("video_size=%1x%2:pix_fmt=%3:time_base=%4/%5:pixel_aspect=%6/%7")
        .arg(width)
        .arg(height)
        .arg(pixelFormat)
        .arg(timeBase.num)
        .arg(timeBase.den)
        .arg(sampleAspect.num)
        .arg(sampleAspect.den);
}

// Every sound source delivers the output's form on a sample clock (see
// AudioFrameConverter).
QString soundSourceArgs(const RenderPlan& plan)
{
    return QStringLiteral("time_base=1/%1:sample_rate=%1:sample_fmt=%2:channel_layout=%3")
        .arg(plan.sampleRate)
        .arg(QString::fromLatin1(av_get_sample_fmt_name(plan.sampleFormat)))
        .arg(layoutText(plan.channelLayout));
}

} // namespace

bool RenderFilterGraphs::configure(QSharedPointer<AVFilterGraph>* graph, const QString& text,
                                   const QHash<QString, QString>& sourceArgs, bool video,
                                   AVFilterContext** sink, QString* error)
{
    *graph = makeAVFilterGraphPtr();
    if (!*graph) {
        *error = QStringLiteral("cannot allocate a filter graph");
        return false;
    }
    AVFilterGraph* g = graph->data();
    g->nb_threads = 0;
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    int ret = avfilter_graph_parse2(g, text.toUtf8().constData(), &inputs, &outputs);
    auto inputsOwner = makeAVFilterInOutPtr(inputs);
    auto outputsOwner = makeAVFilterInOutPtr(outputs);
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("bad filter graph \"%1\"").arg(text), ret);
        return false;
    }
    for (AVFilterInOut* in = inputs; in; in = in->next) {
        const QString label = QString::fromUtf8(in->name);
        if (!sourceArgs.contains(label)) {
            *error = QStringLiteral("filter graph input [%1] has no source").arg(label);
            return false;
        }
        const AVFilter* filter = avfilter_get_by_name(video ? "buffer" : "abuffer");
        AVFilterContext* source = nullptr;
        ret =
            avfilter_graph_create_filter(&source, filter, label.toUtf8().constData(),
                                         sourceArgs.value(label).toUtf8().constData(), nullptr, g);
        if (ret >= 0) {
            ret = avfilter_link(source, 0, in->filter_ctx, in->pad_idx);
        }
        if (ret < 0) {
            *error = ffFailure(QStringLiteral("cannot create the source [%1]").arg(label), ret);
            return false;
        }
        mSources.insert(label, source);
    }
    if (!outputs || outputs->next) {
        *error = QStringLiteral("the filter graph must have exactly one output");
        return false;
    }
    ret = avfilter_graph_create_filter(sink,
                                       avfilter_get_by_name(video ? "buffersink" : "abuffersink"),
                                       video ? "vout" : "aout", nullptr, nullptr, g);
    if (ret >= 0) {
        ret = avfilter_link(outputs->filter_ctx, outputs->pad_idx, *sink, 0);
    }
    if (ret >= 0) {
        ret = avfilter_graph_config(g, nullptr);
    }
    if (ret < 0) {
        *error = ffFailure(QStringLiteral("cannot set up the filter graph"), ret);
        return false;
    }
    return true;
}

bool RenderFilterGraphs::build(const ProjectDocument& doc, const RenderPlan& plan, QString* error)
{
    if (plan.wantVideo) {
        VideoGraphRequest request;
        QHash<QString, QString> args;
        for (int i = 0; i < plan.mains.size(); ++i) {
            const MainClipPlan& main = plan.mains[i];
            request.clips.append(main.clip);
            request.pictures.append(main.picture);
            const AVRational sar =
                main.video.sampleAspect.num > 0 ? main.video.sampleAspect : AVRational{1, 1};
            args.insert(QStringLiteral("v%1").arg(i),
                        pictureSourceArgs(main.video.width, main.video.height,
                                          main.video.pixelFormat, main.video.timeBase, sar));
        }
        for (int j = 0; j < plan.images.size(); ++j) {
            const AVFrame* image = plan.images[j].data();
            args.insert(
                QStringLiteral("w%1").arg(j),
                pictureSourceArgs(image->width, image->height, image->format, {1, 1000}, {1, 1}));
        }
        for (int k = 0; k < plan.bitmapLayers.size(); ++k) {
            const QSize plane = plan.bitmapLayers[k].plane;
            args.insert(QStringLiteral("s%1").arg(k),
                        pictureSourceArgs(plane.width(), plane.height(), AV_PIX_FMT_RGBA, {1, 1000},
                                          {1, 1}));
        }
        request.images = doc.imageClips;
        request.subtitles = plan.subtitles;
        request.bitmapSubtitles = plan.bitmapLayers;
        request.canvas = doc.canvas();
        request.output = plan.outputSize;
        request.fps = plan.fps;
        request.pixelFormat = QString::fromLatin1(av_get_pix_fmt_name(plan.pixelFormat));
        const QString text = buildVideoGraph(request);
        qCDebug(lcRenderGraphs) << "video graph" << text;
        if (!configure(&mVideoGraph, text, args, true, &mVideoSink, error)) {
            return false;
        }
    }
    if (plan.wantAudio) {
        AudioGraphRequest request;
        QHash<QString, QString> args;
        for (int i = 0; i < plan.mains.size(); ++i) {
            request.mainClips.append(plan.mains[i].clip);
            request.mainAudio.append(ClipAudio{plan.mains[i].hasAudio});
            if (plan.mains[i].hasAudio) {
                args.insert(QStringLiteral("a%1").arg(i), soundSourceArgs(plan));
            }
        }
        for (int k = 0; k < plan.extras.size(); ++k) {
            request.audioClips.append(plan.extras[k].clip);
            args.insert(QStringLiteral("x%1").arg(k), soundSourceArgs(plan));
        }
        request.durationMs = plan.durationMs;
        request.sampleRate = plan.sampleRate;
        request.sampleFormat = QString::fromLatin1(av_get_sample_fmt_name(plan.sampleFormat));
        request.channelLayout = layoutText(plan.channelLayout);
        const QString text = buildAudioGraph(request);
        qCDebug(lcRenderGraphs) << "audio graph" << text;
        if (!configure(&mAudioGraph, text, args, false, &mAudioSink, error)) {
            return false;
        }
    }
    return true;
}

} // namespace Korvane
