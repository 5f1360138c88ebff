#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/AllocCounters.h"
#include "provider/store/DataConvert.h"
#include "tests/store/StoreTestSupport.h"
#include "tests/support/TraceCapture.h"

namespace corvane::test {
namespace {

// Same type and value; the bytes of the union a smaller value leaves alone are not compared.
bool SameVariant(const VARIANT& a, const VARIANT& b) {
  if (V_VT(&a) != V_VT(&b)) return false;
  switch (V_VT(&a)) {
    case VT_BSTR: return WString(V_BSTR(&a)) == WString(V_BSTR(&b));
    case VT_I1: case VT_UI1: return V_UI1(&a) == V_UI1(&b);
    case VT_I2: case VT_UI2: case VT_BOOL: return V_UI2(&a) == V_UI2(&b);
    case VT_I4: case VT_UI4: case VT_R4: return V_UI4(&a) == V_UI4(&b);
    default: return V_UI8(&a) == V_UI8(&b);
  }
}

DBSTATUS StatusAt(const BYTE* buffer, const DBBINDING& b) { return ReadAt<DBSTATUS>(buffer, b.obStatus); }

using RowRecycling = LeakCheckedTest;

TEST_F(RowRecycling, ReusedRowsStartEmptyAndKeepNothingOfTheirPast) {
  CDataStore store;
  const std::vector<ColumnRecord> columns = {Column(OLESTR("V"), 1, DBTYPE_VARIANT, 24),
                                            Column(OLESTR("S"), 2, kWStrRef), Column(OLESTR("Q"), 3, DBTYPE_UI4, 4),
                                            Column(OLESTR("T"), 4, DBTYPE_WSTR, 8)};
  ASSERT_EQ(S_OK, store.Initialize(nullptr, columns));
  for (ULONG i = 0; i < 8; ++i) {
    ASSERT_EQ(S_OK, store.AppendRecord({Bstr(OLESTR("owned")), Bstr(OLESTR("by ref")), UI4(i), Bstr(OLESTR("tag"))}));
  }
  auto rows = TakeRows(store, 8);
  ASSERT_EQ(8u, rows.size());
  const platform::AllocCounts held = platform::CurrentAllocCounts();
  ReleaseAll(rows);
  // The released rows' VARIANT strings and by-reference copies are gone at once, even
  // though their buffers stay for the next rows.
  const platform::AllocCounts released = platform::CurrentAllocCounts();
  EXPECT_EQ(held.bstrs - 8, released.bstrs);
  EXPECT_EQ(held.comBlocks - 8, released.comBlocks);

  for (int i = 0; i < 8; ++i) ASSERT_EQ(S_OK, store.AppendRecord(ProducedRecord{R8(i + 0.5)}));
  rows = TakeRows(store, 8);
  ASSERT_EQ(8u, rows.size());
  const DBBINDING b[] = {Binding(1, DBTYPE_R8, 0, 8), Binding(2, kWStrRef, 32, 8), Binding(3, DBTYPE_UI4, 64, 4),
                         Binding(4, DBTYPE_WSTR, 96, 40)};
  for (size_t i = 0; i < rows.size(); ++i) {
    BYTE buffer[192];
    std::memset(buffer, 0xCD, sizeof buffer);
    ASSERT_EQ(S_OK, store.GetData(b, 4, rows[i], buffer));
    EXPECT_DOUBLE_EQ(i + 0.5, ReadAt<double>(buffer, 0));
    for (int k = 1; k < 4; ++k) EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_ISNULL), StatusAt(buffer, b[k])) << k;
    EXPECT_EQ(nullptr, ReadAt<void*>(buffer, 32));
  }
  ReleaseAll(rows);

  // A row's text buffer larger than a free row may keep goes with the row's release.
  CDataStore wide;
  ASSERT_EQ(S_OK, wide.Initialize(nullptr, {Column(OLESTR("T"), 1, DBTYPE_WSTR, 4096)}));
  ASSERT_EQ(S_OK, wide.AppendRecord({Bstr(WString(3000, OLESTR('x')).c_str())}));
  rows = TakeRows(wide, 1);
  ASSERT_EQ(1u, rows.size());
  const auto blocks = platform::CurrentAllocCounts().comBlocks;
  ReleaseAll(rows);
  EXPECT_EQ(blocks - 1, platform::CurrentAllocCounts().comBlocks);
}

