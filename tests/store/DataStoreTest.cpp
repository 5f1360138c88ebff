#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/HistorianInterfaces.h"
#include "platform/AllocCounters.h"
#include "platform/Platform.h"
#include "provider/PropertyEngine.h"
#include "provider/ProviderIRowset.h"
#include "provider/store/DataConvert.h"
#include "provider/store/DataProvider.h"
#include "provider/store/DataStore.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/TraceCapture.h"

namespace corvane::test {

// Column maps, producers and binding helpers of the store suites below.
constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;

inline ColumnRecord Column(const OLECHAR* name, ULONGLONG ordinal, DBTYPE type, ULONGLONG size = 0) {
  ColumnRecord c;
  c.ColumnName = name;
  c.ColumnAlias = name;
  c.Ordinal = ordinal;
  c.wType = type;
  c.ColumnSize = size;
  return c;
}

inline std::vector<ColumnRecord> RawDataColumns() {
  return {Column(OLESTR("TAGNAME"), 1, DBTYPE_WSTR, 4096), Column(OLESTR("TIMESTAMP"), 2, DBTYPE_DBTIMESTAMP, 16),
          Column(OLESTR("QUALITY"), 3, DBTYPE_UI4, 4), Column(OLESTR("VALUE"), 4, DBTYPE_VARIANT, 24)};
}

// A VARIANT of type `vt` whose union holds `bits` (little-endian: V_I4 of 42 is 42).
inline StoreValue Variant(VARTYPE vt, LONGLONG bits) {
  VARIANT v{};
  V_VT(&v) = vt;
  V_I8(&v) = bits;
  return StoreValue::TakeVariant(&v);
}
inline StoreValue UI4(ULONG value) { return Variant(VT_UI4, value); }
inline StoreValue R8(double value) {
  LONGLONG bits;
  std::memcpy(&bits, &value, sizeof bits);
  return Variant(VT_R8, bits);
}
inline StoreValue Bstr(const OLECHAR* text) {
  return Variant(VT_BSTR, reinterpret_cast<LONGLONG>(SysAllocString(text)));
}
// 2024-01-01 00:00:00 UTC.
constexpr ULONGLONG kJan2024 = 133485408000000000ull;
// The timestamp of record i: one a second from kJan2024, unless a producer says otherwise.
using TickOf = ULONGLONG (*)(ULONGLONG i);
inline ULONGLONG SecondsFromJan2024(ULONGLONG i) { return kJan2024 + i * 10000000ull; }

inline ProducedRecord RawRecord(ULONGLONG i, TickOf tick = SecondsFromJan2024) {
  return {Bstr(OLESTR("Plant.Tag1")), StoreValue::FromTime(U64ToFileTime(tick(i))), UI4(192),
          R8(static_cast<double>(i))};
}

// RawRecord(first) .. RawRecord(first + count - 1) laid out as a history page: the tag's
// name lent once, then a sample a record, from which the store may write rows directly.
class RawBatch : public CRecordBatch {
 public:
  RawBatch(ULONGLONG first, size_t count, TickOf tick = SecondsFromJan2024) : samples_(count) {
    tag_.SetText(kTag, std::size(kTag) - 1, true);
    for (size_t i = 0; i < count; ++i) {
      samples_[i].time = U64ToFileTime(tick(first + i));
      V_VT(&samples_[i].value) = VT_R8;
      V_R8(&samples_[i].value) = static_cast<double>(first + i);
    }
  }
  size_t Count() const override { return samples_.size(); }
  HRESULT Make(size_t i, ProducedRecord& record) override {
    record.resize(4);
    record[0].SetText(kTag, std::size(kTag) - 1, true);
    record[1].SetTime(samples_[i].time);
    record[2] = UI4(samples_[i].quality);
    record[3].Take(&samples_[i].value);
    return S_OK;
  }
  std::vector<Field> Layout() const override {
    const auto at = [](const void* field) { return static_cast<const BYTE*>(field); };
    return {{Field::kShared, nullptr, 0, &tag_},
            {Field::kTime, at(&samples_[0].time), sizeof(Sample), nullptr},
            {Field::kUI4, at(&samples_[0].quality), sizeof(Sample), nullptr},
            {Field::kVariant, at(&samples_[0].value), sizeof(Sample), nullptr}};
  }

 private:
  static constexpr OLECHAR kTag[] = OLESTR("Plant.Tag1");
  struct Sample {
    FILETIME time;
    ULONG quality = 192;
    VARIANT value;
  };
  StoreValue tag_;
  std::vector<Sample> samples_;
};

// A worker-driven producer of `total` RAWDATA records, `page` per step, as records on
// odd steps and as a batch on even ones; each fetch that takes records lets it produce
// the next page. From step `failStep` on, a step fails with `failAtStep` instead.
class PagedProducer : public CDataProvider {
 public:
  PagedProducer(ULONGLONG total, ULONGLONG page, HRESULT failAtStep = S_OK, ULONGLONG failStep = 0,
                TickOf tick = SecondsFromJan2024)
      : total_(total), page_(page), failWith_(failAtStep), failStep_(failStep), tick_(tick) {}
  ~PagedProducer() override { StopWorker(); }

  HRESULT GetColumns(std::vector<ColumnRecord>& columns) override {
    columns = RawDataColumns();
    return S_OK;
  }
  HRESULT ExecuteStep() override {
    const ULONGLONG step = ++steps;
    if (FAILED(failWith_) && step >= failStep_) return failWith_;
    ProducedRecordList page;
    const ULONGLONG end = std::min(total_, produced_.load() + page_);
    if (step % 2 == 0) {
      AppendBatch(std::make_unique<RawBatch>(produced_.load(), static_cast<size_t>(end - produced_.load()), tick_));
    } else {
      // In records given back, when there are (as a producer that reuses them would).
      page = TakeSpareRecords(static_cast<size_t>(end - produced_.load()));
      page.resize(static_cast<size_t>(end - produced_.load()));
      for (ULONGLONG i = produced_.load(); i < end; ++i)
        page[static_cast<size_t>(i - produced_.load())] = RawRecord(i, tick_);
      AppendRecords(std::move(page));
    }
    produced_ = end;
    if (end == total_) {
      SetMoreData(false);
      RequestStop();
    }
    return S_OK;
  }
  HRESULT FetchRows(ProducedRecordList& rows, size_t wanted) override {
    ++fetches;
    return CDataProvider::FetchRows(rows, wanted);
  }
  using CDataProvider::EnableRecordReuse;
  using CDataProvider::PushPendingItem;
  using CDataProvider::QueuedRecordCount;
  using CDataProvider::SetMoreData;
  using CDataProvider::TakeSpareRecords;
  std::atomic<ULONGLONG> steps{0};
  std::atomic<int> fetches{0};

