#include <algorithm>

#include "SQLParser/TimeConversion.h"
#include "tests/execution/ExecutionHarness.h"

using corvane::test::ExecutionTest;
using corvane::test::TraceCapture;
using corvane::test::Utc;
using Op = corvane::testing::CFaultInjectingHost::Op;
using Rows = std::vector<std::vector<std::string>>;

namespace {

std::vector<std::string> Column(const Rows& rows, size_t i) {
  std::vector<std::string> c;
  for (const auto& r : rows) c.push_back(r.at(i));
  return c;
}

}  // namespace

// ---- Which statements run against what --------------------------------------------------

class StatementRules : public ExecutionTest {};

TEST_F(StatementRules, EachRuleAnswersItsCodeAndTrace) {
  struct Case {
    const char* sql;
    HRESULT hr;
    const char* trace;
  } cases[] = {
      {"SELECT * FROM TAGS, RAWDATA", (HRESULT)0x8004C006L,
       "You can run SELECT query against one table or stored procedure only"},
      {"SELECT * FROM NOSUCHTABLE", (HRESULT)0x8004C001L, "Table 'NOSUCHTABLE' doesn't exist"},
      {"UPDATE TAGS SET DESCRIPTION = 'x'", (HRESULT)0x8004C002L, "Cannot run UPDATE query against table 'TAGS'"},
      {"DELETE FROM QUERYSETTINGS", (HRESULT)0x8004C003L, "Cannot run DELETE query against table 'QUERYSETTINGS'"},
      {"INSERT INTO TAGS (TAGNAME) VALUES ('a')", (HRESULT)0x8004C003L,
       "Cannot run INSERT query against table 'TAGS'"},
      {"SELECT NOSUCH FROM RAWDATA WHERE TAGNAME = 'T'", E_FAIL,
       "Unable to initialize output columns. Please, check the column names."},
      {"SELECT X.VALUE FROM RAWDATA R WHERE TAGNAME = 'T'", E_FAIL,
       "Unable to initialize output columns. Please, check the column names."},
  };
  for (const Case& c : cases) {
    TraceCapture trace;
    IRowset* rowset = nullptr;
    EXPECT_EQ(c.hr, Run(c.sql, &rowset)) << c.sql;
    EXPECT_EQ(nullptr, rowset) << c.sql;
    EXPECT_TRUE(trace.Contains(c.trace)) << c.sql;
  }
  // Nothing reached the historian for a refused statement.
  EXPECT_EQ(0u, host_->Calls(Op::ReadRaw));
  EXPECT_EQ(0u, host_->Calls(Op::DeleteValues));
}

TEST_F(StatementRules, ColumnsBindByNameAliasAndQualifierInAnyCase) {
  AddDoubleTag(OLESTR("T"), 2);
  IRowset* rowset = nullptr;
  ASSERT_EQ(S_OK, Run("SELECT r.value AS V, timestamp, Tagname FROM rawdata_double r WHERE TAGNAME = 'T'", &rowset));
  std::vector<DBTYPE> types;
  EXPECT_EQ((std::vector<std::string>{"V", "TIMESTAMP", "TAGNAME"}), ColumnNames(rowset, &types));
  EXPECT_EQ((std::vector<DBTYPE>{DBTYPE_R8, DBTYPE_DBTIMESTAMP, DBTYPE_WSTR}), types);
  const Rows rows = ReadAll(rowset);
  rowset->Release();
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"1", "2024-01-01 00:00:01", "T"}), rows[1]);
}

// ---- Time range and order ----------------------------------------------------------------

class TimeRangeAndOrder : public ExecutionTest {};

TEST_F(TimeRangeAndOrder, WhereNarrowsAndDescendingSwapsTheRange) {
  AddDoubleTag(OLESTR("T"), 30);
  EXPECT_EQ((std::vector<std::string>{"10", "11", "12", "13", "14"}),
            Column(Select("SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'T' AND TIMESTAMP >= '2024-01-01 00:00:10' "
                          "AND TIMESTAMP <= '2024-01-01 00:00:14'"),
                   0));
  TraceCapture trace;
  EXPECT_EQ((std::vector<std::string>{"14", "13", "12", "11", "10"}),
            Column(Select("SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'T' AND TIMESTAMP >= '2024-01-01 00:00:10' "
                          "AND TIMESTAMP <= '2024-01-01 00:00:14' ORDER BY TIMESTAMP DESC"),
                   0));
  EXPECT_TRUE(trace.Contains("Execution will use start time = 2024-01-01 00:00:14, end time = 2024-01-01 00:00:10"));
  // Any other ordering leaves the historian's order.
  EXPECT_EQ("0", Select("SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'T' ORDER BY VALUE DESC").at(0).at(0));
}

