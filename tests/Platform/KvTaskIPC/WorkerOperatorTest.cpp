// The converter and export operators: one worker-process operator each, driven
// here with the scripted worker.
#include "KvExportHost/KvExportHost.h"
#include "KvTaskIPC/KvTaskIPC.h"

#include "Common/JsonForms.h"
#include "KorvaneBase/KorvaneBase.h"
#include "KvTaskIPC/WorkerProcessOperator.h"
#include "LogCapture.h"
#include "ScriptedWorkerHarness.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

const QString kProject = QString::fromUtf8("{\n    \"title\": \"Überschrift ✓\"\n}\n");

ConvertSource jobSource()
{
    ConvertSource source;
    source.filePath = QString::fromUtf8("/media/clip été.mp4");
    source.speed = 1.5f;
    return source;
}

AVTaskOutputParam jobOutput(const QString& path = "/media/out.mp4")
{
    AVTaskOutputParam output;
    output.outputPath = path;
    output.format = "mp4";
    output.video.codecName = "h264";
    return output;
}

QSharedPointer<IAVTaskOperator> makeOperator(bool exported, const AVTaskOutputParam& output)
{
    return exported ? rawCreateExportOp_IPC(kProject, output)
                    : createConverterContainRetryOp_IPC(jobSource(), output);
}

} // namespace

// A converter whose worker ends without a result gets exactly one more run on
// the same job files; an export none. The host sees one 1 and one final state,
// and a file the user already had at the output path outlives every run.
TEST(WorkerOperator, RunsEndAsTheWorkerSays)
{
    struct Row
    {
        bool exported;
        const char* behaviour;
        bool stop;
        QList<int> states;
        QList<double> progress;
        int runs;
        const char* error; // the start of the error text; null: left unchecked
    };
    const QList<double> full{0.25, 0.5, 1.0};
    const QList<Row> rows{
        {false, "success", false, {1, 5}, full, 1, ""},
        {true, "success", false, {1, 5}, full, 1, ""},
        {false, "failure", false, {1, 6}, {0.1}, 1, "scripted failure"},
        {false, "crash-once", false, {1, 5}, {0.3, 0.25, 0.5, 1.0}, 2, nullptr},
        {false, "crash", false, {1, 6}, {0.3, 0.3}, 2, "the worker crashed"},
        {false, "quit", false, {1, 6}, {}, 2, "the worker ended with code 0"},
        {true, "crash-once", false, {1, 6}, {0.3}, 1, "the worker crashed"},
        {false, "hang", true, {1, 4}, {}, 1, ""},
        // Killed after the grace period: neither a crash to retry nor a failure.
        {false, "deaf", true, {1, 4}, {}, 1, ""},
        // The reported result stands though the worker must be killed.
        {false, "linger", false, {1, 5}, full, 1, ""},
    };
    // Job files a dead host left go at the next start once they are a day old;
    // younger ones may belong to a host that still runs.
    const qint64 day = WorkerProcessOperator::kStaleJobFileAgeS;
    const QList<QPair<QString, qint64>> leftovers{{"week-old-source.json", 7 * day},
                                                  {"day-old-output.json", day + 600},
                                                  {"young.json", day - 600}};
    QDir folder(WorkerProcessOperator::workerJobFolder());
    ASSERT_TRUE(folder.mkpath("."));
    for (const auto& [name, age] : leftovers) {
        QFile file(folder.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(-age),
                         QFileDevice::FileModificationTime);
    }
    QTemporaryDir dir;
    const AVTaskOutputParam output = jobOutput(dir.filePath("out.mp4"));
    for (const Row& row : rows) {
        SCOPED_TRACE(QStringLiteral("%1 %2").arg(row.behaviour).arg(row.exported).toStdString());
        QFile existing(output.outputPath);
        ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
        existing.write("the user's file");
        existing.close();
        ScriptedWorker worker(row.behaviour);
        LogCapture log;
        const auto op = makeOperator(row.exported, output);
        ASSERT_TRUE(op);
        BusRecorder bus(op->task());
        op->stop();
        ASSERT_TRUE(op->start());
        if (row.stop) {
            ASSERT_TRUE(bus.waitForState(1));
            op->stop();
        }
        ASSERT_TRUE(bus.waitForFinalState(WorkerProcessOperator::kStopGraceMs + 10000));
        // Nothing else arrives afterwards, not even from a late stop.
        op->stop();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 300);

        EXPECT_EQ(bus.states(), row.states);
        EXPECT_EQ(bus.errorCodes(), QList<int>(row.states.size(), 0));
        EXPECT_EQ(bus.progress(), row.progress);
        EXPECT_EQ(bus.progressTypes(), QList<int>(row.progress.size(), 0));
        EXPECT_EQ(int(op->task()->state()), row.states.last());
        EXPECT_EQ(op->task()->progress(), row.progress.value(row.progress.size() - 1, 0.0));
        if (row.error) {
            EXPECT_EQ(op->errorString().left(int(strlen(row.error))), row.error);
            EXPECT_EQ(op->errorString().isEmpty(), !*row.error);
        }
        EXPECT_EQ(worker.runs(), row.runs);
        EXPECT_EQ(op->operatorInfo().value("runs").toInt(), row.runs);
        EXPECT_EQ(worker.stopped(1), QString(row.behaviour) == "hang");
        const QStringList args = worker.arguments(1);
        ASSERT_EQ(args.size(), 5);
        const QString input = row.exported ? "--project" : "--source";
        EXPECT_EQ(QStringList({args[0], args[1], args[3]}).join(' ').toStdString(),
                  (row.exported ? "export " : "convert ") + input.toStdString() + " --output");
        EXPECT_NE(args[2], args[4]);
        EXPECT_EQ(QFileInfo(args[2]).absolutePath(), WorkerProcessOperator::workerJobFolder());
        EXPECT_EQ(worker.arguments(row.runs), args);
        EXPECT_EQ(worker.fileContent(row.runs, input),
                  row.exported ? kProject : convertSourceToJson(jobSource()));
        EXPECT_EQ(worker.fileContent(row.runs, "--output"), outputParamToJson(output));
        EXPECT_TRUE(allGone(worker.jobPaths(1)));
        EXPECT_EQ(log.contains("scripted worker: working on " + args[0]), row.progress.size() > 2);
        ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
        EXPECT_EQ(existing.readAll(), "the user's file");
        existing.close();
        if (QString(row.behaviour) == "hang") {
            // The operator runs again, on new job files, once a run has ended;
            // one run at a time.
            ASSERT_TRUE(op->start());
            EXPECT_FALSE(op->start());
            ASSERT_TRUE(bus.waitForStateCount(3));
            op->stop();
            ASSERT_TRUE(bus.waitForStateCount(4));
            EXPECT_EQ(bus.states(), (QList<int>{1, 4, 1, 4}));
            EXPECT_NE(worker.jobPaths(2), worker.jobPaths(1));
        }
    }
    for (const auto& [name, age] : leftovers) {
        EXPECT_EQ(folder.remove(name), age < day) << name.toStdString();
    }
}

