#include "NLEditor/ProjectRenderer.h"

#include "Adapter/AudioFrameConverter.h"
#include "Adapter/MediaSource.h"
#include "Adapter/PictureFilters.h"
#include "Adapter/StillPicture.h"
#include "Adapter/VideoFrameConverter.h"
#include "Common/OutputRules.h"
#include "KorvaneBase/Record.h"
#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"
#include "NLEditor/OutputFormat.h"
#include "NLEditor/RenderGraph.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QLoggingCategory>
#include <QSet>
#include <QStringList>

#include <cmath>
#include <limits>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

// Debug chatter (the graph texts) is off unless QT_LOGGING_RULES turns it on.
Q_LOGGING_CATEGORY(lcRenderer, "korvane.nleditor.renderer", QtInfoMsg)

namespace Korvane {

namespace {

const char* const kFile = "KorvaneDec/NLEditor/ProjectRenderer";

QString ff(const QString& what, int code)
{
    return QStringLiteral("%1: %2").arg(what, ffErrorText(code));
}

void logOnce(const QString& text)
{
    static QSet<QString> seen;
    if (seen.contains(text)) {
        return;
    }
    seen.insert(text);
    Korvane::Record("Korvane::ProjectRenderer::run", __LINE__, kFile, nullptr, 0) << text;
}

// A black picture for a cover clip that has no picture at all.
QSharedPointer<AVFrame> blackPicture(const QSize& size)
{
    auto frame = makeAVFramePtr();
    frame->width = size.width();
    frame->height = size.height();
    frame->format = AV_PIX_FMT_YUV420P;
    if (av_frame_get_buffer(frame.data(), 0) < 0) {
        return {};
    }
    const ptrdiff_t lines[4] = {frame->linesize[0], frame->linesize[1], frame->linesize[2], 0};
    av_image_fill_black(frame->data, lines, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, frame->width,
                        frame->height);
    return frame;
}

AVChannelLayout announcedLayout(const AudioStreamFacts& facts)
{
    AVChannelLayout layout{};
    if (facts.channelMask != 0) {
        av_channel_layout_from_mask(&layout, facts.channelMask);
    } else {
        av_channel_layout_default(&layout, qMax(1, facts.channels));
    }
    return layout;
}

QString layoutText(const AVChannelLayout& layout)
{
    char text[128] = {};
    av_channel_layout_describe(&layout, text, sizeof(text));
    return QString::fromLatin1(text);
}

// One main-track clip as the renderer plays it.
struct MainClipPlan
{
    MediaClip clip;
    SourcePicture picture;
    VideoStreamFacts video;
    AudioStreamFacts audio;
    bool hasVideo = false;
    bool hasAudio = false;
    QSharedPointer<AVFrame> still; // for cover clips
};

struct AudioClipPlan
{
    MediaClip clip;
    AudioStreamFacts audio;
};

} // namespace

class ProjectRenderer::Private
{
public:
    Private(const ProjectDocument& document, const AVTaskOutputParam& output)
        : doc(document), out(output)
    {}

    RenderOutcome run();

    ProjectDocument doc;
    AVTaskOutputParam out;
    std::function<void(double)> progress;
    const std::atomic<bool>* stop = nullptr;

private:
    bool plan(QString* error);
    bool chooseEncoders(QString* error);
    bool buildGraphs(QString* error);
    bool openOutput(QString* error);
    bool feedStep(QString* error);
    bool drain(QString* error);
    bool encode(AVCodecContext* encoder, AVStream* stream, AVFrame* frame, QString* error);
    bool pushVideo(int clip, const QSharedPointer<AVFrame>& frame, QString* error);
    bool pushAudio(AVFilterContext* source, AudioFrameConverter* converter,
                   const QSharedPointer<AVFrame>& frame, QString* error);
    bool endSource(AVFilterContext* source, QString* error);
    void cleanupOutput();

    QString muxer;
    bool wantVideo = false;
    bool wantAudio = false;
    double durationMs = 0.0;
    QSize outputSize;
    double fps = 25.0;

    const AVCodec* videoCodec = nullptr;
    const AVCodec* audioCodec = nullptr;
    AVPixelFormat pixelFormat = AV_PIX_FMT_YUV420P;
    int sampleRate = 48000;
    AVSampleFormat sampleFormat = AV_SAMPLE_FMT_FLTP;
    AVChannelLayout channelLayout{};

    QList<MainClipPlan> mains;
    QList<AudioClipPlan> extras;
    QList<QSharedPointer<AVFrame>> images;
    QList<SubtitleDraw> subtitles;

    QSharedPointer<AVFilterGraph> videoGraph;
    QSharedPointer<AVFilterGraph> audioGraph;
    QHash<QString, AVFilterContext*> sources;
    AVFilterContext* videoSink = nullptr;
    AVFilterContext* audioSink = nullptr;

    QSharedPointer<AVFormatContext> output;
    QSharedPointer<AVCodecContext> videoEncoder;
    QSharedPointer<AVCodecContext> audioEncoder;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    AVStream* coverStream = nullptr;
    EncodedPicture cover;
    bool outputOpened = false;
    bool videoDone = true;
    bool audioDone = true;

