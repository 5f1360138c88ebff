#include <gtest/gtest.h>

#include "SQLParser/QualityText.h"
#include "SQLParser/TimeConversion.h"
#include "provider/procedures/ProcedureCatalog.h"
#include "tests/procedures/ProcedureHarness.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/TraceCapture.h"

using corvane::WString;
using corvane::historian::SampleInput;
using corvane::historian::TagDefinition;
using corvane::test::ProcedureHarness;
using corvane::test::At;
using corvane::test::Rows;
using corvane::test::T;
using corvane::test::Number;
using corvane::test::Unsigned;
using Op = corvane::testing::CFaultInjectingHost::Op;

namespace {

// Tag "Flow": 0, 10, ..., 90 s with values 1..10; the samples at 30 s and 70 s are bad.
// Tag "Level": 5 s and 15 s. Tag "Empty": no samples.
void Fill(ProcedureHarness& h) {
  TagDefinition flow;
  flow.name = OLESTR("Flow");
  ASSERT_EQ(S_OK, h.Store().AddTag(flow));
  std::vector<SampleInput> samples;
  for (int i = 0; i < 10; ++i) {
    SampleInput s;
    s.time = T(10.0 * i);
    s.number = i + 1;
    s.quality = (i == 3 || i == 7) ? 0x80000000u : 0xC0u;
    samples.push_back(s);
  }
  ASSERT_EQ(S_OK, h.Store().AppendSamples(OLESTR("Flow"), samples));
  TagDefinition level;
  level.name = OLESTR("Level");
  ASSERT_EQ(S_OK, h.Store().AddTag(level));
  SampleInput a, b;
  a.time = T(5);
  a.number = 50;
  b.time = T(15);
  b.number = 150;
  ASSERT_EQ(S_OK, h.Store().AppendSamples(OLESTR("Level"), {a, b}));
  TagDefinition empty;
  empty.name = OLESTR("Empty");
  ASSERT_EQ(S_OK, h.Store().AddTag(empty));
}

const char* kRange = "'2020-01-01 00:00:00', '2020-01-01 00:10:00'";

class ProcedureTest : public corvane::test::LeakCheckedTest {};

}  // namespace

// ---- The catalog ----------------------------------------------------------------------