TEST_F(RowRecycling, FreeRowsAreBoundedAndGoAtTheEndOfTheRows) {
  CDataStore store;
  ASSERT_EQ(S_OK, store.Initialize(nullptr, RawDataColumns()));
  const platform::AllocCounts empty = platform::CurrentAllocCounts();
  const ULONGLONG kRows = 5000;
  for (ULONGLONG i = 0; i < kRows; ++i) ASSERT_EQ(S_OK, store.AppendRecord(RawRecord(i)));
  auto rows = TakeRows(store, kRows - 1);
  ASSERT_EQ(kRows - 1, rows.size());
  ReleaseAll(rows);
  // The free rows (each with its text buffer) are bounded, whatever was released.
  const int64_t kept = platform::CurrentAllocCounts().comBlocks - empty.comBlocks - 2;
  EXPECT_GT(kept, 0);
  EXPECT_LE(kept, 2 * static_cast<int64_t>(CRefCountedDataStoreRow::Pool::kMaxFreeRows));
  EXPECT_LT(kept, 2 * static_cast<int64_t>(kRows - 1));

  store.SetEndOfData();
  rows = TakeRows(store, 10);
  ASSERT_EQ(1u, rows.size());
  ReleaseAll(rows);
  EXPECT_EQ(empty.comBlocks, platform::CurrentAllocCounts().comBlocks);
}

using RowHandles = RowsetTest;

// Also: GetData without the lock copies every binding of the usual accessor in one pass,
// and leaves the consumer's buffer byte for byte as the locked path does.
TEST_F(RowHandles, OldHandlesStayValidAndDistinctInAnyReleaseOrder) {
  constexpr ULONGLONG kRows = 6000;
  ASSERT_NO_FATAL_FAILURE(Open(kRows, 500));
  const DBBINDING b[] = {Binding(1, DBTYPE_WSTR, 0, 40), Binding(2, DBTYPE_DBTIMESTAMP, 64, 16),
                         Binding(3, DBTYPE_UI4, 112, 4), Binding(4, DBTYPE_VARIANT, 144, 24)};
  HACCESSOR all = 0;
  ASSERT_EQ(S_OK, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 4, b, 0, &all, nullptr));

  std::set<HROW> seen;
  std::vector<std::pair<HROW, double>> kept;  // one row of every tenth batch, held to the end
  std::mt19937 random(7);
  ULONGLONG next = 0;
  std::vector<HROW> released;  // the last batch's, whose slots the next batch reuses
  for (int batch = 0;; ++batch) {
    HROW handles[37];
    HROW* out = handles;
    DBCOUNTITEM obtained = 0;
    const HRESULT hr = rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 37, &obtained, &out);
    ASSERT_TRUE(hr == S_OK || hr == DB_S_ENDOFROWSET);
    for (HROW h : released) ASSERT_EQ(DB_E_BADROWHANDLE, StatusOf(h)) << "batch " << batch;
    std::vector<HROW> order(handles, handles + obtained);
    for (DBCOUNTITEM i = 0; i < obtained; ++i) {
      ASSERT_TRUE(seen.insert(handles[i]).second) << "handle given twice";
      ASSERT_DOUBLE_EQ(static_cast<double>(next + i), ValueOf(handles[i]));
      BYTE locked[224], unlocked[224];
      std::memset(locked, 0xAA, sizeof locked);
      std::memset(unlocked, 0xAA, sizeof unlocked);
      // After ValueOf's accessor this one takes the lock; used again, it does not.
      ASSERT_EQ(S_OK, rowset_->GetData(handles[i], all, locked));
      ASSERT_EQ(S_OK, rowset_->GetData(handles[i], all, unlocked));
      ASSERT_EQ(0, std::memcmp(locked, unlocked, sizeof locked)) << next + i;
    }
    if (obtained && batch % 10 == 0) {
      kept.emplace_back(handles[obtained / 2], static_cast<double>(next + obtained / 2));
      order.erase(order.begin() + static_cast<std::ptrdiff_t>(obtained / 2));
    }
    std::shuffle(order.begin(), order.end(), random);
    for (HROW h : order) ASSERT_EQ(S_OK, rowset_->ReleaseRows(1, &h, nullptr, nullptr, nullptr));
    for (const auto& k : kept) ASSERT_DOUBLE_EQ(k.second, ValueOf(k.first)) << "batch " << batch;
    released = order;
    next += obtained;
    if (hr == DB_S_ENDOFROWSET) break;
  }
  EXPECT_EQ(kRows, next);
  ASSERT_GT(kept.size(), 10u);
  for (const auto& k : kept) {
    EXPECT_EQ(S_OK, rowset_->ReleaseRows(1, &k.first, nullptr, nullptr, nullptr));
    EXPECT_EQ(DB_E_BADROWHANDLE, StatusOf(k.first));
  }
}

