// The CUDA and QSV filter graphs side by side: one row, one job, both texts.
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
const QString kD = "hwdownload,format=nv12,";
const std::nullopt_t kNoCrop = std::nullopt;
const QList<WaterMarkParam> kNoMarks;

MediaInfoProbe pictures()
{
    return pictureProbe({{kWide, QSize(200, 100)},
                         {kSquare, QSize(100, 100)},
                         {kNarrowish, QSize(190, 100)},
                         {kNoVideo, QSize()}});
}

QSharedPointer<MediaInfoV3> in(int w, int h, double rotation = 0, int sarNum = 0, int sarDen = 1)
{
    return videoInfo(w, h, "h264", rotation, sarNum, sarDen);
}

std::optional<CropParam> crop(double x, double y, double w, double h, bool flipX = false,
                              bool flipY = false, int rotation = 0)
{
    return CropParam{x, y, w, h, flipX, flipY, rotation};
}

std::optional<CropParam> whole(bool flipX = false, bool flipY = false, int rotation = 0)
{
    return crop(0, 0, 1, 1, flipX, flipY, rotation);
}

template <typename... Marks>
QList<WaterMarkParam> marks(Marks... m)
{
    return {m...};
}

struct Row
{
    const char* name;
    QSharedPointer<MediaInfoV3> info;
    std::optional<CropParam> crop;
    QList<WaterMarkParam> waterMarks;
    int outW;
    int outH;
    QString cuda;
    QString qsv;
};

QString graph(const Row& r, bool qsv)
{
    ConvertSource source;
    source.filePath = "/in/clip.mp4";
    source.crop = r.crop;
    source.waterMark = r.waterMarks;
    AVTaskOutputParam::Video video;
    video.codecName = "h264";
    video.width = r.outW;
    video.height = r.outH;
    return qsv ? makeQsvFilterCommand(source, video, r.info, pictures())
               : makeCudaFilterCommand(source, video, r.info, pictures());
}

void expectGraphs(const Row& r)
{
    EXPECT_EQ(graph(r, false).toStdString(), r.cuda.toStdString()) << r.name;
    EXPECT_EQ(graph(r, true).toStdString(), r.qsv.toStdString()) << r.name;
}

} // namespace

