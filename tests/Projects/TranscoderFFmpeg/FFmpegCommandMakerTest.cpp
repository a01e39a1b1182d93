#include "CommandJobs.h"

#include "LogCapture.h"

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

QStringList build(const Job& job)
{
    return makeFFmpegCommand(job.source, job.param, kProgress, job.facts);
}

// True when `run` appears in `args` as consecutive elements.
bool hasRun(const QStringList& args, const QStringList& run)
{
    for (int i = 0; i + run.size() <= args.size(); ++i) {
        if (args.mid(i, run.size()) == run) {
            return true;
        }
    }
    return false;
}

bool hasElementStartingWith(const QStringList& args, const QString& prefix)
{
    for (const QString& a : args) {
        if (a.startsWith(prefix)) {
            return true;
        }
    }
    return false;
}

struct CommandCase
{
    const char* name;
    std::function<void(Job&)> change;
    QList<QStringList> present; // each a run of consecutive elements
    QStringList absent;         // elements that must not occur
};

void runCases(const std::vector<CommandCase>& cases)
{
    for (const CommandCase& c : cases) {
        Job job = baseJob();
        c.change(job);
        const QStringList args = build(job);
        ASSERT_FALSE(args.isEmpty()) << c.name;
        for (const QStringList& run : c.present) {
            EXPECT_TRUE(hasRun(args, run)) << c.name << ": missing " << run.join('|').toStdString()
                                           << " in " << args.join('|').toStdString();
        }
        for (const QString& element : c.absent) {
            EXPECT_FALSE(args.contains(element))
                << c.name << ": unexpected " << element.toStdString() << " in "
                << args.join('|').toStdString();
        }
    }
}

} // namespace

TEST(FFmpegCommand, WholeSoftwareCommand)
{
    const QStringList expected{"-v error",
                               "-progress",
                               "\"" + kProgress + "\"",
                               "-y",
                               "-threads 4",
                               "-i",
                               "\"/in/my clip.mp4\"",
                               "-acodec",
                               "aac",
                               "-vcodec",
                               "h264",
                               "-r",
                               "30",
                               "-g 15",
                               "-crf 21",
                               "-f",
                               "mp4",
                               "\"/out/result file.mp4\""};
    EXPECT_EQ(build(baseJob()), expected);
}

TEST(FFmpegCommand, WholeNvidiaCommand)
{
    Job job = baseJob();
    job.param.acceleration.gpuName = "NVIDIA GeForce RTX 3060";
    job.param.acceleration.hardwareEnabled = true;
    job.param.format = "MKV";
    job.param.video.codecName = "H265";
    job.param.video.width = 1280;
    job.param.video.height = 720;
    job.param.video.bitrateKbps = 4000;
    job.param.video.frameRate = 29.97;
    job.param.audio.bitrateKbps = 192;
    job.param.audio.sampleRate = 48000;
    job.param.audio.channels = 2;
    job.facts.info = videoInfo(1920, 1080, "h265");
    job.facts.hardwareThreads = 7;
    job.source.waterMark = {mark(kSquare, 0, 0, 1.0f, 0.25f, 0.25f)};
    const QStringList expected{
        "-v error",
        "-progress",
        "\"" + kProgress + "\"",
        "-y",
        "-hwaccel cuvid",
        "-c:v hevc_cuvid",
        "-threads 4",
        "-i",
        "\"/in/my clip.mp4\"",
        "-i",
        "\"" + kSquare + "\"",
        "-acodec",
        "aac",
        "-ab",
        "192k",
        "-ar",
        "48000",
        "-ac",
        "2",
        "-vtag hvc1",
        "-vcodec",
        "hevc_nvenc",
        "-lavfi",
        "\"[0:v]scale_cuda=w=1280:h=720,hwdownload,format=nv12[video];"
        "[1:v]scale=w=180:h=180,format=yuva444p,colorchannelmixer=aa=1[mark1];"
        "[video][mark1]overlay=x=550:y=270\"",
        "-vb",
        "4000k",
        "-minrate 4000k",
        "-maxrate 4000k",
        "-bufsize 8000k",
        "-vsync 1",
        "-r",
        "29.97",
        "-g 15",
        "-crf 26",
        "-f",
        "matroska",
        "\"/out/result file.mp4\""};
    EXPECT_EQ(build(job), expected);
}

