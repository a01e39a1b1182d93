#include "Common/Timeline/TimelineProjectBuilder.h"

#include "Common/Records/JsonForms.h"
#include "Common/Records/OutputRules.h"
#include "Common/Records/TimelineKeys.h"
#include "Common/Timeline/TimelineProject.h"

#include <QFileInfo>
#include <QImageReader>
#include <QLoggingCategory>

#include <algorithm>
#include <atomic>

Q_LOGGING_CATEGORY(lcTimelineProject, "korvane.common.timelineproject", QtInfoMsg)

namespace Korvane {

using namespace TimelineKeys;
namespace {

// Shared by "transform_%1" and "2dTo3d_%1" across every document of the
// process. The export engine only needs the names to be unique within one
// document, so the counter takes no lock: two builds at the same moment may
// draw the same number. Load and store are separate on purpose; the atomic
// only keeps that race well defined.
std::atomic<int> g_transformCounter{0};

int nextTransformNumber()
{
    const int number = g_transformCounter.load(std::memory_order_relaxed);
    g_transformCounter.store(number + 1, std::memory_order_relaxed);
    return number;
}

int roundDownToEven(int value)
{
    return value - value % 2;
}

// Size of the picture in `path`, read from its header; 0 x 0 when the file is
// missing or no image reader understands it.
QSize imageSize(const QString& path)
{
    const QSize size = QImageReader(path).size();
    return size.isValid() ? size : QSize(0, 0);
}

// Landscape 1, portrait -1, square or unknown 0, from the real-number ratio.
int orientation(int width, int height)
{
    if (height <= 0) {
        return 0;
    }
    const double ratio = double(width) / double(height);
    return ratio > 1.0 ? 1 : ratio < 1.0 ? -1 : 0;
}

} // namespace

TimelineProjectBuilder::TimelineProjectBuilder(const ConvertSource& source,
                                               const QVariantMap& options,
                                               const ContainerInfo* info)
    : m_source(source), m_options(options), m_info(info), m_speed(source.speedOrOne())
{}

QString TimelineProjectBuilder::build()
{
    readMediaFacts();
    m_document.insert(kId, "/");
    writePreviewParam();
    writeZoom();
    m_document.insert(kPreviewParam, m_previewParam);
    createTracks();
    buildMainTransform();
    buildMainFilters();
    appendSourceClips();
    appendAttachedAudioClips();
    appendWaterMarks();
    m_document.insert(kTracks, m_tracks);
    m_document.insert(kClips, m_clips);
    return variantMapToJson(m_document, true);
}

qint64 TimelineProjectBuilder::durationRule() const
{
    if (!m_info->audioStreams.isEmpty() && m_info->audioStreams.first().durationMs >= 1) {
        return m_info->audioStreams.first().durationMs;
    }
    return m_info->durationMs;
}

void TimelineProjectBuilder::readMediaFacts()
{
    if (m_info) {
        const QList<ContainerVideoStream>& video = m_info->videoStreams;
        const bool onlyCover = video.size() == 1 && video.first().attachedPic;
        m_realPicture = !video.isEmpty() && !onlyCover;
        if (!m_realPicture) {
            m_durationMs = durationRule();
            if (onlyCover) {
                m_width = roundDownToEven(video.first().displayWidth);
                m_height = roundDownToEven(video.first().displayHeight);
            }
            if (!m_source.coverPath.isEmpty()) {
                const QSize cover = imageSize(m_source.coverPath);
                m_width = roundDownToEven(cover.width());
                m_height = roundDownToEven(cover.height());
            }
        } else {
            const ContainerVideoStream& first = video.first();
            // Integer division on purpose: 30000/1001 becomes 29.
            if (first.frameRateNum != 0 && first.frameRateDen != 0) {
                m_fps = double(first.frameRateNum / first.frameRateDen);
            }
            const ContainerVideoStream& picture =
                first.attachedPic && video.size() >= 2 ? video.at(1) : first;
            m_width = picture.displayWidth;
            m_height = picture.displayHeight;
            m_durationMs = picture.durationMs > 0 ? picture.durationMs : durationRule();
        }
    }
    m_pictureWidth = m_width;
    m_pictureHeight = m_height;

    if (m_options.contains(kOptionDuration)) {
        m_durationMs = m_options.value(kOptionDuration).toLongLong();
    }
    if (m_options.contains(kOptionWidth)) {
        m_width = m_options.value(kOptionWidth).toInt();
    }
    if (m_options.contains(kOptionHeight)) {
        m_height = m_options.value(kOptionHeight).toInt();
    }
    if (m_options.contains(kOptionFps)) {
        m_fps = m_options.value(kOptionFps).toDouble();
    }

    const int audioStreams = m_info ? int(m_info->audioStreams.size()) : 0;
    m_selfAudioTracks = std::min(int(m_source.selfAudios.size()), audioStreams);

    qCDebug(lcTimelineProject) << "probed" << m_source.filePath << "picture" << m_pictureWidth
                               << "x" << m_pictureHeight << "canvas" << m_width << "x" << m_height
                               << "fps" << m_fps << "duration" << m_durationMs << "real picture"
                               << m_realPicture;
}

void TimelineProjectBuilder::writePreviewParam()
{
    m_previewParam.insert(kId, "preview_param");
    m_previewParam.insert(kFps, m_fps);
    m_previewParam.insert(kWidth, m_width != 0 ? m_width : 640);
    m_previewParam.insert(kHeight, m_height != 0 ? m_height : 480);
    if (m_source.selfAudios.isEmpty() && m_source.attachedAudio.isEmpty()) {
        m_previewParam.insert(kAudioDisabled, true);
    }
    if (!m_realPicture) {
        m_previewParam.insert(kVideoDisabled, true);
        if (isSocialOutputType(m_options.value(kOptionSocialType).toString())) {
            m_previewParam.insert(kVideoDisabled, false);
        }
    }
}

void TimelineProjectBuilder::writeZoom()
{
    if (m_width == 0 || m_height == 0 || m_pictureWidth == 0 || m_pictureHeight == 0 ||
        m_source.waterMark.isEmpty()) {
        return;
    }
    // Integer divisions: only the coarse shape decides which side is kept.
    if (m_width / m_height <= m_pictureWidth / m_pictureHeight) {
        const double zoom = double(m_width) / m_pictureWidth;
        m_previewParam.insert(kZoom, zoom);
        m_previewParam.insert(kHeight, m_height / zoom);
        m_previewParam.insert(kWidth, m_pictureWidth);
    } else {
        const double zoom = double(m_height) / m_pictureHeight;
        m_previewParam.insert(kZoom, zoom);
        m_previewParam.insert(kWidth, m_width / zoom);
        m_previewParam.insert(kHeight, m_pictureHeight);
    }
}

QVariantMap TimelineProjectBuilder::makeTrack(const QString& kind, int zOrder, bool trunk)
{
    return QVariantMap{{kId, QStringLiteral("track_%1").arg(m_trackCounter++)},
                       {kType, "track"},
                       {kKind, kind},
                       {kZOrder, zOrder},
                       {kTrunk, trunk},
                       {kDisabled, false},
                       {kMute, false}};
}

void TimelineProjectBuilder::createTracks()
{
    const int count = std::max(1, m_selfAudioTracks + int(m_source.attachedAudio.size()));
    m_tracks.append(makeTrack("video", 0, true));
    for (int t = 1; t < count; ++t) {
        m_tracks.append(makeTrack("audio", -1, false));
    }
    if (!m_source.metaData.isEmpty()) {
        QVariantMap metaData = m_source.metaData;
        metaData.insert(kId, "meta_data");
        m_document.insert(kMetaData, metaData);
    }
    if (!m_source.coverPath.isEmpty()) {
        m_document.insert(kCover, QVariantMap{{kId, "cover"}, {kPath, m_source.coverPath}});
    }
}

std::optional<float> TimelineProjectBuilder::rotationScale(int rotation) const
{
    if ((rotation != 90 && rotation != 270) || m_width == 0 || m_height == 0) {
        return std::nullopt;
    }
    const CropParam crop = m_source.crop.value_or(CropParam{});
    const int W = m_width;
    const int H = m_height;
    const float fw = float(W) * float(crop.cropW);
    const float fh = float(H) * float(crop.cropH);
    if (!(fw > 0.0f) || !(fh > 0.0f)) {
        return std::nullopt;
    }
    const float a = fw / fh;
    const float r = float(W / H);
    int P = H;
    int Q = W;
    if (a > r) {
        P = int(float(W) * fh / fw);
    } else {
        Q = int(float(H) * fw / fh);
    }
    if (P <= 0 || Q <= 0) {
        return std::nullopt;
    }
    const float q = float(P / Q);
    const int pictureShape = orientation(m_pictureWidth, m_pictureHeight);
    const bool sameOrientation = pictureShape != 0 && pictureShape == orientation(W, H);
    const double widthFit = double(W) / P;
    const double heightFit = double(H) / Q;
    if (sameOrientation) {
        return float(q > r ? widthFit : heightFit);
    }
    return float(q > r ? heightFit : widthFit);
}

void TimelineProjectBuilder::buildMainTransform()
{
    const CropParam crop = m_source.crop.value_or(CropParam{});
    // General form at Qt's default precision: six significant digits, no
    // trailing zeros (1/3 is written 0.333333), as the export engine expects.
    const auto number = [](double value) { return QString::number(value, 'g', -1); };
    m_mainTransform = QVariantMap{{kId, QStringLiteral("transform_%1").arg(nextTransformNumber())},
                                  {kType, "transform"},
                                  {kBgSize, QStringLiteral("%1,%2").arg(m_width).arg(m_height)},
                                  {kCrop, QStringLiteral("%1,%2,%3,%4")
                                              .arg(number(crop.cropX), number(crop.cropY),
                                                   number(crop.cropW), number(crop.cropH))},
                                  {kFlipX, crop.flipX},
                                  {kFlipY, crop.flipY}};

    if (const std::optional<float> scale = rotationScale(crop.rotation)) {
        m_mainTransform.insert(kScaleX, *scale);
        m_mainTransform.insert(kScaleY, *scale);
    }

    // A side-by-side picture is squeezed to half its width, a top-and-bottom
    // one to half its height. The export engine lays the whole-file clip and
    // the cut clips out differently, hence the two corrections for the latter.
    const QString& effect = m_source.effectFilter;
    if (effect.contains("Anaglyph")) {
        if (effect.contains("Side by Side")) {
            m_mainTransform.insert(kScaleX, 2.0);
        } else if (effect.contains("Top and Bottom")) {
            if (m_source.cut.isEmpty()) {
                m_mainTransform.insert(kScaleY, 2.0);
            } else {
                m_mainTransform.insert(kScaleX, 0.5);
            }
        }
    }
    m_mainTransform.insert(kRotation, crop.rotation);
}

QString TimelineProjectBuilder::nextFilterId(const QString& prefix)
{
    return prefix + QString::number(m_filterCounter++);
}

QVariantMap TimelineProjectBuilder::makeVideoFilter(const QString& name, const QVariant& value)
{
    return QVariantMap{
        {kId, nextFilterId("vfilter_")}, {kType, "video_filter"}, {kName, name}, {kValue, value}};
}

void TimelineProjectBuilder::buildMainFilters()
{
    const BaseFilterParam& base = m_source.baseFilter;
    const std::pair<const char*, qint32> adjustments[] = {
        {"Brightness", base.brightness},
        {"Contrast", base.contrast},
        {"Saturation", base.saturation},
        {"Sharpen", base.sharpen},
        {"Shadow", base.shadow},
        {"HighLight", base.highlight},
        {"ColorTemperature", base.colorTemperature},
        {"ColorHue", base.hue}};
    for (const auto& [name, value] : adjustments) {
        if (value != 0) {
            m_mainVideoFilters.append(makeVideoFilter(name, value));
        }
    }
    if (!m_source.aiMosaic.path.isEmpty()) {
        m_mainVideoFilters.append(makeVideoFilter("AIMosaic", m_source.aiMosaic.path));
    }
    if (!m_source.aiAutoReframe.path.isEmpty()) {
        m_mainVideoFilters.append(makeVideoFilter("AIAutoReframe", m_source.aiAutoReframe.path));
    }

    const QString& effect = m_source.effectFilter;
    if (effect.contains("Anaglyph")) {
        m_mainVideoFilters.append(
            QVariantMap{{kId, nextFilterId("video_filter_")},
                        {kAnaglyphType, effect},
                        {kSource, QStringLiteral("2dTo3d_%1").arg(nextTransformNumber())}});
    } else if (!effect.isEmpty()) {
        // An effect is a folder whose config.json names its resources.
        const QVariantMap config = jsonToVariantMap(readTextFile(effect + "/config.json"));
        m_mainVideoFilters.append(QVariantMap{{kId, nextFilterId("video_filter_")},
                                              {kType, "video_filter"},
                                              {kValue, 100},
                                              {kDirPath, effect},
                                              {kRccPrefix, config.value("rcc_prefix").toString()},
                                              {kSource, config.value("source").toString()},
                                              {kTitle, config.value("title").toString()},
                                              {kKind, "video"}});
    }

    if (m_source.baseFilter.volume != 100) {
        m_mainAudioFilters.append(QVariantMap{{kId, nextFilterId("afilter_")},
                                              {kType, "audio_filter"},
                                              {kName, "Volume"},
                                              {kValue, m_source.baseFilter.volume}});
    }
}

QVariantMap TimelineProjectBuilder::makeMediaClip(const QString& kind, const QString& filePath,
                                                  int track)
{
    return QVariantMap{{kType, "clip"},       {kKind, kind},
                       {kFilePath, filePath}, {kTrackRef, QStringLiteral("track_%1").arg(track)},
                       {kSpeed, m_speed},     {kStreamIndex, track}};
}

void TimelineProjectBuilder::appendMediaClip(QVariantMap clip)
{
    clip.insert(kId, QStringLiteral("clip_%1").arg(m_clipCounter++));
    m_clips.append(clip);
}

QVariantList TimelineProjectBuilder::subtitles() const
{
    const bool display =
        m_options.contains(kOptionExportMode) && !m_options.value(kOptionExportMode).toBool();
    QVariantList list;
    for (const SelfSubtitle& subtitle : m_source.selfSubtitles) {
        list.append(QVariantMap{{kId, QStringLiteral("subtitle_%1").arg(list.size())},
                                {kEmbeddedSubtitleStreamIndex, subtitle.index},
                                {kAttachedFilePath, m_source.filePath},
                                {kAttachedOffset, 0},
                                {kTitle, subtitle.title},
                                {kDisplay, display}});
    }
    for (const AttachedSubtitle& subtitle : m_source.attachedSubtitle) {
        const QString title = subtitle.title.isEmpty()
                                  ? QFileInfo(subtitle.filePath).completeBaseName()
                                  : subtitle.title;
        list.append(QVariantMap{{kId, QStringLiteral("subtitle_%1").arg(list.size())},
                                {kEmbeddedSubtitleStreamIndex, 0},
                                {kAttachedFilePath, subtitle.filePath},
                                {kAttachedOffset, subtitle.startMs},
                                {kTitle, title},
                                {kDisplay, display}});
    }
    return list;
}

void TimelineProjectBuilder::appendSourceClips()
{
    const int trackCount = std::max(1, m_selfAudioTracks);
    for (int t = 0; t < trackCount; ++t) {
        QString kind = "audio";
        if (t == 0) {
            kind = m_selfAudioTracks == 0 ? "video_only"
                   : m_realPicture        ? "video"
                                          : "audio_with_cover";
        }
        QVariantMap clip = makeMediaClip(kind, m_source.filePath, t);
        if (!m_source.selfAudios.isEmpty()) {
            clip.insert(kFileAudioStreamIndex, m_source.selfAudios.at(t));
        }
        if (t == 0) {
            clip.insert(kTransform, m_mainTransform);
            if (!m_mainVideoFilters.isEmpty()) {
                clip.insert(kVideoFilters, m_mainVideoFilters);
            }
            if (!m_mainAudioFilters.isEmpty()) {
                clip.insert(kAudioFilters, m_mainAudioFilters);
            }
        }

        if (m_source.cut.isEmpty()) {
            clip.insert(kTimelinePos, 0);
            clip.insert(kRangeBegin, 0);
            clip.insert(kRangeLength, m_durationMs);
            if (t == 0) {
                clip.insert(kSubtitles, subtitles());
            }
            appendMediaClip(clip);
            continue;
        }
        qint64 earlier = 0;
        for (const CutRange& range : m_source.cut) {
            QVariantMap cutClip = clip;
            cutClip.insert(kTimelinePos, float(earlier) / m_speed);
            cutClip.insert(kRangeBegin, range.begin);
            cutClip.insert(kRangeLength, range.length);
            appendMediaClip(cutClip);
            earlier += range.length;
        }
    }
}

void TimelineProjectBuilder::appendAttachedAudioClips()
{
    const int firstTrack = std::max(1, m_selfAudioTracks);
    for (int i = 0; i < m_source.attachedAudio.size(); ++i) {
        const AttachedAudio& audio = m_source.attachedAudio.at(i);
        // Without own audio tracks the attached files count from track 0 on,
        // even though track 0 is the picture's.
        const int track = m_source.selfAudios.isEmpty() ? i : firstTrack + i;
        QVariantMap clip = makeMediaClip("audio", audio.filePath, track);
        clip.insert(kFileAudioStreamIndex, -1);

        if (m_source.cut.isEmpty()) {
            clip.insert(kTimelinePos, 0);
            clip.insert(kRangeBegin, 0);
            clip.insert(kRangeLength, m_durationMs);
            appendMediaClip(clip);
            continue;
        }
        qint64 earlier = 0;
        for (int k = 0; k < m_source.cut.size(); ++k) {
            const CutRange& range = m_source.cut.at(k);
            // The k-th cut starts at the k-th attached file's offset; a cut
            // without a matching file starts at 0.
            const qint64 begin =
                k < m_source.attachedAudio.size() ? m_source.attachedAudio.at(k).startMs : 0;
            QVariantMap cutClip = clip;
            cutClip.insert(kTimelinePos, float(earlier) / m_speed);
            cutClip.insert(kRangeBegin, begin);
            cutClip.insert(kRangeLength, range.length);
            appendMediaClip(cutClip);
            earlier += range.length;
        }
    }
}

qint64 TimelineProjectBuilder::usedLength() const
{
    if (m_source.cut.isEmpty()) {
        return m_durationMs;
    }
    qint64 sum = 0;
    for (const CutRange& range : m_source.cut) {
        sum += range.length;
    }
    return sum;
}

void TimelineProjectBuilder::appendWaterMarks()
{
    for (int i = 0; i < m_source.waterMark.size(); ++i) {
        const WaterMarkParam& mark = m_source.waterMark.at(i);
        const int track = m_trackCounter;
        m_tracks.append(makeTrack("effect", i + 2, false));
        const QVariantMap transform{
            {kId, QStringLiteral("transform_image_%1").arg(i)},
            {kRotation, mark.rotation},
            {kFlipX, mark.flipX},
            {kFlipY, mark.flipY},
            {kScaleX, mark.scaleX},
            {kScaleY, mark.scaleY},
            {kCenterPos, QStringLiteral("%1,%2").arg(mark.centerPos.x()).arg(mark.centerPos.y())}};
        m_clips.append(QVariantMap{{kId, QStringLiteral("clip_image_%1").arg(i)},
                                   {kType, "image"},
                                   {kFilePath, mark.filePath},
                                   {kTrackRef, QStringLiteral("track_%1").arg(track)},
                                   {kTimelinePos, 0},
                                   {kRangeLength, usedLength()},
                                   {kAlpha, mark.alpha},
                                   {kSpeed, m_speed},
                                   {kTransform, transform}});
    }
}

} // namespace Korvane
