#include "TranscoderFFmpeg/FFmpegProgress.h"

#include <QStringList>
#include <QtGlobal>

#include <gtest/gtest.h>

using namespace Korvane;

namespace {

// Debug messages seen while a case runs, so that "unexpected: " can be checked.
QStringList gMessages;

void collectMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    gMessages.append(text);
}

struct LineCase
{
    const char* name;
    QString line;
    qint64 durationMs;
    float progress;
    bool end;
    bool loggedUnexpected;
};

class ProgressLine : public ::testing::TestWithParam<LineCase>
{
protected:
    void SetUp() override
    {
        gMessages.clear();
        mPrevious = qInstallMessageHandler(collectMessage);
    }
    void TearDown() override { qInstallMessageHandler(mPrevious); }

private:
    QtMessageHandler mPrevious = nullptr;
};

TEST_P(ProgressLine, ParsesAndRecognisesTheEnd)
{
    const LineCase& c = GetParam();
    EXPECT_FLOAT_EQ(parseProgressLine(c.line, c.durationMs), c.progress);
    EXPECT_EQ(isProgressEnd(c.line), c.end);
    const bool logged = !gMessages.filter(QStringLiteral("unexpected: ")).isEmpty();
    EXPECT_EQ(logged, c.loggedUnexpected) << gMessages.join('\n').toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ProgressLine,
    ::testing::Values(
        LineCase{"End", "progress=end", 10000, 1.0f, true, false},
        LineCase{"EndWithoutDuration", "progress=end", 0, 1.0f, true, false},
        LineCase{"Continue", "progress=continue", 10000, -1.0f, false, false},
        LineCase{"HalfWay", "out_time_us=5000000", 10000, 0.5f, false, false},
        LineCase{"ZeroDuration", "out_time_us=5000000", 0, -1.0f, false, false},
        LineCase{"NegativeDuration", "out_time_us=5000000", -40, -1.0f, false, false},
        LineCase{"OneMillisecond", "out_time_us=1000", 1, 1.0f, false, false},
        LineCase{"NotANumber", "out_time_us=N/A", 10000, 0.0f, false, false},
        LineCase{"PastTheEndNotClamped", "out_time_us=12500000", 10000, 1.25f, false, false},
        LineCase{"NegativeTime", "out_time_us=-64000", 1000, -0.064f, false, false},
        LineCase{"Fractional", "out_time_us=333333", 1000, 0.333333f, false, false},
        LineCase{"SurroundingBlanksAndBreak", "  out_time_us=2500000 \r\n", 10000, 0.25f, false,
                 false},
        LineCase{"EndWithBreak", "progress=end\n", 10000, 1.0f, true, false},
        LineCase{"BlankInsideKey", "progress =end", 10000, -1.0f, false, false},
        LineCase{"OtherKeyFrame", "frame=240", 10000, -1.0f, false, false},
        LineCase{"OtherKeyOutTime", "out_time=00:00:05.000000", 10000, -1.0f, false, false},
        LineCase{"OtherKeyOutTimeMs", "out_time_ms=5000000", 10000, -1.0f, false, false},
        LineCase{"OtherKeySpeed", "speed=2.01x", 10000, -1.0f, false, false},
        LineCase{"UpperCaseKey", "OUT_TIME_US=5000000", 10000, -1.0f, false, false},
        LineCase{"UpperCaseEnd", "PROGRESS=END", 10000, -1.0f, false, false},
        LineCase{"EmptyValue", "out_time_us=", 10000, 0.0f, false, false},
        LineCase{"EmptyKeyEndValue", "=end", 10000, -1.0f, false, false},
        LineCase{"TwoEqualsSigns", "out_time_us=5000000=1", 10000, -1.0f, false, true},
        LineCase{"TwoEqualsSignsEnd", "progress=end=", 10000, -1.0f, false, true},
        LineCase{"NoEqualsSign", "progress", 10000, -1.0f, false, true},
        LineCase{"EmptyLine", "", 10000, -1.0f, false, true},
        LineCase{"OnlyBreak", "\n", 10000, -1.0f, false, true}),
    [](const ::testing::TestParamInfo<LineCase>& info) { return std::string(info.param.name); });

TEST(ProgressLine, LongSourcesStayWithinFloatPrecision)
{
    // Ten hours of source: the microsecond count no longer fits a float exactly.
    const qint64 durationMs = 36000000;
    EXPECT_NEAR(parseProgressLine("out_time_us=18000000000", durationMs), 0.5, 1e-6);
    EXPECT_NEAR(parseProgressLine("out_time_us=35999999000", durationMs), 1.0, 1e-6);
}

} // namespace
