// The parser's tables (tokens, statements and their models, error texts), then input that must fail cleanly rather
// than crash, hang, overflow the stack or leak: nesting beyond the limits, on a 1 MB thread stack as well; running out
// of memory at every allocation of a parse.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLParser.h"
#include "SQLParser/SQLSyntaxParser.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/Printers.h"

#ifndef _WIN32
#include <pthread.h>
#endif

// Allocation failure injection: while armed, the n-th operator new of the process fails and every new/delete is
// counted, so a test can check that a failed parse gives back all it took. ThreadSanitizer's runtime owns operator
// new; that build only checks the threads.
#if CORVANE_THREAD_SANITIZER
#define SQL_TEST_NO_NEW_HOOK 1
#endif

namespace {

// Parsing a UTF-8 text, and a compact rendering of WHERE trees and expression items for exact comparisons.
struct Parsed {
  HRESULT hr = S_OK;
  std::unique_ptr<CSQLQueryInfo> query;
  std::string error;  // UTF-8 error info
};

inline Parsed Parse(const std::string& text) {
  const corvane::WString wide = corvane::FromUtf8(text);
  Parsed result;
  corvane::WString error;
  result.hr = CSQLParser::ParseQuery({OLESTR("CAT"), OLESTR("SCH"), wide}, &result.query, &error);
  result.error = corvane::ToUtf8(error);
  return result;
}

// "a", "q.a", "5", "'x'", "1.5", "?2", "f(a,'x')".
inline std::string Render(const CSQLCalcItem* item) {
  if (!item) return "null";
  switch (item->Kind()) {
    case SQL_CALC_CONST: {
      const VARIANT& v = static_cast<const CSQLCalcItemConst*>(item)->Value();
      if (V_VT(&v) == VT_I8) return std::to_string(V_I8(&v));
      if (V_VT(&v) == VT_R8) return "R8:" + std::to_string(v.dblVal);
      if (V_VT(&v) == VT_BSTR) return "'" + corvane::ToUtf8(corvane::WStringView(v.bstrVal, SysStringLen(v.bstrVal))) + "'";
      return "?const";
    }
    case SQL_CALC_PARAMETER:
      return "?" + std::to_string(static_cast<const CSQLCalcItemParameter*>(item)->Number());
    case SQL_CALC_TABLE_COLUMN: {
      auto* c = static_cast<const CSQLCalcItemTableColumn*>(item);
      std::string name = c->TableName().empty() ? "" : corvane::ToUtf8(c->TableName()) + ".";
      return name + corvane::ToUtf8(c->ColumnName());
    }
    case SQL_CALC_FUNCTION: {
      auto* f = static_cast<const CSQLCalcItemFunction*>(item);
      std::string text = corvane::ToUtf8(f->Name()) + "(";
      for (size_t i = 0; i < f->ArgumentCount(); ++i) text += (i ? "," : "") + Render(f->Argument(i));
      return text + ")";
    }
  }
  return "?item";
}

// "OR(EQ(a,1),AND(GT(b,2),LT(b,5)))"; a comparison with a condition on its right side shows it after the operands.
inline std::string Render(const CSQLConditionNode* node) {
  if (!node) return "null";
  static const char* const kNames[] = {"OPERAND", "EQ", "GT", "LT", "GE", "LE", "NE", "OR", "AND", "NOT"};
  const int op = node->Operator();
  std::string text = (op >= 0 && op <= 9) ? kNames[op] : "?op";
  text += "(";
  if (op == SQL_COND_OR || op == SQL_COND_AND) return text + Render(node->Left()) + "," + Render(node->Right()) + ")";
  if (op == SQL_COND_NOT) return text + Render(node->Left()) + ")";
  text += Render(node->FirstOperand());
  if (op != SQL_COND_OPERAND) text += "," + Render(node->SecondOperand());
  if (node->Right()) text += "," + Render(node->Right());
  return text + ")";
}

inline std::string W8(const corvane::WString& s) { return corvane::ToUtf8(s); }

// The whole query model on one line, for exact comparisons: "SELECT limit=0,10 aggregate cols=r.VALUE:VALUE@r as v
// from=CAT.SCH.RAWDATA r where=EQ(a,1) order=TIMESTAMP DESC"; a select column shows its item, then its column name and
// display name where they differ; "FAILED: <error info>" when the text does not parse.
inline std::string Describe(const std::string& text) {
  const Parsed p = Parse(text);
  if (FAILED(p.hr)) return "FAILED: " + p.error;
  const CSQLQueryInfo& q = *p.query;
  static const char* const kKinds[] = {"?", "SELECT", "INSERT", "UPDATE", "DELETE", "EXEC"};
  const int kind = q.StatementKind();
  std::string out = kKinds[kind >= 1 && kind <= 5 ? kind : 0];
  auto list = [&out](const char* name, size_t n, auto item) {
    if (!n) return;
    out += std::string(" ") + name + "=";
    for (size_t i = 0; i < n; ++i) out += (i ? ", " : "") + item(i);
  };
  if (q.RowLimitEnabled()) out += " limit=" + std::to_string(q.RowLimitSkip()) + "," + std::to_string(q.RowLimitCount());
  if (kind == SQL_STATEMENT_SELECT && static_cast<const CSQLQueryInfoSELECT&>(q).Aggregate()) out += " aggregate";
  list("cols", q.SelectColumns().size(), [&q](size_t i) {
    const CSQLSelectColumn& c = *q.SelectColumns()[i];
    std::string text = Render(c.Item());
    if (W8(c.ColumnName()) != text) text += ":" + W8(c.ColumnName());
    if (!c.TableAlias().empty()) text += "@" + W8(c.TableAlias());
    if (c.DisplayName() != c.ColumnName()) text += " as " + W8(c.DisplayName());
    return text;
  });
  list("from", q.FromItems().size(), [&q](size_t i) {
    const CSQLSelectItem& item = *q.FromItems()[i];
    std::string text = W8(item.Catalog()) + "." + W8(item.Schema()) + ".";
    if (item.Kind() == SQL_SELECT_ITEM_TABLE) {
      const auto& table = static_cast<const CSQLSelectItemTable&>(item);
      return text + W8(table.TableName()) + (table.Alias() != table.TableName() ? " " + W8(table.Alias()) : "");
    }
    const auto& sp = static_cast<const CSQLSelectItemSP&>(item);
    text += W8(sp.ProcedureName()) + "(";
    for (size_t a = 0; a < sp.Parameters().size(); ++a) text += (a ? " " : "") + Render(sp.Parameters()[a].get());
    return text + ")";
  });
  if (kind == SQL_STATEMENT_INSERT) {
    const auto& insert = static_cast<const CSQLQueryInfoINSERT&>(q);
    list("set", insert.Columns().size(), [&insert](size_t i) {
      return Render(insert.Columns()[i].get()) + "=" + Render(insert.Values().at(i).get());
    });
  }
  if (q.Condition()) out += " where=" + Render(q.Condition());
  list("order", q.Ordering().size(), [&q](size_t i) {
    const SQLOrderingEntry& o = q.Ordering()[i];
    return Render(&o.column) + (o.descending ? " DESC" : "");
  });
  return out;
}

std::atomic<bool> g_armed{false};
std::atomic<long> g_countdown{0};
std::atomic<long> g_live{0};

#ifndef SQL_TEST_NO_NEW_HOOK
void* CountedAlloc(std::size_t size, bool nothrow) {
  if (g_armed.load(std::memory_order_relaxed)) {
    if (g_countdown.fetch_sub(1) == 1) {
      if (nothrow) return nullptr;
      throw std::bad_alloc();
    }
    g_live.fetch_add(1);
  }
  void* p = std::malloc(size ? size : 1);
  if (!p) {
    if (nothrow) return nullptr;
    throw std::bad_alloc();
  }
  return p;
}
void CountedFree(void* p) {
  if (!p) return;
  if (g_armed.load(std::memory_order_relaxed)) g_live.fetch_sub(1);
  std::free(p);
}
#endif
}  // namespace