    // Playing state of the main track.
    int currentMain = -1;
    std::unique_ptr<MediaSource> mainSource;
    std::unique_ptr<VideoFrameConverter> mainVideoConverter;
    std::unique_ptr<AudioFrameConverter> mainAudioConverter;
    bool mainVideoOpen = false;
    bool mainAudioOpen = false;
    double mainVideoPosMs = 0.0;
    double mainAudioPosMs = 0.0;
    qint64 stillIndex = 0;

    // Playing state of the audio clips.
    struct ExtraState
    {
        std::unique_ptr<MediaSource> source;
        std::unique_ptr<AudioFrameConverter> converter;
        double posMs = 0.0;
        bool started = false;
        bool done = false;
    };
    std::vector<ExtraState> extraStates;
    double writtenMs = 0.0;
    bool inputsEnded = false;
};

ProjectRenderer::ProjectRenderer(const ProjectDocument& document, const AVTaskOutputParam& output)
    : d(std::make_unique<Private>(document, output))
{}

ProjectRenderer::~ProjectRenderer() = default;

void ProjectRenderer::setProgressHandler(std::function<void(double)> handler)
{
    d->progress = std::move(handler);
}

void ProjectRenderer::setStopFlag(const std::atomic<bool>* flag)
{
    d->stop = flag;
}

RenderOutcome ProjectRenderer::run()
{
    return d->run();
}

bool ProjectRenderer::Private::plan(QString* error)
{
    if (out.outputPath.isEmpty()) {
        *error = QStringLiteral("no output path given");
        return false;
    }
    // Opening the output truncates it: were it one of the files the project
    // reads, the user's original would be destroyed before a frame is read.
    const QString outputFile = QFileInfo(out.outputPath).canonicalFilePath();
    if (!outputFile.isEmpty()) {
        QStringList inputs;
        for (const MediaClip& clip : doc.mainClips + doc.audioClips) {
            inputs << clip.filePath;
        }
        for (const ImageClip& clip : doc.imageClips) {
            inputs << clip.filePath;
        }
        for (const QString& input : std::as_const(inputs)) {
            if (QFileInfo(input).canonicalFilePath() == outputFile) {
                *error = QStringLiteral("the output \"%1\" is one of the inputs, refused")
                             .arg(out.outputPath);
                return false;
            }
        }
    }
    muxer = resolveMuxer(out.format, out.outputPath);
    if (muxer.isEmpty()) {
        *error =
            QStringLiteral("unknown container \"%1\" for \"%2\"").arg(out.format, out.outputPath);
        return false;
    }
    const AVOutputFormat* format = av_guess_format(muxer.toLatin1().constData(), nullptr, nullptr);
    durationMs = doc.durationMs();
    if (durationMs <= 0.0) {
        *error = QStringLiteral("the project has nothing to play (duration 0)");
        return false;
    }
    wantVideo = !doc.videoDisabled && !doc.mainClips.isEmpty() && !isAudioOnlyMuxer(muxer) &&
                format->video_codec != AV_CODEC_ID_NONE;
    wantAudio = !doc.audioDisabled && format->audio_codec != AV_CODEC_ID_NONE;

    const QSize canvas = doc.canvas();
    for (const MediaClip& clip : doc.mainClips) {
        MainClipPlan plan;
        plan.clip = clip;
        const bool cover = clip.kind == QLatin1String("audio_with_cover");
        const bool withAudio = wantAudio && clip.kind != QLatin1String("video_only");
        if (!QFileInfo(clip.filePath).isFile()) {
            *error = QStringLiteral("media file not found: \"%1\"").arg(clip.filePath);
            return false;
        }
        auto source = MediaSource::open(clip.filePath, wantVideo && !cover, withAudio,
                                        clip.fileAudioStreamIndex, error);
        if (!source) {
            return false;
        }
        if (wantVideo && cover) {
            if (!doc.coverPath.isEmpty()) {
                plan.still = loadStillPicture(doc.coverPath, error);
            } else {
                plan.still = source->attachedPicture(error);
                if (!plan.still && error->isEmpty()) {
                    plan.still = blackPicture(canvas);
                }
            }
            if (!plan.still) {
                return false;
            }
            plan.hasVideo = true;
            plan.picture.width = plan.still->width;
            plan.picture.height = plan.still->height;
            plan.picture.still = true;
            plan.video.width = plan.still->width;
            plan.video.height = plan.still->height;
            plan.video.pixelFormat = static_cast<AVPixelFormat>(plan.still->format);
            plan.video.timeBase = AVRational{1, 1000};
        } else if (wantVideo) {
            if (!source->hasVideo()) {
                *error = QStringLiteral("no decodable video stream in \"%1\"").arg(clip.filePath);
                return false;
            }
            plan.hasVideo = true;
            plan.video = source->video();
            plan.picture.width = plan.video.width;
            plan.picture.height = plan.video.height;
            plan.picture.sampleAspect =
                plan.video.sampleAspect.num > 0 ? av_q2d(plan.video.sampleAspect) : 1.0;
            plan.picture.rotation = plan.video.rotation;
            plan.picture.interlaced = plan.video.interlaced;
        }
        if (withAudio && source->hasAudio()) {
            plan.hasAudio = true;
            plan.audio = source->audio();
        }
        if (!wantVideo && !withAudio) {
            continue;
        }
        for (const VideoFilterEntry& filter : clip.videoFilters) {
            if (!filter.dirPath.isEmpty()) {
                logOnce(QStringLiteral("effect folder \"%1\" is not available here; "
                                       "rendering without it")
                            .arg(filter.dirPath));
            } else if (filter.name == QLatin1String("AIMosaic") ||
                       filter.name == QLatin1String("AIAutoReframe")) {
                logOnce(QStringLiteral("%1 result \"%2\" is not available here; "
                                       "rendering without it")
                            .arg(filter.name, filter.path));
            }
        }
        mains.append(plan);
    }
    if (wantVideo && mains.isEmpty()) {
        wantVideo = false;
    }

    if (wantAudio) {
        for (const MediaClip& clip : doc.audioClips) {
            if (!QFileInfo(clip.filePath).isFile()) {
                *error = QStringLiteral("audio file not found: \"%1\"").arg(clip.filePath);
                return false;
            }
            auto source =
                MediaSource::open(clip.filePath, false, true, clip.fileAudioStreamIndex, error);
            if (!source) {
                return false;
            }
            if (!source->hasAudio()) {
                *error = QStringLiteral("no decodable audio stream in \"%1\"").arg(clip.filePath);
                return false;
            }
            extras.append({clip, source->audio()});
        }
        bool anySound = !extras.isEmpty();
        for (const MainClipPlan& plan : mains) {
            anySound = anySound || plan.hasAudio;
        }
        wantAudio = anySound;
    }
    if (!wantVideo && !wantAudio) {
        *error = QStringLiteral("no decodable stream to render");
        return false;
    }

    if (wantVideo) {
        for (const ImageClip& image : doc.imageClips) {
            auto frame = loadStillPicture(image.filePath, error);
            if (!frame) {
                *error = QStringLiteral("watermark: %1").arg(*error);
                return false;
            }
            images.append(frame);
        }
        if (!mains.isEmpty()) {
            for (const SubtitleEntry& entry : mains.first().clip.subtitles) {
                if (!entry.display) {
                    continue;
                }
                const SubtitleStreamInfo info =
                    probeSubtitleStream(entry.filePath, entry.embeddedStreamIndex);
                if (!info.found) {
                    *error = QStringLiteral("subtitle stream %1 not found in \"%2\"")
                                 .arg(entry.embeddedStreamIndex)
                                 .arg(entry.filePath);
                    return false;
                }
                if (info.isBitmap) {
                    logOnce(QStringLiteral("picture subtitles of \"%1\" are not drawn")
                                .arg(entry.filePath));
                    continue;
                }
                subtitles.append(
                    {entry.filePath, info.ordinal, entry.offsetMs, mains.first().clip.speed});
            }
        }
    }
    if (!doc.coverPath.isEmpty()) {
        cover = readEncodedPicture(doc.coverPath, error);
        if (cover.codec == AV_CODEC_ID_NONE) {
            return false;
        }
        error->clear();
    }
    return true;
}

bool ProjectRenderer::Private::chooseEncoders(QString* error)
{
    const AVOutputFormat* format = av_guess_format(muxer.toLatin1().constData(), nullptr, nullptr);
    const QSize canvas = doc.canvas();
    outputSize = out.video.width >= 1 && out.video.height >= 1
                     ? QSize(qMax(2, out.video.width & ~1), qMax(2, out.video.height & ~1))
                     : canvas;
    fps = out.video.frameRate > 0.0 ? out.video.frameRate : doc.fps;
    if (wantVideo) {
        const QString name = videoEncoderName(out.video.codecName);
        videoCodec = name.isEmpty() ? avcodec_find_encoder(format->video_codec) : findEncoder(name);
        if (!videoCodec) {
            *error = QStringLiteral("unknown video codec \"%1\"").arg(out.video.codecName);
            return false;
        }
        if (videoCodec->type != AVMEDIA_TYPE_VIDEO) {
            *error = QStringLiteral("\"%1\" is not a video codec").arg(out.video.codecName);
            return false;
        }
        pixelFormat = AV_PIX_FMT_YUV420P;
        if (videoCodec->pix_fmts) {
            pixelFormat = videoCodec->pix_fmts[0];
            for (const AVPixelFormat* f = videoCodec->pix_fmts; *f != AV_PIX_FMT_NONE; ++f) {
                if (*f == AV_PIX_FMT_YUV420P) {
                    pixelFormat = *f;
                }
            }
        }
    }
    if (wantAudio) {
        const QString name = audioEncoderName(out.audio.codecName);
        audioCodec = name.isEmpty() ? avcodec_find_encoder(format->audio_codec) : findEncoder(name);
        if (!audioCodec) {
            *error = QStringLiteral("unknown audio codec \"%1\"").arg(out.audio.codecName);
            return false;
        }
        if (audioCodec->type != AVMEDIA_TYPE_AUDIO) {
            *error = QStringLiteral("\"%1\" is not an audio codec").arg(out.audio.codecName);
            return false;
        }
        sampleRate = out.audio.sampleRate >= 1 ? out.audio.sampleRate : 48000;
        if (audioCodec->supported_samplerates) {
            int best = audioCodec->supported_samplerates[0];
            for (const int* r = audioCodec->supported_samplerates; *r; ++r) {
                if (std::abs(*r - sampleRate) < std::abs(best - sampleRate)) {
                    best = *r;
                }
            }
            sampleRate = best;
        }
        sampleFormat = audioCodec->sample_fmts ? audioCodec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        av_channel_layout_uninit(&channelLayout);
        av_channel_layout_default(&channelLayout, out.audio.channels >= 1 ? out.audio.channels : 2);
    }
    return true;
}

bool ProjectRenderer::Private::buildGraphs(QString* error)
{
    auto configure = [&](QSharedPointer<AVFilterGraph>& graph, const QString& text,
                         const QHash<QString, QString>& sourceArgs, bool video,
                         AVFilterContext** sink) -> bool {
        graph = makeAVFilterGraphPtr();
        if (!graph) {
            *error = QStringLiteral("cannot allocate a filter graph");
            return false;
        }
        graph->nb_threads = 0;
        AVFilterInOut* inputs = nullptr;
        AVFilterInOut* outputs = nullptr;
        int ret = avfilter_graph_parse2(graph.data(), text.toUtf8().constData(), &inputs, &outputs);
        auto inputsOwner = makeAVFilterInOutPtr(inputs);
        auto outputsOwner = makeAVFilterInOutPtr(outputs);
        if (ret < 0) {
            *error = ff(QStringLiteral("bad filter graph \"%1\"").arg(text), ret);
            return false;
        }
        for (AVFilterInOut* in = inputs; in; in = in->next) {
            const QString label = QString::fromUtf8(in->name);
            if (!sourceArgs.contains(label)) {
                *error = QStringLiteral("filter graph input [%1] has no source").arg(label);
                return false;
            }
            const bool isVideoSource =
                label.startsWith(QLatin1Char('v')) || label.startsWith(QLatin1Char('w'));
            const AVFilter* filter = avfilter_get_by_name(isVideoSource ? "buffer" : "abuffer");
            AVFilterContext* source = nullptr;
            ret = avfilter_graph_create_filter(&source, filter, label.toUtf8().constData(),
                                               sourceArgs.value(label).toUtf8().constData(),
                                               nullptr, graph.data());
            if (ret >= 0) {
                ret = avfilter_link(source, 0, in->filter_ctx, in->pad_idx);
            }
            if (ret < 0) {
                *error = ff(QStringLiteral("cannot create the source [%1]").arg(label), ret);
                return false;
            }
            sources.insert(label, source);
        }
        if (!outputs || outputs->next) {
            *error = QStringLiteral("the filter graph must have exactly one output");
            return false;
        }
        ret = avfilter_graph_create_filter(
            sink, avfilter_get_by_name(video ? "buffersink" : "abuffersink"),
            video ? "vout" : "aout", nullptr, nullptr, graph.data());
        if (ret >= 0) {
            ret = avfilter_link(outputs->filter_ctx, outputs->pad_idx, *sink, 0);
        }
        if (ret >= 0) {
            ret = avfilter_graph_config(graph.data(), nullptr);
        }
        if (ret < 0) {
            *error = ff(QStringLiteral("cannot set up the filter graph"), ret);
            return false;
        }
        return true;
    };

    if (wantVideo) {
        VideoGraphRequest request;
        QHash<QString, QString> args;
        for (int i = 0; i < mains.size(); ++i) {
            const MainClipPlan& plan = mains[i];
            request.clips.append(plan.clip);
            request.pictures.append(plan.picture);
            const AVRational sar =
                plan.video.sampleAspect.num > 0 ? plan.video.sampleAspect : AVRational{1, 1};
            args.insert(QStringLiteral("v%1").arg(i),
                        QStringLiteral("video_size=%1x%2:pix_fmt=%3:time_base=%4/%5:"
                                       "pixel_aspect=%6/%7")
                            .arg(plan.video.width)
                            .arg(plan.video.height)
                            .arg(static_cast<int>(plan.video.pixelFormat))
                            .arg(plan.video.timeBase.num)
                            .arg(plan.video.timeBase.den)
                            .arg(sar.num)
                            .arg(sar.den));
        }
        for (int j = 0; j < images.size(); ++j) {
            args.insert(QStringLiteral("w%1").arg(j),
                        QStringLiteral("video_size=%1x%2:pix_fmt=%3:time_base=1/1000:"
                                       "pixel_aspect=1/1")
                            .arg(images[j]->width)
                            .arg(images[j]->height)
                            .arg(images[j]->format));
        }
        request.images = doc.imageClips;
        request.subtitles = subtitles;
        request.canvas = doc.canvas();
        request.output = outputSize;
        request.fps = fps;
        request.pixelFormat = QString::fromLatin1(av_get_pix_fmt_name(pixelFormat));
        const QString text = buildVideoGraph(request);
        qCDebug(lcRenderer) << "video graph" << text;
        if (!configure(videoGraph, text, args, true, &videoSink)) {
            return false;
        }
    }
    if (wantAudio) {
        AudioGraphRequest request;
        QHash<QString, QString> args;
        auto audioArgs = [](const AudioStreamFacts& facts) {
            AVChannelLayout layout = announcedLayout(facts);
            const QString text =
                QStringLiteral("time_base=%1/%2:sample_rate=%3:sample_fmt=%4:"
                               "channel_layout=%5")
                    .arg(facts.timeBase.num)
                    .arg(facts.timeBase.den)
                    .arg(facts.sampleRate)
                    .arg(QString::fromLatin1(av_get_sample_fmt_name(facts.sampleFormat)))
                    .arg(layoutText(layout));
            av_channel_layout_uninit(&layout);
            return text;
        };
        for (int i = 0; i < mains.size(); ++i) {
            request.mainClips.append(mains[i].clip);
            request.mainAudio.append(ClipAudio{mains[i].hasAudio});
            if (mains[i].hasAudio) {
                args.insert(QStringLiteral("a%1").arg(i), audioArgs(mains[i].audio));
            }
        }
        for (int k = 0; k < extras.size(); ++k) {
            request.audioClips.append(extras[k].clip);
            args.insert(QStringLiteral("x%1").arg(k), audioArgs(extras[k].audio));
        }
        request.durationMs = durationMs;
        request.sampleRate = sampleRate;
        request.sampleFormat = QString::fromLatin1(av_get_sample_fmt_name(sampleFormat));
        request.channelLayout = layoutText(channelLayout);
        const QString text = buildAudioGraph(request);
        qCDebug(lcRenderer) << "audio graph" << text;
        if (!configure(audioGraph, text, args, false, &audioSink)) {
            return false;
        }
    }
    return true;
}

bool ProjectRenderer::Private::openOutput(QString* error)
{
    AVFormatContext* raw = nullptr;
    const QByteArray path = out.outputPath.toUtf8();
    int ret = avformat_alloc_output_context2(&raw, nullptr, muxer.toLatin1().constData(),
                                             path.constData());
    if (ret < 0 || !raw) {
        *error = ff(QStringLiteral("cannot write the container \"%1\"").arg(muxer), ret);
        return false;
    }
    output = makeAVFormatContextPtr(raw);
    const bool globalHeader = raw->oformat->flags & AVFMT_GLOBALHEADER;

    if (wantVideo) {
        videoEncoder = makeAVCodecContextPtr(videoCodec);
        AVCodecContext* enc = videoEncoder.data();
        enc->width = av_buffersink_get_w(videoSink);
        enc->height = av_buffersink_get_h(videoSink);
        enc->pix_fmt = static_cast<AVPixelFormat>(av_buffersink_get_format(videoSink));
        enc->sample_aspect_ratio = AVRational{1, 1};
        enc->time_base = av_buffersink_get_time_base(videoSink);
        enc->framerate = av_buffersink_get_frame_rate(videoSink);
        enc->gop_size = 15;
        if (out.video.bitrateKbps >= 1) {
            enc->bit_rate = out.video.bitrateKbps * 1000;
            enc->rc_max_rate = enc->bit_rate;
            enc->rc_min_rate = enc->bit_rate;
            enc->rc_buffer_size = static_cast<int>(2 * enc->bit_rate);
        } else if (av_opt_set(enc->priv_data, "crf",
                              QByteArray::number(crfQuality(out.video.codecName, outputSize.width(),
                                                            outputSize.height()))
                                  .constData(),
                              0) < 0) {
            qCDebug(lcRenderer) << videoCodec->name << "has no constant-quality mode";
        }
        if (globalHeader) {
            enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        ret = avcodec_open2(enc, videoCodec, nullptr);
        if (ret < 0) {
            *error =
                ff(QStringLiteral("cannot open the video encoder %1").arg(videoCodec->name), ret);
            return false;
        }
        videoStream = avformat_new_stream(raw, nullptr);
        if (!videoStream) {
            *error = QStringLiteral("cannot add the video stream");
            return false;
        }
        avcodec_parameters_from_context(videoStream->codecpar, enc);
        videoStream->time_base = enc->time_base;
        videoStream->avg_frame_rate = enc->framerate;
        if (enc->codec_id == AV_CODEC_ID_HEVC &&
            (muxer == QLatin1String("mp4") || muxer == QLatin1String("mov"))) {
            videoStream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
        }
        videoDone = false;
    }
    if (wantAudio) {
        audioEncoder = makeAVCodecContextPtr(audioCodec);
        AVCodecContext* enc = audioEncoder.data();
        enc->sample_rate = sampleRate;
        enc->sample_fmt = sampleFormat;
        av_channel_layout_copy(&enc->ch_layout, &channelLayout);
        enc->time_base = AVRational{1, sampleRate};
        if (out.audio.bitrateKbps >= 1) {
            enc->bit_rate = out.audio.bitrateKbps * 1000;
        }
        if (globalHeader) {
            enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        ret = avcodec_open2(enc, audioCodec, nullptr);
        if (ret < 0) {
            *error =
                ff(QStringLiteral("cannot open the audio encoder %1").arg(audioCodec->name), ret);
            return false;
        }
        if (!(audioCodec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) && enc->frame_size > 0) {
            av_buffersink_set_frame_size(audioSink, enc->frame_size);
        }
        audioStream = avformat_new_stream(raw, nullptr);
        if (!audioStream) {
            *error = QStringLiteral("cannot add the audio stream");
            return false;
        }
        avcodec_parameters_from_context(audioStream->codecpar, enc);
        audioStream->time_base = enc->time_base;
        audioDone = false;
    }

    if (cover.codec != AV_CODEC_ID_NONE) {
        const bool attachedPicture =
            muxer == QLatin1String("mp4") || muxer == QLatin1String("mov") ||
            muxer == QLatin1String("ipod") || muxer == QLatin1String("mp3");
        if (attachedPicture) {
            coverStream = avformat_new_stream(raw, nullptr);
            if (!coverStream) {
                *error = QStringLiteral("cannot add the cover stream");
                return false;
            }
            coverStream->disposition = AV_DISPOSITION_ATTACHED_PIC;
            coverStream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
            coverStream->codecpar->codec_id = cover.codec;
            coverStream->codecpar->width = cover.width;
            coverStream->codecpar->height = cover.height;
            coverStream->time_base = AVRational{1, 90000};
        } else if (muxer == QLatin1String("matroska")) {
            AVStream* attachment = avformat_new_stream(raw, nullptr);
            if (!attachment) {
                *error = QStringLiteral("cannot add the cover attachment");
                return false;
            }
            attachment->codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
            attachment->codecpar->codec_id =
                cover.codec == AV_CODEC_ID_PNG ? AV_CODEC_ID_PNG : AV_CODEC_ID_MJPEG;
            attachment->codecpar->extradata =
                static_cast<uint8_t*>(av_mallocz(cover.data.size() + AV_INPUT_BUFFER_PADDING_SIZE));
            if (!attachment->codecpar->extradata) {
                *error = QStringLiteral("out of memory for the cover");
                return false;
            }
            memcpy(attachment->codecpar->extradata, cover.data.constData(), cover.data.size());
            attachment->codecpar->extradata_size = cover.data.size();
            const bool png = cover.codec == AV_CODEC_ID_PNG;
            av_dict_set(&attachment->metadata, "filename", png ? "cover.png" : "cover.jpg", 0);
            av_dict_set(&attachment->metadata, "mimetype", png ? "image/png" : "image/jpeg", 0);
        } else {
            logOnce(QStringLiteral("the container %1 holds no cover picture; writing without it")
                        .arg(muxer));
        }
    }
    for (auto it = doc.metaData.cbegin(); it != doc.metaData.cend(); ++it) {
        av_dict_set(&raw->metadata, it.key().toUtf8().constData(),
                    it.value().toString().toUtf8().constData(), 0);
    }

    if (!(raw->oformat->flags & AVFMT_NOFILE)) {
        ret = avio_open(&raw->pb, path.constData(), AVIO_FLAG_WRITE);
        if (ret < 0) {
            *error = ff(QStringLiteral("cannot create \"%1\"").arg(out.outputPath), ret);
            return false;
        }
    }
    outputOpened = true;
    ret = avformat_write_header(raw, nullptr);
    if (ret < 0) {
        *error = ff(QStringLiteral("cannot write the %1 header").arg(muxer), ret);
        return false;
    }
    if (coverStream) {
        auto packet = makeAVPacketPtr();
        ret = av_new_packet(packet.data(), cover.data.size());
        if (ret >= 0) {
            memcpy(packet->data, cover.data.constData(), cover.data.size());
            packet->stream_index = coverStream->index;
            packet->flags |= AV_PKT_FLAG_KEY;
            packet->pts = packet->dts = 0;
            ret = av_interleaved_write_frame(raw, packet.data());
        }
        if (ret < 0) {
            *error = ff(QStringLiteral("cannot write the cover picture"), ret);
            return false;
        }
    }
    return true;
}

bool ProjectRenderer::Private::encode(AVCodecContext* encoder, AVStream* stream, AVFrame* frame,
                                      QString* error)
{
    int ret = avcodec_send_frame(encoder, frame);
    if (ret < 0) {
        *error = ff(QStringLiteral("encoding failed"), ret);
        return false;
    }
    auto packet = makeAVPacketPtr();
    for (;;) {
        ret = avcodec_receive_packet(encoder, packet.data());
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
            return true;
        }
        if (ret < 0) {
            *error = ff(QStringLiteral("encoding failed"), ret);
            return false;
        }
        av_packet_rescale_ts(packet.data(), encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        ret = av_interleaved_write_frame(output.data(), packet.data());
        if (ret < 0) {
            *error = ff(QStringLiteral("writing \"%1\" failed").arg(out.outputPath), ret);
            return false;
        }
    }
}

bool ProjectRenderer::Private::drain(QString* error)
{
    auto frame = makeAVFramePtr();
    while (!videoDone) {
        const int ret = av_buffersink_get_frame(videoSink, frame.data());
        if (ret == AVERROR(EAGAIN)) {
            break;
        }
        if (ret == AVERROR_EOF) {
            videoDone = true;
            if (!encode(videoEncoder.data(), videoStream, nullptr, error)) {
                return false;
            }
            break;
        }
        if (ret < 0) {
            *error = ff(QStringLiteral("picture filtering failed"), ret);
            return false;
        }
        frame->pict_type = AV_PICTURE_TYPE_NONE;
        const double ms = frame->pts * av_q2d(videoEncoder->time_base) * 1000.0;
        const bool ok = encode(videoEncoder.data(), videoStream, frame.data(), error);
        av_frame_unref(frame.data());
        if (!ok) {
            return false;
        }
        writtenMs = qMax(writtenMs, ms);
        if (progress) {
            progress(qBound(0.0, writtenMs / durationMs, 1.0));
        }
    }
    while (!audioDone) {
        const int ret = av_buffersink_get_frame(audioSink, frame.data());
        if (ret == AVERROR(EAGAIN)) {
            break;
        }
        if (ret == AVERROR_EOF) {
            audioDone = true;
            if (!encode(audioEncoder.data(), audioStream, nullptr, error)) {
                return false;
            }
            break;
        }
        if (ret < 0) {
            *error = ff(QStringLiteral("sound filtering failed"), ret);
            return false;
        }
        const AVRational sinkBase = av_buffersink_get_time_base(audioSink);
        frame->pts = av_rescale_q(frame->pts, sinkBase, audioEncoder->time_base);
        const double ms = frame->pts * av_q2d(audioEncoder->time_base) * 1000.0;
        const bool ok = encode(audioEncoder.data(), audioStream, frame.data(), error);
        av_frame_unref(frame.data());
        if (!ok) {
            return false;
        }
        if (!wantVideo) {
            writtenMs = qMax(writtenMs, ms);
            if (progress) {
                progress(qBound(0.0, writtenMs / durationMs, 1.0));
            }
        }
    }
    return true;
}

bool ProjectRenderer::Private::endSource(AVFilterContext* source, QString* error)
{
    const int ret = av_buffersrc_add_frame_flags(source, nullptr, 0);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ff(QStringLiteral("cannot end a filter source"), ret);
        return false;
    }
    return true;
}

bool ProjectRenderer::Private::pushVideo(int clip, const QSharedPointer<AVFrame>& frame,
                                         QString* error)
{
    const QSharedPointer<AVFrame> conformed = mainVideoConverter->convert(frame, error);
    if (!conformed) {
        return false;
    }
    const int ret = av_buffersrc_add_frame_flags(sources.value(QStringLiteral("v%1").arg(clip)),
                                                 conformed.data(), AV_BUFFERSRC_FLAG_KEEP_REF);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ff(QStringLiteral("picture filtering failed"), ret);
        return false;
    }
    return true;
}

bool ProjectRenderer::Private::pushAudio(AVFilterContext* source, AudioFrameConverter* converter,
                                         const QSharedPointer<AVFrame>& frame, QString* error)
{
    const QSharedPointer<AVFrame> conformed = converter->convert(frame, error);
    if (!conformed) {
        return false;
    }
    if (conformed->nb_samples == 0) {
        return true;
    }
    const int ret =
        av_buffersrc_add_frame_flags(source, conformed.data(), AV_BUFFERSRC_FLAG_KEEP_REF);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ff(QStringLiteral("sound filtering failed"), ret);
        return false;
    }
    return true;
}

