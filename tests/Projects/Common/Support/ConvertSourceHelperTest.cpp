#include "Common/Support/ConvertSourceHelper.h"

#include "LogCapture.h"
#include "TestMedia.h"

#include <QFile>
#include <QTemporaryDir>

#include <functional>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

const QStringList kH264{"-c:v", "libx264", "-pix_fmt", "yuv420p"};
const QStringList kHevc10{"-c:v",           "libx265",  "-x265-params",
                          "log-level=none", "-pix_fmt", "yuv420p10le"};

// Generated once per build tree from a short picture, with `extraInputs` after it.
QString media(const QString& name, const QStringList& args, const QStringList& extraInputs = {})
{
    return TestMedia::generate("convert-source-helper/" + name,
                               QStringList{"-f", "lavfi", "-i", "testsrc2=s=64x64:r=25:d=0.2"} +
                                   extraInputs + args);
}

ConvertSource sourceFor(const QString& path)
{
    ConvertSource source;
    source.filePath = path;
    return source;
}

bool ffmpegSupports(const ConvertSource& source, const QString& codec = "h264",
                    const QString& format = "mp4", const QString& audioCodec = {})
{
    AVTaskOutputParam output;
    output.outputPath = "/tmp/never-written.out";
    output.format = format;
    output.video.codecName = codec;
    output.audio.codecName = audioCodec;
    return ConvertSourceHelper::isSupportedByTranscoderFFmpeg(source, output);
}

} // namespace

// Input codec, extension and depth, output codec and container, all case-blind.
TEST(FFmpegSupportCheck, CodecsAndContainers)
{
    const std::tuple<QString, QStringList, QString, QString, bool> rows[] = {
        {"h264.mp4", kH264, "h264", "mp4", true},
        {"UPPER.MP4", kH264, "H264", "MP4", true},
        {"hevc.m4v", QStringList{"-f", "mp4"} + kHevc10, "h265", "mp4", false},
        {"h264-10bit.mp4", {"-c:v", "libx264", "-pix_fmt", "yuv420p10le"}, "h264", "mp4", false},
        {"hevc-10bit.mkv", kHevc10, "h265", "mkv", true},
        {"h264.mp4", kH264, "h265", "flv", false},
        {"h264.mp4", kH264, "h264", "flv", true},
        {"h264.mp4", kH264, "h264", "webm", false},
        {"h264.mp4", kH264, "mpeg4", "mp4", false},
        {"h264.ts", kH264, "h264", "mp4", false},
        {"mpeg4.mp4", {"-c:v", "mpeg4"}, "h264", "mp4", false},
        {"h264-without-extension", QStringList{"-f", "mp4"} + kH264, "h264", "mp4", false},
    };
    for (const auto& [name, args, codec, format, supported] : rows) {
        const QString path = media(name, args);
        ASSERT_FALSE(path.isEmpty());
        EXPECT_EQ(ffmpegSupports(sourceFor(path), codec, format), supported) << qPrintable(name);
    }
}

// Names that would reach ffmpeg's arguments as more than names are refused and logged.
TEST(FFmpegSupportCheck, NamesThatAreNotPlainAreRefusedAndLogged)
{
    const std::array<const char*, 4> rows[] = {{"audio.codecName", "h264", "mp4", "aac -f wav /x"},
                                               {"video.codecName", "h264 -y", "mp4", ""},
                                               {"format", "h264", "mp4\n-y", ""}};
    for (const auto& [field, codec, format, audio] : rows) {
        LogCapture log;
        EXPECT_FALSE(ffmpegSupports(sourceFor(media("h264.mp4", kH264)), codec, format, audio));
        EXPECT_TRUE(log.contains(QStringLiteral("invalid job field: %1 \"").arg(field)));
    }
}