#ifndef SQL_TEST_NO_NEW_HOOK
void* operator new(std::size_t size) { return CountedAlloc(size, false); }
void* operator new[](std::size_t size) { return CountedAlloc(size, false); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return CountedAlloc(size, true); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return CountedAlloc(size, true); }
void operator delete(void* p) noexcept { CountedFree(p); }
void operator delete[](void* p) noexcept { CountedFree(p); }
void operator delete(void* p, std::size_t) noexcept { CountedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { CountedFree(p); }
#endif

namespace {

class SqlNestingLimits : public corvane::test::LeakCheckedTest {};
class SqlOutOfMemory : public corvane::test::LeakCheckedTest {};

constexpr int kDepth = CSQLSyntaxParser::kMaxNestingDepth;
constexpr int kHeight = CSQLSyntaxParser::kMaxConditionDepth;

std::string Repeat(const std::string& s, int n) {
  std::string out;
  out.reserve(s.size() * n);
  for (int i = 0; i < n; ++i) out += s;
  return out;
}
std::string NestedCalls(int depth) { return "SELECT " + Repeat("f(", depth) + "a" + Repeat(")", depth) + " FROM t"; }
std::string NestedParens(int depth) {
  return "SELECT a FROM t WHERE " + Repeat("(", depth) + "a = 1" + Repeat(") = 1", depth);
}
std::string AndChain(int terms) { return "SELECT a FROM t WHERE a = 1" + Repeat(" AND a = 1", terms - 1); }

// Runs `body` on a thread with the stack of a default Windows thread (1 MB).
void RunOnOneMegabyteStack(std::function<void()> body) {
  constexpr size_t kStack = 1 << 20;
#ifdef _WIN32
  HANDLE thread = CreateThread(
      nullptr, kStack,
      [](LPVOID p) -> DWORD {
        (*static_cast<std::function<void()>*>(p))();
        return 0;
      },
      &body, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  ASSERT_NE(thread, nullptr);
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);
#else
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, kStack), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &attr,
                [](void* p) -> void* {
                  (*static_cast<std::function<void()>*>(p))();
                  return nullptr;
                },
                &body),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
#endif
}

