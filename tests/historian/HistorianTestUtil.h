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

// A stand-in aggregates component: its processed provider holds the raw provider it was
// built on, as a real one does, and answers every read with a recognisable code.
class FakeProcessed final : public IProcessedDataProvider {
 public:
  explicit FakeProcessed(IRawDataProvider* raw) : raw_(raw) { raw_->AddRef(); }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** p) override {
    if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IProcessedDataProvider)) return E_NOINTERFACE;
    *p = this;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --refs_;
    if (!left) {
      raw_->Release();
      delete this;
    }
    return left;
  }
  HRESULT STDMETHODCALLTYPE ReadProcessed(const TagIdent* tag, const ProcessedReadRequest*, ULONG, const AggregateId*,
                                          ProcessedResult**) override {
    VARTYPE vt;  // reaches the store through the raw provider it was given
    return raw_->GetTagInfo(tag, &vt) == HIST_E_TAG_NOT_FOUND ? HIST_E_AGGREGATE_NOT_AVAILABLE : E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetFilteredTagStatistics(LPCOLESTR, LPCOLESTR, LPCOLESTR, FILETIME, FILETIME,
                                                     const ProcessedReadRequest*, ULONG, void**, DWORD, ULONG*,
                                                     BSTR**, HistoryValueList**) override {
    return E_NOTIMPL;
  }

 private:
  std::atomic<ULONG> refs_{1};
  IRawDataProvider* raw_;
};

class FakeAggregates final : public IAggregates {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateProcessedDataProvider(IRawDataProvider* raw, IProcessedDataProvider** out) override {
    if (!raw || !out) return E_INVALIDARG;
    *out = new FakeProcessed(raw);
    return S_OK;
  }
};

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
