#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <tuple>

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

void AddTag(ProcedureHarness& h, const OLECHAR* name, const std::vector<SampleInput>& samples) {
  TagDefinition tag;
  tag.name = name;
  ASSERT_EQ(S_OK, h.Store().AddTag(tag));
  ASSERT_EQ(S_OK, samples.empty() ? S_OK : h.Store().AppendSamples(name, samples));
}

SampleInput Sample(double seconds, double number, DWORD quality = 0) {
  SampleInput s;
  s.time = T(seconds);
  s.number = number;
  s.quality = quality;
  return s;
}

// Tag "Flow": 0, 10, ..., 90 s with values 1..10; the samples at 30 s and 70 s are bad.
// Tag "Level": 5 s and 15 s. Tag "Empty": no samples.
void Fill(ProcedureHarness& h) {
  std::vector<SampleInput> flow;
  for (int i = 0; i < 10; ++i) flow.push_back(Sample(10.0 * i, i + 1, (i == 3 || i == 7) ? 0x80000000u : 0xC0u));
  AddTag(h, OLESTR("Flow"), flow);
  AddTag(h, OLESTR("Level"), {Sample(5, 50), Sample(15, 150)});
  AddTag(h, OLESTR("Empty"), {});
}

// Tag "Ramp": good samples 0, 10, 20, 30 at 0, 10, 20, 30 s.
void FillRamp(ProcedureHarness& h) {
  AddTag(h, OLESTR("Ramp"), {Sample(0, 0), Sample(10, 10), Sample(20, 20), Sample(30, 30)});
}

const std::string kRange = "'2020-01-01 00:00:00', '2020-01-01 00:10:00'";
const std::string kRampRange = "'2020-01-01 00:00:00', '2020-01-01 00:00:40', 20000";

class ProcedureTest : public corvane::test::LeakCheckedTest {
 protected:
  void TearDown() override {
    h_.reset();
    LeakCheckedTest::TearDown();
  }
  ProcedureHarness& Open(bool flowLevelEmpty, bool ramp, bool withValues = true) {
    h_ = std::make_unique<ProcedureHarness>(withValues);
    if (flowLevelEmpty) Fill(*h_);
    if (ramp) FillRamp(*h_);
    return *h_;
  }
  // Runs `sql` into `rows` expecting `hr`, and the trace of this run alone to hold `traced`.
  void RunTraced(HRESULT hr, const std::string& sql, const char* traced) {
    trace.Clear();
    EXPECT_EQ(hr, h_->Run(sql, &rows)) << sql;
    EXPECT_TRUE(trace.Contains(traced)) << traced;
  }
  std::unique_ptr<ProcedureHarness> h_;
  corvane::test::TraceCapture trace;
  Rows rows;
};

}  // namespace

