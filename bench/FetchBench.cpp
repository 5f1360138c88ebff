// Rows per second through the rowset fetch: GetNextRows in batches of 1000 and GetData
// per row (TAGNAME as WSTR, TIMESTAMP as DBTIMESTAMP, QUALITY as UI4, VALUE as VARIANT
// and as R8) over a synthetic producer whose worker makes pages of 2000 rows, against
// the same rows read in the same run from an in-memory SQLite table with sqlite3_step
// and one column read per column. Prints both rates and their ratio.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "provider/ProviderIRowset.h"
#include "provider/store/DataProvider.h"
#include "provider/store/DataStore.h"

namespace {

constexpr ULONGLONG kRows = 1000000;
constexpr ULONGLONG kPage = 2000;
constexpr DBROWCOUNT kBatch = 1000;
constexpr ULONGLONG kT0 = 133485408000000000ull;  // 2024-01-01 00:00:00 UTC
constexpr ULONGLONG kStep = 10000000ull;           // one row per second
const OLECHAR kTag[] = OLESTR("Plant.Area1.Flow");
const size_t kTagLength = sizeof kTag / sizeof kTag[0] - 1;

ColumnRecord Column(const OLECHAR* name, ULONGLONG ordinal, DBTYPE type, ULONGLONG size) {
  ColumnRecord c;
  c.ColumnName = c.ColumnAlias = name;
  c.TableName = OLESTR("RAWDATA");
  c.Ordinal = ordinal;
  c.wType = type;
  c.ColumnSize = size;
  return c;
}

std::vector<ColumnRecord> RawDataColumns() {
  return {Column(OLESTR("TAGNAME"), 1, DBTYPE_WSTR, 4096), Column(OLESTR("TIMESTAMP"), 2, DBTYPE_DBTIMESTAMP, 16),
          Column(OLESTR("QUALITY"), 3, DBTYPE_UI4, 4), Column(OLESTR("VALUE"), 4, DBTYPE_VARIANT, 24)};
}

double ValueOf(ULONGLONG i) { return static_cast<double>(i % 1000) * 0.5; }
ULONG QualityOf(ULONGLONG i) { return i % 97 ? 192u : 0u; }

// Makes RAWDATA records on its worker, one page per step, the next page when the fetch
// has taken the last one, lending the tag name and refilling the records the store hands
// back (as the raw-data tables do).
class SyntheticProducer : public CDataProvider {
 public:
  explicit SyntheticProducer(ULONGLONG rows) : rows_(rows) { EnableRecordReuse(); }
  ~SyntheticProducer() override { StopWorker(); }
  HRESULT GetColumns(std::vector<ColumnRecord>& columns) override {
    columns = RawDataColumns();
    return S_OK;
  }
  HRESULT ExecuteStep() override {
    ProducedRecordList page = TakeSpareRecords(kPage);
    const ULONGLONG end = std::min(rows_, next_ + kPage);
    size_t used = 0;
    for (; next_ < end; ++next_, ++used) {
      if (used == page.size()) page.emplace_back();
      ProducedRecord& r = page[used];
      r.resize(4);
      r[0].SetText(kTag, kTagLength);
      const ULONGLONG t = kT0 + next_ * kStep;
      FILETIME time;
      time.dwLowDateTime = static_cast<DWORD>(t);
      time.dwHighDateTime = static_cast<DWORD>(t >> 32);
      r[1].SetTime(time);
      VARIANT v;
      V_VT(&v) = VT_UI4;
      V_UI4(&v) = QualityOf(next_);
      r[2].Take(&v);
      V_VT(&v) = VT_R8;
      V_R8(&v) = ValueOf(next_);
      r[3].Take(&v);
    }
    page.resize(used);
    AppendRecords(std::move(page));
    if (next_ == rows_) {
      SetMoreData(false);
      RequestStop();
    }
    return S_OK;
  }

