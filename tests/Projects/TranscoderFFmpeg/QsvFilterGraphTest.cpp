#include "CommandJobs.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

#include <optional>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kWide = "/wm/wide.png";     // 200x100
const QString kSquare = "/wm/square.png"; // 100x100

MediaInfoProbe marks()
{
    return pictureProbe({{kWide, QSize(200, 100)}, {kSquare, QSize(100, 100)}});
}

using QsvCase = GraphCase;

QString build(const QsvCase& c)
{
    return makeQsvFilterCommand(graphSource(c), videoOut(c.outW, c.outH), c.info, marks());
}

} // namespace

TEST(QsvFilterGraph, PictureSteps)
{
    const QsvCase cases[] = {
        {"unchanged picture needs no graph", videoInfo(1920, 1080), {}, {}, 1920, 1080, ""},
        {"full-picture crop record alone",
         videoInfo(1920, 1080),
         fullPicture(),
         {},
         1920,
         1080,
         ""},
        {"same shape smaller", videoInfo(1920, 1080), {}, {}, 1280, 720, "vpp_qsv=w=1280:h=720"},
        {"square output: resize by width and bars",
         videoInfo(1920, 1080),
         {},
         {},
         1080,
         1080,
         "vpp_qsv=w=1080:h=607,pad=1080:1080:0:236"},
        {"taller output: resize by height and bars",
         videoInfo(1440, 1080),
         {},
         {},
         1280,
         720,
         "vpp_qsv=w=960:h=720,pad=1280:720:160:0"},
        {"narrower picture of the same height: bars only",
         videoInfo(1440, 1080),
         {},
         {},
         1920,
         1080,
         "vpp_qsv=format=qsv,pad=1920:1080:240:0"},
        {"sample aspect ratio widens the picture",
         videoInfo(1440, 1080, "h264", 0, 4, 3),
         {},
         {},
         1920,
         1080,
         ""},
        {"flipY alone is preceded by rotate=0",
         videoInfo(1920, 1080),
         fullPicture(false, true),
         {},
         1920,
         1080,
         "vpp_qsv=format=qsv,rotate=0,vflip"},
        {"both flips need no rotate=0",
         videoInfo(1920, 1080),
         fullPicture(true, true),
         {},
         1920,
         1080,
         "vpp_qsv=format=qsv,hflip,vflip"},
        {"flipX after a resize",
         videoInfo(1920, 1080),
         fullPicture(true, false),
         {},
         1280,
         720,
         "vpp_qsv=w=1280:h=720,hflip"},
        {"rotation 90 into the turned size",
         videoInfo(1920, 1080),
         fullPicture(false, false, 90),
         {},
         1080,
         1920,
         "vpp_qsv=format=qsv,transpose=1"},
        {"rotation 180",
         videoInfo(1920, 1080),
         fullPicture(false, false, 180),
         {},
         1920,
         1080,
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"rotation 270",
         videoInfo(1920, 1080),
         fullPicture(false, false, 270),
         {},
         1080,
         1920,
         "vpp_qsv=format=qsv,transpose=2"},
        {"turned resize is given before the transpose",
         videoInfo(1920, 1080),
         fullPicture(false, false, 90),
         {},
         720,
         1280,
         "vpp_qsv=w=1280:h=720,transpose=1"},
        {"turned resize with bars",
         videoInfo(1920, 1080),
         fullPicture(false, false, 90),
         {},
         1920,
         1080,
         "vpp_qsv=w=1080:h=607,transpose=1,pad=1920:1080:656:0"},
        {"stream rotation alone transposes",
         videoInfo(1920, 1080, "h264", 270),
         {},
         {},
         1080,
         1920,
         "vpp_qsv=format=qsv,transpose=2"},
        {"stream 90 plus record 270 is 360: no transpose",
         videoInfo(1920, 1080, "h264", 90),
         fullPicture(false, false, 270),
         {},
         1280,
         720,
         "vpp_qsv=w=1280:h=720"},
        {"stream 90 plus record 270 on an unchanged size: nothing",
         videoInfo(1920, 1080, "h264", 90),
         fullPicture(false, false, 270),
         {},
         1920,
         1080,
         ""},
        {"stream 90 plus record 90 is 180",
         videoInfo(1920, 1080, "h264", 90),
         fullPicture(false, false, 90),
         {},
         1920,
         1080,
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"crop to the output size",
         videoInfo(1920, 1080),
         crop(0.25, 0.25, 0.5, 0.5),
         {},
         960,
         540,
         "vpp_qsv=cx=480:cy=270:cw=960:ch=540"},
        {"crop then resize in the same step",
         videoInfo(1920, 1080),
         crop(0.25, 0.25, 0.5, 0.5),
         {},
         1920,
         1080,
         "vpp_qsv=cx=480:cy=270:cw=960:ch=540:w=1920:h=1080"},
        {"crop, flip and bars",
         videoInfo(1920, 1080),
         crop(0.0, 0.0, 0.5, 1.0, false, true),
         {},
         1920,
         1080,
         "vpp_qsv=cx=0:cy=0:cw=960:ch=1080,rotate=0,vflip,pad=1920:1080:480:0"},
        {"crop on a stream turned 90 maps the rectangle its own way",
         videoInfo(1920, 1080, "h264", 90),
         crop(0.25, 0.125, 0.5, 0.25),
         {},
         540,
         480,
         "vpp_qsv=cx=240:cy=810:cw=480:ch=540,transpose=1"},
        {"crop on a stream turned 180 is ignored",
         videoInfo(1920, 1080, "h264", 180),
         crop(0.25, 0.25, 0.5, 0.5),
         {},
         1920,
         1080,
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"crop on a stream turned 270 is ignored",
         videoInfo(1920, 1080, "h264", 270),
         crop(0.25, 0.25, 0.5, 0.5, true),
         {},
         1080,
         1920,
         "vpp_qsv=format=qsv,hflip,transpose=2"},
    };
    for (const QsvCase& c : cases) {
        EXPECT_EQ(build(c), c.expected) << c.name;
    }
}

