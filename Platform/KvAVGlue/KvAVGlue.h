#pragma once

#include "KvAVGlue/KvAVGlueExport.h"

#include <QSharedPointer>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

// Shared-pointer owners for FFmpeg objects. Each maker takes ownership of the
// object it is given (or allocates one) and frees it with FFmpeg's own
// release function when the last reference goes. A maker given null returns a
// null pointer; an allocating maker returns null when FFmpeg's allocation
// fails.
namespace Korvane {

// Owns a format context. The deleter closes the input when one was opened
// (avformat_close_input), else frees the bare context. A custom AVIOContext
// (AVFMT_FLAG_CUSTOM_IO) is not freed by it: own that with makeAVIOContextPtr
// and release it after the format context.
// Note: avformat_open_input frees the context itself when it fails, so wrap
// the context only after a successful open.
KVAVGLUE_EXPORT QSharedPointer<AVFormatContext> makeAVFormatContextPtr(AVFormatContext* context);

// Owns a custom I/O context and its buffer.
KVAVGLUE_EXPORT QSharedPointer<AVIOContext> makeAVIOContextPtr(AVIOContext* context);

// av_packet_alloc / av_packet_free.
KVAVGLUE_EXPORT QSharedPointer<AVPacket> makeAVPacketPtr();
// Takes over a packet made with av_packet_alloc.
KVAVGLUE_EXPORT QSharedPointer<AVPacket> makeAVPacketPtr(AVPacket* packet);

// av_frame_alloc / av_frame_free.
KVAVGLUE_EXPORT QSharedPointer<AVFrame> makeAVFramePtr();
KVAVGLUE_EXPORT QSharedPointer<AVFrame> makeAVFramePtr(AVFrame* frame);

// avcodec_alloc_context3 / avcodec_free_context.
KVAVGLUE_EXPORT QSharedPointer<AVCodecContext> makeAVCodecContextPtr(const AVCodec* codec);

// A zeroed subtitle for avcodec_decode_subtitle2 / avcodec_encode_subtitle;
// the deleter frees its rectangles (avsubtitle_free) and the record.
KVAVGLUE_EXPORT QSharedPointer<AVSubtitle> makeAVSubtitlePtr();

// avfilter_graph_alloc / avfilter_graph_free.
KVAVGLUE_EXPORT QSharedPointer<AVFilterGraph> makeAVFilterGraphPtr();

// Takes over a filter in/out list (avfilter_inout_free).
KVAVGLUE_EXPORT QSharedPointer<AVFilterInOut> makeAVFilterInOutPtr(AVFilterInOut* inOut);

// sws_freeContext.
KVAVGLUE_EXPORT QSharedPointer<SwsContext> makeSwsContextPtr(SwsContext* context);

// swr_free.
KVAVGLUE_EXPORT QSharedPointer<SwrContext> makeSwrContextPtr(SwrContext* context);

// av_audio_fifo_alloc / av_audio_fifo_free.
KVAVGLUE_EXPORT QSharedPointer<AVAudioFifo> makeAVAudioFifoPtr(AVSampleFormat format, int channels,
                                                               int initialSamples);

} // namespace Korvane
