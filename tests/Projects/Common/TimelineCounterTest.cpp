// Runs alone in its own process: the transform numbers of the first documents
// that a process builds start at 0.
#include "Common/TimelineProjectBuilder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

QString transformId(const ConvertSource& source, const ContainerInfo& info)
{
    const QString text = TimelineProjectBuilder(source, {}, &info).build();
    const QJsonObject document = QJsonDocument::fromJson(text.toUtf8()).object();
    const QJsonArray clips = document["clips"].toArray();
    EXPECT_EQ(clips.size(), 1);
    return clips.first().toObject()["transform"].toObject()["id"].toString();
}

} // namespace

TEST(TimelineTransformCounter, FirstTwoBuildsOfAProcessTakeZeroThenOne)
{
    ContainerInfo info;
    info.videoStreams = {ContainerVideoStream{}};
    info.videoStreams[0].frameRateNum = 25;
    info.videoStreams[0].frameRateDen = 1;
    info.videoStreams[0].displayWidth = 1280;
    info.videoStreams[0].displayHeight = 720;
    ConvertSource source;
    source.filePath = "/media/clip.mp4";

    EXPECT_EQ(transformId(source, info), "transform_0");
    EXPECT_EQ(transformId(source, info), "transform_1");
}