TEST(ProcedureCatalog, LooksUpNamesAndColumnsIgnoringCaseWithTheirLayouts) {
  ProcedureInfo info;
  ASSERT_TRUE(FindProcedure(OLESTR("hda_Analog"), &info));
  EXPECT_EQ(WString(OLESTR("HDA_ANALOG")), info.Name);
  EXPECT_EQ(WString(OLESTR("Description")), info.Description);
  EXPECT_EQ(WString(OLESTR("TIME_AVG_Status_Str")), info.Columns.at(14).Name);
  ASSERT_EQ(4u, info.Parameters.size());
  EXPECT_EQ(DBTYPE_R8, info.Parameters[2].wType);
  EXPECT_EQ(DBPARAMTYPE_INPUT, info.Parameters[2].ParamType);
  EXPECT_FALSE(FindProcedure(OLESTR("NO_SUCH_PROC"), &info));
  EXPECT_FALSE(FindProcedure(nullptr, &info));

  const std::pair<const OLECHAR*, size_t> counts[] = {
      {OLESTR("HDA_ANALOG"), 37},    {OLESTR("HDA_ANALOG_5"), 126}, {OLESTR("HDA_REDUCED_ANALOG"), 15},
      {OLESTR("HDA_REDUCED_ANALOG_5"), 51}, {OLESTR("HDA_BOOL"), 13}, {OLESTR("HDA_BOOL_5"), 41},
      {OLESTR("HDA_QUALITY"), 12},   {OLESTR("HDA_QUALITY_5"), 56}, {OLESTR("SP_RAWDATA"), 4},
      {OLESTR("GET_FILTERED_TAG_STATISTICS"), 9}};
  for (const auto& c : counts) {
    ASSERT_TRUE(FindProcedure(c.first, &info));
    EXPECT_EQ(c.second, info.Columns.size()) << corvane::ToUtf8(c.first);
    for (size_t i = 0; i < info.Columns.size(); ++i) EXPECT_EQ(static_cast<LONGLONG>(i + 1), info.Columns[i].Ordinal);
  }

  // Procedure, column, then its ordinal, type and size (0: not checked); ordinal 0: absent.
  const struct { const OLECHAR *procedure, *column; LONGLONG ordinal; DBTYPE type; ULONGLONG size; } columns[] = {
                 {OLESTR("hda_analog_5"), OLESTR("min_value_1"), 2, DBTYPE_VARIANT, 0},
                 {OLESTR("HDA_ANALOG_5"), OLESTR("COUNT_Status_5"), 126, DBTYPE_UI4, 4},
                 {OLESTR("HDA_ANALOG_5"), OLESTR("MIN_Status_Str_1"), 0, 0, 0},
                 {OLESTR("HDA_QUALITY_5"), OLESTR("WORST_QUALITY_Value_Str_2"), 1 + 11 + 10, DBTYPE_VARIANT, 0},
                 {OLESTR("HDA_ANALOG"), OLESTR("LAST_Timestamp"), 0, DBTYPE_DBTIMESTAMP, 16},
                 {OLESTR("RAWDATA_INSERT"), OLESTR("result"), 0, 0, 4096}};
  for (const auto& c : columns) {
    SCOPED_TRACE(corvane::ToUtf8(c.column));
    ProcedureColumnInfo column;
    const bool found = FindProcedureColumn(c.procedure, c.column, &column);
    ASSERT_EQ(c.ordinal || c.type || c.size, found);
    if (!found) continue;
    EXPECT_EQ(c.ordinal ? c.ordinal : column.Ordinal, column.Ordinal);
    EXPECT_EQ(c.type ? c.type : column.wType, column.wType);
    EXPECT_EQ(c.size ? c.size : column.ColumnSize, column.ColumnSize);
  }

  std::vector<ProcedureInfo> listed;
  EnumerateProcedures(&listed);
  ASSERT_EQ(15u, listed.size());
  EXPECT_EQ(WString(OLESTR("GET_BAD_VALUES")), listed[7].Name);
  EXPECT_EQ(WString(OLESTR("SP_RAWDATA")), listed[14].Name);
  for (const ProcedureInfo& p : listed) EXPECT_NE(WString(OLESTR("GET_VALUES")), p.Name);
  EXPECT_TRUE(FindProcedure(OLESTR("GET_VALUES"), &info));
}

TEST_F(ProcedureTest, ParametersAndStatementsAreCheckedBeforeTheProcedureRuns) {
  ProcedureHarness& h = Open(true, false);
  const HRESULT noProcedure = static_cast<HRESULT>(0x8004C007L);

  // One argument short is no form of the procedure; neither is an unknown name.
  RunTraced(noProcedure, "EXEC GET_VALUES '2020-01-01', '2020-01-02', 'Flow'",
            "Stored procedure 'GET_VALUES' doesn't exist");
  EXPECT_EQ(noProcedure, h.Run("EXEC NO_SUCH_PROC 1", &rows));
  RunTraced(noProcedure, "SELECT * FROM GET_MOST_RECENT_VALUE('Flow', 'Level')",
            "Stored procedure 'GET_MOST_RECENT_VALUE' doesn't exist (bad parameters)");
  // One procedure per statement, however a second one is written: refused before anything runs.
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
  EXPECT_EQ(Rows{{"150"}}, rows);
  ASSERT_EQ(S_OK, h.Run("EXEC GET_VALUES " + kRange + ", 3, 'Flow'", &rows));
  EXPECT_EQ(3u, rows.size());
  // A tag name with dots is one tag name, not catalog.schema.tag.
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, h.Run("EXEC GET_MOST_RECENT_VALUE 'Main.Plant.Flow'", &rows));
  // Negative counts cannot become an unsigned count.
  trace.Clear();
  EXPECT_TRUE(FAILED(h.Run("EXEC GET_VALUES " + kRange + ", -3, 'Flow'", &rows)));
  EXPECT_TRUE(trace.Contains("[SP] -> Failed to process parameter (3)."));
}

