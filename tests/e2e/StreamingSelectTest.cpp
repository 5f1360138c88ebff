// SELECT * FROM RAWDATA over one long tag, driven through OLE DB interfaces only: the rows stream while the worker is
// still reading the historian, so the first rows come after one page's read, memory holds a few pages whatever the
// length of the series, and a consumer that stops early leaves nothing open in the historian.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include "SQLParser/TimeConversion.h"
#include "base/ComPtr.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/RowReader.h"

// Ten million samples natively; the sanitizer and Windows (Wine) builds stream fewer
// so that the run stays within a few minutes there (see CMakeLists.txt).
#ifndef CORVANE_E2E_SAMPLES
#define CORVANE_E2E_SAMPLES 10000000
#endif

namespace corvane::test {
namespace {

using Op = testing::CFaultInjectingHost::Op;

constexpr size_t kSamples = CORVANE_E2E_SAMPLES;
constexpr size_t kPage = 2000;  // the default MAX_ROWS_TO_RETURN
constexpr DBROWCOUNT kBatch = 1000;
constexpr ULONGLONG kFirst = 133485408000000000ull;  // 2024-01-01 00:00:00 UTC, then one sample a second
constexpr ULONGLONG kStep = 10000000ull;
double Value(size_t i) { return static_cast<double>(i % 1000) * 0.5; }
DWORD Quality(size_t i) { return i % 97 ? 0xC0u : 0x40000000u; }

long PeakResidentKiB() {
#ifdef _WIN32
  return -1;
#else
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
#endif
}

// One series store for the whole suite: filling ten million samples takes seconds.
class SelectStreaming : public LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    store_ = std::make_shared<historian::CHistorianStore>();
    historian::TagDefinition tag;
    tag.name = OLESTR("Plant.Flow");
    if (FAILED(store_->AddTag(tag)) ||
        FAILED(store_->AppendGenerated(tag.name, kSamples, [](size_t i, historian::SampleInput& s) {
          s.time = kFirst + i * kStep;
          s.quality = Quality(i);
          s.number = Value(i);
        })))
      store_.reset();
    residentAfterLoad_ = PeakResidentKiB();
  }
  static void TearDownTestSuite() { store_.reset(); }

  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_NE(nullptr, store_) << "could not fill the series";
    consumer_ = std::make_unique<SqlConsumer>(store_);
    consumer_->Open("Use Timestamps=true;Timestamp Start=2024-01-01 00:00:00;Timestamp End=2025-01-01 00:00:00");
  }
  void TearDown() override {
    EXPECT_EQ(0u, Host().OutstandingContinuationPoints()) << "every continuation point was finished or released";
    consumer_.reset();  // which checks that the provider let go of the host and the command
    LeakCheckedTest::TearDown();
  }
  testing::CFaultInjectingHost& Host() { return consumer_->Host(); }

  // Runs SELECT * FROM RAWDATA and reads it `kBatch` rows at a time until `onRow` or
  // `batch` stops; each row's cells are checked against the series, counting from 0.
  HRESULT Select(const std::function<DBROWCOUNT(size_t)>& batch, const std::function<bool(size_t)>& onRow) {
    ComPtr<IUnknown> rowset;
    HRESULT hr = consumer_->Run("SELECT * FROM RAWDATA", {}, 0, rowset.Put()).hr;
    size_t index = 0;
    if (SUCCEEDED(hr)) {
      hr = ReadRows(rowset.Get(), {{1, DBTYPE_WSTR}, {2, DBTYPE_DBTIMESTAMP}, {3, DBTYPE_UI4}, {4, DBTYPE_VARIANT}},
                    batch, [&](const Row& r) {
                      ULONG64 ticks = 0;
                      DBTimestampToFileTime(r[1].v.ts, &ticks);
                      const char* why = WStringView(r[0].v.text) != WStringView(OLESTR("Plant.Flow")) ? "tag"
                                        : ticks != kFirst + index * kStep                         ? "timestamp"
                                        : r[2].v.ui4 != Quality(index)                            ? "quality"
                                        : V_VT(&r[3].v.variant) != VT_R8 || V_R8(&r[3].v.variant) != Value(index)
                                            ? "value"
                                            : nullptr;
                      if (why && wrong_++ == 0) ADD_FAILURE() << "row " << index << ": " << why;
                      return onRow(index++);
                    });
    }
    return hr;
  }

  static inline std::shared_ptr<historian::CHistorianStore> store_;
  static inline long residentAfterLoad_ = -1;
  std::unique_ptr<SqlConsumer> consumer_;
  size_t wrong_ = 0;
};


TEST_F(SelectStreaming, EverySampleArrivesInOrderWhileMemoryStaysBounded) {
  const platform::AllocCounts base = platform::CurrentAllocCounts();
  auto blocks = [&base] { return platform::CurrentAllocCounts().comBlocks - base.comBlocks; };
  ULONG readsAtFirstRow = 0;
  int64_t peakBlocks = 0;
  size_t rows = 0;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(S_OK, Select([](size_t) { return kBatch; },
                         [&](size_t index) {
                           if (index == 0) readsAtFirstRow = Host().Calls(Op::ReadRaw);
                           if (index % kBatch == 0) peakBlocks = std::max(peakBlocks, blocks());
                           ++rows;
                           return true;
                         }));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const long resident = PeakResidentKiB();
  EXPECT_EQ(kSamples, rows);
  EXPECT_EQ(0u, wrong_);
  // The first rows are served from the first page, which the first step reads alone; the
  // second step, started when the consumer took that page, reads two.
  EXPECT_GE(readsAtFirstRow, 1u);
  EXPECT_LE(readsAtFirstRow, 3u);
  EXPECT_GE(Host().Calls(Op::ReadRaw), (kSamples + kPage - 1) / kPage);
  EXPECT_LE(Host().Calls(Op::ReadRaw), (kSamples + kPage - 1) / kPage + 1);
  // Each row of the store is one task-allocator block: a page read, a page in the
  // store, the batch the consumer holds, whatever the length of the series.
  EXPECT_LE(peakBlocks, static_cast<int64_t>(3 * kPage + kBatch));
#ifndef CORVANE_E2E_NO_RSS_CHECK
  if (resident > 0 && residentAfterLoad_ > 0) {
    EXPECT_LT(resident - residentAfterLoad_, 64 * 1024) << "peak resident set grew by more than 64 MiB";
  }
#endif
  std::printf("SELECT * FROM RAWDATA: %zu rows in %.2f s; first row after %u raw read(s); peak outstanding blocks "
              "%lld; peak RSS %ld KiB after loading the series, %ld KiB after the read\n",
              rows, seconds, static_cast<unsigned>(readsAtFirstRow), static_cast<long long>(peakBlocks),
              residentAfterLoad_, resident);
}

// A consumer that reads one batch and releases the rowset: the worker stops at once and the read's continuation point
// goes back to the historian. The same data source then reads the series from its start again.
TEST_F(SelectStreaming, ReleasingTheRowsetMidStreamStopsTheRead) {
  for (int run = 0; run < 2; ++run) {
    size_t rows = 0;
    ASSERT_EQ(S_OK, Select([](size_t count) { return count ? 0 : kBatch; }, [&](size_t) { return ++rows > 0; }));
    EXPECT_EQ(static_cast<size_t>(kBatch), rows);
    EXPECT_LE(Host().Calls(Op::ReadRaw), 3u * (run + 1));
    EXPECT_LE(Host().Calls(Op::ReleaseContinuationPoint), run + 1u);
  }
  EXPECT_EQ(0u, wrong_);
}

}  // namespace
}  // namespace corvane::test
