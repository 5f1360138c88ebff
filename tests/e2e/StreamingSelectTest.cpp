// SELECT * FROM RAWDATA over one long tag, driven through OLE DB interfaces only: the
// rows stream while the worker is still reading the historian, so the first rows come
// after one page's read, memory holds a few pages whatever the length of the series,
// and a consumer that stops early leaves nothing open in the historian.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include "SQLParser/TimeConversion.h"
#include "platform/AllocCounters.h"
#include "tests/e2e/SelectConsumer.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/LeakCheckedTest.h"

// Ten million samples natively; the sanitizer and Windows (Wine) builds stream fewer
// so that the run stays within a few minutes there (see CMakeLists.txt).
#ifndef CORVANE_E2E_SAMPLES
#define CORVANE_E2E_SAMPLES 10000000
#endif

namespace corvane::test {
namespace {

using corvane::e2e::ConsumerRow;
using corvane::e2e::FetchStats;
using corvane::e2e::SelectConsumer;
using corvane::testing::CFaultInjectingHost;
using Op = CFaultInjectingHost::Op;

constexpr size_t kSamples = CORVANE_E2E_SAMPLES;
constexpr size_t kPage = 2000;  // the default MAX_ROWS_TO_RETURN

long PeakResidentKiB() {
#ifdef _WIN32
  return -1;
#else
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
#endif
}

// Checks the rows of a read of the series that starts at sample `index`, read through
// `value`; counts the wrong ones and says why the first was wrong.
struct SeriesCheck {
  SeriesCheck(size_t from, corvane::e2e::ValueAs as) : index(from), value(as) {}
  size_t index;
  corvane::e2e::ValueAs value;
  size_t wrong = 0;
  std::string first;

  bool operator()(const ConsumerRow* rows, const HRESULT* results, size_t count) {
    using corvane::e2e::ValueAs;
    for (size_t r = 0; r < count; ++r, ++index) {
      const ConsumerRow& row = rows[r];
      const double expected = corvane::e2e::SampleValue(index);
      const std::string text = corvane::ToUtf8(row.text);
      ULONG64 ticks = 0;
      const char* why =
          results[r] != S_OK ? "GetData"
          : corvane::WStringView(row.tag) != corvane::WStringView(corvane::e2e::kTagName) ? "tag"
          : FAILED(DBTimestampToFileTime(row.timestamp, &ticks)) ||
                  ticks != corvane::e2e::kFirstSample + index * corvane::e2e::kSampleStep
              ? "timestamp"
          : row.quality != corvane::e2e::SampleQuality(index) ? "quality"
          : value == ValueAs::kVariant && (V_VT(&row.value) != VT_R8 || V_R8(&row.value) != expected) ? "variant value"
          : value == ValueAs::kDouble && row.real != expected ? "double value"
          : value == ValueAs::kText && (text.empty() || std::strtod(text.c_str(), nullptr) != expected) ? "text value"
                                                                                                         : nullptr;
      if (why && wrong++ == 0) first = "row " + std::to_string(index) + ": " + why + " (text '" + text + "')";
    }
    return true;
  }
};

ULONG RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

// One series store for the whole suite: filling ten million samples takes seconds.
class SelectStreaming : public LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    store_ = corvane::e2e::MakeSeriesStore(kSamples);
    if (store_) residentAfterLoad_ = PeakResidentKiB();
  }
  static void TearDownTestSuite() { store_.reset(); }

  void SetUp() override {
    LeakCheckedTest::SetUp();
#ifdef _WIN32
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
#endif
    ASSERT_NE(nullptr, store_) << "could not fill the series";
    IUnknown* inner = nullptr;
    ASSERT_EQ(S_OK, corvane::e2e::CreateSeriesHost(store_, &inner));
    host_ = CFaultInjectingHost::Create(inner);
    inner->Release();
    hostRefs_ = RefCount(static_cast<IRawDataProvider*>(host_));
    ASSERT_EQ(S_OK, consumer_.Open(static_cast<IRawDataProvider*>(host_)));
    ASSERT_EQ(S_OK, consumer_.UseTimeRange(corvane::e2e::kFirstSample,
                                           corvane::e2e::kFirstSample + (kSamples - 1) * corvane::e2e::kSampleStep));
  }
  void TearDown() override {
    EXPECT_EQ(0u, consumer_.Close()) << "nothing but the consumer holds the data source";
    if (host_) {
      EXPECT_EQ(0u, host_->OutstandingContinuationPoints()) << "every continuation point was finished or released";
      EXPECT_EQ(hostRefs_, RefCount(static_cast<IRawDataProvider*>(host_))) << "the provider let go of the host";
      host_->Release();
    }
#ifdef _WIN32
    CoUninitialize();
#endif
    LeakCheckedTest::TearDown();
  }

  static std::shared_ptr<historian::CHistorianStore> store_;
  static long residentAfterLoad_;
  CFaultInjectingHost* host_ = nullptr;
  ULONG hostRefs_ = 0;
  SelectConsumer consumer_;
};

std::shared_ptr<historian::CHistorianStore> SelectStreaming::store_;
long SelectStreaming::residentAfterLoad_ = -1;

