#include "CommandJobs.h"

#include "LogCapture.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <gtest/gtest.h>

using namespace Korvane;
using namespace CommandJobs;

namespace {

const QString kProgress = "/tmp/run 1/progress.txt";

// The command of a job, its elements joined by '|'.
QString build(const Job& j)
{
    return makeFFmpegCommand(j.source, j.param, kProgress, j.facts).join('|');
}

} // namespace

TEST(FFmpegCommand, WholeCommands)
{
    EXPECT_EQ(build(job()).toStdString(),
              "-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|-threads 4|-i|\"/in/my clip.mp4\"|"
              "-acodec|aac|-vcodec|h264|-r|30|-g 15|-crf 21|-f|mp4|\"/out/result file.mp4\"");
    EXPECT_EQ(build(job("gpu=NVIDIA GeForce RTX 3060;in=h265;format=MKV;vcodec=H265;size=1280x720;"
                        "vkbps=4000;fps=29.97;audio=192,48000,2;threads=7;marks=/wm/square.png"))
                  .toStdString(),
              "-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|-hwaccel cuvid|-c:v hevc_cuvid|"
              "-threads 4|-i|\"/in/my clip.mp4\"|-i|\"/wm/square.png\"|-acodec|aac|-ab|192k|-ar|"
              "48000|-ac|2|-vtag hvc1|-vcodec|hevc_nvenc|-lavfi|\"[0:v]scale_cuda=w=1280:h=720,"
              "hwdownload,format=nv12[video];[1:v]scale=w=180:h=180,format=yuva444p,"
              "colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=550:y=270\"|-vb|4000k|"
              "-minrate 4000k|-maxrate 4000k|-bufsize 8000k|-vsync 1|-r|29.97|-g 15|-crf 26|-f|"
              "matroska|\"/out/result file.mp4\"");
}