TEST(ProcedureCatalog, LooksUpNamesAndColumnsIgnoringCaseWithTheirLayouts) {
  ProcedureInfo info;
  ASSERT_TRUE(FindProcedure(OLESTR("hda_Analog"), &info));
  EXPECT_EQ(WString(OLESTR("HDA_ANALOG")), info.Name);
  EXPECT_EQ(WString(OLESTR("Description")), info.Description);
  EXPECT_EQ(37u, info.Columns.size());
  EXPECT_EQ(WString(OLESTR("TIME_AVG_Status_Str")), info.Columns[14].Name);
  EXPECT_FALSE(FindProcedure(OLESTR("NO_SUCH_PROC"), &info));
  EXPECT_FALSE(FindProcedure(nullptr, &info));

  const std::pair<const OLECHAR*, size_t> counts[] = {
      {OLESTR("HDA_ANALOG_5"), 126}, {OLESTR("HDA_REDUCED_ANALOG"), 15}, {OLESTR("HDA_REDUCED_ANALOG_5"), 51},
      {OLESTR("HDA_BOOL"), 13},      {OLESTR("HDA_BOOL_5"), 41},         {OLESTR("HDA_QUALITY"), 12},
      {OLESTR("HDA_QUALITY_5"), 56}, {OLESTR("SP_RAWDATA"), 4},          {OLESTR("GET_FILTERED_TAG_STATISTICS"), 9}};
  for (const auto& c : counts) {
    ASSERT_TRUE(FindProcedure(c.first, &info));
    EXPECT_EQ(c.second, info.Columns.size()) << corvane::ToUtf8(c.first);
    for (size_t i = 0; i < info.Columns.size(); ++i) EXPECT_EQ(static_cast<LONGLONG>(i + 1), info.Columns[i].Ordinal);
  }

  ProcedureColumnInfo column;
  ASSERT_TRUE(FindProcedureColumn(OLESTR("hda_analog_5"), OLESTR("min_value_1"), &column));
  EXPECT_EQ(2, column.Ordinal);
  EXPECT_EQ(DBTYPE_VARIANT, column.wType);
  ASSERT_TRUE(FindProcedureColumn(OLESTR("HDA_ANALOG_5"), OLESTR("COUNT_Status_5"), &column));
  EXPECT_EQ(126, column.Ordinal);
  EXPECT_EQ(DBTYPE_UI4, column.wType);
  EXPECT_EQ(4u, column.ColumnSize);
  EXPECT_FALSE(FindProcedureColumn(OLESTR("HDA_ANALOG_5"), OLESTR("MIN_Status_Str_1"), &column));
  ASSERT_TRUE(FindProcedureColumn(OLESTR("HDA_QUALITY_5"), OLESTR("WORST_QUALITY_Value_Str_2"), &column));
  EXPECT_EQ(DBTYPE_VARIANT, column.wType);
  EXPECT_EQ(1 + 11 + 10, column.Ordinal);
  ASSERT_TRUE(FindProcedureColumn(OLESTR("HDA_ANALOG"), OLESTR("LAST_Timestamp"), &column));
  EXPECT_EQ(DBTYPE_DBTIMESTAMP, column.wType);
  EXPECT_EQ(16u, column.ColumnSize);
  ASSERT_TRUE(FindProcedureColumn(OLESTR("RAWDATA_INSERT"), OLESTR("result"), &column));
  EXPECT_EQ(4096u, column.ColumnSize);

  ASSERT_TRUE(FindProcedure(OLESTR("HDA_ANALOG"), &info));
  ASSERT_EQ(4u, info.Parameters.size());
  EXPECT_EQ(DBTYPE_R8, info.Parameters[2].wType);
  EXPECT_EQ(DBPARAMTYPE_INPUT, info.Parameters[2].ParamType);

  std::vector<ProcedureInfo> listed;
  EnumerateProcedures(&listed);
  ASSERT_EQ(15u, listed.size());
  EXPECT_EQ(WString(OLESTR("GET_BAD_VALUES")), listed[7].Name);
  EXPECT_EQ(WString(OLESTR("SP_RAWDATA")), listed[14].Name);
  for (const ProcedureInfo& p : listed) EXPECT_NE(WString(OLESTR("GET_VALUES")), p.Name);
  EXPECT_TRUE(FindProcedure(OLESTR("GET_VALUES"), &info));
}

// ---- Parameters and statements ---------------------------------------------------------

TEST_F(ProcedureTest, ParametersAndStatementsAreCheckedBeforeTheProcedureRuns) {
  ProcedureHarness h;
  Fill(h);
  corvane::test::TraceCapture trace;
  Rows rows;
  const HRESULT noProcedure = static_cast<HRESULT>(0x8004C007L);

  // One argument short is no form of the procedure; neither is an unknown name.
  EXPECT_EQ(noProcedure, h.Run("EXEC GET_VALUES '2020-01-01', '2020-01-02', 'Flow'", &rows));
  EXPECT_TRUE(trace.Contains("Stored procedure 'GET_VALUES' doesn't exist"));
  EXPECT_EQ(noProcedure, h.Run("EXEC NO_SUCH_PROC 1", &rows));
  EXPECT_EQ(noProcedure, h.Run("SELECT * FROM GET_MOST_RECENT_VALUE('Flow', 'Level')", &rows));
  EXPECT_TRUE(trace.Contains("Stored procedure 'GET_MOST_RECENT_VALUE' doesn't exist (bad parameters)"));

  // One procedure per statement, whichever way a second one is written: the parser
  // refuses both before anything runs.
  EXPECT_EQ(E_FAIL, h.Run("EXEC GET_MOST_RECENT_VALUE 'Flow'; EXEC GET_MOST_RECENT_VALUE 'Level'", &rows));
  EXPECT_EQ(E_FAIL, h.Run("SELECT * FROM GET_MOST_RECENT_VALUE('Flow'), GET_MOST_RECENT_VALUE('Level')", &rows));
  EXPECT_EQ(0u, h.Host().Calls(Op::GetMostRecentValue));

  // Mixed case reaches the procedure; a text start time reads from 1900 and a text
  // count means no limit.
  ASSERT_EQ(S_OK, h.Run("exec get_Values 'abc', '2020-01-01 00:00:35', '2', 'flow'", &rows));
  ASSERT_EQ(4u, rows.size());
  EXPECT_EQ(At(0), rows[0][0]);
  EXPECT_EQ(At(30), rows[3][0]);
  EXPECT_DOUBLE_EQ(4.0, Number(rows[3][2]));
  EXPECT_EQ(0x80000000u, Unsigned(rows[3][1]));
  ASSERT_EQ(S_OK, h.Run("CALL GET_VALUES('abc', '2020-01-02', 'x', 'Flow')", &rows));
  EXPECT_EQ(10u, rows.size());
  ASSERT_EQ(S_OK, h.Run("{? = CALL GET_MOST_RECENT_VALUE('Level')}", &rows));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(At(15), rows[0][0]);
  // A procedure in FROM goes through the select list.
  ASSERT_EQ(S_OK, h.Run("SELECT VALUE FROM GET_MOST_RECENT_VALUE('Level')", &rows));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(std::vector<std::string>{"150"}, rows[0]);

  // A real count is passed on.
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC GET_VALUES ") + kRange + ", 3, 'Flow'", &rows));
  EXPECT_EQ(3u, rows.size());

  // A tag name with dots is one tag name, not catalog.schema.tag.
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, h.Run("EXEC GET_MOST_RECENT_VALUE 'Main.Plant.Flow'", &rows));

  // Negative counts cannot become an unsigned count.
  trace.Clear();
  EXPECT_TRUE(FAILED(h.Run(std::string("EXEC GET_VALUES ") + kRange + ", -3, 'Flow'", &rows)));
  EXPECT_TRUE(trace.Contains("[SP] -> Failed to process parameter (3)."));
}