TEST_F(ProcedureTest, ValueProceduresSelectReadAndReportAsDescribed) {
  ProcedureHarness& h = Open(true, false);
  ASSERT_EQ(S_OK, h.Run("EXEC GET_GOOD_VALUES " + kRange + ", 0, 'Flow'", &rows));
  EXPECT_EQ(8u, rows.size());
  EXPECT_TRUE(trace.Contains("[SP] GET_GOOD_VALUES -> History read done."));
  ASSERT_EQ(S_OK, h.Run("EXEC GET_BAD_VALUES " + kRange + ", 0, 'Flow'", &rows));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ(At(30), rows[0][0]);
  EXPECT_EQ(At(70), rows[1][0]);
  EXPECT_DOUBLE_EQ(8.0, Number(rows[1][2]));

  RunTraced(E_INVALIDARG, "EXEC GET_VALUES " + kRange + ", 0, ''",
            "[SP] -> Failed to parse tag name parameter (80070057).");
  EXPECT_TRUE(trace.Contains("[SP] GET_VALUES -> Invalid tag name parameter (80070057)."));
  h.Host().FailCall(Op::GetAllValues, 1, HIST_E_TAG_NOT_FOUND);
  RunTraced(HIST_E_TAG_NOT_FOUND, "EXEC GET_VALUES " + kRange + ", 0, 'Flow'",
            "[SP] GET_VALUES -> Failed to read the data (C0040011).");

  ASSERT_EQ(S_OK, h.Run("EXEC GET_MOST_RECENT_VALUE 'FLOW'", &rows));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(At(90), rows[0][0]);
  EXPECT_DOUBLE_EQ(10.0, Number(rows[0][2]));
  EXPECT_EQ(0xC0u, Unsigned(rows[0][1]));
  RunTraced(S_OK, "EXEC GET_MOST_RECENT_VALUE 'Empty'", "[SP] GET_MOST_RECENT_VALUE -> There were no data.");
  EXPECT_TRUE(rows.empty());
  RunTraced(E_INVALIDARG, "EXEC GET_MOST_RECENT_VALUE ''",
            "[SP] GET_MOST_RECENT_VALUE -> Invalid tag name parameter (80070057).");
}

TEST_F(ProcedureTest, WithoutAValuesProviderTheValueProceduresFailBeforeTheTagIsRead) {
  ProcedureHarness& h = Open(false, false, false);
  const HRESULT missing = static_cast<HRESULT>(0x80070490L);
  // An empty tag name would fail the tag parsing: the missing interface is found first.
  RunTraced(missing, "EXEC GET_BAD_VALUES " + kRange + ", 0, ''",
            "[SP] GET_BAD_VALUES -> IValuesProvider is not initialized. Failed to execute the stored procedure.");
  EXPECT_FALSE(trace.Contains("[SP] -> Failed to parse tag name parameter (80070057)."));
  EXPECT_EQ(missing, h.Run("EXEC GET_MOST_RECENT_VALUE ''", &rows));
  EXPECT_EQ(missing, h.Run("EXEC GET_VALUES " + kRange + ", 0, ''", &rows));
}

TEST_F(ProcedureTest, RawDataReadsEveryTagPageByPageFromATrimmedList) {
  ProcedureHarness& h = Open(true, false);
  h.SetMaxRows(3);
  ASSERT_EQ(S_OK, h.Run("EXEC SP_RAWDATA " + kRange + ", ';  Level ;  Flow ;;\tEmpty '", &rows));
  ASSERT_EQ(12u, rows.size());
  EXPECT_EQ("Level", rows[0][1]);
  EXPECT_EQ(At(15), rows[1][0]);
  EXPECT_EQ("Flow", rows[2][1]);
  EXPECT_EQ(At(90), rows[11][0]);
  EXPECT_DOUBLE_EQ(10.0, Number(rows[11][3]));
  EXPECT_EQ(0xC0u, Unsigned(rows[11][2]));
  EXPECT_EQ(6u, h.Host().Calls(Op::ReadRaw));  // Level in one page, Flow in four of three, Empty in one
  EXPECT_TRUE(trace.Contains("[SP] SP_RAWDATA -> History read done."));
  ASSERT_EQ(S_OK, h.Run("EXEC SP_RAWDATA " + kRange + ", 'Level; ;Flow'", &rows));
  EXPECT_EQ(2u, rows.size());
  const ULONG before = h.Host().Calls(Op::ReadRaw);
  ASSERT_EQ(S_OK, h.Run("EXEC SP_RAWDATA " + kRange + ", ''", &rows));
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(before, h.Host().Calls(Op::ReadRaw));
  // No page size: each tag in one read.
  h.SetMaxRows(0);
  ASSERT_EQ(S_OK, h.Run("EXEC SP_RAWDATA " + kRange + ", 'Flow'", &rows));
  EXPECT_EQ(10u, rows.size());
  EXPECT_EQ(before + 1u, h.Host().Calls(Op::ReadRaw));
}

