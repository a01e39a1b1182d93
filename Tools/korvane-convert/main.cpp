// korvane-convert: the host program of the conversion plug-in. It turns a
// command line or job files into the plug-in's two records, chooses the
// converter as a host does, runs it on a Qt event loop and reports progress.
#include "common/InterruptWatcher.h"
#include "korvane-convert/CommandLine.h"
#include "korvane-convert/ConvertJob.h"
#include "korvane-convert/JobFile.h"
#include "korvane-convert/JobRunner.h"
#include "korvane-convert/MachineModes.h"
#include "korvane-convert/PathChoice.h"
#include "korvane-convert/ProgressDisplay.h"

#include "Common/Records/JobInputs.h"
#include "Common/Records/OutputRules.h"
#include "Common/Support/ConvertSourceHelper.h"
#include "Common/Timeline/TimelineProject.h"
#include "KorvaneDec/FFDemuxer.h"
#include "KorvaneGPUHardwareAcceleration/GpuDetection.h"
#include "KvExportHost/KvExportHost.h"
#include "KvMediaInfo/KvMediaInfo.h"
#include "KvTaskIPC/KvTaskIPC.h"
#include "TranscoderFFmpeg/TranscoderFFmpeg.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <optional>
#include <unistd.h>
#include <utility>

using namespace Korvane;

