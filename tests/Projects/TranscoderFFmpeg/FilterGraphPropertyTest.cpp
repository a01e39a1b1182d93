// Many generated jobs: every graph either builder makes must be one that the
// linked libavfilter accepts, and every argument list must keep its shape.
#include "CommandJobs.h"

#include "KvAVGlue/KvAVGlue.h"

#include <QProcess>
#include <QSet>

#include <gtest/gtest.h>

#include <random>

using namespace Korvane;
using namespace CommandJobs;

namespace {

constexpr int kJobs = 2000;

struct GeneratedJob
{
    ConvertSource source;
    AVTaskOutputParam param;
    FFmpegCommandFacts facts;
    QString progress;
};

class JobGenerator
{
public:
    explicit JobGenerator(unsigned seed) : mRandom(seed) {}

    GeneratedJob next()
    {
        GeneratedJob job;
        job.progress = pick<QString>({"/tmp/progress.txt", "/tmp/a b/progress 2.txt"});
        job.source.filePath = pick<QString>({"/in/clip.mp4", "/in/my clip (1).mov"});
        job.facts.info = input();
        job.facts.hardwareThreads = integer(1, 64);
        job.facts.qsvDeviceInitExplicit = chance(0.5);

        const int cropKind = integer(0, 2);
        if (cropKind > 0) {
            CropParam crop = fullPicture(chance(0.3), chance(0.3),
                                         pick<int>({0, 0, 90, 180, 270, 45, -90, 360}));
            if (cropKind == 2) {
                crop.cropX = real(0.0, 0.6);
                crop.cropY = real(0.0, 0.6);
                crop.cropW = real(0.0, 1.0 - crop.cropX);
                crop.cropH = real(0.0, 1.0 - crop.cropY);
            }
            job.source.crop = crop;
        }

        QMap<QString, QSize> pictures;
        const int marks = pick<int>({0, 0, 1, 1, 2, 3});
        for (int i = 0; i < marks; ++i) {
            const QString path = QString("/wm/mark %1.png").arg(i);
            if (!chance(0.03)) {
                pictures.insert(path, QSize(integer(1, 800), integer(1, 800)));
            }
            job.source.waterMark << mark(path, integer(-1500, 1500), integer(-1500, 1500),
                                         static_cast<float>(real(0.0, 1.0)),
                                         static_cast<float>(real(0.0, 1.5)),
                                         static_cast<float>(real(0.0, 1.5)));
        }
        job.facts.probe = pictureProbe(pictures);

        AVTaskOutputParam& p = job.param;
        p.outputPath = pick<QString>({"/out/result.mp4", "/out/with blank/result.mkv"});
        p.format = pick<QString>({"mp4", "MKV", "mov", "ts", "flv", "webm", "bogus", ""});
        const QSize out = chance(0.5) ? pick<QSize>({{1920, 1080},
                                                     {1280, 720},
                                                     {1080, 1920},
                                                     {1080, 1080},
                                                     {3840, 2160},
                                                     {720, 480},
                                                     {0, 0}})
                                      : QSize(integer(1, 4096), integer(1, 4096));
        p.video.codecName = pick<QString>({"h264", "h265", "H264", "H265", "0", ""});
        p.video.width = out.width();
        p.video.height = out.height();
        p.video.frameRate = pick<double>({0.0, 25.0, 29.97, 30000.0 / 1001.0, 60.0});
        p.video.bitrateKbps = pick<qint64>({0, 800, 5000});
        p.audio.codecName = pick<QString>({"aac", "AAC", "pcm", "adpcm", "mp3", "0", ""});
        p.audio.sampleRate = pick<int>({0, 44100, 48000});
        p.audio.channels = pick<int>({0, 1, 2, 6});
        p.audio.bitrateKbps = pick<qint64>({0, 128, 320});
        p.acceleration.hardwareEnabled = chance(0.5);
        p.acceleration.gpuName =
            pick<QString>({"NVIDIA GeForce RTX 3060", "Intel(R) UHD Graphics 630", "NVIDIA",
                           "Intel(R) Arc(TM) A770", "AMD Radeon RX 6600", "nvidia", ""});
        return job;
    }

private:
    QSharedPointer<MediaInfoV3> input()
    {
        if (chance(0.02)) {
            return {};
        }
        if (chance(0.03)) {
            return audioOnlyInfo();
        }
        const QSize size = chance(0.5) ? pick<QSize>({{1920, 1080},
                                                      {1280, 720},
                                                      {1440, 1080},
                                                      {720, 576},
                                                      {1080, 1920},
                                                      {3840, 2160},
                                                      {0, 1080}})
                                       : QSize(integer(2, 4096), integer(2, 4096));
        const auto sar =
            pick<std::pair<int, int>>({{0, 1}, {1, 1}, {1, 1}, {4, 3}, {64, 45}, {3, 4}, {1, 0}});
        return videoInfo(size.width(), size.height(), pick<QString>({"h264", "h265", "mpeg4"}),
                         pick<double>({0.0, 0.0, 90.0, 180.0, 270.0}), sar.first, sar.second,
                         chance(0.8));
    }