TEST(FilterGraph, PictureSteps)
{
    const Row rows[] = {
        {"unchanged", in(1920, 1080), kNoCrop, kNoMarks, 1920, 1080, "hwdownload,format=nv12", ""},
        {"full crop record", in(1920, 1080), whole(), kNoMarks, 1920, 1080,
         "hwdownload,format=nv12", ""},
        {"same shape smaller", in(1920, 1080), kNoCrop, kNoMarks, 1280, 720,
         "scale_cuda=w=1280:h=720", "vpp_qsv=w=1280:h=720"},
        {"output width unchecked", in(1920, 1080), kNoCrop, kNoMarks, 0, 1080,
         kD + "scale=w=0:h=0,pad=0:1080:0:540", "vpp_qsv=w=0:h=0,pad=0:1080:0:540"},
        {"ratios within a thousandth", in(1920, 1080), kNoCrop, kNoMarks, 1366, 768,
         "scale_cuda=w=1366:h=768", "vpp_qsv=w=1365:h=768,pad=1366:768:0:0"},
        {"slightly other shape", in(1920, 1080), kNoCrop, kNoMarks, 1360, 768,
         kD + "scale=w=1360:h=765,pad=1360:768:0:1", "vpp_qsv=w=1360:h=765,pad=1360:768:0:1"},
        {"square output", in(1920, 1080), kNoCrop, kNoMarks, 1080, 1080,
         kD + "scale=w=1080:h=607,pad=1080:1080:0:236", "vpp_qsv=w=1080:h=607,pad=1080:1080:0:236"},
        {"taller output", in(1440, 1080), kNoCrop, kNoMarks, 1280, 720,
         kD + "scale=w=960:h=720,pad=1280:720:160:0", "vpp_qsv=w=960:h=720,pad=1280:720:160:0"},
        {"narrower, same height", in(1440, 1080), kNoCrop, kNoMarks, 1920, 1080,
         kD + "pad=1920:1080:240:0", "vpp_qsv=format=qsv,pad=1920:1080:240:0"},
        {"sar widens", in(1440, 1080, 0, 4, 3), kNoCrop, kNoMarks, 1280, 720,
         "scale_cuda=w=1280:h=720", "vpp_qsv=w=1280:h=720"},
        {"flipY alone", in(1920, 1080), whole(false, true), kNoMarks, 1920, 1080,
         kD + "rotate=0,vflip", "vpp_qsv=format=qsv,rotate=0,vflip"},
        {"both flips", in(1920, 1080), whole(true, true), kNoMarks, 1920, 1080, kD + "hflip,vflip",
         "vpp_qsv=format=qsv,hflip,vflip"},
        {"rotation 270 after a flip", in(1920, 1080), whole(true, false, 270), kNoMarks, 1080, 1920,
         kD + "hflip,transpose=2", "vpp_qsv=format=qsv,hflip,transpose=2"},
        {"other rotations", in(1920, 1080), whole(false, false, 45), kNoMarks, 1920, 1080,
         "hwdownload,format=nv12", ""},
        {"edited, same shape", in(1920, 1080), whole(false, false, 180), kNoMarks, 1280, 720,
         kD + "transpose=1,transpose=1,scale=w=1280:h=720",
         "vpp_qsv=w=1280:h=720,transpose=1,transpose=1"},
        {"turned resize, bars", in(1920, 1080), whole(false, false, 90), kNoMarks, 1920, 1080,
         kD + "transpose=1,scale=w=607:h=1080,pad=1920:1080:656:0",
         "vpp_qsv=w=1080:h=607,transpose=1,pad=1920:1080:656:0"},
        {"crop to output size", in(1920, 1080), crop(0.25, 0.25, 0.5, 0.5), kNoMarks, 960, 540,
         kD + "crop=x=480:y=270:w=960:h=540", "vpp_qsv=cx=480:cy=270:cw=960:ch=540"},
        {"crop, scale up", in(1920, 1080), crop(0.25, 0.25, 0.5, 0.5), kNoMarks, 1920, 1080,
         kD + "crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080",
         "vpp_qsv=cx=480:cy=270:cw=960:ch=540:w=1920:h=1080"},
        {"crop, flip, bars", in(1920, 1080), crop(0, 0, 0.5, 1, false, true), kNoMarks, 1920, 1080,
         kD + "crop=x=0:y=0:w=960:h=1080,rotate=0,vflip,pad=1920:1080:480:0",
         "vpp_qsv=cx=0:cy=0:cw=960:ch=1080,rotate=0,vflip,pad=1920:1080:480:0"},
        {"crop ignores sar", in(1440, 1080, 0, 4, 3), crop(0, 0, 0.5, 1), kNoMarks, 720, 1080,
         kD + "crop=x=0:y=0:w=720:h=1080", "vpp_qsv=cx=0:cy=0:cw=720:ch=1080"},
        {"stream 90: crop axes", in(1920, 1080, 90), crop(0.1, 0.2, 0.5, 0.5), kNoMarks, 540, 960,
         kD + "crop=x=108:y=384:w=540:h=960", "vpp_qsv=cx=384:cy=648:cw=960:ch=540,transpose=1"},
        {"stream 180: crop", in(1920, 1080, 180), crop(0.25, 0.25, 0.5, 0.5), kNoMarks, 1920, 1080,
         kD + "crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080",
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"stream 270: crop", in(1920, 1080, 270), crop(0.1, 0.2, 0.5, 0.5), kNoMarks, 540, 960,
         kD + "crop=x=192:y=216:w=960:h=540,scale=w=540:h=303,pad=540:960:0:328",
         "vpp_qsv=w=960:h=540,transpose=2"},
        {"stream 270: flipped crop", in(1920, 1080, 270), crop(0.25, 0.25, 0.5, 0.5, true),
         kNoMarks, 1080, 1920,
         kD + "crop=x=480:y=270:w=960:h=540,hflip,scale=w=1080:h=607,pad=1080:"
              "1920:0:656",
         "vpp_qsv=format=qsv,hflip,transpose=2"},
        {"stream 90 alone", in(1920, 1080, 90), kNoCrop, kNoMarks, 1080, 1920,
         "hwdownload,format=nv12", "vpp_qsv=format=qsv,transpose=1"},
        {"stream 270 scaled", in(1920, 1080, 270), kNoCrop, kNoMarks, 720, 1280,
         "scale_cuda=w=720:h=1280", "vpp_qsv=w=1280:h=720,transpose=2"},
        {"stream 90 + record 90", in(1920, 1080, 90), whole(false, false, 90), kNoMarks, 1920, 1080,
         kD + "transpose=1", "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"stream 90 + record 270, same size", in(1920, 1080, 90), whole(false, false, 270),
         kNoMarks, 1920, 1080, kD + "transpose=2", ""},
    };
    for (const Row& r : rows) {
        expectGraphs(r);
    }
}