 private:
  ULONGLONG total_, page_;
  HRESULT failWith_;
  ULONGLONG failStep_;
  TickOf tick_;
  std::atomic<ULONGLONG> produced_{0};
};

inline DBBINDING Binding(DBORDINAL ordinal, DBTYPE type, DBBYTEOFFSET offset, DBLENGTH maxLen,
                         DBPART parts = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS,
                         DBMEMOWNER owner = DBMEMOWNER_CLIENTOWNED) {
  DBBINDING b;
  std::memset(&b, 0, sizeof b);
  b.iOrdinal = ordinal;
  b.obValue = offset;
  b.obLength = offset + maxLen;
  b.obStatus = offset + maxLen + sizeof(DBLENGTH);
  b.dwPart = parts;
  b.dwMemOwner = owner;
  b.eParamIO = DBPARAMIO_NOTPARAM;
  b.cbMaxLen = maxLen;
  b.wType = type;
  return b;
}

template <typename T>
T ReadAt(const BYTE* buffer, size_t offset) {
  T value;
  std::memcpy(&value, buffer + offset, sizeof value);
  return value;
}

// A cell of `row` as the store laid it out: its status byte, its value, and for a text column the text it points at.
inline BYTE CellStatus(const CRefCountedDataStoreRow* row, const DataStoreColumnInfo& col) {
  return row->Buffer()[col.cbStatus];
}
inline const BYTE* CellValue(const CRefCountedDataStoreRow* row, const DataStoreColumnInfo& col) {
  return row->Buffer() + col.cbOffset;
}
inline StoredText CellText(const CRefCountedDataStoreRow* row, const DataStoreColumnInfo& col) {
  return ReadAt<StoredText>(CellValue(row, col), 0);
}
inline WString CellWideText(const CRefCountedDataStoreRow* row, const DataStoreColumnInfo& col) {
  const StoredText t = CellText(row, col);
  return WString(static_cast<const OLECHAR*>(t.text), t.length);
}

// The next `n` rows of `store` (fewer at its end), and their release.
inline std::vector<CRefCountedDataStoreRow*> TakeRows(CDataStore& store, ULONGLONG n) {
  std::vector<CRefCountedDataStoreRow*> rows;
  store.GetNextRows(0, n, rows);
  return rows;
}
inline void ReleaseAll(std::vector<CRefCountedDataStoreRow*>& rows) {
  for (CRefCountedDataStoreRow* r : rows) r->Release();
  rows.clear();
}

// A rowset over a worker-driven producer of `rows` RAWDATA rows made `page` at a time, with an accessor of VALUE as R8.
class RowsetTest : public LeakCheckedTest {
 protected:
  void Open(ULONGLONG rows, ULONGLONG page = 4, CProviderIRowset::RowsetKind kind = CProviderIRowset::RowsetKind::Command,
            std::vector<ColumnRecord> columns = RawDataColumns(), TickOf tick = SecondsFromJan2024) {
    auto producer = std::make_unique<PagedProducer>(rows, page, S_OK, 0, tick);
    producer_ = producer.get();
    ASSERT_EQ(S_OK, producer->Execute());
    auto store = std::make_unique<CDataStore>();
    ASSERT_EQ(S_OK, store->Initialize(std::move(producer), columns));
    ASSERT_EQ(S_OK, CProviderIRowset::Create(std::move(store), kind, nullptr, IID_IRowset,
                                             reinterpret_cast<void**>(&rowset_)));
    ASSERT_EQ(S_OK, rowset_->QueryInterface(IID_IAccessor, reinterpret_cast<void**>(&accessor_)));
    const DBBINDING b = Binding(4, DBTYPE_R8, 0, 8);
    ASSERT_EQ(S_OK, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 1, &b, 0, &value_, nullptr));
  }
  void TearDown() override {
    if (accessor_) accessor_->Release();
    if (rowset_) rowset_->Release();
    LeakCheckedTest::TearDown();
  }
  // The VALUE of `row`, and what GetData answered for it.
  double ValueOf(HROW row, HRESULT* hr = nullptr) {
    BYTE buffer[64] = {};
    const HRESULT result = rowset_->GetData(row, value_, buffer);
    if (hr) *hr = result;
    return ReadAt<double>(buffer, 0);
  }
  HRESULT StatusOf(HROW row) {
    HRESULT hr = S_OK;
    ValueOf(row, &hr);
    return hr;
  }

  PagedProducer* producer_ = nullptr;
  IRowset* rowset_ = nullptr;
  IAccessor* accessor_ = nullptr;
  HACCESSOR value_ = DB_NULL_HACCESSOR;
};

