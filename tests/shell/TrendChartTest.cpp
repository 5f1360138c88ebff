// The trend chart alone: samples in, lines, SVG and text out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tools/corvane-sql/TrendChart.h"

namespace corvane::shell {
namespace {

constexpr int64_t kSecond = 10000000;
constexpr int64_t kT0 = 133485408000000000;  // 2024-01-01 00:00:00 UTC

using Lines = std::vector<std::vector<CTrendChart::Point>>;

TEST(TrendChartLines, BoundedByTheWidthWhateverTheOrderAndKeepTheExtremes) {
  const size_t columns = 200;
  CTrendChart forward(columns), backward(columns);
  forward.AddSeries("wave");
  backward.AddSeries("wave");
  const int64_t count = 200000;  // one sample every 0.432 s over a day
  auto sample = [](int64_t i) { return i == 123457 ? 1000.0 : std::sin(static_cast<double>(i) / 5000.0); };
  for (int64_t i = 0; i < count; ++i) forward.Add(0, kT0 + i * 4320000, sample(i));
  for (int64_t i = count - 1; i >= 0; --i) backward.Add(0, kT0 + i * 4320000, sample(i));
  const Lines lines = forward.Lines(0);
  ASSERT_EQ(1u, lines.size());
  EXPECT_LE(lines[0].size(), 4 * columns);
  EXPECT_GE(lines[0].size(), columns) << "every column drawn";
  EXPECT_EQ(kT0, lines[0].front().time);
  EXPECT_EQ(kT0 + (count - 1) * 4320000, lines[0].back().time);
  double highest = -1;
  for (const auto& p : lines[0]) highest = std::max(highest, p.value);
  EXPECT_EQ(1000.0, highest) << "a one-sample spike survives the reduction";
  for (size_t k = 1; k < lines[0].size(); ++k) ASSERT_LE(lines[0][k - 1].time, lines[0][k].time);
  const Lines reversed = backward.Lines(0);
  ASSERT_EQ(lines[0].size(), reversed[0].size());
  for (size_t k = 0; k < lines[0].size(); ++k) EXPECT_EQ(lines[0][k].value, reversed[0][k].value) << k;
}

// A bad sample breaks the line even where its column has good ones: after the last of
// them (at 419 s) or before the first (at 700 s). A column is 20 s here.
TEST(TrendChartLines, ABadSampleBreaksTheLineWithinItsColumn) {
  CTrendChart chart(100);
  chart.AddSeries("level");
  for (int64_t i = 0; i < 1000; ++i) {
    if (i == 419 || i == 700) chart.AddGap(0, kT0 + i * kSecond);
    else chart.Add(0, kT0 + i * kSecond, static_cast<double>(i));
  }
  const Lines level = chart.Lines(0);
  ASSERT_EQ(3u, level.size());
  EXPECT_EQ(kT0 + 418 * kSecond, level[0].back().time);
  EXPECT_EQ(kT0 + 420 * kSecond, level[1].front().time);
  EXPECT_EQ(kT0 + 699 * kSecond, level[1].back().time);
  EXPECT_EQ(kT0 + 701 * kSecond, level[2].front().time);
}

TEST(TrendChartDrawings, SvgEscapesNamesAndLabelsTimeInUnitsThatFit) {
  struct Case {
    int64_t span;
    const char* label;
  } cases[] = {{10 * kSecond, ">00:00:04<"}, {2 * 3600 * kSecond, ">01:30<"}, {7 * 86400 * kSecond, ">01-0"}};
  for (const Case& c : cases) {
    CTrendChart chart(600);
    chart.AddSeries("a<b & \"c\"\x01\xFF");
    chart.Add(0, kT0, 1);
    chart.Add(0, kT0 + c.span, 2);
    const std::string svg = chart.Svg("SELECT 'x' < 1");
    EXPECT_NE(std::string::npos, svg.find(c.label)) << c.label;
    EXPECT_NE(std::string::npos, svg.find(">a&lt;b &amp; &quot;c&quot;\xEF\xBF\xBD\xEF\xBF\xBD")) << svg;
    EXPECT_NE(std::string::npos, svg.find("SELECT 'x' &lt; 1"));
    EXPECT_EQ(std::string::npos, svg.find_first_of("\x01\xFF")) << "bytes that XML refuses";
  }
}

// How wide the text fits a terminal, and its colours there, are checked by the shell tests.
TEST(TrendChartDrawings, TextIsBrailleWithLabelsAndLegend) {
  CTrendChart chart(80);  // 40 characters of plot
  chart.AddSeries("ramp");
  chart.AddSeries("flat", true);
  for (int i = 0; i < 100; ++i) chart.Add(0, kT0 + i * kSecond, i), chart.Add(1, kT0 + i * kSecond, 50);
  const std::string text = chart.Text(10, false);
  ASSERT_EQ(14, std::count(text.begin(), text.end(), '\n')) << text;  // plot, axis, labels, range, legend
  EXPECT_EQ(0u, text.find("100\xE2\x94\xA4")) << "value labels on the left: " << text;
  EXPECT_NE(std::string::npos, text.find("\xE2\x94\x81 ramp 0 \xE2\x80\xA6 99")) << text;
}

}  // namespace
}  // namespace corvane::shell
