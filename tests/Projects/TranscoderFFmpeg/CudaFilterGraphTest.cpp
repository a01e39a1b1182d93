#include "CommandJobs.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

#include <optional>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kWide = "/wm/wide.png";         // 200x100
const QString kSquare = "/wm/square.png";     // 100x100
const QString kNarrowish = "/wm/190x100.png"; // wider than 16:9, same integer ratio
const QString kNoVideo = "/wm/novideo.png";

MediaInfoProbe marks()
{
    return pictureProbe({{kWide, QSize(200, 100)},
                         {kSquare, QSize(100, 100)},
                         {kNarrowish, QSize(190, 100)},
                         {kNoVideo, QSize()}});
}

using CudaCase = GraphCase;

QString build(const CudaCase& c)
{
    return makeCudaFilterCommand(graphSource(c), videoOut(c.outW, c.outH), c.info, marks());
}

const QString kDownload = "hwdownload,format=nv12";

} // namespace

TEST(CudaFilterGraph, PictureSteps)
{
    const CudaCase cases[] = {
        {"unchanged picture still downloads", videoInfo(1920, 1080), {}, {}, 1920, 1080, kDownload},
        {"full-picture crop record alone",
         videoInfo(1920, 1080),
         fullPicture(),
         {},
         1920,
         1080,
         kDownload},
        {"square output: scale and bars",
         videoInfo(1920, 1080),
         {},
         {},
         1080,
         1080,
         kDownload + ",scale=w=1080:h=607,pad=1080:1080:0:236"},
        {"same shape smaller: scale on the GPU only",
         videoInfo(1920, 1080),
         {},
         {},
         1280,
         720,
         "scale_cuda=w=1280:h=720"},
        {"ratios within a thousandth count as same shape",
         videoInfo(1920, 1080),
         {},
         {},
         1366,
         768,
         "scale_cuda=w=1366:h=768"},
        {"slightly different shape: scale by width and pad",
         videoInfo(1920, 1080),
         {},
         {},
         1360,
         768,
         kDownload + ",scale=w=1360:h=765,pad=1360:768:0:1"},
        {"narrower picture of the same height: bars only",
         videoInfo(1440, 1080),
         {},
         {},
         1920,
         1080,
         kDownload + ",pad=1920:1080:240:0"},
        {"shorter picture of the same width: bars only",
         videoInfo(1920, 800),
         {},
         {},
         1920,
         1080,
         kDownload + ",pad=1920:1080:0:140"},
        {"taller output: scale by height",
         videoInfo(1440, 1080),
         {},
         {},
         1280,
         720,
         kDownload + ",scale=w=960:h=720,pad=1280:720:160:0"},
        {"sample aspect ratio widens the picture",
         videoInfo(1440, 1080, "h264", 0, 4, 3),
         {},
         {},
         1280,
         720,
         "scale_cuda=w=1280:h=720"},
        {"zero sample aspect ratio counts as square",
         videoInfo(1440, 1080, "h264", 0, 0, 1),
         {},
         {},
         1280,
         720,
         kDownload + ",scale=w=960:h=720,pad=1280:720:160:0"},
        {"flipY alone is preceded by rotate=0",
         videoInfo(1920, 1080),
         fullPicture(false, true),
         {},
         1920,
         1080,
         kDownload + ",rotate=0,vflip"},
        {"flipX",
         videoInfo(1920, 1080),
         fullPicture(true, false),
         {},
         1920,
         1080,
         kDownload + ",hflip"},
        {"both flips need no rotate=0",
         videoInfo(1920, 1080),
         fullPicture(true, true),
         {},
         1920,
         1080,
         kDownload + ",hflip,vflip"},
        {"rotation 90 into the turned size",
         videoInfo(1920, 1080),
         fullPicture(false, false, 90),
         {},
         1080,
         1920,
         kDownload + ",transpose=1"},
        {"rotation 180 is one step",
         videoInfo(1920, 1080),
         fullPicture(false, false, 180),
         {},
         1920,
         1080,
         kDownload + ",transpose=1,transpose=1"},
        {"rotation 270 after a flip",
         videoInfo(1920, 1080),
         fullPicture(true, false, 270),
         {},
         1080,
         1920,
         kDownload + ",hflip,transpose=2"},
        {"other rotations add nothing",
         videoInfo(1920, 1080),
         fullPicture(false, false, 45),
         {},
         1920,
         1080,
         kDownload},
        {"edited picture of the same shape scales on the CPU",
         videoInfo(1920, 1080),
         fullPicture(false, false, 180),
         {},
         1280,
         720,
         kDownload + ",transpose=1,transpose=1,scale=w=1280:h=720"},
        {"crop to the output size",
         videoInfo(1920, 1080),
         crop(0.25, 0.25, 0.5, 0.5),
         {},
         960,
         540,
         kDownload + ",crop=x=480:y=270:w=960:h=540"},
        {"crop then scale up",
         videoInfo(1920, 1080),
         crop(0.25, 0.25, 0.5, 0.5),
         {},
         1920,
         1080,
         kDownload + ",crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080"},
        {"crop ignores the sample aspect ratio",
         videoInfo(1440, 1080, "h264", 0, 4, 3),
         crop(0.0, 0.0, 0.5, 1.0),
         {},
         720,
         1080,
         kDownload + ",crop=x=0:y=0:w=720:h=1080"},
        {"stream turned 90 exchanges the crop axes",
         videoInfo(1920, 1080, "h264", 90),
         crop(0.1, 0.2, 0.5, 0.5),
         {},
         540,
         960,
         kDownload + ",crop=x=108:y=384:w=540:h=960"},
        {"stream turned 270 keeps the crop axes",
         videoInfo(1920, 1080, "h264", 270),
         crop(0.1, 0.2, 0.5, 0.5),
         {},
         540,
         960,
         kDownload + ",crop=x=192:y=216:w=960:h=540,scale=w=540:h=303,pad=540:960:0:328"},
        {"stream turned 90 without crop record",
         videoInfo(1920, 1080, "h264", 90),
         {},
         {},
         1080,
         1920,
         kDownload},
        {"stream turned 270 scaled on the GPU",
         videoInfo(1920, 1080, "h264", 270),
         {},
         {},
         720,
         1280,
         "scale_cuda=w=720:h=1280"},
        {"stream turned 90 with full crop record",
         videoInfo(1920, 1080, "h264", 90),
         fullPicture(),
         {},
         720,
         1280,
         "scale_cuda=w=720:h=1280"},
        {"stream and crop record turned 90: only the record's rotation transposes",
         videoInfo(1920, 1080, "h264", 90),
         fullPicture(false, false, 90),
         {},
         1920,
         1080,
         kDownload + ",transpose=1"},
    };
    for (const CudaCase& c : cases) {
        EXPECT_EQ(build(c), c.expected) << c.name;
    }
}