namespace {

using DataStoreLayout = LeakCheckedTest;

// Every kept type in one row, between one-byte cells: each value aligned for its type,
// no two cells overlapping, the status bytes before them all.
TEST_F(DataStoreLayout, CellsAreAlignedAndDisjointAfterTheStatusBytes) {
  struct Case {
    DBTYPE type;
    ULONGLONG size;
    DBTYPE reported;
    DBLENGTH reportedSize;
    size_t bytes, alignment;  // of the value in the row
  };
  const Case cases[] = {
      {DBTYPE_I2, 2, DBTYPE_I2, 2, 2, 2}, {DBTYPE_BOOL, 2, DBTYPE_BOOL, 2, 2, 2}, {DBTYPE_UI2, 2, DBTYPE_UI2, 2, 2, 2},
      {DBTYPE_I4, 4, DBTYPE_I4, 4, 4, 4}, {DBTYPE_R4, 4, DBTYPE_R4, 4, 4, 4}, {DBTYPE_UI4, 4, DBTYPE_UI4, 4, 4, 4},
      {DBTYPE_R8, 8, DBTYPE_R8, 8, 8, 8}, {DBTYPE_DATE, 8, DBTYPE_DATE, 8, 8, 8}, {DBTYPE_I8, 8, DBTYPE_I8, 8, 8, 8},
      {DBTYPE_UI8, 8, DBTYPE_UI8, 8, 8, 8}, {DBTYPE_VARIANT, 24, DBTYPE_VARIANT, 24, sizeof(VARIANT), 8},
      {DBTYPE_I1, 1, DBTYPE_I1, 1, 1, 1}, {DBTYPE_UI1, 1, DBTYPE_UI1, 1, 1, 1},
      {DBTYPE_WSTR, 4096, DBTYPE_WSTR, 4096, sizeof(StoredText), alignof(StoredText)},
      {DBTYPE_STR, 10, DBTYPE_STR, 10, sizeof(StoredText), alignof(StoredText)},
      {DBTYPE_DBTIMESTAMP, 16, DBTYPE_DBTIMESTAMP, 16, sizeof(DBTIMESTAMP), alignof(DBTIMESTAMP)},
      {DBTYPE_BSTR, 0, kWStrRef, ~0ull, sizeof(void*), alignof(void*)},
      {kWStrRef, 0, kWStrRef, ~0ull, sizeof(void*), alignof(void*)},
      {DBTYPE_STR | DBTYPE_BYREF, 0, DBTYPE_STR | DBTYPE_BYREF, ~0ull, sizeof(void*), alignof(void*)}};
  std::vector<ColumnRecord> columns;
  for (const Case& c : cases) {
    columns.push_back(Column(OLESTR("B"), columns.size() + 1, DBTYPE_I1, 1));
    columns.push_back(Column(OLESTR("C"), columns.size() + 1, c.type, c.size));
  }
  CDataStore store;
  ASSERT_EQ(S_OK, store.BuildColumnInfo(columns));
  ASSERT_EQ(2 * std::size(cases), store.ColumnCount());
  const DataStoreColumnInfo* info = store.ColumnInfo();
  std::vector<std::pair<size_t, size_t>> used;  // [start, end) of every status and value
  for (DBORDINAL i = 0; i < store.ColumnCount(); ++i) {
    const Case& c = cases[i / 2];
    const size_t bytes = i % 2 ? c.bytes : 1;
    SCOPED_TRACE(testing::Message() << "column " << i << " type " << info[i].wType);
    if (i % 2) {
      EXPECT_EQ(c.reported, info[i].wType);
      EXPECT_EQ(c.reportedSize, info[i].ulColumnSize);
      EXPECT_EQ(0u, info[i].cbOffset % c.alignment);
    }
    EXPECT_LT(info[i].cbStatus, info[0].cbOffset);
    EXPECT_LE(info[i].cbOffset + bytes, store.RowSize());
    used.emplace_back(info[i].cbStatus, info[i].cbStatus + 1);
    used.emplace_back(info[i].cbOffset, info[i].cbOffset + bytes);
  }
  std::sort(used.begin(), used.end());
  for (size_t k = 1; k < used.size(); ++k) EXPECT_LE(used[k - 1].second, used[k].first) << k;
  // Built again, the first description is freed; a history row, 4096-character tag name
  // and all, fits in a few cache lines.
  ASSERT_EQ(S_OK, store.BuildColumnInfo(RawDataColumns()));
  EXPECT_LE(store.RowSize(), 80u);
}

// A store of `columns` holding one row made from `record`.
class DataStoreSetValue : public LeakCheckedTest {
 protected:
  void Build(std::vector<ColumnRecord> columns, const ProducedRecord& record = {}) {
    ASSERT_EQ(S_OK, store_->Initialize(nullptr, columns));
    ASSERT_EQ(S_OK, store_->AppendRecord(record));
    row_ = TakeRows(*store_, 1).at(0);
  }
  void TearDown() override {
    if (row_) row_->Release();
    store_.reset();
    LeakCheckedTest::TearDown();
  }
  BYTE Status(int column) { return CellStatus(row_, store_->ColumnInfo()[column]); }
  const BYTE* Value(int column) { return CellValue(row_, store_->ColumnInfo()[column]); }
  WString Text(int column) { return CellWideText(row_, store_->ColumnInfo()[column]); }
  std::string Ansi(int column) {
    const StoredText t = CellText(row_, store_->ColumnInfo()[column]);
    return std::string(static_cast<const char*>(t.text), t.length);
  }
  bool Set(const StoreValue& v, int column) { return store_->SetValue(v, store_->ColumnInfo()[column], row_); }