// ---- Value procedures -------------------------------------------------------------------

TEST_F(ProcedureTest, ValueProceduresSelectReadAndReportAsDescribed) {
  ProcedureHarness h;
  Fill(h);
  corvane::test::TraceCapture trace;
  Rows rows;

  ASSERT_EQ(S_OK, h.Run(std::string("EXEC GET_GOOD_VALUES ") + kRange + ", 0, 'Flow'", &rows));
  EXPECT_EQ(8u, rows.size());
  EXPECT_TRUE(trace.Contains("[SP] GET_GOOD_VALUES -> History read done."));
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC GET_BAD_VALUES ") + kRange + ", 0, 'Flow'", &rows));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ(At(30), rows[0][0]);
  EXPECT_EQ(At(70), rows[1][0]);
  EXPECT_DOUBLE_EQ(8.0, Number(rows[1][2]));

  trace.Clear();
  EXPECT_EQ(E_INVALIDARG, h.Run(std::string("EXEC GET_VALUES ") + kRange + ", 0, ''", &rows));
  EXPECT_TRUE(trace.Contains("[SP] -> Failed to parse tag name parameter (80070057)."));
  EXPECT_TRUE(trace.Contains("[SP] GET_VALUES -> Invalid tag name parameter (80070057)."));

  h.Host().FailCall(Op::GetAllValues, 1, HIST_E_TAG_NOT_FOUND);
  trace.Clear();
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, h.Run(std::string("EXEC GET_VALUES ") + kRange + ", 0, 'Flow'", &rows));
  EXPECT_TRUE(trace.Contains("[SP] GET_VALUES -> Failed to read the data (C0040011)."));

  ASSERT_EQ(S_OK, h.Run("EXEC GET_MOST_RECENT_VALUE 'FLOW'", &rows));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(At(90), rows[0][0]);
  EXPECT_DOUBLE_EQ(10.0, Number(rows[0][2]));
  EXPECT_EQ(0xC0u, Unsigned(rows[0][1]));

  trace.Clear();
  ASSERT_EQ(S_OK, h.Run("EXEC GET_MOST_RECENT_VALUE 'Empty'", &rows));
  EXPECT_TRUE(rows.empty());
  EXPECT_TRUE(trace.Contains("[SP] GET_MOST_RECENT_VALUE -> There were no data."));

  trace.Clear();
  EXPECT_EQ(E_INVALIDARG, h.Run("EXEC GET_MOST_RECENT_VALUE ''", &rows));
  EXPECT_TRUE(trace.Contains("[SP] GET_MOST_RECENT_VALUE -> Invalid tag name parameter (80070057)."));
}