    template <typename T>
    T pick(std::initializer_list<T> values)
    {
        auto it = values.begin();
        std::advance(it, integer(0, static_cast<int>(values.size()) - 1));
        return *it;
    }
    int integer(int low, int high)
    {
        return std::uniform_int_distribution<int>(low, high)(mRandom);
    }
    double real(double low, double high)
    {
        return std::uniform_real_distribution<double>(low, high)(mRandom);
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(mRandom); }

    std::mt19937 mRandom;
};

struct ParsedGraph
{
    int ret = 0;
    QStringList inputNames; // labels of the open inputs
    int outputs = 0;
};

ParsedGraph parseGraph(const QString& text)
{
    ParsedGraph parsed;
    const QSharedPointer<AVFilterGraph> graph = makeAVFilterGraphPtr();
    if (!graph) {
        parsed.ret = AVERROR(ENOMEM);
        return parsed;
    }
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    parsed.ret = avfilter_graph_parse_ptr(graph.data(), text.toUtf8().constData(), &inputs,
                                          &outputs, nullptr);
    const QSharedPointer<AVFilterInOut> ownInputs = makeAVFilterInOutPtr(inputs);
    const QSharedPointer<AVFilterInOut> ownOutputs = makeAVFilterInOutPtr(outputs);
    for (const AVFilterInOut* in = inputs; in; in = in->next) {
        parsed.inputNames << QString::fromUtf8(in->name ? in->name : "");
    }
    for (const AVFilterInOut* out = outputs; out; out = out->next) {
        ++parsed.outputs;
    }
    return parsed;
}

QString quoted(const QString& s)
{
    return '"' + s + '"';
}

bool contains(const QString& haystack, const char* needle)
{
    return haystack.contains(QLatin1String(needle));
}

} // namespace

