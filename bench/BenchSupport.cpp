#include "bench/BenchSupport.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>

#include "platform/WideString.h"

namespace corvane::bench {

namespace {

template <typename T>
T* Query(IUnknown* object, REFIID iid) {
  T* p = nullptr;
  return object && SUCCEEDED(object->QueryInterface(iid, reinterpret_cast<void**>(&p))) ? p : nullptr;
}

}  // namespace

std::string CpuDescription() {
  std::ifstream info("/proc/cpuinfo");
  std::string line, model = "unknown CPU";
  std::set<std::string> processors;
  while (std::getline(info, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string key = line.substr(0, line.find_first_of(" \t"));
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    if (key == "model" && line.rfind("model name", 0) == 0) model = value;
    if (key == "processor") processors.insert(value);
  }
  return model + ", " + std::to_string(processors.size()) + " logical cores";
}

std::string LoadAverage() {
  std::ifstream load("/proc/loadavg");
  double one = 0, five = 0, fifteen = 0;
  if (!(load >> one >> five >> fifteen)) return "unknown";
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %.2f %.2f", one, five, fifteen);
  return text;
}

size_t ProcStatusBytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(status, line))
    if (line.rfind(key, 0) == 0) return std::stoull(line.substr(key.size())) * 1024;
  return 0;
}

bool ResetPeakResident() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5" << std::flush;
  return static_cast<bool>(clear);
}

double ProcessCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

size_t ReadRawPaged(IRawDataProvider* raw, const OLECHAR* tag, ULONGLONG first, ULONGLONG last, ULONG page,
                    double* checksum) {
  OLECHAR catalog[] = OLESTR("Plant"), schema[] = OLESTR("s");
  WString name(tag);
  TagIdent ident{catalog, schema, &name[0]};
  void* cp = nullptr;
  size_t samples = 0;
  do {
    HistoryValueList* list = nullptr;
    if (FAILED(raw->ReadRaw(&ident, U64ToFileTime(first), U64ToFileTime(last), page, kRawReadIncludeBounds, &cp,
                            &list)))
      break;
    samples += list->count;
    if (list->count && V_VT(&list->values[list->count - 1].value) == VT_R8)
      *checksum += V_R8(&list->values[list->count - 1].value);
    FreeHistoryValueList(list);
  } while (cp);
  return samples;
}

HRESULT RunStatement(ICommandText* command, const OLECHAR* text, size_t* rows) {
  *rows = 0;
  HRESULT hr = command->SetCommandText(DBGUID_DEFAULT, text);
  ICommandPrepare* prepare = Query<ICommandPrepare>(command, IID_ICommandPrepare);
  if (SUCCEEDED(hr)) hr = prepare ? prepare->Prepare(1) : E_NOINTERFACE;
  if (prepare) prepare->Release();
  IUnknown* rowset = nullptr;
  if (SUCCEEDED(hr)) hr = command->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset);
  if (FAILED(hr)) return hr;
  if (!rowset) return E_NOINTERFACE;
  IColumnsInfo* info = Query<IColumnsInfo>(rowset, IID_IColumnsInfo);
  IAccessor* accessor = Query<IAccessor>(rowset, IID_IAccessor);
  IRowset* fetch = Query<IRowset>(rowset, IID_IRowset);
  DBORDINAL columns = 0;
  DBCOLUMNINFO* described = nullptr;
  OLECHAR* names = nullptr;
  hr = info && accessor && fetch ? info->GetColumnInfo(&columns, &described, &names) : E_NOINTERFACE;
  struct Cell {
    DBSTATUS status;
    VARIANT value;
  };
  std::vector<DBBINDING> bindings(columns);
  for (DBORDINAL c = 0; c < columns; ++c) {
    DBBINDING& b = bindings[c];
    b = DBBINDING{};
    b.iOrdinal = described[c].iOrdinal;
    b.obStatus = c * sizeof(Cell) + offsetof(Cell, status);
    b.obValue = c * sizeof(Cell) + offsetof(Cell, value);
    b.dwPart = DBPART_VALUE | DBPART_STATUS;
    b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
    b.eParamIO = DBPARAMIO_NOTPARAM;
    b.cbMaxLen = sizeof(VARIANT);
    b.wType = DBTYPE_VARIANT;
  }
  CoTaskMemFree(described);
  CoTaskMemFree(names);
  HACCESSOR handle = DB_NULL_HACCESSOR;
  if (SUCCEEDED(hr))
    hr = accessor->CreateAccessor(DBACCESSOR_ROWDATA, columns, bindings.data(), columns * sizeof(Cell), &handle,
                                  nullptr);
  std::vector<Cell> row(columns);
  while (SUCCEEDED(hr)) {
    DBCOUNTITEM obtained = 0;
    HROW* handles = nullptr;
    hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, 100, &obtained, &handles);
    const bool end = hr != S_OK || obtained == 0;
    for (DBCOUNTITEM r = 0; r < obtained && SUCCEEDED(hr); ++r) {
      hr = fetch->GetData(handles[r], handle, row.data());
      for (Cell& cell : row)
        if (cell.status == DBSTATUS_S_OK) VariantClear(&cell.value);
    }
    *rows += obtained;
    if (obtained) fetch->ReleaseRows(obtained, handles, nullptr, nullptr, nullptr);
    CoTaskMemFree(handles);
    if (end) break;
  }
  if (handle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(handle, nullptr);
  for (IUnknown* p : {static_cast<IUnknown*>(info), static_cast<IUnknown*>(accessor), static_cast<IUnknown*>(fetch),
                      rowset})
    if (p) p->Release();
  return SUCCEEDED(hr) ? S_OK : hr;
}