// `present` holds runs of consecutive elements ('|' between elements, '#'
// between runs), `absent` elements that must not occur.
TEST(FFmpegCommand, Options)
{
    const struct
    {
        const char* changes;
        const char* present;
        const char* absent;
    } cases[] = {
        {"acodec=;audio=128,44100,2", "-an", "-acodec|-ab|-ar|-ac"},
        {"noaudio", "-threads 4|-i|\"/in/my clip.mp4\"|-an|-vcodec", "-acodec"},
        {"acodec=PCM", "-acodec|pcm_s16le", "-an"},
        {"acodec=adpcm", "-acodec|adpcm_ima_wav", ""},
        // Codec 0 names no codec but keeps the numbers.
        {"acodec=0;audio=96,0,0", "\"/in/my clip.mp4\"|-ab|96k|-vcodec", "-acodec|-an"},
        {"audio=0,-1,0", "-acodec|aac|-vcodec", "-ab|-ar|-ac"},
        {"gpu=Intel(R) UHD Graphics 630;qsvinit",
         "-y|-init_hw_device qsv=hw,child_device_type=d3d11va|-hwaccel qsv|-c:v h264_qsv|-threads "
         "4",
         ""},
        {"gpu=Intel(R) Arc A770;in=h265", "-y|-hwaccel qsv|-c:v hevc_qsv|-threads 4", ""},
        {"gpu=Intel(R) UHD;in=mpeg4", "-y|-hwaccel qsv|-threads 4", ""},
        // Input codecs and GPU names are compared case-sensitively.
        {"gpu=NVIDIA T400;in=H264", "-y|-hwaccel cuvid|-threads 4", ""},
        {"gpu=nvidia geforce", "-hwaccel auto#-vcodec|h264|-r", "h264_nvenc"},
        {"gpu=NVIDIA GeForce GTX 1650", "-y|-hwaccel cuvid|-c:v h264_cuvid|-threads 4", ""},
        {"gpu=Generic Display Adapter;size=1280x720", "-y|-hwaccel auto|-threads 4#-vcodec|h264|-r",
         "-lavfi"},
        {"gpu=Intel(R) Iris(R) Xe Graphics;hw=0;size=1280x720;qsvinit",
         "-y|-threads 4#-vcodec|h264_qsv|-lavfi|\"vpp_qsv=w=1280:h=720\"",
         "-hwaccel qsv|-init_hw_device qsv=hw,child_device_type=d3d11va"},
        {"gpu=NVIDIA RTX A2000;hw=0;vkbps=6000", "-vcodec|h264_nvenc|-bf 0#-vb|6000k|-r",
         "-minrate 6000k|-vtag hvc1"},
        {"gpu=Intel(R) UHD;hw=0;vcodec=H265", "-vtag hvc1|-vcodec|hevc_qsv", ""},
        {"vkbps=3000", "-vb|3000k|-minrate 3000k|-maxrate 3000k|-bufsize 6000k|-r|30", ""},
        {"gpu=NVIDIA;hw=0;vcodec=0", "-acodec|aac|-lavfi|\"hwdownload,format=nv12\"|-r|30",
         "-vcodec|-vn"},
        // No -lavfi for an empty graph, without both output sizes, or for a
        // graph that cannot be built.
        {"gpu=Intel;hw=0", "-vcodec|h264_qsv|-r", "-lavfi"},
        {"gpu=NVIDIA;hw=0;size=0x1080", "-bf 0|-r", "-lavfi"},
        {"gpu=Intel;hw=0;size=1280x0", "-vcodec|h264_qsv|-r", "-lavfi"},
        {"gpu=NVIDIA;hw=0;marks=/wm/missing.png", "-bf 0|-r", "-lavfi"},
        {"vcodec=", "-acodec|aac|-vn|-g 15|-crf 26", "-vcodec|-r"},
        {"novideo", "-vn|-g 15|-crf 21", "-vcodec"},
        {"marks=/wm/wide.png,/wm/square.png",
         "-threads 4|-i|\"/in/my clip.mp4\"|-i|\"/wm/wide.png\"|-i|\"/wm/square.png\"|-acodec", ""},
        {"format=no-such", "-f||\"/out/result file.mp4\"", ""},
        {"size=3840x2160", "-g 15|-crf 23", ""},
        // Frame rates: -vsync only for Matroska, none when not positive.
        {"format=MKV;vcodec=H265;fps=25", "-vtag hvc1|-vcodec|hevc|-vsync 1|-r|25|-g 15", ""},
        {"format=mkv;fps=0", "-vcodec|h264|-g 15", ""},
        {"format=mkv;fps=-5", "-vcodec|h264|-g 15", ""},
        {"format=mkv;vcodec=mpeg4", "-vcodec|mpeg4|-r|30|-g 15", ""},
        {"fps=59.94005994", "-vcodec|h264|-r|59.9401|-g 15", ""},
        {"format=mov;fps=23.976023976", "-vcodec|h264|-r|23.976|-g 15", ""},
        {"fps=12.5", "-vcodec|h264|-r|12.5|-g 15", ""},
        // Half the hardware threads, rounded up.
        {"threads=1", "-y|-threads 1|-i", ""},
        {"threads=2", "-y|-threads 1|-i", ""},
        {"threads=3", "-y|-threads 2|-i", ""},
        {"threads=16", "-y|-threads 8|-i", ""},
    };
    for (const auto& c : cases) {
        const QString args = '|' + build(job(c.changes)) + '|';
        for (const QString& run : QString(c.present).split('#')) {
            EXPECT_TRUE(args.contains('|' + run + '|')) << c.changes << ": " << args.toStdString();
        }
        for (const QString& element : QString(c.absent).split('|', Qt::SkipEmptyParts)) {
            EXPECT_FALSE(args.contains('|' + element + '|'))
                << c.changes << ": " << element.toStdString();
        }
        EXPECT_TRUE(args.startsWith("|-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|"));
    }
}

