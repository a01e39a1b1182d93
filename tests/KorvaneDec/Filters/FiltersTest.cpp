// The colour and audio filter mappings, and that libavfilter accepts every
// text they produce.
#include "Filters/IAudioFilter.h"
#include "Filters/VideoFilterMapping.h"

#include "KvAVGlue/KvAVGlue.h"

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
    const QString text = (video ? "color=size=64x48:duration=0.1,format=yuv420p,%1,nullsink"
                                : "sine=duration=0.1,%1,anullsink");
    AVFilterInOut* in = nullptr;
    AVFilterInOut* out = nullptr;
    int ret = avfilter_graph_parse2(graph.data(), text.arg(chain).toUtf8().constData(), &in, &out);
    avfilter_inout_free(&in);
    avfilter_inout_free(&out);
    return ret >= 0 && avfilter_graph_config(graph.data(), nullptr) >= 0;
}

} // namespace

TEST(Filters, EachControlMapsOntoAFilterThatLibavfilterTakes)
{
    struct Row
    {
        const char* name;
        int value;
        QString expected; // empty: no filter
    };
    const Row rows[] = {
        {"Brightness", 40, "eq=brightness=0.2"},
        {"Brightness", -100, "eq=brightness=-0.5"},
        {"Contrast", 50, "eq=contrast=1.5"},
        {"Saturation", -100, "eq=saturation=0"},
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
        SCOPED_TRACE(QString("%1 %2").arg(row.name).arg(row.value).toStdString());
        EXPECT_EQ(colourFilterText(row.name, row.value), row.expected);
        EXPECT_EQ(isColourFilterName(row.name),
                  QString(row.name) != "brightness" && QString(row.name) != "Vignette");
        // Every control's extremes configure.
        EXPECT_TRUE(row.expected.isEmpty() ||
                    configures(colourFilterText(row.name, row.value < 0 ? -100 : 100), true));
    }
    const QString twoD = anaglyphFilterText("Anaglyph", "p0");
    EXPECT_TRUE(twoD.startsWith("split[p0l][p0r]") && twoD.endsWith("stereo3d=sbsl:arcc"));
    EXPECT_TRUE(configures(twoD, true));
    EXPECT_EQ(anaglyphFilterText("Anaglyph Side by Side", "a"), "stereo3d=sbsl:arcc");
    EXPECT_EQ(anaglyphFilterText("Anaglyph Top and Bottom", "a"), "stereo3d=abl:arcc");
    EXPECT_TRUE(configures("stereo3d=abl:arcc", true));
}

TEST(Filters, VolumePercentBecomesALinearFactor)
{
    struct Row
    {
        int percent;
        QString expected;
    };
    for (const Row& row : {Row{100, ""}, Row{50, "volume=0.5"}, Row{0, "volume=0"},
                           Row{250, "volume=2.5"}, Row{-20, "volume=0"}}) {
        SCOPED_TRACE(row.percent);
        const auto filter = makeAudioFilter("Volume", row.percent);
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->graphText(), row.expected);
        EXPECT_TRUE(row.expected.isEmpty() || configures(row.expected, false));
    }
    EXPECT_EQ(makeAudioFilter("volume", 80), nullptr);
    EXPECT_EQ(makeAudioFilter("Echo", 80), nullptr);
}