 private:
  ULONGLONG rows_;
  ULONGLONG next_ = 0;
};

struct Consumer {
  DBBINDING bindings[5];
  size_t size;
};

DBBINDING Bind(DBORDINAL ordinal, DBTYPE type, DBBYTEOFFSET value, DBLENGTH maxLen, DBBYTEOFFSET length,
               DBBYTEOFFSET status) {
  DBBINDING b;
  std::memset(&b, 0, sizeof b);
  b.iOrdinal = ordinal;
  b.obValue = value;
  b.obLength = length;
  b.obStatus = status;
  b.dwPart = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS;
  b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
  b.eParamIO = DBPARAMIO_NOTPARAM;
  b.cbMaxLen = maxLen;
  b.wType = type;
  return b;
}

// The consumer's row: values, then lengths, then statuses.
struct alignas(8) ConsumerRow {
  OLECHAR tag[64];
  DBTIMESTAMP timestamp;
  ULONG quality;
  VARIANT value;
  double real;
  DBLENGTH lengths[5];
  DBSTATUS statuses[5];
};

size_t FetchAll(ULONGLONG rows, double* checksum) {
  auto producer = std::make_unique<SyntheticProducer>(rows);
  if (FAILED(producer->Execute())) return 0;
  auto store = std::make_unique<CDataStore>();
  if (FAILED(store->Initialize(std::move(producer), RawDataColumns()))) return 0;
  IRowset* rowset = nullptr;
  if (FAILED(CProviderIRowset::Create(std::move(store), CProviderIRowset::RowsetKind::Command, nullptr, IID_IRowset,
                                      reinterpret_cast<void**>(&rowset))))
    return 0;
  IAccessor* accessor = nullptr;
  rowset->QueryInterface(IID_IAccessor, reinterpret_cast<void**>(&accessor));
  const DBBINDING bindings[] = {
      Bind(1, DBTYPE_WSTR, offsetof(ConsumerRow, tag), sizeof(ConsumerRow::tag), offsetof(ConsumerRow, lengths),
           offsetof(ConsumerRow, statuses)),
      Bind(2, DBTYPE_DBTIMESTAMP, offsetof(ConsumerRow, timestamp), sizeof(DBTIMESTAMP),
           offsetof(ConsumerRow, lengths) + 8, offsetof(ConsumerRow, statuses) + 4),
      Bind(3, DBTYPE_UI4, offsetof(ConsumerRow, quality), sizeof(ULONG), offsetof(ConsumerRow, lengths) + 16,
           offsetof(ConsumerRow, statuses) + 8),
      Bind(4, DBTYPE_VARIANT, offsetof(ConsumerRow, value), sizeof(VARIANT), offsetof(ConsumerRow, lengths) + 24,
           offsetof(ConsumerRow, statuses) + 12),
      Bind(4, DBTYPE_R8, offsetof(ConsumerRow, real), sizeof(double), offsetof(ConsumerRow, lengths) + 32,
           offsetof(ConsumerRow, statuses) + 16)};
  HACCESSOR h = 0;
  size_t total = 0;
  if (SUCCEEDED(accessor->CreateAccessor(DBACCESSOR_ROWDATA, 5, bindings, sizeof(ConsumerRow), &h, nullptr))) {
    HROW handles[kBatch];
    ConsumerRow row;
    std::memset(&row, 0, sizeof row);
    for (;;) {
      DBCOUNTITEM obtained = 0;
      HROW* out = handles;
      const HRESULT hr = rowset->GetNextRows(DB_NULL_HCHAPTER, 0, kBatch, &obtained, &out);
      if (FAILED(hr)) break;
      for (DBCOUNTITEM i = 0; i < obtained; ++i) {
        if (rowset->GetData(handles[i], h, &row) != S_OK) return 0;
        *checksum += row.real + row.quality + row.timestamp.second + row.tag[0];
        VariantClear(&row.value);
      }
      rowset->ReleaseRows(obtained, handles, nullptr, nullptr, nullptr);
      total += obtained;
      if (hr == DB_S_ENDOFROWSET) break;
    }
    accessor->ReleaseAccessor(h, nullptr);
  }
  accessor->Release();
  rowset->Release();
  return total;
}

void BM_ProviderFetch(benchmark::State& state) {
  size_t rows = 0;
  double checksum = 0;
  for (auto _ : state) rows += FetchAll(kRows, &checksum);
  benchmark::DoNotOptimize(checksum);
  if (rows != kRows * state.iterations()) state.SkipWithError("short fetch");
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ProviderFetch)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

sqlite3* g_db = nullptr;

bool LoadSqlite() {
  if (sqlite3_open(":memory:", &g_db) != SQLITE_OK) return false;
  sqlite3_exec(g_db, "CREATE TABLE rawdata(tagname TEXT, timestamp INTEGER, quality INTEGER, value REAL)", nullptr,
               nullptr, nullptr);
  sqlite3_exec(g_db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(g_db, "INSERT INTO rawdata VALUES(?,?,?,?)", -1, &insert, nullptr);
  for (ULONGLONG i = 0; i < kRows; ++i) {
    sqlite3_bind_text16(insert, 1, kTag, -1, SQLITE_STATIC);
    sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(kT0 + i * kStep));
    sqlite3_bind_int(insert, 3, static_cast<int>(QualityOf(i)));
    sqlite3_bind_double(insert, 4, ValueOf(i));
    if (sqlite3_step(insert) != SQLITE_DONE) return false;
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  return sqlite3_exec(g_db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
}

void BM_SqliteStep(benchmark::State& state) {
  size_t rows = 0;
  double checksum = 0;
  for (auto _ : state) {
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(g_db, "SELECT tagname, timestamp, quality, value FROM rawdata", -1, &select, nullptr);
    while (sqlite3_step(select) == SQLITE_ROW) {
      const void* tag = sqlite3_column_text16(select, 0);
      const sqlite3_int64 t = sqlite3_column_int64(select, 1);
      const int quality = sqlite3_column_int(select, 2);
      const double value = sqlite3_column_double(select, 3);
      checksum += value + quality + static_cast<double>(t % 60) + *static_cast<const char16_t*>(tag);
      ++rows;
    }
    sqlite3_finalize(select);
  }
  benchmark::DoNotOptimize(checksum);
  if (rows != kRows * state.iterations()) state.SkipWithError("short read");
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SqliteStep)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime()->MeasureProcessCPUTime();

// Keeps each benchmark's rows/s and process CPU time per row (every thread, so the
// provider's worker counts) for the closing ratio. On a shared machine the CPU figure
// is the steadier of the two.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto it = run.counters.find("rows/s");
      if (it != run.counters.end() && !run.error_occurred) {
        rates[run.benchmark_name()] = it->second.value;
        cpuPerRow[run.benchmark_name()] = run.GetAdjustedCPUTime() / static_cast<double>(kRows);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> rates;
  std::map<std::string, double> cpuPerRow;  // in the benchmark's time unit
};

}  // namespace

int main(int argc, char** argv) {
  if (!LoadSqlite()) {
    std::fprintf(stderr, "could not fill the SQLite table\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double provider = 0, sqlite = 0, providerCpu = 0, sqliteCpu = 0;
  for (const auto& [name, rate] : reporter.rates) {
    if (name.rfind("BM_ProviderFetch", 0) == 0) {
      provider = rate;
      providerCpu = reporter.cpuPerRow[name] * 1e6;  // milliseconds to nanoseconds
    }
    if (name.rfind("BM_SqliteStep", 0) == 0) {
      sqlite = rate;
      sqliteCpu = reporter.cpuPerRow[name] * 1e6;
    }
  }
  if (provider > 0 && sqlite > 0) {
    std::printf("provider fetch: %.0f rows/s, SQLite step: %.0f rows/s, ratio %.2f (target 1.50)\n", provider, sqlite,
                provider / sqlite);
    std::printf("process CPU per row: provider %.0f ns, SQLite %.0f ns\n", providerCpu, sqliteCpu);
  }
  sqlite3_close(g_db);
  benchmark::Shutdown();
  return 0;
}
