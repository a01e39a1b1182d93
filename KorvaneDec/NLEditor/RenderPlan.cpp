#include "KorvaneDec/NLEditor/RenderPlan.h"

#include "KorvaneBase/FileIdentity.h"
#include "KorvaneBase/Record.h"
#include "KorvaneDec/Adapter/PictureFilters.h"
#include "KorvaneDec/NLEditor/OutputFormat.h"
#include "KvAVGlue/KvAVGlue.h"

#include <QFileInfo>
#include <QMutex>
#include <QSet>
#include <QStringList>

#include <cmath>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace Korvane {

namespace {

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

// Opening the output truncates it: were it one of the files the project
// reads, the user's original would be destroyed before a frame is read.
bool checkOutput(const ProjectDocument& doc, const AVTaskOutputParam& out, QString* error)
{
    if (out.outputPath.isEmpty()) {
        *error = QStringLiteral("no output path given");
        return false;
    }
    QStringList inputs{doc.coverPath};
    for (const MediaClip& clip : doc.mainClips + doc.audioClips) {
        inputs << clip.filePath;
        for (const SubtitleEntry& subtitle : clip.subtitles) {
            inputs << subtitle.filePath;
        }
    }
    for (const ImageClip& clip : doc.imageClips) {
        inputs << clip.filePath;
    }
    if (!inputThatIs(inputs, out.outputPath).isEmpty()) {
        *error =
            QStringLiteral("the output \"%1\" is one of the inputs, refused").arg(out.outputPath);
        return false;
    }
    return true;
}

void noteMissingEffects(const MediaClip& clip)
{
    for (const VideoFilterEntry& filter : clip.videoFilters) {
        if (!filter.dirPath.isEmpty()) {
            logRenderNoteOnce(QStringLiteral("effect folder \"%1\" is not available here; "
                                             "rendering without it")
                                  .arg(filter.dirPath));
        } else if (filter.name == QLatin1String("AIMosaic") ||
                   filter.name == QLatin1String("AIAutoReframe")) {
            logRenderNoteOnce(QStringLiteral("%1 result \"%2\" is not available here; "
                                             "rendering without it")
                                  .arg(filter.name, filter.path));
        }
    }
}

// The picture of a cover clip: the document's cover, else the file's
// attached picture, else black.
bool planCoverPicture(const ProjectDocument& doc, MediaSource* source, MainClipPlan* clip,
                      QString* error)
{
    if (!doc.coverPath.isEmpty()) {
        clip->still = loadStillPicture(doc.coverPath, error);
    } else {
        clip->still = source->attachedPicture(error);
        if (!clip->still && error->isEmpty()) {
            clip->still = blackPicture(doc.canvas());
        }
    }
    if (!clip->still) {
        return false;
    }
    clip->hasVideo = true;
    clip->picture.width = clip->still->width;
    clip->picture.height = clip->still->height;
    clip->picture.still = true;
    clip->video.width = clip->still->width;
    clip->video.height = clip->still->height;
    clip->video.pixelFormat = static_cast<AVPixelFormat>(clip->still->format);
    clip->video.timeBase = AVRational{1, 1000};
    return true;
}

// How near a range's end must come to a length the file announces to be
// read as "to the end of the file": the builder writes a probed length in
// whole milliseconds. A cut a frame before it stays a cut.
constexpr qint64 kFileEndToleranceMs = 5;

bool reachesFileEnd(const MediaClip& clip, const MediaSource& source)
{
    const qint64 end = clip.rangeBeginMs + clip.rangeLengthMs;
    const QList<qint64> lengths = source.announcedLengthsMs();
    bool beyondAll = true;
    for (const qint64 length : lengths) {
        if (std::abs(end - length) <= kFileEndToleranceMs) {
            return true;
        }
        beyondAll = beyondAll && end > length;
    }
    return beyondAll;
}

bool planMainClips(const ProjectDocument& doc, RenderPlan* plan, QString* error)
{
    for (const MediaClip& clip : doc.mainClips) {
        MainClipPlan main;
        main.clip = clip;
        const bool cover = clip.kind == QLatin1String("audio_with_cover");
        const bool withAudio = plan->wantAudio && clip.kind != QLatin1String("video_only");
        if (!QFileInfo(clip.filePath).isFile()) {
            *error = QStringLiteral("media file not found: \"%1\"").arg(clip.filePath);
            return false;
        }
        auto source = MediaSource::open(clip.filePath, plan->wantVideo && !cover, withAudio,
                                        clip.fileAudioStreamIndex, error);
        if (!source) {
            return false;
        }
        main.clip.toFileEnd = reachesFileEnd(clip, *source);
        if (plan->wantVideo && cover) {
            if (!planCoverPicture(doc, source.get(), &main, error)) {
                return false;
            }
        } else if (plan->wantVideo) {
            if (!source->hasVideo()) {
                *error = QStringLiteral("no decodable video stream in \"%1\"").arg(clip.filePath);
                return false;
            }
            main.hasVideo = true;
            main.video = source->video();
            main.picture.width = main.video.width;
            main.picture.height = main.video.height;
            main.picture.sampleAspect =
                main.video.sampleAspect.num > 0 ? av_q2d(main.video.sampleAspect) : 1.0;
            main.picture.rotation = main.video.rotation;
            main.picture.interlaced = main.video.interlaced;
        }
        if (withAudio && source->hasAudio()) {
            main.hasAudio = true;
            main.audio = source->audio();
        }
        if (!plan->wantVideo && !withAudio) {
            continue;
        }
        noteMissingEffects(clip);
        plan->mains.append(main);
    }
    if (plan->mains.isEmpty()) {
        plan->wantVideo = false;
    }
    return true;
}

bool planAudioClips(const ProjectDocument& doc, RenderPlan* plan, QString* error)
{
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
        AudioClipPlan extra{clip, source->audio()};
        extra.clip.toFileEnd = reachesFileEnd(clip, *source);
        plan->extras.append(extra);
    }
    bool anySound = !plan->extras.isEmpty();
    for (const MainClipPlan& main : std::as_const(plan->mains)) {
        anySound = anySound || main.hasAudio;
    }
    plan->wantAudio = anySound;
    return true;
}

