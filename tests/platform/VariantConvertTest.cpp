// What VariantChangeType answers for each value is compared with the system's own
// conversions by the differential probe (tests/differential/probe_variant.cpp), and the
// strings of the conversions the provider makes are counted by the leak checks of the
// conversion and expression suites. What is left here is what neither can see: the ISO
// forms the layer reads beyond the system's parser.
#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "platform/WideString.h"

#ifndef _WIN32
namespace {

const LCID kEnUs = 0x0409;

struct Var : VARIANT {
  Var() { VariantInit(this); }
  ~Var() { VariantClear(this); }
  Var(Var&& other) noexcept : VARIANT(other) { other.vt = VT_EMPTY; }
  Var(const Var&) = delete;
};

Var Text(const char* s) {
  Var v;
  v.vt = VT_BSTR;
  corvane::WString w = corvane::FromUtf8(s);
  v.bstrVal = SysAllocStringLen(w.data(), static_cast<UINT>(w.size()));
  return v;
}

HRESULT Convert(VARIANT& src, VARTYPE vt, Var& out) { return VariantChangeTypeEx(&out, &src, kEnUs, 0, vt); }

DATE DateOf(const char* text, HRESULT expected = S_OK) {
  Var v = Text(text);
  Var out;
  EXPECT_EQ(Convert(v, VT_DATE, out), expected) << text;
  return out.vt == VT_DATE ? out.date : -1e9;
}

TEST(VariantDateConversion, IsoTextWithTZoneAndFractionReads) {
  const DATE jan2 = 43832;  // 2020-01-02
  EXPECT_NEAR(DateOf("2020-01-02T15:04:05Z"), jan2 + (15 * 3600 + 4 * 60 + 5) / 86400.0, 1e-9);
  EXPECT_NEAR(DateOf("2020-01-02T15:04:05.250"), jan2 + (15 * 3600 + 4 * 60 + 5.25) / 86400.0, 1e-9);
  DateOf("2020-01-02T25:00:00", DISP_E_TYPEMISMATCH);
}

}  // namespace
#endif
