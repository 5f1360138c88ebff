#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "provider/store/DataStore.h"
#include "tests/store/StoreTestSupport.h"
#include "tests/support/LeakCheckedTest.h"

namespace corvane::test {
namespace {

constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;

// ---- Row layout

struct LayoutCase {
  DBTYPE type;
  ULONGLONG size;
  DBTYPE reported;
  DBLENGTH reportedSize;
  DBBYTEOFFSET nextOffset;  // of the column after it, when it starts at offset 2
};

class DataStoreLayout : public LeakCheckedTest, public ::testing::WithParamInterface<LayoutCase> {};

TEST_P(DataStoreLayout, CellFollowsStatusByteAndRoundsToTheValueAlignment) {
  const LayoutCase& c = GetParam();
  CDataStore store;
  ASSERT_EQ(S_OK, store.BuildColumnInfo({Column(OLESTR("A"), 1, DBTYPE_I1, 1), Column(OLESTR("B"), 2, c.type, c.size),
                                         Column(OLESTR("C"), 3, DBTYPE_I1, 1)}));
  ASSERT_EQ(3u, store.ColumnCount());
  const DataStoreColumnInfo* info = store.ColumnInfo();
  EXPECT_EQ(2u, info[1].cbOffset);
  EXPECT_EQ(c.reported, info[1].wType);
  EXPECT_EQ(c.reportedSize, info[1].ulColumnSize);
  EXPECT_EQ(c.nextOffset, info[2].cbOffset);
  EXPECT_EQ(c.nextOffset + 2, store.RowSize());
}

INSTANTIATE_TEST_SUITE_P(
    EveryType, DataStoreLayout,
    ::testing::Values(LayoutCase{DBTYPE_I2, 2, DBTYPE_I2, 2, 6}, LayoutCase{DBTYPE_BOOL, 2, DBTYPE_BOOL, 2, 6},
                      LayoutCase{DBTYPE_UI2, 2, DBTYPE_UI2, 2, 6}, LayoutCase{DBTYPE_I4, 4, DBTYPE_I4, 4, 8},
                      LayoutCase{DBTYPE_R4, 4, DBTYPE_R4, 4, 8}, LayoutCase{DBTYPE_UI4, 4, DBTYPE_UI4, 4, 8},
                      LayoutCase{DBTYPE_R8, 8, DBTYPE_R8, 8, 16}, LayoutCase{DBTYPE_DATE, 8, DBTYPE_DATE, 8, 16},
                      LayoutCase{DBTYPE_I8, 8, DBTYPE_I8, 8, 16}, LayoutCase{DBTYPE_UI8, 8, DBTYPE_UI8, 8, 16},
                      LayoutCase{DBTYPE_VARIANT, 24, DBTYPE_VARIANT, 24, 32},
                      LayoutCase{DBTYPE_I1, 1, DBTYPE_I1, 1, 4}, LayoutCase{DBTYPE_UI1, 1, DBTYPE_UI1, 1, 4},
                      LayoutCase{DBTYPE_WSTR, 10, DBTYPE_WSTR, 10, 26}, LayoutCase{DBTYPE_STR, 10, DBTYPE_STR, 10, 14},
                      LayoutCase{DBTYPE_DBTIMESTAMP, 16, DBTYPE_DBTIMESTAMP, 16, 20},
                      LayoutCase{DBTYPE_BSTR, 0, kWStrRef, ~0ull, 16}, LayoutCase{kWStrRef, 0, kWStrRef, ~0ull, 16},
                      LayoutCase{DBTYPE_STR | DBTYPE_BYREF, 0, DBTYPE_STR | DBTYPE_BYREF, ~0ull, 16}));

class DataStoreDescription : public LeakCheckedTest {};

TEST_F(DataStoreDescription, RawDataRowAndDroppedTypesKeepTheirOrdinal) {
  CDataStore store;
  std::vector<ColumnRecord> columns = RawDataColumns();
  columns.insert(columns.begin() + 1, Column(OLESTR("MONEY"), 2, DBTYPE_CY, 8));
  ASSERT_EQ(S_OK, store.BuildColumnInfo(columns));
  ASSERT_EQ(4u, store.ColumnCount());
  const DataStoreColumnInfo* info = store.ColumnInfo();
  const DBBYTEOFFSET offsets[] = {0, 8196, 8216, 8224};
  const DBORDINAL ordinals[] = {1, 3, 4, 5};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(offsets[i], info[i].cbOffset) << i;
    EXPECT_EQ(ordinals[i], info[i].iOrdinal) << i;
    EXPECT_EQ(255, info[i].bPrecision);
    EXPECT_EQ(255, info[i].bScale);
    EXPECT_EQ(nullptr, info[i].pTypeInfo);
    EXPECT_EQ(static_cast<DBKIND>(DBKIND_NAME), info[i].columnid.eKind);
    EXPECT_EQ(info[i].pwszName, info[i].columnid.uName.pwszName);
  }
  EXPECT_EQ(WString(OLESTR("TIMESTAMP")), info[1].pwszName);
  EXPECT_EQ(8256u, store.RowSize());
  EXPECT_EQ(S_OK, store.BuildColumnInfo({}));  // rebuilding frees the first description
  EXPECT_EQ(0u, store.ColumnCount());
  EXPECT_EQ(0u, store.RowSize());
}

// ---- SetValue

class DataStoreSetValue : public LeakCheckedTest {
 protected:
  void Build(std::vector<ColumnRecord> columns) {
    ASSERT_EQ(S_OK, store_->Initialize(nullptr, columns));
    ASSERT_EQ(S_OK, store_->AppendRecord({}));
    std::vector<CRefCountedDataStoreRow*> rows;
    ASSERT_EQ(S_OK, store_->GetNextRows(0, 1, rows));
    row_ = rows[0];
  }
  void TearDown() override {
    if (row_) row_->Release();
    store_.reset();
    LeakCheckedTest::TearDown();
  }
  BYTE Status(int column) { return row_->Buffer()[store_->ColumnInfo()[column].cbOffset]; }
  const BYTE* Value(int column) { return row_->Buffer() + store_->ColumnInfo()[column].cbOffset + 1; }
  bool Set(const StoreValue& v, int column) { return store_->SetValue(v, store_->ColumnInfo()[column], row_); }