TEST_F(ProcedureTest, WithoutAValuesProviderTheValueProceduresFailBeforeTheTagIsRead) {
  ProcedureHarness h(false);
  corvane::test::TraceCapture trace;
  Rows rows;
  const HRESULT missing = static_cast<HRESULT>(0x80070490L);
  // An empty tag name would fail the tag parsing: the missing interface is found first.
  EXPECT_EQ(missing, h.Run(std::string("EXEC GET_BAD_VALUES ") + kRange + ", 0, ''", &rows));
  EXPECT_TRUE(trace.Contains(
      "[SP] GET_BAD_VALUES -> IValuesProvider is not initialized. Failed to execute the stored procedure."));
  EXPECT_FALSE(trace.Contains("[SP] -> Failed to parse tag name parameter (80070057)."));
  EXPECT_EQ(missing, h.Run("EXEC GET_MOST_RECENT_VALUE ''", &rows));
  EXPECT_EQ(missing, h.Run(std::string("EXEC GET_VALUES ") + kRange + ", 0, ''", &rows));
}

// ---- Raw data procedures ----------------------------------------------------------------

TEST_F(ProcedureTest, RawDataReadsEveryTagPageByPageFromATrimmedList) {
  ProcedureHarness h;
  Fill(h);
  h.SetMaxRows(3);
  corvane::test::TraceCapture trace;
  Rows rows;

  ASSERT_EQ(S_OK, h.Run(std::string("EXEC SP_RAWDATA ") + kRange + ", ';  Level ;  Flow ;;\tEmpty '", &rows));
  ASSERT_EQ(12u, rows.size());
  EXPECT_EQ("Level", rows[0][1]);
  EXPECT_EQ(At(15), rows[1][0]);
  EXPECT_EQ("Flow", rows[2][1]);
  EXPECT_EQ(At(90), rows[11][0]);
  EXPECT_DOUBLE_EQ(10.0, Number(rows[11][3]));
  EXPECT_EQ(0xC0u, Unsigned(rows[11][2]));
  // Level in one page, Flow in four of three, Empty in one.
  EXPECT_EQ(6u, h.Host().Calls(Op::ReadRaw));
  EXPECT_TRUE(trace.Contains("[SP] SP_RAWDATA -> History read done."));

  ASSERT_EQ(S_OK, h.Run(std::string("EXEC SP_RAWDATA ") + kRange + ", 'Level; ;Flow'", &rows));
  EXPECT_EQ(2u, rows.size());

  const ULONG before = h.Host().Calls(Op::ReadRaw);
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC SP_RAWDATA ") + kRange + ", ''", &rows));
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(before, h.Host().Calls(Op::ReadRaw));

  // No page size: each tag in one read.
  h.SetMaxRows(0);
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC SP_RAWDATA ") + kRange + ", 'Flow'", &rows));
  EXPECT_EQ(10u, rows.size());
  EXPECT_EQ(before + 1u, h.Host().Calls(Op::ReadRaw));
}

TEST_F(ProcedureTest, WritesAnswerWithOneResultTextPerHistorianCode) {
  ProcedureHarness h;
  Fill(h);
  corvane::test::TraceCapture trace;
  Rows rows;
  auto result = [&](const std::string& sql) {
    EXPECT_EQ(S_OK, h.Run(sql, &rows)) << sql;
    return rows.size() == 1 ? rows[0][0] : std::string("<no row>");
  };
  EXPECT_EQ("1 row inserted.", result("EXEC RAWDATA_INSERT 'Flow', '2020-01-01 00:00:05', '2.5', 192"));
  HistoryValue* newest = nullptr;
  ASSERT_EQ(S_OK, h.Store().ReadNewest(OLESTR("Flow"), &newest));
  FreeHistoryValue(newest);
  EXPECT_EQ("0 row inserted (Data already exists).",
            result("EXEC RAWDATA_INSERT 'Flow', '2020-01-01 00:00:05', '3', 192"));
  EXPECT_TRUE(trace.Contains("[SP] RAWDATA_INSERT -> Failed to insert the value (C004100B)."));
  EXPECT_EQ("0 row inserted (Specified tag not found).",
            result("EXEC RAWDATA_INSERT 'Nope', '2020-01-01 00:00:05', '3', 192"));
  // A number is written as its text.
  EXPECT_EQ("1 row updated.", result("EXEC RAWDATA_UPDATE 'Flow', '2020-01-01 00:00:05', 7.25, 0"));
  EXPECT_EQ("0 row updated (Specified data not found).",
            result("EXEC RAWDATA_UPDATE 'Flow', '2020-01-01 00:00:06', '1', 0"));
  EXPECT_EQ("0 row updated (Specified tag not found).", result("EXEC RAWDATA_UPDATE 'Nope', '2020-01-01', '1', 0"));
  const std::string refused = result("EXEC RAWDATA_INSERT 'Flow', '2020-01-01 00:00:06', 'abc', 0");
  EXPECT_EQ(0u, refused.rfind("0 row inserted (8", 0)) << refused;

  ASSERT_EQ(S_OK, h.Run("EXEC GET_VALUES '2020-01-01 00:00:05', '2020-01-01 00:00:05', 0, 'Flow'", &rows));
  ASSERT_EQ(1u, rows.size());
  EXPECT_DOUBLE_EQ(7.25, Number(rows[0][2]));

  h.Host().FailCall(Op::InsertValue, 0, E_ACCESSDENIED);
  EXPECT_EQ("0 row inserted (80070005).", result("EXEC RAWDATA_INSERT 'Flow', '2020-01-01 00:00:07', '1', 0"));
  trace.Clear();
  EXPECT_EQ(E_INVALIDARG, h.Run("EXEC RAWDATA_INSERT '', '2020-01-01', '1', 0", &rows));
  EXPECT_TRUE(trace.Contains("[SP] RAWDATA_INSERT -> Invalid tag name parameter (80070057)."));
}

