#include "KvTaskIPC/KvTaskIPC.h"

#include "Common/AVFFmpegTask.h"
#include "Common/IAVTask.h"
#include "Common/JsonForms.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KvTaskIPC/WorkerProcessOperator.h"
#include "LogCapture.h"
#include "ScriptedWorkerHarness.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

ConvertSource jobSource()
{
    ConvertSource source;
    source.filePath = QString::fromUtf8("/media/clip été.mp4");
    source.selfAudios = {1};
    source.speed = 1.5f;
    return source;
}

AVTaskOutputParam jobOutput()
{
    AVTaskOutputParam output;
    output.outputPath = "/media/out.mp4";
    output.format = "mp4";
    output.video.codecName = "h264";
    output.video.width = 1280;
    output.video.height = 720;
    return output;
}

} // namespace

TEST(ConverterOperator, SuccessReportsStartProgressAndFinish)
{
    ScriptedWorker worker("success");
    LogCapture log;
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    ASSERT_TRUE(op);
    const QSharedPointer<IAVTask> task = op->task();
    BusRecorder bus(task);

    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());

    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    EXPECT_EQ(bus.errorCodes(), (QList<int>{0, 0}));
    // The garbage line is skipped and the message split in two is read whole.
    EXPECT_EQ(bus.progress(), (QList<double>{0.25, 0.5, 1.0}));
    EXPECT_EQ(bus.progressTypes(), (QList<int>{0, 0, 0}));
    EXPECT_EQ(task->state(), TaskState::Finished);
    EXPECT_EQ(task->progress(), 1.0);
    EXPECT_TRUE(op->errorString().isEmpty());
    EXPECT_TRUE(log.contains("scripted worker: working on convert"));

    ASSERT_EQ(worker.runs(), 1);
    const QStringList args = worker.arguments(1);
    ASSERT_EQ(args.size(), 5);
    EXPECT_EQ(args.at(0), "convert");
    EXPECT_EQ(args.at(1), "--source");
    EXPECT_EQ(args.at(3), "--output");
    const QString folder = WorkerProcessOperator::workerJobFolder();
    EXPECT_EQ(QFileInfo(args.at(2)).absolutePath(), folder);
    EXPECT_EQ(QFileInfo(args.at(4)).absolutePath(), folder);
    EXPECT_NE(args.at(2), args.at(4));
    EXPECT_EQ(worker.fileContent(1, "--source"), convertSourceToJson(jobSource()));
    EXPECT_EQ(worker.fileContent(1, "--output"), outputParamToJson(jobOutput()));
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