TEST(FFmpegCommand, Audio)
{
    runCases({
        {"no output audio codec: -an only",
         [](Job& j) {
             j.param.audio.codecName.clear();
             j.param.audio.bitrateKbps = 128;
             j.param.audio.sampleRate = 44100;
             j.param.audio.channels = 2;
         },
         {{"-an"}},
         {"-acodec", "-ab", "-ar", "-ac"}},
        {"input without audio: -an",
         [](Job& j) { j.facts.info = videoInfo(1920, 1080, "h264", 0, 0, 1, false); },
         {{"-an"}},
         {"-acodec"}},
        {"PCM",
         [](Job& j) { j.param.audio.codecName = "PCM"; },
         {{"-acodec", "pcm_s16le"}},
         {"-an"}},
        {"adpcm",
         [](Job& j) { j.param.audio.codecName = "adpcm"; },
         {{"-acodec", "adpcm_ima_wav"}},
         {}},
        {"AAC is lower-cased",
         [](Job& j) { j.param.audio.codecName = "AAC"; },
         {{"-acodec", "aac"}},
         {"AAC"}},
        {"codec 0 names no codec but keeps the numbers",
         [](Job& j) {
             j.param.audio.codecName = "0";
             j.param.audio.bitrateKbps = 96;
         },
         {{"-ab", "96k"}},
         {"-acodec", "-an"}},
        {"all numbers in order",
         [](Job& j) {
             j.param.audio.bitrateKbps = 128;
             j.param.audio.sampleRate = 44100;
             j.param.audio.channels = 1;
         },
         {{"-acodec", "aac", "-ab", "128k", "-ar", "44100", "-ac", "1", "-vcodec"}},
         {}},
        {"zero and negative numbers are left out",
         [](Job& j) {
             j.param.audio.bitrateKbps = 0;
             j.param.audio.sampleRate = -1;
             j.param.audio.channels = 0;
         },
         {{"-acodec", "aac", "-vcodec"}},
         {"-ab", "-ar", "-ac"}},
    });
}

TEST(FFmpegCommand, HardwareDecoding)
{
    runCases({
        {"Intel with the explicit device",
         [](Job& j) {
             j.param.acceleration.gpuName = "Intel(R) UHD Graphics 630";
             j.param.acceleration.hardwareEnabled = true;
             j.facts.qsvDeviceInitExplicit = true;
         },
         {{"-y", "-init_hw_device qsv=hw,child_device_type=d3d11va", "-hwaccel qsv",
           "-c:v h264_qsv", "-threads 4"}},
         {}},
        {"Intel without the explicit device, HEVC input",
         [](Job& j) {
             j.param.acceleration.gpuName = "Intel(R) Arc A770";
             j.param.acceleration.hardwareEnabled = true;
             j.facts.info = videoInfo(1920, 1080, "h265");
         },
         {{"-y", "-hwaccel qsv", "-c:v hevc_qsv", "-threads 4"}},
         {"-init_hw_device qsv=hw,child_device_type=d3d11va"}},
        {"Intel with another input codec: no decoder",
         [](Job& j) {
             j.param.acceleration.gpuName = "Intel(R) UHD Graphics";
             j.param.acceleration.hardwareEnabled = true;
             j.facts.info = videoInfo(1920, 1080, "mpeg4");
         },
         {{"-hwaccel qsv", "-threads 4"}},
         {"-c:v h264_qsv", "-c:v hevc_qsv"}},
        {"codec comparison is case-sensitive",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA T400";
             j.param.acceleration.hardwareEnabled = true;
             j.facts.info = videoInfo(1920, 1080, "H264");
         },
         {{"-hwaccel cuvid", "-threads 4"}},
         {"-c:v h264_cuvid"}},
        {"NVIDIA",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA GeForce GTX 1650";
             j.param.acceleration.hardwareEnabled = true;
         },
         {{"-y", "-hwaccel cuvid", "-c:v h264_cuvid", "-threads 4"}},
         {}},
        {"NVIDIA HEVC input",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA GeForce GTX 1650";
             j.param.acceleration.hardwareEnabled = true;
             j.facts.info = videoInfo(1920, 1080, "h265");
         },
         {{"-hwaccel cuvid", "-c:v hevc_cuvid"}},
         {}},
        {"neither maker: auto, plain encoder, no graph",
         [](Job& j) {
             j.param.acceleration.hardwareEnabled = true;
             j.param.video.width = 1280;
             j.param.video.height = 720;
         },
         {{"-y", "-hwaccel auto", "-threads 4"}, {"-vcodec", "h264"}},
         {"-lavfi"}},
        {"GPU names are matched case-sensitively",
         [](Job& j) {
             j.param.acceleration.gpuName = "nvidia geforce";
             j.param.acceleration.hardwareEnabled = true;
         },
         {{"-hwaccel auto"}, {"-vcodec", "h264"}},
         {"-hwaccel cuvid", "h264_nvenc"}},
        {"Intel with the hardware flag off: no -hwaccel, yet QSV encoder and graph",
         [](Job& j) {
             j.param.acceleration.gpuName = "Intel(R) Iris(R) Xe Graphics";
             j.param.video.width = 1280;
             j.param.video.height = 720;
             j.facts.qsvDeviceInitExplicit = true;
         },
         {{"-y", "-threads 4"}, {"-vcodec", "h264_qsv", "-lavfi", "\"vpp_qsv=w=1280:h=720\""}},
         {}},
    });
    Job off = baseJob();
    off.param.acceleration.gpuName = "Intel(R) UHD Graphics 630";
    EXPECT_FALSE(hasElementStartingWith(build(off), "-hwaccel"));
    EXPECT_FALSE(hasElementStartingWith(build(off), "-init_hw_device"));
}