// Picture subtitles cover the picture they were authored for: the video's
// display aspect when their plane is the video's coded size.
BitmapSubtitleLayer bitmapLayer(const QSize& plane, const MainClipPlan& main)
{
    BitmapSubtitleLayer layer;
    layer.plane = plane;
    double sampleAspect = 1.0;
    if (plane == QSize(main.video.width, main.video.height) && main.video.sampleAspect.num > 0) {
        sampleAspect = av_q2d(main.video.sampleAspect);
    }
    layer.displayAspect = plane.width() * sampleAspect / plane.height();
    return layer;
}

bool planSubtitles(const ProjectDocument& doc, RenderPlan* plan, QString* error)
{
    const MainClipPlan& main = plan->mains.first();
    const QSize videoSize =
        main.picture.still ? doc.canvas() : QSize(main.video.width, main.video.height);
    for (const SubtitleEntry& entry : main.clip.subtitles) {
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
        if (!info.isBitmap) {
            plan->subtitles.append({entry.filePath, info.ordinal, entry.offsetMs, main.clip.speed});
            continue;
        }
        auto track = BitmapSubtitleTrack::open(entry.filePath, entry.embeddedStreamIndex, videoSize,
                                               entry.offsetMs, main.clip.speed, error);
        if (!track) {
            return false;
        }
        plan->bitmapLayers.append(bitmapLayer(track->planeSize(), main));
        plan->bitmapTracks.push_back(std::move(track));
    }
    return true;
}

bool planPictures(const ProjectDocument& doc, RenderPlan* plan, QString* error)
{
    for (const ImageClip& image : doc.imageClips) {
        auto frame = loadStillPicture(image.filePath, error);
        if (!frame) {
            *error = QStringLiteral("watermark: %1").arg(*error);
            return false;
        }
        plan->images.append(frame);
    }
    return planSubtitles(doc, plan, error);
}

// The picture whose colour the output takes: the first clip that plays one
// from its file. Null when only still pictures play.
const VideoStreamFacts* firstPicture(const RenderPlan& plan)
{
    for (const MainClipPlan& main : plan.mains) {
        if (main.hasVideo && !main.picture.still) {
            return &main.video;
        }
    }
    return nullptr;
}

// 4:2:0 in 8 bits, the format every player takes; an HEVC output of a deeper
// picture keeps 10 bits, and with them an HDR picture stays HDR.
AVPixelFormat choosePixelFormat(const RenderPlan& plan)
{
    const AVPixelFormat* formats = plan.videoCodec->pix_fmts;
    if (!formats) {
        return AV_PIX_FMT_YUV420P;
    }
    const VideoStreamFacts* picture = firstPicture(plan);
    const AVPixFmtDescriptor* descriptor =
        picture ? av_pix_fmt_desc_get(picture->pixelFormat) : nullptr;
    const bool deep =
        plan.videoCodec->id == AV_CODEC_ID_HEVC && descriptor && descriptor->comp[0].depth > 8;
    AVPixelFormat chosen = formats[0];
    for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f) {
        if (*f == AV_PIX_FMT_YUV420P10LE && deep) {
            return *f;
        }
        if (*f == AV_PIX_FMT_YUV420P) {
            chosen = *f;
        }
    }
    return chosen;
}

// The output states the colour of its first picture; every HDR clip going
// into fewer bits is tone-mapped first.
void planColour(RenderPlan* plan)
{
    for (MainClipPlan& main : plan->mains) {
        if (main.hasVideo && !main.picture.still) {
            main.picture.toneMap = toneMapChain(main.video, plan->pixelFormat);
        }
    }
    if (const VideoStreamFacts* picture = firstPicture(*plan)) {
        plan->colour = outputColour(*picture, plan->pixelFormat);
    }
}

