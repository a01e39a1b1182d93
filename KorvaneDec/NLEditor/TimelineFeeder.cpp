#include "KorvaneDec/NLEditor/TimelineFeeder.h"

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

// Sound enters the graphs in the output's form, on a sample clock that
// starts at the clip's range.
std::unique_ptr<AudioFrameConverter>
makeAudioConverter(const RenderPlan& plan, const AudioStreamFacts& facts, const MediaClip& clip)
{
    return std::make_unique<AudioFrameConverter>(plan.sampleRate, plan.sampleFormat,
                                                 plan.channelLayout, facts.timeBase,
                                                 clip.rangeBeginMs / 1000.0);
}

// The file time at which a clip stops reading.
double rangeEndSeconds(const MediaClip& clip)
{
    return clip.toFileEnd ? kNever : (clip.rangeBeginMs + clip.rangeLengthMs) / 1000.0;
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
        state.converter = makeAudioConverter(mPlan, extra.audio, extra.clip);
        if (extra.clip.rangeBeginMs > 0 && !state.source->seek(extra.clip.rangeBeginMs, error)) {
            return false;
        }
    }
    DecodedFrame decoded;
    if (!state.source->next(&decoded, error) || decoded.seconds >= rangeEndSeconds(extra.clip)) {
        if (!error->isEmpty()) {
            return false;
        }
        state.done = true;
        state.source.reset();
        return endAudio(source, state.converter.get(), error);
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
        mAudioConverter = makeAudioConverter(mPlan, main.audio, main.clip);
    }
    mVideoEndPts = AV_NOPTS_VALUE;
    mAudioEndMs = main.clip.timelinePosMs;
    return true;
}

bool TimelineFeeder::endMain(const QString& videoLabel, const QString& audioLabel, QString* error)
{
    if (mVideoOpen && !mPlan.mains[mCurrent].still) {
        mVideoOpen = false;
        if (!endSource(mGraphs.source(videoLabel), error, mVideoEndPts)) {
            return false;
        }
    }
    if (mAudioOpen) {
        mAudioOpen = false;
        return endAudio(mGraphs.source(audioLabel), mAudioConverter.get(), error);
    }
    return true;
}

bool TimelineFeeder::stepMain(QString* error)
{
    const MainClipPlan& main = mPlan.mains[mCurrent];
    const QString videoLabel = QStringLiteral("v%1").arg(mCurrent);
    const QString audioLabel = QStringLiteral("a%1").arg(mCurrent);
    const double endSeconds = rangeEndSeconds(main.clip);

    // A cover clip repeats its picture at the output rate for its length;
    // played to the file's end, for as long as its sound really lasts.
    if (main.still && mVideoOpen && (!mAudioOpen || mVideoPosMs <= mAudioPosMs)) {
        const double ms = mStillIndex * 1000.0 / mPlan.fps;
        const bool soundDecides = main.clip.toFileEnd && main.hasAudio && mPlan.wantAudio;
        const double lengthMs = !soundDecides ? main.clip.timelineLengthMs()
                                : mAudioOpen  ? kNever
                                              : mAudioEndMs - main.clip.timelinePosMs;
        if (ms >= lengthMs) {
            mVideoOpen = false;
            return endSource(mGraphs.source(videoLabel), error, std::llround(ms));
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
            mVideoOpen = false;
            return endSource(mGraphs.source(videoLabel), error, mVideoEndPts);
        }
        mVideoEndPts = std::max<int64_t>(mVideoEndPts, decoded.frame->pts + decoded.duration);
        return pushVideo(decoded.frame, error);
    }
    if (!mAudioOpen) {
        return true;
    }
    mAudioPosMs = posMs;
    if (decoded.seconds >= endSeconds) {
        mAudioOpen = false;
        return endAudio(mGraphs.source(audioLabel), mAudioConverter.get(), error);
    }
    mAudioEndMs =
        timelineMs(main.clip, decoded.seconds + decoded.duration * av_q2d(main.audio.timeBase));
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
    return pushConverted(source, converter->convert(frame, error), error);
}

bool TimelineFeeder::pushConverted(AVFilterContext* source, const QSharedPointer<AVFrame>& frame,
                                   QString* error)
{
    if (!frame) {
        return false;
    }
    if (frame->nb_samples == 0) {
        return true;
    }
    const int ret = av_buffersrc_add_frame_flags(source, frame.data(), AV_BUFFERSRC_FLAG_KEEP_REF);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("sound filtering failed"), ret);
        return false;
    }
    return true;
}

// The resampler's last samples go in before the end, which is stated where
// the sound ends.
bool TimelineFeeder::endAudio(AVFilterContext* source, AudioFrameConverter* converter,
                              QString* error)
{
    return pushConverted(source, converter->flush(error), error) &&
           endSource(source, error, converter->nextPts());
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

bool TimelineFeeder::endSource(AVFilterContext* source, QString* error, int64_t endPts)
{
    // Without a stated end, libavfilter takes the last frame's start for it,
    // and the rate conversion drops that frame.
    const int ret = endPts == AV_NOPTS_VALUE ? av_buffersrc_add_frame_flags(source, nullptr, 0)
                                             : av_buffersrc_close(source, endPts, 0);
    if (ret < 0 && ret != AVERROR_EOF) {
        *error = ffFailure(QStringLiteral("cannot end a filter source"), ret);
        return false;
    }
    return true;
}

} // namespace Korvane