// Job files that a dead host left behind go at the next start once they are
// a day old; younger ones may belong to a host that still runs.
TEST(ConverterOperator, StartRemovesJobFilesOlderThanADay)
{
    struct Row
    {
        const char* name;
        qint64 ageS;
        bool kept;
    };
    const qint64 day = WorkerProcessOperator::kStaleJobFileAgeS;
    const Row rows[] = {{"left-a-week-ago-source.json", 7 * day, false},
                        {"left-a-day-ago-output.json", day + 600, false},
                        {"other-host-source.json", day - 600, true},
                        {"other-host-output.json", 0, true}};
    QDir folder(WorkerProcessOperator::workerJobFolder());
    ASSERT_TRUE(folder.mkpath("."));
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (const Row& row : rows) {
        QFile file(folder.filePath(row.name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_TRUE(file.setFileTime(now.addSecs(-row.ageS), QFileDevice::FileModificationTime));
    }

    ScriptedWorker worker("success");
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());
    for (const Row& row : rows) {
        EXPECT_EQ(folder.exists(row.name), row.kept) << row.name;
        folder.remove(row.name);
    }
    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
}

TEST(ConverterOperator, TaskCarriesTheRecords)
{
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    const auto task = op->task().dynamicCast<AVFFmpegTask>();
    ASSERT_TRUE(task);
    EXPECT_EQ(task->source()->filePath, jobSource().filePath);
    EXPECT_EQ(task->outputPath(), "/media/out.mp4");
    EXPECT_EQ(int(task->state()), 0);
    // The operator is a QObject; its pointer shares one count with the
    // QObject view of it.
    const QSharedPointer<QObject> object = op.dynamicCast<QObject>();
    ASSERT_TRUE(object);
    EXPECT_STREQ(object->metaObject()->className(), "Korvane::WorkerProcessOperator");
    QWeakPointer<IAVTaskOperator> weak = op;
    EXPECT_TRUE(weak.toStrongRef());
}

TEST(ConverterOperator, ReportedFailureEndsInFailedWithoutRetry)
{
    ScriptedWorker worker("failure");
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());

    EXPECT_EQ(bus.states(), (QList<int>{1, 6}));
    EXPECT_EQ(bus.progress(), (QList<double>{0.1}));
    EXPECT_EQ(op->task()->state(), TaskState::Failed);
    EXPECT_EQ(op->errorString(), "scripted failure");
    EXPECT_EQ(worker.runs(), 1);
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

// A worker that ends without a final state gets exactly one more run, with
// the same job files; the host sees one 1 and one final state.
TEST(ConverterOperator, RetriesOnceAfterAWorkerEndsWithoutAResult)
{
    struct Row
    {
        const char* behaviour;
        QList<int> states;
        QList<double> progress;
        int runs;
    };
    const QList<Row> rows{
        {"crash-once", {1, 5}, {0.3, 0.25, 0.5, 1.0}, 2},
        {"crash", {1, 6}, {0.3, 0.3}, 2},
        {"quit", {1, 6}, {}, 2},
    };
    // A file the user already has at the output path outlives workers that
    // die without a result: they never wrote it.
    QTemporaryDir dir;
    AVTaskOutputParam output = jobOutput();
    output.outputPath = dir.filePath("out.mp4");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        QFile existing(output.outputPath);
        ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
        existing.write("the user's file");
        existing.close();
        ScriptedWorker worker(row.behaviour);
        const auto op = createConverterContainRetryOp_IPC(jobSource(), output);
        BusRecorder bus(op->task());
        ASSERT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForFinalState());
        // Nothing else arrives afterwards: no third run.
        QCoreApplication::processEvents(QEventLoop::AllEvents, 300);

        EXPECT_EQ(bus.states(), row.states);
        EXPECT_EQ(bus.progress(), row.progress);
        EXPECT_EQ(worker.runs(), row.runs);
        EXPECT_EQ(op->operatorInfo().value("runs").toInt(), row.runs);
        EXPECT_EQ(worker.arguments(2), worker.arguments(1));
        EXPECT_EQ(worker.fileContent(2, "--source"), convertSourceToJson(jobSource()));
        EXPECT_TRUE(allGone(worker.jobPaths(1)));
        if (row.states.last() == 6) {
            EXPECT_FALSE(op->errorString().isEmpty());
        }
        ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
        EXPECT_EQ(existing.readAll(), "the user's file");
        existing.close();
    }
}

TEST(ConverterOperator, StopAsksTheWorkerAndEndsInStopped)
{
    ScriptedWorker worker("hang");
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForState(1));
    op->stop();
    ASSERT_TRUE(bus.waitForFinalState());
    QCoreApplication::processEvents(QEventLoop::AllEvents, 300);

    EXPECT_EQ(bus.states(), (QList<int>{1, 4}));
    EXPECT_EQ(op->task()->state(), TaskState::Stopped);
    EXPECT_TRUE(worker.stopped(1));
    EXPECT_EQ(worker.runs(), 1);
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

// A worker that ignores "stop" is killed after the grace period; the kill is
// not taken for a crash, so it is not started again.
TEST(ConverterOperator, StopKillsAWorkerThatDoesNotListen)
{
    ScriptedWorker worker("deaf");
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForState(1));
    op->stop();
    ASSERT_TRUE(bus.waitForFinalState(WorkerProcessOperator::kStopGraceMs + 10000));
    QCoreApplication::processEvents(QEventLoop::AllEvents, 300);

    EXPECT_EQ(bus.states(), (QList<int>{1, 4}));
    EXPECT_EQ(worker.runs(), 1);
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

// The reported result stands even when the worker must be killed afterwards.
TEST(ConverterOperator, WorkerLingeringAfterItsResultIsKilled)
{
    ScriptedWorker worker("linger");
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState(WorkerProcessOperator::kStopGraceMs + 10000));
    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    EXPECT_EQ(worker.runs(), 1);
}