TEST_F(SelectStreaming, EverySampleArrivesInOrderWhileMemoryStaysBounded) {
  const platform::AllocCounts base = platform::CurrentAllocCounts();
  ULONG readsAtFirstRows = 0;
  int64_t peakBlocks = 0;
  SeriesCheck check(0, corvane::e2e::ValueAs::kVariant);
  FetchStats stats;
  const HRESULT hr = consumer_.Select(
      OLESTR("SELECT * FROM RAWDATA"), &stats,
      [&](const ConsumerRow* rows, const HRESULT* results, size_t count) {
        peakBlocks = std::max(peakBlocks, platform::CurrentAllocCounts().comBlocks - base.comBlocks);
        return check(rows, results, count);
      },
      [&] { readsAtFirstRows = host_->Calls(Op::ReadRaw); });
  ASSERT_EQ(S_OK, hr);
  const long resident = PeakResidentKiB();

  EXPECT_EQ(kSamples, stats.rows);
  EXPECT_EQ(0u, check.wrong) << check.first;
  // The first rows are served from the first page: the worker has not read ahead.
  EXPECT_GE(readsAtFirstRows, 1u);
  EXPECT_LE(readsAtFirstRows, 2u);
  EXPECT_GE(host_->Calls(Op::ReadRaw), (kSamples + kPage - 1) / kPage);
  EXPECT_LE(host_->Calls(Op::ReadRaw), (kSamples + kPage - 1) / kPage + 1);
  // Each row of the store is one task-allocator block: a page read, a page in the
  // store, the batch the consumer holds, whatever the length of the series.
  EXPECT_LE(peakBlocks, static_cast<int64_t>(3 * kPage + SelectConsumer::kBatch));
#ifndef CORVANE_E2E_NO_RSS_CHECK
  if (resident > 0 && residentAfterLoad_ > 0) {
    EXPECT_LT(resident - residentAfterLoad_, 64 * 1024) << "peak resident set grew by more than 64 MiB";
  }
#endif
  std::printf("SELECT * FROM RAWDATA: %zu rows in %.2f s (%.0f rows/s), first rows after %.1f ms and %u raw "
              "read(s); peak outstanding blocks %lld; peak RSS %ld KiB after loading the series, %ld KiB after the "
              "read\n",
              stats.rows, stats.seconds, stats.rows / stats.seconds, stats.secondsToFirstRows * 1e3,
              static_cast<unsigned>(readsAtFirstRows), static_cast<long long>(peakBlocks), residentAfterLoad_,
              resident);
}

// A consumer that reads one batch and releases the rowset: the worker stops at once and
// the read's continuation point goes back to the historian.
TEST_F(SelectStreaming, ReleasingTheRowsetMidStreamStopsTheRead) {
  FetchStats stats;
  size_t rows = 0;
  ASSERT_EQ(S_OK, consumer_.Select(OLESTR("SELECT * FROM RAWDATA"), &stats,
                                   [&](const ConsumerRow*, const HRESULT*, size_t count) {
                                     rows += count;
                                     return false;
                                   }));
  EXPECT_EQ(static_cast<size_t>(SelectConsumer::kBatch), rows);
  EXPECT_LE(host_->Calls(Op::ReadRaw), 3u);
  EXPECT_LE(host_->Calls(Op::ReleaseContinuationPoint), 1u);
  // The same data source then reads the series from its start again.
  size_t first = 0;
  ULONG64 firstTicks = 0;
  ASSERT_EQ(S_OK, consumer_.Select(OLESTR("SELECT * FROM RAWDATA"), nullptr,
                                   [&](const ConsumerRow* r, const HRESULT*, size_t count) {
                                     first = count;
                                     DBTimestampToFileTime(r[0].timestamp, &firstTicks);
                                     return false;
                                   }));
  EXPECT_EQ(static_cast<size_t>(SelectConsumer::kBatch), first);
  EXPECT_EQ(corvane::e2e::kFirstSample, firstTicks);
}

// The range query with its three values bound as parameters reads exactly the bound
// range of the series, whatever the table and however VALUE is bound; the user time
// range of the query settings (the whole series here) does not widen it. A strict `<`
// gives the same end bound as `<=`, so the sample at the end is read too.
TEST_F(SelectStreaming, ParameterisedRangeReadsTheBoundRangeThroughEveryTable) {
  constexpr size_t kFirst = 123456, kCount = 4321;
  const corvane::e2e::RangeParameters range{corvane::e2e::kTagName,
                                            corvane::e2e::kFirstSample + kFirst * corvane::e2e::kSampleStep,
                                            corvane::e2e::kFirstSample + (kFirst + kCount) * corvane::e2e::kSampleStep};
  const struct {
    const OLECHAR* table;
    corvane::e2e::ValueAs value;
  } cases[] = {{OLESTR("RAWDATA"), corvane::e2e::ValueAs::kVariant},
               {OLESTR("RAWDATA_DOUBLE"), corvane::e2e::ValueAs::kDouble},
               {OLESTR("RAWDATA_STRING"), corvane::e2e::ValueAs::kText}};
  for (const auto& c : cases) {
    SCOPED_TRACE(corvane::ToUtf8(c.table));
    SeriesCheck check(kFirst, c.value);
    FetchStats stats;
    corvane::e2e::SelectOptions options;
    options.parameters = &range;
    options.value = c.value;
    const HRESULT hr = consumer_.Select(corvane::e2e::RangeQuery(c.table).c_str(), options, &stats, std::ref(check));
    ASSERT_EQ(S_OK, hr);
    EXPECT_EQ(kCount + 1, stats.rows);
    EXPECT_EQ(0u, check.wrong) << check.first;
  }
}

}  // namespace
}  // namespace corvane::test
