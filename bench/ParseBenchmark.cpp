// Statements per second of CSQLParser::ParseQuery over a fixed mix of realistic
// statements, and of sqlite3_prepare_v2 + sqlite3_finalize over the equivalent
// statements against tables with the same columns, measured in the same run; prints
// both and their ratio. Both sides build and discard their parsed form each time.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "SQLParser/SQLParser.h"

namespace {

struct Statement {
  const char* corvane;
  const char* sqlite;
};

// Procedures have no counterpart in SQLite; their equivalent reads a table that has
// one column per parameter, filtered by the same values.
const Statement kMix[] = {
    {"SELECT TAGNAME, TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP > "
     "DATEADD('hh', -1, NOW()) AND TIMESTAMP <= NOW()",
     "SELECT TAGNAME, TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP > "
     "datetime('now', '-1 hours') AND TIMESTAMP <= datetime('now')"},
    {"SELECT * FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Flow' AND TIMESTAMP >= '2024-01-01 00:00:00' AND TIMESTAMP "
     "< '2024-01-02 00:00:00' ORDER BY TIMESTAMP DESC LIMIT 500",
     "SELECT * FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Flow' AND TIMESTAMP >= '2024-01-01 00:00:00' AND TIMESTAMP "
     "< '2024-01-02 00:00:00' ORDER BY TIMESTAMP DESC LIMIT 500"},
    {"SELECT TOP 100 r.TIMESTAMP, r.VALUE AS v FROM RAWDATA_DOUBLE r WHERE r.TAGNAME = ? AND r.TIMESTAMP BETWEEN "
     "DATEADD('dd', -7, NOW()) AND NOW()",
     "SELECT r.TIMESTAMP, r.VALUE AS v FROM RAWDATA_DOUBLE r WHERE r.TAGNAME = ? AND r.TIMESTAMP > datetime('now', "
     "'-7 days') AND r.TIMESTAMP < datetime('now') LIMIT 100"},
    {"INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES ('Plant.Area1.Temp', '2024-01-01 12:00:00', "
     "21.5, 192)",
     "INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES ('Plant.Area1.Temp', '2024-01-01 12:00:00', "
     "21.5, 192)"},
    {"UPDATE RAWDATA SET VALUE = 22.0, QUALITY = 192 WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 "
     "12:00:00'",
     "UPDATE RAWDATA SET VALUE = 22.0, QUALITY = 192 WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 "
     "12:00:00'"},
    {"EXEC GET_VALUES 'Plant.Area1.Temp', DATEADD('hh', -8, NOW()), NOW()",
     "SELECT * FROM GET_VALUES WHERE TAGNAME = 'Plant.Area1.Temp' AND STARTTIME = datetime('now', '-8 hours') AND "
     "ENDTIME = datetime('now')"},
    {"{CALL HDA_ANALOG('Plant.Area1.Flow', ?, ?, 60000, 'AVG')}",
     "SELECT * FROM HDA_ANALOG WHERE TAGNAME = 'Plant.Area1.Flow' AND STARTTIME = ? AND ENDTIME = ? AND INTERVAL = "
     "60000 AND AGGREGATE = 'AVG'"},
    {"DELETE FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 12:00:00'",
     "DELETE FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 12:00:00'"},
};

const char* const kSchema =
    "CREATE TABLE RAWDATA (TAGNAME TEXT, TIMESTAMP TEXT, VALUE, QUALITY INTEGER);"
    "CREATE TABLE RAWDATA_DOUBLE (TAGNAME TEXT, TIMESTAMP TEXT, VALUE REAL, QUALITY INTEGER);"
    "CREATE TABLE GET_VALUES (TAGNAME TEXT, STARTTIME TEXT, ENDTIME TEXT, TIMESTAMP TEXT, VALUE, QUALITY INTEGER);"
    "CREATE TABLE HDA_ANALOG (TAGNAME TEXT, STARTTIME TEXT, ENDTIME TEXT, INTERVAL INTEGER, AGGREGATE TEXT, "
    "TIMESTAMP TEXT, VALUE, QUALITY INTEGER);";

std::vector<corvane::WString> WideMix() {
  std::vector<corvane::WString> mix;
  for (const auto& s : kMix) mix.push_back(corvane::FromUtf8(s.corvane));
  return mix;
}

void BM_CorvaneParse(benchmark::State& state) {
  const std::vector<corvane::WString> mix = WideMix();
  for (const auto& text : mix) {
    std::unique_ptr<CSQLQueryInfo> query;
    if (CSQLParser::ParseQuery({OLESTR("CAT"), OLESTR("SCH"), text}, &query) != S_OK || !query) {
      state.SkipWithError(("does not parse: " + corvane::ToUtf8(text)).c_str());
      return;
    }
  }
  for (auto _ : state) {
    for (const auto& text : mix) {
      std::unique_ptr<CSQLQueryInfo> query;
      HRESULT hr = CSQLParser::ParseQuery({OLESTR("CAT"), OLESTR("SCH"), text}, &query);
      benchmark::DoNotOptimize(hr);
      benchmark::DoNotOptimize(query.get());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(mix.size()));
}

void BM_SqlitePrepare(benchmark::State& state) {
  sqlite3* db = nullptr;
  if (sqlite3_open(":memory:", &db) != SQLITE_OK || sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    state.SkipWithError("cannot create the SQLite schema");
    sqlite3_close(db);
    return;
  }
  for (const auto& s : kMix) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, s.sqlite, -1, &stmt, nullptr) != SQLITE_OK) {
      state.SkipWithError((std::string("does not prepare: ") + s.sqlite + ": " + sqlite3_errmsg(db)).c_str());
      sqlite3_close(db);
      return;
    }
    sqlite3_finalize(stmt);
  }
  for (auto _ : state) {
    for (const auto& s : kMix) {
      sqlite3_stmt* stmt = nullptr;
      int rc = sqlite3_prepare_v2(db, s.sqlite, -1, &stmt, nullptr);
      benchmark::DoNotOptimize(rc);
      sqlite3_finalize(stmt);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(std::size(kMix)));
  sqlite3_close(db);
}

BENCHMARK(BM_CorvaneParse);
BENCHMARK(BM_SqlitePrepare);

// Console output as usual, plus the statements-per-second figure of each side kept for
// the closing ratio.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      // With repetitions the mean, reported after the single runs, is the figure kept.
      if (run.error_occurred || !(run.aggregate_name.empty() || run.aggregate_name == "mean") ||
          !run.counters.count("items_per_second"))
        continue;
      const double rate = run.counters.at("items_per_second");
      const std::string name = run.benchmark_name();
      if (name.rfind("BM_CorvaneParse", 0) == 0) corvane_ = rate;
      if (name.rfind("BM_SqlitePrepare", 0) == 0) sqlite_ = rate;
    }
  }
  double corvane_ = 0, sqlite_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::printf("\nstatement mix of %zu statements\n", std::size(kMix));
  std::printf("CSQLParser::ParseQuery        %12.0f statements/s\n", reporter.corvane_);
  std::printf("sqlite3_prepare_v2 + finalize %12.0f statements/s\n", reporter.sqlite_);
  if (reporter.corvane_ > 0 && reporter.sqlite_ > 0)
    std::printf("ratio (parse / prepare)       %12.2fx\n", reporter.corvane_ / reporter.sqlite_);
  return reporter.corvane_ > 0 && reporter.sqlite_ > 0 ? 0 : 1;
}
