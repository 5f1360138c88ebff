// The aggregates component over a small in-test raw provider whose samples each test
// states; every expected number is worked out by hand in the comment beside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "historian/Aggregates.h"
#include "historian/ProcessedDataProvider.h"
#include "platform/WideString.h"
#include "tests/historian/HistorianTestUtil.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/Registration.h"

namespace corvane::historian {
namespace {

constexpr ULONGLONG kT0 = 133485408000000000ull;  // 2024-01-01 00:00:00 UTC
constexpr ULONGLONG kSec = 10000000ull;
ULONGLONG T(double seconds) { return kT0 + static_cast<LONGLONG>(std::llround(seconds * kSec)); }

constexpr DWORD kBadQ = 0x80000000u;
constexpr DWORD kUncertainQ = 0x40000000u;
// Status words as documented: severity | data-value info | origin (| partial).
constexpr DWORD kGoodCalc = 0x401, kUncertainCalc = 0x40A40401, kBadCalc = 0x80000401;
constexpr DWORD kGoodRaw = 0x400, kUncertainRaw = 0x40A40400, kGoodInterp = 0x402, kUncertainInterp = 0x40A40402;

// A raw provider holding a few tags in memory, with pages of at most `pageLimit`
// samples, live continuation points counted, and an optional failing read.
class FakeRaw final : public IRawDataProvider {
 public:
  struct S {
    ULONGLONG t;
    double number;
    WString text;
    DWORD q;
  };
  struct Tag {
    WString name;
    VARTYPE vt;
    bool stepped;
    bool browsable;
    std::vector<S> samples;
  };
  struct Cursor {
    std::vector<size_t> order;
    size_t next = 0;
  };

  void AddTag(const OLECHAR* name, VARTYPE vt, bool stepped, bool browsable = true) {
    tags.push_back(Tag{name, vt, stepped, browsable, {}});
  }
  void Add(double sec, double v, DWORD q = 0) { tags.back().samples.push_back(S{T(sec), v, {}, q}); }
  void AddText(double sec, const OLECHAR* text, DWORD q = 0) { tags.back().samples.push_back(S{T(sec), 0, text, q}); }

  Tag* Find(LPCOLESTR name) {
    for (Tag& t : tags)
      if (name && WIEquals(t.name, name)) return &t;
    return nullptr;
  }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    *ppv = nullptr;
    if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IRawDataProvider)) return E_NOINTERFACE;
    *ppv = this;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives on the test's stack