const AVCodec* chooseEncoder(const QString& name, AVCodecID containerDefault, AVMediaType type,
                             const QString& asked, QString* error)
{
    const AVCodec* codec =
        name.isEmpty() ? avcodec_find_encoder(containerDefault) : findEncoder(name);
    const QString kind =
        type == AVMEDIA_TYPE_VIDEO ? QStringLiteral("video") : QStringLiteral("audio");
    if (!codec) {
        *error = QStringLiteral("unknown %1 codec \"%2\"").arg(kind, asked);
        return nullptr;
    }
    if (codec->type != type) {
        *error =
            QStringLiteral("\"%1\" is not %2 %3 codec")
                .arg(asked, type == AVMEDIA_TYPE_AUDIO ? QStringLiteral("an") : QStringLiteral("a"),
                     kind);
        return nullptr;
    }
    return codec;
}

bool chooseEncoders(const ProjectDocument& doc, const AVTaskOutputParam& out,
                    const AVOutputFormat* format, RenderPlan* plan, QString* error)
{
    const QSize canvas = doc.canvas();
    plan->outputSize = out.video.width >= 1 && out.video.height >= 1
                           ? QSize(qMax(2, out.video.width & ~1), qMax(2, out.video.height & ~1))
                           : canvas;
    plan->fps = out.video.frameRate > 0.0 ? out.video.frameRate : doc.fps;
    if (plan->wantVideo) {
        plan->videoCodec = chooseEncoder(videoEncoderName(out.video.codecName), format->video_codec,
                                         AVMEDIA_TYPE_VIDEO, out.video.codecName, error);
        if (!plan->videoCodec) {
            return false;
        }
        plan->pixelFormat = choosePixelFormat(*plan);
    }
    if (plan->wantAudio) {
        plan->audioCodec = chooseEncoder(audioEncoderName(out.audio.codecName), format->audio_codec,
                                         AVMEDIA_TYPE_AUDIO, out.audio.codecName, error);
        if (!plan->audioCodec) {
            return false;
        }
        int rate = out.audio.sampleRate >= 1 ? out.audio.sampleRate : 48000;
        if (const int* rates = plan->audioCodec->supported_samplerates) {
            int best = rates[0];
            for (const int* r = rates; *r; ++r) {
                if (std::abs(*r - rate) < std::abs(best - rate)) {
                    best = *r;
                }
            }
            rate = best;
        }
        plan->sampleRate = rate;
        plan->sampleFormat =
            plan->audioCodec->sample_fmts ? plan->audioCodec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        av_channel_layout_uninit(&plan->channelLayout);
        av_channel_layout_default(&plan->channelLayout,
                                  out.audio.channels >= 1 ? out.audio.channels : 2);
    }
    return true;
}

} // namespace

RenderPlan::~RenderPlan()
{
    av_channel_layout_uninit(&channelLayout);
}

void logRenderNoteOnce(const QString& text)
{
    static QMutex mutex;
    static QSet<QString> seen;
    {
        QMutexLocker lock(&mutex);
        if (seen.contains(text)) {
            return;
        }
        seen.insert(text);
    }
    Korvane::Record("Korvane::ProjectRenderer::run", __LINE__, "KorvaneDec/NLEditor/RenderPlan",
                    nullptr, 0)
        << text;
}

bool makeRenderPlan(const ProjectDocument& doc, const AVTaskOutputParam& out, RenderPlan* plan,
                    QString* error)
{
    if (!checkOutput(doc, out, error)) {
        return false;
    }
    plan->muxer = resolveMuxer(out.format, out.outputPath);
    if (plan->muxer.isEmpty()) {
        *error =
            QStringLiteral("unknown container \"%1\" for \"%2\"").arg(out.format, out.outputPath);
        return false;
    }
    const AVOutputFormat* format =
        av_guess_format(plan->muxer.toLatin1().constData(), nullptr, nullptr);
    plan->durationMs = doc.durationMs();
    if (plan->durationMs <= 0.0) {
        *error = QStringLiteral("the project has nothing to play (duration 0)");
        return false;
    }
    plan->wantVideo = !doc.videoDisabled && !doc.mainClips.isEmpty() &&
                      !isAudioOnlyMuxer(plan->muxer) && format->video_codec != AV_CODEC_ID_NONE;
    plan->wantAudio = !doc.audioDisabled && format->audio_codec != AV_CODEC_ID_NONE;

    if (!planMainClips(doc, plan, error) ||
        (plan->wantAudio && !planAudioClips(doc, plan, error))) {
        return false;
    }
    if (!plan->wantVideo && !plan->wantAudio) {
        *error = QStringLiteral("no decodable stream to render");
        return false;
    }
    if (plan->wantVideo && !planPictures(doc, plan, error)) {
        return false;
    }
    if (!doc.coverPath.isEmpty()) {
        plan->cover = readEncodedPicture(doc.coverPath, error);
        if (plan->cover.codec == AV_CODEC_ID_NONE) {
            return false;
        }
        error->clear();
    }
    if (!chooseEncoders(doc, out, format, plan, error)) {
        return false;
    }
    if (plan->wantVideo) {
        planColour(plan);
    }
    return true;
}

} // namespace Korvane