  std::unique_ptr<CDataStore> store_ = std::make_unique<CDataStore>();
  CRefCountedDataStoreRow* row_ = nullptr;
};

// A value the cell cannot hold exactly (another variant type, an unsupported column type,
// a cell that would end past the row) is refused and leaves the cell null.
TEST_F(DataStoreSetValue, ValuesTheCellCannotHoldAreRefused) {
  Build({Column(OLESTR("Q"), 1, DBTYPE_UI4, 4), Column(OLESTR("T"), 2, DBTYPE_DBTIMESTAMP, 16),
         Column(OLESTR("V"), 3, DBTYPE_R8, 8)});
  EXPECT_FALSE(Set(Variant(VT_I4, 7), 0));
  EXPECT_EQ(0, Status(0));
  EXPECT_FALSE(Set(UI4(1), 1));  // a timestamp cell takes only a timestamp
  EXPECT_FALSE(Set(StoreValue::FromTime(U64ToFileTime(kJan2024)), 2));
  EXPECT_TRUE(Set(UI4(0xC0DE), 0));
  EXPECT_EQ(255, Status(0));
  EXPECT_EQ(0xC0DEu, ReadAt<ULONG>(Value(0), 0));
  EXPECT_TRUE(Set(StoreValue(), 2));  // no value: the cell is null, not refused
  EXPECT_EQ(0, Status(2));
  DataStoreColumnInfo other = store_->ColumnInfo()[0];
  for (DBTYPE type : {DBTYPE{DBTYPE_CY}, DBTYPE{136}}) {
    other.wType = type;
    EXPECT_FALSE(store_->SetValue(UI4(1), other, row_)) << type;
  }
  ASSERT_TRUE(Set(R8(2.5), 2));
  other = store_->ColumnInfo()[2];
  other.cbOffset = row_->Size() - 4;  // the value would end past the row
  EXPECT_TRUE(store_->SetValue(R8(1.5), other, row_));
  EXPECT_EQ(0, row_->Buffer()[other.cbStatus]);
}

// Text given as a BSTR or lent (only its length counts) fills every text cell alike, and
// by-reference and VARIANT cells hold copies of their own.
TEST_F(DataStoreSetValue, TextFromABstrOrLentFillsEveryTextCellWithItsOwnCopy) {
  Build({Column(OLESTR("W"), 1, DBTYPE_WSTR, 4), Column(OLESTR("S"), 2, DBTYPE_STR, 8),
         Column(OLESTR("R"), 3, kWStrRef), Column(OLESTR("A"), 4, DBTYPE_STR | DBTYPE_BYREF),
         Column(OLESTR("B"), 5, DBTYPE_BSTR), Column(OLESTR("V"), 6, DBTYPE_VARIANT, 24),
         Column(OLESTR("N"), 7, DBTYPE_I4)});
  const WString source = OLESTR("Tag.AB|not part of it");
  std::vector<StoreValue> texts(2);
  texts[0].SetText(source.data(), 6);
  texts[1] = Bstr(OLESTR("Tag.AB"));  // set after the lent text: the first copies are freed, not leaked
  for (const StoreValue& text : texts) {
    const OLECHAR* given = &text == &texts[0] ? source.data() : V_BSTR(&text.Value);
    for (int column = 0; column < 6; ++column) EXPECT_TRUE(Set(text, column)) << column;
    EXPECT_EQ(254, Status(0));  // six characters into four
    EXPECT_EQ(WString(OLESTR("Tag.")), Text(0));
    EXPECT_EQ("Tag.AB", Ansi(1));
    for (int column : {2, 4}) {
      const OLECHAR* copy = ReadAt<const OLECHAR*>(Value(column), 0);
      EXPECT_NE(given, copy);
      EXPECT_EQ(WString(OLESTR("Tag.AB")), copy);
    }
    EXPECT_STREQ("Tag.AB", ReadAt<const char*>(Value(3), 0));
    const VARIANT stored = ReadAt<VARIANT>(Value(5), 0);
    ASSERT_EQ(VT_BSTR, V_VT(&stored));
    EXPECT_NE(given, V_BSTR(&stored));
    EXPECT_EQ(WString(OLESTR("Tag.AB")), WString(V_BSTR(&stored), SysStringLen(V_BSTR(&stored))));
    EXPECT_FALSE(Set(text, 6));  // text is not a number
  }
  // A text that just fits is whole; a cut one ends in a terminator; ANSI cells take the ANSI code page.
  EXPECT_TRUE(Set(Bstr(OLESTR("Tag.")), 0));
  EXPECT_EQ(255, Status(0));
  EXPECT_TRUE(Set(Bstr(OLESTR("Tag.ABCDE")), 0));
  EXPECT_EQ(0, static_cast<const OLECHAR*>(CellText(row_, store_->ColumnInfo()[0]).text)[4]);
  EXPECT_TRUE(Set(Bstr(OLESTR("\u00e9t\u00e9 abcdef")), 1));
  EXPECT_EQ(254, Status(1));
  EXPECT_EQ(std::string("\xe9t\xe9 abcd"), Ansi(1));
}

// Lent text repeated row after row (a tag's name, a status text) is kept once for all
// rows; text lent again from the same place with other contents is not taken for it.
TEST_F(DataStoreSetValue, LentTextIsSharedByRowsUntilItChanges) {
  Build({Column(OLESTR("W"), 1, DBTYPE_WSTR, 16)});
  OLECHAR lent[] = OLESTR("Tank.Level");
  ProducedRecord record(1);
  record[0].SetText(lent, 10);
  for (int i = 0; i < 3; ++i) {
    if (i == 2) lent[0] = OLESTR('B');
    ASSERT_EQ(S_OK, store_->AppendRecord(record));
  }
  std::vector<CRefCountedDataStoreRow*> rows;
  ASSERT_EQ(DB_S_ENDOFROWSET, store_->GetNextRows(0, 4, rows));
  ASSERT_EQ(3u, rows.size());
  const DataStoreColumnInfo& col = store_->ColumnInfo()[0];
  EXPECT_EQ(CellText(rows[0], col).text, CellText(rows[1], col).text);
  EXPECT_NE(static_cast<const void*>(lent), CellText(rows[0], col).text);
  EXPECT_EQ(WString(OLESTR("Tank.Level")), CellWideText(rows[1], col));
  EXPECT_EQ(WString(OLESTR("Bank.Level")), CellWideText(rows[2], col));
  ReleaseAll(rows);
}

// Rows made from producer records take shortcuts for the usual cells; they must hold
// exactly what cell-by-cell SetValue would have written.
TEST_F(DataStoreSetValue, RowsFilledFromRecordsHoldWhatSetValueWrites) {
  Build({Column(OLESTR("TAG"), 1, DBTYPE_WSTR, 8), Column(OLESTR("TS"), 2, DBTYPE_DBTIMESTAMP, 16),
         Column(OLESTR("Q"), 3, DBTYPE_UI4, 4), Column(OLESTR("V"), 4, DBTYPE_VARIANT, 24),
         Column(OLESTR("D"), 5, DBTYPE_R8, 8), Column(OLESTR("B"), 6, DBTYPE_BSTR, 8)});
  const OLECHAR* kEight = OLESTR("ABCDEFGH");
  const OLECHAR* kNine = OLESTR("ABCDEFGHI");
  auto lent = [](const OLECHAR* text) {
    StoreValue v;
    v.SetText(text, WLen(text));
    return v;
  };
  auto held = [](const OLECHAR* text) {  // copied into the record list: each copy its own
    StoreValue v;
    std::memcpy(v.OwnTextRoom(WLen(text)), text, WLen(text) * sizeof(OLECHAR));
    v.SetOwnText(WLen(text));
    return v;
  };
  const ULONGLONG kHourAndAHalf = 54000000000ull;
  // Nine characters are one too many (truncated), an I4 is not exactly the cell's type,
  // and the times fall on the same day, the day before and three days later.
  const std::vector<ProducedRecord> records = {
      {lent(kEight), StoreValue::FromTime(U64ToFileTime(kJan2024 + 12345678)), UI4(192), R8(2.5), R8(-1.0),
       lent(kEight)},
      {lent(kNine), StoreValue::FromTime(U64ToFileTime(kJan2024 + kHourAndAHalf + 9999)), Variant(VT_I4, 7),
       Variant(VT_NULL, 0), Variant(VT_R4, 0), Bstr(kNine)},
      {Bstr(OLESTR("")), StoreValue::FromTime(U64ToFileTime(kJan2024 - 1)), StoreValue(), Variant(VT_I8, -5),
       Variant(VT_R8, 0x4000000000000000ll)},
      RawRecord(86400 * 3 + 5),
      {held(kEight), StoreValue::FromTime(U64ToFileTime(kJan2024)), UI4(0), R8(3.5), R8(1.0), held(kNine)},
      {held(kNine)}};

  const DataStoreColumnInfo* columns = store_->ColumnInfo();
  for (size_t r = 0; r < records.size(); ++r) {
    SCOPED_TRACE(r);
    ASSERT_EQ(S_OK, store_->AppendRecord(records[r]));
    std::vector<CRefCountedDataStoreRow*> filled = TakeRows(*store_, 1);
    ASSERT_EQ(1u, filled.size());
    for (size_t c = 0; c < records[r].size(); ++c) {
      if (!Set(records[r][c], static_cast<int>(c))) row_->Buffer()[columns[c].cbStatus] = 0;
    }
    for (size_t c = 0; c < records[r].size(); ++c) {
      SCOPED_TRACE(c);
      ASSERT_EQ(CellStatus(row_, columns[c]), CellStatus(filled[0], columns[c]));
      if (CellStatus(row_, columns[c]) == 0) continue;
      const BYTE* expected = CellValue(row_, columns[c]);
      const BYTE* actual = CellValue(filled[0], columns[c]);
      if (columns[c].wType == DBTYPE_WSTR) {
        EXPECT_EQ(CellWideText(row_, columns[c]), CellWideText(filled[0], columns[c]));
      } else if (columns[c].wType == (DBTYPE_WSTR | DBTYPE_BYREF)) {  // each row owns its copy
        EXPECT_EQ(WString(ReadAt<const OLECHAR*>(expected, 0)), WString(ReadAt<const OLECHAR*>(actual, 0)));
      } else {
        EXPECT_EQ(0, std::memcmp(expected, actual, static_cast<size_t>(columns[c].ulColumnSize)));
      }
    }
    filled[0]->Release();
  }
}

TEST(DataStoreFindColumn, OrdinalMatchWinsElseLastNameMatch) {
  std::vector<ColumnRecord> columns = {Column(OLESTR("VALUE"), 4, DBTYPE_R8), Column(OLESTR("value"), 7, DBTYPE_R8),
                                       Column(OLESTR("OTHER"), 2, DBTYPE_R8)};
  columns[2].ColumnAlias = OLESTR("Alias");
  const struct {
    const OLECHAR* name;
    DBORDINAL ordinal;
    size_t index;
  } cases[] = {{OLESTR("Value"), 4, 0}, {OLESTR("VALUE"), 1, 1}, {OLESTR("ALIAS"), 9, 2},
               {OLESTR("NONE"), 1, CDataStore::kNotFound}};
  size_t index = 99;
  for (const auto& c : cases) {
    EXPECT_EQ(S_OK, CDataStore::FindColumn(columns, c.name, c.ordinal, &index));
    EXPECT_EQ(c.index, index) << c.ordinal;
  }
  EXPECT_EQ(E_FAIL, CDataStore::FindColumn(columns, nullptr, 1, &index));
}

// Each cell's own value, status and length against the conversion service: CellCopies.StoreAndConversionServiceAgree.
// Here, null cells, provider-owned references and what several bindings answer together.
TEST_F(DataStoreSetValue, GetDataOfNullsReferencesAndMixedResults) {
  Build({Column(OLESTR("TAG"), 1, DBTYPE_WSTR, 16), Column(OLESTR("N"), 2, DBTYPE_I4, 4),
         Column(OLESTR("V"), 3, DBTYPE_VARIANT, 24), Column(OLESTR("R"), 4, DBTYPE_BSTR)},
        {Bstr(OLESTR("Tag.A")), Variant(VT_I4, 42), R8(1e20), StoreValue()});
  BYTE buffer[512];
  auto StatusOf = [&](const DBBINDING& b) { return ReadAt<DBSTATUS>(buffer, b.obStatus); };
  auto LengthOf = [&](const DBBINDING& b) { return ReadAt<DBLENGTH>(buffer, b.obLength); };
  const DBBINDING nulls[] = {Binding(4, DBTYPE_WSTR, 0, 40), Binding(4, kWStrRef, 64, 8)};
  std::memset(buffer, 0xAB, sizeof buffer);
  EXPECT_EQ(S_OK, store_->GetData(nulls, 2, row_, buffer));
  EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_ISNULL), StatusOf(nulls[0]));
  EXPECT_EQ(0u, LengthOf(nulls[0]));
  EXPECT_EQ(nullptr, ReadAt<void*>(buffer, 64));

  const DBBINDING owned = Binding(1, kWStrRef, 0, 8, DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS,
                                  DBMEMOWNER_PROVIDEROWNED);
  EXPECT_EQ(S_OK, store_->GetData(&owned, 1, row_, buffer));
  const OLECHAR* pointer = ReadAt<const OLECHAR*>(buffer, 0);
  EXPECT_EQ(CellText(row_, store_->ColumnInfo()[0]).text, pointer);
  EXPECT_EQ(WString(OLESTR("Tag.A")), pointer);
  EXPECT_EQ(10u, LengthOf(owned));
  EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_OK), StatusOf(owned));

  const DBBINDING mixed[] = {Binding(2, DBTYPE_R8, 0, 8), Binding(3, DBTYPE_I4, 64, 4)};
  EXPECT_EQ(DB_S_ERRORSOCCURRED, store_->GetData(mixed, 2, row_, buffer));
  EXPECT_DOUBLE_EQ(42.0, ReadAt<double>(buffer, 0));
  EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_E_DATAOVERFLOW), StatusOf(mixed[1]));
  EXPECT_EQ(DB_E_ERRORSOCCURRED, store_->GetData(&mixed[1], 1, row_, buffer));
  const DBBINDING badOrdinal = Binding(5, DBTYPE_I4, 0, 4);
  EXPECT_EQ(DB_E_BADORDINAL, store_->GetData(&badOrdinal, 1, row_, buffer));
}

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

