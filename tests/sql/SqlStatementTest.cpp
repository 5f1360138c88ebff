// Each statement kind's accepted forms and the query model it yields, WHERE trees (precedence, the exclusive BETWEEN,
// parentheses) and the numbering of `?`: one row per statement, the model compared whole.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "SQLParser/SQLSyntaxParser.h"
#include "SqlTestSupport.h"

namespace {

using sqltest::Describe;

class SqlStatements : public corvane::test::LeakCheckedTest {};

TEST_F(SqlStatements, EachTextYieldsItsModel) {
  const std::pair<const char*, const char*> cases[] = {
      // TOP and LIMIT share one row limit; the later one wins.
      {"SELECT TOP 3 a FROM t LIMIT 7", "SELECT limit=0,7 cols=a from=CAT.SCH.t"},
      // Column names come from the item; an aggregate anywhere marks the statement.
      {"SELECT 5, 'x', r.VALUE v, TAGNAME AS \"Tag Name\", COUNT(VALUE), NOW() n, q.* FROM RAWDATA r",
       "SELECT aggregate cols=5, 'x':x, r.VALUE:VALUE@r as v, TAGNAME as Tag Name, COUNT(VALUE):COUNT, NOW():NOW as n, "
       "q.*:*@q from=CAT.SCH.RAWDATA r"},
      {"SELECT NOW(), max_value FROM t", "SELECT cols=NOW():NOW, max_value from=CAT.SCH.t"},
      {"SELECT a FROM c.s.t1, s2.t2 AS x, t3;", "SELECT cols=a from=c.s.t1, CAT.s2.t2 x, CAT.SCH.t3"},
      // A procedure as a table; a bare DATEADD unit is kept as text, like DATEADD('hh', ...).
      {"SELECT * FROM s.GET_VALUES('tag', DATEADD(hh, -1, NOW()), ?) WHERE VALUE > ?",
       "SELECT cols=* from=CAT.s.GET_VALUES('tag' DATEADD('hh',-1,NOW()) ?1) where=GT(VALUE,?2)"},
      {"SELECT a FROM t ORDER BY TIMESTAMP DESC, r.b ASC, c",
       "SELECT cols=a from=CAT.SCH.t order=TIMESTAMP DESC, r.b, c"},
      {"INSERT INTO RAWDATA (TAGNAME, VALUE, TIMESTAMP) VALUES ('a', 1.5, NOW());",
       "INSERT from=CAT.SCH.RAWDATA set=TAGNAME='a', VALUE=R8:1.500000, TIMESTAMP=NOW()"},
      {"DELETE FROM RAWDATA WHERE TAGNAME = 'a' AND TIMESTAMP = '2020-01-01' LIMIT 3",
       "DELETE limit=0,3 from=CAT.SCH.RAWDATA where=AND(EQ(TAGNAME,'a'),EQ(TIMESTAMP,'2020-01-01'))"},
      // Procedure calls; "? = EXEC" goes the CALL way (the word after "=" is not looked at)
      // and its return value takes `?` number 1.
      {"{CALL GET_VALUES('tag', ?, ?)}", "EXEC from=CAT.SCH.GET_VALUES('tag' ?1 ?2)"},
      {"? = EXEC p(?)", "EXEC from=CAT.SCH.p(?2)"},
      // WHERE trees: AND binds tighter than OR, both group to the left; a parenthesis must
      // be followed by a comparison, and a parenthesised right side is kept whole as the
      // comparison's right child; `?` are numbered from 1 in order of appearance.
      {"SELECT a FROM t WHERE a = 1 AND b > 2 AND c < 3 AND d >= 4 AND e <= 5 AND f <> 6",
       "SELECT cols=a from=CAT.SCH.t where=AND(AND(AND(AND(AND(EQ(a,1),GT(b,2)),LT(c,3)),GE(d,4)),LE(e,5)),NE(f,6))"},
      {"SELECT a FROM t WHERE x = -2.5", "SELECT cols=a from=CAT.SCH.t where=EQ(x,R8:-2.500000)"},
      {"SELECT a FROM t WHERE (a = 1) = 2", "SELECT cols=a from=CAT.SCH.t where=EQ(a,2)"},
      {"SELECT a FROM t WHERE a = (b = 1 OR c = 2)",
       "SELECT cols=a from=CAT.SCH.t where=EQ(a,null,OR(EQ(b,1),EQ(c,2)))"},
      {"SELECT a FROM t WHERE a = ? AND ? < b OR c BETWEEN ? AND ?",
       "SELECT cols=a from=CAT.SCH.t where=OR(AND(EQ(a,?1),LT(?2,b)),AND(GT(c,?3),LT(c,?4)))"},
  };
  for (const auto& [text, model] : cases) EXPECT_EQ(model, Describe(text)) << "statement: " << text;
}

// The exact error info of every failing clause: common prefix, the whole query text,
// the clause's message (with the line feed of the two texts that have one), and the
// failure code, which stays the lexer's when reading a token was what failed.

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

// Tokens and numbers: what the lexer makes of each character class, literal form and
// keyword, including the quirks that existing client texts depend on. One row per text.

// "id(a) = int(3)=3 $": names, keywords, strings and numbers with their text (numbers
// also with their value), other tokens by their symbol; "!HRESULT" when a read failed.
std::string Lex(const std::string& text) {
  static const char* const kSymbols[] = {"bad", "$", "kw",  "str", "int", "dbl", "id", ">", "<", "=", ">=", "<=",
                                         "<>", "(", ")",   "AND", "OR",  "NOT", ".",  "*", ",", "?", "reserved", ";"};
  const corvane::WString wide = corvane::FromUtf8(text);
  SQLLexerState state;
  state.text = wide;
  CSQLToken token;
  std::ostringstream out;
  for (int guard = 0; guard < 100; ++guard) {
    const HRESULT hr = CSQLSyntaxParser::ReadToken(state, token);
    out << (guard ? " " : "");
    out << (token.kind >= 0 && token.kind <= SQL_TOKEN_TERMINATOR ? kSymbols[token.kind] : "kind?");
    if (token.kind >= SQL_TOKEN_KEYWORD && token.kind <= SQL_TOKEN_IDENTIFIER)
      out << "(" << corvane::ToUtf8(token.text) << ")";
    if (token.kind == SQL_TOKEN_INTEGER) out << "=" << token.integerValue;
    if (token.kind == SQL_TOKEN_DOUBLE) out << "=" << token.doubleValue;
    if (FAILED(hr)) out << "!" << std::hex << std::uppercase << static_cast<unsigned>(hr);
    if (FAILED(hr) || token.kind == SQL_TOKEN_END) break;
  }
  return out.str();
}

TEST(SqlTokens, EachTextReadsAsItsTokens) {
  const std::pair<const char*, const char*> cases[] = {
      // "!=" is "=", "+" and "/" and other characters are dropped.
      {"a != 3 + b / c \xC3\xA9", "id(a) = int(3)=3 id(b) id(c) $"},
      {"WHERE a<>b AND c>=1 OR d<=e>f<g ( ) * , . ; = ?",
       "kw(WHERE) id(a) <> id(b) AND id(c) >= int(1)=1 OR id(d) <= id(e) > id(f) < id(g) ( ) * , . ; = ? $"},
      // Keywords ignore case and keep their text (which keyword each is: the statement suite).
      {"and Or NOT Between CaLL tOp", "AND OR NOT kw(Between) kw(CaLL) kw(tOp) $"},
      // Words that only look like keywords stay names; a quoted name is never a keyword
      // and keeps blanks and unknown characters.
      {"LIKE IN NULL JOIN TIMESTAMP TOP5 SELECTED _x1 ORD",
       "id(LIKE) id(IN) id(NULL) id(JOIN) id(TIMESTAMP) id(TOP5) id(SELECTED) id(_x1) id(ORD) $"},
      {"\"Order\" \"a b!\"", "id(Order) id(a b!) $"},
      // Strings: backslash escapes, a doubled quote ends one literal and starts another,
      // an unterminated one ends at the text's end, a trailing backslash ends the scan.
      {"'it\\'s' '\\\\' 'a''b' 'abc", "str(it's) str(\\) str(a) str(b) str(abc) $"},
      {"'abc\\", "str(abc) $"},
      // Numbers: a sign belongs to the number (the text keeps the digits only); a number ends where its digits end.
      {"-1.5 12. 0.25 1e55 1e+5 1E-5 2.5e-3",
       "dbl(1.5)=-1.5 dbl(12.0)=12 dbl(0.25)=0.25 dbl(1e55)=1e+55 dbl(1e+5)=100000 dbl(1E-5)=1e-05 "
       "dbl(2.5e-3)=0.0025 $"},
      {".5", ". int(5)=5 $"},
      {"9223372036854775807 -9223372036854775807",
       "int(9223372036854775807)=9223372036854775807 int(9223372036854775807)=-9223372036854775807 $"},
      {"1e999 -1e999 1e-999", "dbl(1e999)=inf dbl(1e999)=-inf dbl(1e-999)=0 $"},
      // Malformed numbers fail the read: the exponent's digit is looked for two places past
      // the e. (The codes of the other unreadable tokens: the error-text table.)
      {"1e5", "bad!80004005"},
      {"1e", "bad!80004005"},
  };
  for (const auto& [text, tokens] : cases) EXPECT_EQ(tokens, Lex(text)) << "text: " << text;
}

}  // namespace
