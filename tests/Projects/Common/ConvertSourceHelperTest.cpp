#include "Common/ConvertSourceHelper.h"

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
const QStringList kMapAudio{"-c:a", "aac", "-map", "0", "-map", "1"};
const QStringList kSine{"-f", "lavfi", "-i", "sine=d=0.2"};

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

AVTaskOutputParam outputAs(const QString& codec, const QString& format)
{
    AVTaskOutputParam output;
    output.outputPath = "/tmp/never-written.out";
    output.format = format;
    output.video.codecName = codec;
    return output;
}

bool ffmpegSupports(const ConvertSource& source,
                    const AVTaskOutputParam& output = outputAs("h264", "mp4"))
{
    return ConvertSourceHelper::isSupportedByTranscoderFFmpeg(source, output);
}

} // namespace

// The codec of the first stream, its container, its bit depth, and the output
// codec with its container, compared lower-cased. A path without a dot has
// itself as its extension, which no list holds.
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
        SCOPED_TRACE(qPrintable(name + " -> " + codec + "/" + format));
        const QString path = media(name, args);
        ASSERT_FALSE(path.isEmpty());
        EXPECT_EQ(ffmpegSupports(sourceFor(path), outputAs(codec, format)), supported);
    }
}

// A job whose names would reach ffmpeg's arguments as more than a name is
// refused before the file is opened, and the record names the field.
TEST(FFmpegSupportCheck, NamesThatAreNotPlainAreRefusedAndLogged)
{
    const QString path = media("h264.mp4", kH264);
    ASSERT_FALSE(path.isEmpty());
    const QList<std::pair<const char*, std::function<void(AVTaskOutputParam&)>>> rows{
        {"audio.codecName", [](AVTaskOutputParam& o) { o.audio.codecName = "aac -f wav /x"; }},
        {"video.codecName", [](AVTaskOutputParam& o) { o.video.codecName = "h264 -y"; }},
        {"format", [](AVTaskOutputParam& o) { o.format = "mp4\n-y"; }},
    };
    for (const auto& [field, change] : rows) {
        AVTaskOutputParam output = outputAs("h264", "mp4");
        ASSERT_TRUE(ffmpegSupports(sourceFor(path), output));
        change(output);
        LogCapture log;
        EXPECT_FALSE(ffmpegSupports(sourceFor(path), output));
        EXPECT_TRUE(log.contains(QStringLiteral("invalid job field: %1 \"").arg(field)));
    }
}

// At most one kept audio stream, and not fewer than the file has; the job
// must keep the file's tags, the genre compared as integers.
TEST(FFmpegSupportCheck, AudioCountAndMetadataRules)
{
    const QString silent = media("h264.mp4", kH264);
    const QString one = media("h264-one-audio.mp4", kH264 + kMapAudio, kSine);
    const QString two = media("h264-two-audio.mp4", kH264 + kMapAudio + QStringList{"-map", "2"},
                              kSine + QStringList{"-f", "lavfi", "-i", "sine=f=880:d=0.2"});
    const QString numeric = media("genre-12.mp4", kH264 + QStringList{"-metadata", "genre=12"});
    const QString named = media("genre-rock.mp4", kH264 + QStringList{"-metadata", "genre=Rock",
                                                                      "-metadata", "title=Clip"});
    for (const QString& path : {silent, one, two, numeric, named}) {
        ASSERT_FALSE(path.isEmpty());
    }
    const std::tuple<QString, QList<qint32>, QVariantMap, bool> rows[] = {
        {silent, {}, {}, true},
        {one, {}, {}, false},
        {one, {1}, {}, true},
        {one, {1, 2}, {}, false},
        {two, {1}, {}, false},
        {numeric, {}, {{"genre", "12"}}, true},
        {numeric, {}, {{"genre", "12abc"}}, false},
        {numeric, {}, {}, false},
        {numeric, {}, {{"genre", "12"}, {"title", "New"}}, false},
        {numeric, {}, {{"genre", "12"}, {"comment", ""}, {"encoder", "ignored"}}, true},
        {named, {}, {{"genre", "Jazz"}, {"title", "Clip"}}, true},
        {named, {}, {{"title", "clip"}}, false},
    };
    for (const auto& [path, selfAudios, metaData, supported] : rows) {
        SCOPED_TRACE(qPrintable(path + QString(" keeping %1 audio, ").arg(selfAudios.size()) +
                                QStringList(metaData.keys()).join(',')));
        ConvertSource source = sourceFor(path);
        source.selfAudios = selfAudios;
        source.metaData = metaData;
        EXPECT_EQ(ffmpegSupports(source), supported);
    }
}