class RowsetFetch : public RowsetTest {
 protected:
  // One of the rowset's interfaces, released by the caller.
  template <typename T>
  T* As(REFIID iid) {
    T* p = nullptr;
    EXPECT_EQ(S_OK, rowset_->QueryInterface(iid, reinterpret_cast<void**>(&p)));
    return p;
  }
  HRESULT SameRow(HROW a, HROW b) {
    IRowsetIdentity* identity = As<IRowsetIdentity>(IID_IRowsetIdentity);
    const HRESULT hr = identity->IsSameRow(a, b);
    identity->Release();
    return hr;
  }
};
using RowsetAccessor = RowsetFetch;
using RowsetDescription = RowsetFetch;

const DBPROP* Find(const DBPROPSET& set, DBPROPID id) {
  for (ULONG i = 0; i < set.cProperties; ++i)
    if (set.rgProperties[i].dwPropertyID == id) return &set.rgProperties[i];
  return nullptr;
}

// Bad arguments are refused before the store is asked; then handles come distinct and
// nonzero whether the rowset allocates their array or the consumer supplies it, and a
// held row outlives the store's queue, counted, until its last release.
TEST_F(RowsetFetch, ArgumentsAreCheckedThenHandlesAreDistinctAndHeldRowsCounted) {
  Open(10);
  DBCOUNTITEM obtained = 99;
  HROW* allocated = nullptr;
  EXPECT_EQ(E_INVALIDARG, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 1, nullptr, &allocated));
  EXPECT_EQ(E_INVALIDARG, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 1, &obtained, nullptr));
  EXPECT_EQ(S_OK, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 0, &obtained, &allocated));
  EXPECT_EQ(0u, obtained);
  EXPECT_EQ(0, producer_->fetches.load());
  EXPECT_EQ(DB_E_CANTSCROLLBACKWARDS, rowset_->GetNextRows(DB_NULL_HCHAPTER, -1, 1, &obtained, &allocated));
  EXPECT_EQ(DB_E_CANTFETCHBACKWARDS, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, -1, &obtained, &allocated));
  EXPECT_EQ(nullptr, allocated);
  EXPECT_EQ(S_OK, rowset_->RestartPosition(DB_NULL_HCHAPTER));  // nothing fetched yet

  ASSERT_EQ(S_OK, rowset_->GetNextRows(DB_NULL_HCHAPTER, 1, 3, &obtained, &allocated));
  ASSERT_EQ(3u, obtained);
  HROW supplied[8] = {};
  HROW* inPlace = supplied;
  ASSERT_EQ(S_OK, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 4, &obtained, &inPlace));
  EXPECT_EQ(supplied, inPlace);
  ASSERT_EQ(4u, obtained);
  EXPECT_EQ(DB_S_ENDOFROWSET, rowset_->GetNextRows(DB_NULL_HCHAPTER, 10, 1, &obtained, &inPlace));
  EXPECT_EQ(0u, obtained);  // skipped past the end: the store dropped the two rows left
  std::set<HROW> seen(allocated, allocated + 3);
  seen.insert(supplied, supplied + 4);
  EXPECT_EQ(7u, seen.size());
  EXPECT_EQ(0u, seen.count(DB_NULL_HROW));
  EXPECT_EQ(S_FALSE, SameRow(allocated[0], supplied[0]));
  EXPECT_DOUBLE_EQ(7.0, ValueOf(supplied[3]));
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(4, supplied, nullptr, nullptr, nullptr));
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(2, allocated + 1, nullptr, nullptr, nullptr));

  const HROW first = allocated[0];
  CoTaskMemFree(allocated);
  DBREFCOUNT refs = 0;
  DBROWSTATUS status = 99;
  EXPECT_EQ(S_OK, rowset_->AddRefRows(1, &first, &refs, &status));
  EXPECT_EQ(2u, refs);
  EXPECT_DOUBLE_EQ(1.0, ValueOf(first));  // the first row was skipped
  EXPECT_EQ(S_OK, SameRow(first, first));
  const HROW both[] = {first, 12345};
  DBROWSTATUS statuses[2];
  DBREFCOUNT counts[2];
  EXPECT_EQ(DB_S_ERRORSOCCURRED, rowset_->ReleaseRows(2, both, nullptr, counts, statuses));
  EXPECT_EQ(1u, counts[0]);
  EXPECT_EQ(static_cast<DBROWSTATUS>(DBROWSTATUS_E_INVALID), statuses[1]);
  EXPECT_DOUBLE_EQ(1.0, ValueOf(first));
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(1, &first, nullptr, counts, nullptr));
  EXPECT_EQ(0u, counts[0]);
  EXPECT_EQ(DB_E_BADROWHANDLE, StatusOf(first));
  EXPECT_EQ(DB_E_ERRORSOCCURRED, rowset_->ReleaseRows(1, &first, nullptr, nullptr, nullptr));
  EXPECT_EQ(DB_E_BADROWHANDLE, SameRow(first, first));
  EXPECT_EQ(DB_E_CANNOTRESTART, rowset_->RestartPosition(DB_NULL_HCHAPTER));
}