// GetData reads without the rowset's lock while other threads fetch (the handle table
// grows and moves old rows aside) and release: every reader sees its own row's value.
TEST_F(RowHandles, ReadersOnOtherThreadsSeeTheirRowsWhileTheTableChanges) {
  constexpr ULONGLONG kRows = 20000;
  ASSERT_NO_FATAL_FAILURE(Open(kRows, 700));

  // Handles go to the readers newest first, until the fetching thread closes the handover.
  std::mutex lock;
  std::vector<std::pair<HROW, double>> handover;
  bool closed = false;
  auto take = [&](std::pair<HROW, double>* item) {
    for (;; std::this_thread::yield()) {
      std::lock_guard<std::mutex> guard(lock);
      if (!handover.empty()) {
        *item = handover.back();
        handover.pop_back();
        return true;
      }
      if (closed) return false;
    }
  };
  std::atomic<int> wrong{0};
  std::atomic<ULONGLONG> read{0};
  auto reader = [&] {
    std::vector<std::pair<HROW, double>> held;  // every 97th row is kept to the end
    for (std::pair<HROW, double> next; take(&next); ++read) {
      if (ValueOf(next.first) != next.second) ++wrong;
      if (static_cast<ULONGLONG>(next.second) % 97 == 0) held.push_back(next);
      else if (rowset_->ReleaseRows(1, &next.first, nullptr, nullptr, nullptr) != S_OK) ++wrong;
    }
    for (const auto& h : held)
      if (ValueOf(h.first) != h.second || rowset_->ReleaseRows(1, &h.first, nullptr, nullptr, nullptr) != S_OK) ++wrong;
  };
  std::thread readers[] = {std::thread(reader), std::thread(reader)};
  ULONGLONG next = 0;
  for (HRESULT hr = S_OK; hr == S_OK;) {
    HROW handles[53];
    HROW* out = handles;
    DBCOUNTITEM obtained = 0;
    hr = rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 53, &obtained, &out);
    std::lock_guard<std::mutex> guard(lock);
    for (DBCOUNTITEM i = 0; i < obtained; ++i) handover.emplace_back(handles[i], static_cast<double>(next + i));
    next += obtained;
    closed = hr != S_OK;
  }
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(kRows, next);
  EXPECT_EQ(kRows, read.load());
  EXPECT_EQ(0, wrong.load());
}

class CellCopies : public LeakCheckedTest {};

