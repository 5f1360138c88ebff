// Latency of one statement as a report tool sees it: SetCommandText, Prepare, Execute,
// one accessor over every column (as VARIANT), GetNextRows and GetData for every row,
// ReleaseRows, all timed together. The statements of kLatencyCases over eight days of
// one-second samples of one tag in the reference historian: a one-hour SELECT of that
// tag (3600 samples), GET_VALUES of 100 samples, HDA_ANALOG and HDA_ANALOG_5 of a day
// and a week at 15 minutes. Prints the mean, median and 99th percentile in milliseconds
// of each and its page faults per run, after a few untimed runs.
//
//   corvane_bench_latency [runs]      (default 300 runs of each statement)
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "bench/BenchSupport.h"
#include "bench/SelectConsumer.h"

namespace {

// Prints the mean, median and 99th percentile of `c`; false when a run fails or reads
// another number of rows.
bool Measure(ICommandText* command, const corvane::bench::LatencyCase& c, int runs) {
  corvane::bench::Summary s;
  size_t rows = 0;
  double faults = 0;
  const HRESULT hr = corvane::bench::TimeStatement(command, c, runs, &s, &rows, &faults);
  if (FAILED(hr)) {
    std::printf("%-34s failed: hr = %08X, %zu rows instead of %zu\n", c.label, static_cast<unsigned>(hr), rows,
                c.rows);
    return false;
  }
  std::printf("%-38s %6zu rows  mean %8.3f ms  median %8.3f ms  p99 %8.3f ms  %7.1f page faults  (%zu runs)\n",
              c.label, c.rows, s.mean, s.median, s.p99, faults, s.count);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 300;
  // Eight days of one sample per second from 2024-01-01 00:00:00 UTC.
  auto store = corvane::e2e::MakeSeriesStore(8 * 86400);
  IUnknown* host = nullptr;
  if (!store || FAILED(corvane::e2e::CreateSeriesHost(store, &host))) {
    std::printf("the historian could not be filled\n");
    return 1;
  }
  corvane::e2e::SelectConsumer consumer;
  ICommandText* command = nullptr;
  HRESULT hr = consumer.Open(host);
  if (SUCCEEDED(hr))
    hr = consumer.Session()->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command));
  bool ok = SUCCEEDED(hr);
  if (!ok) std::printf("the provider could not be opened: %08X\n", static_cast<unsigned>(hr));
  for (const auto& c : corvane::bench::kLatencyCases) ok = ok && Measure(command, c, runs);
  if (command) command->Release();
  consumer.Close();
  host->Release();
  return ok ? 0 : 1;
}
