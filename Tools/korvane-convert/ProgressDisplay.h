#pragma once

#include "Common/Task/TaskTypes.h"

#include <QJsonObject>
#include <QString>

class QIODevice;

namespace Korvane {

// Progress of a run as shown to a person. Times in milliseconds.
struct ProgressFigures
{
    double fraction = 0.0; // 0..1
    qint64 elapsedMs = 0;
    qint64 etaMs = -1; // -1 while it cannot be estimated
    double speed = -1; // media time converted per wall-clock time; -1 when unknown
};

// ETA from the rate so far (needs some progress and some elapsed time);
// speed from the input's duration (needs a known duration).
ProgressFigures progressFigures(double fraction, qint64 elapsedMs, qint64 mediaDurationMs);

// "mm:ss", "h:mm:ss" from an hour on, "--:--" for a negative time.
QString formatClock(qint64 ms);

// "[#########---------------------]  30.0%  00:03 elapsed  ETA 00:07  2.50x"
QString progressBar(const ProgressFigures& figures, int barWidth);

// "progress  30.0%  elapsed 00:03  ETA 00:07  speed 2.50x"
QString progressLine(const ProgressFigures& figures);

QString taskStateName(TaskState state); // "Started", ..., "Failed", or the number

enum class ProgressStyle
{
    Bar,    // redrawn bar on a terminal (standard error)
    Lines,  // a plain line at each tenth, or every 10 s (standard error)
    Json,   // one JSON object per event (standard output)
    Silent, // --quiet
};

ProgressStyle chooseProgressStyle(bool jsonProgress, bool quiet, bool stderrIsTerminal);

// Reports the jobs of one invocation. `human` receives text for a person
// (standard error), `machine` the JSON events (standard output); neither is
// owned. With --json-progress the human text is the path and summary lines
// only; with --quiet it is the summary line of a job that did not finish.
//
// JSON events, one compact object per line:
//   {"event":"start","job":1,"jobs":2,"input":..,"output":..,"path":..,"reason":..}
//   {"event":"state","state":1,"name":"Started"}
//   {"event":"progress","progress":0.42,"elapsedMs":..,"etaMs":..,"speed":..}
//   {"event":"end","job":1,"state":"Finished","exitCode":0,"elapsedMs":..,"output":..[,"error":..]}
class ProgressDisplay
{
public:
    ProgressDisplay(ProgressStyle style, bool quiet, QIODevice* human, QIODevice* machine);

    void beginJob(int index, int count, const QString& input, const QString& output,
                  const QString& pathName, const QString& reason, qint64 mediaDurationMs);
    void state(TaskState state, qint64 elapsedMs);
    void progress(double fraction, qint64 elapsedMs);
    // `error` is the reason of a failure, empty otherwise.
    void endJob(const QString& finalState, int exitCode, qint64 elapsedMs, const QString& error);

private:
    void writeHuman(const QString& text);
    void writeEvent(const QJsonObject& event);
    void closeBar();

    ProgressStyle mStyle;
    bool mQuiet;
    QIODevice* mHuman;
    QIODevice* mMachine;
    int mIndex = 0;
    int mCount = 0;
    QString mOutput;
    QString mPathName;
    qint64 mMediaDurationMs = 0;
    bool mBarOpen = false;
    int mLastTenth = -1;
    qint64 mLastLineMs = 0;
};

} // namespace Korvane
