#include "NLEditor/TimelineFeeder.h"

#include "KvAVGlue/FFmpegLog.h"
#include "KvAVGlue/KvAVGlue.h"

#include <cmath>
#include <limits>

extern "C" {
#include <libavfilter/buffersrc.h>
}

namespace Korvane {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

std::unique_ptr<AudioFrameConverter> makeAudioConverter(const AudioStreamFacts& facts)
{
    AVChannelLayout layout = announcedLayout(facts);
    auto converter =
        std::make_unique<AudioFrameConverter>(facts.sampleRate, facts.sampleFormat, layout);
    av_channel_layout_uninit(&layout);
    return converter;
}

// Where a file time of a clip lands on the timeline.
double timelineMs(const MediaClip& clip, double fileSeconds)
{
    return clip.timelinePosMs + (fileSeconds * 1000.0 - clip.rangeBeginMs) / clip.speed;
}

} // namespace

TimelineFeeder::TimelineFeeder(RenderPlan& plan, const RenderFilterGraphs& graphs)
    : mPlan(plan), mGraphs(graphs), mExtras(plan.extras.size()),
      mSubtitles(plan.bitmapTracks.size())
{
    for (size_t k = 0; k < mExtras.size(); ++k) {
        mExtras[k].posMs = mPlan.extras[static_cast<int>(k)].clip.timelinePosMs;
    }
}

TimelineFeeder::~TimelineFeeder() = default;

bool TimelineFeeder::start(QString* error)
{
    for (int j = 0; j < mPlan.images.size(); ++j) {
        AVFilterContext* source = mGraphs.source(QStringLiteral("w%1").arg(j));
        if (!pushPicture(source, mPlan.images[j], 0, error) || !endSource(source, error)) {
            return false;
        }
    }
    return true;
}

double TimelineFeeder::mainPosition() const
{
    if (mCurrent >= mPlan.mains.size()) {
        return kNever;
    }
    if (mCurrent < 0) {
        return 0.0;
    }
    if (!mVideoOpen && !mAudioOpen) {
        return mPlan.mains[mCurrent].clip.timelinePosMs;
    }
    return qMin(mVideoOpen ? mVideoPosMs : kNever, mAudioOpen ? mAudioPosMs : kNever);
}

bool TimelineFeeder::step(QString* error)
{
    const double mainPos = mainPosition();
    for (size_t k = 0; k < mSubtitles.size(); ++k) {
        if (!mSubtitles[k].done && (std::isinf(mainPos) || mSubtitles[k].posMs <= mainPos)) {
            return stepSubtitle(k, mainPos, error);
        }
    }
    int extraIndex = -1;
    double extraPos = kNever;
    for (size_t k = 0; k < mExtras.size(); ++k) {
        if (!mExtras[k].done && mExtras[k].posMs < extraPos) {
            extraPos = mExtras[k].posMs;
            extraIndex = static_cast<int>(k);
        }
    }
    if (std::isinf(mainPos) && extraIndex < 0) {
        mEnded = true;
        return true;
    }
    if (extraIndex >= 0 && extraPos < mainPos) {
        return stepExtra(extraIndex, error);
    }
    if (mCurrent < 0 || (!mVideoOpen && !mAudioOpen)) {
        return openNextMain(error);
    }
    return stepMain(error);
}

bool TimelineFeeder::stepSubtitle(size_t k, double mainPos, QString* error)
{
    SubtitleState& state = mSubtitles[k];
    BitmapSubtitleTrack* track = mPlan.bitmapTracks[k].get();
    AVFilterContext* source = mGraphs.source(QStringLiteral("s%1").arg(k));
    SubtitleChange change;
    if (!std::isinf(mainPos) && track->next(&change, error)) {
        state.posMs = change.ms;
        state.showing = change.showsCue;
        return pushPicture(source, change.picture, change.ms, error);
    }
    if (!error->isEmpty()) {
        return false;
    }
    state.done = true;
    // A last cue without an end stays to the end of the timeline. The layer
    // always ends transparent: the overlay passes the picture through after.
    if (state.showing) {
        state.showing = false;
        const qint64 end =
            std::max<qint64>(state.posMs + 1, static_cast<qint64>(std::ceil(mPlan.durationMs)));
        if (!pushPicture(source, track->clearPicture(), end, error)) {
            return false;
        }
    }
    return endSource(source, error);
}

