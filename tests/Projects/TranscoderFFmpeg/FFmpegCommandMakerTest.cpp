// The ffmpeg command, its arguments and filter graphs, built from jobs made in
// the tests (media facts included), so the builders run without files.
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"
#include "Common/Records/OutputRules.h"
#include "LogCapture.h"
#include "TranscoderFFmpeg/FFmpegArguments.h"
#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <QMap>
#include <QRegularExpression>
#include <QSize>

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

using namespace Korvane;

namespace {

// Input facts: the video codec (no video stream when empty) and size, its
// clockwise rotation and sample aspect ratio; an audio stream when asked.
QSharedPointer<MediaInfoV3> facts(const QString& codec, int width, int height, bool audio,
                                  double rotation = 0, int sarNum = 0, int sarDen = 1)
{
    auto info = QSharedPointer<MediaInfoV3>::create();
    if (!codec.isEmpty()) {
        MediaInfoVideoStream video;
        video.codecName = codec;
        video.width = width;
        video.height = height;
        video.rotation = rotation;
        video.sarNum = sarNum;
        video.sarDen = sarDen;
        info->videoStreams << video;
    }
    if (audio) {
        info->audioStreams << MediaInfoAudioStream{};
    }
    return info;
}

struct Job
{
    ConvertSource source;
    AVTaskOutputParam param;
    FFmpegCommandFacts facts;
};

// An h264 1920x1080 input with audio, converted to h264/aac mp4 at 30 fps by a
// GPU of no known maker, changed by "key=value" pairs between ';'.
Job job(const QString& changes = {})
{
    Job j;
    j.source.filePath = "/in/my clip.mp4";
    j.param.outputPath = "/out/result file.mp4";
    j.param.format = "mp4";
    j.param.video = {"h264", 1920, 1080, 30.0, 0};
    j.param.audio.codecName = "aac";
    j.param.acceleration.gpuName = "Generic Display Adapter";
    j.facts.info = facts("h264", 1920, 1080, true);
    // Only these marks can be probed: one wider than 16:9 with the same
    // integer ratio, a one-pixel one, one without width, one without video.
    j.facts.probe = [](const QString& path) -> QSharedPointer<MediaInfoV3> {
        const QMap<QString, QSize> marks{
            {"/wm/wide.png", {200, 100}},   {"/wm/square.png", {100, 100}},
            {"/wm/banner.png", {190, 100}}, {"/wm/dot.png", {1, 1}},
            {"/wm/flat.png", {0, 100}},     {"/wm/novideo.png", {}}};
        const QSize size = marks.value(path);
        return marks.contains(path)
                   ? facts(size.isValid() ? "png" : "", size.width(), size.height(), false)
                   : nullptr;
    };
    j.facts.hardwareThreads = 8;
    for (const QString& change : changes.split(';', Qt::SkipEmptyParts)) {
        const QString key = change.section('=', 0, 0);
        const QString value = change.section('=', 1);
        const QStringList numbers = value.split(QRegularExpression("[x,]"));
        const auto n = [&](int i) { return numbers.value(i).toDouble(); };
        if (key == "gpu") {
            j.param.acceleration.gpuName = value;
            j.param.acceleration.hardwareEnabled = true;
        } else if (key == "sw") { // a GPU, without hardware decoding
            j.param.acceleration.gpuName = value;
        } else if (key == "in") { // input codec, "" for no video, "-" for none known
            j.facts.info = value == "-" ? nullptr : facts(value, 1920, 1080, true);
        } else if (key == "silent") {
            j.facts.info->audioStreams.clear();
        } else if (key == "qsvinit") {
            j.facts.qsvDeviceInitExplicit = true;
        } else if (key == "threads") {
            j.facts.hardwareThreads = value.toInt();
        } else if (key == "vcodec") {
            j.param.video.codecName = value;
        } else if (key == "size") {
            j.param.video.width = int(n(0));
            j.param.video.height = int(n(1));
        } else if (key == "fps") {
            j.param.video.frameRate = value.toDouble();
        } else if (key == "vkbps") {
            j.param.video.bitrateKbps = value.toLongLong();
        } else if (key == "acodec") {
            j.param.audio.codecName = value;
        } else if (key == "audio") { // bit rate, sample rate, channels
            j.param.audio.bitrateKbps = int(n(0));
            j.param.audio.sampleRate = int(n(1));
            j.param.audio.channels = int(n(2));
        } else if (key == "format") {
            j.param.format = value;
        } else if (key == "input") {
            j.source.filePath = value;
        } else if (key == "output") {
            j.param.outputPath = value;
        } else if (key == "mark") { // path, centre x and y, alpha, scale
            const QStringList m = value.split(',');
            WaterMarkParam mark;
            mark.filePath = m.value(0);
            mark.centerPos = QPoint(m.value(1).toInt(), m.value(2).toInt());
            mark.alpha = m.value(3).toFloat();
            mark.scaleX = mark.scaleY = m.value(4).toFloat();
            j.source.waterMark << mark;
        } else if (key == "picture") { // input width, height, rotation, sample aspect ratio
            j.facts.info = facts("h264", int(n(0)), int(n(1)), true, n(2), int(n(3)),
                                 numbers.size() > 4 ? int(n(4)) : 1);
        } else if (key == "crop") { // x, y, w, h, flip x, flip y, rotation
            j.source.crop = CropParam{n(0), n(1), n(2), n(3), n(4) != 0, n(5) != 0, int(n(6))};
        } else {
            ADD_FAILURE() << "unknown job key " << key.toStdString();
        }
    }
    return j;
}

const QString kProgress = "/tmp/run 1/progress.txt";

// The command of a job, its elements joined by '|'.
QString build(const Job& j)
{
    return makeFFmpegCommand(j.source, j.param, kProgress, j.facts).join('|');
}

const QString kInjection = "aac -map 0:a -f wav /tmp/x/victim.txt -map 0 -acodec aac";

const QString kD = "hwdownload,format=nv12,";

using Row = std::tuple<QString, QString, QString>; // job changes, CUDA graph, QSV graph

QString graph(const QString& changes, bool qsv)
{
    const Job j = job(changes);
    return qsv ? makeQsvFilterCommand(j.source, j.param.video, j.facts.info, j.facts.probe)
               : makeCudaFilterCommand(j.source, j.param.video, j.facts.info, j.facts.probe);
}

void expectGraphs(const Row& r)
{
    const auto& [changes, cuda, qsv] = r;
    EXPECT_EQ(graph(changes, false).toStdString(), cuda.toStdString()) << changes.toStdString();
    EXPECT_EQ(graph(changes, true).toStdString(), qsv.toStdString()) << changes.toStdString();
}

} // namespace

