#include "CommandJobs.h"

#include "LogCapture.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kProgress = "/tmp/run 1/progress.txt";
const QString kWide = "/wm/wide.png";
const QString kSquare = "/wm/square.png";

struct Job
{
    ConvertSource source;
    AVTaskOutputParam param;
    FFmpegCommandFacts facts;
};

// An h264 1920x1080 input with audio, converted to mp4 by a GPU that is
// neither maker's, without hardware decoding.
Job baseJob()
{
    Job job;
    job.source.filePath = "/in/my clip.mp4";
    job.param.outputPath = "/out/result file.mp4";
    job.param.format = "mp4";
    job.param.video.codecName = "h264";
    job.param.video.width = 1920;
    job.param.video.height = 1080;
    job.param.video.frameRate = 30.0;
    job.param.audio.codecName = "aac";
    job.param.acceleration.gpuName = "Generic Display Adapter";
    job.facts.info = videoInfo(1920, 1080);
    job.facts.probe = pictureProbe({{kWide, QSize(200, 100)}, {kSquare, QSize(100, 100)}});
    job.facts.hardwareThreads = 8;
    return job;
}

// The command of a job, its elements joined by '|'.
QString build(const Job& job)
{
    return makeFFmpegCommand(job.source, job.param, kProgress, job.facts).join('|');
}

void gpu(Job& j, const char* name, bool hardware = true, const char* inputCodec = "h264")
{
    j.param.acceleration.gpuName = name;
    j.param.acceleration.hardwareEnabled = hardware;
    j.facts.info = videoInfo(1920, 1080, inputCodec);
}

void size(Job& j, int width, int height)
{
    j.param.video.width = width;
    j.param.video.height = height;
}

void audioNumbers(Job& j, int kbps, int rate, int channels)
{
    j.param.audio.bitrateKbps = kbps;
    j.param.audio.sampleRate = rate;
    j.param.audio.channels = channels;
}

} // namespace

TEST(FFmpegCommand, WholeCommands)
{
    EXPECT_EQ(build(baseJob()).toStdString(),
              "-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|-threads 4|-i|\"/in/my clip.mp4\"|"
              "-acodec|aac|-vcodec|h264|-r|30|-g 15|-crf 21|-f|mp4|\"/out/result file.mp4\"");

    Job job = baseJob();
    gpu(job, "NVIDIA GeForce RTX 3060", true, "h265");
    job.param.format = "MKV";
    job.param.video.codecName = "H265";
    size(job, 1280, 720);
    job.param.video.bitrateKbps = 4000;
    job.param.video.frameRate = 29.97;
    audioNumbers(job, 192, 48000, 2);
    job.facts.hardwareThreads = 7;
    job.source.waterMark = {mark(kSquare, 0, 0, 1.0f, 0.25f, 0.25f)};
    EXPECT_EQ(build(job).toStdString(),
              "-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|-hwaccel cuvid|-c:v hevc_cuvid|"
              "-threads 4|-i|\"/in/my clip.mp4\"|-i|\"/wm/square.png\"|-acodec|aac|-ab|192k|-ar|"
              "48000|-ac|2|-vtag hvc1|-vcodec|hevc_nvenc|-lavfi|\"[0:v]scale_cuda=w=1280:h=720,"
              "hwdownload,format=nv12[video];[1:v]scale=w=180:h=180,format=yuva444p,"
              "colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=550:y=270\"|-vb|4000k|"
              "-minrate 4000k|-maxrate 4000k|-bufsize 8000k|-vsync 1|-r|29.97|-g 15|-crf 26|-f|"
              "matroska|\"/out/result file.mp4\"");
}

