#include "korvane-convert/ProgressDisplay.h"

#include <QIODevice>
#include <QJsonDocument>

#include <algorithm>
#include <cmath>

namespace Korvane {

namespace {

// Bar and lines ask for this much progress and time before they estimate.
constexpr double kMinFractionForEta = 0.005;
constexpr qint64 kMinElapsedForEta = 500;
constexpr qint64 kLineIntervalMs = 10000;

QString percentText(double fraction)
{
    return QStringLiteral("%1%").arg(fraction * 100.0, 5, 'f', 1);
}

QString speedText(double speed)
{
    return speed < 0 ? QStringLiteral("-.--x") : QStringLiteral("%1x").arg(speed, 0, 'f', 2);
}

} // namespace

ProgressFigures progressFigures(double fraction, qint64 elapsedMs, qint64 mediaDurationMs)
{
    ProgressFigures f;
    f.fraction = std::clamp(fraction, 0.0, 1.0);
    f.elapsedMs = std::max<qint64>(elapsedMs, 0);
    if (f.fraction >= kMinFractionForEta && f.elapsedMs >= kMinElapsedForEta) {
        f.etaMs = qint64(std::llround(f.elapsedMs * (1.0 - f.fraction) / f.fraction));
        if (mediaDurationMs > 0) {
            f.speed = f.fraction * double(mediaDurationMs) / double(f.elapsedMs);
        }
    }
    return f;
}

QString formatClock(qint64 ms)
{
    if (ms < 0) {
        return QStringLiteral("--:--");
    }
    const qint64 seconds = ms / 1000;
    const qint64 h = seconds / 3600;
    const QString mmss = QStringLiteral("%1:%2")
                             .arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'))
                             .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return h > 0 ? QStringLiteral("%1:%2").arg(h).arg(mmss) : mmss;
}

QString progressBar(const ProgressFigures& figures, int barWidth)
{
    const int filled = std::clamp(int(figures.fraction * barWidth), 0, barWidth);
    return QStringLiteral("[%1%2] %3  %4 elapsed  ETA %5  %6")
        .arg(QString(filled, QLatin1Char('#')), QString(barWidth - filled, QLatin1Char('-')),
             percentText(figures.fraction), formatClock(figures.elapsedMs),
             formatClock(figures.etaMs), speedText(figures.speed));
}

QString progressLine(const ProgressFigures& figures)
{
    return QStringLiteral("progress %1  elapsed %2  ETA %3  speed %4")
        .arg(percentText(figures.fraction), formatClock(figures.elapsedMs),
             formatClock(figures.etaMs), speedText(figures.speed));
}

QString taskStateName(TaskState state)
{
    switch (state) {
    case TaskState::Started:
        return QStringLiteral("Started");
    case TaskState::Running:
        return QStringLiteral("Running");
    case TaskState::Stopped:
        return QStringLiteral("Stopped");
    case TaskState::Finished:
        return QStringLiteral("Finished");
    case TaskState::Failed:
        return QStringLiteral("Failed");
    }
    return QString::number(int(state));
}

ProgressStyle chooseProgressStyle(bool jsonProgress, bool quiet, bool stderrIsTerminal)
{
    if (jsonProgress) {
        return ProgressStyle::Json;
    }
    if (quiet) {
        return ProgressStyle::Silent;
    }
    return stderrIsTerminal ? ProgressStyle::Bar : ProgressStyle::Lines;
}

ProgressDisplay::ProgressDisplay(ProgressStyle style, bool quiet, QIODevice* human,
                                 QIODevice* machine)
    : mStyle(style), mQuiet(quiet), mHuman(human), mMachine(machine)
{}

void ProgressDisplay::beginJob(int index, int count, const QString& input, const QString& output,
                               const QString& pathName, const QString& reason,
                               qint64 mediaDurationMs)
{
    mIndex = index;
    mCount = count;
    mOutput = output;
    mPathName = pathName;
    mMediaDurationMs = mediaDurationMs;
    mLastTenth = -1;
    mLastLineMs = 0;
    if (!mQuiet) {
        writeHuman(count > 1 ? QStringLiteral("job %1/%2: %3\n").arg(index).arg(count).arg(reason)
                             : reason + QLatin1Char('\n'));
    }
    if (mStyle == ProgressStyle::Json) {
        writeEvent({{"event", "start"},
                    {"job", index},
                    {"jobs", count},
                    {"input", input},
                    {"output", output},
                    {"path", pathName},
                    {"reason", reason}});
    }
}

void ProgressDisplay::state(TaskState state, qint64 elapsedMs)
{
    Q_UNUSED(elapsedMs);
    if (mStyle == ProgressStyle::Json) {
        writeEvent({{"event", "state"}, {"state", int(state)}, {"name", taskStateName(state)}});
    }
}

void ProgressDisplay::progress(double fraction, qint64 elapsedMs)
{
    const ProgressFigures figures = progressFigures(fraction, elapsedMs, mMediaDurationMs);
    switch (mStyle) {
    case ProgressStyle::Bar:
        writeHuman(QLatin1Char('\r') + progressBar(figures, 30));
        mBarOpen = true;
        break;
    case ProgressStyle::Lines: {
        const int tenth = int(figures.fraction * 10.0);
        if (tenth > mLastTenth || elapsedMs - mLastLineMs >= kLineIntervalMs) {
            mLastTenth = tenth;
            mLastLineMs = elapsedMs;
            writeHuman(progressLine(figures) + QLatin1Char('\n'));
        }
        break;
    }
    case ProgressStyle::Json:
        writeEvent({{"event", "progress"},
                    {"progress", figures.fraction},
                    {"elapsedMs", figures.elapsedMs},
                    {"etaMs", figures.etaMs},
                    {"speed", figures.speed}});
        break;
    case ProgressStyle::Silent:
        break;
    }
}

void ProgressDisplay::endJob(const QString& finalState, int exitCode, qint64 elapsedMs,
                             const QString& error)
{
    closeBar();
    if (mStyle == ProgressStyle::Json) {
        QJsonObject event{{"event", "end"},       {"job", mIndex},          {"state", finalState},
                          {"exitCode", exitCode}, {"elapsedMs", elapsedMs}, {"output", mOutput}};
        if (!error.isEmpty()) {
            event.insert("error", error);
        }
        writeEvent(event);
    }
    // A failure is told even with --quiet.
    if (!mQuiet || exitCode != 0) {
        QString line = QStringLiteral("job %1/%2 %3 after %4 (path %5): %6")
                           .arg(mIndex)
                           .arg(mCount)
                           .arg(finalState.toLower(), formatClock(elapsedMs), mPathName,
                                exitCode == 0 ? mOutput : error);
        writeHuman(line + QLatin1Char('\n'));
    }
}

void ProgressDisplay::writeHuman(const QString& text)
{
    mHuman->write(text.toUtf8());
}

void ProgressDisplay::writeEvent(const QJsonObject& event)
{
    mMachine->write(QJsonDocument(event).toJson(QJsonDocument::Compact) + '\n');
}

void ProgressDisplay::closeBar()
{
    if (mBarOpen) {
        writeHuman(QStringLiteral("\n"));
        mBarOpen = false;
    }
}

} // namespace Korvane
