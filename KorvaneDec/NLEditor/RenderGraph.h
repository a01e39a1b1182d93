#pragma once

#include "KorvaneDec/NLEditor/NLEditorExport.h"
#include "KorvaneDec/NLEditor/ProjectDocument.h"

#include <QSize>
#include <QString>
#include <QStringList>

namespace Korvane {

// Pure builders of the libavfilter graph text that renders a project. The
// renderer feeds decoded frames into sources labelled [v<i>] (main clip i's
// picture), [a<i>] (main clip i's sound), [w<j>] (image clip j, one frame),
// [x<k>] (audio clip k) and [s<k>] (picture subtitle layer k), and pulls the
// output pads [vout] and [aout].
// Source frames carry their pts from the start of their file; cutting,
// retiming and placing happen in the graph.

// The picture of a clip's source as decoded.
struct SourcePicture
{
    int width = 0;
    int height = 0;
    double sampleAspect = 1.0; // pixel width / pixel height
    int rotation = 0;          // display rotation of the file, degrees clockwise
    bool interlaced = false;
    bool still = false; // a picture repeated by the renderer: no cutting or retiming
    QString toneMap;    // the chain that brings an HDR picture to SDR first; empty: none
};

// What a main clip or audio clip plays; `hasAudio` false gives silence.
struct ClipAudio
{
    bool hasAudio = false;
};

// A subtitle stream to draw, resolved against its file.
struct SubtitleDraw
{
    QString path;
    int ordinal = 0; // among the file's subtitle streams
    qint64 offsetMs = 0;
    double speed = 1.0; // of the clip the subtitles belong to
};

// A picture-subtitle layer: RGBA pictures of `plane` size that cover the
// whole picture they belong to, shown fitted into the canvas at
// `displayAspect` (width/height), centred, as a player shows them.
struct BitmapSubtitleLayer
{
    QSize plane;
    double displayAspect = 0.0;
};

struct VideoGraphRequest
{
    QList<MediaClip> clips;        // main clips, timeline order
    QList<SourcePicture> pictures; // one per clip
    QList<ImageClip> images;       // in z-order
    QList<SubtitleDraw> subtitles;
    QList<BitmapSubtitleLayer> bitmapSubtitles; // over the images, under the text subtitles
    QSize canvas;
    QSize output; // the encoded size
    double fps = 25.0;
    QString pixelFormat = QStringLiteral("yuv420p");
};

struct AudioGraphRequest
{
    QList<MediaClip> mainClips;
    QList<ClipAudio> mainAudio;  // one per main clip
    QList<MediaClip> audioClips; // each has a source [x<k>]
    double durationMs = 0.0;
    int sampleRate = 48000;
    QString sampleFormat = QStringLiteral("fltp");
    QString channelLayout = QStringLiteral("stereo");
};

// The size a picture of `aspect` (width/height) takes when fitted into `box`
// keeping its aspect, centred: each side even and at least 2.
KORVANENLEDITOR_EXPORT QSize fitInto(double aspect, const QSize& box);

// The chain (one input, one output, no labels outside) that turns main
// clip `clip`'s decoded picture into a canvas-sized picture: cut and
// retime, tone mapping, display rotation, crop, flips, anaglyph, colour filters, fit into
// the clip's background box, rotation and scale about the centre, placing
// on the box, and the box scaled to the canvas. `labelPrefix` names internal
// pads.
KORVANENLEDITOR_EXPORT QString mainClipVideoChain(const MediaClip& clip,
                                                  const SourcePicture& picture, const QSize& canvas,
                                                  const QString& labelPrefix);

// The chain for an image clip: scale, flips, rotation, opacity.
KORVANENLEDITOR_EXPORT QString imageClipChain(const ImageClip& image);

// The overlay of an image over the picture: centred on its centre point, shown
// from its timeline position for its range played at its speed (always when
// the range is 0).
KORVANENLEDITOR_EXPORT QString imageOverlayText(const ImageClip& image);

// The chain that cuts, retimes and filters one clip's sound; `place` also
// delays it to its timeline position (for clips mixed over the main track).
KORVANENLEDITOR_EXPORT QString clipAudioChain(const MediaClip& clip, bool place);

// atempo factors for a speed: atempo takes 0.5..100 per instance.
KORVANENLEDITOR_EXPORT QStringList tempoFilters(double speed);

// The whole video graph, ending in [vout].
KORVANENLEDITOR_EXPORT QString buildVideoGraph(const VideoGraphRequest& request);

// The whole audio graph, ending in [aout]; empty when nothing plays sound.
KORVANENLEDITOR_EXPORT QString buildAudioGraph(const AudioGraphRequest& request);

} // namespace Korvane
