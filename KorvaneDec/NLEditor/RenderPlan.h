#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "KorvaneDec/Adapter/BitmapSubtitleTrack.h"
#include "KorvaneDec/Adapter/MediaSource.h"
#include "KorvaneDec/Adapter/StillPicture.h"
#include "KorvaneDec/NLEditor/OutputColour.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"
#include "KorvaneDec/NLEditor/RenderGraph.h"

#include <QList>
#include <QSharedPointer>
#include <QSize>
#include <QString>

#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

// What the renderer decided before the first frame: the internal parts of
// ProjectRenderer share it; nothing here is exported.
namespace Korvane {

// One main-track clip as the renderer plays it.
struct MainClipPlan
{
    MediaClip clip;
    SourcePicture picture;
    VideoStreamFacts video;
    AudioStreamFacts audio;
    bool hasVideo = false;
    bool hasAudio = false;
    QSharedPointer<AVFrame> still; // the picture of a cover clip
};

// One clip of an audio track, mixed over the main track.
struct AudioClipPlan
{
    MediaClip clip;
    AudioStreamFacts audio;
};

struct RenderPlan
{
    RenderPlan() = default;
    ~RenderPlan();
    RenderPlan(const RenderPlan&) = delete;
    RenderPlan& operator=(const RenderPlan&) = delete;

    QString muxer;
    bool wantVideo = false;
    bool wantAudio = false;
    double durationMs = 0.0;
    QSize outputSize;
    double fps = 25.0;

    const AVCodec* videoCodec = nullptr;
    const AVCodec* audioCodec = nullptr;
    AVPixelFormat pixelFormat = AV_PIX_FMT_YUV420P;
    ColourTags colour; // what the output states: the first clip's picture's
    int sampleRate = 48000;
    AVSampleFormat sampleFormat = AV_SAMPLE_FMT_FLTP;
    AVChannelLayout channelLayout{};

    QList<MainClipPlan> mains;
    QList<AudioClipPlan> extras;
    QList<QSharedPointer<AVFrame>> images; // one per image clip of the document
    QList<SubtitleDraw> subtitles;         // text subtitles
    // Picture subtitles: the open tracks and how their layers are drawn.
    std::vector<std::unique_ptr<BitmapSubtitleTrack>> bitmapTracks;
    QList<BitmapSubtitleLayer> bitmapLayers;
    EncodedPicture cover; // codec AV_CODEC_ID_NONE without a cover
};

// Checks the project against the output record and opens what it reads:
// every clip's streams, the images, the cover, the subtitle streams; picks
// the container and the encoders. False with `error` saying why (a missing
// file with its path, no decodable stream, an unknown codec or container).
bool makeRenderPlan(const ProjectDocument& doc, const AVTaskOutputParam& out, RenderPlan* plan,
                    QString* error);

// Writes a note about something the renderer leaves out to the log, once
// per process for each text.
void logRenderNoteOnce(const QString& text);

} // namespace Korvane