// ---- Aggregate procedures ---------------------------------------------------------------

namespace {

// Tag "Ramp": good samples 0, 10, 20, 30 at 0, 10, 20, 30 s.
void FillRamp(ProcedureHarness& h) {
  TagDefinition ramp;
  ramp.name = OLESTR("Ramp");
  ASSERT_EQ(S_OK, h.Store().AddTag(ramp));
  std::vector<SampleInput> samples;
  for (int i = 0; i < 4; ++i) {
    SampleInput s;
    s.time = T(10.0 * i);
    s.number = 10.0 * i;
    samples.push_back(s);
  }
  ASSERT_EQ(S_OK, h.Store().AppendSamples(OLESTR("Ramp"), samples));
}

const char* kRampRange = "'2020-01-01 00:00:00', '2020-01-01 00:00:40', 20000";

}  // namespace

TEST_F(ProcedureTest, AnalogAggregatesOfOneTagPerInterval) {
  ProcedureHarness h;
  FillRamp(h);
  corvane::test::TraceCapture trace;
  Rows rows;
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_ANALOG ") + kRampRange + ", 'Ramp'", &rows));
  ASSERT_EQ(2u, rows.size());
  ASSERT_EQ(37u, rows[0].size());
  // [0 s, 20 s): 0 and 10; [20 s, 40 s): 20 and 30.
  EXPECT_DOUBLE_EQ(0.0, Number(rows[0][1]));
  EXPECT_EQ(At(0), rows[0][4]);
  EXPECT_DOUBLE_EQ(10.0, Number(rows[0][5]));
  EXPECT_EQ(At(10), rows[0][8]);
  EXPECT_DOUBLE_EQ(5.0, Number(rows[0][9]));
  EXPECT_DOUBLE_EQ(2.0, Number(rows[0][34]));
  EXPECT_DOUBLE_EQ(20.0, Number(rows[1][1]));
  EXPECT_DOUBLE_EQ(30.0, Number(rows[1][5]));
  EXPECT_DOUBLE_EQ(25.0, Number(rows[1][9]));
  EXPECT_EQ(At(20), rows[1][0]);
  EXPECT_EQ(corvane::ToUtf8(corvane::QualityToStr2(Unsigned(rows[1][2]))), rows[1][3]);
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG -> History read done."));

  ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_QUALITY ") + kRampRange + ", 'Ramp'", &rows));
  ASSERT_EQ(2u, rows.size());
  ASSERT_EQ(12u, rows[0].size());
  EXPECT_EQ(corvane::ToUtf8(corvane::QualityToStr2(Unsigned(rows[0][11]))), rows[0][10]);

  h.Host().FailCall(Op::ReadProcessed, 0, HIST_E_AGGREGATE_NOT_AVAILABLE);
  trace.Clear();
  EXPECT_EQ(HIST_E_AGGREGATE_NOT_AVAILABLE, h.Run(std::string("EXEC HDA_BOOL ") + kRampRange + ", 'Ramp'", &rows));
  EXPECT_TRUE(trace.Contains("[SP] HDA_BOOL -> Failed to read the data (C0041009)."));
  trace.Clear();
  EXPECT_EQ(E_INVALIDARG, h.Run(std::string("EXEC HDA_BOOL ") + kRampRange + ", ''", &rows));
  EXPECT_TRUE(trace.Contains("[SP] -> Failed to parse tag name parameter (80070057)."));
}

