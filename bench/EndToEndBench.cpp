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
#include "provider/store/RefCountedDataStoreRow.h"
#include "tests/e2e/SelectConsumer.h"

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

void BM_SelectEndToEnd(benchmark::State& state) {
  size_t rows = 0;
  double checksum = 0;
  for (auto _ : state) {
    corvane::e2e::FetchStats stats;
    const HRESULT hr = g_consumer.Select(OLESTR("SELECT * FROM RAWDATA"), &stats,
                                         [&](const ConsumerRow* batch, const HRESULT* results, size_t count) {
                                           for (size_t i = 0; i < count; ++i) {
                                             if (results[i] != S_OK) return false;
                                             checksum += V_R8(&batch[i].value) + batch[i].quality +
                                                         batch[i].timestamp.second + batch[i].tag[0];
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
BENCHMARK(BM_SelectEndToEnd)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

// The least a rowset over this historian can do per row, for scale, not a provider: it
// reads one historian page per GetNextRows on the consumer's thread and answers GetData
// from that page for exactly the four bindings the consumer makes (given up front, so
// there is no accessor). No row store, worker, lock, handle table, trace, stopwatch or
// conversion service; handles are indexes into the page.
class CBareRowset final : public IRowset {
 public:
  CBareRowset(IRawDataProvider* raw, ULONGLONG first, ULONGLONG last, const DBBINDING* bindings, size_t count)
      : m_pRaw(raw), m_First(first), m_Last(last), m_Bindings(bindings, bindings + count) {
    m_Tag = {m_Catalog, m_Schema, m_Name};
    std::memcpy(m_Name, corvane::e2e::kTagName, sizeof m_Name);
  }
  ~CBareRowset() {
    FreeHistoryValueList(m_pPage);
    if (m_pContinuation) m_pRaw->ReleaseContinuationPoint(&m_pContinuation);
  }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (!out) return E_POINTER;
    *out = (riid == IID_IUnknown || riid == IID_IRowset) ? static_cast<IRowset*>(this) : nullptr;
    if (!*out) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --m_cRef;
    if (!n) delete this;
    return n;
  }
  HRESULT STDMETHODCALLTYPE AddRefRows(DBCOUNTITEM, const HROW*, DBREFCOUNT*, DBROWSTATUS*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE RestartPosition(HCHAPTER) override { return E_NOTIMPL; }

  HRESULT STDMETHODCALLTYPE GetNextRows(HCHAPTER, DBROWOFFSET offset, DBROWCOUNT count, DBCOUNTITEM* obtained,
                                        HROW** rows) override {
    if (!obtained || !rows || !*rows || offset || count <= 0) return E_INVALIDARG;
    *obtained = 0;
    FreeHistoryValueList(m_pPage);
    m_pPage = nullptr;
    if (m_bDone) return DB_S_ENDOFROWSET;
    const HRESULT hr = m_pRaw->ReadRaw(&m_Tag, U64ToFileTime(m_First), U64ToFileTime(m_Last),
                                       static_cast<ULONG>(count), kRawReadIncludeBounds, &m_pContinuation, &m_pPage);
    if (FAILED(hr)) return hr;
    m_bDone = !m_pContinuation;
    for (ULONG i = 0; i < m_pPage->count; ++i) (*rows)[i] = i + 1;
    *obtained = m_pPage->count;
    return m_bDone && *obtained < static_cast<DBCOUNTITEM>(count) ? DB_S_ENDOFROWSET : S_OK;
  }

  HRESULT STDMETHODCALLTYPE GetData(HROW row, HACCESSOR, void* data) override {
    if (!m_pPage || row == 0 || row > m_pPage->count) return DB_E_BADROWHANDLE;
    const HistoryValue& v = m_pPage->values[row - 1];
    BYTE* out = static_cast<BYTE*>(data);
    for (const DBBINDING& b : m_Bindings) {
      BYTE* value = out + b.obValue;
      DBLENGTH length = 0;
      switch (b.iOrdinal) {
        case 1: {  // TAGNAME as WSTR
          const size_t room = b.cbMaxLen / sizeof(OLECHAR);
          size_t n = 0;
          while (m_Name[n] && n + 1 < room) ++n;
          std::memcpy(value, m_Name, n * sizeof(OLECHAR));
          reinterpret_cast<OLECHAR*>(value)[n] = 0;
          length = n * sizeof(OLECHAR);
          break;
        }
        case 2:  // TIMESTAMP as DBTIMESTAMP
          Timestamp(v.timestamp, reinterpret_cast<DBTIMESTAMP*>(value));
          length = sizeof(DBTIMESTAMP);
          break;
        case 3:  // QUALITY as UI4
          std::memcpy(value, &v.quality, sizeof(ULONG));
          length = sizeof(ULONG);
          break;
        default: {  // VALUE as VARIANT
          VARIANT* target = reinterpret_cast<VARIANT*>(value);
          if (CRefCountedDataStoreRow::OwnsNothing(V_VT(&v.value))) {
            std::memcpy(static_cast<void*>(target), &v.value, sizeof(VARIANT));
          } else {
            VariantInit(target);
            if (FAILED(VariantCopy(target, const_cast<VARIANT*>(&v.value)))) return DB_E_ERRORSOCCURRED;
          }
          length = sizeof(VARIANT);
        }
      }
      if (b.dwPart & DBPART_LENGTH) std::memcpy(out + b.obLength, &length, sizeof length);
      if (b.dwPart & DBPART_STATUS) {
        const DBSTATUS ok = DBSTATUS_S_OK;
        std::memcpy(out + b.obStatus, &ok, sizeof ok);
      }
    }
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE ReleaseRows(DBCOUNTITEM, const HROW*, DBROWOPTIONS*, DBREFCOUNT*,
                                        DBROWSTATUS*) override {
    return S_OK;
  }

 private:
  // The calendar date is worked out once per day, the time of day by division.
  void Timestamp(const FILETIME& time, DBTIMESTAMP* ts) {
    constexpr ULONGLONG kTicksPerDay = 864000000000ull;
    const ULONGLONG ticks = FileTimeToU64(time);
    const ULONGLONG day = ticks / kTicksPerDay, inDay = ticks % kTicksPerDay;
    if (day != m_Day) {
      SYSTEMTIME st{};
      const FILETIME midnight = U64ToFileTime(day * kTicksPerDay);
      FileTimeToSystemTime(&midnight, &st);
      m_Date = DBTIMESTAMP{static_cast<SHORT>(st.wYear), st.wMonth, st.wDay, 0, 0, 0, 0};
      m_Day = day;
    }
    *ts = m_Date;
    const ULONGLONG seconds = inDay / 10000000ull;
    ts->hour = static_cast<USHORT>(seconds / 3600);
    ts->minute = static_cast<USHORT>(seconds / 60 % 60);
    ts->second = static_cast<USHORT>(seconds % 60);
    ts->fraction = static_cast<ULONG>(inDay % 10000000ull * 100);
  }

  ULONG m_cRef = 1;
  IRawDataProvider* m_pRaw;
  ULONGLONG m_First, m_Last;
  std::vector<DBBINDING> m_Bindings;
  OLECHAR m_Catalog[6] = {'P', 'l', 'a', 'n', 't', 0};
  OLECHAR m_Schema[2] = {'s', 0};
  OLECHAR m_Name[sizeof("Plant.Flow")] = {};
  TagIdent m_Tag{};
  void* m_pContinuation = nullptr;
  HistoryValueList* m_pPage = nullptr;
  bool m_bDone = false;
  ULONGLONG m_Day = ~0ull;
  DBTIMESTAMP m_Date{};
};

// The consumer's loop of SelectConsumer::Select over the bare rowset: batches of
// kBatch, GetData per row, the same checksum, VariantClear, ReleaseRows.
void BM_BareRowsetFloor(benchmark::State& state) {
  DBBINDING bindings[4];
  corvane::e2e::RowBindings(corvane::e2e::ValueAs::kVariant, bindings);
  constexpr DBROWCOUNT kBatch = SelectConsumer::kBatch;
  std::vector<ConsumerRow> rows(kBatch);
  std::memset(static_cast<void*>(rows.data()), 0, rows.size() * sizeof(ConsumerRow));
  std::vector<HRESULT> results(kBatch);
  HROW handles[kBatch];
  size_t fetched = 0;
  double checksum = 0;
  for (auto _ : state) {
    IRowset* rowset = new CBareRowset(g_raw, corvane::e2e::kFirstSample, kLastSample, bindings, 4);
    HRESULT hr = S_OK;
    while (hr == S_OK) {
      DBCOUNTITEM obtained = 0;
      HROW* handleArray = handles;
      hr = rowset->GetNextRows(DB_NULL_HCHAPTER, 0, kBatch, &obtained, &handleArray);
      if (FAILED(hr)) break;
      for (DBCOUNTITEM i = 0; i < obtained; ++i) results[i] = rowset->GetData(handles[i], 0, &rows[i]);
      for (DBCOUNTITEM i = 0; i < obtained; ++i) {
        if (results[i] != S_OK) hr = results[i];
        checksum += V_R8(&rows[i].value) + rows[i].quality + rows[i].timestamp.second + rows[i].tag[0];
      }
      for (DBCOUNTITEM i = 0; i < obtained; ++i) VariantClear(&rows[i].value);
      rowset->ReleaseRows(obtained, handles, nullptr, nullptr, nullptr);
      fetched += obtained;
      if (obtained == 0) break;
    }
    rowset->Release();
    if (FAILED(hr)) {
      state.SkipWithError("bare rowset failed");
      break;
    }
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