  HRESULT STDMETHODCALLTYPE GetTagInfo(const TagIdent* tag, VARTYPE* vt) override {
    const Tag* t = Find(tag->tagName);
    if (!t) return HIST_E_TAG_NOT_FOUND;
    *vt = t->vt;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTimeBounds(const TagIdent*, FILETIME*, FILETIME*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE BrowseTags(LPCOLESTR nameFilter, LPCOLESTR, ULONG* count, TagRecord** records,
                                       BOOL* truncated) override {
    std::vector<const Tag*> hits;
    for (const Tag& t : tags)
      if (t.browsable && TagFilterMatches(nameFilter, t.name.c_str())) hits.push_back(&t);
    *records = static_cast<TagRecord*>(CoTaskMemAlloc(sizeof(TagRecord) * (hits.size() + 1)));
    for (size_t i = 0; i < hits.size(); ++i) {
      const size_t bytes = (hits[i]->name.size() + 1) * sizeof(OLECHAR);
      (*records)[i].name = static_cast<LPOLESTR>(CoTaskMemAlloc(bytes));
      std::memcpy((*records)[i].name, hits[i]->name.c_str(), bytes);
      (*records)[i].description = nullptr;
      (*records)[i].vartype = hits[i]->vt;
      (*records)[i].stepped = hits[i]->stepped;
      (*records)[i].accessRights = kTagAccessRead;
    }
    *count = static_cast<ULONG>(hits.size());
    *truncated = FALSE;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetCapabilities(const TagIdent*, DWORD* c) override {
    *c = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues, DWORD,
                                    void** cp, HistoryValueList** values) override {
    *values = nullptr;
    if (++readCalls == failReadCall) return E_FAIL;
    Tag* t = Find(tag->tagName);
    if (!t) return HIST_E_TAG_NOT_FOUND;
    Cursor* c = static_cast<Cursor*>(*cp);
    if (c && !live.count(c)) return E_INVALIDARG;
    if (!c) {
      c = new Cursor;
      const ULONGLONG a = FileTimeToU64(start), b = FileTimeToU64(end);
      for (size_t i = 0; i < t->samples.size(); ++i)
        if (t->samples[i].t >= std::min(a, b) && t->samples[i].t <= std::max(a, b)) c->order.push_back(i);
      if (a > b) std::reverse(c->order.begin(), c->order.end());
      live.insert(c);
    }
    ULONG page = maxValues;
    if (pageLimit && (page == 0 || page > pageLimit)) page = pageLimit;
    const size_t n = std::min<size_t>(page ? page : c->order.size(), c->order.size() - c->next);
    *values = static_cast<HistoryValueList*>(CoTaskMemAlloc(sizeof(HistoryValueList)));
    (*values)->count = static_cast<ULONG>(n);
    (*values)->values = static_cast<HistoryValue*>(CoTaskMemAlloc(sizeof(HistoryValue) * (n + 1)));
    for (size_t i = 0; i < n; ++i) {
      const S& s = t->samples[c->order[c->next + i]];
      HistoryValue& out = (*values)->values[i];
      VariantInit(&out.value);
      out.value.vt = s.text.empty() ? t->vt : VARTYPE(VT_BSTR);
      if (!s.text.empty()) out.value.bstrVal = SysAllocString(s.text.c_str());
      if (out.value.vt == VT_R8) out.value.dblVal = s.number;
      if (out.value.vt == VT_I4) out.value.lVal = static_cast<LONG>(s.number);
      if (out.value.vt == VT_BOOL) out.value.boolVal = s.number != 0 ? VARIANT_TRUE : VARIANT_FALSE;
      out.timestamp = U64ToFileTime(s.t);
      out.quality = s.q;
    }
    c->next += n;
    if (c->next < c->order.size()) {
      *cp = c;
    } else {
      live.erase(c);
      delete c;
      *cp = nullptr;
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ReleaseContinuationPoint(void** cp) override {
    Cursor* c = static_cast<Cursor*>(*cp);
    *cp = nullptr;
    if (!live.erase(c)) return E_INVALIDARG;  // refused, never dereferenced
    delete c;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE InsertValue(const TagIdent*, const HistoryValue*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE DeleteValues(const TagIdent*, FILETIME, FILETIME) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE UpdateValue(const TagIdent*, const HistoryValue*) override { return E_NOTIMPL; }

  std::vector<Tag> tags;
  std::set<void*> live;
  ULONG pageLimit = 2;  // small pages by default so every read really pages
  int readCalls = 0;
  int failReadCall = 0;
  ULONG refs = 1;
};

// The tags of the suites. "Flow" is sloped; "FlowStep" has the same samples, stepped.
void AddPlant(FakeRaw& raw) {
  struct Sample {
    double sec, value;
    DWORD q;
  };
  auto add = [&raw](std::initializer_list<Sample> samples) {
    for (const Sample& s : samples) raw.Add(s.sec, s.value, s.q);
  };
  for (const OLECHAR* name : {OLESTR("Flow"), OLESTR("FlowStep")}) {
    raw.AddTag(name, VT_R8, name[4] != 0);
    add({{-10, 0, 0}, {0, 10, 0}, {20, 30, 0}, {40, 10, 0}, {50, 20, kBadQ}, {60, 40, 0}, {130, 40, 0}});
  }
  raw.AddTag(OLESTR("Pump"), VT_BOOL, true);
  add({{-20, 1, 0}, {10, 0, 0}, {30, 1, 0}, {60, 1, 0}, {70, 0, kBadQ}, {80, 0, 0}});
  raw.AddTag(OLESTR("Level"), VT_R8, false);
  add({{0, 10, 0}, {10, 20, kUncertainQ}, {20, 30, 0}, {30, 40, kUncertainQ}});
  raw.AddTag(OLESTR("Late"), VT_I4, false);
  add({{50, 5, 0}});
  raw.AddTag(OLESTR("Mode"), VT_BSTR, true);
  raw.AddText(0, OLESTR("A"));
  raw.AddText(10, OLESTR("B"));
  // Not listed by the browse: interpolation follows the value type.
  raw.AddTag(OLESTR("HiddenReal"), VT_R8, true, false);
  add({{0, 0, 0}, {10, 10, 0}});
  raw.AddTag(OLESTR("HiddenBool"), VT_BOOL, false, false);
  add({{0, 0, 0}, {10, 1, 0}});
}

struct Answer {
  HRESULT hr = E_FAIL;
  ProcessedResult* result = nullptr;
  ULONG entries = 0;
  ~Answer() { FreeProcessedResult(result, entries); }
  const HistoryValue& At(ULONG aggregate, ULONG interval) const { return result[aggregate].values[interval]; }
};

class AggregatesTest : public corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    objectsBefore_ = AggregatesObjectCount();
    AddPlant(raw_);
    ASSERT_EQ(S_OK, CProcessedDataProvider::Create(&raw_, &processed_));
    request_ = ProcessedReadRequest{};
    request_.treatUncertainAsGood = 1;
  }
  void TearDown() override {
    if (processed_) processed_->Release();
    EXPECT_EQ(1u, raw_.refs) << "the processed provider must let go of the raw one";
    EXPECT_TRUE(raw_.live.empty()) << "raw continuation points left pending";
    EXPECT_EQ(objectsBefore_, AggregatesObjectCount());
    LeakCheckedTest::TearDown();
  }
  void Read(Answer& a, const OLECHAR* tag, double fromSec, double toSec, double periodMs,
            std::vector<AggregateId> ids) {
    OLECHAR cat[] = OLESTR("c"), sch[] = OLESTR("s");
    WString name(tag);
    TagIdent ident{cat, sch, &name[0]};
    request_.start = U64ToFileTime(T(fromSec));
    request_.end = U64ToFileTime(T(toSec));
    request_.periodMs = periodMs;
    a.entries = static_cast<ULONG>(ids.size());
    a.hr = processed_->ReadProcessed(&ident, &request_, a.entries, ids.data(), &a.result);
  }

  FakeRaw raw_;
  IProcessedDataProvider* processed_ = nullptr;
  ProcessedReadRequest request_{};
  long objectsBefore_ = 0;
};

void ExpectR8(const HistoryValue& v, double expected, DWORD status, double atSec) {
  ASSERT_EQ(VT_R8, v.value.vt);
  EXPECT_NEAR(expected, v.value.dblVal, 1e-9);
  EXPECT_EQ(status, v.quality) << std::hex << v.quality;
  EXPECT_EQ(T(atSec), FileTimeToU64(v.timestamp));
}
void ExpectNoData(const HistoryValue& v, double atSec) {
  EXPECT_EQ(VT_EMPTY, v.value.vt);
  EXPECT_EQ(OPCUA_BAD_NO_DATA, v.quality) << std::hex << v.quality;
  EXPECT_EQ(T(atSec), FileTimeToU64(v.timestamp));
}

// ---- Intervals and arguments ---------------------------------------------------------------

TEST_F(AggregatesTest, IntervalsFollowThePeriodAndMarkTheShortLastOne) {
  Answer a;  // [0, 100) by 30 s: 0, 30, 60 full, [90, 100) partial
  Read(a, OLESTR("Flow"), 0, 100, 30000, {AGG_DURATION_GOOD});
  ASSERT_EQ(S_OK, a.hr);
  ASSERT_EQ(4u, a.result[0].count);
  ExpectR8(a.At(0, 0), 30000, kGoodCalc, 0);
  ExpectR8(a.At(0, 1), 20000, kGoodCalc, 30);  // [50, 60) is governed by the bad sample
  ExpectR8(a.At(0, 3), 10000, kGoodCalc | 0x4, 90);

  Answer whole;
  Read(whole, OLESTR("Flow"), 0, 100, 0, {AGG_COUNT, AGG_DURATION_BAD});
  ASSERT_EQ(S_OK, whole.hr);
  ASSERT_EQ(1u, whole.result[1].count);
  EXPECT_EQ(4, whole.At(0, 0).value.lVal);  // good samples at 0, 20, 40, 60
  ExpectR8(whole.At(1, 0), 10000, kGoodCalc, 0);

  Answer empty;
  Read(empty, OLESTR("Flow"), 10, 10, 1000, {AGG_MIN, AGG_MAX});
  ASSERT_EQ(S_OK, empty.hr);
  EXPECT_EQ(0u, empty.result[0].count);
  EXPECT_EQ(0u, empty.result[1].count);
}

TEST_F(AggregatesTest, BadArgumentsAreRefusedWithTheirCodes) {
  Answer reversed, unknownId, unknownTag, noIds, tinyPeriod;
  Read(reversed, OLESTR("Flow"), 10, 0, 1000, {AGG_MIN});
  EXPECT_EQ(E_INVALIDARG, reversed.hr);
  Read(unknownId, OLESTR("Flow"), 0, 10, 1000, {AGG_MIN, 19});
  EXPECT_EQ(HIST_E_AGGREGATE_NOT_AVAILABLE, unknownId.hr);
  Read(unknownTag, OLESTR("Nope"), 0, 10, 1000, {AGG_MIN});
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, unknownTag.hr);
  Read(noIds, OLESTR("Flow"), 0, 10, 1000, {});
  EXPECT_EQ(E_INVALIDARG, noIds.hr);
  Read(tinyPeriod, OLESTR("Flow"), 0, 10, 0.00001, {AGG_MIN});
  EXPECT_EQ(E_INVALIDARG, tinyPeriod.hr);
  for (const Answer* a : {&reversed, &unknownId, &unknownTag, &noIds, &tinyPeriod}) EXPECT_EQ(nullptr, a->result);
}

TEST_F(AggregatesTest, FailingRawReadsReleaseTheirContinuationPoints) {
  for (int failAt : {1, 2, 3, 5}) {  // backward bound, main read first and later page, forward bound
    raw_.readCalls = 0;
    raw_.failReadCall = failAt;
    Answer a;
    Read(a, OLESTR("Flow"), 0, 120, 30000, {AGG_TIME_AVG});
    EXPECT_EQ(E_FAIL, a.hr) << failAt;
    EXPECT_EQ(nullptr, a.result);
    EXPECT_TRUE(raw_.live.empty()) << failAt;
  }
}

// ---- Values of raw samples -------------------------------------------------------------------

TEST_F(AggregatesTest, RawValueAggregatesPerInterval) {
  Answer a;
  Read(a, OLESTR("Flow"), 0, 120, 30000,
       {AGG_MIN, AGG_MAX, AGG_AVG, AGG_DELTA, AGG_RANGE, AGG_COUNT, AGG_LAST, AGG_WORST_QUALITY});
  ASSERT_EQ(S_OK, a.hr);
  // [0, 30): 10 @0, 30 @20.
  ExpectR8(a.At(0, 0), 10, kGoodRaw, 0);
  ExpectR8(a.At(1, 0), 30, kGoodRaw, 20);
  ExpectR8(a.At(2, 0), 20, kGoodCalc, 0);  // (10 + 30) / 2
  ExpectR8(a.At(3, 0), 20, kGoodCalc, 0);  // 30 - 10
  ExpectR8(a.At(4, 0), 20, kGoodCalc, 0);
  EXPECT_EQ(2, a.At(5, 0).value.lVal);
  EXPECT_EQ(30.0, a.At(6, 0).value.dblVal);
  EXPECT_EQ(T(20), FileTimeToU64(a.At(6, 0).timestamp));
  // [30, 60): 10 @40 good, 20 @50 bad: one of two samples usable -> uncertain.
  ExpectR8(a.At(1, 1), 10, kUncertainRaw, 40);
  ExpectR8(a.At(2, 1), 10, kUncertainCalc, 30);
  EXPECT_EQ(1, a.At(5, 1).value.lVal);
  EXPECT_EQ(kUncertainCalc, a.At(5, 1).quality);
  EXPECT_EQ(20.0, a.At(6, 1).value.dblVal);  // LAST keeps the bad sample and its quality
  EXPECT_EQ(kBadQ, a.At(6, 1).quality);
  EXPECT_EQ(kBadQ, a.At(7, 1).value.ulVal);
  EXPECT_EQ(kBadQ, a.At(7, 1).quality);
  // [60, 90): the single sample 40 @60.
  ExpectR8(a.At(3, 2), 0, kGoodCalc, 60);
  EXPECT_EQ(T(60), FileTimeToU64(a.At(0, 2).timestamp));
  // [90, 120): no raw sample at all.
  for (ULONG agg = 0; agg < a.entries; ++agg) ExpectNoData(a.At(agg, 3), 90);
}

TEST_F(AggregatesTest, TextsCountButHaveNoNumericValue) {
  Answer a;
  Read(a, OLESTR("Mode"), 0, 20, 0, {AGG_MIN, AGG_AVG, AGG_TIME_AVG, AGG_COUNT, AGG_LAST});
  ASSERT_EQ(S_OK, a.hr);
  for (ULONG agg = 0; agg < 3; ++agg) ExpectNoData(a.At(agg, 0), 0);
  EXPECT_EQ(2, a.At(3, 0).value.lVal);
  EXPECT_EQ(kGoodCalc, a.At(3, 0).quality);
  ASSERT_EQ(VT_BSTR, a.At(4, 0).value.vt);
  EXPECT_EQ(WString(OLESTR("B")), WString(a.At(4, 0).value.bstrVal));
  EXPECT_EQ(T(10), FileTimeToU64(a.At(4, 0).timestamp));
}

// ---- Time-weighted values ----------------------------------------------------------------------

TEST_F(AggregatesTest, TimeWeightedValuesFollowSlopedOrSteppedLines) {
  Answer sloped, stepped;
  const std::vector<AggregateId> ids = {AGG_TIME_AVG, AGG_TOTAL, AGG_INTERPOLATIVE};
  Read(sloped, OLESTR("Flow"), 0, 120, 30000, ids);
  Read(stepped, OLESTR("FlowStep"), 0, 120, 30000, ids);
  ASSERT_EQ(S_OK, sloped.hr);
  ASSERT_EQ(S_OK, stepped.hr);
  // Sloped [0, 30): 10->30 over 20 s (400) then 30->20 (halfway to 10 @40) over 10 s (250).
  ExpectR8(sloped.At(0, 0), 650.0 / 30, kGoodCalc, 0);
  ExpectR8(sloped.At(1, 0), 650, kGoodCalc, 0);
  ExpectR8(sloped.At(2, 0), 10, kGoodRaw, 0);  // a sample sits at the start
  // Stepped [0, 30): 10 for 20 s, 30 for 10 s.
  ExpectR8(stepped.At(0, 0), 500.0 / 30, kGoodCalc, 0);
  // [30, 60): 20->10 (150), then 10->40 across the bad sample @50 (500); 20 of 30 s good.
  ExpectR8(sloped.At(0, 1), 650.0 / 30, kUncertainCalc, 30);
  ExpectR8(sloped.At(2, 1), 20, kGoodInterp, 30);
  ExpectR8(stepped.At(2, 1), 30, kGoodInterp, 30);
  // Stepped [30, 60): 30 for 10 s, 10 for 20 s (the bad sample is bridged).
  ExpectR8(stepped.At(0, 1), 500.0 / 30, kUncertainCalc, 30);
  // [90, 120) has no raw sample, yet the line from 40 @60 to 40 @130 crosses it.
  ExpectR8(sloped.At(0, 3), 40, kGoodCalc, 90);
  ExpectR8(sloped.At(2, 3), 40, kGoodInterp, 90);

  // Tags the browse does not list: numbers sloped (0 -> 10 averages 5), booleans stepped.
  Answer real, boolean;
  Read(real, OLESTR("HiddenReal"), 0, 10, 0, {AGG_TIME_AVG});
  Read(boolean, OLESTR("HiddenBool"), 0, 10, 0, {AGG_TIME_AVG});
  ExpectR8(real.At(0, 0), 5, kGoodCalc, 0);
  ExpectR8(boolean.At(0, 0), 0, kGoodCalc, 0);

  // At 55 the bad sample @50 lies between the bounds 10 @40 and 40 @60: uncertain.
  Answer skipped, skippedStep, extrapolated;
  Read(skipped, OLESTR("Flow"), 55, 60, 0, {AGG_INTERPOLATIVE});
  Read(skippedStep, OLESTR("FlowStep"), 55, 60, 0, {AGG_INTERPOLATIVE});
  ExpectR8(skipped.At(0, 0), 32.5, kUncertainInterp, 55);  // 10 + 30 * 15 / 20
  ExpectR8(skippedStep.At(0, 0), 10, kUncertainInterp, 55);
  // Sloped with nothing after the last sample: its value, uncertain.
  Read(extrapolated, OLESTR("Late"), 60, 70, 0, {AGG_INTERPOLATIVE});
  ExpectR8(extrapolated.At(0, 0), 5, kUncertainInterp, 60);
}

TEST_F(AggregatesTest, IntervalsBeforeTheFirstSampleHaveNoData) {
  Answer a;  // "Late": one sample, 5 @50, no sample before it
  Read(a, OLESTR("Late"), 0, 100, 0,
       {AGG_TIME_AVG, AGG_TOTAL, AGG_TOTAL_AVG, AGG_INTERPOLATIVE, AGG_PERCENT_GOOD, AGG_PERCENT_BAD, AGG_MIN});
  ASSERT_EQ(S_OK, a.hr);
  ExpectR8(a.At(0, 0), 5, kUncertainCalc, 0);  // line covers [50, 100) only: 50 % good
  ExpectR8(a.At(1, 0), 250, kUncertainCalc, 0);
  ExpectR8(a.At(2, 0), 2.5, kUncertainCalc, 0);
  ExpectNoData(a.At(3, 0), 0);  // nothing at or before the start
  ExpectR8(a.At(4, 0), 50, kGoodCalc, 0);
  ExpectR8(a.At(5, 0), 50, kGoodCalc, 0);
  ASSERT_EQ(VT_I4, a.At(6, 0).value.vt);  // MIN keeps the tag's type
  EXPECT_EQ(5, a.At(6, 0).value.lVal);

  Answer early;
  Read(early, OLESTR("Late"), 0, 100, 50000, {AGG_DURATION_GOOD, AGG_TIME_AVG, AGG_COUNT});
  ASSERT_EQ(S_OK, early.hr);
  for (ULONG agg = 0; agg < 3; ++agg) ExpectNoData(early.At(agg, 0), 0);
  ExpectR8(early.At(0, 1), 50000, kGoodCalc, 50);
}

TEST_F(AggregatesTest, SamplesSharingATimeCountInTheOrderTheyCame) {
  // Two samples at 10 s, on two pages: the later one holds from there and is the last.
  raw_.AddTag(OLESTR("Twin"), VT_R8, false);
  raw_.Add(0, 10);
  raw_.Add(10, 20);
  raw_.Add(10, 40, kUncertainQ);
  raw_.Add(20, 40);
  raw_.Add(30, 40);
  Answer a, line;
  Read(a, OLESTR("Twin"), 0, 20, 0, {AGG_LAST, AGG_COUNT});
  Read(line, OLESTR("Twin"), 0, 30, 0, {AGG_TIME_AVG});
  ASSERT_EQ(S_OK, a.hr);
  ASSERT_EQ(S_OK, line.hr);
  ExpectR8(a.At(0, 0), 40, kUncertainQ, 10);
  EXPECT_EQ(3, a.At(1, 0).value.lVal);
  ExpectR8(line.At(0, 0), 950.0 / 30, kGoodCalc, 0);  // 10 -> 20 over 10 s (150), then 40 (800)
}

// A result's value to the bit (doubles included), as far as its type defines it.
LONGLONG Bits(const VARIANT& v) {
  switch (v.vt) {
    case VT_R8: return v.llVal;
    case VT_EMPTY: return 0;
    default: return v.lVal;  // I4 and UI4
  }
}

TEST_F(AggregatesTest, ReadsLeaveNothingBehindForTheNextOne) {
  // The object hands one read's buffers to the next: after a longer read with other
  // settings, one of "Late" (a single sample, nothing after it to slope towards) must
  // come out exactly as from a fresh object.
  std::vector<AggregateId> all;
  for (AggregateId id = 0; id < AGG_COUNT_OF_AGGREGATES; ++id) all.push_back(id);
  Answer earlier, later, fresh;
  Read(earlier, OLESTR("Flow"), -10, 130, 7000, all);
  ASSERT_EQ(S_OK, earlier.hr);
  request_.treatUncertainAsGood = 0;
  Read(later, OLESTR("Late"), 40, 100, 20000, all);
  IProcessedDataProvider* other = nullptr;
  ASSERT_EQ(S_OK, CProcessedDataProvider::Create(&raw_, &other));
  std::swap(other, processed_);
  Read(fresh, OLESTR("Late"), 40, 100, 20000, all);
  std::swap(other, processed_);
  other->Release();
  ASSERT_EQ(S_OK, later.hr);
  ASSERT_EQ(S_OK, fresh.hr);
  for (ULONG agg = 0; agg < later.entries; ++agg) {
    ASSERT_EQ(3u, later.result[agg].count);
    for (ULONG k = 0; k < 3; ++k) {
      const HistoryValue& x = later.At(agg, k);
      const HistoryValue& y = fresh.At(agg, k);
      ASSERT_EQ(y.value.vt, x.value.vt) << agg << "/" << k;
      EXPECT_EQ(Bits(y.value), Bits(x.value)) << agg << "/" << k;
      EXPECT_EQ(y.quality, x.quality) << agg << "/" << k;
      EXPECT_EQ(FileTimeToU64(y.timestamp), FileTimeToU64(x.timestamp)) << agg << "/" << k;
    }
  }
}

// ---- States and qualities -------------------------------------------------------------------------

TEST_F(AggregatesTest, BooleanStatesTransitionsAndQualityShares) {
  Answer a;  // "Pump" over [0, 100): true from -20, false @10, true @30 and @60, bad @70, false @80
  Read(a, OLESTR("Pump"), 0, 100, 0,
       {AGG_DURATION_IN_STATE_0, AGG_DURATION_IN_STATE_1, AGG_NUMBER_OF_TRANSITIONS, AGG_COUNT, AGG_DURATION_GOOD,
        AGG_DURATION_BAD, AGG_PERCENT_GOOD, AGG_PERCENT_BAD, AGG_WORST_QUALITY, AGG_TIME_AVG});
  ASSERT_EQ(S_OK, a.hr);
  ExpectR8(a.At(0, 0), 40000, kUncertainCalc, 0);  // false [10, 30) and [80, 100)
  ExpectR8(a.At(1, 0), 50000, kUncertainCalc, 0);  // true [0, 10), [30, 70)
  EXPECT_EQ(3, a.At(2, 0).value.lVal);               // true->false @10, ->true @30, ->false @80
  EXPECT_EQ(kUncertainCalc, a.At(2, 0).quality);     // 4 of 5 samples usable
  EXPECT_EQ(4, a.At(3, 0).value.lVal);
  ExpectR8(a.At(4, 0), 90000, kGoodCalc, 0);
  ExpectR8(a.At(5, 0), 10000, kGoodCalc, 0);
  ExpectR8(a.At(6, 0), 90, kGoodCalc, 0);
  ExpectR8(a.At(7, 0), 10, kGoodCalc, 0);
  EXPECT_EQ(kBadQ, a.At(8, 0).quality);
  // Booleans are stepped: 1 over [0, 10), [30, 80) (bad @70 bridged) = 60 of 100 s.
  ExpectR8(a.At(9, 0), 0.6, kUncertainCalc, 0);
}

TEST_F(AggregatesTest, UncertainSamplesFollowTreatUncertainAsGood) {
  // "Level": 10 @0, 20 @10 uncertain, 30 @20, 40 @30 uncertain; one interval [0, 40).
  struct Case {
    BYTE treatAsGood;
    double avg;  // (10 + 30) / 2 from half the samples when uncertain counts as bad
    DWORD avgStatus;
    double max, maxAt;
    LONG count;
    double percentGood;
  } cases[] = {{1, 25, kGoodCalc, 40, 30, 4, 100}, {0, 20, kUncertainCalc, 30, 20, 2, 50}};
  for (const Case& c : cases) {
    request_.treatUncertainAsGood = c.treatAsGood;
    Answer a;
    Read(a, OLESTR("Level"), 0, 40, 0, {AGG_AVG, AGG_MAX, AGG_COUNT, AGG_PERCENT_GOOD, AGG_WORST_QUALITY});
    ASSERT_EQ(S_OK, a.hr);
    ExpectR8(a.At(0, 0), c.avg, c.avgStatus, 0);
    EXPECT_EQ(c.max, a.At(1, 0).value.dblVal);
    EXPECT_EQ(T(c.maxAt), FileTimeToU64(a.At(1, 0).timestamp));
    EXPECT_EQ(c.count, a.At(2, 0).value.lVal);
    ExpectR8(a.At(3, 0), c.percentGood, kGoodCalc, 0);
    EXPECT_EQ(kUncertainQ, a.At(4, 0).quality);
  }
}

TEST_F(AggregatesTest, PercentThresholdsDecideGoodUncertainAndBad) {
  // "Flow" [30, 60): AVG from 1 of 2 samples (50 %), TIME_AVG from 20 of 30 s (66.7 %).
  struct Case {
    BYTE good, bad;
    DWORD avg, timeAvg;
  } cases[] = {
      {0, 0, kUncertainCalc, kUncertainCalc},  // 0 means 100
      {50, 100, kGoodCalc, kGoodCalc},
      {70, 30, kBadCalc, kBadCalc},
      {70, 40, kBadCalc, kUncertainCalc},
      {60, 60, kUncertainCalc, kGoodCalc},
  };
  for (const Case& c : cases) {
    request_.percentDataGood = c.good;
    request_.percentDataBad = c.bad;
    Answer a;
    Read(a, OLESTR("Flow"), 30, 60, 0, {AGG_AVG, AGG_TIME_AVG});
    ASSERT_EQ(S_OK, a.hr);
    EXPECT_EQ(c.avg, a.At(0, 0).quality) << int(c.good) << "/" << int(c.bad);
    EXPECT_EQ(c.timeAvg, a.At(1, 0).quality) << int(c.good) << "/" << int(c.bad);
    EXPECT_NEAR(10.0, a.At(0, 0).value.dblVal, 1e-9);  // a bad status still carries its value
  }
}

// ---- Filtered tag statistics -----------------------------------------------------------------------

struct Page {
  HRESULT hr = E_FAIL;
  ULONG n = 0;
  BSTR* names = nullptr;
  HistoryValueList* values = nullptr;
  // One page of statistics over [from, to] in seconds, filtered by name, description and path.
  HRESULT Read(IProcessedDataProvider* p, LPCOLESTR name, LPCOLESTR description, LPCOLESTR path, double from,
               double to, const ProcessedReadRequest* request, ULONG max, void** cp) {
    return hr = p->GetFilteredTagStatistics(name, description, path, U64ToFileTime(T(from)), U64ToFileTime(T(to)),
                                            request, max, cp, 0, &n, &names, &values);
  }
  ~Page() {
    for (ULONG i = 0; names && i < n; ++i) SysFreeString(names[i]);
    CoTaskMemFree(names);
    FreeHistoryValueList(values);
  }
};

TEST_F(AggregatesTest, StatisticsPageThroughMatchingTags) {
  auto* provider = static_cast<CProcessedDataProvider*>(processed_);
  void* cp = nullptr;
  Page first, second;
  // "F*" and "*w*": Flow and FlowStep; over [0, 60] with both ends included.
  ASSERT_EQ(S_OK, first.Read(processed_, OLESTR("F*"), OLESTR(""), OLESTR("*w*"), 0, 60, &request_, 1, &cp));
  ASSERT_EQ(1u, first.n);
  ASSERT_NE(nullptr, cp);
  EXPECT_EQ(1u, provider->PendingStatistics());
  EXPECT_EQ(WString(OLESTR("Flow")), WString(first.names[0]));
  ASSERT_EQ(4u, first.values->count);
  const HistoryValue* v = first.values->values;
  EXPECT_EQ(10.0, v[0].value.dblVal);  // MIN 10 @0
  EXPECT_EQ(40.0, v[1].value.dblVal);  // MAX 40 @60: the end is included
  EXPECT_EQ(T(60), FileTimeToU64(v[1].timestamp));
  ExpectR8(v[2], 22.5, kUncertainCalc, 0);  // (10 + 30 + 10 + 40) / 4, 4 of 5 usable
  EXPECT_EQ(4, v[3].value.lVal);

  ASSERT_EQ(S_OK, second.Read(processed_, OLESTR("F*"), OLESTR(""), OLESTR("*w*"), 0, 60, &request_, 1, &cp));
  ASSERT_EQ(1u, second.n);
  EXPECT_EQ(WString(OLESTR("FlowStep")), WString(second.names[0]));
  EXPECT_EQ(nullptr, cp);
  EXPECT_EQ(0u, provider->PendingStatistics());
}

TEST_F(AggregatesTest, StatisticsContinuationPointsAreOwnedAndChecked) {
  auto* provider = static_cast<CProcessedDataProvider*>(processed_);
  Page none, all, changed, foreign;
  void* cp = nullptr;
  EXPECT_EQ(S_OK, none.Read(processed_, OLESTR("zz*"), nullptr, nullptr, 0, 200, nullptr, 0, &cp));
  EXPECT_EQ(0u, none.n);
  EXPECT_NE(nullptr, none.names);  // allocated even when empty
  EXPECT_EQ(nullptr, cp);

  // A reversed range is swapped; 6 tags, 2 per page.
  ASSERT_EQ(S_OK, all.Read(processed_, nullptr, nullptr, nullptr, 200, 0, nullptr, 2, &cp));
  ASSERT_NE(nullptr, cp);
  EXPECT_EQ(E_INVALIDARG, changed.Read(processed_, OLESTR("P*"), nullptr, nullptr, 0, 200, nullptr, 2, &cp));
  EXPECT_EQ(nullptr, cp);  // the refused call ended that read
  EXPECT_EQ(0u, provider->PendingStatistics());

  void* bogus = &raw_;
  EXPECT_EQ(E_INVALIDARG, foreign.Read(processed_, nullptr, nullptr, nullptr, 0, 200, nullptr, 2, &bogus));
  EXPECT_EQ(&raw_, bogus);  // someone else's point is left alone

  // Abandoned points stay bounded and die with the provider (ASan checks the memory).
  for (size_t i = 0; i < CProcessedDataProvider::kMaxPendingStatistics + 5; ++i) {
    Page p;
    void* pending = nullptr;
    ASSERT_EQ(S_OK, p.Read(processed_, nullptr, nullptr, nullptr, 0, 200, nullptr, 1, &pending));
    EXPECT_EQ(E_INVALIDARG, raw_.ReleaseContinuationPoint(&pending));  // the raw side refuses it
  }
  EXPECT_EQ(CProcessedDataProvider::kMaxPendingStatistics, provider->PendingStatistics());
}

// ---- The component -----------------------------------------------------------------------------------

TEST_F(AggregatesTest, ComponentIsCreatedThroughItsProgId) {
#ifdef _WIN32
  // The DLL beside this test, registered by regsvr32 as an installer would.
  ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
  HMODULE dll = LoadLibraryW(L"CorvaneHistoryAggregates.dll");
  ASSERT_NE(nullptr, dll);
  wchar_t dllPath[MAX_PATH] = {};
  ASSERT_NE(0u, GetModuleFileNameW(dll, dllPath, MAX_PATH));
  using Entry = HRESULT(STDAPICALLTYPE*)();
  auto canUnload = reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(dll, "DllCanUnloadNow")));
  ASSERT_NE(nullptr, canUnload);
  ASSERT_EQ(0u, corvane::test::Regsvr32(L"", dllPath));
#else
  ASSERT_EQ(S_OK, RegisterAggregatesComponent());
#endif
  CLSID clsid{};
  ASSERT_EQ(S_OK, CLSIDFromProgID(CORVANE_AGGREGATES_PROGID, &clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneHistoryAggregates, clsid));
  IAggregates* aggregates = nullptr;
  ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IAggregates,
                                   reinterpret_cast<void**>(&aggregates)));
  IProcessedDataProvider* built = nullptr;
  EXPECT_EQ(E_INVALIDARG, aggregates->CreateProcessedDataProvider(nullptr, &built));
  ASSERT_EQ(S_OK, aggregates->CreateProcessedDataProvider(&raw_, &built));
  aggregates->Release();  // the built provider outlives its factory
  OLECHAR cat[] = OLESTR("c"), sch[] = OLESTR("s"), tag[] = OLESTR("Late");
  TagIdent ident{cat, sch, tag};
  request_.start = U64ToFileTime(T(50));
  request_.end = U64ToFileTime(T(60));
  const AggregateId ids[] = {AGG_AVG};
  Answer a;
  a.entries = 1;
  ASSERT_EQ(S_OK, built->ReadProcessed(&ident, &request_, 1, ids, &a.result));
  ExpectR8(a.At(0, 0), 5, kGoodCalc, 50);
  built->Release();
#ifdef _WIN32
  EXPECT_EQ(S_OK, canUnload());
  EXPECT_EQ(0u, corvane::test::Regsvr32(L"/u", dllPath));
#else
  EXPECT_EQ(S_OK, UnregisterAggregatesComponent());
#endif
  EXPECT_NE(S_OK, CLSIDFromProgID(CORVANE_AGGREGATES_PROGID, &clsid));
  IAggregates* local = nullptr;
  EXPECT_EQ(REGDB_E_CLASSNOTREG, CoCreateInstance(CLSID_CorvaneHistoryAggregates, nullptr, CLSCTX_INPROC_SERVER,
                                                  IID_IAggregates, reinterpret_cast<void**>(&local)));
  // Registered in this process only (no registry key on Windows), found by its CLSID.
  ASSERT_EQ(S_OK, RegisterAggregatesComponent());
  EXPECT_EQ(S_OK, RegisterAggregatesComponent());
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorvaneHistoryAggregates, nullptr, CLSCTX_INPROC_SERVER, IID_IAggregates,
                                   reinterpret_cast<void**>(&local)));
  local->Release();
  EXPECT_EQ(S_OK, UnregisterAggregatesComponent());
  EXPECT_EQ(REGDB_E_CLASSNOTREG, CoCreateInstance(CLSID_CorvaneHistoryAggregates, nullptr, CLSCTX_INPROC_SERVER,
                                                  IID_IAggregates, reinterpret_cast<void**>(&local)));
