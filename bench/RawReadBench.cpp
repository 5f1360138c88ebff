// Throughput of the reference historian's paged raw read (IRawDataProvider slot 7):
// ten million samples of one tag read in pages of 2000, each page allocated, filled and
// freed as a provider would. This is the floor that the provider's own fetch is
// measured against.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <memory>

#include "historian/ReferenceHistorian.h"

namespace {

using corvane::historian::CHistorianStore;
using corvane::historian::CReferenceHistorian;
using corvane::historian::SampleInput;
using corvane::historian::TagDefinition;

constexpr size_t kSamples = 10000000;
constexpr ULONG kPage = 2000;
constexpr ULONGLONG kT0 = 133485408000000000ull;  // 2024-01-01 00:00:00 UTC
constexpr ULONGLONG kStep = 10000000ull;           // one sample per second

std::shared_ptr<CHistorianStore> g_store;
IRawDataProvider* g_raw = nullptr;
OLECHAR g_catalog[] = {'c', 0}, g_schema[] = {'s', 0}, g_name[] = {'F', 'l', 'o', 'w', 0};

// Resident memory of the process in bytes (Linux), 0 where unknown.
size_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  if (!(statm >> pages >> resident)) return 0;
  return resident * 4096;
}

bool Load() {
  const size_t before = ResidentBytes();
  g_store = std::make_shared<CHistorianStore>();
  TagDefinition def;
  def.name = g_name;
  if (FAILED(g_store->AddTag(def))) return false;
  HRESULT hr = g_store->AppendGenerated(g_name, kSamples, [](size_t i, SampleInput& s) {
    s.time = kT0 + i * kStep;
    s.number = static_cast<double>(i % 1000) * 0.5;
    s.quality = i % 97 ? 0 : 0x40000000;
  });
  if (FAILED(hr)) return false;
  const size_t after = ResidentBytes();
  std::printf("store: %zu samples, %.1f MB in sample columns (%.1f bytes/sample), process RSS grew %.1f MB\n",
              g_store->SampleCount(), g_store->MemoryBytes() / 1e6,
              static_cast<double>(g_store->MemoryBytes()) / static_cast<double>(kSamples), (after - before) / 1e6);
  return SUCCEEDED(CReferenceHistorian::Create(g_store, IID_IRawDataProvider, reinterpret_cast<void**>(&g_raw)));
}

// Reads [from, to] to its end in pages; returns the samples read.
size_t ReadAll(ULONGLONG from, ULONGLONG to) {
  TagIdent tag{g_catalog, g_schema, g_name};
  void* cp = nullptr;
  size_t total = 0;
  do {
    HistoryValueList* list = nullptr;
    if (FAILED(g_raw->ReadRaw(&tag, U64ToFileTime(from), U64ToFileTime(to), kPage, kRawReadIncludeBounds, &cp, &list)))
      break;
    total += list->count;
    benchmark::DoNotOptimize(list->values);
    FreeHistoryValueList(list);
  } while (cp);
  return total;
}

void BM_RawReadPaged(benchmark::State& state) {
  size_t samples = 0;
  for (auto _ : state) samples += ReadAll(kT0, kT0 + (kSamples - 1) * kStep);
  if (samples != kSamples * state.iterations()) state.SkipWithError("short read");
  state.SetItemsProcessed(static_cast<int64_t>(samples));
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RawReadPaged)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// One page at a position that moves through the whole series: the cost of finding the
// range must not grow with the series.
void BM_RawReadOnePageAnywhere(benchmark::State& state) {
  uint64_t x = 12345;
  size_t samples = 0;
  for (auto _ : state) {
    x = x * 6364136223846793005ull + 1442695040888963407ull;
    const ULONGLONG from = kT0 + (x >> 33) % (kSamples - kPage) * kStep;
    samples += ReadAll(from, from + (kPage - 1) * kStep);
  }
  state.SetItemsProcessed(static_cast<int64_t>(samples));
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RawReadOnePageAnywhere)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!Load()) {
    std::fprintf(stderr, "could not build the store\n");
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_raw->Release();
  g_store.reset();
  return 0;
}
