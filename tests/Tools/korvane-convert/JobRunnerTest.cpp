#include "JobRunner.h"

#include "Common/AVFFmpegTask.h"
#include "Common/TaskSignalBus.h"
#include "InterruptWatcher.h"
#include "KorvaneBase/BasicObject.h"
#include "KorvaneBase/KorvaneBase.h"
#include "ProgressDisplay.h"

#include <QBuffer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTimer>

#include <gtest/gtest.h>

#include <csignal>

using namespace Korvane;

namespace {

// An operator that plays a script of bus reports from the event loop.
class ScriptedOperator : public BasicObject, public IAVTaskOperator
{
public:
    struct Step
    {
        int state = 0;        // emitted when non-zero
        double progress = -1; // emitted when >= 0
        const char* log = nullptr;
    };

    ScriptedOperator(bool startResult, QList<Step> script, bool confirmStop = true)
        : mTask(QSharedPointer<AVFFmpegTask>::create(ConvertSource(), AVTaskOutputParam())),
          mStartResult(startResult), mScript(std::move(script)), mConfirmStop(confirmStop)
    {
        mTimer.setInterval(5);
        connect(&mTimer, &QTimer::timeout, this, [this] { step(); });
    }

    bool start() override
    {
        ++startCalls;
        if (mStartResult) {
            mTimer.start();
        }
        return mStartResult;
    }
    void pause() override {}
    void resume() override {}
    void stop() override
    {
        ++stopCalls;
        mTimer.stop();
        if (mConfirmStop) {
            emitState(TaskState::Stopped);
        }
    }
    QSharedPointer<IAVTask> task() override { return mTask; }
    void cleanup() override {}
    QString errorString() override { return error; }
    QVariantMap operatorInfo() override { return {}; }

    int startCalls = 0;
    int stopCalls = 0;
    QString error;

private:
    void step()
    {
        if (mScript.isEmpty()) {
            mTimer.stop();
            return;
        }
        const Step s = mScript.takeFirst();
        if (s.log) {
            Record("ScriptedOperator::step", __LINE__, "tests/Tools/korvane-convert", this, 0)
                << s.log;
        }
        if (s.progress >= 0) {
            mTask->setProgress(s.progress);
            Q_EMIT mTask->signalBus()->taskProgress(TaskProgressType::Whole, s.progress);
        }
        if (s.state != 0) {
            emitState(TaskState(s.state));
        }
    }
    void emitState(TaskState state)
    {
        mTask->setState(state);
        Q_EMIT mTask->signalBus()->taskStateChanged(state, 0);
    }

    QSharedPointer<AVFFmpegTask> mTask;
    bool mStartResult;
    QList<Step> mScript;
    bool mConfirmStop;
    QTimer mTimer;
};

QList<QJsonObject> events(const QBuffer& buffer)
{
    QList<QJsonObject> list;
    for (const QByteArray& line : buffer.data().split('\n')) {
        if (!line.isEmpty()) {
            list.append(QJsonDocument::fromJson(line).object());
        }
    }
    return list;
}

} // namespace

TEST(JobRunner, EndsWithTheFirstFinalStateAndRelaysEverythingBeforeIt)
{
    struct Case
    {
        const char* label;
        QList<ScriptedOperator::Step> script;
        TaskState expected;
        int progressEvents;
    };
    const QList<Case> cases = {
        {"finished", {{1}, {0, 0.25}, {0, 0.75}, {5}, {6}}, TaskState::Finished, 2},
        {"failed", {{1}, {0, 0.5}, {6}}, TaskState::Failed, 1},
        {"state above failed counts as failed", {{1}, {9}}, TaskState::Failed, 0},
        {"stopped by the operator itself", {{1}, {4}, {5}}, TaskState::Stopped, 0},
        {"started twice (fallback)", {{1}, {1}, {0, 0.1}, {5}}, TaskState::Finished, 1},
    };
    for (const Case& c : cases) {
        QBuffer human;
        QBuffer machine;
        human.open(QIODevice::WriteOnly);
        machine.open(QIODevice::WriteOnly);
        ProgressDisplay display(ProgressStyle::Json, true, &human, &machine);
        JobRunner runner(&display);
        auto op = QSharedPointer<ScriptedOperator>::create(true, c.script);
        const RunOutcome outcome = runner.run(op);
        EXPECT_EQ(outcome.state, c.expected) << c.label;
        EXPECT_FALSE(outcome.interrupted) << c.label;
        EXPECT_EQ(op->startCalls, 1) << c.label;
        int progress = 0;
        QList<int> states;
        for (const QJsonObject& e : events(machine)) {
            progress += e["event"].toString() == "progress";
            if (e["event"].toString() == "state") {
                states.append(e["state"].toInt());
            }
        }
        EXPECT_EQ(progress, c.progressEvents) << c.label;
        ASSERT_FALSE(states.isEmpty()) << c.label;
        EXPECT_EQ(states.first(), 1) << c.label;
        // Nothing after the final state reaches the display.
        EXPECT_NE(states.last(), 1) << c.label;
        EXPECT_EQ(outcome.state == TaskState::Failed, !outcome.error.isEmpty()) << c.label;
    }
}

