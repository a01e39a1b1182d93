#include "ScriptedWorkerHarness.h"

#include "KorvaneBase/KorvaneBase.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

ScriptedWorker::ScriptedWorker(const QString& behaviour)
{
    qputenv("KORVANE_SCRIPTED_WORKER", behaviour.toUtf8());
    qputenv("KORVANE_SCRIPTED_WORKER_DIR", mRecords.path().toUtf8());
    Korvane::KorvaneBaseEntry()->settings().setValue("kWorker_Path", program());
}

ScriptedWorker::~ScriptedWorker()
{
    Korvane::KorvaneBaseEntry()->settings().remove("kWorker_Path");
    qunsetenv("KORVANE_SCRIPTED_WORKER");
    qunsetenv("KORVANE_SCRIPTED_WORKER_DIR");
}

QString ScriptedWorker::program()
{
    return QStringLiteral(KORVANE_SCRIPTED_WORKER);
}

int ScriptedWorker::runs() const
{
    return int(QDir(mRecords.path()).entryList({"run-*.json"}, QDir::Files).size());
}

QJsonObject ScriptedWorker::run(int n) const
{
    QFile file(mRecords.filePath(QStringLiteral("run-%1.json").arg(n)));
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}

QStringList ScriptedWorker::arguments(int n) const
{
    QStringList list;
    for (const QJsonValue& value : run(n).value("arguments").toArray()) {
        list << value.toString();
    }
    return list;
}

QString ScriptedWorker::fileContent(int n, const QString& option) const
{
    return run(n).value("files").toObject().value(option).toString();
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

BusRecorder::BusRecorder(const QSharedPointer<Korvane::IAVTask>& task)
    : mBus(task->signalBus()),
      mStates(mBus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int))),
      mProgress(mBus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)))
{}

QList<int> BusRecorder::states() const
{
    QList<int> list;
    for (const QList<QVariant>& args : mStates) {
        list << int(qvariant_cast<Korvane::TaskState>(args.at(0)));
    }
    return list;
}

QList<int> BusRecorder::errorCodes() const
{
    QList<int> list;
    for (const QList<QVariant>& args : mStates) {
        list << args.at(1).toInt();
    }
    return list;
}

QList<double> BusRecorder::progress() const
{
    QList<double> list;
    for (const QList<QVariant>& args : mProgress) {
        list << args.at(1).toDouble();
    }
    return list;
}

QList<int> BusRecorder::progressTypes() const
{
    QList<int> list;
    for (const QList<QVariant>& args : mProgress) {
        list << int(qvariant_cast<Korvane::TaskProgressType>(args.at(0)));
    }
    return list;
}

bool BusRecorder::waitForFinalState(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (true) {
        for (int state : states()) {
            if (state >= 4) {
                return true;
            }
        }
        if (deadline.hasExpired() || !mStates.wait(int(deadline.remainingTime()))) {
            return false;
        }
    }
}

bool BusRecorder::waitForState(int state, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!states().contains(state)) {
        if (deadline.hasExpired() || !mStates.wait(int(deadline.remainingTime()))) {
            return false;
        }
    }
    return true;
}

bool BusRecorder::waitForStateCount(int count, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (mStates.size() < count) {
        if (deadline.hasExpired() || !mStates.wait(int(deadline.remainingTime()))) {
            return false;
        }
    }
    return true;
}

bool allGone(const QStringList& paths)
{
    for (const QString& path : paths) {
        if (QFileInfo::exists(path)) {
            return false;
        }
    }
    return true;
}
