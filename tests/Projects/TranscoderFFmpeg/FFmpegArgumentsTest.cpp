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

using Change = std::function<void(ConvertSource&, AVTaskOutputParam&, FFmpegCommandFacts&)>;

QStringList build(const Change& change)
{
    ConvertSource source;
    source.filePath = "/in/my clip.mp4";
    AVTaskOutputParam param;
    param.outputPath = "/out/result.mp4";
    param.format = "mkv";
    param.video.codecName = "h264";
    param.video.width = 1280;
    param.video.height = 720;
    param.video.frameRate = 25;
    param.video.bitrateKbps = 3000;
    param.audio.codecName = "aac";
    FFmpegCommandFacts facts;
    facts.info = videoInfo(1920, 1080);
    facts.probe = pictureProbe({});
    facts.hardwareThreads = 8;
    change(source, param, facts);
    return makeFFmpegCommand(source, param, "/tmp/progress", facts);
}

void hardware(AVTaskOutputParam& p, const char* gpu)
{
    p.acceleration.gpuName = gpu;
    p.acceleration.hardwareEnabled = true;
}

} // namespace

TEST(FFmpegArguments, OnlyTheBuildersOwnPairsAreSplit)
{
    const Change jobs[] = {
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts& f) {
            hardware(p, "Intel(R) UHD Graphics");
            f.qsvDeviceInitExplicit = true;
        },
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts& f) {
            hardware(p, "NVIDIA T400");
            p.video.codecName = "h265";
            f.info = videoInfo(1920, 1080, "h265");
        },
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts&) {
            hardware(p, "NVIDIA T400");
        },
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts&) {
            hardware(p, "");
            p.audio.codecName = kInjection;
            p.video.codecName = "h264 -attach /etc/passwd";
        },
        [](ConvertSource& s, AVTaskOutputParam& p, FFmpegCommandFacts&) {
            s.filePath = "/in/-i x -f lavfi.mp4";
            p.outputPath = "/out/a b -y.mp4";
            p.format = "no such";
        },
    };
    QSet<QString> pairsSeen;
    for (const Change& change : jobs) {
        const QStringList elements = build(change);
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
// back into the same arguments.
TEST(FFmpegArguments, WindowsLine)
{
    const struct
    {
        QStringList arguments;
        const char* line;
    } cases[] = {
        {{"-i", "C:\\My Videos\\clip one.mp4", "-y"}, "-i \"C:\\My Videos\\clip one.mp4\" -y"},
        {{"C:\\dir\\", "C:\\dir with blank\\", "\\\\server\\share\\x.mp4"},
         "C:\\dir\\ \"C:\\dir with blank\\\\\" \\\\server\\share\\x.mp4"},
        {{"say \"cheese\".mp4", "a\\\"b", "a\\\\\"b", "\"", "\"\""},
         "\"say \\\"cheese\\\".mp4\" \"a\\\\\\\"b\" \"a\\\\\\\\\\\"b\" \"\\\"\" \"\\\"\\\"\""},
        {{"-leading dash.mp4", "", "tab\there", "new\nline"},
         "\"-leading dash.mp4\" \"\" \"tab\there\" \"new\nline\""},
        {{QString::fromUtf8("C:\\Видео\\фильм 1.mp4"), QString::fromUtf8("emoji 🎬.mp4")},
         "\"C:\\Видео\\фильм 1.mp4\" \"emoji 🎬.mp4\""},
        {{kInjection, "aac"}, "\"aac -map 0:a -f wav /tmp/x/victim.txt -map 0 -acodec aac\" aac"},
        {{"-threads", "4", "C:\\a b\\"}, "-threads 4 \"C:\\a b\\\\\""},
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
        {[](AVTaskOutputParam& p) { p.audio.codecName = "PCM"; }, ""},
        {[](AVTaskOutputParam& p) { p.format = "3GP"; }, ""},
        {[](AVTaskOutputParam& p) { p.video.codecName = "0"; }, ""},
        {[](AVTaskOutputParam& p) { p.audio.codecName.clear(); }, ""},
        {[](AVTaskOutputParam& p) { p.audio.codecName = kInjection; }, "audio.codecName"},
        {[](AVTaskOutputParam& p) { p.video.codecName = "h264\n-y"; }, "video.codecName"},
        {[](AVTaskOutputParam& p) { p.video.codecName = "h26\"4"; }, "video.codecName"},
        {[](AVTaskOutputParam& p) { p.format = "mp4 -f wav"; }, "format"},
        {[](AVTaskOutputParam& p) { p.audio.codecName = "aac\n"; }, "audio.codecName"},
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
        AVTaskOutputParam param;
        param.outputPath = "/out/result.mp4";
        param.format = "mp4";
        param.video.codecName = "h264";
        param.audio.codecName = "aac";
        param.video.frameRate = 25;
        c.change(param);
        const QString problem = invalidOutputField(param);
        EXPECT_EQ(problem.section(' ', 0, 0), QString(c.field)) << problem.toStdString();
    }
}
