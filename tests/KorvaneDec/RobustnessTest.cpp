// Every input we have, good or bad, through every probing path: nothing may
// crash, leak or hang (run under AddressSanitizer with KORVANE_SANITIZE).
#include "KorvaneDec/DemuxerFactory.h"
#include "KorvaneDec/FFDemuxer.h"

#include "ProbeMedia.h"
#include "TestMedia.h"

#include <QDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QStringList allInputs()
{
    QStringList paths{ProbeMedia::h264("mp4"),
                      ProbeMedia::h264("mkv"),
                      ProbeMedia::h264("avi"),
                      ProbeMedia::h264("flv"),
                      ProbeMedia::h264("ts"),
                      ProbeMedia::hevc("mkv"),
                      ProbeMedia::rotatedH264(90),
                      ProbeMedia::anamorphicH264(),
                      ProbeMedia::tenBit("hevc"),
                      ProbeMedia::mp3WithCover(),
                      ProbeMedia::wmv(2),
                      ProbeMedia::concatenatedVob(1),
                      ProbeMedia::truncatedMp4(),
                      ProbeMedia::emptyFile(),
                      ProbeMedia::randomBytes("vob"),
                      ProbeMedia::hiddenProgramStream("vob"),
                      ProbeMedia::unusualName(),
                      TestMedia::dir(),
                      ":/probe/clip.mp4",
                      ":/probe/none.vob"};
    const QString corpus = TestMedia::sharedMediaDir();
    if (!corpus.isEmpty()) {
        for (const QString& name : QDir(corpus).entryList(QDir::Files, QDir::Name)) {
            paths << corpus + "/" + name;
        }
    }
    return paths;
}

void exercise(FFDemuxer& demuxer, const QString& path)
{
    if (!demuxer.open(path)) {
        EXPECT_FALSE(demuxer.formatContext());
        EXPECT_FALSE(demuxer.readPacket());
        return;
    }
    const auto description = demuxer.mediaInfo();
    ASSERT_TRUE(description);
    const qint64 duration = demuxer.durationMs();
    EXPECT_GE(duration, 0);
    for (const auto& stream : description->streams) {
        demuxer.selectStream(stream->streamIndex);
        for (const qint64 ms : {duration / 2, qint64(0), duration + 1000}) {
            demuxer.seek(ms, stream->streamIndex);
            for (int i = 0; i < 5 && demuxer.readPacket(); ++i) {
            }
        }
    }
    demuxer.seekByFilePos(0);
    int packets = 0;
    while (demuxer.readPacket() && packets < 100000) {
        ++packets;
    }
    demuxer.close();
    EXPECT_FALSE(demuxer.formatContext());
}

TEST(Robustness, EveryInputThroughBothDemuxers)
{
    for (const QString& path : allInputs()) {
        SCOPED_TRACE(path.toStdString());
        ASSERT_FALSE(path.isEmpty());
        FFDemuxer plain;
        exercise(plain, path);
        const QSharedPointer<FFDemuxer> vob = createDemuxer(path, true);
        exercise(*vob, path);
    }
}

} // namespace
