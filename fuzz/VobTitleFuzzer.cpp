// The chapter table of a DVD program stream is built from packet timestamps
// that a damaged or hostile file controls entirely: building it, and all the
// arithmetic that duration, seeking and the packet time line do on it, must
// stay defined for any values.
#include "KorvaneDec/MediaDescription.h"
#include "KorvaneDec/VobTitle.h"
#include "KorvaneDec/VobTitleBuilder.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/avutil.h>
}

#include <cstdint>
#include <cstring>

namespace {

class Reader
{
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    bool atEnd() const { return mOffset >= mSize; }
    template <typename T>
    T take()
    {
        T value{};
        const size_t n = std::min(sizeof(T), mSize - std::min(mOffset, mSize));
        std::memcpy(&value, mData + mOffset, n);
        mOffset += sizeof(T);
        return value;
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mOffset = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace Korvane;
    Reader in(data, size);

    // Two streams whose time bases come from the input too (0/0 included).
    MediaDescription description;
    for (qint32 index = 0; index < 2; ++index) {
        auto stream = QSharedPointer<StreamInfo>::create();
        stream->streamIndex = index;
        stream->mediaType = index == 0 ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
        stream->timeBase = AVRational{in.take<uint8_t>(), in.take<uint16_t>()};
        description.streams.append(stream);
    }

    VobTitleBuilder builder;
    int packets = 0;
    while (!in.atEnd() && packets++ < 256) {
        const qint32 streamIndex = in.take<uint8_t>() % 3;
        builder.addPacket(streamIndex, streamIndex == 0 ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO,
                          in.take<qint64>(), in.take<qint64>(), in.take<qint64>(),
                          in.take<qint32>());
    }
    const VobTitleInfo title = builder.finish();

    titleDurationMs(title, description);
    for (qint64 ms : {qint64(0), qint64(1000), qint64(-1), std::numeric_limits<qint64>::max()}) {
        findChapter(title, description, ms);
    }
    VobTimeLine timeLine;
    AVPacket* packet = av_packet_alloc();
    for (const VobChapter& chapter : title.chapters) {
        const AVRational base = chapterTimeBase(description, chapter.streamIndex);
        chapterLengthMs(chapter, base);
        chapterStartMs(chapter, base);
        bytesPerMs(chapter, base);
        packet->stream_index = chapter.streamIndex;
        packet->pos = chapter.headPosInFile;
        packet->pts = chapter.firstPtsInFile;
        packet->dts = chapter.firstDtsInFile;
        placeOnTitleLine(title, timeLine, *packet);
    }
    av_packet_free(&packet);
    return 0;
}
