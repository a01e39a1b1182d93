#include "CommandLine.h"

#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>

#include <functional>

namespace Korvane {

namespace {

using Handler = std::function<QString(const QString& value)>;

QString expects(const QString& option, const QString& what, const QString& value)
{
    return QStringLiteral("%1 expects %2, got '%3'").arg(option, what, value);
}

bool toInt(const QString& text, qint64 min, qint64 max, qint64* value)
{
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok);
    if (!ok || v < min || v > max) {
        return false;
    }
    *value = v;
    return true;
}

bool toDouble(const QString& text, double min, double max, double* value)
{
    bool ok = false;
    const double v = text.trimmed().toDouble(&ok);
    if (!ok || !(v >= min && v <= max)) {
        return false;
    }
    *value = v;
    return true;
}

// "PATH[@X,Y][,alpha=A][,scale=S]", parsed from the right so that the path
// itself may hold '@' and ','.
QString parseWatermark(const QString& value, WaterMarkParam* mark, bool* placed)
{
    static const QRegularExpression option(QStringLiteral(",(alpha|scale)=([^,@]*)$"));
    static const QRegularExpression position(QStringLiteral("@(-?\\d+),(-?\\d+)$"));
    QString rest = value;
    bool alphaSeen = false;
    bool scaleSeen = false;
    for (QRegularExpressionMatch m = option.match(rest); m.hasMatch(); m = option.match(rest)) {
        const bool isAlpha = m.captured(1) == QLatin1String("alpha");
        double number = 0;
        if (isAlpha ? (alphaSeen || !toDouble(m.captured(2), 0.0, 1.0, &number))
                    : (scaleSeen || !toDouble(m.captured(2), 0.001, 100.0, &number))) {
            return expects(QStringLiteral("--watermark"),
                           QStringLiteral("PATH[@X,Y][,alpha=0..1][,scale=S>0] once each"), value);
        }
        if (isAlpha) {
            alphaSeen = true;
            mark->alpha = float(number);
        } else {
            scaleSeen = true;
            mark->scaleX = mark->scaleY = float(number);
        }
        rest.chop(m.capturedLength(0));
    }
    const QRegularExpressionMatch at = position.match(rest);
    *placed = at.hasMatch();
    if (*placed) {
        mark->centerPos = QPoint(at.captured(1).toInt(), at.captured(2).toInt());
        rest.chop(at.capturedLength(0));
    }
    if (rest.isEmpty()) {
        return expects(QStringLiteral("--watermark"), QStringLiteral("a picture path"), value);
    }
    mark->filePath = rest;
    return {};
}

} // namespace