TEST_F(SqlNestingLimits, TheDeepestAcceptedInputParsesAndDeeperFailsWithTheClauseMessage) {
  // Statement, then "" when it parses or the message it fails with.
  const std::pair<std::string, const char*> cases[] = {
      {NestedCalls(kDepth), ""},
      {NestedCalls(kDepth + 1), "Column list parse error."},
      {NestedParens(kDepth), ""},
      {NestedParens(kDepth + 1), "WHERE clause parse error."},
      {AndChain(kHeight), ""},
      {AndChain(kHeight + 1), "WHERE clause parse error."},
      {"EXEC p " + Repeat("f(", kDepth) + "1" + Repeat(")", kDepth), ""},
      {"EXEC p " + Repeat("f(", kDepth + 1) + "1" + Repeat(")", kDepth + 1), "Parameters parse error."},
      // Hostile depths: refused without recursing into all of them.
      {"SELECT a FROM t WHERE " + Repeat("(", 200000), "WHERE clause parse error."},
      {"SELECT " + Repeat("f(", 200000), "Column list parse error."},
      {"EXEC p " + Repeat("f(", 200000), "Parameters parse error."},
      {AndChain(100000), "WHERE clause parse error."},
      {"SELECT a FROM t WHERE a = 1" + Repeat(" OR a = 1", 100000), "WHERE clause parse error."},
      {"SELECT a FROM t WHERE " + Repeat("NOT ", 100000) + "a = 1", "WHERE clause parse error."},
  };
  std::vector<std::string> got;
  RunOnOneMegabyteStack([&] {
    for (const auto& c : cases) {
      const auto p = Parse(c.first);
      got.push_back(p.hr == S_OK     ? ""
                    : p.hr == E_FAIL ? p.error.substr(p.error.rfind("'. ") + 3)  // after the quoted statement
                                     : "hr " + std::to_string(p.hr));
    }
  });
  ASSERT_EQ(got.size(), sizeof cases / sizeof cases[0]);
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(cases[i].second, got[i]) << cases[i].first.substr(0, 60);
}