bool TimelineFeeder::stepExtra(int k, QString* error)
{
    ExtraState& state = mExtras[k];
    const AudioClipPlan& extra = mPlan.extras[k];
    AVFilterContext* source = mGraphs.source(QStringLiteral("x%1").arg(k));
    if (!state.started) {
        state.started = true;
        state.source = MediaSource::open(extra.clip.filePath, false, true,
                                         extra.clip.fileAudioStreamIndex, error);
        if (!state.source) {
            return false;
        }
        state.converter = makeAudioConverter(extra.audio);
        if (extra.clip.rangeBeginMs > 0 && !state.source->seek(extra.clip.rangeBeginMs, error)) {
            return false;
        }
    }
    DecodedFrame decoded;
    const double endSeconds = (extra.clip.rangeBeginMs + extra.clip.rangeLengthMs) / 1000.0;
    if (!state.source->next(&decoded, error) || decoded.seconds >= endSeconds) {
        if (!error->isEmpty()) {
            return false;
        }
        state.done = true;
        state.source.reset();
        return endSource(source, error);
    }
    state.posMs = timelineMs(extra.clip, decoded.seconds);
    return pushAudio(source, state.converter.get(), decoded.frame, error);
}

bool TimelineFeeder::openNextMain(QString* error)
{
    ++mCurrent;
    if (mCurrent >= mPlan.mains.size()) {
        return true;
    }
    const MainClipPlan& main = mPlan.mains[mCurrent];
    mSource.reset();
    mStillIndex = 0;
    mVideoOpen = mPlan.wantVideo && main.hasVideo;
    mAudioOpen = mPlan.wantAudio && main.hasAudio;
    mVideoPosMs = mAudioPosMs = main.clip.timelinePosMs;
    mVideoLastPts = AV_NOPTS_VALUE;
    mVideoStep = 0;
    if ((mVideoOpen && !main.still) || mAudioOpen) {
        mSource = MediaSource::open(main.clip.filePath, mVideoOpen && !main.still, mAudioOpen,
                                    main.clip.fileAudioStreamIndex, error);
        if (!mSource) {
            return false;
        }
        if (main.clip.rangeBeginMs > 0 && !mSource->seek(main.clip.rangeBeginMs, error)) {
            return false;
        }
    }
    mVideoConverter = std::make_unique<VideoFrameConverter>(main.video.width, main.video.height,
                                                            main.video.pixelFormat);
    if (mAudioOpen) {
        mAudioConverter = makeAudioConverter(main.audio);
    }
    return true;
}

// The picture ends where its last frame's time is over, not where it
// starts: closed at the last pts, the graph's fps filter would drop that
// frame. Never past the clip's range, which the graph cuts at.
bool TimelineFeeder::endMainVideo(const QString& videoLabel, QString* error)
{
    mVideoOpen = false;
    const MainClipPlan& main = mPlan.mains[mCurrent];
    AVFilterContext* source = mGraphs.source(videoLabel);
    if (mVideoLastPts == AV_NOPTS_VALUE) {
        return endSource(source, error);
    }
    const AVRational timeBase = main.video.timeBase;
    qint64 step = mVideoStep;
    if (step <= 0 && main.video.frameRate.num > 0 && main.video.frameRate.den > 0) {
        step = av_rescale_q(1, av_inv_q(main.video.frameRate), timeBase);
    }
    const qint64 rangeEnd = av_rescale_q(main.clip.rangeBeginMs + main.clip.rangeLengthMs,
                                         AVRational{1, 1000}, timeBase);
    const qint64 end = qMax(mVideoLastPts, qMin(mVideoLastPts + step, rangeEnd));
    const int ret = av_buffersrc_close(source, end, 0);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("cannot end a filter source"), ret);
        return false;
    }
    return true;
}

bool TimelineFeeder::endMain(const QString& videoLabel, const QString& audioLabel, QString* error)
{
    if (mVideoOpen && !mPlan.mains[mCurrent].still && !endMainVideo(videoLabel, error)) {
        return false;
    }
    if (mAudioOpen) {
        mAudioOpen = false;
        return endSource(mGraphs.source(audioLabel), error);
    }
    return true;
}