// The ffmpeg path refuses edits it does not make, unreadable files, other audio counts
// than one of the file's, and other tags (the genre as an integer); the other check
// refuses only speed (looser on purpose), colour and volume edits and the mosaic.
TEST(SupportChecks, EditsAudioStreamsAndTags)
{
    const QString path = media("h264.mp4", kH264);
    const QString one = media("h264-one-audio.mp4", kH264 + QStringList{"-map", "0", "-map", "1"},
                              {"-f", "lavfi", "-i", "sine=d=0.2"});
    const QString genre = media("genre-12.mp4", kH264 + QStringList{"-metadata", "genre=12"});
    const QString named = media("genre-rock.mp4", kH264 + QStringList{"-metadata", "genre=Rock",
                                                                      "-metadata", "title=Clip"});
    ASSERT_FALSE(path.isEmpty() || one.isEmpty() || genre.isEmpty() || named.isEmpty());
    QTemporaryDir dir;
    QFile garbage(dir.filePath("garbage.mp4"));
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly) && garbage.write(QByteArray(4096, 'x')));
    garbage.close();
    const std::function<void(ConvertSource&)> nothing = [](auto&) {};
    // Edits the ffmpeg path makes itself, and empty plug-in entries.
    const std::function<void(ConvertSource&)> edits = [](ConvertSource& s) {
        s.crop = CropParam{0.1, 0.1, 0.5, 0.5, true, false, 90};
        s.waterMark.append(WaterMarkParam{});
        s.aiAutoReframe.path = "/reframe.dat";
        s.extraParam = {{"plugin", QVariantMap()}, {"operator", ""}, {"deviceId", "3"}};
    };
    const SelfSubtitle subtitle{2, "en"};
    const AttachedAudio audio{0, "/a.mp3"};
    const CutRange cut{0, 100};
    const QVariantMap ignoredTags{{"genre", "12"}, {"comment", ""}, {"encoder", "x"}};
    const QVariantMap namedGenres{{"genre", "Jazz"}, {"title", "Clip"}};
    using Row = std::tuple<QString, const char*, std::function<void(ConvertSource&)>, bool, bool>;
    const Row rows[] = {
        {path, "nothing", nothing, true, true},
        {garbage.fileName(), "garbage", nothing, false, true},
        {dir.filePath("missing.mp4"), "missing", nothing, false, true},
        {QString(), "no path", nothing, false, true},
        {path, "self subtitle", [&](auto& s) { s.selfSubtitles.append(subtitle); }, false, true},
        {path, "attached audio", [&](auto& s) { s.attachedAudio.append(audio); }, false, true},
        {path, "cover", [](auto& s) { s.coverPath = "/cover.png"; }, false, true},
        {path, "cut", [&](auto& s) { s.cut.append(cut); }, false, true},
        {path, "speed 1.005", [](auto& s) { s.speed = 1.005f; }, false, true},
        {path, "speed 1.02", [](auto& s) { s.speed = 1.02f; }, false, false},
        {path, "brightness", [](auto& s) { s.baseFilter.brightness = 1; }, false, false},
        {path, "shadow", [](auto& s) { s.baseFilter.shadow = -2; }, false, false},
        {path, "volume 99", [](auto& s) { s.baseFilter.volume = 99; }, false, false},
        {path, "mosaic", [](auto& s) { s.aiMosaic.path = "/mosaic.dat"; }, false, false},
        {path, "operator", [](auto& s) { s.extraParam["operatorDllPath"] = "/x"; }, false, true},
        {path, "edits made", edits, true, true},
        {one, "no audio kept", nothing, false, true},
        {one, "its audio kept", [](auto& s) { s.selfAudios << 1; }, true, true},
        {one, "two audio kept", [](auto& s) { s.selfAudios << 1 << 2; }, false, true},
        {genre, "genre kept", [](auto& s) { s.metaData["genre"] = "12"; }, true, true},
        {genre, "genre as text", [](auto& s) { s.metaData["genre"] = "12abc"; }, false, true},
        {genre, "ignored tags", [&](auto& s) { s.metaData = ignoredTags; }, true, true},
        {named, "named genres", [&](auto& s) { s.metaData = namedGenres; }, true, true},
        {named, "title case", [](auto& s) { s.metaData["title"] = "clip"; }, false, true},
    };
    for (const auto& [file, what, edit, ffmpeg, transcoder] : rows) {
        SCOPED_TRACE(what);
        ConvertSource source = sourceFor(file);
        edit(source);
        EXPECT_EQ(ffmpegSupports(source), ffmpeg);
        EXPECT_EQ(isConverterSourceSupportedByTranscoder(source, QString()), transcoder);
    }
}

TEST(TranscoderSupportCheck, SocialOutputAndHdrVideoAreRefusedAndLogged)
{
    const QString path = media("h264.mp4", kH264);
    const QString hdr = media("hevc-bt2020.mp4",
                              kHevc10 + QStringList{"-colorspace", "bt2020nc", "-color_primaries",
                                                    "bt2020", "-color_trc", "smpte2084"});
    ASSERT_FALSE(path.isEmpty() || hdr.isEmpty());
    LogCapture log;
    EXPECT_EQ(std::make_tuple(isConverterSourceSupportedByTranscoder(sourceFor(path), "youtube"),
                              isConverterSourceSupportedByTranscoder(sourceFor(path), "Vimeo"),
                              isConverterSourceSupportedByTranscoder(sourceFor(hdr), QString())),
              std::make_tuple(true, false, false));
    EXPECT_EQ(std::make_pair(log.count("social output."), log.count("HDR video")),
              std::make_pair(1, 1));
}