// A missing program is refused at start. A file the system refuses to execute
// is only found out once tried: the run ends in 6 without a 1, not retried.
TEST(WorkerOperator, WorkerThatCannotRun)
{
    QTemporaryDir dir;
    const QString broken = dir.filePath("korvane-worker");
    QFile file(broken);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(64, '\x7f'));
    file.close();
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    for (const QString& program : {dir.filePath("missing/korvane-worker"), broken}) {
        const bool missing = program != broken;
        ScriptedWorker worker("success");
        KorvaneBaseEntry()->settings().setValue("kWorker_Path", program);
        LogCapture log;
        const auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
        BusRecorder bus(op->task());
        ASSERT_EQ(op->start(), !missing);
        EXPECT_EQ(bus.waitForFinalState(missing ? 300 : 20000), !missing);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 300);
        EXPECT_EQ(bus.states(), missing ? QList<int>() : QList<int>{6});
        EXPECT_TRUE(op->errorString().contains(program));
        EXPECT_TRUE(log.contains(program));
        EXPECT_EQ(op->operatorInfo().value("runs").toInt(), missing ? 0 : 1);
    }
    EXPECT_EQ(WorkerProcessOperator::workerPath(),
              QDir(QCoreApplication::applicationDirPath()).filePath("korvane-worker"));
}

// The host may drop the operator while the worker runs, or from a slot
// connected to the final state.
TEST(WorkerOperator, ReleasedOperatorStopsTheWorkerAndRemovesItsFiles)
{
    for (const char* behaviour : {"hang", "success"}) {
        ScriptedWorker worker(behaviour);
        auto op = createConverterContainRetryOp_IPC(jobSource(), jobOutput());
        BusRecorder bus(op->task());
        QPointer<QObject> watch(dynamic_cast<QObject*>(op.data()));
        QObject::connect(op->task()->signalBus().data(), &TaskSignalBus::taskStateChanged,
                         [&op](TaskState state, int) {
                             if (int(state) >= 4) {
                                 op.reset();
                             }
                         });
        ASSERT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForState(1));
        const bool running = QString(behaviour) == "hang";
        if (running) {
            EXPECT_FALSE(allGone(worker.jobPaths(1)));
            op.reset();
        }
        EXPECT_EQ(bus.waitForFinalState(running ? 300 : 20000), !running);
        EXPECT_TRUE(watch.isNull());
        EXPECT_EQ(worker.stopped(1), running);
        EXPECT_TRUE(allGone(worker.jobPaths(1)));
        EXPECT_EQ(bus.states(), (running ? QList<int>{1} : QList<int>{1, 5}));
    }
}
