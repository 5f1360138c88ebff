// Rows per second of SELECT * FROM RAWDATA end to end: ten million samples of one tag
// in the reference historian, read by a consumer through the provider's OLE DB
// interfaces (command text, Execute, GetNextRows in batches of 1000, GetData per row
// with TAGNAME as WSTR, TIMESTAMP as DBTIMESTAMP, QUALITY as UI4 and VALUE as VARIANT,
// ReleaseRows), next to the paged raw read of the same samples straight from the
// historian in pages of the default MAX_ROWS_TO_RETURN (the floor), in the same run.
// Prints both rates, their ratio and the peak memory of the streamed read. A third case,
// the bare rowset, shows what the same consumer calls cost with nothing behind them but
// the historian's pages, so that the provider's share of the gap can be told apart from
// the interface's.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench/BenchSupport.h"
#include "bench/BareRowset.h"
#include "bench/SelectConsumer.h"

namespace {

using corvane::e2e::ConsumerRow;
using corvane::e2e::SelectConsumer;

constexpr ULONG kPage = 2000;

// Ten million unless CORVANE_BENCH_SAMPLES says otherwise (profiling runs use fewer).
size_t SampleCount() {
  const char* text = std::getenv("CORVANE_BENCH_SAMPLES");
  const size_t n = text ? std::strtoull(text, nullptr, 10) : 0;
  return n ? n : 10000000;
}
const size_t kSamples = SampleCount();
const ULONGLONG kLastSample = corvane::e2e::kFirstSample + (kSamples - 1) * corvane::e2e::kSampleStep;

std::shared_ptr<corvane::historian::CHistorianStore> g_store;
IUnknown* g_host = nullptr;
IRawDataProvider* g_raw = nullptr;
SelectConsumer g_consumer;

using corvane::bench::ProcStatusBytes;

void BM_RawReadPaged(benchmark::State& state) {
  size_t samples = 0;
  double checksum = 0;
  for (auto _ : state)
    samples += corvane::bench::ReadRawPaged(g_raw, corvane::e2e::kTagName, corvane::e2e::kFirstSample, kLastSample,
                                            kPage, &checksum);
  benchmark::DoNotOptimize(checksum);
  if (samples != kSamples * state.iterations()) state.SkipWithError("short read");
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RawReadPaged)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

double g_firstRowsMs = 0;

// One table read end to end with VALUE bound as `value`; every cell the consumer got
// counts into a checksum so that nothing is optimised away.
void SelectAll(benchmark::State& state, const OLECHAR* text, corvane::e2e::ValueAs value) {
  size_t rows = 0;
  double checksum = 0;
  corvane::e2e::SelectOptions options;
  options.value = value;
  for (auto _ : state) {
    corvane::e2e::FetchStats stats;
    const HRESULT hr = g_consumer.Select(text, options, &stats,
                                         [&](const ConsumerRow* batch, const HRESULT* results, size_t count) {
                                           for (size_t i = 0; i < count; ++i) {
                                             if (results[i] != S_OK) return false;
                                             const ConsumerRow& r = batch[i];
                                             checksum += V_R8(&r.value) + r.real + r.text[0] + r.quality +
                                                         r.timestamp.second + r.tag[0];
                                           }
                                           return true;
                                         });
    if (FAILED(hr)) {
      state.SkipWithError("SELECT failed");
      break;
    }
    rows += stats.rows;
    g_firstRowsMs = stats.secondsToFirstRows * 1e3;
  }
  benchmark::DoNotOptimize(checksum);
  if (rows != kSamples * state.iterations()) state.SkipWithError("short fetch");
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
}

void BM_SelectEndToEnd(benchmark::State& state) {
  SelectAll(state, OLESTR("SELECT * FROM RAWDATA"), corvane::e2e::ValueAs::kVariant);
}
BENCHMARK(BM_SelectEndToEnd)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

// The typed tables with VALUE bound as their type: R8, and WSTR as a consumer reading
// the text table as text would (what the number-to-text conversion costs on top).
void BM_SelectDoubleEndToEnd(benchmark::State& state) {
  SelectAll(state, OLESTR("SELECT * FROM RAWDATA_DOUBLE"), corvane::e2e::ValueAs::kDouble);
}
BENCHMARK(BM_SelectDoubleEndToEnd)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

void BM_SelectStringEndToEnd(benchmark::State& state) {
  SelectAll(state, OLESTR("SELECT * FROM RAWDATA_STRING"), corvane::e2e::ValueAs::kText);
}
BENCHMARK(BM_SelectStringEndToEnd)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

// The consumer's loop of SelectConsumer::Select over the bare rowset.
void BM_BareRowsetFloor(benchmark::State& state) {
  size_t fetched = 0;
  double checksum = 0;
  for (auto _ : state) {
    const size_t rows = corvane::bench::ReadBareRowset(g_raw, corvane::e2e::kFirstSample, kLastSample, &checksum);
    if (rows == 0) {
      state.SkipWithError("bare rowset failed");
      break;
    }
    fetched += rows;
  }
  benchmark::DoNotOptimize(checksum);
  if (fetched != kSamples * state.iterations()) state.SkipWithError("short fetch");
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(fetched), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BareRowsetFloor)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

// Keeps each benchmark's rows/s and process CPU time per row (all threads, so the
// provider's worker counts) for the closing ratio.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto it = run.counters.find("rows/s");
      if (it != run.counters.end() && !run.error_occurred && run.run_type == Run::RT_Iteration) {
        rates[run.benchmark_name()] = it->second.value;
        cpuPerRow[run.benchmark_name()] = run.GetAdjustedCPUTime() / static_cast<double>(kSamples);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> rates;
  std::map<std::string, double> cpuPerRow;  // in the benchmark's time unit
};

bool Load() {
  g_store = corvane::e2e::MakeSeriesStore(kSamples);
  if (!g_store) return false;
  if (FAILED(corvane::e2e::CreateSeriesHost(g_store, &g_host))) return false;
  if (FAILED(g_host->QueryInterface(IID_IRawDataProvider, reinterpret_cast<void**>(&g_raw)))) return false;
  return SUCCEEDED(g_consumer.Open(g_host)) &&
         SUCCEEDED(g_consumer.UseTimeRange(corvane::e2e::kFirstSample, kLastSample));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const size_t before = ProcStatusBytes("VmRSS");
  if (!Load()) {
    std::fprintf(stderr, "could not build the series or open the provider over it\n");
    return 1;
  }
  const size_t loaded = ProcStatusBytes("VmRSS");
  std::printf("series: %zu samples, %.1f MB in sample columns, process RSS grew %.1f MB while loading\n",
              g_store->SampleCount(), g_store->MemoryBytes() / 1e6, (loaded - before) / 1e6);
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double select = 0, raw = 0, bare = 0, selectCpu = 0, rawCpu = 0, bareCpu = 0;
  for (const auto& [name, rate] : reporter.rates) {
    if (name.rfind("BM_SelectEndToEnd", 0) == 0) {
      select = rate;
      selectCpu = reporter.cpuPerRow[name] * 1e6;  // milliseconds to nanoseconds
    }
    if (name.rfind("BM_RawReadPaged", 0) == 0) {
      raw = rate;
      rawCpu = reporter.cpuPerRow[name] * 1e6;
    }
    if (name.rfind("BM_BareRowsetFloor", 0) == 0) {
      bare = rate;
      bareCpu = reporter.cpuPerRow[name] * 1e6;
    }
  }
  const size_t peak = ProcStatusBytes("VmHWM");
  if (select > 0 && raw > 0) {
    std::printf("SELECT end to end: %.0f rows/s, paged raw read: %.0f rows/s, ratio %.2f (target 0.50)\n", select,
                raw, select / raw);
    std::printf("process CPU per row: SELECT %.0f ns, raw read %.0f ns; first rows after %.1f ms\n", selectCpu,
                rawCpu, g_firstRowsMs);
  }
  if (bare > 0 && raw > 0)
    std::printf("bare rowset (the same calls, nothing behind them but the pages): %.0f rows/s, ratio %.2f to the raw "
                "read, %.0f ns CPU per row\n",
                bare, bare / raw, bareCpu);
  std::printf("peak RSS %.1f MB, %.1f MB above the loaded series\n", peak / 1e6,
              (peak > loaded ? peak - loaded : 0) / 1e6);
  g_consumer.Close();
  g_raw->Release();
  g_host->Release();
  g_store.reset();
  benchmark::Shutdown();
  return 0;
}
