#include "korvane-convert/CommandLine.h"

#include "korvane-convert/OptionTable.h"

#include <QFileInfo>

#include <optional>

namespace Korvane {

namespace {

// Applies the options in the order given and collects the file arguments.
// Returns the first error, empty when every option applied.
QString applyArguments(const QStringList& arguments, OptionState* state, QStringList* positionals)
{
    bool optionsEnded = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString arg = arguments[i];
        if (optionsEnded || !arg.startsWith('-') || arg == "-") {
            positionals->append(arg);
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
        const OptionRow* row = findOption(name);
        if (!row) {
            return QStringLiteral("unknown option %1").arg(name);
        }
        QString value;
        if (row->valueName.isEmpty()) {
            if (inlineValue) {
                return QStringLiteral("%1 takes no value").arg(name);
            }
        } else if (inlineValue) {
            value = *inlineValue;
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            return QStringLiteral("%1 needs a value").arg(name);
        }
        const QString expected = row->apply(*state, value);
        if (!expected.isEmpty()) {
            return QStringLiteral("%1 expects %2, got '%3'").arg(name, expected, value);
        }
        state->anyJobOption = state->anyJobOption || row->scope == OptionScope::Job;
    }
    return {};
}

// The mode the options chose, and whether the rest of the command line fits
// it. Returns the error, empty when it fits.
QString settleMode(const QStringList& positionals, OptionState* state)
{
    CommandLine& cmd = state->commandLine;
    const QList<ConvertMode>& modes = state->modes;
    if (modes.contains(ConvertMode::Help) || modes.contains(ConvertMode::Version)) {
        cmd.mode = modes.contains(ConvertMode::Help) ? ConvertMode::Help : ConvertMode::Version;
        return {};
    }
    if (modes.size() > 1) {
        return QStringLiteral("choose one of --save-job, --print-command, --print-timeline, "
                              "--check, --print-job and --probe");
    }
    cmd.mode = modes.isEmpty() ? ConvertMode::Run : modes.first();
    if (cmd.quiet && cmd.verbose) {
        return QStringLiteral("--quiet and --verbose exclude each other");
    }
    if (cmd.mode == ConvertMode::Probe) {
        if (!positionals.isEmpty() || !cmd.jobFiles.isEmpty() || state->anyJobOption) {
            return QStringLiteral("--probe takes one media file and no job");
        }
        return {};
    }
    if (!cmd.jobFiles.isEmpty()) {
        if (!positionals.isEmpty() || state->anyJobOption || cmd.mode == ConvertMode::SaveJob) {
            return QStringLiteral("give either --job files or INPUT OUTPUT with options, "
                                  "not both");
        }
        if (cmd.mode != ConvertMode::Run && cmd.jobFiles.size() != 1) {
            return QStringLiteral("this mode takes exactly one --job file");
        }
    }
    return {};
}

// Makes the flag job of INPUT OUTPUT. Returns the error, empty on success.
QString settleFlagJob(const QStringList& positionals, OptionState* state)
{
    if (positionals.size() != 2) {
        return positionals.isEmpty()
                   ? QStringLiteral("missing INPUT and OUTPUT (or --job FILE)")
                   : QStringLiteral("expected INPUT OUTPUT, got %1 file argument(s)")
                         .arg(positionals.size());
    }
    ConvertJob& job = state->job;
    job.source.filePath = positionals[0];
    job.output.outputPath = positionals[1];
    if (job.output.format.isEmpty()) {
        job.output.format = QFileInfo(positionals[1]).suffix().toLower();
        if (job.output.format.isEmpty()) {
            return QStringLiteral("cannot tell the container from '%1': give --format")
                .arg(positionals[1]);
        }
    }
    if (state->gpu.compare("auto", Qt::CaseInsensitive) == 0) {
        state->commandLine.gpuAuto = true;
    } else if (state->gpu.compare("none", Qt::CaseInsensitive) != 0) {
        job.output.acceleration.gpuName = state->gpu;
    }
    state->commandLine.flagJob = job;
    return {};
}

} // namespace

ParsedCommandLine parseCommandLine(const QStringList& arguments)
{
    OptionState state;
    state.job.output.video.codecName = QStringLiteral("h264");
    state.job.output.audio.codecName = QStringLiteral("aac");
    QStringList positionals;
    ParsedCommandLine result;
    result.error = applyArguments(arguments, &state, &positionals);
    if (result.error.isEmpty()) {
        result.error = settleMode(positionals, &state);
    }
    const CommandLine& cmd = state.commandLine;
    const bool needsFlagJob = cmd.mode != ConvertMode::Help && cmd.mode != ConvertMode::Version &&
                              cmd.mode != ConvertMode::Probe && cmd.jobFiles.isEmpty();
    if (result.error.isEmpty() && needsFlagJob) {
        result.error = settleFlagJob(positionals, &state);
    }
    result.commandLine = state.commandLine;
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
    return QStringLiteral("Usage: korvane-convert INPUT OUTPUT [options]\n"
                          "   or: korvane-convert --job FILE [--job FILE ...] [run options]\n"
                          "   or: korvane-convert --job FILE "
                          "--print-command|--print-timeline|--check|--print-job\n"
                          "   or: korvane-convert --probe MEDIA\n"
                          "\n") +
           optionHelp() +
           QStringLiteral("\n"
                          "Exit codes: 0 finished, 1 failed, 2 usage error, 130 interrupted.\n");
}

} // namespace Korvane
