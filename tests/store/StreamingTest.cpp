#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include "platform/AllocCounters.h"
#include "provider/ProviderIRowset.h"
#include "tests/store/StoreTestSupport.h"
#include "tests/support/LeakCheckedTest.h"

#ifndef CORVANE_STREAM_ROWS
#define CORVANE_STREAM_ROWS 10000000
#endif

namespace corvane::test {
namespace {

long PeakResidentKiB() {
#ifdef _WIN32
  return -1;
#else
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
#endif
}

class RowsetStreaming : public LeakCheckedTest {};

// Rows are read while the worker still produces them, and memory holds one page in the
// producer, one in the store and the batch the consumer has not released, whatever
// the number of rows.
TEST_F(RowsetStreaming, MillionsOfRowsStreamThroughBoundedMemory) {
  constexpr ULONGLONG kRows = CORVANE_STREAM_ROWS;
  constexpr ULONGLONG kPage = 2000;
  constexpr DBROWCOUNT kBatch = 1000;

  auto producer = std::make_unique<PagedProducer>(kRows, kPage);
  PagedProducer* source = producer.get();
  ASSERT_EQ(S_OK, producer->Execute());
  auto store = std::make_unique<CDataStore>();
  ASSERT_EQ(S_OK, store->Initialize(std::move(producer), RawDataColumns()));
  IRowset* rowset = nullptr;
  ASSERT_EQ(S_OK, CProviderIRowset::Create(std::move(store), CProviderIRowset::RowsetKind::Command, nullptr,
                                           IID_IRowset, reinterpret_cast<void**>(&rowset)));
  IAccessor* accessor = nullptr;
  ASSERT_EQ(S_OK, rowset->QueryInterface(IID_IAccessor, reinterpret_cast<void**>(&accessor)));
  const DBLENGTH tagSpan = BindingSpan(64);
  const DBBINDING bindings[] = {Binding(1, DBTYPE_WSTR, 0, 64), Binding(2, DBTYPE_DBTIMESTAMP, tagSpan, 16),
                                Binding(3, DBTYPE_UI4, tagSpan + BindingSpan(16), 4),
                                Binding(4, DBTYPE_R8, tagSpan + BindingSpan(16) + BindingSpan(4), 8)};
  HACCESSOR h = 0;
  ASSERT_EQ(S_OK, accessor->CreateAccessor(DBACCESSOR_ROWDATA, 4, bindings, 0, &h, nullptr));

  const platform::AllocCounts base = platform::CurrentAllocCounts();
  const long rssBefore = PeakResidentKiB();
  int64_t peakBlocks = 0;
  ULONGLONG producedAtFirstBatch = 0;
  ULONGLONG rows = 0;
  double sum = 0;
  bool ordered = true;
  HROW handles[kBatch];
  BYTE buffer[256];
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    DBCOUNTITEM obtained = 0;
    HROW* out = handles;
    const HRESULT hr = rowset->GetNextRows(DB_NULL_HCHAPTER, 0, kBatch, &obtained, &out);
    ASSERT_TRUE(hr == S_OK || hr == DB_S_ENDOFROWSET) << std::hex << hr;
    if (rows == 0) producedAtFirstBatch = source->Produced();
    for (DBCOUNTITEM i = 0; i < obtained; ++i) {
      ASSERT_EQ(S_OK, rowset->GetData(handles[i], h, buffer));
      const double value = ReadAt<double>(buffer, bindings[3].obValue);
      ordered = ordered && value == static_cast<double>(rows + i);
      sum += value;
    }
    peakBlocks = std::max(peakBlocks, platform::CurrentAllocCounts().comBlocks - base.comBlocks);
    ASSERT_EQ(S_OK, rowset->ReleaseRows(obtained, handles, nullptr, nullptr, nullptr));
    rows += obtained;
    if (hr == DB_S_ENDOFROWSET) break;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  EXPECT_EQ(kRows, rows);
  EXPECT_TRUE(ordered);
  EXPECT_DOUBLE_EQ(static_cast<double>(kRows) * static_cast<double>(kRows - 1) / 2, sum);
  EXPECT_LT(producedAtFirstBatch, kRows);
  // Rows are one task-allocator block each: a page in the producer queue (values
  // only), a page in the store, a batch held by the consumer.
  EXPECT_LE(peakBlocks, static_cast<int64_t>(3 * kPage + kBatch));
  const long rssAfter = PeakResidentKiB();
  std::printf("streamed %llu rows in %.2f s (%.0f rows/s); peak outstanding row blocks %lld (%.1f MiB of rows); "
              "peak RSS %ld KiB before, %ld KiB after\n",
              static_cast<unsigned long long>(rows), seconds, rows / seconds, static_cast<long long>(peakBlocks),
              peakBlocks * 8256.0 / (1024 * 1024), rssBefore, rssAfter);
#ifndef CORVANE_STREAM_NO_RSS_CHECK
  if (rssBefore > 0) {
    EXPECT_LT(rssAfter - rssBefore, 256 * 1024) << "peak resident set grew by more than 256 MiB";
  }
#endif
  accessor->ReleaseAccessor(h, nullptr);
  accessor->Release();
  rowset->Release();
}

}  // namespace
}  // namespace corvane::test