// Each row changes the base job; `present` holds runs of consecutive elements
// ('|' between elements, '#' between runs), `absent` elements that must not occur.
TEST(FFmpegCommand, Options)
{
    const struct
    {
        const char* name;
        std::function<void(Job&)> change;
        const char* present;
        const char* absent;
    } cases[] = {
        {"no output audio codec: -an only",
         [](Job& j) {
             j.param.audio.codecName.clear();
             audioNumbers(j, 128, 44100, 2);
         },
         "-an", "-acodec|-ab|-ar|-ac"},
        {"input without audio",
         [](Job& j) { j.facts.info = videoInfo(1920, 1080, "h264", 0, 0, 1, false); },
         "-threads 4|-i|\"/in/my clip.mp4\"|-an|-vcodec", "-acodec"},
        {"PCM", [](Job& j) { j.param.audio.codecName = "PCM"; }, "-acodec|pcm_s16le", "-an"},
        {"adpcm", [](Job& j) { j.param.audio.codecName = "adpcm"; }, "-acodec|adpcm_ima_wav", ""},
        {"audio codec 0 names no codec but keeps the numbers",
         [](Job& j) {
             j.param.audio.codecName = "0";
             audioNumbers(j, 96, 0, 0);
         },
         "\"/in/my clip.mp4\"|-ab|96k|-vcodec", "-acodec|-an"},
        {"audio numbers in order", [](Job& j) { audioNumbers(j, 128, 44100, 1); },
         "-acodec|aac|-ab|128k|-ar|44100|-ac|1|-vcodec", ""},
        {"zero and negative audio numbers left out", [](Job& j) { audioNumbers(j, 0, -1, 0); },
         "-acodec|aac|-vcodec", "-ab|-ar|-ac"},
        {"Intel with the explicit device",
         [](Job& j) {
             gpu(j, "Intel(R) UHD Graphics 630");
             j.facts.qsvDeviceInitExplicit = true;
         },
         "-y|-init_hw_device qsv=hw,child_device_type=d3d11va|-hwaccel qsv|-c:v h264_qsv|-threads "
         "4",
         ""},
        {"Intel, HEVC input", [](Job& j) { gpu(j, "Intel(R) Arc A770", true, "h265"); },
         "-y|-hwaccel qsv|-c:v hevc_qsv|-threads 4", ""},
        {"Intel, other input codec: no decoder",
         [](Job& j) { gpu(j, "Intel(R) UHD", true, "mpeg4"); }, "-y|-hwaccel qsv|-threads 4", ""},
        {"input codec compared case-sensitively",
         [](Job& j) { gpu(j, "NVIDIA T400", true, "H264"); }, "-y|-hwaccel cuvid|-threads 4", ""},
        {"NVIDIA", [](Job& j) { gpu(j, "NVIDIA GeForce GTX 1650"); },
         "-y|-hwaccel cuvid|-c:v h264_cuvid|-threads 4", ""},
        {"neither maker: auto, plain encoder, no graph",
         [](Job& j) {
             gpu(j, "Generic Display Adapter");
             size(j, 1280, 720);
         },
         "-y|-hwaccel auto|-threads 4#-vcodec|h264|-r", "-lavfi"},
        {"GPU names matched case-sensitively", [](Job& j) { gpu(j, "nvidia geforce"); },
         "-hwaccel auto#-vcodec|h264|-r", "h264_nvenc"},
        {"Intel without the hardware flag: QSV encoder and graph",
         [](Job& j) {
             gpu(j, "Intel(R) Iris(R) Xe Graphics", false);
             size(j, 1280, 720);
             j.facts.qsvDeviceInitExplicit = true;
         },
         "-y|-threads 4#-vcodec|h264_qsv|-lavfi|\"vpp_qsv=w=1280:h=720\"", ""},
        {"h264 on NVIDIA: -bf 0, bit rate without limits",
         [](Job& j) {
             gpu(j, "NVIDIA RTX A2000", false);
             j.param.video.bitrateKbps = 6000;
         },
         "-vcodec|h264_nvenc|-bf 0#-vb|6000k|-r", "-minrate 6000k|-vtag hvc1"},
        {"h265 on Intel",
         [](Job& j) {
             gpu(j, "Intel(R) UHD", false);
             j.param.video.codecName = "H265";
         },
         "-vtag hvc1|-vcodec|hevc_qsv", ""},
        {"plain h265", [](Job& j) { j.param.video.codecName = "h265"; }, "-vtag hvc1|-vcodec|hevc",
         ""},
        {"bit rate with limits on the software path",
         [](Job& j) { j.param.video.bitrateKbps = 3000; },
         "-vb|3000k|-minrate 3000k|-maxrate 3000k|-bufsize 6000k|-r|30", ""},
        {"video codec 0: no encoder, rest kept",
         [](Job& j) {
             gpu(j, "NVIDIA", false);
             j.param.video.codecName = "0";
         },
         "-acodec|aac|-lavfi|\"hwdownload,format=nv12\"|-r|30", "-vcodec|-vn"},
        {"Intel: no -lavfi for an empty graph", [](Job& j) { gpu(j, "Intel", false); },
         "-vcodec|h264_qsv|-r", "-lavfi"},
        {"no graph without both output sizes",
         [](Job& j) {
             gpu(j, "NVIDIA", false);
             size(j, 0, 1080);
         },
         "-bf 0|-r", "-lavfi"},
        {"no graph without output height",
         [](Job& j) {
             gpu(j, "Intel", false);
             size(j, 1280, 0);
         },
         "-vcodec|h264_qsv|-r", "-lavfi"},
        {"a graph that cannot be built adds nothing",
         [](Job& j) {
             gpu(j, "NVIDIA", false);
             j.source.waterMark = {mark("/wm/missing.png", 0, 0, 1, 1, 1)};
         },
         "-bf 0|-r", "-lavfi"},
        {"no output video codec: -vn", [](Job& j) { j.param.video.codecName.clear(); },
         "-acodec|aac|-vn|-g 15|-crf 26", "-vcodec|-r"},
        {"input without video: -vn", [](Job& j) { j.facts.info = audioOnlyInfo(); },
         "-vn|-g 15|-crf 21", "-vcodec"},
        {"watermarks are inputs in order",
         [](Job& j) {
             j.source.waterMark = {mark(kWide, 0, 0, 1, 1, 1), mark(kSquare, 5, 5, 0.5, 1, 1)};
         },
         "-threads 4|-i|\"/in/my clip.mp4\"|-i|\"/wm/wide.png\"|-i|\"/wm/square.png\"|-acodec", ""},
        {"unknown format: empty muxer", [](Job& j) { j.param.format = "no-such"; },
         "-f||\"/out/result file.mp4\"", ""},
        {"Intel without the hardware flag: no device, no -hwaccel",
         [](Job& j) {
             gpu(j, "Intel(R) UHD Graphics 630", false);
             j.facts.qsvDeviceInitExplicit = true;
         },
         "-y|-threads 4", "-hwaccel qsv|-init_hw_device qsv=hw,child_device_type=d3d11va"},
    };
    for (const auto& c : cases) {
        Job job = baseJob();
        c.change(job);
        const QString args = '|' + build(job) + '|';
        for (const QString& run : QString(c.present).split('#')) {
            EXPECT_TRUE(args.contains('|' + run + '|')) << c.name << ": " << args.toStdString();
        }
        for (const QString& element : QString(c.absent).split('|', Qt::SkipEmptyParts)) {
            EXPECT_FALSE(args.contains('|' + element + '|'))
                << c.name << ": " << element.toStdString();
        }
        EXPECT_TRUE(args.startsWith("|-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|"))
            << c.name;
    }
}

