#include "KvExportHost/KvExportHost.h"

#include "Common/IAVTask.h"
#include "Common/JsonForms.h"
#include "KorvaneBase/KorvaneBase.h"
#include "ScriptedWorkerHarness.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

const QString kProject =
    QString::fromUtf8("{\n    \"tracks\": [\n        {\"title\": \"Überschrift ✓\"}\n    ]\n}\n");

AVTaskOutputParam exportOutput()
{
    AVTaskOutputParam output;
    output.outputPath = "/media/export.mp4";
    output.format = "mp4";
    output.video.codecName = "h265";
    return output;
}

} // namespace

TEST(ExportOperator, RunsTheWorkerOnTheProjectDocument)
{
    ScriptedWorker worker("success");
    const auto op = rawCreateExportOp_IPC(kProject, exportOutput());
    ASSERT_TRUE(op);
    const QSharedPointer<IAVTask> task = op->task();
    BusRecorder bus(task);

    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());

    EXPECT_EQ(bus.states(), (QList<int>{1, 5}));
    EXPECT_EQ(bus.errorCodes(), (QList<int>{0, 0}));
    EXPECT_EQ(bus.progress(), (QList<double>{0.25, 0.5, 1.0}));
    EXPECT_EQ(task->state(), TaskState::Finished);

    ASSERT_EQ(worker.runs(), 1);
    const QStringList args = worker.arguments(1);
    ASSERT_EQ(args.size(), 5);
    EXPECT_EQ(args.at(0), "export");
    EXPECT_EQ(args.at(1), "--project");
    EXPECT_EQ(args.at(3), "--output");
    EXPECT_EQ(worker.fileContent(1, "--project"), kProject);
    EXPECT_EQ(worker.fileContent(1, "--output"), outputParamToJson(exportOutput()));
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

TEST(ExportOperator, TaskHoldsTheOutputAndADefaultSource)
{
    const auto op = rawCreateExportOp_IPC(kProject, exportOutput());
    const QSharedPointer<IAVTask> task = op->task();
    EXPECT_EQ(task->outputPath(), "/media/export.mp4");
    EXPECT_EQ(task->outputParamJson(), outputParamToJson(exportOutput()));
    EXPECT_EQ(task->sourceJson(), convertSourceToJson(ConvertSource()));
    EXPECT_EQ(op->operatorInfo().value("command").toString(), "export");
    EXPECT_EQ(op->operatorInfo().value("restarts").toInt(), 0);
}

// The export is not started again when its worker dies.
TEST(ExportOperator, CrashIsNotRetried)
{
    ScriptedWorker worker("crash-once");
    const auto op = rawCreateExportOp_IPC(kProject, exportOutput());
    BusRecorder bus(op->task());
    ASSERT_TRUE(op->start());
    ASSERT_TRUE(bus.waitForFinalState());
    QCoreApplication::processEvents(QEventLoop::AllEvents, 300);

    EXPECT_EQ(bus.states(), (QList<int>{1, 6}));
    EXPECT_EQ(bus.progress(), (QList<double>{0.3}));
    EXPECT_EQ(worker.runs(), 1);
    EXPECT_FALSE(op->errorString().isEmpty());
    EXPECT_TRUE(allGone(worker.jobPaths(1)));
}

TEST(ExportOperator, ReportedFailureAndStop)
{
    {
        ScriptedWorker worker("failure");
        const auto op = rawCreateExportOp_IPC(kProject, exportOutput());
        BusRecorder bus(op->task());
        ASSERT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForFinalState());
        EXPECT_EQ(bus.states(), (QList<int>{1, 6}));
        EXPECT_EQ(op->errorString(), "scripted failure");
    }
    {
        ScriptedWorker worker("hang");
        const auto op = rawCreateExportOp_IPC(kProject, exportOutput());
        BusRecorder bus(op->task());
        ASSERT_TRUE(op->start());
        ASSERT_TRUE(bus.waitForState(1));
        op->stop();
        ASSERT_TRUE(bus.waitForFinalState());
        EXPECT_EQ(bus.states(), (QList<int>{1, 4}));
        EXPECT_TRUE(worker.stopped(1));
        EXPECT_TRUE(allGone(worker.jobPaths(1)));
    }
}

TEST(ExportOperator, MissingWorkerCannotStart)
{
    KorvaneBaseEntry()->settings().setValue("kWorker_Path",
                                            QDir::temp().filePath("no-such-dir/korvane-worker"));
    const auto op = rawCreateExportOp_IPC(kProject, exportOutput());
    BusRecorder bus(op->task());
    EXPECT_FALSE(op->start());
    QCoreApplication::processEvents(QEventLoop::AllEvents, 200);
    EXPECT_TRUE(bus.states().isEmpty());
    EXPECT_FALSE(op->errorString().isEmpty());
    KorvaneBaseEntry()->settings().remove("kWorker_Path");
}