TEST(JobRunner, FailureReasonPrefersTheOperatorThenTheLog)
{
    JobRunner runner(nullptr);
    auto refused = QSharedPointer<ScriptedOperator>::create(false, QList<ScriptedOperator::Step>());
    refused->error = "worker program\nnot found";
    const RunOutcome notStarted = runner.run(refused);
    EXPECT_EQ(notStarted.state, TaskState::Failed);
    EXPECT_EQ(notStarted.error, "worker program not found");

    auto logged = QSharedPointer<ScriptedOperator>::create(
        true, QList<ScriptedOperator::Step>{
                  {1, -1, "ffmpeg cnv failed: Invalid\n argument"}, {0, -1, "cleaning up"}, {6}});
    EXPECT_EQ(runner.run(logged).error, "ffmpeg cnv failed: Invalid argument");
}

TEST(JobRunner, FailureReasonFromLogTexts)
{
    EXPECT_EQ(failureReasonFromLog({"a", "Complete convert FAILED, x", "b"}),
              "Complete convert FAILED, x");
    EXPECT_EQ(failureReasonFromLog({"worker error: boom", "ffmpeg cnv failed: x"}),
              "ffmpeg cnv failed: x");
    EXPECT_EQ(failureReasonFromLog({"first", " second \n line ", "  "}), "second line");
    EXPECT_EQ(failureReasonFromLog({}), "the converter reported a failure without a reason");
}

TEST(JobRunner, InterruptStopsTheOperatorAndTheRunEndsStopped)
{
    JobRunner runner(nullptr);
    QList<ScriptedOperator::Step> longRun;
    longRun.append(ScriptedOperator::Step{1});
    for (int i = 1; i < 400; ++i) {
        longRun.append(ScriptedOperator::Step{0, i / 400.0});
    }
    longRun.append(ScriptedOperator::Step{5});
    auto op = QSharedPointer<ScriptedOperator>::create(true, longRun);
    QTimer::singleShot(50, &runner, &JobRunner::interrupt);
    const RunOutcome outcome = runner.run(op);
    EXPECT_EQ(outcome.state, TaskState::Stopped);
    EXPECT_TRUE(outcome.interrupted);
    EXPECT_EQ(op->stopCalls, 1);
    EXPECT_LT(outcome.elapsedMs, 1500);
}

TEST(JobRunner, AnOperatorThatNeverConfirmsTheStopIsGivenUp)
{
    JobRunner runner(nullptr);
    runner.setStopGraceMs(100);
    auto op =
        QSharedPointer<ScriptedOperator>::create(true, QList<ScriptedOperator::Step>{{1}}, false);
    QTimer::singleShot(30, &runner, &JobRunner::interrupt);
    const RunOutcome outcome = runner.run(op);
    EXPECT_EQ(outcome.state, TaskState::Stopped);
    EXPECT_TRUE(outcome.interrupted);
    EXPECT_GE(outcome.elapsedMs, 100);
    // A later run is not cut short by the earlier grace period.
    auto next = QSharedPointer<ScriptedOperator>::create(
        true, QList<ScriptedOperator::Step>{{1}, {0, 0.5}, {0, 0.6}, {5}});
    EXPECT_EQ(runner.run(next).state, TaskState::Finished);
}

TEST(InterruptWatcher, SignalsBecomeQtSignalsAndTheDefaultActionsReturn)
{
    struct Row
    {
        QList<int> watched;
        InterruptWatcher::Delivery delivery;
        QList<int> raised;
        bool handlersStay;
    };
    const Row rows[] = {
        {{SIGINT}, InterruptWatcher::Delivery::Once, {SIGINT}, false},
        {{SIGTERM, SIGINT}, InterruptWatcher::Delivery::Every, {SIGTERM, SIGINT, SIGTERM}, true},
    };
    auto handler = [](int signalNumber) {
        struct sigaction current = {};
        EXPECT_EQ(sigaction(signalNumber, nullptr, &current), 0);
        return current.sa_handler;
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.raised.size());
        {
            InterruptWatcher watcher(row.watched, row.delivery);
            ASSERT_TRUE(watcher.isActive());
            QSignalSpy spy(&watcher, &InterruptWatcher::interrupted);
            QList<int> received;
            for (const int signalNumber : row.raised) {
                ASSERT_EQ(std::raise(signalNumber), 0);
                ASSERT_TRUE(spy.wait(2000));
                received.append(spy.takeFirst().at(0).toInt());
            }
            EXPECT_EQ(received, row.raised);
            for (const int signalNumber : row.watched) {
                EXPECT_EQ(handler(signalNumber) != SIG_DFL, row.handlersStay);
            }
        }
        for (const int signalNumber : row.watched) {
            EXPECT_EQ(handler(signalNumber), SIG_DFL);
        }
    }
}
