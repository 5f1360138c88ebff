// Runs arbitrary UTF-8 statements through the whole consumer path with OLE DB interfaces only: data source over the
// demo plant, session, command, Prepare, the columns, text parameters for every `?`, Execute, every row through a
// VARIANT accessor, then everything released. Work per input is bounded as a consumer bounds it (one day of plant
// ending 2026-01-01, the last hour as the user range, pages of 200, at most kRowBudget rows, then the rowset is
// released, which must stop the producer): anything that still runs for seconds is a finding. A DELETE or UPDATE of
// RAWDATA meets the data-safety oracle: failed, the historian is unchanged; done, it holds what the independent change
// model computes, where the model can.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "historian/Aggregates.h"
#include "historian/DemoPlant.h"
#include "historian/ReferenceHistorian.h"
#include "platform/AllocCounters.h"
#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorReporting.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "SQLParser/SQLParser.h"
#include "fuzz/FuzzSupport.h"
#include "tests/datasafety/ChangeModel.h"
#include "tests/support/RowReader.h"

namespace {

using corvane::ComPtr;
using corvane::fuzz::Check;
using corvane::QueryAs;
using corvane::TaskMem;
using corvane::test::Cell;
using corvane::test::CellBinding;

// 2026-01-01 00:00:00 UTC as FILETIME ticks.
constexpr ULONGLONG kPlantNow = 134116992000000000ull;
const OLECHAR kProviderString[] =
    OLESTR("Use Timestamps=true;Timestamp Start=2025-12-31 23:00:00;Timestamp End=2026-01-01 00:00:00");

constexpr DBCOUNTITEM kRowBudget = 1000;
const OLECHAR kPageSetting[] = OLESTR("UPDATE QUERYSETTINGS SET MAX_ROWS_TO_RETURN = 200");

IUnknown* g_host = nullptr;
// The plant's whole contents as the change model reads them. Every input meets the
// same freshly built plant, so they are read once.
corvane::test::ModelStore g_plant;

void BuildHost() {
  if (g_host) g_host->Release();
  g_host = nullptr;
  auto store = std::make_shared<corvane::historian::CHistorianStore>();
  corvane::historian::DemoPlantOptions options;
  options.now = kPlantNow;
  options.days = 1;
  Check(SUCCEEDED(corvane::historian::CDemoPlant::Populate(*store, options)), "demo plant");
  ComPtr<IAggregates> aggregates;
  Check(SUCCEEDED(corvane::historian::CAggregates::CreateInstance(nullptr, IID_IAggregates, aggregates.PutVoid())),
        "aggregates");
  Check(SUCCEEDED(corvane::historian::CReferenceHistorian::Create(store, IID_IUnknown,
                                                                   reinterpret_cast<void**>(&g_host), aggregates.Get())),
        "historian");
}

// After a statement that may write, the historian is rebuilt: every input meets the same data.
bool MayWrite(const corvane::WString& text) {
  std::string upper = corvane::ToUtf8(text);
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const char* word : {"INSERT", "UPDATE", "DELETE"})
    if (upper.find(word) != std::string::npos) return true;
  return false;
}

HRESULT SetInitProperties(IUnknown* dataSource) {
  DBPROP props[2] = {};
  const std::pair<DBPROPID, const OLECHAR*> values[] = {{DBPROP_INIT_CATALOG, OLESTR("Plant")},
                                                         {DBPROP_INIT_PROVIDERSTRING, kProviderString}};
  for (int i = 0; i < 2; ++i) {
    props[i].dwPropertyID = values[i].first;
    props[i].vValue.vt = VT_BSTR;
    props[i].vValue.bstrVal = SysAllocString(values[i].second);
  }
  DBPROPSET set{props, 2, DBPROPSET_DBINIT};
  ComPtr<IDBProperties> properties = QueryAs<IDBProperties>(dataSource, IID_IDBProperties);
  const HRESULT hr = properties ? properties->SetProperties(1, &set) : E_NOINTERFACE;
  for (DBPROP& prop : props) VariantClear(&prop.vValue);
  return hr;
}