TEST(FFmpegCommand, WholeCommands)
{
    EXPECT_EQ(build(job()).toStdString(),
              "-v error|-progress|\"/tmp/run 1/progress.txt\"|-y|-threads 4|-i|\"/in/my clip.mp4\"|"
              "-acodec|aac|-vcodec|h264|-r|30|-g 15|-crf 21|-f|mp4|\"/out/result file.mp4\"");
    EXPECT_EQ(
        build(
            job("gpu=NVIDIA GeForce RTX 3060;in=h265;format=MKV;vcodec=H265;size=1280x720;"
                "vkbps=4000;fps=29.97;audio=192,48000,2;threads=7;mark=/wm/square.png,0,0,1,0.25"))
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
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"acodec=;audio=128,44100,2", "-an", "-acodec|-ab|-ar|-ac"},
        {"silent", "-threads 4|-i|\"/in/my clip.mp4\"|-an|-vcodec", "-acodec"},
        {"acodec=PCM", "-acodec|pcm_s16le", "-an"},
        // Codec 0 names no codec but keeps the numbers.
        {"acodec=0;audio=96,0,0", "\"/in/my clip.mp4\"|-ab|96k|-vcodec", "-acodec|-an|-ar|-ac"},
        {"audio=0,1,1", "-ar|1|-ac|1", "-ab"},
        {"gpu=Intel(R) UHD Graphics 630;qsvinit",
         "-y|-init_hw_device qsv=hw,child_device_type=d3d11va|-hwaccel qsv|-c:v h264_qsv|-threads "
         "4",
         ""},
        {"gpu=Intel(R) Arc A770;in=h265", "-y|-hwaccel qsv|-c:v hevc_qsv|-threads 4", ""},
        // Input codecs and GPU names are compared case-sensitively.
        {"gpu=NVIDIA GeForce GTX 1650", "-y|-hwaccel cuvid|-c:v h264_cuvid|-threads 4", ""},
        {"gpu=Generic Display Adapter;size=1280x720", "-y|-hwaccel auto|-threads 4#-vcodec|h264|-r",
         "-lavfi"},
        {"sw=Intel(R) Iris(R) Xe Graphics;size=1280x720;qsvinit",
         "-y|-threads 4#-vcodec|h264_qsv|-lavfi|\"vpp_qsv=w=1280:h=720\"",
         "-hwaccel qsv|-init_hw_device qsv=hw,child_device_type=d3d11va"},
        {"sw=NVIDIA RTX A2000;vkbps=6000", "-vcodec|h264_nvenc|-bf 0#-vb|6000k|-r",
         "-minrate 6000k|-vtag hvc1"},
        {"vkbps=3000", "-vb|3000k|-minrate 3000k|-maxrate 3000k|-bufsize 6000k|-r|30", ""},
        // Both names: Intel encodes, yet NVIDIA's h264 rule drops the rate bounds.
        {"sw=Intel NVIDIA;vkbps=6000", "-vcodec|h264_qsv|-vb|6000k|-r", "-minrate 6000k|-bf 0"},
        {"sw=NVIDIA;vcodec=0", "-acodec|aac|-lavfi|\"hwdownload,format=nv12\"|-r|30",
         "-vcodec|-vn"},
        // No -lavfi for an empty graph, without both output sizes, or for a
        // graph that cannot be built.
        {"sw=Intel", "-vcodec|h264_qsv|-r", "-lavfi"},
        {"sw=NVIDIA;size=0x1080", "-bf 0|-r", "-lavfi"},
        {"sw=NVIDIA;mark=/wm/missing.png,0,0,1,1", "-bf 0|-r", "-lavfi"},
        {"vcodec=", "-acodec|aac|-vn|-g 15|-crf 26", "-vcodec|-r"},
        {"in=", "-vn|-g 15|-crf 21", "-vcodec"},
        {"mark=/wm/wide.png,0,0,1,1;mark=/wm/square.png,5,5,0.5,1",
         "-threads 4|-i|\"/in/my clip.mp4\"|-i|\"/wm/wide.png\"|-i|\"/wm/square.png\"|-acodec", ""},
        // Frame rates: -vsync only for Matroska, none when not positive.
        {"format=MKV;vcodec=H265;fps=25", "-vtag hvc1|-vcodec|hevc|-vsync 1|-r|25|-g 15", ""},
        {"format=mkv;fps=0", "-vcodec|h264|-g 15", ""},
        {"fps=59.94005994", "-vcodec|h264|-r|59.9401|-g 15", ""},
        {"threads=3", "-y|-threads 2|-i", ""}, // half the hardware threads, rounded up
    };
    for (const auto& [changes, present, absent] : cases) {
        const QString args = '|' + build(job(changes)) + '|';
        for (const QString& run : QString(present).split('#')) {
            EXPECT_TRUE(args.contains('|' + run + '|')) << changes << ": " << args.toStdString();
        }
        for (const QString& element : QString(absent).split('|', Qt::SkipEmptyParts)) {
            EXPECT_FALSE(args.contains('|' + element + '|'))
                << changes << ": " << element.toStdString();
        }
    }
}

