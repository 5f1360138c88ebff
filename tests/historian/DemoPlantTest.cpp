#include <set>

#include "historian/DemoPlant.h"
#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

using DemoPlant = HistorianFixture;

// A seeded week of every type and quality with gaps, the same for the same seed.
TEST_F(DemoPlant, SeededWeekOfEveryTypeQualityAndGaps) {
  DemoPlantOptions options;
  options.now = kT0 + 123456 * kSecond / 10;  // not on any sample period
  options.seed = 7;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(*store_, options));
  CHistorianStore again, other;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(again, options));
  EXPECT_EQ(static_cast<HRESULT>(0x800700B7L), CDemoPlant::Populate(again, options));
  options.seed = 8;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(other, options));
  const auto& tags = CDemoPlant::Tags();
  EXPECT_EQ(tags.size(), store_->TagCount());
  size_t differing = 0;
  std::set<VARTYPE> types;
  bool uncertain = false, bad = false, gap = false;
  for (const auto& tag : tags) {
    const std::vector<Sample> points = Dump(*store_, tag.definition.name);
    ASSERT_FALSE(points.empty());
    EXPECT_TRUE(points == Dump(again, tag.definition.name)) << ToUtf8(tag.definition.name);
    differing += !(points == Dump(other, tag.definition.name));
    types.insert(tag.definition.vartype);
    EXPECT_GE(points.front().time, options.now - 7 * 86400 * kSecond) << ToUtf8(tag.definition.name);
    EXPECT_LE(points.back().time, options.now);
    EXPECT_GT(points.back().time, options.now - tag.periodSeconds * kSecond);
    for (size_t i = 0; i < points.size(); ++i) {
      EXPECT_EQ(tag.definition.vartype, points[i].vt);
      uncertain |= (points[i].quality >> 30) == 1;
      bad |= (points[i].quality >> 30) == 2;
      if (i) gap |= points[i].time - points[i - 1].time >= 3600 * kSecond;
    }
  }
  EXPECT_GE(differing, tags.size() - 1) << "only the shift roster does not depend on the seed";
  EXPECT_EQ((std::set<VARTYPE>{VT_R8, VT_R4, VT_I1, VT_I2, VT_I4, VT_I8, VT_UI1, VT_UI2, VT_UI4, VT_UI8, VT_BOOL,
                               VT_BSTR}),
            types);
  EXPECT_TRUE(uncertain && bad && gap);
}

}  // namespace
}  // namespace corvane::historian::test