ParsedCommandLine parseCommandLine(const QStringList& arguments)
{
    ParsedCommandLine result;
    CommandLine& cmd = result.commandLine;
    ConvertJob job;
    job.output.video.codecName = QStringLiteral("h264");
    job.output.audio.codecName = QStringLiteral("aac");
    bool anyJobOption = false;
    QString gpu;
    QList<ConvertMode> modes;
    QStringList positionals;

    auto setMode = [&modes](ConvertMode mode) { modes.append(mode); };
    auto intOption = [&](const QString& name, qint64 min, qint64 max, auto assign) -> Handler {
        return [=](const QString& v) {
            qint64 n = 0;
            if (!toInt(v, min, max, &n)) {
                return expects(name, QStringLiteral("an integer from %1 to %2").arg(min).arg(max),
                               v);
            }
            assign(n);
            return QString();
        };
    };
    auto ensureCrop = [&job]() -> CropParam& {
        if (!job.source.crop) {
            job.source.crop = CropParam();
        }
        return *job.source.crop;
    };

    // Options that describe the job (they need INPUT OUTPUT, not --job).
    QHash<QString, Handler> jobOptions;
    BaseFilterParam& filter = job.source.baseFilter;
    jobOptions["--format"] = [&](const QString& v) {
        if (v.trimmed().isEmpty()) {
            return expects("--format", "a container name such as mp4", v);
        }
        job.output.format = v.trimmed().toLower();
        return QString();
    };
    jobOptions["--vcodec"] = [&](const QString& v) {
        const QString c = v.toLower();
        if (c != "h264" && c != "h265" && c != "none") {
            return expects("--vcodec", "h264, h265 or none", v);
        }
        job.output.video.codecName = c == "none" ? QString() : c;
        return QString();
    };
    jobOptions["--size"] = [&](const QString& v) {
        static const QRegularExpression size(QStringLiteral("^(\\d{1,5})[xX](\\d{1,5})$"));
        const QRegularExpressionMatch m = size.match(v.trimmed());
        if (!m.hasMatch() || m.captured(1).toInt() < 2 || m.captured(2).toInt() < 2) {
            return expects("--size", "WxH in pixels, such as 1280x720", v);
        }
        job.output.video.width = m.captured(1).toInt();
        job.output.video.height = m.captured(2).toInt();
        cmd.sizeGiven = true;
        return QString();
    };
    jobOptions["--fps"] = [&](const QString& v) {
        double fps = 0;
        if (!toDouble(v, 0.001, 1000.0, &fps)) {
            return expects("--fps", "frames per second above 0", v);
        }
        job.output.video.frameRate = fps;
        return QString();
    };
    jobOptions["--vbitrate"] =
        intOption("--vbitrate", 1, 1000000, [&](qint64 n) { job.output.video.bitrateKbps = n; });
    jobOptions["--acodec"] = [&](const QString& v) {
        static const QRegularExpression name(QStringLiteral("^[a-z0-9_]+$"));
        const QString c = v.trimmed().toLower();
        if (!name.match(c).hasMatch()) {
            return expects("--acodec", "an audio codec name such as aac, or none", v);
        }
        job.output.audio.codecName = c == "none" ? QString() : c;
        return QString();
    };
    jobOptions["--abitrate"] =
        intOption("--abitrate", 1, 100000, [&](qint64 n) { job.output.audio.bitrateKbps = n; });
    jobOptions["--ar"] =
        intOption("--ar", 1000, 768000, [&](qint64 n) { job.output.audio.sampleRate = int(n); });
    jobOptions["--ac"] =
        intOption("--ac", 1, 16, [&](qint64 n) { job.output.audio.channels = int(n); });
    jobOptions["--crop"] = [&](const QString& v) {
        const QStringList parts = v.split(',');
        double n[4] = {0, 0, 0, 0};
        bool ok = parts.size() == 4;
        for (int i = 0; ok && i < 4; ++i) {
            ok = toDouble(parts[i], 0.0, 1.0, &n[i]);
        }
        if (!ok || n[2] <= 0 || n[3] <= 0 || n[0] + n[2] > 1.000001 || n[1] + n[3] > 1.000001) {
            return expects("--crop", "X,Y,W,H as fractions of the picture inside 0..1", v);
        }
        CropParam& crop = ensureCrop();
        crop.cropX = n[0];
        crop.cropY = n[1];
        crop.cropW = n[2];
        crop.cropH = n[3];
        return QString();
    };
    jobOptions["--flip"] = [&](const QString& v) {
        const QString f = v.toLower();
        if (f != "h" && f != "v" && f != "hv" && f != "vh") {
            return expects("--flip", "h, v or hv", v);
        }
        ensureCrop().flipX = f.contains('h');
        ensureCrop().flipY = f.contains('v');
        return QString();
    };
    jobOptions["--rotate"] = [&](const QString& v) {
        const QString r = v.trimmed();
        if (r != "0" && r != "90" && r != "180" && r != "270") {
            return expects("--rotate", "90, 180 or 270", v);
        }
        ensureCrop().rotation = r.toInt();
        return QString();
    };
    jobOptions["--watermark"] = [&](const QString& v) {
        WaterMarkParam mark;
        bool placed = false;
        const QString error = parseWatermark(v, &mark, &placed);
        if (error.isEmpty()) {
            if (!placed) {
                cmd.unplacedWatermarks.append(int(job.source.waterMark.size()));
            }
            job.source.waterMark.append(mark);
        }
        return error;
    };
    jobOptions["--cut"] = [&](const QString& v) {
        static const QRegularExpression range(QStringLiteral("^(\\d{1,12})-(\\d{1,12})$"));
        const QRegularExpressionMatch m = range.match(v.trimmed());
        if (!m.hasMatch() || m.captured(2).toLongLong() <= m.captured(1).toLongLong()) {
            return expects("--cut", "BEGIN_MS-END_MS with END after BEGIN", v);
        }
        const qint64 begin = m.captured(1).toLongLong();
        job.source.cut.append({begin, m.captured(2).toLongLong() - begin});
        return QString();
    };
    jobOptions["--speed"] = [&](const QString& v) {
        double s = 0;
        if (!toDouble(v, 0.01, 100.0, &s)) {
            return expects("--speed", "a factor from 0.01 to 100", v);
        }
        job.source.speed = float(s);
        return QString();
    };
    jobOptions["--volume"] =
        intOption("--volume", 0, 1000, [&](qint64 n) { filter.volume = int(n); });
    const QList<QPair<QString, qint32*>> baseFilters = {
        {"--brightness", &filter.brightness},
        {"--contrast", &filter.contrast},
        {"--saturation", &filter.saturation},
        {"--sharpen", &filter.sharpen},
        {"--shadow", &filter.shadow},
        {"--highlight", &filter.highlight},
        {"--color-temperature", &filter.colorTemperature}};
    for (const auto& [name, field] : baseFilters) {
        qint32* target = field;
        jobOptions[name] = intOption(name, -100, 100, [target](qint64 n) { *target = int(n); });
    }
    jobOptions["--hue"] = intOption("--hue", -180, 180, [&](qint64 n) { filter.hue = int(n); });
    jobOptions["--audio-track"] = intOption("--audio-track", 0, 65535, [&](qint64 n) {
        job.source.selfAudios.append(int(n));
        cmd.audioTracksGiven = true;
    });
    jobOptions["--subtitle"] = [&](const QString& v) {
        if (v.isEmpty()) {
            return expects("--subtitle", "a subtitle file", v);
        }
        job.source.attachedSubtitle.append({0, QFileInfo(v).completeBaseName(), v});
        return QString();
    };
    jobOptions["--subtitle-track"] = intOption("--subtitle-track", 0, 65535, [&](qint64 n) {
        job.source.selfSubtitles.append({int(n), QString()});
    });
    jobOptions["--cover"] = [&](const QString& v) {
        if (v.isEmpty()) {
            return expects("--cover", "a picture file", v);
        }
        job.source.coverPath = v;
        return QString();
    };
    jobOptions["--meta"] = [&](const QString& v) {
        const int eq = v.indexOf('=');
        if (eq <= 0) {
            return expects("--meta", "KEY=VALUE", v);
        }
        job.source.metaData.insert(v.left(eq), v.mid(eq + 1));
        return QString();
    };
    jobOptions["--gpu"] = [&](const QString& v) {
        if (v.trimmed().isEmpty()) {
            return expects("--gpu", "a GPU name, auto or none", v);
        }
        gpu = v.trimmed();
        return QString();
    };
    jobOptions["--save-job"] = [&](const QString& v) {
        if (v.isEmpty()) {
            return expects("--save-job", "a file name", v);
        }
        cmd.saveJobPath = v;
        setMode(ConvertMode::SaveJob);
        return QString();
    };

    QHash<QString, Handler> otherOptions;
    otherOptions["--job"] = [&](const QString& v) {
        if (v.isEmpty()) {
            return expects("--job", "a job file", v);
        }
        cmd.jobFiles.append(v);
        return QString();
    };
    otherOptions["--probe"] = [&](const QString& v) {
        if (v.isEmpty()) {
            return expects("--probe", "a media file", v);
        }
        cmd.probePath = v;
        setMode(ConvertMode::Probe);
        return QString();
    };
    otherOptions["--path"] = [&](const QString& v) {
        const QString p = v.toLower();
        if (p == "ffmpeg") {
            cmd.forcedPath = ForcedPath::FFmpeg;
        } else if (p == "converter") {
            cmd.forcedPath = ForcedPath::Converter;
        } else if (p == "export") {
            cmd.forcedPath = ForcedPath::Export;
        } else {
            return expects("--path", "ffmpeg, converter or export", v);
        }
        return QString();
    };
    const QHash<QString, std::function<void()>> switches = {
        {"--hw", [&] { job.output.acceleration.hardwareEnabled = true, anyJobOption = true; }},
        {"--print-command", [&] { setMode(ConvertMode::PrintCommand); }},
        {"--print-timeline", [&] { setMode(ConvertMode::PrintTimeline); }},
        {"--check", [&] { setMode(ConvertMode::Check); }},
        {"--print-job", [&] { setMode(ConvertMode::PrintJob); }},
        {"--json-progress", [&] { cmd.jsonProgress = true; }},
        {"--quiet", [&] { cmd.quiet = true; }},
        {"--verbose", [&] { cmd.verbose = true; }},
        {"--help", [&] { setMode(ConvertMode::Help); }},
        {"-h", [&] { setMode(ConvertMode::Help); }},
        {"--version", [&] { setMode(ConvertMode::Version); }},
    };

    auto fail = [&result](const QString& error) {
        result.error = error;
        return result;
    };
    bool optionsEnded = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString arg = arguments[i];
        if (optionsEnded || !arg.startsWith('-') || arg == "-") {
            positionals.append(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        QString name = arg;
        std::optional<QString> inlineValue;
        const int eq = arg.indexOf('=');
        if (arg.startsWith("--") && eq > 2) {
            name = arg.left(eq);
            inlineValue = arg.mid(eq + 1);
        }
        if (switches.contains(name)) {
            if (inlineValue) {
                return fail(QStringLiteral("%1 takes no value").arg(name));
            }
            switches[name]();
            continue;
        }
        const bool isJobOption = jobOptions.contains(name);
        if (!isJobOption && !otherOptions.contains(name)) {
            return fail(QStringLiteral("unknown option %1").arg(name));
        }
        QString value;
        if (inlineValue) {
            value = *inlineValue;
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            return fail(QStringLiteral("%1 needs a value").arg(name));
        }
        const QString error = (isJobOption ? jobOptions : otherOptions)[name](value);
        if (!error.isEmpty()) {
            return fail(error);
        }
        anyJobOption = anyJobOption || (isJobOption && name != "--save-job");
    }

    if (modes.contains(ConvertMode::Help) || modes.contains(ConvertMode::Version)) {
        cmd.mode = modes.contains(ConvertMode::Help) ? ConvertMode::Help : ConvertMode::Version;
        return result;
    }
    if (modes.size() > 1) {
        return fail(QStringLiteral("choose one of --save-job, --print-command, --print-timeline, "
                                   "--check, --print-job and --probe"));
    }
    cmd.mode = modes.isEmpty() ? ConvertMode::Run : modes.first();
    if (cmd.quiet && cmd.verbose) {
        return fail(QStringLiteral("--quiet and --verbose exclude each other"));
    }

    if (cmd.mode == ConvertMode::Probe) {
        if (!positionals.isEmpty() || !cmd.jobFiles.isEmpty() || anyJobOption) {
            return fail(QStringLiteral("--probe takes one media file and no job"));
        }
        return result;
    }
    if (!cmd.jobFiles.isEmpty()) {
        if (!positionals.isEmpty() || anyJobOption || cmd.mode == ConvertMode::SaveJob) {
            return fail(QStringLiteral("give either --job files or INPUT OUTPUT with options, "
                                       "not both"));
        }
        if (cmd.mode != ConvertMode::Run && cmd.jobFiles.size() != 1) {
            return fail(QStringLiteral("this mode takes exactly one --job file"));
        }
        return result;
    }
    if (positionals.size() != 2) {
        return fail(positionals.isEmpty()
                        ? QStringLiteral("missing INPUT and OUTPUT (or --job FILE)")
                        : QStringLiteral("expected INPUT OUTPUT, got %1 file argument(s)")
                              .arg(positionals.size()));
    }
    job.source.filePath = positionals[0];
    job.output.outputPath = positionals[1];
    if (job.output.format.isEmpty()) {
        job.output.format = QFileInfo(positionals[1]).suffix().toLower();
        if (job.output.format.isEmpty()) {
            return fail(QStringLiteral("cannot tell the container from '%1': give --format")
                            .arg(positionals[1]));
        }
    }
    if (gpu.compare("auto", Qt::CaseInsensitive) == 0) {
        cmd.gpuAuto = true;
    } else if (gpu.compare("none", Qt::CaseInsensitive) != 0) {
        job.output.acceleration.gpuName = gpu;
    }
    cmd.flagJob = job;
    return result;
}

ConvertJob completeFlagJob(const CommandLine& commandLine, const ConvertJob& job,
                           const InputFacts& facts)
{
    ConvertJob done = job;
    AVTaskOutputParam::Video& video = done.output.video;
    if (!commandLine.sizeGiven && facts.displaySize.isValid()) {
        video.width = facts.displaySize.width();
        video.height = facts.displaySize.height();
    }
    if (!commandLine.audioTracksGiven && !facts.audioStreamIndexes.isEmpty()) {
        done.source.selfAudios = {facts.audioStreamIndexes.first()};
    }
    for (const int index : commandLine.unplacedWatermarks) {
        done.source.waterMark[index].centerPos = QPoint(video.width / 2, video.height / 2);
    }
    return done;
}

QString helpText()
{
    return QStringLiteral(
        "Usage: korvane-convert INPUT OUTPUT [options]\n"
        "   or: korvane-convert --job FILE [--job FILE ...] [run options]\n"
        "   or: korvane-convert --job FILE --print-command|--print-timeline|--check|--print-job\n"
        "   or: korvane-convert --probe MEDIA\n"
        "\n"
        "Output:\n"
        "  --format NAME          container (default: the output's suffix)\n"
        "  --vcodec h264|h265     video codec (default h264; none drops the video)\n"
        "  --size WxH             output picture size (default: the input's display size)\n"
        "  --fps N                frame rate\n"
        "  --vbitrate KBPS        video bit rate\n"
        "  --acodec NAME          audio codec (default aac; none drops the audio)\n"
        "  --abitrate KBPS, --ar HZ, --ac N   audio bit rate, sample rate, channels\n"
        "Edits:\n"
        "  --crop X,Y,W,H         crop rectangle as fractions of the picture\n"
        "  --flip h|v|hv          mirror left-right, top-bottom or both\n"
        "  --rotate 90|180|270    rotate clockwise\n"
        "  --watermark PATH[@X,Y][,alpha=A][,scale=S]   picture centred at X,Y output pixels\n"
        "                         (default: the middle); repeatable\n"
        "  --cut BEGIN_MS-END_MS  keep a range; repeatable\n"
        "  --speed F              playback speed factor\n"
        "  --volume PERCENT       audio volume (100 keeps it)\n"
        "  --brightness, --contrast, --saturation, --sharpen, --shadow, --highlight,\n"
        "  --color-temperature N  colour corrections, -100..100; --hue N, -180..180\n"
        "  --audio-track N        keep this audio stream (default: the first); repeatable\n"
        "  --subtitle PATH        add a subtitle file; --subtitle-track N keeps a stream\n"
        "  --cover PATH           attach a cover picture\n"
        "  --meta KEY=VALUE       set a metadata tag; repeatable\n"
        "  --gpu NAME|auto|none   GPU for decoding, encoding and edits (auto: find one)\n"
        "  --hw                   allow hardware decoding\n"
        "  --save-job FILE        write the job file instead of running it\n"
        "Running:\n"
        "  --job FILE             run a job file; repeatable (jobs run one after another)\n"
        "  --path ffmpeg|converter|export   force the converter\n"
        "  --json-progress        one JSON object per event on standard output\n"
        "  --quiet, --verbose     less output / log records on standard error\n"
        "  --help, --version\n"
        "Modes printing JSON on standard output:\n"
        "  --print-command        the ffmpeg argument list of the job\n"
        "  --print-timeline       the timeline project document of the job\n"
        "  --check                {\"ffmpeg\": bool, \"transcoder\": bool}\n"
        "  --print-job            the job's records as the library writes them\n"
        "  --probe MEDIA          the media description of a file\n"
        "\n"
        "Exit codes: 0 finished, 1 failed, 2 usage error, 130 interrupted.\n");
}

} // namespace Korvane
