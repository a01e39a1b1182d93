#pragma once

#include "KorvaneDec/Adapter/AudioFrameConverter.h"
#include "KorvaneDec/Adapter/MediaSource.h"
#include "KorvaneDec/Adapter/VideoFrameConverter.h"
#include "KorvaneDec/NLEditor/RenderFilterGraphs.h"
#include "KorvaneDec/NLEditor/RenderPlan.h"

#include <QSharedPointer>
#include <QString>

#include <memory>
#include <vector>

namespace Korvane {

// The decoding end of a render: reads the clips' files in timeline order
// and pushes their frames into the graphs' sources, one frame per step from
// the input that lags most, so that no graph input runs far ahead of the
// others and memory stays flat however long the project is. Picture
// subtitles are kept one change ahead of the main track, which the overlay
// needs to know what to show.
class TimelineFeeder
{
public:
    TimelineFeeder(RenderPlan& plan, const RenderFilterGraphs& graphs);
    ~TimelineFeeder();
    TimelineFeeder(const TimelineFeeder&) = delete;
    TimelineFeeder& operator=(const TimelineFeeder&) = delete;

    // Pushes the image clips' single frames and ends their sources.
    bool start(QString* error);
    // Feeds one frame (or ends one source). False with `error` set on a
    // read, decode or filter failure; once every input has ended it does
    // nothing and ended() is true.
    bool step(QString* error);
    bool ended() const { return mEnded; }

private:
    struct ExtraState
    {
        std::unique_ptr<MediaSource> source;
        std::unique_ptr<AudioFrameConverter> converter;
        double posMs = 0.0;
        bool started = false;
        bool done = false;
    };
    struct SubtitleState
    {
        qint64 posMs = -1; // of the last change pushed
        bool showing = false;
        bool done = false;
    };

    double mainPosition() const;
    bool stepSubtitle(size_t k, double mainPos, QString* error);
    bool stepExtra(int k, QString* error);
    bool openNextMain(QString* error);
    bool stepMain(QString* error);
    bool endMain(const QString& videoLabel, const QString& audioLabel, QString* error);
    bool pushVideo(const QSharedPointer<AVFrame>& frame, QString* error);
    bool pushAudio(AVFilterContext* source, AudioFrameConverter* converter,
                   const QSharedPointer<AVFrame>& frame, QString* error);
    bool pushConverted(AVFilterContext* source, const QSharedPointer<AVFrame>& frame,
                       QString* error);
    bool endAudio(AVFilterContext* source, AudioFrameConverter* converter, QString* error);
    bool pushPicture(AVFilterContext* source, const QSharedPointer<AVFrame>& picture, qint64 pts,
                     QString* error);
    // Ends a source; `endPts` (in its time base) says where its last frame
    // ends, when known.
    bool endSource(AVFilterContext* source, QString* error, int64_t endPts = AV_NOPTS_VALUE);

    RenderPlan& mPlan;
    const RenderFilterGraphs& mGraphs;
    bool mEnded = false;

    // The main track.
    int mCurrent = -1;
    std::unique_ptr<MediaSource> mSource;
    std::unique_ptr<VideoFrameConverter> mVideoConverter;
    std::unique_ptr<AudioFrameConverter> mAudioConverter;
    bool mVideoOpen = false;
    bool mAudioOpen = false;
    double mVideoPosMs = 0.0;
    double mAudioPosMs = 0.0;
    double mAudioEndMs = 0.0;              // timeline time where the sound so far ends
    int64_t mVideoEndPts = AV_NOPTS_VALUE; // where the pictures pushed end
    qint64 mStillIndex = 0;

    std::vector<ExtraState> mExtras;
    std::vector<SubtitleState> mSubtitles;
};

} // namespace Korvane