TEST(FFmpegCommand, RefusedCommandsAreEmpty)
{
    // changes, progress target, whether "double quote" is logged
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"in=-", "/tmp/p.txt", false},
        {"input=/in/a\" -i /etc/passwd \".mp4", "/tmp/p.txt", true},
        {"mark=/wm/\"logo.png,0,0,1,1", "/tmp/p.txt", true},
        {"output=/out/x\".mp4", "/tmp/p.txt", true},
        {"", "/tmp/\"p.txt", true},
    };
    for (const auto& [changes, progress, logged] : cases) {
        LogCapture log;
        const Job j = job(changes);
        EXPECT_TRUE(makeFFmpegCommand(j.source, j.param, progress, j.facts).isEmpty());
        ASSERT_EQ(log.entries().size(), logged ? 1 : 0) << changes;
        if (logged) {
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
    const std::tuple<const char*, int, int, int> crf[] = {
        {"h264", 0, 0, 13},     {"", 0, 0, 18},           {"H264", 1920, 1080, 21},
        {"h264", 640, 360, 17}, {"h264", 1200, 1600, 23}, {"h265", 1999, 0, 28},
    };
    for (const auto& [codec, width, height, expected] : crf) {
        EXPECT_EQ(crfQuality(codec, width, height), expected)
            << codec << " " << width << "x" << height;
    }
    const char* const muxers[][2] = {
        {"mkv", "matroska"}, {"wmv", "asf"}, {"flv", "f4v"},         {"m2ts", "mpegts"},
        {"m4a", "ipod"},     {"aac", "mp4"}, {"youtube", "youtube"}, {"f4v", "f4v"},
        {"hevc2", "hevc2"},  {"", ""},       {"matroska", ""},       {"mp4 ", ""},
        {"mka", "matroska"},
    };
    for (const auto& row : muxers) {
        EXPECT_EQ(muxerName(QString(row[0]).toUpper()), QString(row[1])) << row[0];
    }
}

// ffmpeg's -progress report: the share of the source done, -1 for lines that
// carry none, and "unexpected: " logged for lines that are not key=value.
TEST(FFmpegProgress, Lines)
{
    // line, source duration, share done, end of the run, logged as unexpected
    const std::tuple<const char*, qint64, float, bool, bool> cases[] = {
        {"progress=end", 0, 1.0f, true, false},
        {"out_time_us=5000000", 10000, 0.5f, false, false},
        {"out_time_us=5000000", 0, -1.0f, false, false},
        {"out_time_us=1000", 1, 1.0f, false, false},
        {"out_time_us=N/A", 10000, 0.0f, false, false},
        {"  out_time_us=2500000 \r\n", 10000, 0.25f, false, false},
        {"frame=240", 10000, -1.0f, false, false},
        {"out_time_us=5000000=1", 10000, -1.0f, false, true},
        {"", 10000, -1.0f, false, true},
    };
    static QStringList messages;
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { messages << text; });
    for (const auto& [line, durationMs, progress, end, unexpected] : cases) {
        messages.clear();
        EXPECT_FLOAT_EQ(parseProgressLine(line, durationMs), progress) << line;
        EXPECT_EQ(isProgressEnd(line), end) << line;
        EXPECT_EQ(!messages.filter("unexpected: ").isEmpty(), unexpected) << line;
    }
    qInstallMessageHandler(previous);
    // Ten hours of source: the microsecond count no longer fits a float exactly.
    EXPECT_NEAR(parseProgressLine("out_time_us=18000000000", 36000000), 0.5, 1e-6);
}