TEST(FilterGraph, Watermarks)
{
    const auto half = mark(kWide, 100, 50, 0.5f, 0.5f, 0.5f);
    const auto quarter = mark(kSquare, -200, -100, 1.0f, 0.25f, 0.25f);
    const auto centred = mark(kSquare, 0, 0, 1.0f, 0.25f, 0.25f);
    const auto missing = mark("/wm/missing.png", 0, 0, 1, 1, 1);
    const Row rows[] = {
        {"one mark", in(1920, 1080), kNoCrop, marks(half), 960, 540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];"
         "[1:v]scale=w=480:h=240,format=yuva444p,colorchannelmixer=aa=0.5[mark1];"
         "[video][mark1]overlay=x=290:y=125",
         "[0:v]vpp_qsv=w=960:h=540[video];[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[video][mark1]overlay_qsv=x=290:y=125:w=480:h=240:alpha=127"},
        {"two marks chain through out1", in(1920, 1080), kNoCrop, marks(half, quarter), 960, 540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];"
         "[1:v]scale=w=480:h=240,format=yuva444p,colorchannelmixer=aa=0.5[mark1];"
         "[video][mark1]overlay=x=290:y=125[out1];"
         "[2:v]scale=w=135:h=135,format=yuva444p,colorchannelmixer=aa=1[mark2];"
         "[out1][mark2]overlay=x=313:y=253",
         "[0:v]vpp_qsv=w=960:h=540[video];[1:v]hwupload=extra_hw_frames=10[mark1];[video][mark1]"
         "overlay_qsv=x=290:y=125:w=480:h=240:alpha=127[out1];[2:v]hwupload=extra_hw_frames=10["
         "mark2];[out1][mark2]overlay_qsv=x=313:y=253:w=135:h=135:alpha=255"},
        {"empty chain", in(1920, 1080), kNoCrop, marks(mark(kWide, 0, 0, 1.0f, 0.5f, 0.5f)), 1920,
         1080,
         "[0:v]hwdownload,format=nv12[video];[1:v]scale=w=960:h=480,format=yuva444p,"
         "colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=480:y=300",
         "[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[0:v][mark1]overlay_qsv=x=480:y=300:w=960:h=480:alpha=255"},
        {"bars before overlays", in(1920, 1080), kNoCrop, marks(centred), 1080, 1080,
         "[0:v]hwdownload,format=nv12,scale=w=1080:h=607,pad=1080:1080:0:236[video];[1:v]scale=w="
         "151:h=151,format=yuva444p,colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=465:y="
         "465",
         "[0:v]vpp_qsv=w=1080:h=607,pad=1080:1080:0:236,hwupload=extra_hw_frames=10[video];"
         "[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[video][mark1]overlay_qsv=x=465:y=465:w=151:h=151:alpha=255"},
        {"integer ratio sizes by height", in(1920, 1080), kNoCrop,
         marks(mark(kNarrowish, 0, 0, 1.0f, 0.5f, 0.5f)), 1920, 1080,
         "[0:v]hwdownload,format=nv12[video];"
         "[1:v]scale=w=1026:h=540,format=yuva444p,colorchannelmixer=aa=1[mark1];"
         "[video][mark1]overlay=x=447:y=270",
         "[1:v]hwupload=extra_hw_frames=10[mark1];[0:v][mark1]overlay_qsv=x=447:y=270:w=1026:h=540:"
         "alpha=255"},
        {"taller picture sizes by width", in(1080, 1920), kNoCrop,
         marks(mark(kWide, 10, 20, 0.25f, 0.5f, 0.5f)), 1080, 1920,
         "[0:v]hwdownload,format=nv12[video];"
         "[1:v]scale=w=540:h=270,format=yuva444p,colorchannelmixer=aa=0.25[mark1];"
         "[video][mark1]overlay=x=280:y=805",
         "[1:v]hwupload=extra_hw_frames=10[mark1];[0:v][mark1]overlay_qsv=x=280:y=805:w=540:h=270:"
         "alpha=63"},
        {"past the right edge", in(1920, 1080), kNoCrop, marks(mark(kWide, 600, 0, 1, 0.5f, 0.5f)),
         960, 540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];[1:v]scale=w=480:h=240,format="
         "yuva444p,colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=540:y=150",
         "[0:v]vpp_qsv=w=960:h=540[video];"
         "[1:v]hwupload=extra_hw_frames=10,vpp_qsv=cx=0:cy=0:cw=175:ch=100[mark1];"
         "[video][mark1]overlay_qsv=x=540:y=150:w=420:h=240:alpha=255"},
        // Touching the right edge is not past it: nothing is cut.
        {"touching the right edge", in(1920, 1080), kNoCrop,
         marks(mark(kWide, 480, 0, 1, 0.5f, 0.5f)), 960, 540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];"
         "[1:v]scale=w=480:h=240,format=yuva444p,colorchannelmixer=aa=1[mark1];"
         "[video][mark1]overlay=x=480:y=150",
         "[0:v]vpp_qsv=w=960:h=540[video];[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[video][mark1]overlay_qsv=x=480:y=150:w=480:h=240:alpha=255"},
        {"past the bottom edge", in(1920, 1080), kNoCrop,
         marks(mark(kWide, 0, -400, 1, 0.5f, 0.5f)), 960, 540,
         "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];[1:v]scale=w=480:h=240,format="
         "yuva444p,colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=240:y=350",
         "[0:v]vpp_qsv=w=960:h=540[video];"
         "[1:v]hwupload=extra_hw_frames=10,vpp_qsv=cx=0:cy=0:cw=200:ch=100[mark1];"
         "[video][mark1]overlay_qsv=x=240:y=350:w=720:h=240:alpha=255"},
        {"unprobed mark", in(1920, 1080), whole(true), marks(half, missing), 960, 540, "", ""},
        {"mark without picture", in(1920, 1080), kNoCrop, marks(mark(kNoVideo, 0, 0, 1, 1, 1)), 960,
         540, "", ""},
    };
    for (const Row& r : rows) {
        expectGraphs(r);
    }
}

