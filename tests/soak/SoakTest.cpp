// Eight threads, each from its own seed, run a random mix of reads, a procedure, tag statistics paged through one
// processed provider, settings updates, failing statements and writes to their own tags over one data source, releasing
// some rowsets while the worker still reads. Rows are checked against the historian or the thread's writes; a deadlock
// is left to the test's timeout.
//   CORVANE_SOAK_SECONDS  run time, 8 by default; CORVANE_SOAK_SEED  base seed (thread i: seed + i)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "SQLParser/TimeConversion.h"
#include "base/ComPtr.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/Printers.h"
#include "tests/support/RowReader.h"

namespace corvane::test {
namespace {

constexpr int kThreads = 8;
constexpr ULONGLONG kSecond = 10000000ull;
constexpr ULONGLONG kBase = 133485408000000000ull;       // 2024-01-01 00:00:00 UTC
constexpr ULONGLONG kStep = 10 * kSecond;                // read-only samples every 10 s...
constexpr long kSamples = 8640;                          // ...for one day
constexpr ULONGLONG kOwnBase = kBase + 86400 * kSecond;  // written tags: one-second slots the next day
constexpr long kOwnSlots = 600;
const char* const kRamp = "Soak.Ramp";    // VT_R8, sample i is i / 2, always good
const char* const kSteps = "Soak.Steps";  // VT_I4, sample i is i % 500, every 7th uncertain

double Value(bool ramp, long i) { return ramp ? i * 0.5 : static_cast<double>(i % 500); }
ULONG Quality(bool ramp, long i) { return ramp || i % 7 ? 0xC0u : 0x40u; }

// 'YYYY-MM-DD HH:MM:SS' of a UTC time, quoted for SQL.
std::string At(ULONGLONG ticks) { return "'" + TimeText(ticks) + "'"; }
std::string Sample(long i) { return At(kBase + i * kStep); }

ULONGLONG Ticks(const DBTIMESTAMP& t) {
  ULONG64 ticks = 0;
  return SUCCEEDED(DBTimestampToFileTime(t, &ticks)) ? ticks : 0;
}

const CellColumns kRawColumns = {{1, DBTYPE_WSTR}, {2, DBTYPE_DBTIMESTAMP}, {3, DBTYPE_UI4}, {4, DBTYPE_R8}};

// Each thread joins the multithreaded apartment.
struct ComThread {
  ComThread() { CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
  ~ComThread() { CoUninitialize(); }
};

// One thread of the soak, with the first ten failures it saw, each beside its statement.
class Soaker {
 public:
  Soaker(int index, unsigned seed, IUnknown* dataSource)
      : index_(index), seed_(seed), rng_(seed), create_(QueryAs<IDBCreateSession>(dataSource, IID_IDBCreateSession)),
        own_tag_("Own" + std::to_string(index)) {}

  void Run(const std::atomic<bool>& stop) {
    ComThread com;
    while (!stop && OpenSession()) {
      for (int n = Pick(1, 8); n > 0 && !stop; --n) Step();
      command_.Reset();
      session_.Reset();
    }
    ConsumerTest::TakeLastError();
  }

  const int index_;
  const unsigned seed_;
  size_t statements_ = 0, rows_ = 0;
  std::vector<std::string> failures_;
  size_t failureCount_ = 0;

 private:
  long Pick(long lo, long hi) { return std::uniform_int_distribution<long>(lo, hi)(rng_); }
  void Check(bool ok, const std::string& what) {
    if (!ok && ++failureCount_ <= 10) failures_.push_back(what + " [" + doing_ + "]");
  }
  bool OpenSession() {
    const HRESULT hr =
        create_->CreateSession(nullptr, IID_IDBCreateCommand, reinterpret_cast<IUnknown**>(session_.Put()));
    Check(hr == S_OK, "CreateSession " + Hex(hr));
    return hr == S_OK;
  }

  void Step() {
    switch (Pick(0, 7)) {
      case 0: case 1: return SelectRaw();
      case 2: return SpRawData();
      case 3: return UpdateSettings();
      case 4: case 5: return Write();
      case 6: return Statistics();
      default: return BadStatement();
    }
  }

  // Executes on this session, with the command of the last statement or a new one.
  HRESULT Execute(const std::string& sql, IUnknown** rowset) {
    doing_ = sql;
    *rowset = nullptr;
    if (command_ && Pick(0, 1)) command_.Reset();
    HRESULT hr = command_ ? S_OK : session_->CreateCommand(nullptr, IID_ICommandText,
                                                           reinterpret_cast<IUnknown**>(command_.Put()));
    if (SUCCEEDED(hr)) hr = command_->SetCommandText(DBGUID_SQL, FromUtf8(sql).c_str());
    if (SUCCEEDED(hr)) hr = command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, rowset);
    ++statements_;
    return hr;
  }

