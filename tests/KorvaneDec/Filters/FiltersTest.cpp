// The colour and audio filter mappings, and that libavfilter accepts every
// text they produce.
#include "Filters/IAudioFilter.h"
#include "Filters/VideoFilterMapping.h"
#include "Filters/VolumeFilter.h"

#include "KvAVGlue/KvAVGlue.h"

#include <QList>

#include <gtest/gtest.h>

extern "C" {
#include <libavfilter/avfilter.h>
}

using namespace Korvane;

namespace {

// Builds and configures "source -> chain -> sink" for a small picture or a
// sound, which is where libavfilter rejects bad options or ranges.
bool configures(const QString& chain, bool video)
{
    auto graph = makeAVFilterGraphPtr();
    const QString text =
        video ? QStringLiteral("color=c=gray:size=64x48:duration=0.1,format=yuv420p,%1,nullsink")
                    .arg(chain)
              : QStringLiteral("sine=duration=0.1,%1,anullsink").arg(chain);
    AVFilterInOut* in = nullptr;
    AVFilterInOut* out = nullptr;
    int ret = avfilter_graph_parse2(graph.data(), text.toUtf8().constData(), &in, &out);
    auto inOwner = makeAVFilterInOutPtr(in);
    auto outOwner = makeAVFilterInOutPtr(out);
    if (ret >= 0) {
        ret = avfilter_graph_config(graph.data(), nullptr);
    }
    return ret >= 0;
}

} // namespace

TEST(ColourFilterText, MapsEachControlOntoItsFilter)
{
    struct Row
    {
        const char* name;
        int value;
        const char* expected;
    };
    const QList<Row> rows = {
        {"Brightness", 40, "eq=brightness=0.2"},
        {"Brightness", -100, "eq=brightness=-0.5"},
        {"Contrast", 50, "eq=contrast=1.5"},
        {"Saturation", -100, "eq=saturation=0"},
        {"Sharpen", 100, "unsharp=5:5:1.5"},
        {"Sharpen", -20, "unsharp=5:5:-0.3"},
        {"Shadow", 100, "curves=all='0/0 0.25/0.4 1/1'"},
        {"HighLight", -100, "curves=all='0/0 0.75/0.6 1/1'"},
        {"ColorTemperature", 100, "colortemperature=temperature=3000"},
        {"ColorTemperature", -100, "colortemperature=temperature=10000"},
        {"ColorHue", 50, "hue=h=90"},
        {"ColorHue", 250, "hue=h=180"}, // clamped to 100
        {"Brightness", 0, ""},
        {"brightness", 40, ""}, // names are case-sensitive
        {"Vignette", 40, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(QStringLiteral("%1 %2").arg(row.name).arg(row.value).toStdString());
        EXPECT_EQ(colourFilterText(row.name, row.value), row.expected);
        EXPECT_EQ(isColourFilterName(row.name),
                  QString(row.name) != "brightness" && QString(row.name) != "Vignette");
    }
}

TEST(ColourFilterText, EveryExtremeConfiguresInLibavfilter)
{
    for (const char* name : {"Brightness", "Contrast", "Saturation", "Sharpen", "Shadow",
                             "HighLight", "ColorTemperature", "ColorHue"}) {
        for (int value : {-100, -1, 1, 100}) {
            SCOPED_TRACE(QStringLiteral("%1 %2").arg(name).arg(value).toStdString());
            EXPECT_TRUE(configures(colourFilterText(name, value), true));
        }
    }
}

TEST(AnaglyphFilterText, ReadsTheLayoutFromTheEffectName)
{
    EXPECT_EQ(anaglyphFilterText("Anaglyph Side by Side", "a"), "stereo3d=sbsl:arcc");
    EXPECT_EQ(anaglyphFilterText("Anaglyph Top and Bottom", "a"), "stereo3d=abl:arcc");
    const QString twoD = anaglyphFilterText("Anaglyph", "p0");
    EXPECT_TRUE(twoD.startsWith("split[p0l][p0r]"));
    EXPECT_TRUE(twoD.endsWith("stereo3d=sbsl:arcc"));
    for (const QString& text : {anaglyphFilterText("Anaglyph Side by Side", "a"),
                                anaglyphFilterText("Anaglyph Top and Bottom", "a"), twoD}) {
        SCOPED_TRACE(text.toStdString());
        EXPECT_TRUE(configures(text, true));
    }
}

TEST(VolumeFilter, PercentBecomesALinearFactor)
{
    struct Row
    {
        int percent;
        const char* expected;
    };
    const QList<Row> rows = {
        {100, ""}, {50, "volume=0.5"}, {0, "volume=0"}, {250, "volume=2.5"}, {-20, "volume=0"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.percent);
        const VolumeFilter filter(row.percent);
        EXPECT_EQ(filter.graphText(), row.expected);
        EXPECT_EQ(filter.name(), "Volume");
        if (!filter.graphText().isEmpty()) {
            EXPECT_TRUE(configures(filter.graphText(), false));
        }
    }
}

TEST(MakeAudioFilter, KnowsVolumeOnly)
{
    const auto volume = makeAudioFilter("Volume", 80);
    ASSERT_NE(volume, nullptr);
    EXPECT_EQ(volume->graphText(), "volume=0.8");
    EXPECT_EQ(makeAudioFilter("volume", 80), nullptr);
    EXPECT_EQ(makeAudioFilter("Echo", 80), nullptr);
}