// The same samples as records and as a page: the page's rows are written a column at a
// time from where the page lies, the records' rows one record at a time, and each pair
// answers alike, whether the accessor copies (planned) or converts, across the
// calendar's edges; the rows are read after the store moved past the page.
ULONGLONG EdgeTick(ULONGLONG i) {
  // A page: kJan2024, 12:34:56.789 and the last tick of that day (the fill's quick path,
  // on the day of the page's first row), 1601-01-01, 1900-02-28 23:59:59.999, 1900-03-01,
  // 2000-02-29 12:34:56.789, a tick before 2025, the last millisecond of 9999,
  // 10000-01-01, and a time FileTimeToSystemTime refuses.
  static const ULONGLONG kEdges[] = {kJan2024,           133485860967890000,  133486271999999999,
                                     0,                  94405823999990000,   94405824000000000,
                                     125963012967890000, 133801631999999999,  2650467743999990000,
                                     2650467744000000000, 0x8000000000000000};
  return kEdges[i % std::size(kEdges)];
}

TEST_F(RowsetFetch, RowsOfAPageAnswerAsTheirTwinsFromRecords) {
  constexpr DBCOUNTITEM kPage = 11;
  Open(2 * kPage, kPage, CProviderIRowset::RowsetKind::Command, RawDataColumns(), EdgeTick);
  const DBBINDING copies[] = {Binding(1, DBTYPE_WSTR, 0, 64), Binding(2, DBTYPE_DBTIMESTAMP, 80, 16),
                              Binding(3, DBTYPE_UI4, 112, 4), Binding(4, DBTYPE_VARIANT, 128, 24)};
  const DBBINDING converts[] = {Binding(2, DBTYPE_WSTR, 0, 64), Binding(4, DBTYPE_WSTR, 80, 64)};
  HACCESSOR planned = DB_NULL_HACCESSOR, general = DB_NULL_HACCESSOR;
  ASSERT_EQ(S_OK, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 4, copies, 0, &planned, nullptr));
  ASSERT_EQ(S_OK, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 2, converts, 0, &general, nullptr));
  DBCOUNTITEM obtained = 0;
  HROW rows[2 * kPage];
  HROW* out = rows;
  ASSERT_EQ(DB_S_ENDOFROWSET, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 2 * kPage + 1, &obtained, &out));
  ASSERT_EQ(2 * kPage, obtained);
  auto read = [&](HROW row, HACCESSOR accessor, HRESULT* hr) {
    std::vector<BYTE> buffer(192, 0xCD);
    *hr = rowset_->GetData(row, accessor, buffer.data());
    return buffer;
  };
  for (DBCOUNTITEM i = 1; i < kPage; ++i) {
    HRESULT hrRecord, hrPage;
    const std::vector<BYTE> record = read(rows[i], planned, &hrRecord), page = read(rows[kPage + i], planned, &hrPage);
    EXPECT_EQ(hrRecord, hrPage) << i;
    EXPECT_EQ(0, std::memcmp(record.data(), page.data(), 128)) << i;  // all but VALUE, which is the row's number
    EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_OK), ReadAt<DBSTATUS>(page.data(), copies[3].obStatus)) << i;
    EXPECT_EQ(static_cast<double>(kPage + i), V_R8(reinterpret_cast<const VARIANT*>(page.data() + 128))) << i;
    SYSTEMTIME st;
    const FILETIME ft = U64ToFileTime(EdgeTick(i));
    if (FileTimeToSystemTime(&ft, &st) && st.wYear <= 9999) {
      ASSERT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_OK), ReadAt<DBSTATUS>(page.data(), copies[1].obStatus)) << i;
      const DBTIMESTAMP ts = ReadAt<DBTIMESTAMP>(page.data(), 80);
      EXPECT_EQ(std::make_tuple(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds * 1000000u),
                std::make_tuple(static_cast<WORD>(ts.year), ts.month, ts.day, ts.hour, ts.minute, ts.second, ts.fraction))
          << i;
    }
    const std::vector<BYTE> recordText = read(rows[i], general, &hrRecord), pageText = read(rows[kPage + i], general, &hrPage);
    EXPECT_EQ(hrRecord, hrPage) << i;
    EXPECT_EQ(0, std::memcmp(recordText.data(), pageText.data(), 80)) << i;  // the timestamp as text
  }
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(2 * kPage, rows, nullptr, nullptr, nullptr));
  accessor_->ReleaseAccessor(planned, nullptr);
  accessor_->ReleaseAccessor(general, nullptr);
}