// Feeds one frame from the input that lags most on the timeline. Returns
// false on failure; when every input has ended it does nothing.
bool ProjectRenderer::Private::feedStep(QString* error)
{
    // Where each input stands on the timeline.
    double mainPos = std::numeric_limits<double>::infinity();
    if (currentMain < mains.size()) {
        if (currentMain < 0 || (!mainVideoOpen && !mainAudioOpen)) {
            mainPos = currentMain < 0 ? 0.0 : mains[currentMain].clip.timelinePosMs;
        } else {
            mainPos =
                qMin(mainVideoOpen ? mainVideoPosMs : std::numeric_limits<double>::infinity(),
                     mainAudioOpen ? mainAudioPosMs : std::numeric_limits<double>::infinity());
        }
    }
    int extraIndex = -1;
    double extraPos = std::numeric_limits<double>::infinity();
    for (size_t k = 0; k < extraStates.size(); ++k) {
        if (!extraStates[k].done && extraStates[k].posMs < extraPos) {
            extraPos = extraStates[k].posMs;
            extraIndex = static_cast<int>(k);
        }
    }
    if (std::isinf(mainPos) && extraIndex < 0) {
        inputsEnded = true;
        return true;
    }

    if (extraIndex >= 0 && extraPos < mainPos) {
        ExtraState& state = extraStates[extraIndex];
        const AudioClipPlan& plan = extras[extraIndex];
        AVFilterContext* source = sources.value(QStringLiteral("x%1").arg(extraIndex));
        if (!state.started) {
            state.started = true;
            state.source = MediaSource::open(plan.clip.filePath, false, true,
                                             plan.clip.fileAudioStreamIndex, error);
            if (!state.source) {
                return false;
            }
            AVChannelLayout layout = announcedLayout(plan.audio);
            state.converter = std::make_unique<AudioFrameConverter>(
                plan.audio.sampleRate, plan.audio.sampleFormat, layout);
            av_channel_layout_uninit(&layout);
            if (plan.clip.rangeBeginMs > 0 && !state.source->seek(plan.clip.rangeBeginMs, error)) {
                return false;
            }
        }
        DecodedFrame decoded;
        const double endSeconds = (plan.clip.rangeBeginMs + plan.clip.rangeLengthMs) / 1000.0;
        if (!state.source->next(&decoded, error) || decoded.seconds >= endSeconds) {
            if (!error->isEmpty()) {
                return false;
            }
            state.done = true;
            state.source.reset();
            return endSource(source, error);
        }
        state.posMs = plan.clip.timelinePosMs +
                      (decoded.seconds * 1000.0 - plan.clip.rangeBeginMs) / plan.clip.speed;
        return pushAudio(source, state.converter.get(), decoded.frame, error);
    }

    // The main track: open the next clip when the current one has ended.
    if (currentMain < 0 || (!mainVideoOpen && !mainAudioOpen)) {
        ++currentMain;
        if (currentMain >= mains.size()) {
            return true;
        }
        const MainClipPlan& plan = mains[currentMain];
        mainSource.reset();
        stillIndex = 0;
        mainVideoOpen = wantVideo && plan.hasVideo;
        mainAudioOpen = wantAudio && plan.hasAudio;
        mainVideoPosMs = mainAudioPosMs = plan.clip.timelinePosMs;
        const bool needSource = (mainVideoOpen && !plan.still) || mainAudioOpen;
        if (needSource) {
            mainSource = MediaSource::open(plan.clip.filePath, mainVideoOpen && !plan.still,
                                           mainAudioOpen, plan.clip.fileAudioStreamIndex, error);
            if (!mainSource) {
                return false;
            }
            if (plan.clip.rangeBeginMs > 0 && !mainSource->seek(plan.clip.rangeBeginMs, error)) {
                return false;
            }
        }
        mainVideoConverter = std::make_unique<VideoFrameConverter>(
            plan.video.width, plan.video.height, plan.video.pixelFormat);
        if (mainAudioOpen) {
            AVChannelLayout layout = announcedLayout(plan.audio);
            mainAudioConverter = std::make_unique<AudioFrameConverter>(
                plan.audio.sampleRate, plan.audio.sampleFormat, layout);
            av_channel_layout_uninit(&layout);
        }
        return true;
    }

    const MainClipPlan& plan = mains[currentMain];
    const QString videoLabel = QStringLiteral("v%1").arg(currentMain);
    const QString audioLabel = QStringLiteral("a%1").arg(currentMain);
    const double endSeconds = (plan.clip.rangeBeginMs + plan.clip.rangeLengthMs) / 1000.0;

    if (plan.still && mainVideoOpen && (!mainAudioOpen || mainVideoPosMs <= mainAudioPosMs)) {
        const double ms = stillIndex * 1000.0 / fps;
        if (ms >= plan.clip.timelineLengthMs()) {
            mainVideoOpen = false;
            return endSource(sources.value(videoLabel), error);
        }
        auto frame = makeAVFramePtr(av_frame_clone(plan.still.data()));
        frame->pts = std::llround(ms);
        ++stillIndex;
        mainVideoPosMs = plan.clip.timelinePosMs + ms;
        return pushVideo(currentMain, frame, error);
    }
    if (!mainSource) {
        return true;
    }
    DecodedFrame decoded;
    if (!mainSource->next(&decoded, error)) {
        if (!error->isEmpty()) {
            return false;
        }
        const bool endVideo = mainVideoOpen && !plan.still;
        if (endVideo) {
            mainVideoOpen = false;
            if (!endSource(sources.value(videoLabel), error)) {
                return false;
            }
        }
        if (mainAudioOpen) {
            mainAudioOpen = false;
            if (!endSource(sources.value(audioLabel), error)) {
                return false;
            }
        }
        return true;
    }
    const double posMs = plan.clip.timelinePosMs +
                         (decoded.seconds * 1000.0 - plan.clip.rangeBeginMs) / plan.clip.speed;
    if (decoded.isVideo) {
        if (!mainVideoOpen) {
            return true;
        }
        mainVideoPosMs = posMs;
        if (decoded.seconds >= endSeconds) {
            mainVideoOpen = false;
            return endSource(sources.value(videoLabel), error);
        }
        return pushVideo(currentMain, decoded.frame, error);
    }
    if (!mainAudioOpen) {
        return true;
    }
    mainAudioPosMs = posMs;
    if (decoded.seconds >= endSeconds) {
        mainAudioOpen = false;
        return endSource(sources.value(audioLabel), error);
    }
    return pushAudio(sources.value(audioLabel), mainAudioConverter.get(), decoded.frame, error);
}

