// The CUDA and QSV filter graphs side by side: one row, one job, both texts.
// Jobs are changed as CommandJobs::job() reads them.
#include "CommandJobs.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kD = "hwdownload,format=nv12,";

struct Row
{
    QString changes;
    QString cuda;
    QString qsv;
};

QString graph(const QString& changes, bool qsv)
{
    const Job j = job(changes);
    return qsv ? makeQsvFilterCommand(j.source, j.param.video, j.facts.info, j.facts.probe)
               : makeCudaFilterCommand(j.source, j.param.video, j.facts.info, j.facts.probe);
}

void expectGraphs(const Row& r)
{
    EXPECT_EQ(graph(r.changes, false).toStdString(), r.cuda.toStdString())
        << r.changes.toStdString();
    EXPECT_EQ(graph(r.changes, true).toStdString(), r.qsv.toStdString()) << r.changes.toStdString();
}

} // namespace

TEST(FilterGraph, PictureSteps)
{
    const Row rows[] = {
        {"size=1920x1080", "hwdownload,format=nv12", ""},
        {"size=1920x1080;crop=0,0,1,1", "hwdownload,format=nv12", ""},
        {"size=1280x720", "scale_cuda=w=1280:h=720", "vpp_qsv=w=1280:h=720"},
        {"size=0x1080", kD + "scale=w=0:h=0,pad=0:1080:0:540", "vpp_qsv=w=0:h=0,pad=0:1080:0:540"},
        // Shapes within a thousandth count as the same.
        {"size=1366x768", "scale_cuda=w=1366:h=768", "vpp_qsv=w=1365:h=768,pad=1366:768:0:0"},
        {"size=1360x768", kD + "scale=w=1360:h=765,pad=1360:768:0:1",
         "vpp_qsv=w=1360:h=765,pad=1360:768:0:1"},
        {"size=1080x1080", kD + "scale=w=1080:h=607,pad=1080:1080:0:236",
         "vpp_qsv=w=1080:h=607,pad=1080:1080:0:236"},
        {"picture=1440,1080;size=1280x720", kD + "scale=w=960:h=720,pad=1280:720:160:0",
         "vpp_qsv=w=960:h=720,pad=1280:720:160:0"},
        {"picture=1440,1080;size=1920x1080", kD + "pad=1920:1080:240:0",
         "vpp_qsv=format=qsv,pad=1920:1080:240:0"},
        {"picture=1440,1080,0,4,3;size=1280x720", "scale_cuda=w=1280:h=720",
         "vpp_qsv=w=1280:h=720"},
        {"size=1920x1080;crop=0,0,1,1,0,1", kD + "rotate=0,vflip",
         "vpp_qsv=format=qsv,rotate=0,vflip"},
        {"size=1920x1080;crop=0,0,1,1,1,1", kD + "hflip,vflip", "vpp_qsv=format=qsv,hflip,vflip"},
        {"size=1080x1920;crop=0,0,1,1,1,0,270", kD + "hflip,transpose=2",
         "vpp_qsv=format=qsv,hflip,transpose=2"},
        {"size=1920x1080;crop=0,0,1,1,0,0,45", "hwdownload,format=nv12", ""},
        {"size=1280x720;crop=0,0,1,1,0,0,180", kD + "transpose=1,transpose=1,scale=w=1280:h=720",
         "vpp_qsv=w=1280:h=720,transpose=1,transpose=1"},
        {"size=1920x1080;crop=0,0,1,1,0,0,90",
         kD + "transpose=1,scale=w=607:h=1080,pad=1920:1080:656:0",
         "vpp_qsv=w=1080:h=607,transpose=1,pad=1920:1080:656:0"},
        {"size=960x540;crop=0.25,0.25,0.5,0.5", kD + "crop=x=480:y=270:w=960:h=540",
         "vpp_qsv=cx=480:cy=270:cw=960:ch=540"},
        {"size=1920x1080;crop=0.25,0.25,0.5,0.5",
         kD + "crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080",
         "vpp_qsv=cx=480:cy=270:cw=960:ch=540:w=1920:h=1080"},
        {"size=1920x1080;crop=0,0,0.5,1,0,1",
         kD + "crop=x=0:y=0:w=960:h=1080,rotate=0,vflip,pad=1920:1080:480:0",
         "vpp_qsv=cx=0:cy=0:cw=960:ch=1080,rotate=0,vflip,pad=1920:1080:480:0"},
        {"picture=1440,1080,0,4,3;size=720x1080;crop=0,0,0.5,1", kD + "crop=x=0:y=0:w=720:h=1080",
         "vpp_qsv=cx=0:cy=0:cw=720:ch=1080"},
        // Turned streams: the crop is in the stored picture's axes.
        {"picture=1920,1080,90;size=540x960;crop=0.1,0.2,0.5,0.5",
         kD + "crop=x=108:y=384:w=540:h=960", "vpp_qsv=cx=384:cy=648:cw=960:ch=540,transpose=1"},
        {"picture=1920,1080,180;size=1920x1080;crop=0.25,0.25,0.5,0.5",
         kD + "crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080",
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"picture=1920,1080,270;size=540x960;crop=0.1,0.2,0.5,0.5",
         kD + "crop=x=192:y=216:w=960:h=540,scale=w=540:h=303,pad=540:960:0:328",
         "vpp_qsv=w=960:h=540,transpose=2"},
        {"picture=1920,1080,270;size=1080x1920;crop=0.25,0.25,0.5,0.5,1",
         kD + "crop=x=480:y=270:w=960:h=540,hflip,scale=w=1080:h=607,pad=1080:1920:0:656",
         "vpp_qsv=format=qsv,hflip,transpose=2"},
        {"picture=1920,1080,90;size=1080x1920", "hwdownload,format=nv12",
         "vpp_qsv=format=qsv,transpose=1"},
        {"picture=1920,1080,270;size=720x1280", "scale_cuda=w=720:h=1280",
         "vpp_qsv=w=1280:h=720,transpose=2"},
        {"picture=1920,1080,90;size=1920x1080;crop=0,0,1,1,0,0,90", kD + "transpose=1",
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"picture=1920,1080,90;size=1920x1080;crop=0,0,1,1,0,0,270", kD + "transpose=2", ""},
    };
    for (const Row& r : rows) {
        expectGraphs(r);
    }
}