TEST_F(TimeRangeAndOrder, TagsComeInTheOrderWrittenOnceEachAndEmptyTagFollowsTheSetting) {
  AddDoubleTag(OLESTR("B"), 3);
  AddDoubleTag(OLESTR("A"), 2);
  const Rows rows = Select("SELECT TAGNAME FROM RAWDATA WHERE TAGNAME = 'B' OR TAGNAME = 'A' OR TAGNAME = 'B'");
  EXPECT_EQ((std::vector<std::string>{"B", "B", "B", "A", "A"}), Column(rows, 0));
  // No tag named: every tag the browse lists.
  EXPECT_EQ(5u, Select("SELECT * FROM RAWDATA").size());
  ds_->SetAllowEmptyTag(0);
  EXPECT_EQ((HRESULT)0x8004C004L, Run("SELECT * FROM RAWDATA"));
  VARIANT tag;
  V_VT(&tag) = VT_BSTR;
  V_BSTR(&tag) = SysAllocString(OLESTR("A"));
  IRowset* rowset = nullptr;
  ASSERT_EQ(S_OK, Run("SELECT VALUE FROM RAWDATA WHERE TAGNAME = ?", &rowset, nullptr, {tag}));
  EXPECT_EQ(2u, ReadAll(rowset).size());
  rowset->Release();
  VariantClear(&tag);
}

// ---- Paging through continuation points -----------------------------------------------

class Paging : public ExecutionTest {};

TEST_F(Paging, PagesOfMaxRowsUntilTheHistorianHasNoMore) {
  AddDoubleTag(OLESTR("T"), 250);
  ds_->SetMaxRowsToReturn(100);
  const Rows rows = Select("SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'T'");
  ASSERT_EQ(250u, rows.size());
  EXPECT_EQ("249", rows.back().at(0));
  EXPECT_EQ(3u, host_->Calls(Op::ReadRaw));
  EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
}

TEST_F(Paging, FailureMidStreamGivesEarlierRowsThenTheFailureAndReleasesThePoint) {
  AddDoubleTag(OLESTR("T"), 250);
  ds_->SetMaxRowsToReturn(100);
  host_->FailCall(Op::ReadRaw, 2, E_UNEXPECTED);
  TraceCapture trace;
  IRowset* rowset = nullptr;
  ASSERT_EQ(S_OK, Run("SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'T'", &rowset));
  HRESULT end = S_OK;
  const Rows rows = ReadAll(rowset, &end, 10);
  EXPECT_EQ(100u, rows.size());
  EXPECT_EQ(E_UNEXPECTED, end);
  EXPECT_TRUE(trace.Contains("[TABLE] RAWDATA -> Failed to read the history data (8000FFFF)."));
  EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
  // The failure reaches the consumer as an error record of the rowset, not only as a code.
  ISupportErrorInfo* support = nullptr;
  ASSERT_EQ(S_OK, rowset->QueryInterface(IID_ISupportErrorInfo, reinterpret_cast<void**>(&support)));
  EXPECT_EQ(S_OK, support->InterfaceSupportsErrorInfo(IID_IRowset));
  support->Release();
#ifdef _WIN32  // Wine's error object keeps no texts
  IErrorInfo* error = nullptr;
  ASSERT_EQ(S_OK, GetErrorInfo(0, &error));
  error->Release();
#else
  const auto records = corvane::platform::TakeErrorRecords();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(E_UNEXPECTED, records[0].info.hrError);
  EXPECT_EQ(u"CCommandProviderRowset class", records[0].source);
  EXPECT_NE(std::u16string::npos, records[0].description.find(u"HRESULT = 8000FFFF"));
#endif
  rowset->Release();
}

// ---- Select-list expressions, aggregates and limits -------------------------------------

class SelectList : public ExecutionTest {};

TEST_F(SelectList, ExpressionsAreEvaluatedForEveryRow) {
  AddDoubleTag(OLESTR("T"), 3, 0x40000000u);
  IRowset* rowset = nullptr;
  ASSERT_EQ(S_OK, Run("SELECT QualityToStr(QUALITY) AS Q, IsGood(QUALITY), GetMsecs(TIMESTAMP), 7 FROM RAWDATA "
                      "WHERE TAGNAME = 'T'",
                      &rowset));
  std::vector<DBTYPE> types;
  const auto names = ColumnNames(rowset, &types);
  EXPECT_EQ("Q", names.at(0));
  EXPECT_EQ(DBTYPE_WSTR, types.at(0));
  const Rows rows = ReadAll(rowset);
  rowset->Release();
  ASSERT_EQ(3u, rows.size());
  EXPECT_NE(std::string::npos, rows[0][0].find("Uncertain")) << rows[0][0];
  EXPECT_EQ("7", rows[2][3]);
  EXPECT_EQ("0", rows[1][2]);
}