TEST(FFmpegCommand, RefusedCommandsAreEmpty)
{
    const struct
    {
        const char* changes;
        const char* progress;
        bool logged; // "double quote" logged
    } cases[] = {
        {"unprobed", "/tmp/p.txt", false},
        {"input=/in/a\" -i /etc/passwd \".mp4", "/tmp/p.txt", true},
        {"marks=/wm/\"logo.png", "/tmp/p.txt", true},
        {"output=/out/x\".mp4", "/tmp/p.txt", true},
        {"", "/tmp/\"p.txt", true},
    };
    for (const auto& c : cases) {
        LogCapture log;
        const Job j = job(c.changes);
        EXPECT_TRUE(makeFFmpegCommand(j.source, j.param, c.progress, j.facts).isEmpty());
        ASSERT_EQ(log.entries().size(), c.logged ? 1 : 0) << c.changes;
        if (c.logged) {
            EXPECT_TRUE(log.entries().first().text.contains("double quote"));
            EXPECT_EQ(log.entries().first().function, QString("Korvane::makeFFmpegCommand"));
        }
    }
    // Single quotes, blanks and non-Latin letters are carried as they are.
    EXPECT_TRUE(build(job(QString::fromUtf8("input=/in/it's été 日本.mp4")))
                    .contains(QString::fromUtf8("|\"/in/it's été 日本.mp4\"|")));
}

TEST(FFmpegCommand, CrfQualityAndMuxers)
{
    const struct
    {
        const char* codec;
        int width;
        int height;
        int expected;
    } cases[] = {
        {"h264", 1280, 720, 21}, {"h264", 0, 0, 13},       {"h265", 0, 0, 18},
        {"", 0, 0, 18},          {"H264", 1920, 1080, 21}, {"h264", 640, 360, 17},
        {"h264", 2000, 0, 23},   {"h264", 1200, 1600, 23}, {"h265", 1999, 0, 28},
        {"h265", 100, 0, 19},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(crfQuality(c.codec, c.width, c.height), c.expected)
            << c.codec << " " << c.width << "x" << c.height;
    }
    const char* const muxers[][2] = {
        {"mp4", "mp4"},      {"mkv", "matroska"},    {"m4v", "mp4"},
        {"wmv", "asf"},      {"mpg", "mpeg"},        {"flv", "f4v"},
        {"ts", "mpegts"},    {"trp", "mpegts"},      {"m2ts", "mpegts"},
        {"m4a", "ipod"},     {"m4r", "mp4"},         {"aac", "mp4"},
        {"mka", "matroska"}, {"wma", "asf"},         {"mov", "mov"},
        {"hevc2", "hevc2"},  {"youtube", "youtube"}, {"3g2", "3g2"},
        {"opus", "opus"},    {"gif", "gif"},         {"", ""},
        {"matroska", ""},    {"mp4 ", ""},           {"h264", ""},
    };
    for (const auto& row : muxers) {
        EXPECT_EQ(muxerName(QString(row[0]).toUpper()), QString(row[1])) << row[0];
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
        {"progress=end", 0, 1.0f, true, false},
        {"progress=continue", 10000, -1.0f, false, false},
        {"out_time_us=5000000", 10000, 0.5f, false, false},
        {"out_time_us=5000000", 0, -1.0f, false, false},
        {"out_time_us=1000", 1, 1.0f, false, false},
        {"out_time_us=N/A", 10000, 0.0f, false, false},
        {"out_time_us=12500000", 10000, 1.25f, false, false},
        {"  out_time_us=2500000 \r\n", 10000, 0.25f, false, false},
        {"progress =end", 10000, -1.0f, false, false},
        {"frame=240", 10000, -1.0f, false, false},
        {"OUT_TIME_US=5000000", 10000, -1.0f, false, false},
        {"PROGRESS=END", 10000, -1.0f, false, false},
        {"out_time_us=5000000=1", 10000, -1.0f, false, true},
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
}
