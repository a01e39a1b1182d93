#include "ScriptedWorkerHarness.h"

#include "KorvaneBase/KorvaneBase.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>

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

QStringList ScriptedWorker::arguments(int n) const
{
    return fileContent(n, {}).split('\n', Qt::SkipEmptyParts);
}

QString ScriptedWorker::fileContent(int n, const QString& option) const
{
    QFile file(mRecords.filePath(QStringLiteral("run-%1%2").arg(n).arg(option)));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool ScriptedWorker::stopped(int n) const
{
    return QFile::exists(mRecords.filePath(QStringLiteral("stopped-%1").arg(n)));
}

BusRecorder::BusRecorder(const QSharedPointer<Korvane::IAVTask>& task)
    : mBus(task->signalBus()),
      mStates(mBus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int))),
      mProgress(mBus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)))
{}

bool BusRecorder::waitForFinalState(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (states().isEmpty() || states().last() < 4) {
        if (!mStates.wait(int(deadline.remainingTime()))) {
            return false;
        }
    }
    return true;
}

bool BusRecorder::waitForStateCount(int count, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (mStates.size() < count) {
        if (!mStates.wait(int(deadline.remainingTime()))) {
            return false;
        }
    }
    return true;
}