Summary Summarise(std::vector<double> values) {
  Summary s;
  s.count = values.size();
  if (values.empty()) return s;
  std::sort(values.begin(), values.end());
  double sum = 0;
  for (double v : values) sum += v;
  const size_t n = values.size();
  s.mean = sum / static_cast<double>(n);
  s.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  s.p99 = values[std::min(n - 1, static_cast<size_t>(0.99 * static_cast<double>(n)))];
  s.min = values.front();
  s.max = values.back();
  return s;
}

const LatencyCase kLatencyCases[6] = {
    {"SELECT one tag, one hour",
     OLESTR("SELECT * FROM RAWDATA WHERE TAGNAME = 'Plant.Flow' AND TIMESTAMP >= '2024-01-01 00:00:00' AND TIMESTAMP "
            "<= '2024-01-01 00:59:59'"),
     3600, 5, 0},
    {"EXEC GET_VALUES, 100 samples",
     OLESTR("EXEC GET_VALUES '2024-01-01 00:00:00', '2024-01-01 01:00:00', 100, 'Plant.Flow'"), 100, 5, 0},
    {"EXEC HDA_ANALOG, one day at 15 min",
     OLESTR("EXEC HDA_ANALOG '2024-01-01 00:00:00', '2024-01-02 00:00:00', 900000, 'Plant.Flow'"), 96, 1, 100},
    {"EXEC HDA_ANALOG, one week at 15 min",
     OLESTR("EXEC HDA_ANALOG '2024-01-01 00:00:00', '2024-01-08 00:00:00', 900000, 'Plant.Flow'"), 672, 0, 0},
    {"EXEC HDA_ANALOG_5, one day at 15 min",
     OLESTR("EXEC HDA_ANALOG_5 '2024-01-01 00:00:00', '2024-01-02 00:00:00', 900000, 'Plant.Flow', 'Plant.Flow', "
            "'Plant.Flow', 'Plant.Flow', 'Plant.Flow'"),
     96, 0, 0},
    {"EXEC HDA_ANALOG_5, one week at 15 min",
     OLESTR("EXEC HDA_ANALOG_5 '2024-01-01 00:00:00', '2024-01-08 00:00:00', 900000, 'Plant.Flow', 'Plant.Flow', "
            "'Plant.Flow', 'Plant.Flow', 'Plant.Flow'"),
     672, 0, 0},
};

long MinorFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

HRESULT TimeStatement(ICommandText* command, const LatencyCase& c, int runs, Summary* ms, size_t* rows,
                      double* faultsPerRun) {
  std::vector<double> times;
  long faults = 0;
  for (int i = -5; i < runs; ++i) {
    const long faultsBefore = MinorFaults();
    const auto start = std::chrono::steady_clock::now();
    const HRESULT hr = RunStatement(command, c.text, rows);
    const auto stop = std::chrono::steady_clock::now();
    if (i >= 0) faults += MinorFaults() - faultsBefore;
    if (FAILED(hr)) return hr;
    if (*rows != c.rows) return E_FAIL;
    if (i >= 0) times.push_back(std::chrono::duration<double, std::milli>(stop - start).count());
  }
  *ms = Summarise(std::move(times));
  if (faultsPerRun) *faultsPerRun = runs > 0 ? static_cast<double>(faults) / runs : 0;
  return S_OK;
}

}  // namespace corvane::bench
