#pragma once

#include "NLEditor/NLEditorExport.h"

#include <QString>

struct AVCodec;

namespace Korvane {

// How the output record's names become FFmpeg muxers and encoders.

// The muxer name the conversion path uses for a container or preset name
// (compared in lower case); empty for a name it does not know. Some of its
// values are preset names and not FFmpeg muxers.
KORVANENLEDITOR_EXPORT QString muxerForFormat(const QString& format);

// The FFmpeg muxer to write with: muxerForFormat(format) when FFmpeg has a
// muxer of that name, else the muxer FFmpeg picks for the output file's
// extension; empty when neither gives one.
KORVANENLEDITOR_EXPORT QString resolveMuxer(const QString& format, const QString& outputPath);

// True for the muxers of sound files (mp3, m4a, wav, flac, ...): they get no
// picture stream, only a cover picture where they hold one.
KORVANENLEDITOR_EXPORT bool isAudioOnlyMuxer(const QString& muxer);

// The constant-quality value used when no video bit rate is given: 23 for
// h264, else 28, lowered by up to 10 for output diagonals below the
// reference (2800 above a 2000-pixel diagonal, else 2000); never below 1.
KORVANENLEDITOR_EXPORT int qualityForOutput(const QString& videoCodec, int width, int height);

// Encoder names: h264 -> libx264, h265/hevc -> libx265 (software encoders),
// pcm -> pcm_s16le, adpcm -> adpcm_ima_wav; any other name is given to FFmpeg
// as it is (lower case). Empty and "0" stay empty (no choice made).
KORVANENLEDITOR_EXPORT QString videoEncoderName(const QString& codec);
KORVANENLEDITOR_EXPORT QString audioEncoderName(const QString& codec);

// The encoder for a name: an encoder of that name, else the default encoder
// of the codec of that name (e.g. "mp3"); null when there is none.
KORVANENLEDITOR_EXPORT const AVCodec* findEncoder(const QString& name);

} // namespace Korvane