// A graph that cannot be made is empty; a bad size says so in the log. The
// cuda/qsv fields hold the log text: "" for nothing, "graph" when one is made.
TEST(FilterGraph, FailuresAreEmptyAndLogged)
{
    const Row rows[] = {
        {"no facts", nullptr, kNoCrop, kNoMarks, 1920, 1080, "", ""},
        {"no video stream", audioOnlyInfo(), kNoCrop, kNoMarks, 1920, 1080, "", ""},
        {"output height 0", in(1920, 1080), kNoCrop, kNoMarks, 1920, 0, "size invalid: 0 1920 1080",
         "size invalid: 0 1920 1080"},
        {"input width 0", in(0, 1080), kNoCrop, kNoMarks, 1920, 1080, "size invalid: 1080 0 1080",
         "size invalid: 1080 0 1080"},
        {"input height 0", in(1920, 0), kNoCrop, kNoMarks, 1920, 1080, "size invalid: 1080 1920 0",
         "size invalid: 1080 1920 0"},
        {"crop to no height", in(1920, 1080), crop(0, 0, 1, 0.0001), kNoMarks, 1920, 1080,
         "imgH invalid: 0", "imgH invalid: 0"},
        {"crop to no width", in(1920, 1080), crop(0, 0, 0.0001, 1), kNoMarks, 1920, 1080,
         "imgW invalid: 0", "imgW invalid: 0"},
        {"flat mark past the edge", in(1920, 1080), kNoCrop, marks(mark(kSquare, 1000, 0, 1, 0, 0)),
         960, 540, "graph", "marKH invalid: 0"},
    };
    for (const Row& r : rows) {
        for (const bool qsv : {false, true}) {
            const QString expected = qsv ? r.qsv : r.cuda;
            LogCapture log;
            const QString made = graph(r, qsv);
            SCOPED_TRACE(std::string(r.name) + (qsv ? " (qsv)" : " (cuda)"));
            EXPECT_EQ(made.isEmpty(), expected != "graph") << made.toStdString();
            if (expected.isEmpty() || expected == "graph") {
                EXPECT_TRUE(log.entries().isEmpty());
                continue;
            }
            ASSERT_EQ(log.entries().size(), 1);
            const LogEntry entry = log.entries().first();
            EXPECT_EQ(entry.text, expected);
            EXPECT_EQ(entry.function, qsv ? QString("Korvane::makeQsvFilterCommand")
                                          : QString("Korvane::makeCudaFilterCommand"));
        }
    }
}