  std::unique_ptr<CDataStore> store_ = std::make_unique<CDataStore>();
  CRefCountedDataStoreRow* row_ = nullptr;
};

TEST_F(DataStoreSetValue, ScalarsNeedExactlyTheirVariantType) {
  Build({Column(OLESTR("Q"), 1, DBTYPE_UI4, 4), Column(OLESTR("T"), 2, DBTYPE_DBTIMESTAMP, 16),
         Column(OLESTR("V"), 3, DBTYPE_R8, 8)});
  EXPECT_FALSE(Set(Variant(VT_I4, 7), 0));
  EXPECT_EQ(0, Status(0));
  EXPECT_FALSE(Set(UI4(1), 1));  // a timestamp cell takes only a timestamp
  EXPECT_FALSE(Set(StoreValue::FromTime(FileTimeOf(kJan2024)), 2));
  EXPECT_TRUE(Set(UI4(0xC0DE), 0));
  EXPECT_EQ(255, Status(0));
  EXPECT_EQ(0xC0DEu, ReadAt<ULONG>(Value(0), 0));
  EXPECT_TRUE(Set(StoreValue(), 2));  // no value: the cell is null, not refused
  EXPECT_EQ(0, Status(2));
}

TEST_F(DataStoreSetValue, UnsupportedColumnTypesAreRefused) {
  Build({Column(OLESTR("Q"), 1, DBTYPE_UI4, 4)});
  DataStoreColumnInfo money = store_->ColumnInfo()[0];
  money.wType = DBTYPE_CY;
  EXPECT_FALSE(store_->SetValue(UI4(1), money, row_));
  money.wType = 136;
  EXPECT_FALSE(store_->SetValue(UI4(1), money, row_));
}

TEST_F(DataStoreSetValue, WideTextIsTruncatedToTheColumnSizeWithStatus254) {
  Build(RawDataColumns());
  const WString fits(4096, OLESTR('x'));
  EXPECT_TRUE(Set(Bstr(fits.c_str()), 0));
  EXPECT_EQ(255, Status(0));
  WString tooLong(4096, OLESTR('y'));
  tooLong += OLESTR('z');
  EXPECT_TRUE(Set(Bstr(tooLong.c_str()), 0));
  EXPECT_EQ(254, Status(0));
  WString stored(4097, 0);
  std::memcpy(&stored[0], Value(0), 4097 * sizeof(OLECHAR));
  EXPECT_EQ(WString(4096, OLESTR('y')), stored.substr(0, 4096));
  EXPECT_EQ(0, stored[4096]);
}

TEST_F(DataStoreSetValue, AnsiCellsUseTheAnsiCodePageAndTruncate) {
  Build({Column(OLESTR("S"), 1, DBTYPE_STR, 3)});
  EXPECT_TRUE(Set(Bstr(OLESTR("\u00e9t\u00e9")), 0));
  EXPECT_EQ(255, Status(0));
  EXPECT_EQ(std::string("\xe9t\xe9"), std::string(reinterpret_cast<const char*>(Value(0))));
  EXPECT_TRUE(Set(Bstr(OLESTR("abcd")), 0));
  EXPECT_EQ(254, Status(0));
  EXPECT_EQ(std::string("abc"), std::string(reinterpret_cast<const char*>(Value(0))));
}

TEST_F(DataStoreSetValue, ByReferenceCellsHoldTheirOwnCopy) {
  Build({Column(OLESTR("B"), 1, DBTYPE_BSTR), Column(OLESTR("A"), 2, DBTYPE_STR | DBTYPE_BYREF)});
  StoreValue text = Bstr(OLESTR("Plant.Tag1"));
  EXPECT_TRUE(Set(text, 0));
  EXPECT_TRUE(Set(text, 1));
  const OLECHAR* wide = ReadAt<const OLECHAR*>(Value(0), 0);
  ASSERT_NE(nullptr, wide);
  EXPECT_NE(static_cast<const OLECHAR*>(V_BSTR(&text.Value)), wide);
  EXPECT_EQ(WString(OLESTR("Plant.Tag1")), wide);
  EXPECT_STREQ("Plant.Tag1", ReadAt<const char*>(Value(1), 0));
  EXPECT_TRUE(Set(Bstr(OLESTR("again")), 0));  // the first copy is freed, not leaked
}

TEST_F(DataStoreSetValue, LentTextFillsEveryTextCellLikeABstrAndOnlyItsLength) {
  Build({Column(OLESTR("W"), 1, DBTYPE_WSTR, 4), Column(OLESTR("S"), 2, DBTYPE_STR, 8),
         Column(OLESTR("R"), 3, DBTYPE_WSTR | DBTYPE_BYREF), Column(OLESTR("V"), 4, DBTYPE_VARIANT, 24),
         Column(OLESTR("N"), 5, DBTYPE_I4)});
  const WString source = OLESTR("Tag.AB|not part of it");
  StoreValue lent;
  lent.SetText(source.data(), 6);
  for (int column = 0; column < 4; ++column) EXPECT_TRUE(Set(lent, column)) << column;
  EXPECT_EQ(254, Status(0));  // six characters into four
  EXPECT_EQ(WString(OLESTR("Tag.")), WString(reinterpret_cast<const OLECHAR*>(Value(0)), 4));
  EXPECT_STREQ("Tag.AB", reinterpret_cast<const char*>(Value(1)));
  const OLECHAR* copy = ReadAt<const OLECHAR*>(Value(2), 0);
  EXPECT_NE(source.data(), copy);
  EXPECT_EQ(WString(OLESTR("Tag.AB")), copy);
  VARIANT stored = ReadAt<VARIANT>(Value(3), 0);
  ASSERT_EQ(VT_BSTR, V_VT(&stored));
  EXPECT_EQ(WString(OLESTR("Tag.AB")), WString(V_BSTR(&stored), SysStringLen(V_BSTR(&stored))));
  EXPECT_FALSE(Set(lent, 4));  // text is not a number
}

// Timestamp cells are pinned by RowsFilledFromRecordsHoldWhatSetValueWrites together
// with CellCopies.TimestampsFollowTheCalendarInAnyOrder.
TEST_F(DataStoreSetValue, VariantCellsHoldACopyOfTheText) {
  Build({Column(OLESTR("V"), 1, DBTYPE_VARIANT, 24)});
  StoreValue text = Bstr(OLESTR("text value"));
  EXPECT_TRUE(Set(text, 0));
  VARIANT stored = ReadAt<VARIANT>(Value(0), 0);
  ASSERT_EQ(VT_BSTR, V_VT(&stored));
  EXPECT_NE(V_BSTR(&text.Value), V_BSTR(&stored));
  EXPECT_EQ(WString(OLESTR("text value")), V_BSTR(&stored));
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
  const ULONGLONG kHourAndAHalf = 54000000000ull;
  std::vector<ProducedRecord> records(4);
  records[0].push_back(lent(kEight));
  records[0].push_back(StoreValue::FromTime(FileTimeOf(kJan2024 + 12345678)));
  records[0].push_back(UI4(192));
  records[0].push_back(R8(2.5));
  records[0].push_back(R8(-1.0));
  records[0].push_back(lent(kEight));
  records[1].push_back(lent(kNine));  // one character too many: truncated
  records[1].push_back(StoreValue::FromTime(FileTimeOf(kJan2024 + kHourAndAHalf + 9999)));  // same day
  records[1].push_back(Variant(VT_I4, 7));  // not exactly the cell's type
  records[1].push_back(Variant(VT_NULL, 0));
  records[1].push_back(Variant(VT_R4, 0));
  records[1].push_back(Bstr(kNine));
  records[2].push_back(Bstr(OLESTR("")));
  records[2].push_back(StoreValue::FromTime(FileTimeOf(kJan2024 - 1)));  // the day before
  records[2].push_back(StoreValue());
  records[2].push_back(Variant(VT_I8, -5));
  records[2].push_back(Variant(VT_R8, 0x4000000000000000ll));
  records[3] = RawRecord(86400 * 3 + 5);  // three days later

  // Text cells are not aligned for their characters.
  auto UnalignedText = [](const BYTE* p) {
    WString text;
    for (OLECHAR c; std::memcpy(&c, p + 2 * text.size(), sizeof c), c != 0;) text.push_back(c);
    return text;
  };
  const DataStoreColumnInfo* columns = store_->ColumnInfo();
  for (size_t r = 0; r < records.size(); ++r) {
    SCOPED_TRACE(r);
    ASSERT_EQ(S_OK, store_->AppendRecord(records[r]));
    std::vector<CRefCountedDataStoreRow*> filled;
    ASSERT_EQ(S_OK, store_->GetNextRows(0, 1, filled));
    for (size_t c = 0; c < records[r].size(); ++c) {
      if (!Set(records[r][c], static_cast<int>(c))) row_->Buffer()[columns[c].cbOffset] = 0;
    }
    for (size_t c = 0; c < records[r].size(); ++c) {
      SCOPED_TRACE(c);
      const BYTE* expected = row_->Buffer() + columns[c].cbOffset;
      const BYTE* actual = filled[0]->Buffer() + columns[c].cbOffset;
      ASSERT_EQ(expected[0], actual[0]);
      if (expected[0] == 0) continue;
      if (columns[c].wType == DBTYPE_WSTR) {
        EXPECT_EQ(UnalignedText(expected + 1), UnalignedText(actual + 1));
      } else if (columns[c].wType == (DBTYPE_WSTR | DBTYPE_BYREF)) {  // each row owns its copy
        EXPECT_EQ(WString(ReadAt<const OLECHAR*>(expected + 1, 0)), WString(ReadAt<const OLECHAR*>(actual + 1, 0)));
      } else {
        EXPECT_EQ(0, std::memcmp(expected + 1, actual + 1, static_cast<size_t>(columns[c].ulColumnSize)));
      }
    }
    filled[0]->Release();
  }
}

TEST_F(DataStoreSetValue, ValuesOutsideTheBufferMarkTheCellNull) {
  Build({Column(OLESTR("Q"), 1, DBTYPE_I1, 1), Column(OLESTR("V"), 2, DBTYPE_R8, 8)});
  auto* small = static_cast<BYTE*>(CoTaskMemAlloc(6));
  CRefCountedDataStoreRow::InitializeBuffer(small, 6, store_->ColumnInfo(), store_->ColumnCount());
  small[2] = 255;
  auto* shortRow = new CRefCountedDataStoreRow(small, store_->ColumnInfo(), store_->ColumnCount(), 6);
  EXPECT_TRUE(store_->SetValue(R8(1.5), store_->ColumnInfo()[1], shortRow));  // cell at 2, value needs 3..10
  EXPECT_EQ(0, small[2]);
  shortRow->Release();
}

TEST(DataStoreTimeText, DatesDropMillisecondsAndTextIsZeroPadded) {
  VARIANT withMs, withoutMs;
  VariantInit(&withMs);
  VariantInit(&withoutMs);
  ASSERT_EQ(S_OK, CDataStore::FileTimeToDate(FileTimeOf(kJan2024 + 1230000ull), &withMs));
  ASSERT_EQ(S_OK, CDataStore::FileTimeToDate(FileTimeOf(kJan2024), &withoutMs));
  ASSERT_EQ(VT_DATE, V_VT(&withMs));
  EXPECT_EQ(V_DATE(&withoutMs), V_DATE(&withMs));
  EXPECT_DOUBLE_EQ(45292.0, V_DATE(&withMs));
  const SYSTEMTIME st{987, 3, 0, 4, 5, 6, 7, 0};
  EXPECT_EQ(WString(OLESTR("0987-03-04 05:06:07")), CDataStore::SystemTimeToText(st));
}

// ---- Column lookup and handing out rows

TEST(DataStoreFindColumn, OrdinalMatchWinsElseLastNameMatch) {
  std::vector<ColumnRecord> columns = {Column(OLESTR("VALUE"), 4, DBTYPE_R8), Column(OLESTR("value"), 7, DBTYPE_R8),
                                       Column(OLESTR("OTHER"), 2, DBTYPE_R8)};
  columns[2].ColumnAlias = OLESTR("Alias");
  size_t index = 99;
  EXPECT_EQ(S_OK, CDataStore::FindColumn(columns, OLESTR("Value"), 4, &index));
  EXPECT_EQ(0u, index);
  EXPECT_EQ(S_OK, CDataStore::FindColumn(columns, OLESTR("VALUE"), 1, &index));
  EXPECT_EQ(1u, index);
  EXPECT_EQ(S_OK, CDataStore::FindColumn(columns, OLESTR("ALIAS"), 9, &index));
  EXPECT_EQ(2u, index);
  EXPECT_EQ(S_OK, CDataStore::FindColumn(columns, OLESTR("NONE"), 1, &index));
  EXPECT_EQ(CDataStore::kNotFound, index);
  EXPECT_EQ(E_FAIL, CDataStore::FindColumn(columns, nullptr, 1, &index));
}

class DataStoreHandOut : public LeakCheckedTest {
 protected:
  static std::vector<ULONGLONG> Values(std::vector<CRefCountedDataStoreRow*>& rows, const CDataStore& store) {
    std::vector<ULONGLONG> out;
    for (CRefCountedDataStoreRow* r : rows) {
      VARIANT v = ReadAt<VARIANT>(r->Buffer(), store.ColumnInfo()[3].cbOffset + 1);
      out.push_back(static_cast<ULONGLONG>(V_R8(&v)));
      r->Release();
    }
    rows.clear();
    return out;
  }
};

TEST_F(DataStoreHandOut, SkipCountAndEndOfRows) {
  CDataStore store;
  auto producer = std::make_unique<PagedProducer>(10, 10);
  ASSERT_EQ(S_OK, producer->Execute());
  ASSERT_EQ(S_OK, store.Initialize(std::move(producer), RawDataColumns()));
  std::vector<CRefCountedDataStoreRow*> rows;
  EXPECT_EQ(S_OK, store.GetNextRows(2, 3, rows));
  EXPECT_EQ((std::vector<ULONGLONG>{2, 3, 4}), Values(rows, store));
  // The rest of the page waits as the producer's records: only rows asked for are made.
  EXPECT_EQ(0u, store.QueuedRowCount());
  EXPECT_EQ(DB_S_ENDOFROWSET, store.GetNextRows(0, 10, rows));
  EXPECT_EQ((std::vector<ULONGLONG>{5, 6, 7, 8, 9}), Values(rows, store));
  EXPECT_EQ(DB_S_ENDOFROWSET, store.GetNextRows(0, 1, rows));
  EXPECT_TRUE(rows.empty());
}

TEST_F(DataStoreHandOut, SkippingPastTheEndEmptiesTheStore) {
  CDataStore store;
  auto producer = std::make_unique<PagedProducer>(4, 4);
  ASSERT_EQ(S_OK, producer->Execute());
  ASSERT_EQ(S_OK, store.Initialize(std::move(producer), RawDataColumns()));
  std::vector<CRefCountedDataStoreRow*> rows;
  EXPECT_EQ(DB_S_ENDOFROWSET, store.GetNextRows(6, 1, rows));
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(0u, store.QueuedRowCount());
}

TEST_F(DataStoreHandOut, AFailingProducerFailsTheFetchUnchanged) {
  CDataStore store;
  auto producer = std::make_unique<PagedProducer>(100, 10, E_ACCESSDENIED, 1);
  ASSERT_EQ(S_OK, producer->Execute());
  ASSERT_EQ(S_OK, store.Initialize(std::move(producer), RawDataColumns()));
  std::vector<CRefCountedDataStoreRow*> rows;
  EXPECT_EQ(E_ACCESSDENIED, store.GetNextRows(0, 5, rows));
  EXPECT_TRUE(rows.empty());
}

TEST_F(DataStoreHandOut, StoreColumnsAreMatchedToProducerFieldsByName) {
  CDataStore store;
  auto producer = std::make_unique<PagedProducer>(1, 1);
  ASSERT_EQ(S_OK, producer->Execute());
  // Only two columns bound, in another order than the producer's fields.
  ASSERT_EQ(S_OK, store.Initialize(std::move(producer), {Column(OLESTR("VALUE"), 4, DBTYPE_VARIANT, 24),
                                                         Column(OLESTR("quality"), 3, DBTYPE_UI4, 4)}));
  std::vector<CRefCountedDataStoreRow*> rows;
  ASSERT_EQ(S_OK, store.GetNextRows(0, 1, rows));
  const BYTE* buffer = rows[0]->Buffer();
  VARIANT v = ReadAt<VARIANT>(buffer, 1);
  EXPECT_EQ(VT_R8, V_VT(&v));
  EXPECT_EQ(192u, ReadAt<ULONG>(buffer, store.ColumnInfo()[1].cbOffset + 1));
  rows[0]->Release();
}

// ---- GetData

class DataStoreGetData : public LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(S_OK, store_->Initialize(nullptr, {Column(OLESTR("TAG"), 1, DBTYPE_WSTR, 16),
                                                Column(OLESTR("N"), 2, DBTYPE_I4, 4),
                                                Column(OLESTR("V"), 3, DBTYPE_VARIANT, 24),
                                                Column(OLESTR("R"), 4, DBTYPE_BSTR)}));
    ProducedRecord record;
    record.push_back(Bstr(OLESTR("Tag.A")));
    record.push_back(Variant(VT_I4, 42));
    record.push_back(R8(1e20));
    record.push_back(StoreValue());
    ASSERT_EQ(S_OK, store_->AppendRecord(record));
    std::vector<CRefCountedDataStoreRow*> rows;
    ASSERT_EQ(S_OK, store_->GetNextRows(0, 1, rows));
    row_ = rows[0];
  }
  void TearDown() override {
    row_->Release();
    store_.reset();
    LeakCheckedTest::TearDown();
  }
  DBSTATUS StatusOf(const DBBINDING& b) { return ReadAt<DBSTATUS>(buffer_, b.obStatus); }
  DBLENGTH LengthOf(const DBBINDING& b) { return ReadAt<DBLENGTH>(buffer_, b.obLength); }

  std::unique_ptr<CDataStore> store_ = std::make_unique<CDataStore>();
  CRefCountedDataStoreRow* row_ = nullptr;
  BYTE buffer_[512] = {};
};

