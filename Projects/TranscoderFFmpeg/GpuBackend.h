#pragma once

#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "TranscoderFFmpeg/TranscoderFFmpegExport.h"

#include <QString>
#include <QStringList>

namespace Korvane {

// Builds the filter graph of one backend: makeQsvFilterCommand and its kin.
using FilterGraphMaker = QString (*)(const ConvertSource& source,
                                     const AVTaskOutputParam::Video& video,
                                     const QSharedPointer<MediaInfoV3>& info,
                                     const MediaInfoProbe& probe);

// One GPU family the ffmpeg path drives: how the job's GPU name picks it and
// what it adds to the command and to the operator's description. Texts are
// Latin-1; "" means none.
struct GpuBackend
{
    // What the GPU name contains (case-sensitive); also its name in texts.
    const char* vendor;
    // Written before -hwaccel when the GPU library wants the device made first.
    const char* deviceInit;
    const char* hwaccel;       // the value of -hwaccel
    const char* h264Decoder;   // the -c:v value for an "h264" input
    const char* hevcDecoder;   // the -c:v value for an "h265" input
    const char* encoderSuffix; // the encoder is the codec, '_' and this
    const char* h264Option;    // one more element after an h264 encoder
    // h264 with a bit rate also gets -minrate, -maxrate and -bufsize.
    bool h264RateBounds;
    FilterGraphMaker filterGraph;
    // A host creates its operator with rawCreateIntelFFmpegConverter (else
    // with the NVIDIA one; both build the same objects).
    bool intelFactory;

    // "h264_qsv" for "h264"; the operator names its encoder the same way.
    QString encoder(const QString& codec) const;
    // The -c:v element for an input codec; empty for a codec it does not decode.
    QString decoderElement(const QString& inputCodec) const;
    // Every element it writes as an option and its value (see isPairedElement).
    QStringList pairedElements() const;
};

// The backend a GPU name picks: the first whose vendor it contains, Intel
// before NVIDIA; null for any other name (software filters, plain encoders).
TRANSCODERFFMPEG_EXPORT const GpuBackend* gpuBackendFor(const QString& gpuName);

// Inside the plug-in only: every backend, in the order names are matched.
QList<const GpuBackend*> gpuBackends();

// False when an h264 encoding with a bit rate leaves out the rate bounds.
// Deliberately every backend whose vendor the name contains counts, not only
// the one gpuBackendFor picks.
bool h264RateBounds(const QString& gpuName);

} // namespace Korvane
