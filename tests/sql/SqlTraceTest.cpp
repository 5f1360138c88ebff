// The rule traces: which productions a statement takes, in order, with their exact
// texts, and the entry and failure lines of ParseQuery.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SqlTestSupport.h"
#include "tests/support/TraceCapture.h"

namespace {

using corvane::test::TraceCapture;
using sqltest::Parse;

const std::string kRule = "SQL parser uses the rule: ";

// The parser's own lines (rule traces and consume failures), without the entry line.
std::vector<std::string> RuleLines(const TraceCapture& capture) {
  std::vector<std::string> texts;
  for (const auto& line : capture.Lines())
    if (line.source == "SQLSyntaxParser") texts.push_back(line.text);
  return texts;
}

TEST(SqlRuleTraces, SelectListProductions) {
  TraceCapture capture(TRACE_DETAIL);
  ASSERT_EQ(Parse("SELECT TOP 1 a, 5, * FROM t").hr, S_OK);
  EXPECT_EQ(RuleLines(capture), std::vector<std::string>({
                                    kRule + "<START> -> <SELECT_QUERY>",
                                    kRule + "<TOP_SPECIFY> -> TOP int",
                                    kRule + "<COLUMNS_LIST_SPECIFY> -> <COLUMN_ITEM> <NEXT_COLUMN_ITEM>",
                                    kRule + "<COLUMN_ITEM> -> column <COLUMN_ITEM_SPECIFY>",
                                    kRule + "<NEXT_COLUMN_ITEM> -> , <COLUMN_ITEM> <NEXT_COLUMN_ITEM>",
                                    kRule + "<COLUMN_ITEM> -> int | double | string",
                                    kRule + "<NEXT_COLUMN_ITEM> -> , <COLUMN_ITEM> <NEXT_COLUMN_ITEM>",
                                    kRule + "<COLUMN_ITEM> -> *",
                                    kRule + "<NEXT_COLUMN_ITEM> -> e",
                                }));
  for (const auto& line : capture.Lines()) {
    if (line.source == "SQLSyntaxParser") {
      EXPECT_EQ(line.level, TRACE_DETAIL);
    }
  }
}

TEST(SqlRuleTraces, EachStatementKindNamesItsStartRule) {
  const std::pair<const char*, const char*> cases[] = {
      {"INSERT INTO t (a) VALUES (1)", "<START> -> <INSERT_QUERY>"},
      {"UPDATE t SET a = 1", "<START> -> <UPDATE_QUERY>"},
      {"DELETE FROM t", "<START> -> <DELETE_QUERY>"},
      {"EXEC p 1", "<START> -> <STORED_PROCEDURE_EXEC>"},
      {"CALL p(1)", "<START> -> <STORED_PROCEDURE_CALL>"},
  };
  for (const auto& [query, rule] : cases) {
    TraceCapture capture(TRACE_DETAIL);
    ASSERT_EQ(Parse(query).hr, S_OK) << query;
    auto lines = RuleLines(capture);
    ASSERT_FALSE(lines.empty()) << query;
    EXPECT_EQ(lines[0], kRule + rule);
  }
  // "? = CALL" and a statement without a TOP take no START trace; SELECT without TOP
  // traces the empty production.
  TraceCapture capture(TRACE_DETAIL);
  ASSERT_EQ(Parse("? = CALL p(1)").hr, S_OK);
  EXPECT_TRUE(RuleLines(capture).empty());
  ASSERT_EQ(Parse("SELECT NOW() FROM t").hr, S_OK);
  auto lines = RuleLines(capture);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], kRule + "<TOP_SPECIFY> -> e");
}

TEST(SqlRuleTraces, EntryAndFailureLines) {
  TraceCapture capture(TRACE_DETAIL);
  auto p = Parse("SELECT a FROM t WHERE a = 1e5");
  ASSERT_EQ(p.hr, E_FAIL);
  auto lines = capture.Lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front().text, "Called CSQLParser::ParseQuery");
  EXPECT_EQ(lines.front().level, TRACE_INFO);
  EXPECT_EQ(lines[lines.size() - 2].text, "FAILED to consume token");
  EXPECT_EQ(lines[lines.size() - 2].level, TRACE_DETAIL);
  EXPECT_EQ(lines.back().level, TRACE_ERROR);
  EXPECT_EQ(lines.back().text, "Failed to parse the SQL query (HR = 80004005), error info: " + p.error);

  capture.Clear();
  EXPECT_EQ(CSQLParser::ParseQuery({OLESTR(""), OLESTR(""), OLESTR("SELECT a FROM t")}, nullptr), E_INVALIDARG);
  ASSERT_FALSE(capture.Lines().empty());
  EXPECT_EQ(capture.Lines().back().text, "Failed to parse the SQL query (HR = 80070057), error info: ");
}

}  // namespace