  // A statement whose rows nobody reads.
  HRESULT RunUnread(const std::string& sql) {
    ComPtr<IUnknown> rowset;
    return Execute(sql, rowset.Put());
  }

  // Runs `sql`, reads at most `limit` rows (all when negative) through `columns` in random
  // batches, and releases the rowset whether or not its worker is done. -1 when it failed.
  long Query(const std::string& sql, const CellColumns& columns, long limit,
             const std::function<void(long, const Row&)>& check) {
    ComPtr<IUnknown> rowset;
    const HRESULT executed = Execute(sql, rowset.Put());
    if (!rowset) {
      Check(false, "Execute " + Hex(executed) + ": " + ConsumerTest::TakeLastError().description);
      return -1;
    }
    long count = 0;
    const HRESULT hr = ReadRows(
        rowset.Get(), columns,
        [&](size_t n) { return limit < 0 ? Pick(1, 64) : std::min<long>(Pick(1, 64), limit - static_cast<long>(n)); },
        [&](const Row& row) {
          for (const Cell& c : row) Check(c.status == DBSTATUS_S_OK, "cell status " + std::to_string(c.status));
          check(count++, row);
          ++rows_;
          return true;
        });
    Check(hr == S_OK, "fetch " + Hex(hr));
    if (FAILED(hr)) ConsumerTest::TakeLastError();
    return count;
  }
  void ExpectRows(long got, long expected) {
    if (got >= 0) Check(got == expected, std::to_string(got) + " rows, expected " + std::to_string(expected));
  }
  void ExpectSample(bool ramp, long i, const DBTIMESTAMP& time, ULONG quality, double value) {
    Check(Ticks(time) == kBase + i * kStep, "time of sample " + std::to_string(i));
    Check(quality == Quality(ramp, i), "quality of sample " + std::to_string(i));
    Check(value == Value(ramp, i), "value of sample " + std::to_string(i));
  }

  // A random piece of a read-only series through the variant or a typed table, oldest or
  // newest first, maybe limited, maybe released part-way or before any fetch.
  void SelectRaw() {
    static const char* const tables[] = {"RAWDATA", "RAWDATA_DOUBLE", "RAWDATA_SINGLE", "RAWDATA_INT32"};
    const bool ramp = Pick(0, 1);
    const char* table = tables[ramp ? Pick(0, 2) : Pick(0, 1) * 3];
    const long a = Pick(0, kSamples - 1), b = Pick(0, 3) ? std::min(kSamples - 1, a + Pick(0, 400)) : kSamples - 1;
    const bool desc = Pick(0, 3) == 0;
    const long top = Pick(0, 4) ? 0 : Pick(1, 50), n = top ? std::min(top, b - a + 1) : b - a + 1;
    const long limit = Pick(0, 2) ? -1 : Pick(0, n);
    const std::string sql = "SELECT " + (top ? "TOP " + std::to_string(top) + " " : std::string()) +
                            "TAGNAME, TIMESTAMP, QUALITY, VALUE FROM " + table + " WHERE TAGNAME = '" +
                            (ramp ? kRamp : kSteps) + "' AND TIMESTAMP >= " + Sample(a) +
                            " AND TIMESTAMP <= " + Sample(b) + (desc ? " ORDER BY TIMESTAMP DESC" : "");
    const long got = Query(sql, kRawColumns, limit, [&](long k, const Row& r) {
      Check(ToUtf8(r[0].v.text) == (ramp ? kRamp : kSteps), "tag name");
      ExpectSample(ramp, desc ? b - k : a + k, r[1].v.ts, r[2].v.ui4, r[3].v.r8);
    });
    if (limit < 0) ExpectRows(got, n);
  }

  // Both series, tag by tag in the order listed.
  void SpRawData() {
    const long a = Pick(0, kSamples - 1), b = std::min(kSamples - 1, a + Pick(0, 200)), n = b - a + 1;
    ExpectRows(Query("CALL SP_RAWDATA(" + Sample(a) + ", " + Sample(b) + ", '" + kRamp + ";" + kSteps + "')",
                     {{2, DBTYPE_WSTR}, {1, DBTYPE_DBTIMESTAMP}, {3, DBTYPE_UI4}, {4, DBTYPE_R8}}, -1,
                     [&](long k, const Row& r) {
                       Check(ToUtf8(r[0].v.text) == (k < n ? kRamp : kSteps), "tag name");
                       ExpectSample(k < n, a + k % n, r[1].v.ts, r[2].v.ui4, r[3].v.r8);
                     }),
               2 * n);
  }

