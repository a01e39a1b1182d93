#include "ScriptedWorkerHarness.h"

#include "KorvaneBase/KorvaneBase.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>

#include <algorithm>

ScriptedWorker::ScriptedWorker(const QString& behaviour)
{
    qputenv("KORVANE_SCRIPTED_WORKER", behaviour.toUtf8());
    qputenv("KORVANE_SCRIPTED_WORKER_DIR", mRecords.path().toUtf8());
    Korvane::KorvaneBaseEntry()->settings().setValue("kWorker_Path", KORVANE_SCRIPTED_WORKER);
}

ScriptedWorker::~ScriptedWorker()
{
    Korvane::KorvaneBaseEntry()->settings().remove("kWorker_Path");
    qunsetenv("KORVANE_SCRIPTED_WORKER");
    qunsetenv("KORVANE_SCRIPTED_WORKER_DIR");
}

int ScriptedWorker::runs() const
{
    return int(QDir(mRecords.path()).entryList({"run-?", "run-??"}, QDir::Files).size());
}

QString ScriptedWorker::record(const QString& name) const
{
    QFile file(mRecords.filePath(name));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QStringList ScriptedWorker::arguments(int n) const
{
    return record(QStringLiteral("run-%1").arg(n)).split('\n', Qt::SkipEmptyParts);
}

QString ScriptedWorker::fileContent(int n, const QString& option) const
{
    return record(QStringLiteral("run-%1%2").arg(n).arg(option));
}

QStringList ScriptedWorker::jobPaths(int n) const
{
    const QStringList args = arguments(n);
    QStringList paths;
    for (qsizetype i = 2; i < args.size(); i += 2) {
        paths << args.at(i);
    }
    return paths;
}

bool ScriptedWorker::stopped(int n) const
{
    return QFile::exists(mRecords.filePath(QStringLiteral("stopped-%1").arg(n)));
}

bool allGone(const QStringList& paths)
{
    return std::none_of(paths.begin(), paths.end(),
                        [](const QString& p) { return QFile::exists(p); });
}

BusRecorder::BusRecorder(const QSharedPointer<Korvane::IAVTask>& task)
    : mBus(task->signalBus()),
      mStates(mBus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int))),
      mProgress(mBus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)))
{}

bool BusRecorder::waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired() || !mStates.wait(int(deadline.remainingTime()))) {
            return false;
        }
    }
    return true;
}

bool BusRecorder::waitForFinalState(int timeoutMs)
{
    return waitUntil(
        [this] {
            const QList<int> seen = states();
            return std::any_of(seen.begin(), seen.end(), [](int state) { return state >= 4; });
        },
        timeoutMs);
}

bool BusRecorder::waitForState(int state, int timeoutMs)
{
    return waitUntil([this, state] { return states().contains(state); }, timeoutMs);
}

bool BusRecorder::waitForStateCount(int count, int timeoutMs)
{
    return waitUntil([this, count] { return mStates.size() >= count; }, timeoutMs);
}