TEST_F(ProcedureTest, LongRangesAreReadInChunksOfAtMostMaxRowsIntervals) {
  ProcedureHarness h;
  FillRamp(h);
  h.SetMaxRows(500);
  Rows rows;
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01', '2020-01-02', 60000, 'Ramp'", &rows));
  EXPECT_EQ(3u, h.Host().Calls(Op::ReadProcessed));
  EXPECT_EQ(24u * 60u, rows.size());
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01', '2020-01-31', 60000, 'Ramp'", &rows));
  EXPECT_EQ(3u + 87u, h.Host().Calls(Op::ReadProcessed));
  // Period 0 and a period in text: one read for the whole range.
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01', '2020-01-31', 0, 'Ramp'", &rows));
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01', '2020-01-31', '60000', 'Ramp'", &rows));
  EXPECT_EQ(3u + 87u + 2u, h.Host().Calls(Op::ReadProcessed));
  // Four chunks of 500 s; without a page size, one read.
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:33:20', 1000, 'Ramp'", &rows));
  EXPECT_EQ(3u + 87u + 2u + 4u, h.Host().Calls(Op::ReadProcessed));
  h.SetMaxRows(0);
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:33:20', 1000, 'Ramp'", &rows));
  EXPECT_EQ(3u + 87u + 2u + 4u + 1u, h.Host().Calls(Op::ReadProcessed));
}

TEST_F(ProcedureTest, FiveTagFormsLineUpTagsAndSurviveEmptyNames) {
  ProcedureHarness h;
  FillRamp(h);
  corvane::test::TraceCapture trace;
  Rows rows;
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_ANALOG_5 ") + kRampRange + ", 'Ramp', '', 'ramp', 'RAMP', 'Ramp'", &rows));
  ASSERT_EQ(2u, rows.size());
  ASSERT_EQ(126u, rows[0].size());
  EXPECT_DOUBLE_EQ(20.0, Number(rows[1][1]));            // MIN_Value_1
  EXPECT_EQ("<null>", rows[1][1 + 25]);                  // MIN_Value_2
  EXPECT_DOUBLE_EQ(20.0, Number(rows[1][1 + 50]));       // MIN_Value_3
  EXPECT_DOUBLE_EQ(2.0, Number(rows[1][125 - 1]));       // COUNT_Value_5
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG_5 -> Failed to prepare the output data (80070057)."));
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG_5 -> History read done."));

  ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_ANALOG_5 ") + kRampRange + ", '', 'Ramp', 'Ramp', 'Ramp', 'Ramp'", &rows));
  EXPECT_TRUE(rows.empty());

  // An empty fifth name leaves the chunk to the step, which still finishes.
  const ULONG before = h.Host().Calls(Op::ReadProcessed);
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_BOOL_5 ") + kRampRange + ", 'Ramp', 'Ramp', 'Ramp', 'Ramp', ''", &rows));
  EXPECT_EQ(2u, rows.size());
  EXPECT_EQ(before + 4u, h.Host().Calls(Op::ReadProcessed));

  trace.Clear();
  ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_REDUCED_ANALOG_5 ") + kRampRange + ", 'Ramp', 'Ramp', 'Ramp', 'Ramp', 'Ramp'", &rows));
  EXPECT_EQ(51u, rows[0].size());
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG_5 -> History read done."));
  EXPECT_FALSE(trace.Contains("[SP] HDA_REDUCED_ANALOG_5 -> History read done."));
}

// ---- Every historian call failing in turn ------------------------------------------------

struct FailureCase {
  const char* sql;
  Op op;
  bool surfaces = true;  // false: answered in a result text, or read past
};

class ProcedureFailureTest : public corvane::test::LeakCheckedTest,
                             public ::testing::WithParamInterface<FailureCase> {};

TEST_P(ProcedureFailureTest, AFailingHistorianCallLeavesNothingBehind) {
  ProcedureHarness h;
  Fill(h);
  FillRamp(h);
  h.SetMaxRows(3);
  int failed = 0;
  for (ULONG n = 1; n <= 4; ++n) {
    h.Host().FailCall(GetParam().op, n, E_UNEXPECTED);
    Rows rows;
    const HRESULT hr = h.Run(GetParam().sql, &rows);
    EXPECT_TRUE(hr == S_OK || hr == E_UNEXPECTED) << std::hex << hr;
    failed += hr == E_UNEXPECTED;
  }
  EXPECT_EQ(GetParam().surfaces, failed > 0) << "the failure reached the consumer";
}