TEST_F(SelectList, AggregatesFoldEveryRowIntoOne) {
  AddDoubleTag(OLESTR("T"), 250);
  ds_->SetMaxRowsToReturn(100);
  const Rows rows = Select("SELECT COUNT(VALUE), SUM(VALUE), MAX(VALUE), MIN(VALUE) FROM RAWDATA WHERE TAGNAME = 'T'");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"250", "31125", "249", "0"}), rows[0]);
}

TEST_F(SelectList, TopAndLimitSkipAndCount) {
  AddDoubleTag(OLESTR("T"), 20);
  EXPECT_EQ((std::vector<std::string>{"0", "1", "2"}),
            Column(Select("SELECT TOP 3 VALUE FROM RAWDATA WHERE TAGNAME = 'T'"), 0));
  EXPECT_EQ((std::vector<std::string>{"5", "6"}),
            Column(Select("SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'T' LIMIT 5, 2"), 0));
  EXPECT_EQ((std::vector<std::string>{"18", "19"}),
            Column(Select("SELECT GetMsecs(TIMESTAMP), VALUE FROM RAWDATA WHERE TAGNAME = 'T' LIMIT 18, 5"), 1));
}

// ---- Rows satisfy the WHERE clause ------------------------------------------------------

class RowFilter : public ExecutionTest {};

TEST_F(RowFilter, EveryConditionButTheReadsOwnIsTestedOnEachRow) {
  AddDoubleTag(OLESTR("T"), 20);  // value i at second i, quality 0
  AddDoubleTag(OLESTR("U"), 5, 0x80000000u);
  AddTextTag(OLESTR("S"), {L"1", L"x", L"3"});
  struct Case {
    const char* sql;
    const char* rows;  // rows joined by ';', cells by ','
  } cases[] = {
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE > 1000", ""},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE BETWEEN 1 AND 5", "2;3;4"},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND NOT VALUE < 17", "17;18;19"},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE < 2 OR VALUE = 19 OR QUALITY <> 0", "0;1;19"},
      // TAGNAME and TIMESTAMP chose what was read and count as true, under OR too; the
      // time range keeps both ends.
      {"SELECT TAGNAME, VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE < 1 OR TAGNAME='U' AND VALUE > 18",
       "T,0;T,19;U,0"},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND TIMESTAMP > '2024-01-01 00:00:15' AND VALUE < 17 OR VALUE = 19",
       "15;16;19"},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='U' AND IsGood(QUALITY) = 0 AND BitMask('&', 1, VALUE) = 1", "1;3"},
      // Limits and aggregates count the rows that pass.
      {"SELECT TOP 2 VALUE FROM RAWDATA WHERE TAGNAME='T' AND IsGood(QUALITY) = 1 AND VALUE > 10", "11;12"},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE > 10 LIMIT 1, 2", "12;13"},
      {"SELECT GetMsecs(TIMESTAMP), VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE >= 18 LIMIT 1, 5", "0,19"},
      {"SELECT COUNT(VALUE), SUM(VALUE), MAX(VALUE) FROM RAWDATA WHERE TAGNAME='T' AND VALUE >= 18", "2,37,19"},
      {"SELECT COUNT(VALUE) FROM RAWDATA WHERE TAGNAME='T' AND VALUE > 99", "0"},
      // Texts compare with texts ignoring case; a text value against a number is unknown.
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='S' AND VALUE > 2", ""},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='S' AND VALUE = 'X' OR VALUE = '3'", "x;3"},
      {"SELECT VALUE FROM RAWDATA_DOUBLE WHERE TAGNAME='S' AND VALUE > 2", "3"},
      {"SELECT VALUE FROM RAWDATA WHERE TAGNAME='T' AND VALUE = '7'", "7"},
      // The other tables: browse patterns count as true, every other column is tested.
      {"SELECT TAGNAME FROM TAGS WHERE TAGNAME = '*' AND DATATYPE = 8", "S"},
      {"SELECT TAGNAME FROM TAGS WHERE DESCRIPTION = 'Double*' AND NOT TAGNAME = 'T'", ""},
      {"SELECT MAX_ROWS_TO_RETURN FROM QUERYSETTINGS WHERE MAX_ROWS_TO_RETURN > 100000", ""},
      // A procedure's rows meet the whole condition.
      {"SELECT Value FROM SP_RAWDATA('2024-01-01', '2024-01-02', 'T') WHERE Value > 17 AND Quality = 0", "18;19"},
  };
  for (const Case& c : cases) {
    std::string text;
    for (const auto& row : Select(c.sql)) {
      if (!text.empty()) text += ";";
      for (size_t i = 0; i < row.size(); ++i) text += (i ? "," : "") + row[i];
    }
    EXPECT_EQ(c.rows, text) << c.sql;
  }
}