TEST(FilterGraphProperty, EveryGraphParsesAndEveryCommandKeepsItsShape)
{
    JobGenerator generator(20261122u);
    int parsedGraphs = 0;
    int commands = 0;
    for (int n = 0; n < kJobs; ++n) {
        const GeneratedJob job = generator.next();
        const int marks = job.source.waterMark.size();
        const QString where = QString("job %1").arg(n);

        QString graphs[2];
        graphs[0] =
            makeCudaFilterCommand(job.source, job.param.video, job.facts.info, job.facts.probe);
        graphs[1] =
            makeQsvFilterCommand(job.source, job.param.video, job.facts.info, job.facts.probe);
        for (const QString& graph : graphs) {
            if (graph.isEmpty()) {
                continue;
            }
            const ParsedGraph parsed = parseGraph(graph);
            ASSERT_GE(parsed.ret, 0) << where.toStdString() << ": " << graph.toStdString();
            ++parsedGraphs;
            EXPECT_EQ(parsed.outputs, 1) << graph.toStdString();
            if (marks == 0) {
                // One unlabelled chain: libavfilter names its open ends itself.
                EXPECT_EQ(parsed.inputNames.size(), 1) << graph.toStdString();
            } else {
                QStringList expected{"0:v"};
                for (int i = 1; i <= marks; ++i) {
                    expected << QString("%1:v").arg(i);
                }
                EXPECT_EQ(QSet<QString>(parsed.inputNames.begin(), parsed.inputNames.end()),
                          QSet<QString>(expected.begin(), expected.end()))
                    << graph.toStdString();
            }
        }

        const QStringList args = makeFFmpegCommand(job.source, job.param, job.progress, job.facts);
        if (!job.facts.info) {
            EXPECT_TRUE(args.isEmpty());
            continue;
        }
        ASSERT_GE(args.size(), 13) << where.toStdString();
        ++commands;
        const QString& gpu = job.param.acceleration.gpuName;
        const bool intel = contains(gpu, "Intel");
        const bool nvidia = contains(gpu, "NVIDIA");

        EXPECT_EQ(args.mid(0, 4),
                  (QStringList{"-v error", "-progress", quoted(job.progress), "-y"}));
        const int threads =
            args.indexOf(QString("-threads %1").arg((job.facts.hardwareThreads + 1) / 2));
        ASSERT_GE(threads, 4) << where.toStdString();
        const QStringList hardware = args.mid(4, threads - 4);
        if (!job.param.acceleration.hardwareEnabled) {
            EXPECT_TRUE(hardware.isEmpty());
        } else if (intel) {
            EXPECT_TRUE(hardware.contains("-hwaccel qsv"));
        } else if (nvidia) {
            EXPECT_TRUE(hardware.contains("-hwaccel cuvid"));
        } else {
            EXPECT_EQ(hardware, QStringList{"-hwaccel auto"});
        }
        QStringList inputs{"-i", quoted(job.source.filePath)};
        for (const WaterMarkParam& m : job.source.waterMark) {
            inputs << "-i" << quoted(m.filePath);
        }
        EXPECT_EQ(args.mid(threads + 1, inputs.size()), inputs);
        EXPECT_EQ(args.count("-i"), 1 + marks);

        const int crf =
            crfQuality(job.param.video.codecName, job.param.video.width, job.param.video.height);
        EXPECT_GE(crf, 1);
        EXPECT_LE(crf, 28);
        EXPECT_EQ(args.mid(args.size() - 5),
                  (QStringList{"-g 15", QString("-crf %1").arg(crf), "-f",
                               muxerName(job.param.format), quoted(job.param.outputPath)}));
        const bool noAudio =
            job.param.audio.codecName.isEmpty() || job.facts.info->audioStreams.isEmpty();
        EXPECT_EQ(args.contains("-an"), noAudio);
        EXPECT_EQ(args.contains("-acodec"), !noAudio && job.param.audio.codecName != "0");
        const bool noVideo =
            job.param.video.codecName.isEmpty() || job.facts.info->videoStreams.isEmpty();
        EXPECT_EQ(args.contains("-vn"), noVideo);

        const int lavfi = args.indexOf("-lavfi");
        const bool sized = job.param.video.width >= 1 && job.param.video.height >= 1;
        const QString graph = intel ? graphs[1] : nvidia ? graphs[0] : QString();
        if (!noVideo && sized && !graph.isEmpty()) {
            ASSERT_GE(lavfi, 0) << where.toStdString();
            EXPECT_EQ(args.at(lavfi + 1), quoted(graph));
        } else {
            EXPECT_EQ(lavfi, -1) << where.toStdString();
        }

        // The caller joins the list with blanks and the process layer splits
        // it again: every element must come back as the words it holds.
        QStringList words;
        for (const QString& a : args) {
            if (a.startsWith('"')) {
                EXPECT_TRUE(a.endsWith('"') && a.size() >= 2 &&
                            !a.mid(1, a.size() - 2).contains('"'))
                    << a.toStdString();
                words << a.mid(1, a.size() - 2);
            } else {
                EXPECT_FALSE(a.contains('"')) << a.toStdString();
                words << a.split(' ', Qt::SkipEmptyParts);
            }
        }
        words.removeAll(QString());
        EXPECT_EQ(QProcess::splitCommand(args.join(' ')), words) << where.toStdString();
    }
    EXPECT_GE(parsedGraphs, 1000);
    EXPECT_GE(commands, kJobs * 9 / 10);
}
