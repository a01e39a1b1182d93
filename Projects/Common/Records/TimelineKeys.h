#pragma once

#include <QString>

// The key names of the timeline project document, which the timeline builder
// writes and the render engine reads, and of the options map the builder
// takes. Both sides spell them from here only.
namespace Korvane::TimelineKeys {

// Keys the render engine reads.
inline constexpr QLatin1String kAlpha{"alpha"};
inline constexpr QLatin1String kAnaglyphType{"anaglyph_type"};
inline constexpr QLatin1String kAttachedFilePath{"attached_file_path"};
inline constexpr QLatin1String kAttachedOffset{"attached_offset"};
inline constexpr QLatin1String kAudioDisabled{"audio_disabled"};
inline constexpr QLatin1String kAudioFilters{"audio_filters"};
inline constexpr QLatin1String kBgSize{"bg_size"};
inline constexpr QLatin1String kCenterPos{"center_pos"};
inline constexpr QLatin1String kClips{"clips"};
inline constexpr QLatin1String kCover{"cover"};
inline constexpr QLatin1String kCrop{"crop"};
inline constexpr QLatin1String kDirPath{"dir_path"};
inline constexpr QLatin1String kDisabled{"disabled"};
inline constexpr QLatin1String kDisplay{"display"};
inline constexpr QLatin1String kEmbeddedSubtitleStreamIndex{"embedded_subtitle_stream_index"};
inline constexpr QLatin1String kFileAudioStreamIndex{"file_audio_stream_index"};
inline constexpr QLatin1String kFilePath{"file_path"};
inline constexpr QLatin1String kFlipX{"flip_x"};
inline constexpr QLatin1String kFlipY{"flip_y"};
inline constexpr QLatin1String kFps{"fps"};
inline constexpr QLatin1String kHeight{"height"};
inline constexpr QLatin1String kId{"id"};
inline constexpr QLatin1String kKind{"kind"};
inline constexpr QLatin1String kMetaData{"meta_data"};
inline constexpr QLatin1String kMute{"mute"};
inline constexpr QLatin1String kName{"name"};
inline constexpr QLatin1String kPath{"path"};
inline constexpr QLatin1String kPreviewParam{"preview_param"};
inline constexpr QLatin1String kRangeBegin{"range_begin"};
inline constexpr QLatin1String kRangeLength{"range_length"};
inline constexpr QLatin1String kRotation{"rotation"};
inline constexpr QLatin1String kScaleX{"scale_x"};
inline constexpr QLatin1String kScaleY{"scale_y"};
inline constexpr QLatin1String kSpeed{"speed"};
inline constexpr QLatin1String kSubtitles{"subtitles"};
inline constexpr QLatin1String kTimelinePos{"timeline_pos"};
inline constexpr QLatin1String kTitle{"title"};
inline constexpr QLatin1String kTrackRef{"track_ref"};
inline constexpr QLatin1String kTracks{"tracks"};
inline constexpr QLatin1String kTransform{"transform"};
inline constexpr QLatin1String kTrunk{"trunk"};
inline constexpr QLatin1String kType{"type"};
inline constexpr QLatin1String kValue{"value"};
inline constexpr QLatin1String kVideoDisabled{"video_disabled"};
inline constexpr QLatin1String kVideoFilters{"video_filters"};
inline constexpr QLatin1String kWidth{"width"};
inline constexpr QLatin1String kZOrder{"z_order"};
inline constexpr QLatin1String kZoom{"zoom"};

// Written for the editor that opens the document; the render engine has no use
// for them: an effect filter's resource prefix, source and "title", and a
// clip's track number.
inline constexpr QLatin1String kRccPrefix{"rcc_prefix"};
inline constexpr QLatin1String kSource{"source"};
inline constexpr QLatin1String kStreamIndex{"stream_index"};

// The options of makeTimelineProjectJson.
inline constexpr QLatin1String kOptionDuration{"duration"};
inline constexpr QLatin1String kOptionWidth{"width"};
inline constexpr QLatin1String kOptionHeight{"height"};
inline constexpr QLatin1String kOptionFps{"fps"};
inline constexpr QLatin1String kOptionSocialType{"socialType"};
inline constexpr QLatin1String kOptionExportMode{"export_mode"};

} // namespace Korvane::TimelineKeys