TEST(FFmpegCommand, FrameRateAndThreads)
{
    const struct
    {
        const char* format;
        const char* codec;
        double rate;
        const char* expected; // from the encoder up to -g 15
    } rates[] = {
        {"mkv", "h264", 25.0, "-vcodec|h264|-vsync 1|-r|25|-g 15"},
        {"MKV", "H265", 25.0, "-vcodec|hevc|-vsync 1|-r|25|-g 15"},
        {"mkv", "h264", 0.0, "-vcodec|h264|-g 15"},
        {"mkv", "h264", -5.0, "-vcodec|h264|-g 15"},
        {"mp4", "h264", 29.97, "-vcodec|h264|-r|29.97|-g 15"},
        {"mp4", "h264", 30000.0 / 1001.0, "-vcodec|h264|-r|29.97|-g 15"},
        {"mp4", "h264", 60000.0 / 1001.0, "-vcodec|h264|-r|59.9401|-g 15"},
        {"mp4", "h264", 24000.0 / 1001.0, "-vcodec|h264|-r|23.976|-g 15"},
        {"mov", "h264", 12.5, "-vcodec|h264|-r|12.5|-g 15"},
        {"mkv", "mpeg4", 25.0, "-vcodec|mpeg4|-r|25|-g 15"},
    };
    for (const auto& c : rates) {
        Job job = baseJob();
        job.param.format = c.format;
        job.param.video.codecName = c.codec;
        job.param.video.frameRate = c.rate;
        EXPECT_TRUE(build(job).contains(c.expected)) << c.format << " " << c.rate;
    }
    // Half the hardware threads, rounded up.
    for (const auto& [hardware, threads] :
         {std::pair{8, 4}, {7, 4}, {1, 1}, {2, 1}, {16, 8}, {3, 2}}) {
        Job job = baseJob();
        job.facts.hardwareThreads = hardware;
        EXPECT_EQ(build(job).section('|', 4, 4), QString("-threads %1").arg(threads)) << hardware;
    }
}

