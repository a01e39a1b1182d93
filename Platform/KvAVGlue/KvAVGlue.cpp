#include "KvAVGlue/KvAVGlue.h"

namespace Korvane {

QSharedPointer<AVFormatContext> makeAVFormatContextPtr(AVFormatContext* context)
{
    if (!context) {
        return {};
    }
    return QSharedPointer<AVFormatContext>(context, [](AVFormatContext* c) {
        if (c->iformat) {
            avformat_close_input(&c);
        } else {
            avformat_free_context(c);
        }
    });
}

QSharedPointer<AVIOContext> makeAVIOContextPtr(AVIOContext* context)
{
    if (!context) {
        return {};
    }
    return QSharedPointer<AVIOContext>(context, [](AVIOContext* c) {
        // The buffer may have been replaced by FFmpeg since allocation; the
        // context's current one is the one to free.
        av_freep(&c->buffer);
        avio_context_free(&c);
    });
}

QSharedPointer<AVPacket> makeAVPacketPtr(AVPacket* packet)
{
    if (!packet) {
        return {};
    }
    return QSharedPointer<AVPacket>(packet, [](AVPacket* p) { av_packet_free(&p); });
}

QSharedPointer<AVPacket> makeAVPacketPtr()
{
    return makeAVPacketPtr(av_packet_alloc());
}

QSharedPointer<AVFrame> makeAVFramePtr(AVFrame* frame)
{
    if (!frame) {
        return {};
    }
    return QSharedPointer<AVFrame>(frame, [](AVFrame* f) { av_frame_free(&f); });
}

QSharedPointer<AVFrame> makeAVFramePtr()
{
    return makeAVFramePtr(av_frame_alloc());
}

QSharedPointer<AVCodecContext> makeAVCodecContextPtr(const AVCodec* codec)
{
    AVCodecContext* context = avcodec_alloc_context3(codec);
    if (!context) {
        return {};
    }
    return QSharedPointer<AVCodecContext>(context,
                                          [](AVCodecContext* c) { avcodec_free_context(&c); });
}

QSharedPointer<AVSubtitle> makeAVSubtitlePtr()
{
    auto* subtitle = static_cast<AVSubtitle*>(av_mallocz(sizeof(AVSubtitle)));
    if (!subtitle) {
        return {};
    }
    return QSharedPointer<AVSubtitle>(subtitle, [](AVSubtitle* s) {
        avsubtitle_free(s);
        av_free(s);
    });
}

QSharedPointer<AVFilterGraph> makeAVFilterGraphPtr()
{
    AVFilterGraph* graph = avfilter_graph_alloc();
    if (!graph) {
        return {};
    }
    return QSharedPointer<AVFilterGraph>(graph, [](AVFilterGraph* g) { avfilter_graph_free(&g); });
}

QSharedPointer<AVFilterInOut> makeAVFilterInOutPtr(AVFilterInOut* inOut)
{
    if (!inOut) {
        return {};
    }
    return QSharedPointer<AVFilterInOut>(inOut,
                                         [](AVFilterInOut* io) { avfilter_inout_free(&io); });
}

QSharedPointer<SwsContext> makeSwsContextPtr(SwsContext* context)
{
    if (!context) {
        return {};
    }
    return QSharedPointer<SwsContext>(context, [](SwsContext* c) { sws_freeContext(c); });
}

QSharedPointer<SwrContext> makeSwrContextPtr(SwrContext* context)
{
    if (!context) {
        return {};
    }
    return QSharedPointer<SwrContext>(context, [](SwrContext* c) { swr_free(&c); });
}

QSharedPointer<AVAudioFifo> makeAVAudioFifoPtr(AVSampleFormat format, int channels,
                                               int initialSamples)
{
    AVAudioFifo* fifo = av_audio_fifo_alloc(format, channels, initialSamples);
    if (!fifo) {
        return {};
    }
    return QSharedPointer<AVAudioFifo>(fifo, av_audio_fifo_free);
}

} // namespace Korvane
