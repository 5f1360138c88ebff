// One aggregate statement of kLatencyCases, run again and again over the suite's eight
// days of one-second samples, with nothing else in the process worth counting: the
// program to profile the aggregate path with (callgrind counts two run counts, the
// difference is the statement's own), or to time it alone.
//
//   corvane_bench_hda [case] [runs]   (default case 2, HDA_ANALOG of a day; 100 runs)
#include <cstdio>
#include <cstdlib>

#include "bench/BenchSupport.h"
#include "bench/SelectConsumer.h"

int main(int argc, char** argv) {
  const int which = argc > 1 ? std::atoi(argv[1]) : 2;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 100;
  if (which < 0 || which >= 6 || runs < 0) {
    std::printf("usage: corvane_bench_hda [case 0..5] [runs]\n");
    return 2;
  }
  const corvane::bench::LatencyCase& c = corvane::bench::kLatencyCases[which];
  auto store = corvane::e2e::MakeSeriesStore(8 * 86400);
  IUnknown* host = nullptr;
  if (!store || FAILED(corvane::e2e::CreateSeriesHost(store, &host))) return 1;
  corvane::e2e::SelectConsumer consumer;
  ICommandText* command = nullptr;
  HRESULT hr = consumer.Open(host);
  if (SUCCEEDED(hr))
    hr = consumer.Session()->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command));
  corvane::bench::Summary s;
  size_t rows = 0;
  double faults = 0;
  // Five untimed runs come first; with 0 runs only those are made.
  if (SUCCEEDED(hr)) hr = corvane::bench::TimeStatement(command, c, runs, &s, &rows, &faults);
  if (SUCCEEDED(hr))
    std::printf("%s: %zu rows, mean %.3f ms, median %.3f ms, %.1f page faults a run (%d runs, load %s)\n", c.label,
                rows, s.mean, s.median, faults, runs, corvane::bench::LoadAverage().c_str());
  else
    std::printf("%s failed: %08X, %zu rows\n", c.label, static_cast<unsigned>(hr), rows);
  if (command) command->Release();
  consumer.Close();
  host->Release();
  return SUCCEEDED(hr) ? 0 : 1;
}
