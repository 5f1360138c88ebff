// Shared pieces of the historian suites: a fixture with a store and a reference
// historian over it that checks, after every test, that no continuation point, COM
// object, task-allocator block or BSTR is left behind.
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

struct Sample {
  ULONGLONG time;
  double value;
  DWORD quality;
};

// Every sample of a tag as the store holds it; numbers as doubles, texts as they are.
struct Stored {
  ULONGLONG time;
  DWORD quality;
  VARTYPE vt;
  double number;
  WString text;  // VT_BSTR values
  bool operator==(const Stored& o) const {
    return time == o.time && quality == o.quality && vt == o.vt && number == o.number && text == o.text;
  }
};

inline std::vector<Stored> Dump(const CHistorianStore& store, const WString& name) {
  ReadCursor all;
  all.tagKey = WUpper(name);
  all.low = 0;
  all.high = ~0ull;
  HistoryValueList* list = nullptr;
  bool more = false;
  std::vector<Stored> out;
  if (FAILED(store.ReadPage(all, 0, &list, &more))) return out;
  for (ULONG i = 0; i < list->count; ++i) {
    const HistoryValue& hv = list->values[i];
    Stored s{FileTimeToU64(hv.timestamp), hv.quality, hv.value.vt, 0, {}};
    if (hv.value.vt == VT_BSTR) {
      s.text = hv.value.bstrVal;
    } else {
      VARIANT d;
      VariantInit(&d);
      EXPECT_EQ(S_OK, VariantChangeType(&d, const_cast<VARIANT*>(&hv.value), 0, VT_R8));
      s.number = d.dblVal;
    }
    out.push_back(std::move(s));
  }
  FreeHistoryValueList(list);
  return out;
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

  // A VT_R8 tag with `count` samples: value i at kT0 + i * step, quality `quality(i)`.
  void AddSeries(const OLECHAR* name, size_t count, ULONGLONG step = kSecond, DWORD (*quality)(size_t) = nullptr) {
    TagDefinition def;
    def.name = name;
    ASSERT_EQ(S_OK, store_->AddTag(def));
    ASSERT_EQ(S_OK, store_->AppendGenerated(name, count, [&](size_t i, SampleInput& s) {
      s.time = kT0 + i * step;
      s.number = static_cast<double>(i);
      s.quality = quality ? quality(i) : 0;
    }));
  }

  static std::vector<double> ValuesOf(const std::vector<Sample>& samples) {
    std::vector<double> v;
    for (const Sample& s : samples) v.push_back(s.value);
    return v;
  }
  // Copies a list (values as doubles) and frees it.
  static std::vector<Sample> Take(HistoryValueList* list) {
    std::vector<Sample> out;
    if (!list) return out;
    for (ULONG i = 0; i < list->count; ++i) {
      VARIANT d;
      VariantInit(&d);
      double v = VariantChangeType(&d, &list->values[i].value, 0, VT_R8) == S_OK ? d.dblVal : -1;
      VariantClear(&d);
      out.push_back({FileTimeToU64(list->values[i].timestamp), v, list->values[i].quality});
    }
    FreeHistoryValueList(list);
    return out;
  }

  std::shared_ptr<CHistorianStore> store_;
  IRawDataProvider* raw_ = nullptr;
  IValuesProvider* values_ = nullptr;

 private:
  long liveBefore_ = 0;
};

}  // namespace corvane::historian::test