// Column descriptions of a rowset or prepared command; checks what IColumnsInfo promises.
std::vector<DBORDINAL> DescribeColumns(IUnknown* object, bool mustWork) {
  std::vector<DBORDINAL> ordinals;
  ComPtr<IColumnsInfo> info = QueryAs<IColumnsInfo>(object, IID_IColumnsInfo);
  Check(bool(info), "IColumnsInfo");
  DBORDINAL count = 0;
  TaskMem<DBCOLUMNINFO> columns;
  TaskMem<OLECHAR> names;
  if (FAILED(info->GetColumnInfo(&count, columns.Put(), names.Put()))) {
    Check(!mustWork, "a rowset describes its columns");
    Check(count == 0 && !columns && !names, "a failed GetColumnInfo hands nothing out");
  }
  for (DBORDINAL i = 0; i < count; ++i) {
    if (columns[i].pwszName) Check(corvane::WStringView(columns[i].pwszName).size() < 1u << 20, "column name");
    if (columns[i].iOrdinal != 0) ordinals.push_back(columns[i].iOrdinal);
  }
  return ordinals;
}

// The text value of every `?`: they cycle through a tag name, a time and a number, so
// that tag, time and count positions all see one.
const OLECHAR* const kParameterValues[] = {OLESTR("Pump1.Flow"), OLESTR("2025-12-31 23:50:00"), OLESTR("5")};

// Gives every `?` of the prepared statement its text value.
struct Parameters {
  std::vector<DBBINDING> bindings;
  std::vector<Cell> slots;
  HACCESSOR handle = DB_NULL_HACCESSOR;
  ComPtr<IAccessor> accessor;

  HRESULT Bind(IUnknown* command) {
    ComPtr<ICommandWithParameters> with = QueryAs<ICommandWithParameters>(command, IID_ICommandWithParameters);
    DB_UPARAMS count = 0;
    if (with) {
      TaskMem<DBPARAMINFO> infos;
      TaskMem<OLECHAR> names;
      if (FAILED(with->GetParameterInfo(&count, infos.Put(), names.Put()))) count = 0;
    }
    corvane::ClearErrorRecords();
    if (count == 0) return S_OK;
    count = std::min<DB_UPARAMS>(count, 64);
    slots.resize(count);
    std::vector<DB_UPARAMS> ordinals;
    std::vector<DBPARAMBINDINFO> bindInfo;
    for (DB_UPARAMS i = 0; i < count; ++i) {
      const corvane::WStringView value(kParameterValues[i % 3]);
      slots[i].status = DBSTATUS_S_OK;
      slots[i].length = value.size() * sizeof(OLECHAR);
      memcpy(slots[i].v.text, value.data(), slots[i].length);
      bindings.push_back(CellBinding(i, i + 1, DBTYPE_WSTR, DBPARAMIO_INPUT));
      bindInfo.push_back({const_cast<LPOLESTR>(OLESTR("DBTYPE_WSTR")), nullptr, 64, DBPARAMFLAGS_ISINPUT, 0, 0});
      ordinals.push_back(i + 1);
    }
    const HRESULT hr = with->SetParameterInfo(count, ordinals.data(), bindInfo.data());
    if (FAILED(hr)) return hr;
    accessor = QueryAs<IAccessor>(command, IID_IAccessor);
    Check(bool(accessor), "command IAccessor");
    return accessor->CreateAccessor(DBACCESSOR_PARAMETERDATA, count, bindings.data(), sizeof(Cell), &handle, nullptr);
  }
  ~Parameters() { if (accessor && handle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(handle, nullptr); }
};

// Every row through a VARIANT accessor, up to kRowBudget. The columns are described once before any row, as most
// consumers do, and again after the first batch, when a procedure's worker has started.
void ReadAll(IUnknown* rowset) {
  ComPtr<IRowset> fetch = QueryAs<IRowset>(rowset, IID_IRowset);
  ComPtr<IAccessor> accessor = QueryAs<IAccessor>(rowset, IID_IAccessor);
  Check(fetch && accessor, "rowset interfaces");
  DescribeColumns(rowset, true);
  DBCOUNTITEM obtained = 0, fetched = 0;
  TaskMem<HROW> rows;
  HRESULT hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, 64, &obtained, rows.Put());
  const std::vector<DBORDINAL> ordinals = DescribeColumns(rowset, true);
  std::vector<DBBINDING> bindings;
  for (size_t i = 0; i < ordinals.size(); ++i)
    bindings.push_back(CellBinding(i, ordinals[i], DBTYPE_VARIANT));
  HACCESSOR handle = DB_NULL_HACCESSOR;
  if (!bindings.empty())
    Check(SUCCEEDED(accessor->CreateAccessor(DBACCESSOR_ROWDATA, bindings.size(), bindings.data(),
                                             bindings.size() * sizeof(Cell), &handle, nullptr)),
          "a VARIANT accessor over the described columns");
  std::vector<Cell> row(bindings.size());
  for (;;) {
    if (FAILED(hr)) {
      Check(obtained == 0 && !rows, "a failed fetch hands no rows out");
      break;
    }
    for (DBCOUNTITEM r = 0; r < obtained && !bindings.empty(); ++r) {
      memset(static_cast<void*>(row.data()), 0, row.size() * sizeof(row[0]));
      const HRESULT got = fetch->GetData(rows[r], handle, row.data());
      Check(got == S_OK || got == DB_S_ERRORSOCCURRED || got == DB_E_ERRORSOCCURRED, "GetData result");
      for (auto& cell : row)
        if (cell.status == DBSTATUS_S_OK) VariantClear(&cell.v.variant);
    }
    if (obtained) Check(SUCCEEDED(fetch->ReleaseRows(obtained, rows.Get(), nullptr, nullptr, nullptr)), "ReleaseRows");
    fetched += obtained;
    if (hr != S_OK || obtained == 0 || fetched >= kRowBudget) break;
    hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, 64, &obtained, rows.Put());
  }
  if (handle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(handle, nullptr);
}

