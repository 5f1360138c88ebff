// Every historian call of a statement failed in turn (a historian code, E_OUTOFMEMORY): the
// consumer gets the failure with a described record, keeps the rows it holds, and nothing
// leaks, no continuation point stays open and no sample is half-written.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/session/ConsumerFixture.h"
#include "tests/support/Printers.h"

namespace corvane::test {
namespace {

using Op = HostOp;

constexpr int kOps = static_cast<int>(Op::Count);
// Calls of one operation failed per statement: the first pages are where a read starts,
// turns a page and changes tag; later calls repeat those paths.
constexpr ULONG kMaxCallsPerOp = 6;
// A code of the historian's own that no path of the provider turns into a text.
constexpr HRESULT kHistorianCode = HIST_E_AGGREGATE_NOT_AVAILABLE;

enum class Answer {
  Fails,   // the failure comes back from Execute or GetNextRows with the host's code
  InText,  // the write procedures answer S_OK with one row naming the code
};

struct Statement {
  const char* name;
  const char* sql;
  Answer answer = Answer::Fails;
  std::vector<Op> readPast = {};  // failures the statement goes on without
  // The worker may read ahead a page the answer does not need: such a read failing may go
  // unreported, provided the answer is whole.
  bool readsAhead = false;
  bool writes = false;  // changes the history when nothing fails
};

void PrintTo(const Statement& s, std::ostream* os) { *os << s.sql; }

// Tag "Flow": 0, 10, ..., 90 s with values 1..10 (the one at 30 s bad); tag "Level": 5,
// 15, 25, 35 s. The settings read 2020-01-01 00:00 to 01:00 and three values per
// historian call, so that reads take several pages. Rows are fetched two at a time.
class World : public SqlConsumer {
 public:
  World() {
    const ULONGLONG base = 132223104000000000ull;  // 2020-01-01 00:00:00 UTC
    for (int t = 0; t < 2; ++t) {
      corvane::historian::TagDefinition tag;
      tag.name = t == 0 ? OLESTR("Flow") : OLESTR("Level");
      EXPECT_EQ(S_OK, Store().AddTag(tag));
      EXPECT_EQ(S_OK, Store().AppendGenerated(tag.name, t == 0 ? 10 : 4, [&](size_t i, historian::SampleInput& s) {
        s.time = base + (t == 0 ? 10 * i : 5 + 10 * i) * 10000000ull;
        s.number = t == 0 ? i + 1 : 100 + i;
        s.quality = (t == 0 && i == 3) ? OPCUA_BAD : OPCUA_GOOD;
      }));
    }
    Open();
    EXPECT_EQ(S_OK, Run("UPDATE QUERYSETTINGS SET TIMESTAMP_START = '2020-01-01 00:00:00', "
                        "TIMESTAMP_END = '2020-01-01 01:00:00', USE_USER_TIME_RANGE = 1, MAX_ROWS_TO_RETURN = 3")
                        .hr);
  }
  Outcome Run(const std::string& sql) { return SqlConsumer::Run(sql, {}, 2); }
};

class FaultSweep : public corvane::test::LeakCheckedTest, public ::testing::WithParamInterface<Statement> {};

TEST_P(FaultSweep, EveryHostCallFailsInTurn) {
  const Statement& statement = GetParam();
  ULONG made[kOps] = {};
  Outcome clean;
  Rows oldState, newState;
  {
    World world;
    ULONG before[kOps];
    for (int op = 0; op < kOps; ++op) before[op] = world.Host().Calls(static_cast<Op>(op));
    oldState = world.Contents();
    clean = world.Run(statement.sql);
    ASSERT_EQ(S_OK, clean.hr) << std::hex << clean.hr << " " << clean.error.description;
    EXPECT_EQ(0u, world.Host().OutstandingContinuationPoints());
    for (int op = 0; op < kOps; ++op) made[op] = world.Host().Calls(static_cast<Op>(op)) - before[op];
    newState = world.Contents();
  }
  EXPECT_EQ(statement.writes, oldState != newState) << "the statement changes the history";

  int points = 0;
  std::ostringstream calls;
  for (int op = 0; op < kOps; ++op) {
    if (made[op]) calls << HostOpName(static_cast<Op>(op)) << " x" << made[op] << " ";
    for (ULONG n = 1; n <= std::min(made[op], kMaxCallsPerOp); ++n) {
      for (const HRESULT code : {kHistorianCode, E_OUTOFMEMORY}) {
        SCOPED_TRACE(std::string(HostOpName(static_cast<Op>(op))) + " call " + std::to_string(n) + " fails with " +
                     Hex(code));
        ++points;
        const corvane::platform::AllocCounts baseline = corvane::platform::CurrentAllocCounts();
        {
          World world;
          auto& host = world.Host();
          host.FailCall(static_cast<Op>(op), host.Calls(static_cast<Op>(op)) + n, code);
          const Outcome got = world.Run(statement.sql);
          const bool readPast = std::count(statement.readPast.begin(), statement.readPast.end(),
                                           static_cast<Op>(op)) != 0;
          if (readPast || (statement.readsAhead && got.hr == S_OK)) {
            EXPECT_EQ(S_OK, got.hr) << std::hex << got.hr;
            EXPECT_EQ(clean.rows, got.rows);
          } else if (statement.answer == Answer::InText) {
            EXPECT_EQ(S_OK, got.hr) << std::hex << got.hr;
            ASSERT_EQ(1u, got.rows.size());
            EXPECT_NE(std::string::npos, got.rows[0][0].find("(" + Hex(code) + ")")) << got.rows[0][0];
          } else {
            EXPECT_EQ(code, got.hr) << std::hex << got.hr << (got.atExecute ? " from Execute" : " from GetNextRows");
            EXPECT_GE(got.error.count, 1u) << "an error record describes the failure";
#ifndef _WIN32
            EXPECT_FALSE(got.error.description.empty());
#endif
            // What was delivered before the failure is the start of the full answer.
            ASSERT_LE(got.rows.size(), clean.rows.size());
            for (size_t r = 0; r < got.rows.size(); ++r) EXPECT_EQ(clean.rows[r][0], got.rows[r][0]) << "row " << r;
          }
          // A release the host refused leaves the point the host's, not lost by the provider.
          if (static_cast<Op>(op) != Op::ReleaseContinuationPoint) {
            EXPECT_EQ(0u, world.Host().OutstandingContinuationPoints()) << "a continuation point was left open";
          }
          // Each sample holds its old state or its new one, never anything else.
          std::map<std::string, std::string> state, before, after;
          std::set<std::string> keys;
          for (auto [rows, m] : {std::pair{world.Contents(), &state}, {oldState, &before}, {newState, &after}})
            for (const auto& r : rows) keys.insert(r[0] + " " + r[1]), (*m)[r[0] + " " + r[1]] = r[2] + " " + r[3];
          auto in = [](auto& m, const std::string& key) { return m.count(key) ? m[key] : std::string("<absent>"); };
          for (const std::string& key : keys)
            EXPECT_TRUE(in(state, key) == in(before, key) || in(state, key) == in(after, key))
                << key << " holds " << in(state, key) << ", was " << in(before, key) << ", would be " << in(after, key);
        }
        ExpectNothingOutstandingSince(baseline);
      }
    }
  }
  RecordProperty("fault_points", points);
  std::printf("[ sweep    ] %s: %s-> %d fault points\n", statement.name, calls.str().c_str(), points);
}

INSTANTIATE_TEST_SUITE_P(
    Statements, FaultSweep,
    ::testing::Values(
        Statement{"RawDataEveryTag", "SELECT * FROM RAWDATA"},
        Statement{"RawDataTop", "SELECT TOP 2 VALUE FROM RAWDATA WHERE TAGNAME = 'Flow'", Answer::Fails,
                  {Op::ReleaseContinuationPoint}, true},
        Statement{"Tags", "SELECT * FROM TAGS"},
        Statement{"GetValues", "EXEC GET_VALUES '2020-01-01 00:00:00', '2020-01-01 00:01:30', 0, 'Flow'"},
        Statement{"MostRecent", "EXEC GET_MOST_RECENT_VALUE 'Level'"},
        Statement{"SpRawData", "EXEC SP_RAWDATA '2020-01-01 00:00:00', '2020-01-01 00:01:30', 'Flow;Level'"},
        Statement{"HdaAnalog", "EXEC HDA_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:01:30', 10000, 'Flow'",
                  Answer::Fails, {Op::GetCapabilities}},
        Statement{"HdaQuality5", "EXEC HDA_QUALITY_5 '2020-01-01 00:00:00', '2020-01-01 00:01:00', 20000, 'Flow', "
                                 "'Level', '', 'Flow', 'Level'",
                  Answer::Fails, {Op::GetCapabilities}},
        Statement{"FilteredStatistics",
                  "EXEC GET_FILTERED_TAG_STATISTICS '*', '', '', '2020-01-01 00:00:00', '2020-01-01 00:01:30', 1",
                  Answer::Fails, {Op::GetCapabilities}},
        Statement{"RawDataUpdateProcedure", "EXEC RAWDATA_UPDATE 'Flow', '2020-01-01 00:00:10', '7.25', 0",
                  Answer::InText, {}, false, true},
        Statement{"Insert", "INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES "
                            "('Flow', '2020-01-01 00:00:05', 2.5, 192)",
                  Answer::Fails, {}, false, true},
        Statement{"Update", "UPDATE RAWDATA SET VALUE = 42 WHERE TAGNAME = 'Flow' AND "
                            "TIMESTAMP = '2020-01-01 00:00:10'",
                  Answer::Fails, {}, false, true},
        Statement{"Delete", "DELETE FROM RAWDATA WHERE TAGNAME = 'Flow' AND TIMESTAMP >= '2020-01-01 00:00:20' AND "
                            "TIMESTAMP <= '2020-01-01 00:00:40' OR TAGNAME = 'Level' AND VALUE >= 0 AND "
                            "TIMESTAMP >= '2020-01-01 00:00:20' AND TIMESTAMP <= '2020-01-01 00:00:40'",
                  Answer::Fails, {}, false, true}),
    [](const ::testing::TestParamInfo<Statement>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace corvane::test
