#include "ProgressDisplay.h"

#include <QBuffer>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

TEST(ProgressDisplay, FiguresEstimateOnlyWithEnoughProgressAndTime)
{
    struct Case
    {
        double fraction;
        qint64 elapsed;
        qint64 media;
        qint64 eta;
        double speed;
    };
    const QList<Case> cases = {
        {0.25, 2000, 10000, 6000, 1.25}, {0.5, 1000, 0, 1000, -1},  {1.0, 4000, 10000, 0, 2.5},
        {0.001, 5000, 10000, -1, -1},    {0.5, 100, 10000, -1, -1}, {1.7, 2000, 10000, 0, 5.0},
        {-0.5, 2000, 10000, -1, -1},
    };
    for (const Case& c : cases) {
        const ProgressFigures f = progressFigures(c.fraction, c.elapsed, c.media);
        EXPECT_EQ(f.etaMs, c.eta) << c.fraction << " " << c.elapsed;
        EXPECT_DOUBLE_EQ(f.speed, c.speed) << c.fraction << " " << c.elapsed;
        EXPECT_GE(f.fraction, 0.0);
        EXPECT_LE(f.fraction, 1.0);
    }
}

TEST(ProgressDisplay, ClockAndLineTexts)
{
    EXPECT_EQ(formatClock(-1), "--:--");
    EXPECT_EQ(formatClock(0), "00:00");
    EXPECT_EQ(formatClock(59999), "00:59");
    EXPECT_EQ(formatClock(61000), "01:01");
    EXPECT_EQ(formatClock(3600000 + 62000), "1:01:02");
    const ProgressFigures f = progressFigures(0.3, 3000, 25000);
    EXPECT_EQ(progressBar(f, 10), "[###-------]  30.0%  00:03 elapsed  ETA 00:07  2.50x");
    EXPECT_EQ(progressLine(f), "progress  30.0%  elapsed 00:03  ETA 00:07  speed 2.50x");
    EXPECT_EQ(progressLine(progressFigures(0, 0, 0)),
              "progress   0.0%  elapsed 00:00  ETA --:--  speed -.--x");
}

TEST(ProgressDisplay, StyleFollowsFlagsAndTerminal)
{
    EXPECT_EQ(chooseProgressStyle(true, true, true), ProgressStyle::Json);
    EXPECT_EQ(chooseProgressStyle(false, true, true), ProgressStyle::Silent);
    EXPECT_EQ(chooseProgressStyle(false, false, true), ProgressStyle::Bar);
    EXPECT_EQ(chooseProgressStyle(false, false, false), ProgressStyle::Lines);
}

TEST(ProgressDisplay, PlainLinesAtEachTenthOrAfterTenSeconds)
{
    QBuffer human;
    QBuffer machine;
    human.open(QIODevice::WriteOnly);
    machine.open(QIODevice::WriteOnly);
    ProgressDisplay display(ProgressStyle::Lines, false, &human, &machine);
    display.beginJob(1, 1, "in.mp4", "out.mp4", "ffmpeg", "path ffmpeg: because", 10000);
    for (const auto& [fraction, elapsed] : QList<QPair<double, qint64>>{
             {0.01, 500}, {0.05, 1000}, {0.11, 1500}, {0.12, 2000}, {0.13, 12000}, {0.35, 13000}}) {
        display.progress(fraction, elapsed);
    }
    display.endJob("Finished", 0, 14000, QString());
    const QStringList lines = QString::fromUtf8(human.data()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 6) << human.data().toStdString();
    EXPECT_EQ(lines[0], "path ffmpeg: because");
    EXPECT_TRUE(lines[1].startsWith("progress   1.0%"));
    EXPECT_TRUE(lines[2].startsWith("progress  11.0%"));
    EXPECT_TRUE(lines[3].startsWith("progress  13.0%"));
    EXPECT_TRUE(lines[4].startsWith("progress  35.0%"));
    EXPECT_EQ(lines[5], "job 1/1 finished after 00:14 (path ffmpeg): out.mp4");
    EXPECT_TRUE(machine.data().isEmpty());
}

TEST(ProgressDisplay, BarRedrawsOneLineAndEndsIt)
{
    QBuffer human;
    QBuffer machine;
    human.open(QIODevice::WriteOnly);
    machine.open(QIODevice::WriteOnly);
    ProgressDisplay display(ProgressStyle::Bar, false, &human, &machine);
    display.beginJob(2, 3, "in.mp4", "out.mp4", "export", "path export: x", 0);
    display.progress(0.5, 1000);
    display.progress(0.6, 1500);
    display.endJob("Failed", 1, 2000, "ffmpeg cnv failed: boom");
    const QString text = QString::fromUtf8(human.data());
    EXPECT_EQ(text.count('\r'), 2);
    EXPECT_TRUE(text.startsWith("job 2/3: path export: x\n\r["));
    EXPECT_TRUE(
        text.endsWith("\njob 2/3 failed after 00:02 (path export): ffmpeg cnv failed: boom\n"))
        << text.toStdString();
}

TEST(ProgressDisplay, JsonEventsOnePerLineAndHumanTextOnlyForPathAndSummary)
{
    QBuffer human;
    QBuffer machine;
    human.open(QIODevice::WriteOnly);
    machine.open(QIODevice::WriteOnly);
    ProgressDisplay display(ProgressStyle::Json, true, &human, &machine);
    display.beginJob(1, 2, "in.mp4", "out.mp4", "converter", "path converter: y", 20000);
    display.state(TaskState::Started, 10);
    display.progress(0.5, 2000);
    display.endJob("Failed", 1, 3000, "reason");
    // Quiet keeps only the failure's summary.
    EXPECT_EQ(human.data().toStdString(), "job 1/2 failed after 00:03 (path converter): reason\n");
    const QList<QByteArray> lines = machine.data().split('\n');
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines[4].isEmpty());
    QList<QJsonObject> events;
    for (int i = 0; i < 4; ++i) {
        QJsonParseError error;
        events.append(QJsonDocument::fromJson(lines[i], &error).object());
        ASSERT_EQ(error.error, QJsonParseError::NoError) << lines[i].toStdString();
    }
    EXPECT_EQ(events[0]["event"].toString(), "start");
    EXPECT_EQ(events[0]["path"].toString(), "converter");
    EXPECT_EQ(events[0]["jobs"].toInt(), 2);
    EXPECT_EQ(events[1]["event"].toString(), "state");
    EXPECT_EQ(events[1]["state"].toInt(), 1);
    EXPECT_EQ(events[1]["name"].toString(), "Started");
    EXPECT_EQ(events[2]["event"].toString(), "progress");
    EXPECT_DOUBLE_EQ(events[2]["progress"].toDouble(), 0.5);
    EXPECT_EQ(events[2]["etaMs"].toInteger(), 2000);
    EXPECT_DOUBLE_EQ(events[2]["speed"].toDouble(), 5.0);
    EXPECT_EQ(events[3]["event"].toString(), "end");
    EXPECT_EQ(events[3]["exitCode"].toInt(), 1);
    EXPECT_EQ(events[3]["error"].toString(), "reason");
}