// The Execute outcome (a failure before Execute counts as one); *parameters receives the number of `?` bound.
HRESULT RunStatement(IUnknown* dataSource, const corvane::WString& text, size_t* parameters_out) {
  ComPtr<IDBCreateSession> createSession = QueryAs<IDBCreateSession>(dataSource, IID_IDBCreateSession);
  ComPtr<IDBCreateCommand> session;
  Check(createSession && SUCCEEDED(createSession->CreateSession(nullptr, IID_IDBCreateCommand,
                                                                reinterpret_cast<IUnknown**>(session.Put()))),
        "session");
  ComPtr<ICommandText> command;
  Check(SUCCEEDED(session->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(command.Put()))),
        "command");
  // Smaller historian pages and aggregate chunks than the default 2000, so that the
  // unit of work a worker does before the consumer sees rows stays small.
  Check(SUCCEEDED(command->SetCommandText(DBGUID_DEFAULT, kPageSetting)) &&
            SUCCEEDED(command->Execute(nullptr, IID_NULL, nullptr, nullptr, nullptr)),
        "page setting");
  HRESULT hr = command->SetCommandText(DBGUID_DEFAULT, text.c_str());
  if (FAILED(hr)) return hr;
  ComPtr<ICommandPrepare> prepare = QueryAs<ICommandPrepare>(command.Get(), IID_ICommandPrepare);
  hr = prepare->Prepare(1);
  if (FAILED(hr)) return hr;
  DescribeColumns(command.Get(), false);
  Parameters parameters;
  hr = parameters.Bind(command.Get());
  if (FAILED(hr)) return hr;
  *parameters_out = parameters.bindings.size();
  DBPARAMS params{parameters.slots.data(), 1, parameters.handle};
  ComPtr<IUnknown> rowset;
  DBROWCOUNT affected = 0;
  hr = command->Execute(nullptr, IID_IRowset, parameters.bindings.empty() ? nullptr : &params, &affected, rowset.Put());
  if (FAILED(hr)) {
    Check(!rowset, "a failed Execute hands no rowset out");
    return hr;
  }
  if (rowset) ReadAll(rowset.Get());
  return hr;
}

