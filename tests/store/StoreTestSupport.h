// Column maps, producers and binding helpers shared by the data store suites.
#pragma once
#include <atomic>
#include <cstring>
#include <vector>

#include "base/HistorianInterfaces.h"
#include "platform/Platform.h"
#include "provider/ProviderIRowset.h"
#include "provider/store/DataProvider.h"
#include "provider/store/DataStore.h"
#include "tests/support/LeakCheckedTest.h"

namespace corvane::test {

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

inline ProducedRecord RawRecord(ULONGLONG i) {
  return {Bstr(OLESTR("Plant.Tag1")), StoreValue::FromTime(U64ToFileTime(kJan2024 + i * 10000000ull)), UI4(192),
          R8(static_cast<double>(i))};
}

// RawRecord(first) .. RawRecord(first + count - 1), made when asked for.
class RawBatch : public CRecordBatch {
 public:
  RawBatch(ULONGLONG first, size_t count) : first_(first), count_(count) {}
  size_t Count() const override { return count_; }
  HRESULT Make(size_t i, ProducedRecord& record) override {
    record = RawRecord(first_ + i);
    return S_OK;
  }

 private:
  ULONGLONG first_;
  size_t count_;
};

// A worker-driven producer of `total` RAWDATA records, `page` per step, as records on
// odd steps and as a batch on even ones; each fetch that takes records lets it produce
// the next page. From step `failStep` on, a step fails with `failAtStep` instead.
class PagedProducer : public CDataProvider {
 public:
  PagedProducer(ULONGLONG total, ULONGLONG page, HRESULT failAtStep = S_OK, ULONGLONG failStep = 0)
      : total_(total), page_(page), failWith_(failAtStep), failStep_(failStep) {}
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
      AppendBatch(std::make_unique<RawBatch>(produced_.load(), static_cast<size_t>(end - produced_.load())));
    } else {
      // In records given back, when there are (as a producer that reuses them would).
      page = TakeSpareRecords(static_cast<size_t>(end - produced_.load()));
      page.resize(static_cast<size_t>(end - produced_.load()));
      for (ULONGLONG i = produced_.load(); i < end; ++i) page[static_cast<size_t>(i - produced_.load())] = RawRecord(i);
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
            std::vector<ColumnRecord> columns = RawDataColumns()) {
    auto producer = std::make_unique<PagedProducer>(rows, page);
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

}  // namespace corvane::test
