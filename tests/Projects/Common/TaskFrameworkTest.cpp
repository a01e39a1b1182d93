#include "Common/AVFFmpegTask.h"
#include "Common/TaskSignalBus.h"
#include "Common/TimelineProjectBuilder.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// Receives the bus's signals through string-based connections, as a host does.
class Listener : public QObject
{
    Q_OBJECT
public:
    QList<QPair<int, double>> received; // (state, error code) and (-1 - type, progress)

public Q_SLOTS:
    void onState(Korvane::TaskState state, int errorCode)
    {
        received.append({int(state), errorCode});
    }
    void onProgress(Korvane::TaskProgressType type, double value)
    {
        received.append({-1 - int(type), value});
    }
};

} // namespace

TEST(AVFFmpegTask, KeepsItsOwnCopiesStateAndBus)
{
    ConvertSource source;
    source.filePath = "/in.mp4";
    AVTaskOutputParam output;
    output.outputPath = "/out/a.mp4";
    AVFFmpegTask task(source, output);
    source.filePath = output.outputPath = "/changed.mp4";
    EXPECT_EQ(std::make_tuple(int(task.state()), task.progress(), task.isLossless()),
              std::make_tuple(0, 0.0, false));
    EXPECT_EQ(std::make_pair(task.source()->filePath, task.outputPath()),
              std::make_pair(QString("/in.mp4"), QString("/out/a.mp4")));
    output.acceleration.losslessFormat = "mkv";
    EXPECT_TRUE(AVFFmpegTask(source, output).isLossless());
    task.setState(TaskState::Running);
    task.setProgress(0.25);
    EXPECT_EQ(std::make_pair(task.state(), task.progress()),
              std::make_pair(TaskState::Running, 0.25));

    const QSharedPointer<TaskSignalBus> bus = task.signalBus();
    ASSERT_FALSE(bus.isNull());
    EXPECT_EQ(bus, task.signalBus());
    EXPECT_EQ(bus->parent(), nullptr);
    EXPECT_GE(bus->metaObject()->indexOfSignal("taskProcessMsg(QString)"), 0);
}

TEST(TaskSignalBus, QueuedStringConnectionsDeliverBothSignalsAcrossThreads)
{
    AVFFmpegTask task(ConvertSource{}, AVTaskOutputParam{});
    QSharedPointer<TaskSignalBus> bus = task.signalBus();
    Listener listener;
    ASSERT_TRUE(QObject::connect(bus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int)),
                                 &listener, SLOT(onState(Korvane::TaskState, int)),
                                 Qt::QueuedConnection));
    ASSERT_TRUE(QObject::connect(
        bus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)), &listener,
        SLOT(onProgress(Korvane::TaskProgressType, double)), Qt::QueuedConnection));

    // Emitted from another thread: the arguments must be copied into events.
    QThread* emitter = QThread::create([bus] {
        Q_EMIT bus->taskStateChanged(TaskState::Started, 0);
        Q_EMIT bus->taskProgress(TaskProgressType::Whole, 0.5);
        Q_EMIT bus->taskStateChanged(TaskState::Finished, 3);
    });
    emitter->start();
    emitter->wait();
    delete emitter;
    EXPECT_TRUE(listener.received.isEmpty()); // nothing before the event loop runs
    QCoreApplication::processEvents();
    EXPECT_EQ(listener.received, (QList<QPair<int, double>>{{1, 0}, {-1, 0.5}, {5, 3}}));
}

// No other test of this program builds a timeline document: the transform
// numbers of the first documents of a process start at 0.
TEST(TimelineTransformCounter, FirstTwoBuildsOfAProcessTakeZeroThenOne)
{
    ContainerInfo info{0, {ContainerVideoStream{-1, 25, 1, 0, false, 1280, 720}}, {}};
    ConvertSource source;
    source.filePath = "/media/clip.mp4";
    for (const char* expected : {"transform_0", "transform_1"}) {
        const QString text = TimelineProjectBuilder(source, {}, &info).build();
        EXPECT_EQ(QJsonDocument::fromJson(text.toUtf8())["clips"][0]["transform"]["id"], expected);
    }
}

#include "TaskFrameworkTest.moc"
