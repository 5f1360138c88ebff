// Input that must fail cleanly rather than crash, hang, overflow the stack or leak: nesting beyond the limits, on a 1
// MB thread stack as well; running out of memory at every allocation of a parse.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "SQLParser/SQLSyntaxParser.h"
#include "SqlTestSupport.h"

#ifndef _WIN32
#include <pthread.h>
#endif

// ---- allocation failure injection ------------------------------------------------- While armed, the n-th operator
// new of the process fails and every new/delete is counted, so a test can check that a failed parse gives back all it
// took. ThreadSanitizer's runtime owns operator new; that build only checks the threads.
#if CORVANE_THREAD_SANITIZER
#define SQL_TEST_NO_NEW_HOOK 1
#endif

namespace {
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

using sqltest::Parse;

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
