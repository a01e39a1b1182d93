#pragma once

#include "Common/IAVTask.h"
#include "Common/TaskSignalBus.h"

#include <QJsonObject>
#include <QList>
#include <QSharedPointer>
#include <QSignalSpy>
#include <QString>
#include <QTemporaryDir>

// Points "kWorker_Path" at the scripted worker and chooses its behaviour for
// the processes started while it lives; reads back what each run recorded.
class ScriptedWorker
{
public:
    explicit ScriptedWorker(const QString& behaviour);
    ~ScriptedWorker();
    ScriptedWorker(const ScriptedWorker&) = delete;
    ScriptedWorker& operator=(const ScriptedWorker&) = delete;

    static QString program();

    // Worker processes started so far.
    int runs() const;
    // The record of run n (1-based): "arguments" and "files".
    QJsonObject run(int n) const;
    QStringList arguments(int n) const;
    // The content the worker found in the job file named after `option`.
    QString fileContent(int n, const QString& option) const;
    // The job file paths (the values after each option) of run n.
    QStringList jobPaths(int n) const;
    // Whether run n received "stop".
    bool stopped(int n) const;

private:
    QTemporaryDir mRecords;
};

// True when none of the paths exists (job files removed after a run).
bool allGone(const QStringList& paths);

// One spy per bus signal, read back as plain values.
class BusRecorder
{
public:
    explicit BusRecorder(const QSharedPointer<Korvane::IAVTask>& task);

    QList<int> states() const;
    QList<int> errorCodes() const;
    QList<double> progress() const;
    QList<int> progressTypes() const;

    // Runs the event loop until a state of 4 or more has arrived.
    bool waitForFinalState(int timeoutMs = 20000);
    // Runs the event loop until `state` has arrived.
    bool waitForState(int state, int timeoutMs = 20000);
    // Runs the event loop until `count` states have arrived.
    bool waitForStateCount(int count, int timeoutMs = 20000);

private:
    QSharedPointer<Korvane::TaskSignalBus> mBus;
    QSignalSpy mStates;
    QSignalSpy mProgress;
};