TEST(ConverterOperator, MissingWorkerCannotStart)
{
    ScriptedWorker worker("success");
    const QString missing = QDir::temp().filePath("no-such-dir/korvane-worker");
    KorvaneBaseEntry()->settings().setValue("kWorker_Path", missing);
    LogCapture log;
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());

    EXPECT_FALSE(op->start());
    QCoreApplication::processEvents(QEventLoop::AllEvents, 200);
    EXPECT_TRUE(bus.states().isEmpty());
    EXPECT_TRUE(op->errorString().contains(missing));
    EXPECT_TRUE(log.contains(missing));
    EXPECT_EQ(worker.runs(), 0);
}

TEST(ConverterOperator, WorkerIsFoundNextToTheApplicationByDefault)
{
    KorvaneBaseEntry()->settings().remove("kWorker_Path");
    EXPECT_EQ(WorkerProcessOperator::workerPath(),
              QDir(QCoreApplication::applicationDirPath()).filePath("korvane-worker"));
    KorvaneBaseEntry()->settings().setValue("kWorker_Path", "/opt/x/worker");
    EXPECT_EQ(WorkerProcessOperator::workerPath(), "/opt/x/worker");
    KorvaneBaseEntry()->settings().remove("kWorker_Path");
}

TEST(ConverterOperator, SecondStartWhileRunningIsRefusedAndStopOutsideARunDoesNothing)
{
    ScriptedWorker worker("hang");
    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    op->stop();
    ASSERT_TRUE(op->start());
    EXPECT_FALSE(op->start());
    ASSERT_TRUE(bus.waitForState(1));
    op->stop();
    ASSERT_TRUE(bus.waitForFinalState());
    op->stop();
    QCoreApplication::processEvents(QEventLoop::AllEvents, 200);
    EXPECT_EQ(bus.states(), (QList<int>{1, 4}));
    EXPECT_EQ(worker.runs(), 1);

    // The operator can run again once the first run has ended.
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForStateCount(3));
    op->stop();
    ASSERT_TRUE(bus.waitForStateCount(4));
    QCoreApplication::processEvents(QEventLoop::AllEvents, 200);
    EXPECT_EQ(bus.states(), (QList<int>{1, 4, 1, 4}));
    EXPECT_EQ(worker.runs(), 2);
    EXPECT_NE(worker.jobPaths(1), worker.jobPaths(2));
}

TEST(ConverterOperator, DestroyingARunningOperatorStopsTheWorkerAndRemovesItsFiles)
{
    ScriptedWorker worker("hang");
    auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    const QSharedPointer<IAVTask> task = op->task();
    BusRecorder bus(task);
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForState(1));
    const QStringList paths = worker.jobPaths(1);
    ASSERT_EQ(paths.size(), 2);
    EXPECT_FALSE(allGone(paths));

    op.reset();
    EXPECT_TRUE(worker.stopped(1));
    EXPECT_TRUE(allGone(paths));
    QCoreApplication::processEvents(QEventLoop::AllEvents, 200);
    EXPECT_EQ(bus.states(), (QList<int>{1}));
}

// A host may drop the operator from a slot connected to the final state.
TEST(ConverterOperator, ReceiverMayReleaseTheOperatorOnTheFinalState)
{
    ScriptedWorker worker("success");
    auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    const QSharedPointer<IAVTask> task = op->task();
    BusRecorder bus(task);
    QPointer<QObject> watch(dynamic_cast<QObject*>(op.data()));
    QObject::connect(task->signalBus().data(), &TaskSignalBus::taskStateChanged,
                     [&op](TaskState state, int) {
                         if (int(state) >= 4) {
                             op.reset();
                         }
                     });
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());
    EXPECT_TRUE(watch.isNull());
    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

// An executable file that the system refuses to run is only found out once
// the process has been tried: the run ends in 6 without a 1, and a program
// that cannot run is not tried again.
TEST(ConverterOperator, WorkerThatCannotBeExecuted)
{
    ScriptedWorker worker("success");
    QTemporaryDir dir;
    const QString broken = dir.filePath("korvane-worker");
    QFile file(broken);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(64, '\x7f'));
    file.close();
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    KorvaneBaseEntry()->settings().setValue("kWorker_Path", broken);

    const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());
    QCoreApplication::processEvents(QEventLoop::AllEvents, 300);
    EXPECT_EQ(bus.states(), (QList<int>{6}));
    EXPECT_EQ(op->task()->state(), TaskState::Failed);
    EXPECT_TRUE(op->errorString().contains(broken));
    EXPECT_EQ(op->operatorInfo().value("runs").toInt(), 1);
}
