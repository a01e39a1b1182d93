#include "CommandJobs.h"

#include "Common/OutputRules.h"
#include "TranscoderFFmpeg/FFmpegArguments.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kInjection = "aac -map 0:a -f wav /tmp/x/victim.txt -map 0 -acodec aac";

// How CommandLineToArgvW (and the C runtime since 2008) splits the arguments
// after the program name: blanks separate outside quotes, 2n backslashes
// before a quote give n and toggle quoting, 2n+1 give n and a literal quote,
// other backslashes are literal, and "" inside quotes is a literal quote.
QStringList splitWindowsArguments(const QString& line)
{
    QStringList arguments;
    qsizetype i = 0;
    const qsizetype n = line.size();
    for (;;) {
        while (i < n && (line[i] == ' ' || line[i] == '\t')) {
            ++i;
        }
        if (i == n) {
            return arguments;
        }
        QString argument;
        bool inQuotes = false;
        while (i < n && (inQuotes || (line[i] != ' ' && line[i] != '\t'))) {
            if (line[i] == '\\') {
                qsizetype backslashes = 0;
                while (i < n && line[i] == '\\') {
                    ++backslashes;
                    ++i;
                }
                if (i < n && line[i] == '"') {
                    argument += QString(backslashes / 2, '\\');
                    if (backslashes % 2 == 1) {
                        argument += '"';
                        ++i;
                    }
                } else {
                    argument += QString(backslashes, '\\');
                }
            } else if (line[i] == '"') {
                if (inQuotes && i + 1 < n && line[i + 1] == '"') {
                    argument += '"';
                    i += 2;
                } else {
                    inQuotes = !inQuotes;
                    ++i;
                }
            } else {
                argument += line[i++];
            }
        }
        arguments << argument;
    }
}

QStringList
build(const std::function<void(ConvertSource&, AVTaskOutputParam&, FFmpegCommandFacts&)>& change)
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

} // namespace

TEST(FFmpegArguments, OnlyTheBuildersOwnPairsAreSplit)
{
    using Change = std::function<void(ConvertSource&, AVTaskOutputParam&, FFmpegCommandFacts&)>;
    const QList<Change> jobs{
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts& f) {
            p.acceleration.gpuName = "Intel(R) UHD Graphics";
            p.acceleration.hardwareEnabled = true;
            f.qsvDeviceInitExplicit = true;
        },
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts& f) {
            p.acceleration.gpuName = "NVIDIA T400";
            p.acceleration.hardwareEnabled = true;
            p.video.codecName = "h265";
            f.info = videoInfo(1920, 1080, "h265");
        },
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts&) {
            p.acceleration.gpuName = "NVIDIA T400";
            p.acceleration.hardwareEnabled = true;
        },
        [](ConvertSource&, AVTaskOutputParam& p, FFmpegCommandFacts&) {
            p.acceleration.hardwareEnabled = true;
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
        const QStringList arguments = ffmpegProgramArguments(elements);
        qsizetype at = 0;
        for (const QString& element : elements) {
            SCOPED_TRACE(element.toStdString());
            const bool quoted = element.startsWith('"') && element.endsWith('"');
            // Whatever else holds a blank is a job value and stays whole.
            const bool builderText = !quoted && element.startsWith('-') && element.contains(' ');
            EXPECT_EQ(isPairedElement(element), builderText);
            if (isPairedElement(element)) {
                pairsSeen << element.section(' ', 0, 0);
                EXPECT_EQ(arguments.mid(at, 2), element.split(' '));
                at += 2;
            } else {
                EXPECT_EQ(arguments.value(at),
                          quoted ? element.mid(1, element.size() - 2) : element);
                ++at;
            }
        }
        EXPECT_EQ(at, arguments.size());
    }
    EXPECT_EQ(pairsSeen,
              (QSet<QString>{"-v", "-init_hw_device", "-hwaccel", "-c:v", "-threads", "-vtag",
                             "-bf", "-minrate", "-maxrate", "-bufsize", "-vsync", "-g", "-crf"}));
    for (const char* lookalike :
         {"-threads 4 -i x", "-crf x", "-hwaccel qsv ", "-g 15\n", "-v  error", "-bf 00 -y"}) {
        EXPECT_FALSE(isPairedElement(QString::fromUtf8(lookalike))) << lookalike;
    }
}

TEST(FFmpegArguments, WindowsLineSplitsBackIntoTheSameArguments)
{
    const QList<QStringList> cases{
        {"-i", "C:\\My Videos\\clip one.mp4", "-y"},
        {"C:\\dir\\", "C:\\dir with blank\\", "\\\\server\\share\\x.mp4"},
        {"say \"cheese\".mp4", "a\\\"b", "a\\\\\"b", "\"", "\"\""},
        {"-leading dash.mp4", "", "tab\there", "new\nline"},
        {QString::fromUtf8("C:\\Видео\\фильм 1.mp4"), QString::fromUtf8("こんにちは.mkv"),
         QString::fromUtf8("emoji 🎬.mp4")},
        {kInjection, "aac"},
    };
    for (const QStringList& arguments : cases) {
        const QString line = windowsArgumentLine(arguments);
        EXPECT_EQ(splitWindowsArguments(line), arguments) << line.toStdString();
    }
    EXPECT_EQ(windowsArgumentLine({"-threads", "4", "C:\\a b\\"}), "-threads 4 \"C:\\a b\\\\\"");
}

TEST(FFmpegArguments, OutputNamesMustBePlain)
{
    struct Case
    {
        std::function<void(AVTaskOutputParam&)> change;
        const char* field; // empty: valid
    };
    const QList<Case> cases{
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
        {[](AVTaskOutputParam& p) { p.video.bitrateKbps = 100'000'000; }, ""},
        {[](AVTaskOutputParam& p) { p.video.bitrateKbps = 6980815683758121184; },
         "video.bitrateKbps"},
        {[](AVTaskOutputParam& p) { p.audio.bitrateKbps = 100'000'001; }, "audio.bitrateKbps"},
        {[](AVTaskOutputParam& p) { p.outputPath = "out/-dump.mp4"; }, ""},
    };
    for (const Case& c : cases) {
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