// The parsed statement when it is a DELETE or UPDATE of RAWDATA, else null.
std::unique_ptr<CSQLQueryInfo> RawDataChange(const corvane::WString& text) {
  std::unique_ptr<CSQLQueryInfo> query;
  if (FAILED(CSQLParser::ParseQuery({OLESTR("Plant"), OLESTR("Plant"), text}, &query)) || !query) return nullptr;
  const int kind = query->StatementKind();
  if (kind != SQL_STATEMENT_DELETE && kind != SQL_STATEMENT_UPDATE) return nullptr;
  const auto& from = query->FromItems();
  if (from.size() != 1 || from[0]->Kind() != SQL_SELECT_ITEM_TABLE ||
      !corvane::WIEquals(static_cast<const CSQLSelectItemTable&>(*from[0]).TableName(), OLESTR("RAWDATA")))
    return nullptr;
  return query;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  corvane::SetTraceSink(std::make_shared<corvane::fuzz::DiscardSink>());
  // Every message from information up is formatted; the per-cell detail lines would only slow each input down.
  corvane::SetTraceThreshold(TRACE_INFO);
  corvane::platform::StartAllocCounting();
  BuildHost();
  ComPtr<IRawDataProvider> raw;
  Check(SUCCEEDED(g_host->QueryInterface(IID_IRawDataProvider, raw.PutVoid())), "raw");
  g_plant = corvane::test::ReadStore(raw.Get());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const corvane::WString text = corvane::FromUtf8(std::string_view(reinterpret_cast<const char*>(data), size));
  const corvane::platform::AllocCounts before = corvane::platform::CurrentAllocCounts();
  {
    ComPtr<ICreateCorvaneOleDbProvider> creator;
    Check(SUCCEEDED(CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                                    creator.PutVoid())),
          "creator");
    ComPtr<IUnknown> dataSource;
    const HRESULT created = creator->Create(g_host, dataSource.Put());
    creator.Reset();
    Check(SUCCEEDED(created), "data source");
    Check(SUCCEEDED(SetInitProperties(dataSource.Get())), "init properties");
    ComPtr<IDBInitialize> init = QueryAs<IDBInitialize>(dataSource.Get(), IID_IDBInitialize);
    Check(init && SUCCEEDED(init->Initialize()), "Initialize");
    const std::unique_ptr<CSQLQueryInfo> change = RawDataChange(text);
    ComPtr<IRawDataProvider> raw;
    const corvane::test::ModelStore& before = g_plant;
    if (change) Check(SUCCEEDED(g_host->QueryInterface(IID_IRawDataProvider, raw.PutVoid())), "raw");
    size_t parameters = 0;
    const HRESULT executed = RunStatement(dataSource.Get(), text, &parameters);
    if (change) {
      const corvane::test::ModelStore after = corvane::test::ReadStore(raw.Get());
      raw.Reset();
      std::vector<std::string> values;  // the `?` values Parameters::Bind gave
      for (size_t i = 0; i < parameters; ++i) values.push_back(corvane::ToUtf8(kParameterValues[i % 3]));
      corvane::test::ModelStore expected;
      if (FAILED(executed)) {
        Check(after == before, "a data change that failed changed nothing");
      } else if (corvane::test::ApplyChange(*change, values, before, &expected)) {
        Check(after == expected, "a data change changed exactly the samples its condition describes");
      }
    }
    Check(init->Uninitialize() == S_OK, "Uninitialize after every object was released");
    init.Reset();
    Check(dataSource.Detach()->Release() == 0, "the consumer holds the last data source reference");
  }
  corvane::ClearErrorRecords();
  const corvane::platform::AllocCounts after = corvane::platform::CurrentAllocCounts();
  Check(after.comBlocks == before.comBlocks, "every CoTaskMem block is freed");
  Check(after.bstrs == before.bstrs, "every BSTR is freed");
  if (MayWrite(text)) BuildHost();
  return 0;
}