TEST(QsvFilterGraph, Watermarks)
{
    const auto half = mark(kWide, 100, 50, 0.5f, 0.5f, 0.5f);
    const auto centred = mark(kSquare, 0, 0, 1.0f, 0.25f, 0.25f);
    const QsvCase cases[] = {
        {"alpha 0.5 blends with 127",
         videoInfo(1920, 1080),
         {},
         {half},
         960,
         540,
         "[0:v]vpp_qsv=w=960:h=540[video];"
         "[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[video][mark1]overlay_qsv=x=290:y=125:w=480:h=240:alpha=127"},
        {"empty chain overlays the input directly",
         videoInfo(1920, 1080),
         {},
         {mark(kWide, 0, 0, 1.0f, 0.5f, 0.5f)},
         1920,
         1080,
         "[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[0:v][mark1]overlay_qsv=x=480:y=300:w=960:h=480:alpha=255"},
        {"two watermarks chain through out1",
         videoInfo(1920, 1080),
         {},
         {half, centred},
         960,
         540,
         "[0:v]vpp_qsv=w=960:h=540[video];"
         "[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[video][mark1]overlay_qsv=x=290:y=125:w=480:h=240:alpha=127[out1];"
         "[2:v]hwupload=extra_hw_frames=10[mark2];"
         "[out1][mark2]overlay_qsv=x=413:y=203:w=135:h=135:alpha=255"},
        {"bars upload the picture again before overlays",
         videoInfo(1920, 1080),
         {},
         {centred},
         1080,
         1080,
         "[0:v]vpp_qsv=w=1080:h=607,pad=1080:1080:0:236,hwupload=extra_hw_frames=10[video];"
         "[1:v]hwupload=extra_hw_frames=10[mark1];"
         "[video][mark1]overlay_qsv=x=465:y=465:w=151:h=151:alpha=255"},
        {"past the right edge: cut to the edge",
         videoInfo(1920, 1080),
         {},
         {mark(kWide, 600, 0, 1.0f, 0.5f, 0.5f)},
         960,
         540,
         "[0:v]vpp_qsv=w=960:h=540[video];"
         "[1:v]hwupload=extra_hw_frames=10,vpp_qsv=cx=0:cy=0:cw=175:ch=100[mark1];"
         "[video][mark1]overlay_qsv=x=540:y=150:w=420:h=240:alpha=255"},
        {"past the bottom edge: width cut to the edge as well",
         videoInfo(1920, 1080),
         {},
         {mark(kWide, 0, -400, 1.0f, 0.5f, 0.5f)},
         960,
         540,
         "[0:v]vpp_qsv=w=960:h=540[video];"
         "[1:v]hwupload=extra_hw_frames=10,vpp_qsv=cx=0:cy=0:cw=200:ch=100[mark1];"
         "[video][mark1]overlay_qsv=x=240:y=350:w=720:h=240:alpha=255"},
        {"a mark that cannot be probed empties the graph",
         videoInfo(1920, 1080),
         {},
         {half, mark("/wm/missing.png", 0, 0, 1, 1, 1)},
         960,
         540,
         ""},
    };
    for (const QsvCase& c : cases) {
        EXPECT_EQ(build(c), c.expected) << c.name;
    }
}