bool TimelineFeeder::stepMain(QString* error)
{
    const MainClipPlan& main = mPlan.mains[mCurrent];
    const QString videoLabel = QStringLiteral("v%1").arg(mCurrent);
    const QString audioLabel = QStringLiteral("a%1").arg(mCurrent);
    const double endSeconds = (main.clip.rangeBeginMs + main.clip.rangeLengthMs) / 1000.0;

    // A cover clip repeats its picture at the output rate for its length.
    if (main.still && mVideoOpen && (!mAudioOpen || mVideoPosMs <= mAudioPosMs)) {
        const double ms = mStillIndex * 1000.0 / mPlan.fps;
        if (ms >= main.clip.timelineLengthMs()) {
            mVideoOpen = false;
            return endSource(mGraphs.source(videoLabel), error);
        }
        auto frame = makeAVFramePtr(av_frame_clone(main.still.data()));
        if (!frame) {
            *error = QStringLiteral("out of memory for the cover picture");
            return false;
        }
        frame->pts = std::llround(ms);
        ++mStillIndex;
        mVideoPosMs = main.clip.timelinePosMs + ms;
        return pushVideo(frame, error);
    }
    if (!mSource) {
        return true;
    }
    DecodedFrame decoded;
    if (!mSource->next(&decoded, error)) {
        return error->isEmpty() && endMain(videoLabel, audioLabel, error);
    }
    const double posMs = timelineMs(main.clip, decoded.seconds);
    if (decoded.isVideo) {
        if (!mVideoOpen) {
            return true;
        }
        mVideoPosMs = posMs;
        if (decoded.seconds >= endSeconds) {
            return endMainVideo(videoLabel, error);
        }
        const qint64 pts = decoded.frame->pts;
        if (mVideoLastPts != AV_NOPTS_VALUE && pts > mVideoLastPts) {
            mVideoStep = pts - mVideoLastPts;
        }
        mVideoLastPts = qMax(pts, mVideoLastPts == AV_NOPTS_VALUE ? pts : mVideoLastPts);
        return pushVideo(decoded.frame, error);
    }
    if (!mAudioOpen) {
        return true;
    }
    mAudioPosMs = posMs;
    if (decoded.seconds >= endSeconds) {
        mAudioOpen = false;
        return endSource(mGraphs.source(audioLabel), error);
    }
    return pushAudio(mGraphs.source(audioLabel), mAudioConverter.get(), decoded.frame, error);
}

bool TimelineFeeder::pushVideo(const QSharedPointer<AVFrame>& frame, QString* error)
{
    const QSharedPointer<AVFrame> conformed = mVideoConverter->convert(frame, error);
    if (!conformed) {
        return false;
    }
    const int ret =
        av_buffersrc_add_frame_flags(mGraphs.source(QStringLiteral("v%1").arg(mCurrent)),
                                     conformed.data(), AV_BUFFERSRC_FLAG_KEEP_REF);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("picture filtering failed"), ret);
        return false;
    }
    return true;
}

bool TimelineFeeder::pushAudio(AVFilterContext* source, AudioFrameConverter* converter,
                               const QSharedPointer<AVFrame>& frame, QString* error)
{
    const QSharedPointer<AVFrame> conformed = converter->convert(frame, error);
    if (!conformed) {
        return false;
    }
    if (conformed->nb_samples == 0) {
        return true;
    }
    const int ret =
        av_buffersrc_add_frame_flags(source, conformed.data(), AV_BUFFERSRC_FLAG_KEEP_REF);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("sound filtering failed"), ret);
        return false;
    }
    return true;
}

// Pictures shared between several pushes (a cue shown twice, the transparent
// one) go in as references with their own time.
bool TimelineFeeder::pushPicture(AVFilterContext* source, const QSharedPointer<AVFrame>& picture,
                                 qint64 pts, QString* error)
{
    auto frame = makeAVFramePtr(av_frame_clone(picture.data()));
    if (!frame) {
        *error = QStringLiteral("out of memory for an overlay picture");
        return false;
    }
    frame->pts = pts;
    const int ret = av_buffersrc_add_frame_flags(source, frame.data(), 0);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("picture filtering failed"), ret);
        return false;
    }
    return true;
}

bool TimelineFeeder::endSource(AVFilterContext* source, QString* error)
{
    const int ret = av_buffersrc_add_frame_flags(source, nullptr, 0);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("cannot end a filter source"), ret);
        return false;
    }
    return true;
}

} // namespace Korvane