TEST_F(DataStoreGetData, NullCellsGiveIsNullAndZeroLength) {
  const DBBINDING b[] = {Binding(4, DBTYPE_WSTR, 0, 40), Binding(4, kWStrRef, 64, 8)};
  std::memset(buffer_, 0xAB, sizeof buffer_);
  EXPECT_EQ(S_OK, store_->GetData(b, 2, row_, buffer_));
  EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_ISNULL), StatusOf(b[0]));
  EXPECT_EQ(0u, LengthOf(b[0]));
  EXPECT_EQ(nullptr, ReadAt<void*>(buffer_, 64));
}

TEST_F(DataStoreGetData, ProviderOwnedReferencesPointIntoTheRow) {
  const DBBINDING b = Binding(1, kWStrRef, 0, 8, DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS,
                              DBMEMOWNER_PROVIDEROWNED);
  EXPECT_EQ(S_OK, store_->GetData(&b, 1, row_, buffer_));
  const BYTE* pointer = ReadAt<const BYTE*>(buffer_, 0);
  EXPECT_EQ(row_->Buffer() + 1, pointer);
  EXPECT_EQ(10u, LengthOf(b));
  EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_S_OK), StatusOf(b));
}

TEST_F(DataStoreGetData, ConversionsReportTheirStatusesAndMixedResults) {
  // Each cell's own value, status and length against the conversion service:
  // CellCopies.StoreAndConversionServiceAgree. Here, what several bindings answer together.
  const DBBINDING mixed[] = {Binding(2, DBTYPE_R8, 0, 8), Binding(3, DBTYPE_I4, 64, 4)};
  EXPECT_EQ(DB_S_ERRORSOCCURRED, store_->GetData(mixed, 2, row_, buffer_));
  EXPECT_DOUBLE_EQ(42.0, ReadAt<double>(buffer_, 0));
  EXPECT_EQ(static_cast<DBSTATUS>(DBSTATUS_E_DATAOVERFLOW), StatusOf(mixed[1]));
  EXPECT_EQ(DB_E_ERRORSOCCURRED, store_->GetData(&mixed[1], 1, row_, buffer_));

  const DBBINDING badOrdinal = Binding(5, DBTYPE_I4, 0, 4);
  EXPECT_EQ(DB_E_BADORDINAL, store_->GetData(&badOrdinal, 1, row_, buffer_));
}

}  // namespace
}  // namespace corvane::test