TEST(FFmpegCommand, VideoEncoderAndGraph)
{
    runCases({
        {"h265 on NVIDIA: hvc1 tag, no -bf 0",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA RTX A2000";
             j.param.video.codecName = "h265";
         },
         {{"-vtag hvc1", "-vcodec", "hevc_nvenc"}},
         {"-bf 0"}},
        {"h264 on NVIDIA: -bf 0, bit rate without limits",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA RTX A2000";
             j.param.video.bitrateKbps = 6000;
         },
         {{"-vcodec", "h264_nvenc", "-bf 0"}, {"-vb", "6000k", "-r"}},
         {"-minrate 6000k", "-maxrate 6000k", "-bufsize 12000k", "-vtag hvc1"}},
        {"h265 on Intel",
         [](Job& j) {
             j.param.acceleration.gpuName = "Intel(R) UHD";
             j.param.video.codecName = "H265";
         },
         {{"-vtag hvc1", "-vcodec", "hevc_qsv"}},
         {}},
        {"plain h265 encoder",
         [](Job& j) { j.param.video.codecName = "h265"; },
         {{"-vtag hvc1", "-vcodec", "hevc"}},
         {}},
        {"bit rate with limits on the software path",
         [](Job& j) { j.param.video.bitrateKbps = 3000; },
         {{"-vb", "3000k", "-minrate 3000k", "-maxrate 3000k", "-bufsize 6000k", "-r", "30"}},
         {}},
        {"codec 0: no encoder, rest kept",
         [](Job& j) {
             j.param.video.codecName = "0";
             j.param.acceleration.gpuName = "NVIDIA";
         },
         {{"-acodec", "aac", "-lavfi", "\"hwdownload,format=nv12\"", "-r", "30"}},
         {"-vcodec", "-vn"}},
        {"NVIDIA downloads even an unchanged picture",
         [](Job& j) { j.param.acceleration.gpuName = "NVIDIA"; },
         {{"-vcodec", "h264_nvenc", "-bf 0", "-lavfi", "\"hwdownload,format=nv12\"", "-r"}},
         {}},
        {"Intel adds no -lavfi for an empty graph",
         [](Job& j) { j.param.acceleration.gpuName = "Intel"; },
         {{"-vcodec", "h264_qsv", "-r"}},
         {"-lavfi"}},
        {"no graph without both output sizes",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA";
             j.param.video.width = 0;
         },
         {{"-bf 0", "-r"}},
         {"-lavfi"}},
        {"a graph that cannot be built adds nothing",
         [](Job& j) {
             j.param.acceleration.gpuName = "NVIDIA";
             j.source.waterMark = {mark("/wm/missing.png", 0, 0, 1, 1, 1)};
         },
         {{"-bf 0", "-r"}},
         {"-lavfi"}},
        {"no output video codec: -vn",
         [](Job& j) { j.param.video.codecName.clear(); },
         {{"-acodec", "aac", "-vn", "-g 15", "-crf 26"}},
         {"-vcodec", "-r"}},
        {"input without video: -vn",
         [](Job& j) { j.facts.info = audioOnlyInfo(); },
         {{"-vn", "-g 15", "-crf 21"}},
         {"-vcodec"}},
    });
}

TEST(FFmpegCommand, FrameRate)
{
    const struct
    {
        const char* format;
        const char* codec;
        double rate;
        QStringList expected; // from the element after the encoder up to -g 15
    } cases[] = {
        {"mkv", "h264", 25.0, {"-vsync 1", "-r", "25"}},
        {"MKV", "H265", 25.0, {"-vtag hvc1"}},
        {"mkv", "h264", 0.0, {}},
        {"mkv", "h264", -5.0, {}},
        {"mp4", "h264", 29.97, {"-r", "29.97"}},
        {"mp4", "h264", 30000.0 / 1001.0, {"-r", "29.97"}},
        {"mp4", "h264", 59.94, {"-r", "59.94"}},
        {"mp4", "h264", 60000.0 / 1001.0, {"-r", "59.9401"}},
        {"mp4", "h264", 24000.0 / 1001.0, {"-r", "23.976"}},
        {"mp4", "h264", 30.0, {"-r", "30"}},
        {"mov", "h264", 12.5, {"-r", "12.5"}},
        {"mkv", "mpeg4", 25.0, {"-r", "25"}},
    };
    for (const auto& c : cases) {
        Job job = baseJob();
        job.param.format = c.format;
        job.param.video.codecName = c.codec;
        job.param.video.frameRate = c.rate;
        const QStringList args = build(job);
        if (QString(c.codec).toLower() == "h265") {
            // hvc1 comes before the encoder; the rate part is checked below.
            EXPECT_TRUE(hasRun(args, {"-vsync 1", "-r", "25", "-g 15"})) << c.format;
            continue;
        }
        const int encoder = args.indexOf("-vcodec");
        const int end = args.indexOf("-g 15");
        ASSERT_GE(encoder, 0);
        EXPECT_EQ(args.mid(encoder + 2, end - encoder - 2), c.expected)
            << c.format << " " << c.codec << " " << c.rate;
    }
}