TEST_F(ProcedureTest, RowsReadAheadBeforeAFailureReachTheConsumerFirst) {
  ProcedureHarness& h = Open(true, false);
  h.SetMaxRows(3);
  // Flow comes in pages of three; its fourth read fails after nine samples were read
  // ahead. The consumer's first batch of seven is whole; the failure comes with the
  // next batch (whose two rows are not handed out).
  h.Host().FailCall(Op::ReadRaw, 4, E_UNEXPECTED);
  EXPECT_EQ(E_UNEXPECTED, h.Run("EXEC SP_RAWDATA " + kRange + ", 'Flow'", &rows));
  ASSERT_EQ(7u, rows.size());
  EXPECT_EQ("Flow", rows[6][1]);
}

TEST_F(ProcedureTest, WritesAnswerWithOneResultTextPerHistorianCode) {
  ProcedureHarness& h = Open(true, false);
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
  RunTraced(E_INVALIDARG, "EXEC RAWDATA_INSERT '', '2020-01-01', '1', 0",
            "[SP] RAWDATA_INSERT -> Invalid tag name parameter (80070057).");
}

TEST_F(ProcedureTest, AnalogAggregatesOfOneTagPerInterval) {
  ProcedureHarness& h = Open(false, true);
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_ANALOG " + kRampRange + ", 'Ramp'", &rows));
  ASSERT_EQ(2u, rows.size());
  ASSERT_EQ(37u, rows[0].size());
  // [0 s, 20 s): 0 and 10; [20 s, 40 s): 20 and 30. Column, then the numbers of both rows.
  const std::tuple<size_t, double, double> numbers[] = {{1, 0, 20}, {5, 10, 30}, {9, 5, 25}, {34, 2, 2}};
  for (const auto& [column, first, second] : numbers) {
    EXPECT_DOUBLE_EQ(first, Number(rows[0][column])) << column;
    EXPECT_DOUBLE_EQ(second, Number(rows[1][column])) << column;
  }
  EXPECT_EQ(At(0), rows[0][4]);
  EXPECT_EQ(At(10), rows[0][8]);
  EXPECT_EQ(At(20), rows[1][0]);
  // Each status text is its own status word's: the aggregates' words differ, and rows
  // repeat them.
  for (const auto& row : rows) {
    for (const size_t status : {2, 6, 10, 13, 16, 19, 22, 26, 29, 32, 35})
      EXPECT_EQ(corvane::ToUtf8(corvane::QualityToStr2(Unsigned(row[status]))), row[status + 1]) << status;
  }
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG -> History read done."));

  ASSERT_EQ(S_OK, h.Run("EXEC HDA_QUALITY " + kRampRange + ", 'Ramp'", &rows));
  ASSERT_EQ(2u, rows.size());
  ASSERT_EQ(12u, rows[0].size());
  EXPECT_EQ(corvane::ToUtf8(corvane::QualityToStr2(Unsigned(rows[0][11]))), rows[0][10]);

  h.Host().FailCall(Op::ReadProcessed, 0, HIST_E_AGGREGATE_NOT_AVAILABLE);
  RunTraced(HIST_E_AGGREGATE_NOT_AVAILABLE, "EXEC HDA_BOOL " + kRampRange + ", 'Ramp'",
            "[SP] HDA_BOOL -> Failed to read the data (C0041009).");
  RunTraced(E_INVALIDARG, "EXEC HDA_BOOL " + kRampRange + ", ''",
            "[SP] -> Failed to parse tag name parameter (80070057).");
}

TEST_F(ProcedureTest, LongRangesAreReadInChunksOfAtMostMaxRowsIntervals) {
  ProcedureHarness& h = Open(false, true);
  h.SetMaxRows(500);
  // Statement, then the historian reads it makes. A period of 0 or in text: one read.
  const std::pair<const char*, ULONG> cases[] = {
      {"'2020-01-01', '2020-01-02', 60000", 3},
      {"'2020-01-01', '2020-01-31', 60000", 87},
      {"'2020-01-01', '2020-01-31', 0", 1},
      {"'2020-01-01', '2020-01-31', '60000'", 1},
      {"'2020-01-01 00:00:00', '2020-01-01 00:33:20', 1000", 4}};  // four chunks of 500 s
  for (const auto& c : cases) {
    const ULONG before = h.Host().Calls(Op::ReadProcessed);
    ASSERT_EQ(S_OK, h.Run(std::string("EXEC HDA_REDUCED_ANALOG ") + c.first + ", 'Ramp'", &rows));
    EXPECT_EQ(before + c.second, h.Host().Calls(Op::ReadProcessed)) << c.first;
    if (c.second == 3) {
      EXPECT_EQ(24u * 60u, rows.size());
    }
  }
  // Without a page size, one read.
  h.SetMaxRows(0);
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_REDUCED_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:33:20', 1000, 'Ramp'", &rows));
  EXPECT_EQ(3u + 87u + 2u + 4u + 1u, h.Host().Calls(Op::ReadProcessed));
}

