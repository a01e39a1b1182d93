#include "Common/Task/AVFFmpegTask.h"
#include "Common/Task/TaskReporter.h"
#include "Common/Task/TaskSignalBus.h"
#include "Common/Timeline/TimelineProjectBuilder.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

TEST(AVFFmpegTask, KeepsItsOwnCopiesStateAndBus)
{
    ConvertSource source;
    source.filePath = "/in.mp4";
    AVTaskOutputParam output;
    AVFFmpegTask task(source, output);
    source.filePath = "/changed.mp4";
    EXPECT_EQ(std::make_tuple(task.source()->filePath, task.state(), task.isLossless()),
              std::make_tuple(QString("/in.mp4"), TaskState(0), false));
    output.acceleration.losslessFormat = "mkv";
    EXPECT_TRUE(AVFFmpegTask(source, output).isLossless());
    task.setState(TaskState::Running);
    EXPECT_EQ(task.state(), TaskState::Running);
    // Hosts connect by signature text across threads; a bus outlives its task.
    const QSharedPointer<TaskSignalBus> bus = AVFFmpegTask(source, output).signalBus();
    ASSERT_FALSE(bus.isNull());
    EXPECT_TRUE(QMetaType::fromName("Korvane::TaskState").isValid());
    EXPECT_TRUE(QMetaType::fromName("Korvane::TaskProgressType").isValid());
}

// The task holds a value before its bus tells of it; a task of another kind
// only hears of it.
TEST(TaskReporter, RecordsOnThePluginsTaskThenEmits)
{
    const auto task = QSharedPointer<AVFFmpegTask>::create(ConvertSource(), AVTaskOutputParam());
    const TaskReporter reporter(task);
    QList<double> heard;
    QObject::connect(task->signalBus().data(), &TaskSignalBus::taskProgress,
                     [&](TaskProgressType, double) { heard << task->progress(); });
    QObject::connect(task->signalBus().data(), &TaskSignalBus::taskStateChanged,
                     [&](TaskState state, int) { heard << double(task->state()) + int(state); });
    reporter.reportProgress(TaskProgressType::Whole, 0.25);
    reporter.reportState(TaskState::Running, 0);
    reporter.recordProgress(0.5);
    EXPECT_EQ(heard, QList<double>({0.25, 2.0 * int(TaskState::Running)}));
    EXPECT_EQ(task->progress(), 0.5);
    EXPECT_EQ(reporter.source(), task->source().data());
}

// No other test of this program builds a timeline: a process numbers transforms from 0.
TEST(TimelineTransformCounter, FirstTwoBuildsOfAProcessTakeZeroThenOne)
{
    ContainerInfo info{0, {ContainerVideoStream{-1, 25, 1, 0, false, 1280, 720}}, {}};
    ConvertSource source;
    for (const char* expected : {"transform_0", "transform_1"}) {
        const QString text = TimelineProjectBuilder(source, {}, &info).build();
        EXPECT_EQ(QJsonDocument::fromJson(text.toUtf8())["clips"][0]["transform"]["id"], expected);
    }
}