TEST(CudaFilterGraph, Watermarks)
{
    const auto half = mark(kWide, 100, 50, 0.5f, 0.5f, 0.5f);
    const auto quarter = mark(kSquare, -200, -100, 1.0f, 0.25f, 0.25f);
    const CudaCase cases[] = {
        {"scale_cuda also downloads when overlays follow",
         videoInfo(1920, 1080),
         {},
         {half},
         960,
         540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];"
         "[1:v]scale=w=480:h=240,format=yuva444p,colorchannelmixer=aa=0.5[mark1];"
         "[video][mark1]overlay=x=290:y=125"},
        {"two watermarks chain through out1",
         videoInfo(1920, 1080),
         {},
         {half, quarter},
         960,
         540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];"
         "[1:v]scale=w=480:h=240,format=yuva444p,colorchannelmixer=aa=0.5[mark1];"
         "[video][mark1]overlay=x=290:y=125[out1];"
         "[2:v]scale=w=135:h=135,format=yuva444p,colorchannelmixer=aa=1[mark2];"
         "[out1][mark2]overlay=x=313:y=253"},
        {"integer ratio comparison sizes by height",
         videoInfo(1920, 1080),
         {},
         {mark(kNarrowish, 0, 0, 1.0f, 0.5f, 0.5f)},
         1920,
         1080,
         "[0:v]hwdownload,format=nv12[video];"
         "[1:v]scale=w=1026:h=540,format=yuva444p,colorchannelmixer=aa=1[mark1];"
         "[video][mark1]overlay=x=447:y=270"},
        {"taller picture sizes the mark by width",
         videoInfo(1080, 1920),
         {},
         {mark(kWide, 10, 20, 0.25f, 0.5f, 0.5f)},
         1080,
         1920,
         "[0:v]hwdownload,format=nv12[video];"
         "[1:v]scale=w=540:h=270,format=yuva444p,colorchannelmixer=aa=0.25[mark1];"
         "[video][mark1]overlay=x=280:y=805"},
        {"a mark that cannot be probed empties the graph",
         videoInfo(1920, 1080),
         fullPicture(true, false),
         {half, mark("/wm/missing.png", 0, 0, 1, 1, 1)},
         960,
         540,
         ""},
        {"a mark without a picture stream empties the graph",
         videoInfo(1920, 1080),
         {},
         {mark(kNoVideo, 0, 0, 1, 1, 1)},
         960,
         540,
         ""},
    };
    for (const CudaCase& c : cases) {
        EXPECT_EQ(build(c), c.expected) << c.name;
    }
}