TEST_F(RowFilter, AFunctionThatFailsFailsTheStatementNeverACell) {
  AddTextTag(OLESTR("S"), {L"1", L"2", L"x", L"4"});
  // Bound once: a wrong count or an unknown column fails at once with its message.
  EXPECT_EQ(E_FAIL, Run("SELECT MAX_ROWS_TO_RETURN, NOW(1) FROM QUERYSETTINGS"));
  EXPECT_EQ("SQL function Now calculation error: Bad parameter count.", message_);
  EXPECT_EQ(E_FAIL, Run("SELECT * FROM RAWDATA WHERE TAGNAME = 'S' AND NOSUCH = 1"));
  EXPECT_EQ("Column 'NOSUCH' is not a column of RAWDATA.", message_);
  // On a row, in the select list or the WHERE: the rows before it, then the failure.
  for (const char* sql : {"SELECT IsGood(VALUE) FROM RAWDATA WHERE TAGNAME = 'S'",
                          "SELECT VALUE FROM RAWDATA WHERE TAGNAME = 'S' AND IsGood(VALUE) = 1"}) {
    IRowset* rowset = nullptr;
    ASSERT_EQ(S_OK, Run(sql, &rowset)) << sql;
    HRESULT end = S_OK;
    EXPECT_EQ(2u, ReadAll(rowset, &end, 1).size()) << sql;
    EXPECT_EQ(DISP_E_TYPEMISMATCH, end) << sql;
#ifndef _WIN32  // Wine's error object keeps no texts
    const auto records = corvane::platform::TakeErrorRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_NE(std::u16string::npos,
              records[0].description.find(u"SQL function IsGood calculation error: Conversion error (HR = 80020005)."))
        << sql;
#endif
    rowset->Release();
  }
}

// ---- Data changes ---------------------------------------------------------------------

class DataChanges : public ExecutionTest {};

TEST_F(DataChanges, InsertWithoutTimestampWritesNowAndAnswersOneRow) {
  AddDoubleTag(OLESTR("T"), 0);
  FILETIME before;
  CoFileTimeNow(&before);
  IRowset* rowset = nullptr;
  DBROWCOUNT affected = 0;
  ASSERT_EQ(S_OK, Run("INSERT INTO rawdata (TAGNAME, VALUE) VALUES ('T', 4.5)", &rowset, &affected));
  EXPECT_EQ(1, affected);
  EXPECT_EQ((Rows{{"Insert query succeeded."}}), ReadAll(rowset));
  rowset->Release();
  FILETIME after;
  CoFileTimeNow(&after);
  HistoryValue* newest = nullptr;
  ASSERT_EQ(S_OK, store_->ReadNewest(OLESTR("T"), &newest));
  ASSERT_NE(nullptr, newest);
  EXPECT_GE(corvane::FileTimeToTicks(newest->timestamp), corvane::FileTimeToTicks(before));
  EXPECT_LE(corvane::FileTimeToTicks(newest->timestamp), corvane::FileTimeToTicks(after));
  EXPECT_EQ(0u, newest->quality);
  EXPECT_EQ(4.5, V_R8(&newest->value));
  FreeHistoryValue(newest);
  // The same moment again is refused by the historian with its own code.
  EXPECT_EQ(S_OK, Run("INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES ('T', '2024-01-01 00:00:06', 1, "
                      "192)"));
  EXPECT_EQ(HIST_E_DATA_ALREADY_PRESENT,
            Run("INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE) VALUES ('T', '2024-01-01 00:00:06', 1)"));
  EXPECT_EQ((HRESULT)0x8004C004L, Run("INSERT INTO RAWDATA (VALUE) VALUES (1)"));
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, Run("INSERT INTO RAWDATA (TAGNAME, VALUE) VALUES ('nosuch', 1)"));
}

// ---- Query settings --------------------------------------------------------------------

class QuerySettingsTable : public ExecutionTest {};

TEST_F(QuerySettingsTable, UpdateShowsInEverySessionAndABadValueChangesNothing) {
  ASSERT_EQ(S_OK, Run("UPDATE QUERYSETTINGS SET max_rows_to_return = 100, PERCENT_DATA_BAD = 7, "
                      "TIMESTAMP_START = '2023-05-06 07:08:09'"));
  // A second command over the same data source sees it.
  const Rows rows = Select("SELECT * FROM QUERYSETTINGS");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("2023-05-06 07:08:09", rows[0][0]);
  EXPECT_EQ("100", rows[0][3]);
  EXPECT_EQ("7", rows[0][5]);
  EXPECT_NE(S_OK, Run("UPDATE QUERYSETTINGS SET MAX_ROWS_TO_RETURN = 'abc'"));
  LONG max = 0;
  ds_->GetMaxRowsToReturn(&max);
  EXPECT_EQ(100, max);
  EXPECT_EQ(E_INVALIDARG, Run("UPDATE QUERYSETTINGS SET NOSUCH = 1"));
}