// Bindings are checked one by one and the accessor is refused as a whole; an accepted
// accessor is counted and gives back its bindings.
TEST_F(RowsetAccessor, BindingsAreValidatedThenAccessorsAreCountedAndGiveBackTheirBindings) {
  Open(1);
  const DBBINDING bad[] = {Binding(4, DBTYPE_R8, 0, 8), Binding(9, DBTYPE_R8, 0, 8),
                           Binding(1, DBTYPE_WSTR, 0, 8, DBPART_VALUE, DBMEMOWNER_PROVIDEROWNED),
                           Binding(3, DBTYPE_IUNKNOWN, 0, 8), Binding(1, DBTYPE_WSTR, 0, 8, 0)};
  DBBINDSTATUS status[5];
  HACCESSOR h = 77;
  EXPECT_EQ(DB_E_BADBINDINFO, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 5, bad, 0, &h, status));
  EXPECT_EQ(DB_NULL_HACCESSOR, h);
  EXPECT_EQ((std::vector<DBBINDSTATUS>{DBBINDSTATUS_OK, DBBINDSTATUS_BADORDINAL, DBBINDSTATUS_BADBINDINFO,
                                       DBBINDSTATUS_UNSUPPORTEDCONVERSION, DBBINDSTATUS_BADBINDINFO}),
            std::vector<DBBINDSTATUS>(status, status + 5));
  EXPECT_EQ(DB_E_BADACCESSORFLAGS, accessor_->CreateAccessor(DBACCESSOR_PARAMETERDATA, 1, bad, 0, &h, nullptr));
  EXPECT_EQ(DB_E_BYREFACCESSORNOTSUPPORTED,
            accessor_->CreateAccessor(DBACCESSOR_ROWDATA | DBACCESSOR_PASSBYREF, 1, bad, 0, &h, nullptr));
  EXPECT_EQ(DB_E_NULLACCESSORNOTSUPPORTED, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 0, bad, 0, &h, nullptr));

  const DBBINDING b[] = {Binding(1, kWStrRef, 0, 8, DBPART_VALUE, DBMEMOWNER_PROVIDEROWNED),
                         Binding(2, DBTYPE_DBTIMESTAMP, 16, 16)};
  ASSERT_EQ(S_OK, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 2, b, 0, &h, nullptr));
  EXPECT_NE(DB_NULL_HACCESSOR, h);
  DBREFCOUNT refs = 0;
  EXPECT_EQ(S_OK, accessor_->AddRefAccessor(h, &refs));
  EXPECT_EQ(2u, refs);
  DBACCESSORFLAGS flags = 0;
  DBCOUNTITEM count = 0;
  DBBINDING* copy = nullptr;
  ASSERT_EQ(S_OK, accessor_->GetBindings(h, &flags, &count, &copy));
  EXPECT_EQ(static_cast<DBACCESSORFLAGS>(DBACCESSOR_ROWDATA), flags);
  ASSERT_EQ(2u, count);
  EXPECT_EQ(0, std::memcmp(b, copy, sizeof b));
  CoTaskMemFree(copy);
  EXPECT_EQ(S_OK, accessor_->ReleaseAccessor(h, &refs));
  EXPECT_EQ(1u, refs);
  EXPECT_EQ(S_OK, accessor_->ReleaseAccessor(h, &refs));
  EXPECT_EQ(0u, refs);
  EXPECT_EQ(DB_E_BADACCESSORHANDLE, accessor_->ReleaseAccessor(h, &refs));
  EXPECT_EQ(DB_E_BADACCESSORHANDLE, accessor_->GetBindings(h, &flags, &count, &copy));
}