// Every binding of a cell gives the value, status and length the conversion service gives for the same source,
// whichever way the store copies it, with or without an accessor's plan.
TEST_F(CellCopies, StoreAndConversionServiceAgree) {
  struct Col { DBTYPE type; ULONGLONG size; StoreValue value; };
  // The second timestamp is in year 30000, which only some conversion libraries take.
  std::vector<Col> cols = {
      {DBTYPE_I1, 1, Variant(VT_I1, -5)}, {DBTYPE_UI2, 2, Variant(VT_UI2, 65535)},
      {DBTYPE_I4, 4, Variant(VT_I4, -123456)}, {DBTYPE_UI4, 4, UI4(192)},
      {DBTYPE_I8, 8, Variant(VT_I8, -(LONGLONG{1} << 40))}, {DBTYPE_R8, 8, R8(2.75)},
      {DBTYPE_DATE, 8, Variant(VT_DATE, 0)},
      {DBTYPE_DBTIMESTAMP, 16, StoreValue::FromTime(U64ToFileTime(kJan2024 + 1234567))},
      {DBTYPE_DBTIMESTAMP, 16, StoreValue::FromTime(U64ToFileTime(0x7FF0000000000000ull))},
      {DBTYPE_VARIANT, 24, R8(1e20)}, {DBTYPE_VARIANT, 24, Variant(VT_I4, 77)},
      {DBTYPE_VARIANT, 24, Bstr(OLESTR("12.5"))}, {DBTYPE_VARIANT, 24, Variant(VT_NULL, 0)},
      {DBTYPE_VARIANT, 24, Variant(VT_ERROR, 0x80020004)},
      {DBTYPE_WSTR, 8, Bstr(OLESTR("Flow.A"))}};
  V_DATE(&cols[6].value.Value) = 45292.25;
  std::vector<ColumnRecord> records;
  ProducedRecord record;
  for (size_t i = 0; i < cols.size(); ++i) {
    records.push_back(Column(OLESTR("C"), i + 1, cols[i].type, cols[i].size));
    record.push_back(cols[i].value);
  }
  CDataStore store;
  ASSERT_EQ(S_OK, store.Initialize(nullptr, records));
  ASSERT_EQ(S_OK, store.AppendRecord(record));
  auto rows = TakeRows(store, 1);
  ASSERT_EQ(1u, rows.size());
  IDataConvert* convert = nullptr;
  ASSERT_EQ(S_OK, CreateDataConvert(&convert));
  TraceCapture traces;
  auto StoreTraces = [](const TraceCapture& capture) {
    std::vector<std::string> lines;
    for (const std::string& text : capture.Texts())
      if (text.rfind("CDataStore::GetData", 0) == 0) lines.push_back(text);
    return lines;
  };

  const DBTYPE targets[] = {DBTYPE_I1, DBTYPE_UI2, DBTYPE_I4, DBTYPE_UI4, DBTYPE_I8, DBTYPE_R8,
                            DBTYPE_DATE, DBTYPE_DBTIMESTAMP, DBTYPE_VARIANT, DBTYPE_WSTR};
  const DBLENGTH wideRoom[] = {14, 13, 12, 2, 64};  // "Flow.A" needs 14 bytes with its terminator
  int compared = 0;
  for (size_t c = 0; c < cols.size(); ++c) {
    const DataStoreColumnInfo& info = store.ColumnInfo()[c];
    alignas(8) BYTE source[64] = {};
    DBLENGTH cbCol = info.ulColumnSize;
    if (info.wType == DBTYPE_WSTR) {
      const StoredText text = CellText(rows[0], info);
      cbCol = 2 * text.length;
      std::memcpy(source, text.text, static_cast<size_t>(cbCol) + 2);
    } else {
      std::memcpy(source, CellValue(rows[0], info), static_cast<size_t>(info.ulColumnSize));
    }
    for (DBTYPE target : targets) {
      if (convert->CanConvert(info.wType, target) != S_OK) continue;
      for (DBLENGTH room : wideRoom) {
        if (target != DBTYPE_WSTR && room != wideRoom[0]) continue;
        const DBLENGTH maxLen = target == DBTYPE_WSTR ? room : 24;
        alignas(8) BYTE viaStore[128], viaService[128], viaPlan[128];
        for (BYTE* bytes : {viaStore, viaService, viaPlan}) std::memset(bytes, 0xEE, sizeof viaStore);
        DBBINDING b = Binding(static_cast<DBORDINAL>(c + 1), target, 0, maxLen);
        b.obLength = 80;
        b.obStatus = 96;
        traces.Clear();
        const HRESULT hrStore = store.GetData(&b, 1, rows[0], viaStore);
        const std::vector<std::string> generalTraces = StoreTraces(traces);
        const std::vector<CDataStore::BindingStep> plan = store.PlanBindings(&b, 1);
        traces.Clear();
        EXPECT_EQ(hrStore, store.GetData(&b, 1, rows[0], viaPlan, plan.data()));
        EXPECT_EQ(generalTraces, StoreTraces(traces));
        // A VARIANT that owns text is a copy of its own; everything else is the same bytes.
        const size_t own = target == DBTYPE_VARIANT && StatusAt(viaPlan, b) == DBSTATUS_S_OK ? sizeof(VARIANT) : 0;
        if (own) {
          EXPECT_TRUE(SameVariant(*reinterpret_cast<VARIANT*>(viaPlan), *reinterpret_cast<VARIANT*>(viaStore)));
          VariantClear(reinterpret_cast<VARIANT*>(viaPlan));
        }
        EXPECT_EQ(0, std::memcmp(viaPlan + own, viaStore + own, sizeof viaPlan - own));
        DBLENGTH length = 0;
        DBSTATUS status = DBSTATUS_S_OK;
        const HRESULT hrService = convert->DataConvert(info.wType, target, cbCol, &length, source, viaService, maxLen,
                                                       DBSTATUS_S_OK, &status, 0, 0, DBDATACONVERT_LENGTHFROMNTS);
        SCOPED_TRACE(testing::Message() << "column " << c << " type " << info.wType << " into " << target
                                        << " room " << maxLen);
        EXPECT_EQ(status, StatusAt(viaStore, b));
        EXPECT_EQ(SUCCEEDED(hrService) && (status == DBSTATUS_S_OK || status == DBSTATUS_S_TRUNCATED ||
                                           status == DBSTATUS_S_ISNULL),
                  hrStore == S_OK);
        if (status != DBSTATUS_S_OK && status != DBSTATUS_S_TRUNCATED) continue;
        EXPECT_EQ(status == DBSTATUS_S_ISNULL ? 0 : length, ReadAt<DBLENGTH>(viaStore, 80));
        if (target == DBTYPE_VARIANT) {
          EXPECT_TRUE(SameVariant(*reinterpret_cast<VARIANT*>(viaStore), *reinterpret_cast<VARIANT*>(viaService)));
          VariantClear(reinterpret_cast<VARIANT*>(viaStore));
          VariantClear(reinterpret_cast<VARIANT*>(viaService));
        } else {
          const DBLENGTH bytes = target == DBTYPE_WSTR ? std::min<DBLENGTH>(length + 2, maxLen) : length;
          EXPECT_EQ(0, std::memcmp(viaStore, viaService, static_cast<size_t>(bytes)));
        }
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 40);
  convert->Release();
  rows[0]->Release();
}

// Timestamp cells of samples in and out of time order, across midnight, leap days and
// years, keep the calendar and the milliseconds FileTimeToSystemTime gives.
TEST_F(CellCopies, TimestampsFollowTheCalendarInAnyOrder) {
  constexpr ULONGLONG kSecond = 10000000ull;
  constexpr ULONGLONG kDay = 86400 * kSecond;
  const ULONGLONG feb28of2024 = kJan2024 + 58 * kDay;
  const ULONGLONG times[] = {kJan2024 + 1234 * 10000,       kJan2024 + kDay - 1,  kJan2024 + kDay,
                             kJan2024 + 5,                 feb28of2024 + kDay - kSecond, feb28of2024 + kDay + 999 * 10000,
                             feb28of2024 + 2 * kDay,        kJan2024 - 1,        kJan2024 + 366 * kDay + 3600 * kSecond,
                             0x8000000000000000ull,        kJan2024 + 2 * kSecond};
  CDataStore store;
  ASSERT_EQ(S_OK, store.Initialize(nullptr, {Column(OLESTR("T"), 1, DBTYPE_DBTIMESTAMP, 16)}));
  for (ULONGLONG t : times) ASSERT_EQ(S_OK, store.AppendRecord(ProducedRecord{StoreValue::FromTime(U64ToFileTime(t))}));
  auto rows = TakeRows(store, std::size(times));
  ASSERT_EQ(std::size(times), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    const DataStoreColumnInfo& info = store.ColumnInfo()[0];
    SYSTEMTIME st;
    const FILETIME ft = U64ToFileTime(times[i]);
    if (!FileTimeToSystemTime(&ft, &st)) {
      EXPECT_EQ(CDataStore::kStatusNull, CellStatus(rows[i], info)) << i;
    } else {
      ASSERT_EQ(CDataStore::kStatusValue, CellStatus(rows[i], info)) << i;
      const DBTIMESTAMP ts = ReadAt<DBTIMESTAMP>(CellValue(rows[i], info), 0);
      EXPECT_EQ(std::make_tuple(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond),
                std::make_tuple(static_cast<WORD>(ts.year), ts.month, ts.day, ts.hour, ts.minute, ts.second)) << i;
      EXPECT_EQ(st.wMilliseconds * 1000000u, ts.fraction) << i;
    }
  }
  ReleaseAll(rows);
}

}  // namespace
}  // namespace corvane::test
