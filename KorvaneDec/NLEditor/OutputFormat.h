#pragma once

#include "KorvaneDec/NLEditor/NLEditorExport.h"

#include <QString>

struct AVCodec;

namespace Korvane {

// How the output record's names become FFmpeg muxers and encoders.

// The FFmpeg muxer to write with: muxerName(format) (Common/OutputRules.h) when FFmpeg has a
// muxer of that name, else the muxer FFmpeg picks for the output file's
// extension; empty when neither gives one.
KORVANENLEDITOR_EXPORT QString resolveMuxer(const QString& format, const QString& outputPath);

// True for the muxers of sound files (mp3, m4a, wav, flac, ...): they get no
// picture stream, only a cover picture where they hold one.
KORVANENLEDITOR_EXPORT bool isAudioOnlyMuxer(const QString& muxer);

// Encoder names: h264 -> libx264, h265/hevc -> libx265 (software encoders),
// pcm -> pcm_s16le, adpcm -> adpcm_ima_wav; any other name is given to FFmpeg
// as it is (lower case). Empty and "0" stay empty (no choice made).
KORVANENLEDITOR_EXPORT QString videoEncoderName(const QString& codec);
KORVANENLEDITOR_EXPORT QString audioEncoderName(const QString& codec);

// The encoder for a name: an encoder of that name, else the default encoder
// of the codec of that name (e.g. "mp3"); null when there is none.
KORVANENLEDITOR_EXPORT const AVCodec* findEncoder(const QString& name);

} // namespace Korvane
