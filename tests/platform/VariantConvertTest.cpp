// What VariantChangeType answers for each value is compared with the system's own
// conversions by the differential probe (tests/differential/probe_variant.cpp), and the
// strings of the conversions the provider makes are counted by the leak checks of the
// conversion and expression suites. What is left here is what neither can see: the ISO
// forms the layer reads beyond the system's parser, whose values the probe only lists
// as differences.
#include <gtest/gtest.h>

#include <string>

#include "platform/Platform.h"

#ifndef _WIN32
TEST(VariantDateConversion, IsoTextWithTZoneAndFractionReads) {
  const DATE jan2 = 43832;  // 2020-01-02
  const struct {
    std::u16string text;
    HRESULT hr;
    DATE date;
  } cases[] = {
      {u"2020-01-02T15:04:05Z", S_OK, jan2 + (15 * 3600 + 4 * 60 + 5) / 86400.0},
      {u"2020-01-02T15:04:05.250", S_OK, jan2 + (15 * 3600 + 4 * 60 + 5.25) / 86400.0},
      {u"2020-01-02T25:00:00", DISP_E_TYPEMISMATCH, -1},
  };
  for (auto c : cases) {
    DATE date = -1;
    EXPECT_EQ(VarDateFromStr(c.text.data(), 0x0409, 0, &date), c.hr);
    EXPECT_NEAR(date, c.date, 1e-9);
  }
}
#endif
