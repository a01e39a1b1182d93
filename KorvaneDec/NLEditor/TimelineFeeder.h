#pragma once

#include "Adapter/AudioFrameConverter.h"
#include "Adapter/MediaSource.h"
#include "Adapter/VideoFrameConverter.h"
#include "NLEditor/RenderFilterGraphs.h"
#include "NLEditor/RenderPlan.h"

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
    bool endMainVideo(const QString& videoLabel, QString* error);
    bool pushVideo(const QSharedPointer<AVFrame>& frame, QString* error);
    bool pushAudio(AVFilterContext* source, AudioFrameConverter* converter,
                   const QSharedPointer<AVFrame>& frame, QString* error);
    bool pushPicture(AVFilterContext* source, const QSharedPointer<AVFrame>& picture, qint64 pts,
                     QString* error);
    bool endSource(AVFilterContext* source, QString* error);

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
    qint64 mStillIndex = 0;
    // The main video's last pts and the step to it, in its stream's time
    // base: its end is one frame after its last frame.
    qint64 mVideoLastPts = AV_NOPTS_VALUE;
    qint64 mVideoStep = 0;

    std::vector<ExtraState> mExtras;
    std::vector<SubtitleState> mSubtitles;
};

} // namespace Korvane
