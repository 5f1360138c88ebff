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
#include "bench/StatementMix.h"

namespace {

using corvane::bench::kMix;
using corvane::bench::kSchema;

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
