#include "korvane-convert/OptionTable.h"

#include <QFileInfo>

namespace Korvane {

namespace {

constexpr OptionScope Job = OptionScope::Job;
constexpr OptionScope Other = OptionScope::Other;
constexpr HelpLayout OwnLine = HelpLayout::OwnLine;
constexpr HelpLayout JoinNext = HelpLayout::JoinNext;
constexpr HelpLayout Append = HelpLayout::Append;

// Helps start in this column; a longer synopsis is followed by three spaces.
constexpr int kHelpColumn = 25;
// Joined synopses wrap before passing this column.
constexpr int kLineWidth = 79;

// A flag that chooses what the invocation does.
ApplyValue modeFlag(ConvertMode mode)
{
    return flag([mode](OptionState& s) { s.modes.append(mode); });
}

ApplyValue colourCorrection(qint32 BaseFilterParam::*field, qint64 limit)
{
    return integer(-limit, limit,
                   [field](OptionState& s, qint64 n) { s.job.source.baseFilter.*field = int(n); });
}

// A row of no heading.
OptionRow option(const QStringList& names, const QString& valueName, OptionScope scope,
                 HelpLayout layout, const QString& help, const ApplyValue& apply)
{
    return {QString(), names, valueName, scope, apply, layout, help};
}

// A codec name where "none" drops the stream.
QString codecOrNone(const QString& name)
{
    return name == QLatin1String("none") ? QString() : name;
}

QList<OptionRow> outputRows()
{
    QList<OptionRow> rows = {
        option({"--format"}, "NAME", Job, OwnLine, "container (default: the output's suffix)",
               text("a container name such as mp4", Spaces::Trimmed,
                    [](OptionState& s, const QString& v) { s.job.output.format = v.toLower(); })),
        option({"--vcodec"}, "h264|h265", Job, OwnLine,
               "video codec (default h264; none drops the video)",
               oneOf({"h264", "h265", "none"}, "h264, h265 or none", Spaces::Kept,
                     [](OptionState& s, const QString& c) {
                         s.job.output.video.codecName = codecOrNone(c);
                     })),
        option({"--size"}, "WxH", Job, OwnLine,
               "output picture size (default: the input's display size)", applySize),
        option({"--fps"}, "N", Job, OwnLine, "frame rate",
               decimal(0.001, 1000.0, "frames per second above 0",
                       [](OptionState& s, double fps) { s.job.output.video.frameRate = fps; })),
        option({"--vbitrate"}, "KBPS", Job, OwnLine, "video bit rate",
               integer(1, 1000000,
                       [](OptionState& s, qint64 n) { s.job.output.video.bitrateKbps = n; })),
        option({"--acodec"}, "NAME", Job, OwnLine,
               "audio codec (default aac; none drops the audio)", applyAudioCodec),
        option({"--abitrate"}, "KBPS", Job, JoinNext, "",
               integer(1, 100000,
                       [](OptionState& s, qint64 n) { s.job.output.audio.bitrateKbps = n; })),
        option({"--ar"}, "HZ", Job, JoinNext, "",
               integer(1000, 768000,
                       [](OptionState& s, qint64 n) { s.job.output.audio.sampleRate = int(n); })),
        option(
            {"--ac"}, "N", Job, OwnLine, "audio bit rate, sample rate, channels",
            integer(1, 16, [](OptionState& s, qint64 n) { s.job.output.audio.channels = int(n); })),
    };
    rows.first().heading = QStringLiteral("Output:");
    return rows;
}

QList<OptionRow> pictureRows()
{
    using Filter = BaseFilterParam;
    QList<OptionRow> rows = {
        option({"--crop"}, "X,Y,W,H", Job, OwnLine, "crop rectangle as fractions of the picture",
               applyCrop),
        option({"--flip"}, "h|v|hv", Job, OwnLine, "mirror left-right, top-bottom or both",
               oneOf({"h", "v", "hv", "vh"}, "h, v or hv", Spaces::Kept,
                     [](OptionState& s, const QString& f) {
                         cropOf(s.job).flipX = f.contains('h');
                         cropOf(s.job).flipY = f.contains('v');
                     })),
        option({"--rotate"}, "90|180|270", Job, OwnLine, "rotate clockwise",
               oneOf({"0", "90", "180", "270"}, "90, 180 or 270", Spaces::Trimmed,
                     [](OptionState& s, const QString& r) { cropOf(s.job).rotation = r.toInt(); })),
        option({"--watermark"}, "PATH[@X,Y][,alpha=A][,scale=S]", Job, OwnLine,
               "picture centred at X,Y output pixels\n(default: the middle); repeatable",
               applyWatermark),
        option({"--cut"}, "BEGIN_MS-END_MS", Job, OwnLine, "keep a range; repeatable", applyCut),
        option({"--speed"}, "F", Job, OwnLine, "playback speed factor",
               decimal(0.01, 100.0, "a factor from 0.01 to 100",
                       [](OptionState& s, double f) { s.job.source.speed = float(f); })),
        option({"--volume"}, "PERCENT", Job, OwnLine, "audio volume (100 keeps it)",
               integer(0, 1000,
                       [](OptionState& s, qint64 n) { s.job.source.baseFilter.volume = int(n); })),
        option({"--brightness"}, "N", Job, JoinNext, "",
               colourCorrection(&Filter::brightness, 100)),
        option({"--contrast"}, "N", Job, JoinNext, "", colourCorrection(&Filter::contrast, 100)),
        option({"--saturation"}, "N", Job, JoinNext, "",
               colourCorrection(&Filter::saturation, 100)),
        option({"--sharpen"}, "N", Job, JoinNext, "", colourCorrection(&Filter::sharpen, 100)),
        option({"--shadow"}, "N", Job, JoinNext, "", colourCorrection(&Filter::shadow, 100)),
        option({"--highlight"}, "N", Job, JoinNext, "", colourCorrection(&Filter::highlight, 100)),
        option({"--color-temperature"}, "N", Job, OwnLine, "colour corrections, -100..100",
               colourCorrection(&Filter::colorTemperature, 100)),
        option({"--hue"}, "N", Job, Append, ", -180..180", colourCorrection(&Filter::hue, 180)),
    };
    rows.first().heading = QStringLiteral("Edits:");
    return rows;
}

// The rest of the edits: tracks, attachments, tags and the GPU.
QList<OptionRow> trackRows()
{
    QList<OptionRow> rows = {
        option({"--audio-track"}, "N", Job, OwnLine,
               "keep this audio stream (default: the first); repeatable",
               integer(0, 65535,
                       [](OptionState& s, qint64 n) {
                           s.job.source.selfAudios.append(int(n));
                           s.commandLine.audioTracksGiven = true;
                       })),
        option({"--subtitle"}, "PATH", Job, OwnLine, "add a subtitle file",
               text("a subtitle file", Spaces::Kept,
                    [](OptionState& s, const QString& path) {
                        s.job.source.attachedSubtitle.append(
                            {0, QFileInfo(path).completeBaseName(), path});
                    })),
        option({"--subtitle-track"}, "N", Job, Append, " keeps a stream",
               integer(0, 65535,
                       [](OptionState& s, qint64 n) {
                           s.job.source.selfSubtitles.append({int(n), QString()});
                       })),
        option({"--cover"}, "PATH", Job, OwnLine, "attach a cover picture",
               text("a picture file", Spaces::Kept,
                    [](OptionState& s, const QString& path) { s.job.source.coverPath = path; })),
        option({"--meta"}, "KEY=VALUE", Job, OwnLine, "set a metadata tag; repeatable", applyMeta),
        option({"--gpu"}, "NAME|auto|none", Job, OwnLine,
               "GPU for decoding, encoding and edits (auto: find one)",
               text("a GPU name, auto or none", Spaces::Trimmed,
                    [](OptionState& s, const QString& name) { s.gpu = name; })),
        option({"--hw"}, "", Job, OwnLine, "allow hardware decoding",
               flag([](OptionState& s) { s.job.output.acceleration.hardwareEnabled = true; })),
        option({"--save-job"}, "FILE", Other, OwnLine, "write the job file instead of running it",
               text("a file name", Spaces::Kept,
                    [](OptionState& s, const QString& path) {
                        s.commandLine.saveJobPath = path;
                        s.modes.append(ConvertMode::SaveJob);
                    })),
    };
    return rows;
}

QList<OptionRow> runningRows()
{
    QList<OptionRow> rows = {
        option(
            {"--job"}, "FILE", Other, OwnLine,
            "run a job file; repeatable (jobs run one after another)",
            text("a job file", Spaces::Kept,
                 [](OptionState& s, const QString& path) { s.commandLine.jobFiles.append(path); })),
        option({"--path"}, "ffmpeg|converter|export", Other, OwnLine, "force the converter",
               oneOf({"ffmpeg", "converter", "export"}, "ffmpeg, converter or export", Spaces::Kept,
                     [](OptionState& s, const QString& p) {
                         s.commandLine.forcedPath =
                             p == QLatin1String("ffmpeg")      ? ForcedPath::FFmpeg
                             : p == QLatin1String("converter") ? ForcedPath::Converter
                                                               : ForcedPath::Export;
                     })),
        option({"--json-progress"}, "", Other, OwnLine,
               "one JSON object per event on standard output",
               flag([](OptionState& s) { s.commandLine.jsonProgress = true; })),
        option({"--quiet"}, "", Other, JoinNext, "",
               flag([](OptionState& s) { s.commandLine.quiet = true; })),
        option({"--verbose"}, "", Other, OwnLine, "less output / log records on standard error",
               flag([](OptionState& s) { s.commandLine.verbose = true; })),
        option({"--help", "-h"}, "", Other, JoinNext, "", modeFlag(ConvertMode::Help)),
        option({"--version"}, "", Other, OwnLine, "", modeFlag(ConvertMode::Version)),
    };
    rows.first().heading = QStringLiteral("Running:");
    return rows;
}

QList<OptionRow> modeRows()
{
    QList<OptionRow> rows = {
        option({"--print-command"}, "", Other, OwnLine, "the ffmpeg argument list of the job",
               modeFlag(ConvertMode::PrintCommand)),
        option({"--print-timeline"}, "", Other, OwnLine, "the timeline project document of the job",
               modeFlag(ConvertMode::PrintTimeline)),
        option({"--check"}, "", Other, OwnLine, "{\"ffmpeg\": bool, \"transcoder\": bool}",
               modeFlag(ConvertMode::Check)),
        option({"--print-job"}, "", Other, OwnLine, "the job's records as the library writes them",
               modeFlag(ConvertMode::PrintJob)),
        option({"--probe"}, "MEDIA", Other, OwnLine, "the media description of a file",
               text("a media file", Spaces::Kept,
                    [](OptionState& s, const QString& path) {
                        s.commandLine.probePath = path;
                        s.modes.append(ConvertMode::Probe);
                    })),
    };
    rows.first().heading = QStringLiteral("Modes printing JSON on standard output:");
    return rows;
}

// "  SYNOPSIS, SYNOPSIS": the synopses of one help line, wrapped with a
// trailing comma.
QStringList synopsisLines(const QStringList& synopses)
{
    QStringList lines = {QStringLiteral("  ") + synopses.first()};
    for (const QString& synopsis : synopses.mid(1)) {
        if (lines.last().size() + 2 + synopsis.size() > kLineWidth) {
            lines.last() += ',';
            lines.append(QStringLiteral("  ") + synopsis);
        } else {
            lines.last() += QStringLiteral(", ") + synopsis;
        }
    }
    return lines;
}

// Adds the synopsis lines and the help of one help line to `lines`.
void addHelpLine(const QStringList& synopses, const QString& help, QStringList* lines)
{
    QStringList synopsis = synopsisLines(synopses);
    if (!help.isEmpty()) {
        QString& last = synopsis.last();
        last = last.size() + 2 <= kHelpColumn ? last.leftJustified(kHelpColumn)
                                              : last + QStringLiteral("   ");
        const QStringList helpLines = help.split('\n');
        last += helpLines.first();
        for (const QString& more : helpLines.mid(1)) {
            synopsis.append(QString(kHelpColumn, ' ') + more);
        }
    }
    *lines += synopsis;
}

} // namespace

const QList<OptionRow>& optionTable()
{
    static const QList<OptionRow> table =
        outputRows() + pictureRows() + trackRows() + runningRows() + modeRows();
    return table;
}

const OptionRow* findOption(const QString& name)
{
    for (const OptionRow& row : optionTable()) {
        if (row.names.contains(name)) {
            return &row;
        }
    }
    return nullptr;
}

QString optionHelp()
{
    const QList<OptionRow>& table = optionTable();
    QStringList lines;
    QStringList synopses; // of the rows joined into the coming line
    for (int i = 0; i < table.size(); ++i) {
        const OptionRow& row = table[i];
        if (!row.heading.isEmpty()) {
            lines.append(row.heading);
        }
        // Joined rows that share their value name show it once, at the end.
        const bool sharedValue = row.layout == JoinNext && i + 1 < table.size() &&
                                 table[i + 1].valueName == row.valueName;
        const QString synopsis = row.valueName.isEmpty() || sharedValue
                                     ? row.names.first()
                                     : row.names.first() + ' ' + row.valueName;
        if (row.layout == Append) {
            lines.last() += QStringLiteral("; ") + synopsis + row.help;
        } else if (row.layout == JoinNext) {
            synopses.append(synopsis);
        } else {
            addHelpLine(synopses + QStringList{synopsis}, row.help, &lines);
            synopses.clear();
        }
    }
    return lines.join('\n') + '\n';
}

} // namespace Korvane
