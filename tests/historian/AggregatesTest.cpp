// The aggregates component over the reference historian holding a small plant whose
// samples the suite states; every expected number is worked out by hand beside it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "historian/Aggregates.h"
#include "historian/ProcessedDataProvider.h"
#include "platform/WideString.h"
#include "tests/historian/HistorianTestUtil.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/Registration.h"

namespace corvane::historian {
namespace {

using test::kT0;
constexpr ULONGLONG kSec = test::kSecond;
ULONGLONG T(double seconds) { return kT0 + static_cast<LONGLONG>(std::llround(seconds * kSec)); }

constexpr DWORD kBadQ = 0x80000000u;
constexpr DWORD kUncertainQ = 0x40000000u;

using test::HistorianFixture;
using HostOp = corvane::testing::CFaultInjectingHost::Op;

// The tags of the suites. "Flow" is sloped; "FlowStep" has the same samples, stepped.
// The "Hidden" tags are read through a host whose browse fails, so only their type says
// how they are interpolated (sloped numbers, stepped booleans), not the flag they carry.
struct PlantTag {
  const OLECHAR* name;
  VARTYPE vt;
  bool stepped;
  std::vector<std::tuple<double, double, DWORD>> samples;  // seconds, value, quality
};
const PlantTag kPlant[] = {
    {OLESTR("Flow"), VT_R8, false, {{-10, 0, 0}, {0, 10, 0}, {20, 30, 0}, {40, 10, 0}, {50, 20, kBadQ}, {60, 40, 0},
                                    {130, 40, 0}}},
    {OLESTR("FlowStep"), VT_R8, true, {{-10, 0, 0}, {0, 10, 0}, {20, 30, 0}, {40, 10, 0}, {50, 20, kBadQ},
                                       {60, 40, 0}, {130, 40, 0}}},
    {OLESTR("Pump"), VT_BOOL, true, {{-20, 1, 0}, {10, 0, 0}, {30, 1, 0}, {60, 1, 0}, {70, 0, kBadQ}, {80, 0, 0}}},
    {OLESTR("Level"), VT_R8, false, {{0, 10, 0}, {10, 20, kUncertainQ}, {20, 30, 0}, {30, 40, kUncertainQ}}},
    {OLESTR("Late"), VT_I4, false, {{50, 5, 0}}},
    // Two samples at 10 s on two pages: the host answers the one at 10.5 s as at 10 s.
    {OLESTR("Twin"), VT_R8, false, {{0, 10, 0}, {10, 20, 0}, {10.5, 40, kUncertainQ}, {20, 40, 0}, {30, 40, 0}}},
    {OLESTR("Mode"), VT_BSTR, true, {{0, 'A', 0}, {10, 'B', 0}}},  // texts of one character
    {OLESTR("HiddenReal"), VT_R8, true, {{0, 0, 0}, {10, 10, 0}}},
    {OLESTR("HiddenBool"), VT_BOOL, false, {{0, 0, 0}, {10, 1, 0}}},
};

struct Answer {
  HRESULT hr = E_FAIL;
  ProcessedResult* result = nullptr;
  ULONG entries = 0;
  ~Answer() { FreeProcessedResult(result, entries); }
  const HistoryValue& At(ULONG aggregate, ULONG interval) const { return result[aggregate].values[interval]; }
};

// The aggregates over the reference historian seen through a host that pages by two
// samples (so every read really pages), counts continuation points and fails on request.
class AggregatesTest : public HistorianFixture {
 protected:
  void SetUp() override {
    HistorianFixture::SetUp();
    objectsBefore_ = AggregatesObjectCount();
    for (const PlantTag& tag : kPlant) {
      TagDefinition def;
      def.name = tag.name, def.vartype = tag.vt, def.stepped = tag.stepped;
      ASSERT_EQ(S_OK, store_->AddTag(def));
      ASSERT_EQ(S_OK, store_->AppendGenerated(tag.name, tag.samples.size(), [&tag](size_t i, SampleInput& s) {
        const auto& [sec, value, quality] = tag.samples[i];
        s.time = T(sec), s.number = value, s.integer = static_cast<LONGLONG>(value), s.quality = quality;
        s.text = WString(1, static_cast<OLECHAR>(value));
      }));
    }
    AddSeries(OLESTR("Ramp"), 100);  // value i at i seconds: the line is y = t
    for (auto* host : {&host_, &unbrowsed_}) {
      *host = corvane::testing::CFaultInjectingHost::Create(raw_);
      (*host)->ForcePageSize(2);
      (*host)->Restamp(T(10.5), T(10));  // only "Twin" has a sample there
    }
    unbrowsed_->FailCall(HostOp::BrowseTags, 0, E_FAIL);
    ASSERT_EQ(S_OK, CProcessedDataProvider::Create(host_, &processed_));
    ASSERT_EQ(S_OK, CProcessedDataProvider::Create(unbrowsed_, &hidden_));
    request_ = ProcessedReadRequest{};
    request_.treatUncertainAsGood = 1;
  }
  void TearDown() override {
    for (auto* p : {&processed_, &hidden_})
      if (*p) (*p)->Release();
    for (auto* host : {host_, unbrowsed_}) {
      if (!host) continue;
      EXPECT_EQ(0u, host->OutstandingContinuationPoints());
      EXPECT_EQ(0u, host->Release()) << "the processed provider must let go of the raw one";
    }
    EXPECT_EQ(objectsBefore_, AggregatesObjectCount());
    HistorianFixture::TearDown();
  }
  void Read(Answer& a, const OLECHAR* tag, double fromSec, double toSec, double periodMs,
            std::vector<AggregateId> ids, IProcessedDataProvider* via = nullptr) {
    TagIdent ident = test::Ident(tag);
    request_.start = U64ToFileTime(T(fromSec));
    request_.end = U64ToFileTime(T(toSec));
    request_.periodMs = periodMs;
    a.entries = static_cast<ULONG>(ids.size());
    if (!via) via = WString(tag).rfind(OLESTR("Hidden"), 0) == 0 ? hidden_ : processed_;
    a.hr = via->ReadProcessed(&ident, &request_, a.entries, ids.data(), &a.result);
  }