void ProjectRenderer::Private::cleanupOutput()
{
    if (output && output->pb) {
        avio_closep(&output->pb);
    }
    output.reset();
    if (outputOpened) {
        QFile::remove(out.outputPath);
    }
}

RenderOutcome ProjectRenderer::Private::run()
{
    RenderOutcome outcome;
    QString error;
    if (!plan(&error) || !chooseEncoders(&error) || !buildGraphs(&error) || !openOutput(&error)) {
        cleanupOutput();
        outcome.error = error;
        return outcome;
    }
    for (int j = 0; j < images.size(); ++j) {
        AVFilterContext* source = sources.value(QStringLiteral("w%1").arg(j));
        images[j]->pts = 0;
        if (av_buffersrc_add_frame_flags(source, images[j].data(), AV_BUFFERSRC_FLAG_KEEP_REF) <
                0 ||
            !endSource(source, &error)) {
            cleanupOutput();
            outcome.error = error.isEmpty() ? QStringLiteral("cannot feed the watermark") : error;
            return outcome;
        }
    }
    extraStates.resize(extras.size());
    for (size_t k = 0; k < extraStates.size(); ++k) {
        extraStates[k].posMs = extras[static_cast<int>(k)].clip.timelinePosMs;
    }

    while (!videoDone || !audioDone) {
        if (stop && stop->load()) {
            cleanupOutput();
            outcome.status = RenderStatus::Stopped;
            return outcome;
        }
        if (!drain(&error) || !feedStep(&error)) {
            cleanupOutput();
            outcome.error = error;
            return outcome;
        }
        if (inputsEnded && (!drain(&error) || !videoDone || !audioDone)) {
            cleanupOutput();
            outcome.error = error.isEmpty() ? QStringLiteral("the filter graph stalled") : error;
            return outcome;
        }
    }
    const int ret = av_write_trailer(output.data());
    if (ret < 0) {
        error = ff(QStringLiteral("cannot finish \"%1\"").arg(out.outputPath), ret);
        cleanupOutput();
        outcome.error = error;
        return outcome;
    }
    if (output->pb) {
        avio_closep(&output->pb);
    }
    outcome.status = RenderStatus::Finished;
    return outcome;
}

} // namespace Korvane