#ifdef _WIN32
  CoUninitialize();
  FreeLibrary(dll);
#endif
}

// ---- Over the reference historian ------------------------------------------------------------------

class AggregatesOverReferenceHistorian : public test::HistorianFixture {};

TEST_F(AggregatesOverReferenceHistorian, BoundsComeFromReversedAndForwardReads) {
  AddSeries(OLESTR("Ramp"), 100);  // value i at i seconds: the line is y = t
  AddSeries(OLESTR("Ramp2"), 10);
  IProcessedDataProvider* processed = nullptr;
  ASSERT_EQ(S_OK, CProcessedDataProvider::Create(raw_, &processed));
  OLECHAR cat[] = OLESTR("c"), sch[] = OLESTR("s"), tag[] = OLESTR("Ramp");
  TagIdent ident{cat, sch, tag};
  ProcessedReadRequest request{};
  request.start = U64ToFileTime(T(10.5));
  request.end = U64ToFileTime(T(20.5));
  request.periodMs = 5000;
  const AggregateId ids[] = {AGG_AVG, AGG_TIME_AVG, AGG_INTERPOLATIVE};
  Answer a;
  a.entries = 3;
  ASSERT_EQ(S_OK, processed->ReadProcessed(&ident, &request, 3, ids, &a.result));
  ASSERT_EQ(2u, a.result[0].count);
  ExpectR8(a.At(0, 0), 13, kGoodCalc, 10.5);  // samples 11..15
  ExpectR8(a.At(1, 0), 13, kGoodCalc, 10.5);  // mean of y = t over [10.5, 15.5)
  ExpectR8(a.At(2, 0), 10.5, kGoodInterp, 10.5);
  ExpectR8(a.At(1, 1), 18, kGoodCalc, 15.5);  // needs the sample @21 after the range
  ExpectR8(a.At(2, 1), 15.5, kGoodInterp, 15.5);

  // A statistics point handed to the raw side is refused there, not misread.
  Page page;
  void* cp = nullptr;
  ASSERT_EQ(S_OK, page.Read(processed, OLESTR("ramp*"), nullptr, nullptr, 0, 5, nullptr, 1, &cp));
  ASSERT_EQ(1u, page.n);
  ExpectR8(page.values->values[2], 2.5, kGoodCalc, 0);  // 0..5 with both ends
  ASSERT_NE(nullptr, cp);
  EXPECT_EQ(E_INVALIDARG, raw_->ReleaseContinuationPoint(&cp));
  processed->Release();
}

TEST_F(AggregatesOverReferenceHistorian, ConcurrentCallersPageIndependently) {
  for (const OLECHAR* name : {OLESTR("A1"), OLESTR("A2"), OLESTR("A3")}) AddSeries(name, 50);
  IProcessedDataProvider* processed = nullptr;
  ASSERT_EQ(S_OK, CProcessedDataProvider::Create(raw_, &processed));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        void* cp = nullptr;
        int pages = 0;
        do {
          Page page;
          page.Read(processed, OLESTR("A*"), nullptr, nullptr, 0, 49, nullptr, 1, &cp);
          if (FAILED(page.hr) || page.n != 1 || page.values->values[3].value.lVal != 50) {
            ++wrong;
            break;
          }
          ++pages;
        } while (cp);
        if (pages != 3) ++wrong;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(0u, static_cast<CProcessedDataProvider*>(processed)->PendingStatistics());
  processed->Release();
}

}  // namespace
}  // namespace corvane::historian