// Every edit the ffmpeg path does not make refuses the job there; the other
// check refuses only speed, colour and volume edits and the mosaic, with a
// looser speed tolerance on purpose.
TEST(SupportChecks, EditsOnlyTheHostApplies)
{
    const QString path = media("h264.mp4", kH264);
    ASSERT_FALSE(path.isEmpty());
    const SelfSubtitle subtitle{2, "en"};
    const AttachedAudio audio{0, "/a.mp3"};
    const AttachedSubtitle attached{0, "t", "/a.srt"};
    const QVariantMap emptyPlugin{{"plugin", QVariantMap()}, {"operator", ""}, {"deviceId", "3"}};
    const std::tuple<const char*, std::function<void(ConvertSource&)>, bool, bool> rows[] = {
        {"nothing", [](auto&) {}, true, true},
        {"self subtitle", [&](auto& s) { s.selfSubtitles.append(subtitle); }, false, true},
        {"attached audio", [&](auto& s) { s.attachedAudio.append(audio); }, false, true},
        {"attached subtitle", [&](auto& s) { s.attachedSubtitle.append(attached); }, false, true},
        {"cover", [](auto& s) { s.coverPath = "/cover.png"; }, false, true},
        {"cut",
         [](auto& s) {
             s.cut.append(CutRange{0, 100});
         },
         false, true},
        {"title", [](auto& s) { s.metaData["title"] = "New"; }, false, true},
        {"speed 1.005", [](auto& s) { s.speed = 1.005f; }, false, true},
        {"speed 1.0000005", [](auto& s) { s.speed = 1.0000005f; }, true, true},
        {"speed 1.02", [](auto& s) { s.speed = 1.02f; }, false, false},
        {"brightness", [](auto& s) { s.baseFilter.brightness = 1; }, false, false},
        {"hue", [](auto& s) { s.baseFilter.hue = 5; }, false, false},
        {"volume 99", [](auto& s) { s.baseFilter.volume = 99; }, false, false},
        {"mosaic", [](auto& s) { s.aiMosaic.path = "/mosaic.dat"; }, false, false},
        {"reframe", [](auto& s) { s.aiAutoReframe.path = "/reframe.dat"; }, true, true},
        {"operator", [](auto& s) { s.extraParam["operatorDllPath"] = "/x.dll"; }, false, true},
        {"empty plug-in entries", [&](auto& s) { s.extraParam = emptyPlugin; }, true, true},
        {"crop", [](auto& s) { s.crop = CropParam{0.1, 0.1, 0.5, 0.5, true, false, 90}; }, true,
         true},
        {"watermark", [](auto& s) { s.waterMark.append(WaterMarkParam{}); }, true, true},
    };
    for (const auto& [what, edit, ffmpeg, transcoder] : rows) {
        SCOPED_TRACE(what);
        ConvertSource source = sourceFor(path);
        edit(source);
        EXPECT_EQ(ffmpegSupports(source), ffmpeg);
        EXPECT_EQ(isConverterSourceSupportedByTranscoder(source, QString()), transcoder);
    }
}

// An unreadable file fails the ffmpeg check but passes the other one.
TEST(SupportChecks, UnreadableFile)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("garbage.mp4"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, 'x'));
    file.close();
    for (const QString& path : {file.fileName(), dir.filePath("missing.mp4"), QString()}) {
        SCOPED_TRACE(qPrintable(path));
        EXPECT_FALSE(ffmpegSupports(sourceFor(path)));
        EXPECT_TRUE(isConverterSourceSupportedByTranscoder(sourceFor(path), QString()));
    }
}

TEST(TranscoderSupportCheck, SocialOutputAndHdrVideoAreRefusedAndLogged)
{
    const QString path = media("h264.mp4", kH264);
    ASSERT_FALSE(path.isEmpty());
    const std::pair<const char*, bool> platforms[] = {
        {"YouTube", true}, {"Instagram", true}, {"TikTok", true},   {"Facebook", true},
        {"Likee", true},   {"Vimeo", true},     {"youtube", false}, {"", false}};
    for (const auto& [platform, refused] : platforms) {
        SCOPED_TRACE(platform);
        LogCapture log;
        EXPECT_EQ(isConverterSourceSupportedByTranscoder(sourceFor(path), platform), !refused);
        EXPECT_EQ(log.count("social output."), refused ? 1 : 0);
    }
    // The filter checks come first: a social job with a colour edit logs nothing.
    LogCapture log;
    ConvertSource edited = sourceFor(path);
    edited.baseFilter.hue = 1;
    EXPECT_FALSE(isConverterSourceSupportedByTranscoder(edited, "YouTube"));
    EXPECT_FALSE(log.contains("social output."));

    const QString hdr = media("hevc-bt2020.mp4",
                              kHevc10 + QStringList{"-colorspace", "bt2020nc", "-color_primaries",
                                                    "bt2020", "-color_trc", "smpte2084"});
    const QString sdr = media("hevc-10bit.mkv", kHevc10);
    ASSERT_FALSE(hdr.isEmpty());
    ASSERT_FALSE(sdr.isEmpty());
    log.clear();
    EXPECT_FALSE(isConverterSourceSupportedByTranscoder(sourceFor(hdr), QString()));
    EXPECT_EQ(log.count("HDR video"), 1);
    log.clear();
    EXPECT_TRUE(isConverterSourceSupportedByTranscoder(sourceFor(sdr), QString()));
    EXPECT_FALSE(log.contains("HDR video"));
}
