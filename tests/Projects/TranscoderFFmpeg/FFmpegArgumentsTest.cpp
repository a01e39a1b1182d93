// Nothing in a job becomes an ffmpeg option: only the builder's own pairs are
// split, every other element is one argument, and output names must be plain.
#include "CommandJobs.h"

#include "TranscoderFFmpeg/FFmpegArguments.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kInjection = "aac -map 0:a -f wav /tmp/x/victim.txt -map 0 -acodec aac";

} // namespace

TEST(FFmpegArguments, OnlyTheBuildersOwnPairsAreSplit)
{
    const QString jobs[] = {
        "gpu=Intel(R) UHD Graphics;qsvinit",
        "gpu=NVIDIA T400;vcodec=h265;in=h265",
        "gpu=NVIDIA T400",
        "gpu=;acodec=" + kInjection + ";vcodec=h264 -attach /etc/passwd",
        "input=/in/-i x -f lavfi.mp4;output=/out/a b -y.mp4;format=no such",
    };
    QSet<QString> pairsSeen;
    for (const QString& changes : jobs) {
        const Job j = job("format=mkv;size=1280x720;fps=25;vkbps=3000;" + changes);
        const QStringList elements = makeFFmpegCommand(j.source, j.param, "/tmp/p", j.facts);
        ASSERT_FALSE(elements.isEmpty());
        QStringList expected;
        for (const QString& element : elements) {
            const bool quoted = element.startsWith('"') && element.endsWith('"');
            // Whatever else holds a blank is a job value and stays whole.
            const bool builderText = !quoted && element.startsWith('-') && element.contains(' ');
            EXPECT_EQ(isPairedElement(element), builderText) << element.toStdString();
            if (builderText) {
                pairsSeen << element.section(' ', 0, 0);
            }
            expected << (builderText
                             ? element.split(' ')
                             : QStringList{quoted ? element.mid(1, element.size() - 2) : element});
        }
        EXPECT_EQ(ffmpegProgramArguments(elements), expected);
    }
    EXPECT_EQ(pairsSeen,
              (QSet<QString>{"-v", "-init_hw_device", "-hwaccel", "-c:v", "-threads", "-vtag",
                             "-bf", "-minrate", "-maxrate", "-bufsize", "-vsync", "-g", "-crf"}));
    for (const char* lookalike :
         {"-threads 4 -i x", "-crf x", "-hwaccel qsv ", "-g 15\n", "-v  error", "-bf 00 -y"}) {
        EXPECT_FALSE(isPairedElement(QString::fromUtf8(lookalike))) << lookalike;
    }
}

// Lines that the Windows rules (CommandLineToArgvW and the C runtime) split
// back into the same arguments: backslashes are doubled only before a quote.
TEST(FFmpegArguments, WindowsLine)
{
    const struct
    {
        QStringList arguments;
        const char* line;
    } cases[] = {
        {{"-threads", "4", "C:\\dir\\", "C:\\a b\\", "\\\\server\\x.mp4"},
         "-threads 4 C:\\dir\\ \"C:\\a b\\\\\" \\\\server\\x.mp4"},
        {{"say \"cheese\".mp4", "a\\\"b", "a\\\\\"b", "\"", "\"\""},
         "\"say \\\"cheese\\\".mp4\" \"a\\\\\\\"b\" \"a\\\\\\\\\\\"b\" \"\\\"\" \"\\\"\\\"\""},
        {{"-leading dash.mp4", "", "tab\there", "new\nline", QString::fromUtf8("фильм 🎬.mp4")},
         "\"-leading dash.mp4\" \"\" \"tab\there\" \"new\nline\" \"фильм 🎬.mp4\""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(windowsArgumentLine(c.arguments).toStdString(), c.line);
    }
}

TEST(FFmpegArguments, OutputNamesMustBePlain)
{
    const struct
    {
        std::function<void(AVTaskOutputParam&)> change;
        const char* field; // empty: valid
    } cases[] = {
        {[](AVTaskOutputParam&) {}, ""},
        {[](AVTaskOutputParam& p) { p.format = "3GP"; }, ""},
        {[](AVTaskOutputParam& p) { p.video.codecName = "0"; }, ""},
        {[](AVTaskOutputParam& p) { p.audio.codecName.clear(); }, ""},
        {[](AVTaskOutputParam& p) { p.audio.codecName = kInjection; }, "audio.codecName"},
        {[](AVTaskOutputParam& p) { p.video.codecName = "h264\n-y"; }, "video.codecName"},
        {[](AVTaskOutputParam& p) { p.video.codecName = "h26\"4"; }, "video.codecName"},
        {[](AVTaskOutputParam& p) { p.format = "mp4 -f wav"; }, "format"},
        {[](AVTaskOutputParam& p) { p.format = "m\u00e4"; }, "format"},
        {[](AVTaskOutputParam& p) { p.video.frameRate = std::nan(""); }, "video.frameRate"},
        {[](AVTaskOutputParam& p) { p.video.frameRate = INFINITY; }, "video.frameRate"},
        {[](AVTaskOutputParam& p) { p.outputPath = "-dump.mp4"; }, "outputPath"},
        {[](AVTaskOutputParam& p) { p.outputPath = "out/-dump.mp4"; }, ""},
        {[](AVTaskOutputParam& p) { p.video.bitrateKbps = 100'000'000; }, ""},
        // Found by fuzzing: the doubled bit rate overflowed into a negative -bufsize.
        {[](AVTaskOutputParam& p) { p.video.bitrateKbps = 6980815683758121184; },
         "video.bitrateKbps"},
        {[](AVTaskOutputParam& p) { p.audio.bitrateKbps = 100'000'001; }, "audio.bitrateKbps"},
    };
    for (const auto& c : cases) {
        AVTaskOutputParam param = job().param;
        c.change(param);
        const QString problem = invalidOutputField(param);
        EXPECT_EQ(problem.section(' ', 0, 0), QString(c.field)) << problem.toStdString();
    }
}
