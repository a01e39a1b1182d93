#include "PathChoice.h"

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

struct Counted
{
    bool ffmpeg = true;
    bool transcoder = true;
    QSize display = QSize(1920, 1080);
    int ffmpegCalls = 0;
    int transcoderCalls = 0;

    PathFacts facts()
    {
        return {[this] {
                    ++ffmpegCalls;
                    return ffmpeg;
                },
                [this] {
                    ++transcoderCalls;
                    return transcoder;
                },
                [this] { return display; }};
    }
};

ConvertJob plainJob()
{
    ConvertJob job;
    job.source.filePath = "in.mp4";
    job.output.video.codecName = "h264";
    return job;
}

} // namespace

TEST(PathChoice, EditsThatOnlyGpuFilterGraphsApply)
{
    struct Case
    {
        const char* label;
        std::function<void(ConvertJob&)> edit;
        QStringList edits;
    };
    const QList<Case> cases = {
        {"nothing", [](ConvertJob&) {}, {}},
        {"full-picture crop", [](ConvertJob& j) { j.source.crop = CropParam(); }, {}},
        {"rotation 360",
         [](ConvertJob& j) { j.source.crop = CropParam{0, 0, 1, 1, false, false, 360}; },
         {}},
        {"same size",
         [](ConvertJob& j) { j.output.video.width = 1920, j.output.video.height = 1080; },
         {}},
        {"half size unset", [](ConvertJob& j) { j.output.video.width = 1280; }, {}},
        {"crop",
         [](ConvertJob& j) { j.source.crop = CropParam{0, 0, 0.5, 1, false, false, 0}; },
         {"crop"}},
        {"flip",
         [](ConvertJob& j) { j.source.crop = CropParam{0, 0, 1, 1, false, true, 0}; },
         {"flip"}},
        {"rotation",
         [](ConvertJob& j) { j.source.crop = CropParam{0, 0, 1, 1, false, false, 90}; },
         {"rotation 90"}},
        {"watermark",
         [](ConvertJob& j) { j.source.waterMark.append(WaterMarkParam()); },
         {"watermark"}},
        {"resize",
         [](ConvertJob& j) { j.output.video.width = 1280, j.output.video.height = 720; },
         {"size 1280x720 differs from the input's 1920x1080"}},
        {"everything",
         [](ConvertJob& j) {
             j.source.crop = CropParam{0.1, 0, 0.5, 1, true, false, 180};
             j.source.waterMark.append(WaterMarkParam());
         },
         {"crop", "flip", "rotation 180", "watermark"}},
    };
    for (const Case& c : cases) {
        ConvertJob job = plainJob();
        c.edit(job);
        EXPECT_EQ(editsNeedingGpuFilters(job, QSize(1920, 1080)), c.edits) << c.label;
    }
    ConvertJob sized = plainJob();
    sized.output.video.width = 640;
    sized.output.video.height = 360;
    EXPECT_EQ(editsNeedingGpuFilters(sized, QSize()),
              QStringList({"size 640x360 (input size unknown)"}));
}

TEST(PathChoice, HostChoiceTable)
{
    struct Case
    {
        const char* label;
        QString gpu;
        bool withCrop;
        bool ffmpeg;
        bool transcoder;
        ConvertPath path;
        bool intel;
        const char* reasonPart;
    };
    const QList<Case> cases = {
        {"plain job, no gpu", "", false, true, true, ConvertPath::FFmpeg, false, "no edit"},
        {"crop, nvidia", "NVIDIA GPU [10de:2330]", true, true, true, ConvertPath::FFmpeg, false,
         "NVIDIA GPU applies"},
        {"crop, intel", "Intel GPU [8086:3e92]", true, true, true, ConvertPath::FFmpeg, true,
         "Intel GPU applies"},
        {"crop, lower-case nvidia is no gpu", "nvidia", true, true, true, ConvertPath::Converter,
         false, "would drop: crop"},
        {"crop, no gpu, converter refuses", "", true, true, false, ConvertPath::Export, false,
         "converter check refuses"},
        {"ffmpeg refuses", "NVIDIA", false, false, true, ConvertPath::Converter, false,
         "ffmpeg support check refuses"},
        {"both refuse", "", false, false, false, ConvertPath::Export, false, "refuses"},
    };
    for (const Case& c : cases) {
        ConvertJob job = plainJob();
        job.output.acceleration.gpuName = c.gpu;
        if (c.withCrop) {
            job.source.crop = CropParam{0, 0, 0.5, 0.5, false, false, 0};
        }
        Counted counted;
        counted.ffmpeg = c.ffmpeg;
        counted.transcoder = c.transcoder;
        const PathDecision d = choosePath(job, ForcedPath::None, counted.facts());
        EXPECT_EQ(d.path, c.path) << c.label;
        EXPECT_EQ(d.intelFactory, c.intel) << c.label;
        EXPECT_TRUE(d.reason.startsWith("path " + pathName(c.path) + ": ")) << c.label;
        EXPECT_TRUE(d.reason.contains(c.reasonPart)) << d.reason.toStdString();
        EXPECT_EQ(counted.ffmpegCalls, 1) << c.label;
        EXPECT_EQ(counted.transcoderCalls, c.path == ConvertPath::FFmpeg ? 0 : 1) << c.label;
    }
}

TEST(PathChoice, ForcedPathAsksNoCheck)
{
    const QList<QPair<ForcedPath, ConvertPath>> cases = {
        {ForcedPath::FFmpeg, ConvertPath::FFmpeg},
        {ForcedPath::Converter, ConvertPath::Converter},
        {ForcedPath::Export, ConvertPath::Export},
    };
    for (const auto& [forced, path] : cases) {
        ConvertJob job = plainJob();
        job.output.acceleration.gpuName = "Intel";
        Counted counted;
        counted.ffmpeg = false;
        const PathDecision d = choosePath(job, forced, counted.facts());
        EXPECT_EQ(d.path, path);
        EXPECT_TRUE(d.intelFactory);
        EXPECT_EQ(d.reason, "path " + pathName(path) + ": forced with --path");
        EXPECT_EQ(counted.ffmpegCalls + counted.transcoderCalls, 0);
    }
}
