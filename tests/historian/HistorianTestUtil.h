// Shared pieces of the historian suites: a fixture with a store and a reference historian over it that checks, after
// every test, that no continuation point, COM object, task-allocator block or BSTR is left behind.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "historian/ReferenceHistorian.h"
#include "tests/support/LeakCheckedTest.h"

namespace corvane::historian::test {

constexpr ULONGLONG kSecond = 10000000ull;
constexpr ULONGLONG kT0 = 133485408000000000ull;  // 2024-01-01 00:00:00 UTC

inline FILETIME Ft(ULONGLONG t) { return U64ToFileTime(t); }

// A TagIdent over string literals: the historian only reads it.
inline TagIdent Ident(const OLECHAR* name) {
  static OLECHAR catalog[] = {'c', 'a', 't', 0};
  static OLECHAR schema[] = {'s', 'c', 'h', 0};
  return TagIdent{catalog, schema, const_cast<LPOLESTR>(name)};
}

// A sample as read back: numbers as doubles (-1 when not one), texts as they are.
struct Sample {
  ULONGLONG time;
  DWORD quality;
  VARTYPE vt;
  double value;
  WString text;  // VT_BSTR values
  bool operator==(const Sample& o) const {
    return time == o.time && quality == o.quality && vt == o.vt && value == o.value && text == o.text;
  }
};

// Copies a list and frees it.
inline std::vector<Sample> Take(HistoryValueList* list) {
  std::vector<Sample> out;
  for (ULONG i = 0; list && i < list->count; ++i) {
    const HistoryValue& hv = list->values[i];
    VARIANT d{};
    const double v = VariantChangeType(&d, const_cast<VARIANT*>(&hv.value), 0, VT_R8) == S_OK ? d.dblVal : -1;
    out.push_back({FileTimeToU64(hv.timestamp), hv.quality, hv.value.vt, v,
                   hv.value.vt == VT_BSTR ? WString(hv.value.bstrVal) : WString()});
  }
  FreeHistoryValueList(list);
  return out;
}

// Every sample of a tag as the store holds it.
inline std::vector<Sample> Dump(const CHistorianStore& store, const WString& name) {
  ReadCursor all;
  all.tagKey = WUpper(name);
  all.low = 0;
  all.high = ~0ull;
  HistoryValueList* list = nullptr;
  bool more = false;
  EXPECT_EQ(S_OK, store.ReadPage(all, 0, &list, &more));
  return Take(list);
}

class HistorianFixture : public ::corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    liveBefore_ = CReferenceHistorian::LiveObjects();
    store_ = std::make_shared<CHistorianStore>();
    ASSERT_EQ(S_OK, CReferenceHistorian::Create(store_, IID_IRawDataProvider, reinterpret_cast<void**>(&raw_)));
    ASSERT_EQ(S_OK, raw_->QueryInterface(IID_IValuesProvider, reinterpret_cast<void**>(&values_)));
  }
  void TearDown() override {
    EXPECT_EQ(0u, store_->OutstandingCursors()) << "continuation points left over";
    if (values_) values_->Release();
    if (raw_) raw_->Release();
    store_.reset();
    EXPECT_EQ(liveBefore_, CReferenceHistorian::LiveObjects()) << "historian objects left over";
    LeakCheckedTest::TearDown();
  }

  // A good VT_R8 tag with `count` samples: value i at kT0 + i seconds.
  void AddSeries(const OLECHAR* name, size_t count) {
    TagDefinition def;
    def.name = name;
    ASSERT_EQ(S_OK, store_->AddTag(def));
    ASSERT_EQ(S_OK, store_->AppendGenerated(name, count, [&](size_t i, SampleInput& s) {
      s.time = kT0 + i * kSecond;
      s.number = static_cast<double>(i);
    }));
  }

  static std::vector<double> ValuesOf(const std::vector<Sample>& samples) {
    std::vector<double> v;
    for (const Sample& s : samples) v.push_back(s.value);
    return v;
  }
  std::shared_ptr<CHistorianStore> store_;
  IRawDataProvider* raw_ = nullptr;
  IValuesProvider* values_ = nullptr;

 private:
  long liveBefore_ = 0;
};

}  // namespace corvane::historian::test