  // The two read-only series, one a page: every thread pages through the continuation
  // points of the historian's one processed provider. Both ends of the range count.
  void Statistics() {
    const long a = Pick(0, kSamples - 1), b = std::min(kSamples - 1, a + Pick(0, 400));
    ExpectRows(Query("EXEC GET_FILTERED_TAG_STATISTICS 'Soak.*', '', '', " + Sample(a) + ", " + Sample(b) + ", 1",
                     {{1, DBTYPE_WSTR}, {2, DBTYPE_R8}, {4, DBTYPE_R8}, {8, DBTYPE_R8}}, -1,
                     [&](long k, const Row& r) {
                       Check(ToUtf8(r[0].v.text) == (k ? kSteps : kRamp), "tag name");
                       Check(k || (r[1].v.r8 == Value(true, a) && r[2].v.r8 == Value(true, b) &&
                                   r[3].v.r8 == b - a + 1), "statistics of the ramp");
                     }),
               2);
  }

  // The settings belong to the data source, so another thread's update may show instead of this one's: any page size
  // that some thread writes is right. Results do not depend on the page size, which the other checks keep verifying.
  void UpdateSettings() {
    static const LONG pageSizes[] = {7, 100, 2000};
    const HRESULT hr = RunUnread("UPDATE QUERYSETTINGS SET MAX_ROWS_TO_RETURN = " + std::to_string(pageSizes[Pick(0, 2)]));
    Check(hr == S_OK, "UPDATE QUERYSETTINGS " + Hex(hr));
    ExpectRows(Query("SELECT MAX_ROWS_TO_RETURN FROM QUERYSETTINGS", {{1, DBTYPE_UI4}}, -1,
                     [&](long, const Row& r) {
                       const ULONG v = r[0].v.ui4;
                       Check(v == 7 || v == 100 || v == 2000, "MAX_ROWS_TO_RETURN " + std::to_string(v));
                     }),
               1);
  }

  // Insert, update or delete on this thread's own tag, then maybe read it all back.
  void Write() {
    const ULONGLONG t = kOwnBase + Pick(0, kOwnSlots - 1) * kSecond;
    const bool present = own_.count(t) > 0;
    const double value = Pick(0, 400000) / 4.0;
    const ULONG quality = Pick(0, 1) ? 0xC0 : 0x40;
    char number[32];
    std::snprintf(number, sizeof number, "%.2f", value);
    std::string sql;
    HRESULT expected = S_OK;
    switch (Pick(0, 2)) {
      case 0:
        sql = "INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES ('" + own_tag_ + "', " + At(t) + ", " +
              number + ", " + std::to_string(quality) + ")";
        if (present) expected = HIST_E_DATA_ALREADY_PRESENT;
        else own_[t] = {value, quality};
        break;
      case 1:
        sql = "UPDATE RAWDATA SET VALUE = " + std::string(number) + ", QUALITY = " + std::to_string(quality) +
              " WHERE TAGNAME = '" + own_tag_ + "' AND TIMESTAMP = " + At(t);
        if (present) own_[t] = {value, quality};  // no sample there: nothing matches, nothing changes
        break;
      default: {
        const ULONGLONG end = t + Pick(0, 30) * kSecond;
        sql = "DELETE FROM RAWDATA WHERE TAGNAME = '" + own_tag_ + "' AND TIMESTAMP >= " + At(t) +
              " AND TIMESTAMP <= " + At(end);
        own_.erase(own_.lower_bound(t), own_.upper_bound(end));
      }
    }
    const HRESULT hr = RunUnread(sql);
    if (FAILED(hr)) ConsumerTest::TakeLastError();
    Check(expected == S_OK ? SUCCEEDED(hr) : hr == expected, "write gave " + Hex(hr));
    if (Pick(0, 2)) return;
    auto next = own_.begin();
    ExpectRows(Query("SELECT TIMESTAMP, QUALITY, VALUE FROM RAWDATA WHERE TAGNAME = '" + own_tag_ +
                         "' AND TIMESTAMP >= " + At(kOwnBase) +
                         " AND TIMESTAMP <= " + At(kOwnBase + kOwnSlots * kSecond),
                     {{1, DBTYPE_DBTIMESTAMP}, {2, DBTYPE_UI4}, {3, DBTYPE_R8}}, -1,
                     [&](long, const Row& r) {
                       if (next == own_.end()) return Check(false, "a row this thread did not write");
                       Check(Ticks(r[0].v.ts) == next->first, "written time");
                       Check(r[1].v.ui4 == next->second.second, "written quality");
                       Check(r[2].v.r8 == next->second.first, "written value");
                       ++next;
                     }),
               static_cast<long>(own_.size()));
  }