  corvane::testing::CFaultInjectingHost* host_ = nullptr;
  corvane::testing::CFaultInjectingHost* unbrowsed_ = nullptr;
  IProcessedDataProvider* processed_ = nullptr;
  IProcessedDataProvider* hidden_ = nullptr;
  ProcessedReadRequest request_{};
  long objectsBefore_ = 0;
};

// A value as "10 400 @0": the value, the status in hex and the time in seconds ("i4" an I4 value, "u80000000" a UI4,
// "'B'" a text, "-" none). An interval is described alike, "n4" is the number of intervals and "hr80070057" a refused
// read. Several values are parted by " | "; each expected part may stop early, and "*" skips a word. A row's
// expectations are "AGGREGATE ...: values", parted by "; ": each aggregate is read alone and answers so.
struct Row {
  const OLECHAR* tag;
  double from, to, periodMs;
  int interval;  // the first one expected; -1: their number first
  const char* expected;
  BYTE treatUncertainAsGood = 1, percentGood = 0, percentBad = 0;
};

// An aggregate by its name, or by its number when it has none.
AggregateId Named(const std::string& name) {
  for (AggregateId id = 0; id < AGG_COUNT_OF_AGGREGATES; ++id)
    if (ToUtf8(AggregateName(id)) == name) return id;
  return static_cast<AggregateId>(std::stoul(name));
}

// The shortest text that reads back as the same double, so that equal texts mean equal bits.
std::string Number(double d) {
  char text[40];
  std::snprintf(text, sizeof text, "%.15g", d);
  if (std::strtod(text, nullptr) != d) std::snprintf(text, sizeof text, "%.17g", d);
  return text;
}

std::string Show(const HistoryValue& v) {
  char text[40];
  std::string value = "vt" + std::to_string(v.value.vt);
  if (v.value.vt == VT_R8) value = Number(v.value.dblVal);
  if (v.value.vt == VT_I4) value = "i" + std::to_string(v.value.lVal);
  if (v.value.vt == VT_BOOL) value = "b" + std::to_string(v.value.boolVal);
  if (v.value.vt == VT_UI4) value = (std::snprintf(text, sizeof text, "u%X", unsigned(v.value.ulVal)), text);
  if (v.value.vt == VT_EMPTY) value = "-";
  if (v.value.vt == VT_BSTR) value = "'" + ToUtf8(v.value.bstrVal) + "'";
  std::snprintf(text, sizeof text, " %X @", unsigned(v.quality));
  return value + text + Number((double(FileTimeToU64(v.timestamp)) - kT0) / kSec);
}

std::string Describe(const Answer& a, int interval) {
  char text[96];
  if (FAILED(a.hr)) return (std::snprintf(text, sizeof text, "hr%08X", unsigned(a.hr)), text) + std::string(a.result ? " and a result" : "");
  if (interval < 0) return "n" + std::to_string(a.result[0].count);
  if (static_cast<ULONG>(interval) >= a.result[0].count) return "no interval " + std::to_string(interval);
  return Show(a.At(0, interval));
}

bool Matches(const std::string& expected, const std::string& actual) {
  for (size_t e = 0, g = 0;; e += 3, g += 3) {
    const size_t eEnd = expected.find(" | ", e), gEnd = actual.find(" | ", g);
    std::istringstream want(expected.substr(e, eEnd - e)), got(actual.substr(g, gEnd - g));
    for (std::string w, x; want >> w;)
      if (!(got >> x) || (w != "*" && w != x)) return false;
    if (eEnd == std::string::npos || gEnd == std::string::npos) return eEnd == gEnd;
    e = eEnd, g = gEnd;
  }
}

TEST_F(AggregatesTest, EachAggregateOfEachIntervalAsWorkedOut) {
  const Row rows[] = {
      // [0, 100) by 30 s: 0, 30, 60 whole ([50, 60) follows the bad sample), [90, 100) partial.
      {OLESTR("Flow"), 0, 100, 30000, -1, "DURATION_GOOD: n4 | 30000 401 @0 | 20000 401 @30 | * | 10000 405 @90"},
      {OLESTR("Flow"), 0, 100, 0, 0, "COUNT: i4"},  // good samples at 0, 20, 40, 60
      {OLESTR("Flow"), 10, 10, 1000, -1, "MIN MAX: n0"},
      // Bounds of an interval come from reads backwards and forwards: AVG of samples 11..15;
      // TIME_AVG the mean of y = t, over [15.5, 20.5) from the sample @21.
      {OLESTR("Ramp"), 10.5, 20.5, 5000, 0, "AVG: 13 401 @10.5 | *; TIME_AVG: 13 401 @10.5 | 18 401 @15.5; "
                                            "INTERPOLATIVE: 10.5 402 @10.5 | 15.5 402 @15.5"},
      // Refused: a reversed range, an unknown aggregate or tag, a period below the clock's step.
      {OLESTR("Flow"), 10, 0, 1000, 0, "MIN: hr80070057"},
      {OLESTR("Flow"), 0, 10, 1000, 0, "19: hrC0041009"},
      {OLESTR("Nope"), 0, 10, 1000, 0, "MIN: hrC0040011"},
      {OLESTR("Flow"), 0, 10, 0.00001, 0, "MIN: hr80070057"},
      // Raw values. [0, 30): 10 @0, 30 @20; [30, 60): 10 @40 good, 20 @50 bad: one of two
      // samples usable, so uncertain; LAST keeps the bad sample.
      {OLESTR("Flow"), 0, 120, 30000, 0, "MIN: 10 400 @0 | * | * * @60; MAX: 30 400 @20 | 10 40A40400 @40; "
                                         "AVG DELTA RANGE: 20 401 @0; COUNT: i2 | i1 40A40401; "
                                         "LAST: 30 * @20 | 20 80000000"},
      // [90, 120): no raw sample at all.
      {OLESTR("Flow"), 0, 120, 30000, 3, "MIN MAX AVG DELTA RANGE COUNT LAST WORST_QUALITY: - 809B0000 @90"},
      // Two samples at one time (the host answers the one at 10.5 s as at 10 s): the line jumps.
      {OLESTR("Twin"), 0, 30, 0, 0, "TIME_AVG: 31.666666666666668 401 @0"},
      // Texts count but have no numeric value.
      {OLESTR("Mode"), 0, 20, 0, 0, "MIN AVG TIME_AVG: - 809B0000 @0; COUNT: i2 401; LAST: 'B' * @10"},
      // Stepped [0, 30): 10 for 20 s, 30 for 10 s; [30, 60): 30 for 10 s, 10 for 20 s (the bad
      // sample @50 is bridged), 20 of 30 s good.
      {OLESTR("FlowStep"), 0, 120, 30000, 0, "TIME_AVG: 16.666666666666668 401 @0 | 16.666666666666668 40A40401 @30"},
      {OLESTR("FlowStep"), 0, 120, 30000, 1, "INTERPOLATIVE: 30 402 @30"},
      // A tag the browse does not list: a boolean is stepped by its type alone.
      {OLESTR("HiddenBool"), 0, 10, 0, 0, "TIME_AVG: 0 401 @0"},
      // At 55 the bad sample @50 lies between the bounds 10 @40 and 40 @60: uncertain.
      {OLESTR("Flow"), 55, 60, 0, 0, "INTERPOLATIVE: 32.5 40A40402 @55"},  // 10 + 30 * 15 / 20
      // "Late": one sample, 5 @50, none before it: the line covers [50, 100) only, 50 % good,
      // and nothing lies at or before the start to interpolate from.
      {OLESTR("Late"), 0, 100, 0, 0, "TIME_AVG: 5 40A40401 @0; TOTAL: 250 40A40401 @0; TOTAL_AVG: 2.5 40A40401 @0; "
                                     "INTERPOLATIVE: - 809B0000 @0"},
      {OLESTR("Late"), 0, 100, 0, 0, "PERCENT_GOOD PERCENT_BAD: 50 401 @0; MIN: i5"},  // MIN keeps the tag's type
      {OLESTR("Late"), 0, 100, 50000, 0, "TIME_AVG COUNT: - 809B0000 @0; DURATION_GOOD: - 809B0000 @0 | 50000 401 @50"},
      // "Pump" over [0, 100): true from -20, false @10, true @30 and @60, bad @70, false @80.
      {OLESTR("Pump"), 0, 100, 0, 0, "DURATION_IN_STATE_0: 40000 40A40401 @0"},  // [10, 30), [80, 100)
      {OLESTR("Pump"), 0, 100, 0, 0, "DURATION_IN_STATE_1: 50000 40A40401 @0"},  // [0, 10), [30, 70)
      {OLESTR("Pump"), 0, 100, 0, 0, "NUMBER_OF_TRANSITIONS: i3 40A40401"},  // 4 of 5 samples usable
      {OLESTR("Pump"), 0, 100, 0, 0, "COUNT: i4; DURATION_GOOD: 90000 401 @0; DURATION_BAD: 10000 401 @0; "
                                     "PERCENT_GOOD: 90 401 @0; PERCENT_BAD: 10 401 @0; WORST_QUALITY: * 80000000"},
      // Booleans are stepped: 1 over [0, 10), [30, 80) (bad @70 bridged) = 60 of 100 s.
      {OLESTR("Pump"), 0, 100, 0, 0, "TIME_AVG: 0.6 40A40401 @0"},
      // "Level": 10 @0, 20 @10 uncertain, 30 @20, 40 @30 uncertain, uncertain counted as bad:
      // AVG is (10 + 30) / 2 from half the samples.
      {OLESTR("Level"), 0, 40, 0, 0, "AVG: 20 40A40401 @0; MAX: 30 * @20; COUNT: i2; PERCENT_GOOD: 50 401 @0; "
                                     "WORST_QUALITY: * 40000000", 0},
      // "Flow" [30, 60): AVG from 1 of 2 samples (50 %), TIME_AVG from 20 of 30 s (66.7 %): with
      // at least 70 % good required and 40 % bad allowed, AVG is bad and TIME_AVG uncertain.
      {OLESTR("Flow"), 30, 60, 0, 0, "AVG: 10 80000401; TIME_AVG: * 40A40401", 1, 70, 40},
  };
  for (const Row& row : rows) {
    std::istringstream parts(row.expected);
    for (std::string part; std::getline(parts, part, ';');) {
      const size_t colon = part.find(':');
      const std::string expected = part.substr(colon + 2);
      std::istringstream names(part.substr(0, colon));
      for (std::string name; names >> name;) {
        request_.treatUncertainAsGood = row.treatUncertainAsGood;
        request_.percentDataGood = row.percentGood;
        request_.percentDataBad = row.percentBad;
        Answer a;
        Read(a, row.tag, row.from, row.to, row.periodMs, {Named(name)});
        int k = row.interval;
        std::string got = Describe(a, k);
        for (size_t bar = 0; (bar = expected.find(" | ", bar)) != std::string::npos; bar += 3)
          got += " | " + Describe(a, ++k);
        EXPECT_TRUE(Matches(expected, got))
            << ToUtf8(row.tag) << " [" << row.from << ", " << row.to << ") by " << row.periodMs << " ms, " << name
            << " from interval " << row.interval << " (uncertain as good " << int(row.treatUncertainAsGood)
            << ", percent good/bad " << int(row.percentGood) << "/" << int(row.percentBad) << "): expected "
            << expected << ", got " << got;
      }
    }
  }
  Answer none;  // no aggregate at all
  Read(none, OLESTR("Flow"), 0, 10, 1000, {});
  EXPECT_EQ(E_INVALIDARG, none.hr);
  EXPECT_EQ(nullptr, none.result);
}


// A whole answer, every value of every aggregate.
std::string Exact(const Answer& a) {
  std::string text = "hr " + std::to_string(a.hr);
  for (ULONG e = 0; SUCCEEDED(a.hr) && e < a.entries; ++e)
    for (ULONG k = 0; k < a.result[e].count; ++k) text += (k ? " | " : "\n") + Show(a.At(e, k));
  return text;
}

// The reference historian shows a numeric or boolean tag's range as columns instead of pages: every aggregate must come
// out bit for bit as through the pages, NaN, bad and uncertain samples included.
TEST_F(AggregatesTest, StoreColumnsGiveWhatPagesGive) {
  TagDefinition noisy;
  noisy.name = OLESTR("Noisy");
  ASSERT_EQ(S_OK, store_->AddTag(noisy));
  ASSERT_EQ(S_OK, store_->AppendGenerated(noisy.name, 40, [](size_t i, SampleInput& s) {
    s.time = T(i * 3.5 - 5);
    s.number = i % 7 == 3 ? std::nan("") : std::sin(i) * 100;
    s.quality = i % 5 == 2 ? kBadQ : (i % 5 == 4 ? kUncertainQ : 0);
  }));
  IProcessedDataProvider* columns = nullptr;
  ASSERT_EQ(S_OK, CProcessedDataProvider::Create(raw_, &columns));
  std::vector<AggregateId> all;
  for (AggregateId id = 0; id < AGG_COUNT_OF_AGGREGATES; ++id) all.push_back(id);
  for (const OLECHAR* tag :
       {OLESTR("Flow"), OLESTR("FlowStep"), OLESTR("Level"), OLESTR("Noisy"), OLESTR("Pump"), OLESTR("Late")}) {
    for (double period : {7000.0, 25000.0, 0.0}) {
      Answer pages, cols;
      Read(pages, tag, -3, 131, period, all);
      Read(cols, tag, -3, 131, period, all, columns);
      ASSERT_EQ(S_OK, pages.hr);
      EXPECT_EQ(Exact(pages), Exact(cols)) << ToUtf8(tag) << " at period " << period;
    }
  }
  columns->Release();
}

TEST_F(AggregatesTest, FailingRawReadsReleaseTheirContinuationPoints) {
  for (ULONG failAt : {1, 2, 3, 5}) {  // backward bound, main read first and later page, forward bound
    host_->FailCall(HostOp::ReadRaw, host_->Calls(HostOp::ReadRaw) + failAt, E_FAIL);
    Answer a;
    Read(a, OLESTR("Flow"), 0, 120, 30000, {AGG_TIME_AVG});
    EXPECT_EQ(E_FAIL, a.hr) << failAt;
    EXPECT_EQ(nullptr, a.result);
    EXPECT_EQ(0u, host_->OutstandingContinuationPoints()) << failAt;
  }
}

// Filtered tag statistics (what the procedure pages through is in tests/cases/hda.test).

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

TEST_F(AggregatesTest, StatisticsContinuationPointsAreOwnedAndChecked) {
  Page none, all, changed, ended, resumed;
  void* cp = nullptr;
  EXPECT_EQ(S_OK, none.Read(processed_, OLESTR("zz*"), nullptr, nullptr, 0, 200, nullptr, 0, &cp));
  EXPECT_EQ(0u, none.n);
  EXPECT_NE(nullptr, none.names);  // allocated even when empty
  EXPECT_EQ(nullptr, cp);

  // A reversed range is swapped; 7 tags, 2 per page. A point brought back with other
  // filters ends its read; brought back again it is no longer known, and left alone.
  ASSERT_EQ(S_OK, all.Read(processed_, nullptr, nullptr, nullptr, 200, 0, nullptr, 2, &cp));
  void* stale = cp;
  ASSERT_NE(nullptr, cp);
  EXPECT_EQ(E_INVALIDARG, changed.Read(processed_, OLESTR("P*"), nullptr, nullptr, 0, 200, nullptr, 2, &cp));
  EXPECT_EQ(nullptr, cp);
  EXPECT_EQ(E_INVALIDARG, ended.Read(processed_, nullptr, nullptr, nullptr, 200, 0, nullptr, 2, &stale));
  EXPECT_NE(nullptr, stale);

  // Abandoned points stay bounded, the oldest forgotten first, and die with the provider (ASan checks the memory).
  std::vector<void*> pending(CProcessedDataProvider::kMaxPendingStatistics + 1);
  for (void*& point : pending) {
    Page p;
    ASSERT_EQ(S_OK, p.Read(processed_, nullptr, nullptr, nullptr, 0, 200, nullptr, 1, &point));
    EXPECT_EQ(E_INVALIDARG, raw_->ReleaseContinuationPoint(&point));  // the raw side refuses it
  }
  EXPECT_EQ(E_INVALIDARG, ended.Read(processed_, nullptr, nullptr, nullptr, 0, 200, nullptr, 1, &pending[0]));
  EXPECT_EQ(S_OK, resumed.Read(processed_, nullptr, nullptr, nullptr, 0, 200, nullptr, 1, &pending[1]));
}

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
  ASSERT_EQ(S_OK, aggregates->CreateProcessedDataProvider(host_, &built));
  aggregates->Release();  // the built provider outlives its factory
  Answer a;
  Read(a, OLESTR("Late"), 50, 60, 0, {AGG_AVG}, built);
  EXPECT_EQ(S_OK, a.hr);
  EXPECT_PRED2(Matches, "5 401 @50", Describe(a, 0));
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

}  // namespace
}  // namespace corvane::historian
