#pragma once

#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneDec/KorvaneDecExport.h"
#include "KorvaneDec/MediaDescription.h"
#include "KorvaneDec/VobTitle.h"

namespace Korvane {

// FFDemuxer for DVD program streams (.vob), whose timestamps start again at
// every chapter. Duration, seeking and packet timestamps follow the title's
// continuous time line, built by VobParser from the whole file.
class KORVANEDEC_EXPORT FFVobDemuxer : public FFDemuxer
{
    Q_OBJECT
public:
    FFVobDemuxer();
    ~FFVobDemuxer() override;

    // Opens as FFDemuxer does and reads the title, whatever the result of the
    // open; returns the open's result.
    bool open(const QString& path) override;
    void close() override;
    // Seeks by bytes to about 500 ms before `ms` on the title's time line,
    // through the chapter that holds it. `streamIndex` is not used.
    void seek(qint64 ms, qint32 streamIndex) override;
    // The next packet with its timestamps on the title's time line.
    QSharedPointer<AVPacket> readPacket() override;
    // The title's duration; the container's without a title.
    qint64 durationMs() override;

    QSharedPointer<const VobTitleInfo> titleInfo() const { return mTitle; }

private:
    QSharedPointer<const VobTitleInfo> mTitle;
    QSharedPointer<MediaDescription> mDescription;
    VobTimeLine mTimeLine;
};

} // namespace Korvane