TEST_F(SqlOutOfMemory, EveryAllocationFailureIsReportedAndFreesEverything) {
#ifdef SQL_TEST_NO_NEW_HOOK
  GTEST_SKIP() << "operator new cannot be replaced in this build";
#endif
  struct Statement {
    const char* text;
    bool makesBstrs;  // text constants, or numbers shown as text
  };
  const Statement statements[] = {
      {"SELECT TOP 5 r.VALUE v, COUNT(x), q.* FROM c.s.RAWDATA r, t2 WHERE TAGNAME = ? AND TIMESTAMP BETWEEN "
       "NOW() AND 3 OR NOT (b = ?) = 1.5 ORDER BY TIMESTAMP DESC LIMIT 2, 3",
       false},
      {"INSERT INTO RAWDATA (TAGNAME, VALUE) VALUES (a, 1)", false},
      {"{? = CALL p(?, 1, f(g(2)))}", false},
      {"SELECT a FROM t WHERE a = 1 AND b = (c = 2) ORDER BY f(x)", false},
      {"UPDATE t SET a = 1, b = 'x' WHERE c = ?", true},
      {"SELECT 'txt', 1.5 FROM t WHERE a = DATEADD(hh, -1, NOW()) AND b = 99999999999999999999", true},
  };
  for (const Statement& statement : statements) {
#ifdef _WIN32
    // There BSTRs come from oleaut32, whose allocation counter records each block in a
    // map; a failure injected into that bookkeeping would unwind through the system's
    // allocator with its lock held. Only the parser's own allocations are tested there.
    if (statement.makesBstrs) continue;
#endif
    const std::string text = statement.text;
    const corvane::WString wide = corvane::FromUtf8(text);
    Parse(text);  // first-use set-up elsewhere (tracing) is not the parser's to free
    bool completed = false;
    int failures = 0;
    for (long failAt = 1; failAt < 10000 && !completed; ++failAt) {
      HRESULT hr;
      {
        std::unique_ptr<CSQLQueryInfo> query;
        g_live = 0;
        g_countdown = failAt;
        g_armed = true;
        hr = CSQLParser::ParseQuery({OLESTR("CAT"), OLESTR("SCH"), wide}, &query);
        query.reset();
        g_armed = false;
      }
      EXPECT_EQ(g_live.load(), 0) << text << " failing allocation " << failAt;
      EXPECT_EQ(corvane::platform::CurrentAllocCounts().bstrs, Baseline().bstrs)
          << text << " failing allocation " << failAt;
      if (g_countdown.load() > 0) {
        completed = true;  // no allocation failed: the parse ran to its end
        EXPECT_NE(hr, E_OUTOFMEMORY) << text;
      } else {
        EXPECT_EQ(hr, E_OUTOFMEMORY) << text << " failing allocation " << failAt;
        ++failures;
      }
    }
    EXPECT_TRUE(completed) << text;
    EXPECT_GT(failures, 5) << text;
  }
}

}  // namespace

// Each statement kind's accepted forms and the query model it yields, WHERE trees (precedence, the exclusive BETWEEN,
// parentheses) and the numbering of `?`: one row per statement, the model compared whole.
namespace {

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
