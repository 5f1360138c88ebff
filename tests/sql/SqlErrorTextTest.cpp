// The exact error info of every failing clause: common prefix, the whole query text,
// the clause's message (with the line feed of the two texts that have one), and the
// failure code, which stays the lexer's when reading a token was what failed.
#include <gtest/gtest.h>

#include "SqlTestSupport.h"

namespace {

using sqltest::Parse;

class SqlErrorTexts : public corvane::test::LeakCheckedTest {};

struct ErrorCase {
  const char* query;
  const char* message;  // after "Failed to parse the query: '<query>'. "
  HRESULT hr;
};

TEST_F(SqlErrorTexts, EachClauseNamesItselfAfterThePrefix) {
  const ErrorCase cases[] = {
      {"FOO", "Query is not supported.\n", E_FAIL},
      {"SELECT TOP x a FROM t", "TOP clause parse error.", E_FAIL},
      {"SELECT FROM t", "Column list parse error.", E_FAIL},
      {"SELECT a", "FROM is missing.", E_FAIL},
      {"SELECT a FROM", "Table/Stored procedure list parse error.", E_FAIL},
      {"SELECT a FROM p(1", "Table/Stored procedure list parse error.", E_FAIL},
      {"SELECT a FROM t WHERE (a = 1)", "WHERE clause parse error.", E_FAIL},
      {"SELECT a FROM t WHERE 5 BETWEEN 1 AND 2", "WHERE clause parse error.", E_FAIL},
      {"SELECT a FROM t WHERE x BETWEEN 1 OR 2", "WHERE clause parse error.", E_FAIL},
      {"SELECT a FROM \"t\" WHERE x = '%s %d' AND", "WHERE clause parse error.", E_FAIL},  // quoted whole
      {"SELECT a FROM t ORDER BY a LIMIT 1", "ORDER BY clause parse error.", E_FAIL},
      {"SELECT a FROM t LIMIT x", "LIMIT clause parse error.", E_FAIL},
      {"SELECT a FROM t x y", "End of the query was expected.", E_FAIL},
      {"INSERT t (a) VALUES (1)", "INTO clause is missing.", E_FAIL},
      {"INSERT INTO 5 (a) VALUES (1)", "Table parse error.", E_FAIL},
      {"INSERT INTO t VALUES (1)", "Columns parse error.", E_FAIL},
      {"INSERT INTO t (a VALUES (1)", "Columns parse error.", E_FAIL},
      {"INSERT INTO t (a) (1)", "Values parse error.", E_FAIL},
      {"INSERT INTO t (a) VALUES (?)", "Values parse error.", E_FAIL},
      {"UPDATE 5 SET a = 1", "Table parse error.", E_FAIL},
      {"UPDATE t a = 1", "SET is missing.", E_FAIL},
      {"UPDATE t SET a 1", "Update columns parse error.", E_FAIL},
      {"DELETE t WHERE a = 1", "FROM is missing.", E_FAIL},
      {"DELETE FROM t WHERE a = ", "WHERE clause parse error.", E_FAIL},
      {"DELETE FROM t LIMIT", "LIMIT clause parse error.", E_FAIL},
      {"EXEC 5", "Stored procedure parse error.", E_FAIL},
      {"CALL p 1", "( is missing.", E_FAIL},
      {"CALL p(1", ") is missing.", E_FAIL},
      // A token that cannot be read keeps its own code under the clause's message.
      {"SELECT a FROM t WHERE a = 99999999999999999999", "WHERE clause parse error.", DISP_E_OVERFLOW},
      {"SELECT a FROM t WHERE a = -", "WHERE clause parse error.", E_INVALIDARG},
      {"EXEC p 1, -x", "Parameters parse error.", DISP_E_TYPEMISMATCH},
  };
  for (const auto& c : cases) {
    auto p = Parse(c.query);
    EXPECT_EQ(p.hr, c.hr) << c.query;
    EXPECT_EQ(p.error, std::string("Failed to parse the query: '") + c.query + "'. " + c.message) << c.query;
    EXPECT_EQ(p.query, nullptr) << c.query;
  }
}

TEST_F(SqlErrorTexts, BareTextWithoutAClauseAndNoneWhenNoClauseWasEntered) {
  // A return value without "=" has the bare text; a token that cannot be read before any
  // clause was entered (the first after SELECT, an unterminated name) leaves no message.
  const std::pair<const char*, const char*> cases[] = {
      {"? CALL p(1)", "Failed to parse the query: '? CALL p(1)'.\n"},
      {"SELECT 1e5 FROM t", ""},
      {"\"unterminated", ""},
  };
  for (const auto& [query, error] : cases) {
    auto p = Parse(query);
    EXPECT_EQ(p.hr, E_FAIL) << query;
    EXPECT_EQ(p.error, error) << query;
  }
  EXPECT_EQ(CSQLParser::ParseQuery({OLESTR(""), OLESTR(""), OLESTR("SELECT a FROM t")}, nullptr), E_INVALIDARG);
}

}  // namespace