TEST(QsvFilterGraph, AlphaIsTruncatedTo255Steps)
{
    const struct
    {
        float alpha;
        int expected;
    } cases[] = {{0.0f, 0}, {0.5f, 127}, {0.1f, 25}, {0.999f, 254}, {1.0f, 255}};
    for (const auto& c : cases) {
        ConvertSource source;
        source.waterMark = {mark(kSquare, 0, 0, c.alpha, 0.25f, 0.25f)};
        const QString graph =
            makeQsvFilterCommand(source, videoOut(1920, 1080), videoInfo(1920, 1080), marks());
        EXPECT_TRUE(graph.endsWith(QString(":alpha=%1").arg(c.expected))) << graph.toStdString();
    }
}

TEST(QsvFilterGraph, FailuresAreEmptyAndLogged)
{
    const struct
    {
        const char* name;
        QSharedPointer<MediaInfoV3> info;
        std::optional<CropParam> crop;
        QList<WaterMarkParam> waterMarks;
        int outW;
        int outH;
        const char* log; // empty: nothing logged
    } cases[] = {
        {"no facts", nullptr, {}, {}, 1920, 1080, ""},
        {"no video stream", audioOnlyInfo(), {}, {}, 1920, 1080, ""},
        {"output height 0", videoInfo(1920, 1080), {}, {}, 1920, 0, "size invalid: 0 1920 1080"},
        {"input height 0", videoInfo(1920, 0), {}, {}, 1920, 1080, "size invalid: 1080 1920 0"},
        {"crop to no height",
         videoInfo(1920, 1080),
         crop(0, 0, 1, 0.0001),
         {},
         1920,
         1080,
         "imgH invalid: 0"},
        {"crop to no width",
         videoInfo(1920, 1080),
         crop(0, 0, 0.0001, 1),
         {},
         1920,
         1080,
         "imgW invalid: 0"},
        {"flat mark past the edge",
         videoInfo(1920, 1080),
         {},
         {mark(kSquare, 1000, 0, 1.0f, 0.0f, 0.0f)},
         960,
         540,
         "marKH invalid: 0"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ConvertSource source;
        source.crop = c.crop;
        source.waterMark = c.waterMarks;
        EXPECT_EQ(makeQsvFilterCommand(source, videoOut(c.outW, c.outH), c.info, marks()),
                  QString())
            << c.name;
        if (QString(c.log).isEmpty()) {
            EXPECT_TRUE(log.entries().isEmpty()) << c.name;
            continue;
        }
        ASSERT_EQ(log.entries().size(), 1) << c.name;
        const LogEntry entry = log.entries().first();
        EXPECT_EQ(entry.text, QString(c.log)) << c.name;
        EXPECT_EQ(entry.function, QString("Korvane::makeQsvFilterCommand")) << c.name;
        EXPECT_EQ(entry.file, QString("Projects/TranscoderFFmpeg/FFmpegCommandMaker")) << c.name;
        EXPECT_EQ(entry.level, 0) << c.name;
    }
}
