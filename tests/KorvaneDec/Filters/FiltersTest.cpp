// The colour and audio filter mappings, and that libavfilter accepts every
// text they produce.
#include "KorvaneDec/Filters/IAudioFilter.h"
#include "KorvaneDec/Filters/VideoFilterMapping.h"

#include "KvAVGlue/KvAVGlue.h"

#include <gtest/gtest.h>

#include <QList>

#include <tuple>

extern "C" {
#include <libavfilter/avfilter.h>
}

using namespace Korvane;

namespace {

// Configures "source -> chain -> sink", where libavfilter rejects bad options or ranges.
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
    // name, value, filter (empty: none); the last two names are not controls
    const QList<std::tuple<QString, int, QString>> colour = {
        {"Brightness", 40, "eq=brightness=0.2"},
        {"Contrast", 50, "eq=contrast=1.5"},
        {"Saturation", -100, "eq=saturation=0"},
        {"Sharpen", -20, "unsharp=5:5:-0.3"},
        {"Shadow", 100, "curves=all='0/0 0.25/0.4 1/1'"},
        {"HighLight", -100, "curves=all='0/0 0.75/0.6 1/1'"},
        {"ColorTemperature", -100, "colortemperature=temperature=10000"},
        {"ColorHue", 250, "hue=h=180"}, // clamped to 100
        {"Brightness", 0, ""},
        {"brightness", 40, ""},
        {"Vignette", 40, ""},
    };
    for (const auto& [name, value, expected] : colour) {
        SCOPED_TRACE(QString("%1 %2").arg(name).arg(value).toStdString());
        EXPECT_EQ(colourFilterText(name, value), expected);
        EXPECT_EQ(isColourFilterName(name), name != "brightness" && name != "Vignette");
        // Both extremes of every control configure.
        EXPECT_TRUE(expected.isEmpty() || (configures(colourFilterText(name, -100), true) &&
                                           configures(colourFilterText(name, 100), true)));
    }
    EXPECT_TRUE(configures(anaglyphFilterText("Anaglyph", "p0"), true));
    EXPECT_EQ(anaglyphFilterText("Anaglyph Top and Bottom", "a"), "stereo3d=abl:arcc");
    // Volume in percent becomes a linear factor; only "Volume" is a sound filter.
    const QList<QPair<int, QString>> volume = {{100, ""}, {50, "volume=0.5"}, {-20, "volume=0"}};
    for (const auto& [percent, expected] : volume) {
        const auto filter = makeAudioFilter("Volume", percent);
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->graphText(), expected);
        EXPECT_TRUE(expected.isEmpty() || configures(expected, false));
    }
    EXPECT_EQ(makeAudioFilter("volume", 80), nullptr);
    EXPECT_EQ(makeAudioFilter("Echo", 80), nullptr);
}