TEST_F(RowsetDescription, ColumnsAreDescribedAndMappedByName) {
  std::vector<ColumnRecord> columns = RawDataColumns();
  columns.insert(columns.begin() + 1, Column(OLESTR("MONEY"), 2, DBTYPE_CY, 8));
  Open(1, 4, CProviderIRowset::RowsetKind::Command, columns);
  IColumnsInfo* info = As<IColumnsInfo>(IID_IColumnsInfo);
  DBORDINAL n = 0;
  DBCOLUMNINFO* cols = nullptr;
  OLECHAR* strings = nullptr;
  ASSERT_EQ(S_OK, info->GetColumnInfo(&n, &cols, &strings));
  ASSERT_EQ(4u, n);
  EXPECT_EQ(WString(OLESTR("VALUE")), cols[3].pwszName);
  EXPECT_EQ(5u, cols[3].iOrdinal);
  EXPECT_EQ(WString(OLESTR("TIMESTAMP")), cols[1].columnid.uName.pwszName);
  EXPECT_EQ(DBTYPE_DBTIMESTAMP, cols[1].wType);
  CoTaskMemFree(cols);
  CoTaskMemFree(strings);
  DBID ids[2] = {{{}, DBKIND_NAME, {const_cast<LPOLESTR>(OLESTR("quality"))}},
                 {{}, DBKIND_NAME, {const_cast<LPOLESTR>(OLESTR("MONEY"))}}};
  DBORDINAL ordinals[2];
  EXPECT_EQ(DB_S_ERRORSOCCURRED, info->MapColumnIDs(2, ids, ordinals));
  EXPECT_EQ(4u, ordinals[0]);
  EXPECT_EQ(DB_INVALIDCOLUMN, ordinals[1]);
  info->Release();
}

// A table rowset can fetch backwards and has no bookmarks; a command rowset offers the bookmark properties as false.
TEST_F(RowsetDescription, PropertiesDependOnTheKindOfRowset) {
  const struct {
    CProviderIRowset::RowsetKind kind;
    DBPROPID present, absent;
    VARIANT_BOOL value;
  } kinds[] = {{CProviderIRowset::RowsetKind::Command, DBPROP_BOOKMARKS, DBPROP_MAXROWS, VARIANT_FALSE},
               {CProviderIRowset::RowsetKind::Table, DBPROP_CANFETCHBACKWARDS, DBPROP_BOOKMARKS, VARIANT_TRUE}};
  for (const auto& k : kinds) {
    if (rowset_) rowset_->Release(), accessor_->Release();
    Open(1, 4, k.kind);
    IRowsetInfo* info = As<IRowsetInfo>(IID_IRowsetInfo);
    ULONG n = 0;
    DBPROPSET* sets = nullptr;
    ASSERT_EQ(S_OK, info->GetProperties(0, nullptr, &n, &sets));
    ASSERT_EQ(1u, n);
    const DBPROP* present = Find(sets[0], k.present);
    ASSERT_NE(nullptr, present);
    EXPECT_EQ(k.value, V_BOOL(&present->vValue));
    EXPECT_EQ(nullptr, Find(sets[0], k.absent));
    CPropertyEngine::FreePropertySets(n, sets);
    info->Release();
  }
  // The table rowset: a request names its property set.
  IRowsetInfo* info = As<IRowsetInfo>(IID_IRowsetInfo);
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  DBPROPID ids[] = {DBPROP_MAXROWS, DBPROP_BOOKMARKS};
  DBPROPIDSET request = {ids, 2, {0xC8B522BE, 0x5CF3, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}}};
  ASSERT_EQ(DB_S_ERRORSOCCURRED, info->GetProperties(1, &request, &n, &sets));
  EXPECT_EQ(static_cast<DBPROPSTATUS>(DBPROPSTATUS_OK), sets[0].rgProperties[0].dwStatus);
  EXPECT_EQ(static_cast<DBPROPSTATUS>(DBPROPSTATUS_NOTSUPPORTED), sets[0].rgProperties[1].dwStatus);
  CPropertyEngine::FreePropertySets(n, sets);
  request.guidPropertySet = IID_IRowset;  // not a property set of a rowset
  EXPECT_EQ(DB_E_ERRORSOCCURRED, info->GetProperties(1, &request, &n, &sets));
  CPropertyEngine::FreePropertySets(n, sets);
  IUnknown* creator = reinterpret_cast<IUnknown*>(1);
  EXPECT_EQ(S_FALSE, info->GetSpecification(IID_IUnknown, &creator));
  EXPECT_EQ(nullptr, creator);
  info->Release();
  IConvertType* convert = As<IConvertType>(IID_IConvertType);
  EXPECT_EQ(S_OK, convert->CanConvert(DBTYPE_I4, DBTYPE_WSTR, DBCONVERTFLAGS_COLUMN));
  EXPECT_EQ(DB_E_BADCONVERTFLAG, convert->CanConvert(DBTYPE_I4, DBTYPE_WSTR, DBCONVERTFLAGS_PARAMETER));
  EXPECT_EQ(DB_E_BADCONVERTFLAG, convert->CanConvert(DBTYPE_I4, DBTYPE_WSTR, DBCONVERTFLAGS_ISLONG));
  convert->Release();
}

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
// The lock-free copy tells a row whose bound columns all hold values by one compare of
// their status bytes: a null in any of them, and only there, must still read as a null.
TEST_F(CellCopies, PlannedCopiesTellEachNullFromAValue) {
  CDataStore store;
  ASSERT_EQ(S_OK, store.Initialize(nullptr, RawDataColumns()));
  for (int row = 0; row < 5; ++row) {
    ProducedRecord record = RawRecord(static_cast<ULONGLONG>(row));
    if (row > 0) record[static_cast<size_t>(row - 1)] = StoreValue();  // row r: column r null
    ASSERT_EQ(S_OK, store.AppendRecord(record));
  }
  auto rows = TakeRows(store, 5);
  ASSERT_EQ(5u, rows.size());
  const DBBINDING b[] = {Binding(1, DBTYPE_WSTR, 0, 64), Binding(2, DBTYPE_DBTIMESTAMP, 80, 16),
                         Binding(3, DBTYPE_UI4, 112, 4), Binding(4, DBTYPE_VARIANT, 128, 24)};
  const std::vector<CDataStore::BindingStep> plan = store.PlanBindings(b, 4);
  for (size_t row = 0; row < rows.size(); ++row) {
    alignas(8) BYTE buffer[192];
    std::memset(buffer, 0xCD, sizeof buffer);
    ASSERT_TRUE(store.CopyPlanned(b, 4, plan.data(), rows[row], buffer)) << row;
    for (size_t k = 0; k < 4; ++k) {
      const bool null = row == k + 1;
      EXPECT_EQ(static_cast<DBSTATUS>(null ? DBSTATUS_S_ISNULL : DBSTATUS_S_OK), StatusAt(buffer, b[k])) << row << k;
      if (null) {
        EXPECT_EQ(0u, ReadAt<DBLENGTH>(buffer, b[k].obLength)) << row << k;
      }
    }
    if (row != 4) {
      EXPECT_DOUBLE_EQ(static_cast<double>(row), V_R8(reinterpret_cast<VARIANT*>(buffer + 128)));
    }
  }
  ReleaseAll(rows);
}

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