namespace {

QFile& standardOutput()
{
    static QFile file;
    if (!file.isOpen()) {
        file.open(STDOUT_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    }
    return file;
}

QFile& standardError()
{
    static QFile file;
    if (!file.isOpen()) {
        file.open(STDERR_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    }
    return file;
}

int complain(int code, const QString& message)
{
    standardError().write(QStringLiteral("korvane-convert: %1\n").arg(message).toUtf8());
    return code;
}

// Qt's own chatter (the libraries' debug categories) only with --verbose;
// warnings unless --quiet.
QtMsgType gQuietestShown = QtWarningMsg;

void messageHandler(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    const auto rank = [](QtMsgType t) {
        switch (t) {
        case QtDebugMsg:
            return 0;
        case QtInfoMsg:
            return 1;
        case QtWarningMsg:
            return 2;
        case QtCriticalMsg:
            return 3;
        case QtFatalMsg:
            return 4;
        }
        return 4;
    };
    if (rank(type) >= rank(gQuietestShown)) {
        standardError().write(message.toUtf8() + '\n');
    }
}

// Display size of the first real picture, and the audio stream indexes.
InputFacts inputFacts(const QString& path)
{
    InputFacts facts;
    const QSharedPointer<ContainerInfo> info = getContainInfo(path, false);
    if (!info) {
        return facts;
    }
    for (const ContainerVideoStream& v : info->videoStreams) {
        if (!v.attachedPic && v.displayWidth > 0 && v.displayHeight > 0) {
            facts.displaySize = QSize(v.displayWidth, v.displayHeight);
            break;
        }
    }
    for (const ContainerAudioStream& a : info->audioStreams) {
        facts.audioStreamIndexes.append(a.index);
    }
    return facts;
}

QSharedPointer<IAVTaskOperator> makeOperator(const ConvertJob& job, const PathDecision& decision)
{
    switch (decision.path) {
    case ConvertPath::FFmpeg:
        return decision.intelFactory ? rawCreateIntelFFmpegConverter(job.source, job.output)
                                     : rawCreateNvidiaFFmpegConverter(job.source, job.output);
    case ConvertPath::Converter:
        return createConverterContainRetryOp_IPC(job.source, job.output);
    case ConvertPath::Export:
        return rawCreateExportOp_IPC(
            makeTimelineProjectJson(job.source, job.effectiveTimelineOptions()), job.output);
    }
    return {};
}

int probe(const QString& path)
{
    if (!QFileInfo::exists(path)) {
        return complain(ExitUsage, QStringLiteral("'%1' does not exist").arg(path));
    }
    FFDemuxer demuxer;
    const QSharedPointer<MediaDescription> description =
        demuxer.open(path) ? demuxer.mediaInfo() : nullptr;
    if (!description) {
        return complain(ExitFailed,
                        QStringLiteral("'%1' is not a media file that can be read").arg(path));
    }
    standardOutput().write(mediaDescriptionJson(*description));
    return ExitFinished;
}

// Checks made before any job runs; a usage error names the job.
QString usageProblem(const ConvertJob& job)
{
    const QString& input = job.source.filePath;
    if (input.isEmpty()) {
        return QStringLiteral("the job names no input file");
    }
    if (!QFileInfo::exists(input)) {
        return QStringLiteral("input '%1' does not exist").arg(input);
    }
    if (job.output.outputPath.isEmpty()) {
        return QStringLiteral("the job names no output file");
    }
    const QString overwritten = inputOverwrittenBy(job.source, job.output.outputPath);
    if (!overwritten.isEmpty()) {
        return QStringLiteral("output '%1' would overwrite the input '%2'")
            .arg(job.output.outputPath, overwritten);
    }
    return {};
}

struct Invocation
{
    CommandLine commandLine;
    QList<ConvertJob> jobs;
};

// Reads every --job file, or completes the flag job from its input.
int collectJobs(Invocation& invocation)
{
    const CommandLine& cmd = invocation.commandLine;
    for (const QString& path : cmd.jobFiles) {
        ConvertJob job;
        QString error;
        if (!readJobFile(path, &job, &error)) {
            return complain(ExitUsage, error);
        }
        // Refused in every mode: the printed command would be one no path runs.
        if (const QString invalid = invalidOutputField(job.output); !invalid.isEmpty()) {
            return complain(ExitUsage,
                            QStringLiteral("invalid job file '%1': %2").arg(path, invalid));
        }
        invocation.jobs.append(job);
    }
    if (cmd.flagJob) {
        ConvertJob job =
            completeFlagJob(cmd, *cmd.flagJob, inputFacts(cmd.flagJob->source.filePath));
        if (cmd.gpuAuto) {
            const QString sysfs = qEnvironmentVariableIsSet("KORVANE_SYSFS_ROOT")
                                      ? qEnvironmentVariable("KORVANE_SYSFS_ROOT")
                                      : QStringLiteral("/sys");
            job.output.acceleration.gpuName = autoGpuName(sysfs);
            if (job.output.acceleration.gpuName.isEmpty() && !cmd.quiet) {
                complain(ExitFinished, QStringLiteral("--gpu auto: no NVIDIA or Intel GPU found, "
                                                      "converting without one"));
            }
        }
        if (const QString invalid = invalidOutputField(job.output); !invalid.isEmpty()) {
            return complain(ExitUsage, QStringLiteral("invalid job: %1").arg(invalid));
        }
        invocation.jobs.append(job);
    }
    return ExitFinished;
}

int runJobs(const Invocation& invocation)
{
    const CommandLine& cmd = invocation.commandLine;
    for (const ConvertJob& job : invocation.jobs) {
        const QString problem = usageProblem(job);
        if (!problem.isEmpty()) {
            return complain(ExitUsage, problem);
        }
    }
    ProgressDisplay display(chooseProgressStyle(cmd.jsonProgress, cmd.quiet, ::isatty(2) == 1),
                            cmd.quiet, &standardError(), &standardOutput());
    JobRunner runner(&display);
    InterruptWatcher watcher;
    bool interrupted = false;
    QObject::connect(&watcher, &InterruptWatcher::interrupted, &runner, [&] {
        interrupted = true;
        runner.interrupt();
    });

    int exitCode = ExitFinished;
    const int count = int(invocation.jobs.size());
    for (int i = 0; i < count && !interrupted; ++i) {
        const ConvertJob& job = invocation.jobs[i];
        const QString& input = job.source.filePath;
        const QString& output = job.output.outputPath;
        const PathFacts facts{
            [&] { return isConverterSourceSupportedByTranscoderFFmpeg(job.source, job.output); },
            [&] { return isConverterSourceSupportedByTranscoder(job.source, QString()); },
            [&] { return inputFacts(input).displaySize; }};
        const PathDecision decision = choosePath(job, cmd.forcedPath, facts);
        display.beginJob(i + 1, count, input, output, pathName(decision.path), decision.reason,
                         mediaDuration(input));

        auto fail = [&](const QString& reason) {
            display.endJob(QStringLiteral("Failed"), ExitFailed, 0, reason);
            exitCode = ExitFailed;
        };
        if (!getMediaInfo(input, -1, true)) {
            fail(QStringLiteral("input '%1' is not a media file that can be read").arg(input));
            continue;
        }
        const QString folder = QFileInfo(output).absolutePath();
        if (!QDir().mkpath(folder)) {
            fail(QStringLiteral("cannot create the output folder '%1'").arg(folder));
            continue;
        }
        // A stop removes what the run left at the output path, but never a
        // file the user had there before that the run has not touched.
        const QFileInfo before(output);
        const bool outputWasThere = before.exists();
        const QDateTime outputModified = before.lastModified();
        QSharedPointer<IAVTaskOperator> op = makeOperator(job, decision);
        if (!op) {
            fail(QStringLiteral("no converter could be created"));
            continue;
        }
        const RunOutcome outcome = runner.run(std::move(op));
        if (outcome.interrupted || interrupted) {
            interrupted = true;
            if (!outputWasThere || QFileInfo(output).lastModified() != outputModified) {
                QFile::remove(output);
            }
            display.endJob(QStringLiteral("Stopped"), ExitInterrupt, outcome.elapsedMs,
                           QStringLiteral("interrupted; partial output removed"));
            exitCode = ExitInterrupt;
        } else if (outcome.state == TaskState::Finished) {
            display.endJob(QStringLiteral("Finished"), ExitFinished, outcome.elapsedMs, QString());
        } else {
            display.endJob(taskStateName(outcome.state), ExitFailed, outcome.elapsedMs,
                           outcome.state == TaskState::Stopped ? QStringLiteral("stopped")
                                                               : outcome.error);
            exitCode = ExitFailed;
        }
    }
    return interrupted ? int(ExitInterrupt) : exitCode;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("korvane-convert"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KORVANE_VERSION));

    const ParsedCommandLine parsed = parseCommandLine(app.arguments().mid(1));
    if (!parsed.ok()) {
        return complain(ExitUsage, parsed.error + QStringLiteral(" (see --help)"));
    }
    Invocation invocation{parsed.commandLine, {}};
    const CommandLine& cmd = invocation.commandLine;
    if (cmd.mode == ConvertMode::Help) {
        standardOutput().write(helpText().toUtf8());
        return ExitFinished;
    }
    if (cmd.mode == ConvertMode::Version) {
        standardOutput().write(
            QStringLiteral("korvane-convert %1\n").arg(KORVANE_VERSION).toUtf8());
        return ExitFinished;
    }
    if (cmd.verbose) {
        // Our records and those of the worker processes go to standard error.
        qputenv("KORVANE_LOG_STDERR", "1");
        gQuietestShown = QtDebugMsg;
    } else if (cmd.quiet) {
        gQuietestShown = QtCriticalMsg;
    }
    qInstallMessageHandler(messageHandler);

    if (cmd.mode == ConvertMode::Probe) {
        return probe(cmd.probePath);
    }
    if (const int code = collectJobs(invocation); code != ExitFinished) {
        return code;
    }
    const ConvertJob& first = invocation.jobs.first();
    switch (cmd.mode) {
    case ConvertMode::SaveJob: {
        QString error;
        if (!writeJobFile(cmd.saveJobPath, first, &error)) {
            return complain(ExitFailed, error);
        }
        if (!cmd.quiet) {
            complain(ExitFinished, QStringLiteral("job written to %1").arg(cmd.saveJobPath));
        }
        return ExitFinished;
    }
    case ConvertMode::PrintCommand:
        standardOutput().write(printCommand(first));
        return ExitFinished;
    case ConvertMode::PrintTimeline:
        standardOutput().write(printTimeline(first));
        return ExitFinished;
    case ConvertMode::Check:
        standardOutput().write(printCheck(first));
        return ExitFinished;
    case ConvertMode::PrintJob:
        standardOutput().write(printJob(first));
        return ExitFinished;
    case ConvertMode::Run:
        return runJobs(invocation);
    case ConvertMode::Probe:
    case ConvertMode::Help:
    case ConvertMode::Version:
        break;
    }
    return ExitFinished;
}