INSTANTIATE_TEST_SUITE_P(
    EveryCall, ProcedureFailureTest,
    ::testing::Values(
        FailureCase{"EXEC GET_VALUES '2020-01-01', '2020-01-02', 0, 'Flow'", Op::GetAllValues},
        FailureCase{"EXEC GET_GOOD_VALUES '2020-01-01', '2020-01-02', 0, 'Flow'", Op::GetGoodValues},
        FailureCase{"EXEC GET_MOST_RECENT_VALUE 'Flow'", Op::GetMostRecentValue},
        FailureCase{"EXEC SP_RAWDATA '2020-01-01', '2020-01-02', 'Flow;Level'", Op::ReadRaw},
        FailureCase{"EXEC RAWDATA_UPDATE 'Flow', '2020-01-01', '1', 0", Op::UpdateValue, false},
        FailureCase{"EXEC HDA_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:00:40', 10000, 'Ramp'", Op::ReadProcessed},
        FailureCase{"EXEC HDA_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:00:40', 10000, 'Ramp'", Op::GetCapabilities, false},
        FailureCase{"EXEC HDA_QUALITY_5 '2020-01-01 00:00:00', '2020-01-01 00:00:40', 10000, 'Ramp', 'Ramp', "
                    "'Ramp', 'Ramp', 'Ramp'",
                    Op::ReadProcessed}));

// ---- Filtered statistics ----------------------------------------------------------------

TEST_F(ProcedureTest, FilteredStatisticsPageThroughEveryMatchingTag) {
  ProcedureHarness h;
  Fill(h);
  FillRamp(h);
  corvane::test::TraceCapture trace;
  Rows rows;
  // Flow, Level, Empty and Ramp match '*'; two names per page makes two pages.
  ASSERT_EQ(S_OK, h.Run("EXEC GET_FILTERED_TAG_STATISTICS '*', '', '', '2020-01-01', '2020-01-02', 2", &rows));
  ASSERT_EQ(4u, rows.size());
  EXPECT_EQ(2u, h.Host().Calls(Op::GetFilteredTagStatistics));
  EXPECT_TRUE(trace.Contains("[SP] GET_FILTERED_TAG_STATISTICS -> History read done."));
  for (const auto& row : rows) {
    ASSERT_EQ(9u, row.size());
    if (row[0] == "Ramp") {
      EXPECT_DOUBLE_EQ(0.0, Number(row[1]));
      EXPECT_DOUBLE_EQ(30.0, Number(row[3]));
      EXPECT_DOUBLE_EQ(15.0, Number(row[5]));
      EXPECT_DOUBLE_EQ(4.0, Number(row[7]));
    }
  }
  // Names filtered by all three; a text maximum means no limit (one page).
  const ULONG before = h.Host().Calls(Op::GetFilteredTagStatistics);
  ASSERT_EQ(S_OK, h.Run("EXEC GET_FILTERED_TAG_STATISTICS 'R*', '*p', '', '2020-01-01', '2020-01-02', 'x'", &rows));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("Ramp", rows[0][0]);
  EXPECT_EQ(before + 1u, h.Host().Calls(Op::GetFilteredTagStatistics));
  ASSERT_EQ(S_OK, h.Run("EXEC GET_FILTERED_TAG_STATISTICS 'nothing*', '', '', '2020-01-01', '2020-01-02', 0", &rows));
  EXPECT_TRUE(rows.empty());
  // The next read fails on its first page: nothing is left held.
  h.Host().FailCall(Op::GetFilteredTagStatistics, before + 3, E_UNEXPECTED);
  trace.Clear();
  EXPECT_EQ(E_UNEXPECTED, h.Run("EXEC GET_FILTERED_TAG_STATISTICS '*', '', '', '2020-01-01', '2020-01-02', 1", &rows));
  EXPECT_TRUE(trace.Contains("[SP] GET_FILTERED_TAG_STATISTICS -> Failed to read the data (8000FFFF)."));
  EXPECT_EQ(0u, h.Host().OutstandingContinuationPoints());
}