TEST_F(ProcedureTest, FiveTagFormsLineUpTagsAndSurviveEmptyNames) {
  ProcedureHarness& h = Open(false, true);
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_ANALOG_5 " + kRampRange + ", 'Ramp', '', 'ramp', 'RAMP', 'Ramp'", &rows));
  ASSERT_EQ(2u, rows.size());
  ASSERT_EQ(126u, rows[0].size());
  EXPECT_DOUBLE_EQ(20.0, Number(rows[1][1]));       // MIN_Value_1
  EXPECT_EQ("<null>", rows[1][1 + 25]);             // MIN_Value_2
  EXPECT_DOUBLE_EQ(20.0, Number(rows[1][1 + 50]));  // MIN_Value_3
  EXPECT_DOUBLE_EQ(2.0, Number(rows[1][125 - 1]));  // COUNT_Value_5
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG_5 -> Failed to prepare the output data (80070057)."));
  EXPECT_TRUE(trace.Contains("[SP] HDA_ANALOG_5 -> History read done."));
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_ANALOG_5 " + kRampRange + ", '', 'Ramp', 'Ramp', 'Ramp', 'Ramp'", &rows));
  EXPECT_TRUE(rows.empty());
  // An empty fifth name leaves the chunk to the step, which still finishes.
  const ULONG before = h.Host().Calls(Op::ReadProcessed);
  ASSERT_EQ(S_OK, h.Run("EXEC HDA_BOOL_5 " + kRampRange + ", 'Ramp', 'Ramp', 'Ramp', 'Ramp', ''", &rows));
  EXPECT_EQ(2u, rows.size());
  EXPECT_EQ(before + 4u, h.Host().Calls(Op::ReadProcessed));
  RunTraced(S_OK, "EXEC HDA_REDUCED_ANALOG_5 " + kRampRange + ", 'Ramp', 'Ramp', 'Ramp', 'Ramp', 'Ramp'",
            "[SP] HDA_ANALOG_5 -> History read done.");
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(51u, rows[0].size());
  EXPECT_FALSE(trace.Contains("[SP] HDA_REDUCED_ANALOG_5 -> History read done."));
}

TEST_F(ProcedureTest, FilteredStatisticsPageThroughEveryMatchingTag) {
  ProcedureHarness& h = Open(true, true);
  // Flow, Level, Empty and Ramp match '*'; two names per page makes two pages.
  ASSERT_EQ(S_OK, h.Run("EXEC GET_FILTERED_TAG_STATISTICS '*', '', '', '2020-01-01', '2020-01-02', 2", &rows));
  ASSERT_EQ(4u, rows.size());
  EXPECT_EQ(2u, h.Host().Calls(Op::GetFilteredTagStatistics));
  EXPECT_TRUE(trace.Contains("[SP] GET_FILTERED_TAG_STATISTICS -> History read done."));
  for (const auto& row : rows) ASSERT_EQ(9u, row.size());
  const auto ramp = std::find_if(rows.begin(), rows.end(), [](const auto& row) { return row[0] == "Ramp"; });
  ASSERT_NE(rows.end(), ramp);
  const std::pair<size_t, double> statistics[] = {{1, 0.0}, {3, 30.0}, {5, 15.0}, {7, 4.0}};
  for (const auto& [column, value] : statistics) EXPECT_DOUBLE_EQ(value, Number((*ramp)[column])) << column;
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
  RunTraced(E_UNEXPECTED, "EXEC GET_FILTERED_TAG_STATISTICS '*', '', '', '2020-01-01', '2020-01-02', 1",
            "[SP] GET_FILTERED_TAG_STATISTICS -> Failed to read the data (8000FFFF).");
  EXPECT_EQ(0u, h.Host().OutstandingContinuationPoints());
}