TEST(CudaFilterGraph, FailuresAreEmptyAndLogged)
{
    const char* const function = "Korvane::makeCudaFilterCommand";
    const struct
    {
        const char* name;
        QSharedPointer<MediaInfoV3> info;
        std::optional<CropParam> crop;
        int outW;
        int outH;
        const char* log; // empty: nothing logged
    } cases[] = {
        {"no facts", nullptr, {}, 1920, 1080, ""},
        {"no video stream", audioOnlyInfo(), {}, 1920, 1080, ""},
        {"output height 0", videoInfo(1920, 1080), {}, 1920, 0, "size invalid: 0 1920 1080"},
        {"input width 0", videoInfo(0, 1080), {}, 1920, 1080, "size invalid: 1080 0 1080"},
        {"input height negative",
         videoInfo(1920, -4),
         {},
         1920,
         1080,
         "size invalid: 1080 1920 -4"},
        {"crop to no height", videoInfo(1920, 1080), crop(0, 0, 1, 0.0001), 1920, 1080,
         "imgH invalid: 0"},
        {"crop to no width", videoInfo(1920, 1080), crop(0, 0, 0.0001, 1), 1920, 1080,
         "imgW invalid: 0"},
        {"both gone: height reported", videoInfo(1920, 1080), crop(0, 0, 0, 0), 1920, 1080,
         "imgH invalid: 0"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ConvertSource source;
        source.crop = c.crop;
        EXPECT_EQ(makeCudaFilterCommand(source, videoOut(c.outW, c.outH), c.info, marks()),
                  QString())
            << c.name;
        if (QString(c.log).isEmpty()) {
            EXPECT_TRUE(log.entries().isEmpty()) << c.name;
            continue;
        }
        ASSERT_EQ(log.entries().size(), 1) << c.name;
        const LogEntry entry = log.entries().first();
        EXPECT_EQ(entry.text, QString(c.log)) << c.name;
        EXPECT_EQ(entry.function, QString(function)) << c.name;
        EXPECT_EQ(entry.file, QString("Projects/TranscoderFFmpeg/FFmpegCommandMaker")) << c.name;
        EXPECT_EQ(entry.level, 0) << c.name;
        EXPECT_EQ(entry.object, nullptr) << c.name;
    }
}

TEST(CudaFilterGraph, OutputWidthIsNotCheckedHere)
{
    // Only the command builder guards the output width; the graph is still made.
    ConvertSource source;
    EXPECT_FALSE(
        makeCudaFilterCommand(source, videoOut(0, 1080), videoInfo(1920, 1080), marks()).isEmpty());
}
