#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "tests/store/StoreTestSupport.h"

namespace corvane::test {
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
    for (size_t c = 0; c < records[r].size(); ++c)
      if (!Set(records[r][c], static_cast<int>(c))) row_->Buffer()[columns[c].cbStatus] = 0;
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

}  // namespace
}  // namespace corvane::test