TEST(FFmpegCommand, InputsAndOutputEnd)
{
    Job job = baseJob();
    job.source.waterMark = {mark(kWide, 0, 0, 1, 1, 1), mark(kSquare, 5, 5, 0.5, 1, 1)};
    const QStringList args = build(job);
    EXPECT_TRUE(hasRun(args, {"-threads 4", "-i", "\"/in/my clip.mp4\"", "-i", "\"" + kWide + "\"",
                              "-i", "\"" + kSquare + "\"", "-acodec"}));
    EXPECT_EQ(args.count("-i"), 3);
    EXPECT_EQ(args.mid(0, 4),
              (QStringList{"-v error", "-progress", "\"" + kProgress + "\"", "-y"}));

    job.param.format = "no-such-format";
    const QStringList unknown = build(job);
    EXPECT_EQ(unknown.mid(unknown.size() - 3), (QStringList{"-f", "", "\"/out/result file.mp4\""}));
}

TEST(FFmpegCommand, ThreadsAreHalfTheHardwareThreadsRoundedUp)
{
    const struct
    {
        int hardware;
        const char* expected;
    } cases[] = {{8, "-threads 4"}, {7, "-threads 4"},  {1, "-threads 1"},
                 {2, "-threads 1"}, {16, "-threads 8"}, {3, "-threads 2"}};
    for (const auto& c : cases) {
        Job job = baseJob();
        job.facts.hardwareThreads = c.hardware;
        EXPECT_EQ(build(job).at(4), QString(c.expected)) << c.hardware;
    }
}

TEST(FFmpegCommand, UnprobedInputGivesNothingAndLogsNothing)
{
    LogCapture log;
    Job job = baseJob();
    job.facts.info.reset();
    EXPECT_TRUE(build(job).isEmpty());
    EXPECT_TRUE(log.entries().isEmpty());
}

TEST(FFmpegCommand, DoubleQuoteInAQuotedPathRefusesTheCommand)
{
    const struct
    {
        const char* name;
        std::function<void(Job&, QString&)> change;
    } cases[] = {
        {"input", [](Job& j, QString&) { j.source.filePath = "/in/a\" -i /etc/passwd \".mp4"; }},
        {"watermark",
         [](Job& j, QString&) { j.source.waterMark = {mark("/wm/\"logo.png", 0, 0, 1, 1, 1)}; }},
        {"output", [](Job& j, QString&) { j.param.outputPath = "/out/x\".mp4"; }},
        {"progress target", [](Job&, QString& progress) { progress = "/tmp/\"p.txt"; }},
    };
    for (const auto& c : cases) {
        LogCapture log;
        Job job = baseJob();
        QString progress = kProgress;
        c.change(job, progress);
        EXPECT_TRUE(makeFFmpegCommand(job.source, job.param, progress, job.facts).isEmpty())
            << c.name;
        ASSERT_EQ(log.entries().size(), 1) << c.name;
        EXPECT_TRUE(log.entries().first().text.contains("double quote")) << c.name;
        EXPECT_EQ(log.entries().first().function, QString("Korvane::makeFFmpegCommand"));
    }
    // Single quotes, blanks and non-Latin letters are carried as they are.
    Job job = baseJob();
    job.source.filePath = QString::fromUtf8("/in/it's été 日本.mp4");
    EXPECT_TRUE(build(job).contains(QString::fromUtf8("\"/in/it's été 日本.mp4\"")));
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
    job.param.video.width = 3840;
    job.param.video.height = 2160;
    EXPECT_TRUE(build(job).contains("-crf 23"));
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
    EXPECT_EQ(std::size(table), 45u);
    for (const auto& row : table) {
        EXPECT_EQ(muxerName(row[0]), QString(row[1])) << row[0];
        EXPECT_EQ(muxerName(QString(row[0]).toUpper()), QString(row[1])) << row[0];
    }
    for (const char* unknown : {"", "matroska", "mp4 ", "mpegts", "h264"}) {
        EXPECT_EQ(muxerName(unknown), QString()) << unknown;
    }
}
