#include "Common/ConvertSourceHelper.h"

#include "LogCapture.h"
#include "TestMedia.h"

#include <QFile>
#include <QTemporaryDir>

#include <functional>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

const QStringList kPicture{"-f", "lavfi", "-i", "testsrc2=s=64x64:r=25:d=0.2"};
const QStringList kH264{"-c:v", "libx264", "-pix_fmt", "yuv420p"};
const QStringList kH264High10{"-c:v", "libx264", "-pix_fmt", "yuv420p10le"};
const QStringList kHevc10{"-c:v",           "libx265",  "-x265-params",
                          "log-level=none", "-pix_fmt", "yuv420p10le"};

// Generated once per build tree: "<name>" made from the picture source and
// `args` (with `extraInputs` before the picture's encoder settings).
QString media(const QString& name, const QStringList& args, const QStringList& extraInputs = {})
{
    return TestMedia::generate("convert-source-helper/" + name, kPicture + extraInputs + args);
}

QString h264Mp4()
{
    return media("h264.mp4", kH264);
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

} // namespace

// Steps 3 to 7: codec of the first stream, its container, its bit depth, and
// the output codec with its container, compared lower-cased.
TEST(FFmpegSupportCheck, CodecsAndContainers)
{
    struct Row
    {
        QString name;
        QStringList args;
        QString codec;
        QString format;
        bool supported;
    };
    const QList<Row> rows{
        {"h264.mp4", kH264, "h264", "mp4", true},
        {"UPPER.MP4", kH264, "H264", "MP4", true},
        {"h264.m4v", kH264, "h264", "mp4", true},
        {"hevc.m4v", QStringList{"-f", "mp4"} + kHevc10, "h265", "mp4", false},
        {"h264-10bit.mp4", kH264High10, "h264", "mp4", false},
        {"hevc-10bit.mkv", kHevc10, "h265", "mkv", true},
        {"hevc-10bit.mkv", kHevc10, "H265", "MOV", true},
        {"h264.mp4", kH264, "h265", "flv", false},
        {"h264.mp4", kH264, "h264", "flv", true},
        {"h264.mp4", kH264, "h264", "M4V", true},
        {"h264.mp4", kH264, "h264", "webm", false},
        {"h264.mp4", kH264, "mpeg4", "mp4", false},
        {"h264.mp4", kH264, "", "mp4", false},
        {"h264.ts", kH264, "h264", "mp4", false},
        {"mpeg4.mp4", {"-c:v", "mpeg4"}, "h264", "mp4", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(qPrintable(row.name + " -> " + row.codec + "/" + row.format));
        const QString path = media(row.name, row.args);
        ASSERT_FALSE(path.isEmpty());
        EXPECT_EQ(ConvertSourceHelper::isSupportedByTranscoderFFmpeg(
                      sourceFor(path), outputAs(row.codec, row.format)),
                  row.supported);
    }
}

// A job whose names would reach ffmpeg's arguments as more than a name is
// refused before the file is opened, and the record names the field.
TEST(FFmpegSupportCheck, NamesThatAreNotPlainAreRefusedAndLogged)
{
    const QString path = h264Mp4();
    ASSERT_FALSE(path.isEmpty());
    const QList<std::pair<const char*, std::function<void(AVTaskOutputParam&)>>> rows{
        {"audio.codecName", [](AVTaskOutputParam& o) { o.audio.codecName = "aac -f wav /x"; }},
        {"video.codecName", [](AVTaskOutputParam& o) { o.video.codecName = "h264 -y"; }},
        {"format", [](AVTaskOutputParam& o) { o.format = "mp4\n-y"; }},
    };
    for (const auto& [field, change] : rows) {
        AVTaskOutputParam output = outputAs("h264", "mp4");
        ASSERT_TRUE(ConvertSourceHelper::isSupportedByTranscoderFFmpeg(sourceFor(path), output));
        change(output);
        LogCapture log;
        EXPECT_FALSE(ConvertSourceHelper::isSupportedByTranscoderFFmpeg(sourceFor(path), output));
        EXPECT_TRUE(log.contains(QStringLiteral("invalid job field: %1 \"").arg(field)));
    }
}

// A path without a dot has itself as its extension, which no list holds.
TEST(FFmpegSupportCheck, PathWithoutExtension)
{
    const QString path = media("h264-without-extension", QStringList{"-f", "mp4"} + kH264);
    ASSERT_FALSE(path.isEmpty());
    EXPECT_FALSE(ConvertSourceHelper::isSupportedByTranscoderFFmpeg(sourceFor(path),
                                                                    outputAs("h264", "mp4")));
}

// Step 10: at most one kept audio stream, and not fewer than the file has.
TEST(FFmpegSupportCheck, AudioCountRule)
{
    const QStringList oneAudio{"-f", "lavfi", "-i", "sine=d=0.2"};
    const QStringList twoAudio{"-f", "lavfi", "-i", "sine=d=0.2",
                               "-f", "lavfi", "-i", "sine=f=880:d=0.2"};
    const QString silent = h264Mp4();
    const QString one =
        media("h264-one-audio.mp4", kH264 + QStringList{"-c:a", "aac", "-map", "0", "-map", "1"},
              oneAudio);
    const QString two =
        media("h264-two-audio.mp4",
              kH264 + QStringList{"-c:a", "aac", "-map", "0", "-map", "1", "-map", "2"}, twoAudio);
    ASSERT_FALSE(silent.isEmpty());
    ASSERT_FALSE(one.isEmpty());
    ASSERT_FALSE(two.isEmpty());

    struct Row
    {
        QString path;
        QList<qint32> selfAudios;
        bool supported;
    };
    const QList<Row> rows{
        {silent, {}, true},   {silent, {0}, true}, {one, {}, false},     {one, {1}, true},
        {one, {1, 2}, false}, {two, {1}, false},   {two, {1, 2}, false}, {two, {}, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(qPrintable(row.path + QString(" keeping %1").arg(row.selfAudios.size())));
        ConvertSource source = sourceFor(row.path);
        source.selfAudios = row.selfAudios;
        EXPECT_EQ(
            ConvertSourceHelper::isSupportedByTranscoderFFmpeg(source, outputAs("h264", "mp4")),
            row.supported);
    }
}

// Step 8: the job must keep the file's tags; the genre compares as integers.
TEST(FFmpegSupportCheck, MetadataMustStayUnchanged)
{
    const QString numeric = media("genre-12.mp4", kH264 + QStringList{"-metadata", "genre=12"});
    const QString named = media("genre-rock.mp4", kH264 + QStringList{"-metadata", "genre=Rock",
                                                                      "-metadata", "title=Clip"});
    ASSERT_FALSE(numeric.isEmpty());
    ASSERT_FALSE(named.isEmpty());

    struct Row
    {
        QString path;
        QVariantMap metaData;
        bool supported;
    };
    const QList<Row> rows{
        {numeric, {{"genre", "12"}}, true},
        {numeric, {{"genre", 12}}, true},
        {numeric, {{"genre", "12abc"}}, false},
        {numeric, {}, false},
        {numeric, {{"genre", "12"}, {"title", "New"}}, false},
        {numeric, {{"genre", "12"}, {"comment", ""}, {"encoder", "ignored"}}, true},
        {named, {{"genre", "Jazz"}, {"title", "Clip"}}, true},
        {named, {{"title", "Clip"}}, true},
        {named, {{"title", "clip"}}, false},
        {named, {}, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(qPrintable(row.path + " " + QStringList(row.metaData.keys()).join(',')));
        ConvertSource source = sourceFor(row.path);
        source.metaData = row.metaData;
        EXPECT_EQ(
            ConvertSourceHelper::isSupportedByTranscoderFFmpeg(source, outputAs("h264", "mp4")),
            row.supported);
    }
}

// Steps 10 to 14: every edit the ffmpeg path does not make refuses the job;
// the edits the command builder makes do not.
TEST(FFmpegSupportCheck, EditsOnlyTheHostAppliesAreRefused)
{
    const QString path = h264Mp4();
    ASSERT_FALSE(path.isEmpty());
    struct Row
    {
        const char* what;
        std::function<void(ConvertSource&)> edit;
        bool supported;
    };
    const QList<Row> rows{
        {"nothing", [](ConvertSource&) {}, true},
        {"self subtitle",
         [](ConvertSource& s) {
             s.selfSubtitles.append({2, "en"});
         },
         false},
        {"attached audio",
         [](ConvertSource& s) {
             s.attachedAudio.append({0, "/a.mp3"});
         },
         false},
        {"attached subtitle",
         [](ConvertSource& s) {
             s.attachedSubtitle.append({0, "t", "/a.srt"});
         },
         false},
        {"cover", [](ConvertSource& s) { s.coverPath = "/cover.png"; }, false},
        {"cut",
         [](ConvertSource& s) {
             s.cut.append({0, 100});
         },
         false},
        {"speed 1.005", [](ConvertSource& s) { s.speed = 1.005f; }, false},
        {"speed 1.0000005", [](ConvertSource& s) { s.speed = 1.0000005f; }, true},
        {"speed 1.0", [](ConvertSource& s) { s.speed = 1.0f; }, true},
        {"brightness", [](ConvertSource& s) { s.baseFilter.brightness = 1; }, false},
        {"colour temperature", [](ConvertSource& s) { s.baseFilter.colorTemperature = -3; }, false},
        {"hue", [](ConvertSource& s) { s.baseFilter.hue = 5; }, false},
        {"volume 99", [](ConvertSource& s) { s.baseFilter.volume = 99; }, false},
        {"volume 0", [](ConvertSource& s) { s.baseFilter.volume = 0; }, false},
        {"mosaic", [](ConvertSource& s) { s.aiMosaic.path = "/mosaic.dat"; }, false},
        {"reframe", [](ConvertSource& s) { s.aiAutoReframe.path = "/reframe.dat"; }, true},
        {"operator", [](ConvertSource& s) { s.extraParam["operator"] = "Cpu"; }, false},
        {"operator dll", [](ConvertSource& s) { s.extraParam["operatorDllPath"] = "/x.dll"; },
         false},
        {"empty plug-in entries",
         [](ConvertSource& s) {
             s.extraParam = {{"plugin", QVariantMap()}, {"operator", ""}, {"deviceId", "3"}};
         },
         true},
        {"crop, rotation, watermark",
         [](ConvertSource& s) {
             s.crop = CropParam{0.1, 0.1, 0.5, 0.5, true, false, 90};
             s.waterMark.append(WaterMarkParam{});
         },
         true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ConvertSource source = sourceFor(path);
        row.edit(source);
        EXPECT_EQ(
            ConvertSourceHelper::isSupportedByTranscoderFFmpeg(source, outputAs("h264", "mp4")),
            row.supported);
    }
}

// An unreadable file fails the ffmpeg check but passes the other one.
TEST(SupportChecks, UnreadableFile)
{
    QTemporaryDir dir;
    const QString garbage = dir.filePath("garbage.mp4");
    QFile file(garbage);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, 'x'));
    file.close();
    for (const QString& path : {garbage, dir.filePath("missing.mp4"), QString()}) {
        SCOPED_TRACE(qPrintable(path));
        EXPECT_FALSE(ConvertSourceHelper::isSupportedByTranscoderFFmpeg(sourceFor(path),
                                                                        outputAs("h264", "mp4")));
        EXPECT_TRUE(isConverterSourceSupportedByTranscoder(sourceFor(path), QString()));
    }
}

TEST(TranscoderSupportCheck, SpeedFiltersAndMosaic)
{
    const QString path = h264Mp4();
    ASSERT_FALSE(path.isEmpty());
    struct Row
    {
        const char* what;
        std::function<void(ConvertSource&)> edit;
        bool supported;
    };
    const QList<Row> rows{
        {"nothing", [](ConvertSource&) {}, true},
        // The two checks differ on purpose: 1.005 is refused by the ffmpeg check.
        {"speed 1.005", [](ConvertSource& s) { s.speed = 1.005f; }, true},
        {"speed 0.995", [](ConvertSource& s) { s.speed = 0.995f; }, true},
        {"speed 1.02", [](ConvertSource& s) { s.speed = 1.02f; }, false},
        {"speed 2", [](ConvertSource& s) { s.speed = 2.0f; }, false},
        {"contrast", [](ConvertSource& s) { s.baseFilter.contrast = 10; }, false},
        {"sharpen", [](ConvertSource& s) { s.baseFilter.sharpen = 1; }, false},
        {"volume 150", [](ConvertSource& s) { s.baseFilter.volume = 150; }, false},
        {"mosaic", [](ConvertSource& s) { s.aiMosaic.path = "/mosaic.dat"; }, false},
        {"cuts and attached tracks",
         [](ConvertSource& s) {
             s.cut.append({0, 100});
             s.attachedAudio.append({0, "/a.mp3"});
             s.metaData["title"] = "New";
         },
         true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ConvertSource source = sourceFor(path);
        row.edit(source);
        EXPECT_EQ(isConverterSourceSupportedByTranscoder(source, QString()), row.supported);
    }
    ConvertSource fast = sourceFor(path);
    fast.speed = 1.005f;
    EXPECT_FALSE(ConvertSourceHelper::isSupportedByTranscoderFFmpeg(fast, outputAs("h264", "mp4")));
}

TEST(TranscoderSupportCheck, SocialOutputIsRefusedAndLogged)
{
    const QString path = h264Mp4();
    ASSERT_FALSE(path.isEmpty());
    for (const QString platform :
         {"YouTube", "Instagram", "TikTok", "Facebook", "Likee", "Vimeo"}) {
        SCOPED_TRACE(qPrintable(platform));
        LogCapture log;
        EXPECT_FALSE(isConverterSourceSupportedByTranscoder(sourceFor(path), platform));
        ASSERT_EQ(log.count("social output."), 1);
        const LogEntry entry = log.entries().constFirst();
        EXPECT_EQ(entry.text, "social output.");
        EXPECT_EQ(entry.function, "Korvane::isConverterSourceSupportedByTranscoder");
        EXPECT_EQ(entry.level, 0);
    }
    for (const QString platform : {"youtube", "Twitter", ""}) {
        SCOPED_TRACE(qPrintable(platform));
        LogCapture log;
        EXPECT_TRUE(isConverterSourceSupportedByTranscoder(sourceFor(path), platform));
        EXPECT_FALSE(log.contains("social output."));
    }
    // The filter checks come first: a social job with a colour edit logs nothing.
    LogCapture log;
    ConvertSource edited = sourceFor(path);
    edited.baseFilter.hue = 1;
    EXPECT_FALSE(isConverterSourceSupportedByTranscoder(edited, "YouTube"));
    EXPECT_FALSE(log.contains("social output."));
}

TEST(TranscoderSupportCheck, Bt2020VideoIsRefusedAsHdr)
{
    const QString hdr = media("hevc-bt2020.mp4",
                              kHevc10 + QStringList{"-colorspace", "bt2020nc", "-color_primaries",
                                                    "bt2020", "-color_trc", "smpte2084"});
    const QString sdr = media("hevc-10bit.mkv", kHevc10);
    ASSERT_FALSE(hdr.isEmpty());
    ASSERT_FALSE(sdr.isEmpty());

    LogCapture log;
    EXPECT_FALSE(isConverterSourceSupportedByTranscoder(sourceFor(hdr), QString()));
    EXPECT_EQ(log.count("HDR video"), 1);
    log.clear();
    EXPECT_TRUE(isConverterSourceSupportedByTranscoder(sourceFor(sdr), QString()));
    EXPECT_FALSE(log.contains("HDR video"));
}
