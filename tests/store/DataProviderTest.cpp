#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/store/StoreTestSupport.h"
#include "tests/support/TraceCapture.h"

namespace corvane::test {
namespace {

using namespace std::chrono_literals;

bool WaitUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 500; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return done();
}

class DataProviderWorker : public LeakCheckedTest {};

// A step takes no more emptied records than its page needs and the rest wait for the next step, emptied of what they
// held; dropping them would free and remake records every page.
TEST_F(DataProviderWorker, SpareRecordsAreTakenAtMostAPageAtATimeAndKeptEmptied) {
  PagedProducer provider(10, 1);
  provider.EnableRecordReuse();
  ProducedRecordList used(5, ProducedRecord(2));
  for (ProducedRecord& r : used) r[1].SetText(OLESTR("x"), 1);
  provider.RecycleRecords(used);
  for (size_t expected : {3u, 2u, 0u}) {
    const ProducedRecordList spare = provider.TakeSpareRecords(3);
    EXPECT_EQ(expected, spare.size());
    for (const ProducedRecord& r : spare) {
      ASSERT_EQ(2u, r.size());
      EXPECT_EQ(StoreValue::kNone, r[1].Kind);
    }
  }
}

// A signal before the worker runs is lost; a second start while it runs is refused and
// leaves the first worker its events. A failing step ends the worker and is kept.
TEST_F(DataProviderWorker, SignalsReachOnlyTheRunningWorkerAndAFailingStepEndsIt) {
  TraceCapture capture(TRACE_INFO);
  PagedProducer provider(10, 1, E_ACCESSDENIED, 2);
  provider.SignalWorker();
  ASSERT_EQ(S_OK, provider.StartWorker());
  EXPECT_EQ(E_FAIL, provider.StartWorker());
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(0u, provider.steps.load());
  provider.SignalWorker();
  EXPECT_TRUE(WaitUntil([&] { return provider.steps.load() == 1u; }));
  EXPECT_TRUE(provider.IsWorkerRunning());
  provider.SignalWorker();
  ASSERT_TRUE(WaitUntil([&] { return !provider.IsWorkerRunning(); }));
  EXPECT_EQ(2u, provider.steps.load());
  EXPECT_EQ(E_ACCESSDENIED, provider.LastResult());
  // Only the more-data flag and the pending items answer now.
  EXPECT_EQ(1, provider.IsDataPending());
  provider.SetMoreData(false);
  EXPECT_EQ(0, provider.IsDataPending());
  const int item = 5;
  provider.PushPendingItem(&item);
  EXPECT_EQ(1, provider.IsDataPending());
  provider.SignalWorker();  // no worker any more: nothing runs
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(2u, provider.steps.load());
  std::vector<std::string> texts = capture.Texts();
  std::sort(texts.begin(), texts.end());  // they come from two threads
  EXPECT_EQ((std::vector<std::string>{"[DATA PROVIDER] -> Failed to initialaze the thread worker, error: 0.",
                                      "[DATA PROVIDER] -> Thread worker finished.",
                                      "[DATA PROVIDER] -> Thread worker initialized.",
                                      "[DATA PROVIDER] -> Thread worker started (event driven)."}),
            texts);
  provider.StopWorker();
  EXPECT_FALSE(provider.IsWorkerRunning());
}

// Pages queued as records, a batch, and records again (queued behind the batch) come out
// in that order, whether the fetch takes the batches or has their records made for it.
TEST_F(DataProviderWorker, RecordsAndBatchesLeaveInTheOrderProduced) {
  for (const bool accept : {false, true}) {
    PagedProducer provider(6, 2);
    if (accept) provider.AcceptBatches();
    for (int i = 0; i < 3; ++i) ASSERT_EQ(S_OK, provider.ExecuteStep());
    EXPECT_EQ(6u, provider.QueuedRecordCount());
    ProducedRecordList rows;
    EXPECT_EQ(DB_S_ENDOFROWSET, provider.FetchRows(rows, 7));
    RecordBatchList batches;
    provider.TakeBatches(batches);
    EXPECT_EQ(accept ? 2u : 0u, batches.size());
    for (auto& batch : batches) {
      for (size_t i = 0; i < batch->Count(); ++i) {
        rows.emplace_back();
        ASSERT_EQ(S_OK, batch->Make(i, rows.back()));
      }
    }
    ASSERT_EQ(6u, rows.size());
    for (size_t i = 0; i < rows.size(); ++i)
      EXPECT_EQ(kJan2024 + i * 10000000ull, FileTimeToU64(rows[i][1].Time)) << accept << " " << i;
  }
}

// A fetch that makes a batch's records for its caller (a computed select list) reuses the
// records given back; otherwise they would pile up, a page a fetch, while the read runs.
TEST_F(DataProviderWorker, RecordsMadeFromBatchesReuseTheRecordsGivenBack) {
  PagedProducer provider(40, 2);
  provider.EnableRecordReuse();
  ProducedRecordList rows;
  for (int step = 0; step < 20; ++step) {
    ASSERT_EQ(S_OK, provider.ExecuteStep());
    rows.clear();
    provider.FetchRows(rows, 1);
    ASSERT_EQ(2u, rows.size());
    provider.RecycleRecords(rows);
  }
  EXPECT_LE(provider.TakeSpareRecords(100).size(), 2u);
}

TEST_F(DataProviderWorker, AFetchWakesWhenRowsArriveOrTheWorkerEnds) {
  PagedProducer producer(3000, 1000);
  ASSERT_EQ(S_OK, producer.Execute());
  ProducedRecordList rows;
  // Wants more than one page: every page taken lets the worker make the next.
  EXPECT_EQ(S_OK, producer.FetchRows(rows, 2500));
  EXPECT_GE(rows.size(), 2500u);
  rows.clear();
  EXPECT_EQ(DB_S_ENDOFROWSET, producer.FetchRows(rows, 1000));
  EXPECT_LE(rows.size(), 500u);
  EXPECT_EQ(0, producer.IsDataPending());

  // The page read before the failure is handed over first, the failure next.
  PagedProducer failing(3000, 1000, E_OUTOFMEMORY, 2);
  ASSERT_EQ(S_OK, failing.Execute());
  const auto start = std::chrono::steady_clock::now();
  rows.clear();
  EXPECT_EQ(S_OK, failing.FetchRows(rows, 3000));
  EXPECT_EQ(1000u, rows.size());
  rows.clear();
  EXPECT_EQ(E_OUTOFMEMORY, failing.FetchRows(rows, 3000));
  EXPECT_TRUE(rows.empty());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

}  // namespace
}  // namespace corvane::test
