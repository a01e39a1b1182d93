#pragma once

#include "Common/Task/IAVTask.h"
#include "Common/Task/TaskSignalBus.h"

#include <QSignalSpy>
#include <QTemporaryDir>

// Points "kWorker_Path" at the scripted worker and chooses its behaviour for
// the processes started while it lives; reads back what each run recorded.
class ScriptedWorker
{
public:
    explicit ScriptedWorker(const QString& behaviour);
    ~ScriptedWorker();

    int runs() const;
    // Run n (1-based): the command line, the job file given after `option`
    // as the run found it, whether it received "stop".
    QStringList arguments(int n) const;
    QString fileContent(int n, const QString& option) const;
    bool stopped(int n) const;

private:
    QTemporaryDir mRecords;
};

// The bus signals of a task, read back as plain values.
class BusRecorder
{
public:
    explicit BusRecorder(const QSharedPointer<Korvane::IAVTask>& task);

    QList<int> states() const { return column<int>(mStates, 0); }
    QList<int> errorCodes() const { return column<int>(mStates, 1); }
    QList<double> progress() const { return column<double>(mProgress, 1); }

    // Run the event loop until a final state (4 or more) or `count` states.
    bool waitForFinalState(int timeoutMs = 20000);
    bool waitForStateCount(int count, int timeoutMs = 20000);

private:
    template <typename T>
    static QList<T> column(const QSignalSpy& spy, int i)
    {
        QList<T> list;
        for (const QList<QVariant>& args : spy) {
            list << args.at(i).value<T>();
        }
        return list;
    }

    QSharedPointer<Korvane::TaskSignalBus> mBus;
    QSignalSpy mStates;
    QSignalSpy mProgress;
};