  // A failing statement leaves its own error record on this thread, whatever the others do.
  void BadStatement() {
    const HRESULT hr = RunUnread("SELECT * FROM NOSUCHTABLE" + std::to_string(index_));
    const LastError error = ConsumerTest::TakeLastError();
    Check(hr == static_cast<HRESULT>(0x8004C001L), "unknown table gave " + Hex(hr));
    Check(error.count >= 1 && error.hr == hr, "error record " + Hex(error.hr));
  }

  std::mt19937 rng_;
  ComPtr<IDBCreateSession> create_;
  const std::string own_tag_;
  ComPtr<IDBCreateCommand> session_;
  ComPtr<ICommandText> command_;
  std::map<ULONGLONG, std::pair<double, ULONG>> own_;  // what this thread wrote and did not delete
  std::string doing_ = "starting";
};

class ConcurrencySoak : public LeakCheckedTest {};

TEST_F(ConcurrencySoak, ThreadsSharingOneDataSourceSeeConsistentResults) {
  ComThread com;
  const char* secondsText = std::getenv("CORVANE_SOAK_SECONDS");
  const double seconds = secondsText && std::atof(secondsText) > 0 ? std::atof(secondsText) : 8.0;
  const char* seedText = std::getenv("CORVANE_SOAK_SEED");
  const unsigned seed = seedText ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10)) : std::random_device()();
  std::printf("soak: %d threads for %.1f s, CORVANE_SOAK_SEED=%u\n", kThreads, seconds, seed);

  SqlConsumer world;  // the historian behind the counting host; it checks that the provider let go of it
  historian::CHistorianStore& store = world.Store();
  for (int i = -2; i < kThreads; ++i) {
    historian::TagDefinition def;
    def.name = FromUtf8(i == -2 ? kRamp : i == -1 ? kSteps : "Own" + std::to_string(i));
    def.vartype = i == -1 ? VT_I4 : VT_R8;
    ASSERT_EQ(S_OK, store.AddTag(def));
  }
  for (const bool ramp : {true, false})
    ASSERT_EQ(S_OK, store.AppendGenerated(FromUtf8(ramp ? kRamp : kSteps), kSamples, [ramp](size_t i, auto& s) {
      s.time = kBase + i * kStep;
      s.quality = Quality(ramp, static_cast<long>(i));
      s.number = Value(ramp, static_cast<long>(i));  // VT_R8 keeps the number, VT_I4 the integer
      s.integer = static_cast<int64_t>(s.number);
    }));
  IUnknown* dataSource = nullptr;
  IOpenRowset* session = nullptr;
  OpenProvider(static_cast<IRawDataProvider*>(&world.Host()), &dataSource, &session);
  ASSERT_NE(nullptr, dataSource);

  std::vector<std::unique_ptr<Soaker>> soakers;
  for (int i = 0; i < kThreads; ++i) soakers.push_back(std::make_unique<Soaker>(i, seed + i, dataSource));
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  const auto start = std::chrono::steady_clock::now();
  for (auto& s : soakers) threads.emplace_back([&s, &stop] { s->Run(stop); });
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (auto& t : threads) t.join();
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  size_t statements = 0, rows = 0;
  for (auto& s : soakers) {
    statements += s->statements_;
    rows += s->rows_;
    EXPECT_EQ(0u, s->failureCount_) << "thread " << s->index_ << " (seed " << s->seed_ << ")";
    for (const std::string& f : s->failures_) ADD_FAILURE() << "thread " << s->index_ << ": " << f;
  }
  std::printf("soak: %zu statements, %zu rows fetched in %.1f s\n", statements, rows, elapsed);
  EXPECT_GT(statements, static_cast<size_t>(kThreads));
  soakers.clear();
  CloseProvider(&dataSource, &session);
  EXPECT_EQ(0u, world.Host().OutstandingContinuationPoints()) << "continuation points left open";
}

}  // namespace
}  // namespace corvane::test