TEST(FFmpegCommand, RefusedCommandsAreEmpty)
{
    const struct
    {
        const char* name;
        std::function<void(Job&, QString&)> change;
        const char* logged; // empty: nothing logged
    } cases[] = {
        {"unprobed input", [](Job& j, QString&) { j.facts.info.reset(); }, ""},
        {"quote in the input",
         [](Job& j, QString&) { j.source.filePath = "/in/a\" -i /etc/passwd \".mp4"; },
         "double quote"},
        {"quote in a watermark",
         [](Job& j, QString&) { j.source.waterMark = {mark("/wm/\"logo.png", 0, 0, 1, 1, 1)}; },
         "double quote"},
        {"quote in the output", [](Job& j, QString&) { j.param.outputPath = "/out/x\".mp4"; },
         "double quote"},
        {"quote in the progress target", [](Job&, QString& p) { p = "/tmp/\"p.txt"; },
         "double quote"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        Job job = baseJob();
        QString progress = kProgress;
        c.change(job, progress);
        EXPECT_TRUE(makeFFmpegCommand(job.source, job.param, progress, job.facts).isEmpty())
            << c.name;
        if (QString(c.logged).isEmpty()) {
            EXPECT_TRUE(log.entries().isEmpty()) << c.name;
            continue;
        }
        ASSERT_EQ(log.entries().size(), 1) << c.name;
        EXPECT_TRUE(log.entries().first().text.contains(c.logged)) << c.name;
        EXPECT_EQ(log.entries().first().function, QString("Korvane::makeFFmpegCommand"));
    }
    // Single quotes, blanks and non-Latin letters are carried as they are.
    Job job = baseJob();
    job.source.filePath = QString::fromUtf8("/in/it's été 日本.mp4");
    EXPECT_TRUE(build(job).contains(QString::fromUtf8("|\"/in/it's été 日本.mp4\"|")));
}

TEST(FFmpegCommand, CrfQuality)
{
    const struct
    {
        const char* codec;
        int width;
        int height;
        int expected;
    } cases[] = {
        {"h264", 1920, 1080, 21}, {"h264", 1280, 720, 21},  {"h264", 3840, 2160, 23},
        {"h264", 0, 0, 13},       {"h265", 0, 0, 18},       {"", 0, 0, 18},
        {"H264", 1920, 1080, 21}, {"h265", 1920, 1080, 26}, {"h264", 640, 360, 17},
        {"h264", 2000, 0, 23},    {"h264", 1200, 1600, 23}, {"h265", 1999, 0, 28},
        {"h265", 100, 0, 19},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(crfQuality(c.codec, c.width, c.height), c.expected)
            << c.codec << " " << c.width << "x" << c.height;
    }
    Job job = baseJob();
    size(job, 3840, 2160);
    EXPECT_TRUE(build(job).contains("|-crf 23|"));
}

TEST(FFmpegCommand, MuxerTable)
{
    const char* const table[][2] = {
        {"mp4", "mp4"},     {"mov", "mov"},         {"mkv", "matroska"},
        {"m4v", "mp4"},     {"avi", "avi"},         {"hevc", "hevc"},
        {"hevc2", "hevc2"}, {"wmv", "asf"},         {"divx", "divx"},
        {"mxf", "mxf"},     {"mpg", "mpeg"},        {"mpeg2", "mpeg2"},
        {"dv", "dv"},       {"vob", "vob"},         {"3gp", "3gp"},
        {"3g2", "3g2"},     {"ogv", "ogv"},         {"webm", "webm"},
        {"asf", "asf"},     {"youtube", "youtube"}, {"facebook", "facebook"},
        {"vimeo", "vimeo"}, {"flv", "f4v"},         {"f4v", "f4v"},
        {"swf", "swf"},     {"ts", "mpegts"},       {"trp", "mpegts"},
        {"xvid", "xvid"},   {"m2ts", "mpegts"},     {"mp3", "mp3"},
        {"m4a", "ipod"},    {"wav", "wav"},         {"m4r", "mp4"},
        {"aiff", "aiff"},   {"ape", "ape"},         {"flac", "flac"},
        {"ac3", "ac3"},     {"aac", "mp4"},         {"ogg", "ogg"},
        {"caf", "caf"},     {"au", "au"},           {"mka", "matroska"},
        {"wma", "asf"},     {"opus", "opus"},       {"gif", "gif"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(muxerName(row[0]), QString(row[1])) << row[0];
        EXPECT_EQ(muxerName(QString(row[0]).toUpper()), QString(row[1])) << row[0];
    }
    for (const char* unknown : {"", "matroska", "mp4 ", "mpegts", "h264"}) {
        EXPECT_EQ(muxerName(unknown), QString()) << unknown;
    }
}

// ffmpeg's -progress report: the share of the source done, -1 for lines that
// carry none, and "unexpected: " logged for lines that are not key=value.
TEST(FFmpegProgress, Lines)
{
    const struct
    {
        const char* line;
        qint64 durationMs;
        float progress;
        bool end;
        bool unexpected;
    } cases[] = {
        {"progress=end", 10000, 1.0f, true, false},
        {"progress=end", 0, 1.0f, true, false},
        {"progress=continue", 10000, -1.0f, false, false},
        {"out_time_us=5000000", 10000, 0.5f, false, false},
        {"out_time_us=5000000", 0, -1.0f, false, false},
        {"out_time_us=1000", 1, 1.0f, false, false},
        {"out_time_us=N/A", 10000, 0.0f, false, false},
        {"out_time_us=12500000", 10000, 1.25f, false, false},
        {"out_time_us=-64000", 1000, -0.064f, false, false},
        {"  out_time_us=2500000 \r\n", 10000, 0.25f, false, false},
        {"progress =end", 10000, -1.0f, false, false},
        {"frame=240", 10000, -1.0f, false, false},
        {"OUT_TIME_US=5000000", 10000, -1.0f, false, false},
        {"PROGRESS=END", 10000, -1.0f, false, false},
        {"out_time_us=", 10000, 0.0f, false, false},
        {"=end", 10000, -1.0f, false, false},
        {"out_time_us=5000000=1", 10000, -1.0f, false, true},
        {"progress", 10000, -1.0f, false, true},
        {"", 10000, -1.0f, false, true},
    };
    static QStringList messages;
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { messages << text; });
    for (const auto& c : cases) {
        messages.clear();
        EXPECT_FLOAT_EQ(parseProgressLine(c.line, c.durationMs), c.progress) << c.line;
        EXPECT_EQ(isProgressEnd(c.line), c.end) << c.line;
        EXPECT_EQ(!messages.filter("unexpected: ").isEmpty(), c.unexpected) << c.line;
    }
    qInstallMessageHandler(previous);
    // Ten hours of source: the microsecond count no longer fits a float exactly.
    EXPECT_NEAR(parseProgressLine("out_time_us=18000000000", 36000000), 0.5, 1e-6);
    EXPECT_NEAR(parseProgressLine("out_time_us=35999999000", 36000000), 1.0, 1e-6);
}