// Marks are sized against the output; a mark past an edge is cut on QSV.
TEST(FilterGraph, Watermarks)
{
    const QString half = "mark=/wm/wide.png,100,50,0.5,0.5";
    const QString cudaVideo = "[0:v]scale_cuda=w=960:h=540,hwdownload,format=nv12[video];";
    const QString cudaHalf = "[1:v]scale=w=480:h=240,format=yuva444p,colorchannelmixer=aa=";
    const QString qsvVideo = "[0:v]vpp_qsv=w=960:h=540[video];[1:v]hwupload=extra_hw_frames=10";
    const Row rows[] = {
        {"size=960x540;" + half,
         cudaVideo + cudaHalf + "0.5[mark1];[video][mark1]overlay=x=290:y=125",
         qsvVideo + "[mark1];[video][mark1]overlay_qsv=x=290:y=125:w=480:h=240:alpha=127"},
        {"size=960x540;" + half + ";mark=/wm/square.png,-200,-100,1,0.25",
         cudaVideo + cudaHalf +
             "0.5[mark1];[video][mark1]overlay=x=290:y=125[out1];[2:v]scale=w=135:"
             "h=135,format=yuva444p,colorchannelmixer=aa=1[mark2];[out1][mark2]"
             "overlay=x=313:y=253",
         qsvVideo +
             "[mark1];[video][mark1]overlay_qsv=x=290:y=125:w=480:h=240:alpha=127[out1];[2:v]"
             "hwupload=extra_hw_frames=10[mark2];[out1][mark2]overlay_qsv=x=313:y=253:w=135:"
             "h=135:alpha=255"},
        {"size=1920x1080;mark=/wm/wide.png,0,0,1,0.5",
         "[0:v]hwdownload,format=nv12[video];[1:v]scale=w=960:h=480,format=yuva444p,"
         "colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=480:y=300",
         "[1:v]hwupload=extra_hw_frames=10[mark1];[0:v][mark1]overlay_qsv=x=480:y=300:w=960:h=480:"
         "alpha=255"},
        {"size=1080x1080;mark=/wm/square.png,0,0,1,0.25",
         "[0:v]hwdownload,format=nv12,scale=w=1080:h=607,pad=1080:1080:0:236[video];[1:v]scale=w="
         "151:h=151,format=yuva444p,colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=465:y="
         "465",
         "[0:v]vpp_qsv=w=1080:h=607,pad=1080:1080:0:236,hwupload=extra_hw_frames=10[video];[1:v]"
         "hwupload=extra_hw_frames=10[mark1];[video][mark1]overlay_qsv=x=465:y=465:w=151:h=151:"
         "alpha=255"},
        {"size=1920x1080;mark=/wm/190x100.png,0,0,1,0.5",
         "[0:v]hwdownload,format=nv12[video];[1:v]scale=w=1026:h=540,format=yuva444p,"
         "colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=447:y=270",
         "[1:v]hwupload=extra_hw_frames=10[mark1];[0:v][mark1]overlay_qsv=x=447:y=270:w=1026:h=540:"
         "alpha=255"},
        {"picture=1080,1920;size=1080x1920;mark=/wm/wide.png,10,20,0.25,0.5",
         "[0:v]hwdownload,format=nv12[video];[1:v]scale=w=540:h=270,format=yuva444p,"
         "colorchannelmixer=aa=0.25[mark1];[video][mark1]overlay=x=280:y=805",
         "[1:v]hwupload=extra_hw_frames=10[mark1];[0:v][mark1]overlay_qsv=x=280:y=805:w=540:h=270:"
         "alpha=63"},
        {"size=960x540;mark=/wm/wide.png,600,0,1,0.5",
         cudaVideo + cudaHalf + "1[mark1];[video][mark1]overlay=x=540:y=150",
         qsvVideo + ",vpp_qsv=cx=0:cy=0:cw=175:ch=100[mark1];[video][mark1]overlay_qsv=x=540:y=150:"
                    "w=420:h=240:alpha=255"},
        // Touching the right edge is not past it: nothing is cut.
        {"size=960x540;mark=/wm/wide.png,480,0,1,0.5",
         cudaVideo + cudaHalf + "1[mark1];[video][mark1]overlay=x=480:y=150",
         qsvVideo + "[mark1];[video][mark1]overlay_qsv=x=480:y=150:w=480:h=240:alpha=255"},
        {"size=960x540;mark=/wm/wide.png,0,-400,1,0.5",
         cudaVideo + cudaHalf + "1[mark1];[video][mark1]overlay=x=240:y=350",
         qsvVideo + ",vpp_qsv=cx=0:cy=0:cw=200:ch=100[mark1];[video][mark1]overlay_qsv=x=240:y=350:"
                    "w=720:h=240:alpha=255"},
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
        {"unprobed;size=1920x1080", "", ""},
        {"novideo;size=1920x1080", "", ""},
        {"size=960x540;crop=0,0,1,1,1;mark=/wm/wide.png,100,50,0.5,0.5;mark=/wm/"
         "missing.png,0,0,1,1",
         "", ""},
        {"size=960x540;mark=/wm/novideo.png,0,0,1,1", "", ""},
        {"size=1920x0", "size invalid: 0 1920 1080", "size invalid: 0 1920 1080"},
        {"picture=0,1080;size=1920x1080", "size invalid: 1080 0 1080", "size invalid: 1080 0 1080"},
        {"picture=1920,0;size=1920x1080", "size invalid: 1080 1920 0", "size invalid: 1080 1920 0"},
        {"size=1920x1080;crop=0,0,1,0.0001", "imgH invalid: 0", "imgH invalid: 0"},
        {"size=1920x1080;crop=0,0,0.0001,1", "imgW invalid: 0", "imgW invalid: 0"},
        {"size=960x540;mark=/wm/square.png,1000,0,1,0", "graph", "marKH invalid: 0"},
    };
    for (const Row& r : rows) {
        for (const bool qsv : {false, true}) {
            const QString expected = qsv ? r.qsv : r.cuda;
            LogCapture log;
            const QString made = graph(r.changes, qsv);
            SCOPED_TRACE(r.changes.toStdString() + (qsv ? " (qsv)" : " (cuda)"));
            EXPECT_EQ(made.isEmpty(), expected != "graph") << made.toStdString();
            const bool logged = !expected.isEmpty() && expected != "graph";
            ASSERT_EQ(log.entries().size(), logged ? 1 : 0);
            if (logged) {
                EXPECT_EQ(log.entries().first().text, expected);
                EXPECT_EQ(log.entries().first().function,
                          qsv ? QString("Korvane::makeQsvFilterCommand")
                              : QString("Korvane::makeCudaFilterCommand"));
            }
        }
    }
}