TEST(FFmpegArguments, OnlyTheBuildersOwnPairsAreSplit)
{
    const QString jobs[] = {
        "gpu=Intel(R) UHD Graphics;qsvinit;vcodec=h265",
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

// A line that the Windows rules (CommandLineToArgvW and the C runtime) split
// back into the same arguments: backslashes are doubled only before a quote.
TEST(FFmpegArguments, WindowsLineAndPlainOutputNames)
{
    EXPECT_EQ(windowsArgumentLine({"-threads", "4", "C:\\dir\\", "C:\\a b\\", "\\\\server\\x.mp4",
                                   "say \"cheese\".mp4", "a\\\"b", "a\\\\\"b", "\"", "\"\"",
                                   "-leading dash.mp4", "", "tab\there", "new\nline",
                                   QString::fromUtf8("фильм 🎬.mp4")})
                  .toStdString(),
              "-threads 4 C:\\dir\\ \"C:\\a b\\\\\" \\\\server\\x.mp4 \"say \\\"cheese\\\".mp4\" "
              "\"a\\\\\\\"b\" \"a\\\\\\\\\\\"b\" \"\\\"\" \"\\\"\\\"\" \"-leading dash.mp4\" \"\" "
              "\"tab\there\" \"new\nline\" \"фильм 🎬.mp4\"");
    const std::pair<QString, const char*> cases[] = {
        {"", ""},
        {"format=3GP;vcodec=0;acodec=", ""},
        {"acodec=" + kInjection, "audio.codecName"},
        {"vcodec=h264\n-y", "video.codecName"},
        {"vcodec=h26\"4", "video.codecName"},
        {"format=mp4 -f wav", "format"},
        {"format=m\u00e4", "format"},
        {"fps=nan", "video.frameRate"},
        {"fps=inf", "video.frameRate"},
        {"output=-dump.mp4", "outputPath"},
        {"output=out/-dump.mp4;vkbps=100000000", ""},
        // Found by fuzzing: the doubled bit rate overflowed into a negative -bufsize.
        {"vkbps=6980815683758121184", "video.bitrateKbps"},
        {"audio=100000001,0,0", "audio.bitrateKbps"},
    };
    for (const auto& [changes, field] : cases) {
        const QString problem = invalidOutputField(job(changes).param);
        EXPECT_EQ(problem.section(' ', 0, 0), QString(field)) << problem.toStdString();
    }
}

// The CUDA and QSV filter graphs side by side: one row, one job, both texts.
TEST(FilterGraph, PictureSteps)
{
    const Row rows[] = {
        {"size=1920x1080;crop=0,0,1,1", "hwdownload,format=nv12", ""},
        // Shapes within a thousandth count as the same.
        {"size=1360x768", kD + "scale=w=1360:h=765,pad=1360:768:0:1",
         "vpp_qsv=w=1360:h=765,pad=1360:768:0:1"},
        {"picture=1440,1080;size=1280x720", kD + "scale=w=960:h=720,pad=1280:720:160:0",
         "vpp_qsv=w=960:h=720,pad=1280:720:160:0"},
        // Taller than the output at its width: scaled down, not cut.
        {"picture=1920,1200;size=1920x1080", kD + "scale=w=1728:h=1080,pad=1920:1080:96:0",
         "vpp_qsv=w=1728:h=1080,pad=1920:1080:96:0"},
        {"size=1920x1080;crop=0,0,1,0.001", kD + "crop=x=0:y=0:w=1920:h=1,pad=1920:1080:0:539",
         "vpp_qsv=cx=0:cy=0:cw=1920:ch=1,pad=1920:1080:0:539"},
        {"picture=1440,1080,0,4,3;size=1280x720", "scale_cuda=w=1280:h=720",
         "vpp_qsv=w=1280:h=720"},
        {"size=1920x1080;crop=0,0,1,1,1,1", kD + "hflip,vflip", "vpp_qsv=format=qsv,hflip,vflip"},
        {"size=1280x720;crop=0,0,1,1,0,0,180", kD + "transpose=1,transpose=1,scale=w=1280:h=720",
         "vpp_qsv=w=1280:h=720,transpose=1,transpose=1"},
        {"size=1920x1080;crop=0.25,0.25,0.5,0.5",
         kD + "crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080",
         "vpp_qsv=cx=480:cy=270:cw=960:ch=540:w=1920:h=1080"},
        {"size=1920x1080;crop=0,0,0.5,1,0,1",
         kD + "crop=x=0:y=0:w=960:h=1080,rotate=0,vflip,pad=1920:1080:480:0",
         "vpp_qsv=cx=0:cy=0:cw=960:ch=1080,rotate=0,vflip,pad=1920:1080:480:0"},
        // Turned streams: the crop is in the stored picture's axes.
        {"picture=1920,1080,90;size=540x960;crop=0.1,0.2,0.5,0.5",
         kD + "crop=x=108:y=384:w=540:h=960", "vpp_qsv=cx=384:cy=648:cw=960:ch=540,transpose=1"},
        {"picture=1920,1080,180;size=1920x1080;crop=0.25,0.25,0.5,0.5",
         kD + "crop=x=480:y=270:w=960:h=540,scale=w=1920:h=1080",
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
        {"picture=1920,1080,270;size=540x960;crop=0.1,0.2,0.5,0.5",
         kD + "crop=x=192:y=216:w=960:h=540,scale=w=540:h=303,pad=540:960:0:328",
         "vpp_qsv=w=960:h=540,transpose=2"},
        {"picture=1920,1080,90;size=1920x1080;crop=0,0,1,1,0,0,90", kD + "transpose=1",
         "vpp_qsv=format=qsv,transpose=1,transpose=1"},
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
        {"size=960x540;" + half + ";mark=/wm/square.png,-200,-100,1,0.25",
         cudaVideo + cudaHalf +
             "0.5[mark1];[video][mark1]overlay=x=290:y=125[out1];[2:v]scale=w=135:"
             "h=135,format=yuva444p,colorchannelmixer=aa=1[mark2];[out1][mark2]"
             "overlay=x=313:y=253",
         qsvVideo +
             "[mark1];[video][mark1]overlay_qsv=x=290:y=125:w=480:h=240:alpha=127[out1];[2:v]"
             "hwupload=extra_hw_frames=10[mark2];[out1][mark2]overlay_qsv=x=313:y=253:w=135:"
             "h=135:alpha=255"},
        {"size=1080x1080;mark=/wm/square.png,0,0,1,0.25",
         "[0:v]hwdownload,format=nv12,scale=w=1080:h=607,pad=1080:1080:0:236[video];[1:v]scale=w="
         "151:h=151,format=yuva444p,colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=465:y="
         "465",
         "[0:v]vpp_qsv=w=1080:h=607,pad=1080:1080:0:236,hwupload=extra_hw_frames=10[video];[1:v]"
         "hwupload=extra_hw_frames=10[mark1];[video][mark1]overlay_qsv=x=465:y=465:w=151:h=151:"
         "alpha=255"},
        {"size=1920x1080;mark=/wm/banner.png,0,0,1,0.5",
         "[0:v]hwdownload,format=nv12[video];[1:v]scale=w=1026:h=540,format=yuva444p,"
         "colorchannelmixer=aa=1[mark1];[video][mark1]overlay=x=447:y=270",
         "[1:v]hwupload=extra_hw_frames=10[mark1];[0:v][mark1]overlay_qsv=x=447:y=270:w=1026:h=540:"
         "alpha=255"},
        {"size=960x540;mark=/wm/wide.png,600,0,1,0.5",
         cudaVideo + cudaHalf + "1[mark1];[video][mark1]overlay=x=540:y=150",
         qsvVideo + ",vpp_qsv=cx=0:cy=0:cw=175:ch=100[mark1];[video][mark1]overlay_qsv=x=540:y=150:"
                    "w=420:h=240:alpha=255"},
        // Touching the right and bottom edges is not past them: nothing is cut.
        {"size=960x540;mark=/wm/wide.png,480,-300,1,0.5",
         cudaVideo + cudaHalf + "1[mark1];[video][mark1]overlay=x=480:y=300",
         qsvVideo + "[mark1];[video][mark1]overlay_qsv=x=480:y=300:w=480:h=240:alpha=255"},
    };
    for (const Row& r : rows) {
        expectGraphs(r);
    }
    // A one-pixel picture is sized like any other square one.
    for (const bool qsv : {false, true}) {
        EXPECT_EQ(graph("size=1080x1080;mark=/wm/dot.png,9,9,1,0.25", qsv),
                  graph("size=1080x1080;mark=/wm/square.png,9,9,1,0.25", qsv));
    }
}

// A graph that cannot be made is empty; a bad size says so in the log.
TEST(FilterGraph, FailuresAreEmptyAndLogged)
{
    const std::pair<const char*, const char*> rows[] = {
        {"in=-;size=1920x1080", ""},
        {"size=960x540;crop=0,0,1,1,1;mark=/wm/wide.png,100,50,0.5,0.5;mark=/wm/"
         "missing.png,0,0,1,1",
         ""},
        {"size=960x540;mark=/wm/novideo.png,0,0,1,1", ""},
        {"size=960x540;mark=/wm/flat.png,0,0,1,1", ""},
        {"size=1920x0", "size invalid: 0 1920 1080"},
        {"picture=0,1080;size=1920x1080", "size invalid: 1080 0 1080"},
        {"size=1920x1080;crop=0,0,1,0.0001", "imgH invalid: 0"},
        {"size=1920x1080;crop=0,0,0.0001,1", "imgW invalid: 0"},
    };
    for (const auto& [changes, logged] : rows) {
        for (const bool qsv : {false, true}) {
            LogCapture log;
            EXPECT_EQ(graph(changes, qsv), QString()) << changes;
            EXPECT_EQ(log.entries().value(0).text, QString(logged)) << changes;
        }
    }
    // A mark scaled flat past the edge stops the QSV graph only.
    LogCapture log;
    EXPECT_FALSE(graph("size=960x540;mark=/wm/square.png,1000,0,1,0", false).isEmpty());
    EXPECT_EQ(graph("size=960x540;mark=/wm/square.png,1000,0,1,0", true), QString());
    EXPECT_EQ(log.entries().value(0).text, "marKH invalid: 0");
}
