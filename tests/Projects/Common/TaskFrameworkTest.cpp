#include "Common/AVFFmpegTask.h"
#include "Common/JsonForms.h"
#include "Common/TaskSignalBus.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QThread>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// Receives the bus's signals through string-based connections, as a host does.
class Listener : public QObject
{
    Q_OBJECT
public:
    QList<QPair<int, int>> states;
    QList<QPair<int, double>> progress;

public Q_SLOTS:
    void onState(Korvane::TaskState state, int errorCode)
    {
        states.append({int(state), errorCode});
    }
    void onProgress(Korvane::TaskProgressType type, double value)
    {
        progress.append({int(type), value});
    }
};

AVTaskOutputParam output(const QString& lossless = {})
{
    AVTaskOutputParam p;
    p.outputPath = QString::fromUtf8("/out/résultat.mp4");
    p.video.codecName = "h264";
    p.acceleration.losslessFormat = lossless;
    return p;
}

} // namespace

TEST(AVFFmpegTask, StartsEmptyAndKeepsItsOwnCopies)
{
    ConvertSource source;
    source.filePath = "/in.mp4";
    AVTaskOutputParam param = output();
    AVFFmpegTask task(source, param);
    source.filePath = "/changed.mp4";
    param.outputPath = "/changed.mp4";

    EXPECT_EQ(int(task.state()), 0);
    EXPECT_EQ(task.progress(), 0.0);
    EXPECT_EQ(task.source()->filePath, "/in.mp4");
    EXPECT_EQ(task.outputPath(), QString::fromUtf8("/out/résultat.mp4"));
    EXPECT_FALSE(task.isLossless());
    EXPECT_TRUE(AVFFmpegTask(source, output("mkv")).isLossless());

    task.setState(TaskState::Running);
    task.setProgress(0.25);
    EXPECT_EQ(task.state(), TaskState::Running);
    EXPECT_EQ(task.progress(), 0.25);
}

TEST(AVFFmpegTask, JsonFormsAreThoseOfItsRecords)
{
    ConvertSource source;
    source.filePath = "/in.mp4";
    source.speed = 1.5f;
    AVFFmpegTask task(source, output());
    EXPECT_EQ(task.sourceJson(), convertSourceToJson(source));
    EXPECT_EQ(task.outputParamJson(), outputParamToJson(output()));
    EXPECT_EQ(convertSourceFromJson(task.sourceJson()).speed.value_or(0), 1.5f);
}

TEST(AVFFmpegTask, BusIsCreatedOnceAndWithoutParent)
{
    AVFFmpegTask task(ConvertSource{}, output());
    const QSharedPointer<TaskSignalBus> first = task.signalBus();
    ASSERT_FALSE(first.isNull());
    EXPECT_EQ(first, task.signalBus());
    EXPECT_EQ(first->parent(), nullptr);
}

TEST(TaskSignalBus, SignalSignaturesAndMetaTypeNames)
{
    TaskSignalBus bus;
    const QMetaObject* meta = bus.metaObject();
    EXPECT_GE(meta->indexOfSignal("taskStateChanged(Korvane::TaskState,int)"), 0);
    EXPECT_GE(meta->indexOfSignal("taskProgress(Korvane::TaskProgressType,double)"), 0);
    EXPECT_GE(meta->indexOfSignal("taskProcessMsg(QString)"), 0);
    EXPECT_EQ(meta->methodCount() - meta->methodOffset(), 3);
    EXPECT_TRUE(QMetaType::fromName("Korvane::TaskState").isValid());
    EXPECT_TRUE(QMetaType::fromName("Korvane::TaskProgressType").isValid());
}

TEST(TaskSignalBus, QueuedStringConnectionsDeliverBothSignalsAcrossThreads)
{
    AVFFmpegTask task(ConvertSource{}, output());
    QSharedPointer<TaskSignalBus> bus = task.signalBus();
    Listener listener;
    ASSERT_TRUE(QObject::connect(bus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int)),
                                 &listener, SLOT(onState(Korvane::TaskState, int)),
                                 Qt::QueuedConnection));
    ASSERT_TRUE(QObject::connect(
        bus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)), &listener,
        SLOT(onProgress(Korvane::TaskProgressType, double)), Qt::QueuedConnection));
    QSignalSpy stateSpy(bus.data(), SIGNAL(taskStateChanged(Korvane::TaskState, int)));
    QSignalSpy progressSpy(bus.data(), SIGNAL(taskProgress(Korvane::TaskProgressType, double)));

    // Emitted from another thread: the arguments must be copied into events.
    QThread* emitter = QThread::create([bus] {
        Q_EMIT bus->taskStateChanged(TaskState::Started, 0);
        Q_EMIT bus->taskProgress(TaskProgressType::Whole, 0.5);
        Q_EMIT bus->taskStateChanged(TaskState::Finished, 0);
    });
    emitter->start();
    emitter->wait();
    delete emitter;
    EXPECT_TRUE(listener.states.isEmpty()); // nothing before the event loop runs
    QCoreApplication::processEvents();

    const QList<QPair<int, int>> expectedStates{{1, 0}, {5, 0}};
    EXPECT_EQ(listener.states, expectedStates);
    ASSERT_EQ(listener.progress.size(), 1);
    EXPECT_EQ(listener.progress[0].first, 0);
    EXPECT_EQ(listener.progress[0].second, 0.5);
    ASSERT_EQ(stateSpy.count(), 2);
    EXPECT_EQ(stateSpy.at(1).at(0).value<TaskState>(), TaskState::Finished);
    EXPECT_EQ(progressSpy.count(), 1);
}

#include "TaskFrameworkTest.moc"
