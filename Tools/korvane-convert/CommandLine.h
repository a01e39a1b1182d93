#pragma once

#include "korvane-convert/ConvertJob.h"

#include <QList>
#include <QSize>
#include <QString>
#include <QStringList>

#include <optional>

namespace Korvane {

// What one invocation of korvane-convert is asked to do.
enum class ConvertMode
{
    Run,           // convert the flag job or every --job file, one after another
    SaveJob,       // --save-job FILE: write the flag job instead of running it
    PrintCommand,  // --print-command
    PrintTimeline, // --print-timeline
    Check,         // --check
    PrintJob,      // --print-job
    Probe,         // --probe MEDIA
    Help,
    Version,
};

// --path: which converter runs, overriding the choice a host would make.
enum class ForcedPath
{
    None,
    FFmpeg,
    Converter,
    Export
};

struct CommandLine
{
    ConvertMode mode = ConvertMode::Run;
    QStringList jobFiles;              // --job, in the order given
    std::optional<ConvertJob> flagJob; // INPUT OUTPUT and the job options
    // Facts of the flag job that only the input can settle (see completeFlagJob).
    QList<int> unplacedWatermarks; // indexes of --watermark entries given without @X,Y
    bool sizeGiven = false;
    bool audioTracksGiven = false;
    bool gpuAuto = false; // --gpu auto: the caller fills acceleration.gpuName
    QString saveJobPath;
    QString probePath;
    ForcedPath forcedPath = ForcedPath::None;
    bool quiet = false;
    bool verbose = false;
    bool jsonProgress = false;
};

// The result of parsing: `error` is one line for the user, empty on success.
struct ParsedCommandLine
{
    CommandLine commandLine;
    QString error;
    bool ok() const { return error.isEmpty(); }
};

// Pure: argv without the program name -> what to do. Looks at no file.
// Options take their value as the next argument or after "="; "--" ends the
// options. Defaults of a flag job: format from the output's suffix, video
// codec h264, audio codec aac.
ParsedCommandLine parseCommandLine(const QStringList& arguments);

// What the input file tells about a flag job.
struct InputFacts
{
    QSize displaySize;             // of the first real video stream; invalid when none
    QList<int> audioStreamIndexes; // container stream indexes, in stream order
};

// Fills what the flags left to the input: the output size (the input's display
// size when --size was not given), the kept audio track (the first audio
// stream when no --audio-track was given) and the centre of watermarks given
// without a position (the middle of the output picture).
ConvertJob completeFlagJob(const CommandLine& commandLine, const ConvertJob& job,
                           const InputFacts& facts);

QString helpText();

} // namespace Korvane
