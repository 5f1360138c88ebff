// Latency of one statement as a report tool sees it: SetCommandText, Prepare, Execute,
// one accessor over every column (as VARIANT), GetNextRows and GetData for every row,
// ReleaseRows, all timed together. Three statements over two days of one-second
// samples of one tag in the reference historian: a one-hour SELECT of that tag (3600 samples),
// GET_VALUES of 100 samples, and HDA_ANALOG of one day at 15 minutes. Prints the mean,
// median and 99th percentile in milliseconds of each, after a few untimed runs.
//
//   corvane_bench_latency [runs]      (default 300 runs of each statement)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "tests/e2e/SelectConsumer.h"

namespace {

template <typename T>
T* Query(IUnknown* object, REFIID iid) {
  T* p = nullptr;
  return SUCCEEDED(object->QueryInterface(iid, reinterpret_cast<void**>(&p))) ? p : nullptr;
}

// Creates the provider over `host` with catalog "Plant" and opens a session.
HRESULT Open(IUnknown* host, IUnknown** dataSource, IDBCreateCommand** session) {
  ICreateCorvaneOleDbProvider* creator = nullptr;
  HRESULT hr = CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                               reinterpret_cast<void**>(&creator));
  if (FAILED(hr)) return hr;
  hr = creator->Create(host, dataSource);
  creator->Release();
  if (FAILED(hr)) return hr;
  IDBProperties* props = Query<IDBProperties>(*dataSource, IID_IDBProperties);
  IDBInitialize* init = Query<IDBInitialize>(*dataSource, IID_IDBInitialize);
  IDBCreateSession* create = Query<IDBCreateSession>(*dataSource, IID_IDBCreateSession);
  if (props && init && create) {
    DBPROP prop{};
    prop.dwPropertyID = DBPROP_INIT_CATALOG;
    prop.vValue.vt = VT_BSTR;
    prop.vValue.bstrVal = SysAllocString(OLESTR("Plant"));
    DBPROPSET set{&prop, 1, DBPROPSET_DBINIT};
    hr = props->SetProperties(1, &set);
    VariantClear(&prop.vValue);
    if (SUCCEEDED(hr)) hr = init->Initialize();
    if (SUCCEEDED(hr)) hr = create->CreateSession(nullptr, IID_IDBCreateCommand, reinterpret_cast<IUnknown**>(session));
  } else {
    hr = E_NOINTERFACE;
  }
  for (IUnknown* p : {static_cast<IUnknown*>(props), static_cast<IUnknown*>(init), static_cast<IUnknown*>(create)})
    if (p) p->Release();
  return hr;
}

// One statement end to end; the number of rows read goes to *rows.
HRESULT RunOnce(ICommandText* command, const OLECHAR* text, size_t* rows) {
  *rows = 0;
  HRESULT hr = command->SetCommandText(DBGUID_DEFAULT, text);
  ICommandPrepare* prepare = Query<ICommandPrepare>(command, IID_ICommandPrepare);
  if (SUCCEEDED(hr)) hr = prepare ? prepare->Prepare(1) : E_NOINTERFACE;
  if (prepare) prepare->Release();
  IUnknown* rowset = nullptr;
  if (SUCCEEDED(hr)) hr = command->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset);
  if (FAILED(hr)) return hr;
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

struct Case {
  const char* label;
  const OLECHAR* text;
  size_t rows;  // what every run must read
};

// Times `runs` runs of `c` after five untimed ones; false when a run fails or reads
// another number of rows.
bool Measure(ICommandText* command, const Case& c, int runs) {
  std::vector<double> ms;
  for (int i = -5; i < runs; ++i) {
    size_t rows = 0;
    const auto start = std::chrono::steady_clock::now();
    const HRESULT hr = RunOnce(command, c.text, &rows);
    const auto stop = std::chrono::steady_clock::now();
    if (FAILED(hr) || rows != c.rows) {
      std::printf("%-34s failed: hr = %08X, %zu rows instead of %zu\n", c.label, static_cast<unsigned>(hr), rows,
                  c.rows);
      return false;
    }
    if (i >= 0) ms.push_back(std::chrono::duration<double, std::milli>(stop - start).count());
  }
  std::sort(ms.begin(), ms.end());
  double sum = 0;
  for (double v : ms) sum += v;
  const size_t n = ms.size();
  const double median = n % 2 ? ms[n / 2] : (ms[n / 2 - 1] + ms[n / 2]) / 2;
  const double p99 = ms[std::min(n - 1, static_cast<size_t>(0.99 * static_cast<double>(n)))];
  std::printf("%-34s %6zu rows  mean %8.3f ms  median %8.3f ms  p99 %8.3f ms  (%zu runs)\n", c.label, c.rows,
              sum / static_cast<double>(n), median, p99, n);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 300;
  // Two days of one sample per second from 2024-01-01 00:00:00 UTC.
  auto store = corvane::e2e::MakeSeriesStore(2 * 86400);
  IUnknown* host = nullptr;
  if (!store || FAILED(corvane::e2e::CreateSeriesHost(store, &host))) {
    std::printf("the historian could not be filled\n");
    return 1;
  }
  IUnknown* dataSource = nullptr;
  IDBCreateCommand* session = nullptr;
  ICommandText* command = nullptr;
  HRESULT hr = Open(host, &dataSource, &session);
  if (SUCCEEDED(hr)) hr = session->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command));
  bool ok = SUCCEEDED(hr);
  if (!ok) std::printf("the provider could not be opened: %08X\n", static_cast<unsigned>(hr));
  const Case cases[] = {
      {"SELECT one tag, one hour", OLESTR("SELECT * FROM RAWDATA WHERE TAGNAME = 'Plant.Flow' AND TIMESTAMP >= "
                                          "'2024-01-01 00:00:00' AND TIMESTAMP <= '2024-01-01 00:59:59'"),
       3600},
      {"EXEC GET_VALUES, 100 samples",
       OLESTR("EXEC GET_VALUES '2024-01-01 00:00:00', '2024-01-01 01:00:00', 100, 'Plant.Flow'"), 100},
      {"EXEC HDA_ANALOG, one day at 15 min",
       OLESTR("EXEC HDA_ANALOG '2024-01-01 00:00:00', '2024-01-02 00:00:00', 900000, 'Plant.Flow'"), 96},
  };
  for (const Case& c : cases) ok = ok && Measure(command, c, runs);
  if (command) command->Release();
  if (session) session->Release();
  if (dataSource) {
    if (IDBInitialize* init = Query<IDBInitialize>(dataSource, IID_IDBInitialize)) {
      init->Uninitialize();
      init->Release();
    }
    dataSource->Release();
  }
  host->Release();
  return ok ? 0 : 1;
}
