#include <set>

#include "historian/DemoPlant.h"
#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

using DemoPlant = HistorianFixture;

// 2024-01-01 00:00:00 UTC plus 12345.6 s: not on any sample period.
const ULONGLONG kNow = kT0 + 123456 * kSecond / 10;

TEST_F(DemoPlant, SameSeedGivesTheSameHistory) {
  DemoPlantOptions options;
  options.now = kNow;
  options.seed = 7;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(*store_, options));
  CHistorianStore again, other;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(again, options));
  options.seed = 8;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(other, options));
  size_t differing = 0;
  for (const auto& tag : CDemoPlant::Tags()) {
    std::vector<Sample> a = Dump(*store_, tag.definition.name);
    EXPECT_FALSE(a.empty());
    EXPECT_TRUE(a == Dump(again, tag.definition.name)) << ToUtf8(tag.definition.name);
    if (!(a == Dump(other, tag.definition.name))) ++differing;
  }
  // Only the shift roster does not depend on the seed.
  EXPECT_GE(differing, CDemoPlant::Tags().size() - 1);
  EXPECT_EQ(static_cast<HRESULT>(0x800700B7L), CDemoPlant::Populate(again, options));
}

TEST_F(DemoPlant, CoversTypesQualitiesGapsAndTheLastWeek) {
  DemoPlantOptions options;
  options.now = kNow;
  options.seed = 42;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(*store_, options));
  const auto& tags = CDemoPlant::Tags();
  EXPECT_GE(tags.size(), 20u);
  EXPECT_EQ(tags.size(), store_->TagCount());

  std::set<VARTYPE> types;
  bool uncertain = false, bad = false, gap = false;
  const ULONGLONG week = 7 * 86400 * kSecond;
  for (const auto& tag : tags) {
    types.insert(tag.definition.vartype);
    const ULONGLONG period = tag.periodSeconds * kSecond;
    std::vector<Sample> points = Dump(*store_, tag.definition.name);
    ASSERT_FALSE(points.empty());
    EXPECT_GE(points.front().time, kNow - week) << ToUtf8(tag.definition.name);
    EXPECT_LE(points.back().time, kNow);
    EXPECT_GT(points.back().time, kNow - period);
    for (size_t i = 0; i < points.size(); ++i) {
      EXPECT_EQ(tag.definition.vartype, points[i].vt);
      uncertain |= (points[i].quality >> 30) == 1;
      bad |= (points[i].quality >> 30) == 2;
      if (i) gap |= points[i].time - points[i - 1].time >= 3600 * kSecond;
    }
    if (tag.definition.name == OLESTR("Reactor1.Temperature")) {
      // Multiples of 10 s in [now - 604800 s, now], neither end on one: 60480 of them.
      EXPECT_EQ(60480u, points.size());
    }
  }
  EXPECT_EQ((std::set<VARTYPE>{VT_R8, VT_R4, VT_I1, VT_I2, VT_I4, VT_I8, VT_UI1, VT_UI2, VT_UI4, VT_UI8, VT_BOOL,
                               VT_BSTR}),
            types);
  EXPECT_TRUE(uncertain);
  EXPECT_TRUE(bad);
  EXPECT_TRUE(gap);

  // The ready-made host lists the same tags through the browse.
  IRawDataProvider* host = nullptr;
  ASSERT_EQ(S_OK, CDemoPlant::CreateHost(options, IID_IRawDataProvider, reinterpret_cast<void**>(&host)));
  ULONG count = 0;
  TagRecord* records = nullptr;
  BOOL truncated = TRUE;
  ASSERT_EQ(S_OK, host->BrowseTags(nullptr, nullptr, &count, &records, &truncated));
  EXPECT_EQ(tags.size(), count);
  EXPECT_EQ(tags[0].definition.name, WString(records[0].name));
  FreeTagRecords(records, count);
  host->Release();
}

}  // namespace
}  // namespace corvane::historian::test
