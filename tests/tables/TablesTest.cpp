#include "provider/tables/TableFactory.h"
#include "tests/execution/ExecutionHarness.h"
#include "provider/execution/TableProviderRowset.h"

using corvane::test::ExecutionTest;
using corvane::test::TraceCapture;
using Rows = std::vector<std::vector<std::string>>;

// ---- The catalog ------------------------------------------------------------------------

TEST(TableCatalog, FifteenTablesInOrderWithTheirMapsAndCaseInsensitiveLookup) {
  const auto tables = CTableFactory::EnumerateTables();
  ASSERT_EQ(15u, tables.size());
  EXPECT_EQ(OLESTR("QUERYSETTINGS"), tables[0].Name);
  EXPECT_EQ(OLESTR("TAGS"), tables[1].Name);
  EXPECT_EQ(OLESTR("RAWDATA_BOOLEAN"), tables[14].Name);
  EXPECT_EQ(OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_I1)."), tables[4].Description);
  for (const TableInfo& t : tables) {
    for (size_t i = 0; i < t.Columns.size(); ++i) {
      const ColumnRecord& c = t.Columns[i];
      EXPECT_EQ(i + 1, c.Ordinal);
      EXPECT_EQ(c.ColumnName, c.ColumnAlias);
      EXPECT_EQ(0u, c.dwFlags);
      if (c.wType == DBTYPE_WSTR) {
        EXPECT_EQ(4096u, c.ColumnSize);
      }
      if (c.wType == DBTYPE_DBTIMESTAMP) {
        EXPECT_EQ(16u, c.ColumnSize);
      }
    }
  }
  TableInfo info;
  ASSERT_EQ(S_OK, CTableFactory::GetTableInfo(OLESTR("rawdata_double"), &info));
  EXPECT_EQ(OLESTR("RAWDATA_DOUBLE"), info.Name);
  ASSERT_EQ(4u, info.Columns.size());
  EXPECT_EQ(DBTYPE_R8, info.Columns[3].wType);
  EXPECT_EQ(OLESTR("RAWDATA"), info.Columns[3].TableName);  // typed maps bind as RAWDATA
  ASSERT_EQ(S_OK, CTableFactory::GetTableInfo(OLESTR("RAWDATA_STRING"), &info));
  EXPECT_EQ(DBTYPE_WSTR, info.Columns[3].wType);
  TraceCapture trace;
  EXPECT_EQ(S_FALSE, CTableFactory::GetTableInfo(OLESTR("RAWDATA_FLOAT"), &info));
  EXPECT_TRUE(trace.Contains("Failed to get info for table 'RAWDATA_FLOAT'."));
}

// ---- Typed raw-data conversions ---------------------------------------------------------

class TypedRawData : public ExecutionTest {};

TEST_F(TypedRawData, EachTableConvertsOrFallsBackToItsDefaultWithBadQuality) {
  AddTextTag(OLESTR("S"), {L"abc", L"12"});
  struct Case {
    const char* table;
    const char* converted;  // "12" read through the table
    const char* fallback;   // "abc" read through the table
    const char* type;
  } cases[] = {
      {"RAWDATA_INT8", "12", "0", "VT_I1"},       {"RAWDATA_INT16", "12", "0", "VT_I2"},
      {"RAWDATA_INT32", "12", "0", "VT_I4"},      {"RAWDATA_INT64", "12", "0", "VT_I8"},
      {"RAWDATA_UINT8", "12", "0", "VT_UI1"},     {"RAWDATA_UINT16", "12", "0", "VT_UI2"},
      {"RAWDATA_UINT32", "12", "0", "VT_UI4"},    {"RAWDATA_UINT64", "12", "0", "VT_UI8"},
      {"RAWDATA_SINGLE", "12", "0", "VT_R4"},     {"RAWDATA_DOUBLE", "12", "0", "VT_R8"},
      {"RAWDATA_BOOLEAN", "True", "False", "VT_BOOL"},
  };
  for (const Case& c : cases) {
    TraceCapture trace(TRACE_WARNING);
    const Rows rows = Select(std::string("SELECT QUALITY, VALUE FROM ") + c.table + " WHERE TAGNAME = 'S'");
    ASSERT_EQ(2u, rows.size()) << c.table;
    EXPECT_EQ("2158690304", rows[0][0]) << c.table;  // 0x80AB0000
    EXPECT_EQ(c.fallback, rows[0][1]) << c.table;
    EXPECT_EQ("0", rows[1][0]) << c.table;
    EXPECT_EQ(c.converted, rows[1][1]) << c.table;
    const std::string message = std::string("[TABLE] ") + c.table + " -> Failed to convert value to " + c.type +
                                " (80020005). Value set to default (" +
                                (std::string(c.type) == "VT_BOOL" ? "False" : "0") + ").";
    EXPECT_TRUE(trace.Contains(message)) << message;
  }
  // RAWDATA keeps the historian's own type and quality; RAWDATA_STRING reads numbers as text.
  AddDoubleTag(OLESTR("D"), 2);
  EXPECT_EQ((Rows{{"0", "0"}, {"0", "1"}}), Select("SELECT QUALITY, VALUE FROM RAWDATA WHERE TAGNAME = 'D'"));
  EXPECT_EQ((Rows{{"1"}}), Select("SELECT VALUE FROM RAWDATA_STRING WHERE TAGNAME = 'D' AND TIMESTAMP >= "
                                  "'2024-01-01 00:00:01'"));
}

// ---- TAGS and the table rowset -----------------------------------------------------------

TEST_F(TypedRawData, TagsFilterByNameAndDescriptionAndOpenRowsetReadsWholeTables) {
  AddDoubleTag(OLESTR("Flow1"), 1);
  AddDoubleTag(OLESTR("Flow2"), 1);
  AddDoubleTag(OLESTR("Level"), 1);
  EXPECT_EQ(3u, Select("SELECT * FROM TAGS").size());
  const Rows rows = Select("SELECT TAGNAME, DESCRIPTION, DATATYPE FROM TAGS WHERE TAGNAME = 'flow*' AND "
                           "DESCRIPTION = '*2'");
  EXPECT_EQ((Rows{{"Flow2", "Double Flow2", "5"}}), rows);

  IUnknown* unknown = nullptr;
  EXPECT_EQ(DB_E_NOTABLE, CTableProviderRowset::Open(ds_, nullptr, OLESTR("NOPE"), IID_IRowset, &unknown));
  ASSERT_EQ(S_OK, CTableProviderRowset::Open(ds_, nullptr, OLESTR("rawdata"), IID_IRowset, &unknown));
  auto* rowset = static_cast<IRowset*>(static_cast<void*>(unknown));
  EXPECT_EQ(3u, ReadAll(rowset).size());  // every tag, the settings' range
  rowset->Release();
}
