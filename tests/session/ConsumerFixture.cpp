#ifdef CORVANE_CONSUMER_OF_DLL
// This consumer does not link the provider, so it defines the SDK's OLE DB GUIDs itself.
#define DBINITCONSTANTS
#endif
#include "tests/session/ConsumerFixture.h"

#include <cstdio>
#include <cstring>

#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#ifdef CORVANE_CONSUMER_OF_DLL
#include "tests/support/Registration.h"
#else
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorReporting.h"
#endif

namespace corvane::test {

namespace {

#ifdef CORVANE_CONSUMER_OF_DLL
void ClearThreadErrors() { SetErrorInfo(0, nullptr); }

// The DLL is registered for the whole run and unregistered at its end.
class RegisteredDll : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_EQ(0u, Regsvr32(L"", WindowsPath(CORVANE_PROVIDER_MODULE))); }
  void TearDown() override { EXPECT_EQ(0u, Regsvr32(L"/u", WindowsPath(CORVANE_PROVIDER_MODULE))); }
};
::testing::Environment* const kRegisteredDll = ::testing::AddGlobalTestEnvironment(new RegisteredDll);
#else
void ClearThreadErrors() { corvane::ClearErrorRecords(); }
#endif

}  // namespace

using corvane::historian::CHistorianStore;
using corvane::historian::CReferenceHistorian;

void ConsumerTest::SetUp() {
  LeakCheckedTest::SetUp();
  ClearThreadErrors();
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const ULONGLONG minute = 600000000ull;
  // Whole minutes, so that the times read back in text are exact.
  const ULONGLONG first = (FileTimeToU64(now) / minute) * minute - kSamples * minute;
  for (const bool text : {false, true}) {
    corvane::historian::TagDefinition tag;
    tag.name = text ? OLESTR("Area1.Text") : OLESTR("Area1.Temp");
    tag.description = text ? OLESTR("Operator note") : OLESTR("Reactor temperature");
    tag.vartype = text ? VT_BSTR : VT_R8;
    ASSERT_EQ(S_OK, Store().AddTag(tag));
    ASSERT_EQ(S_OK, Store().AppendGenerated(tag.name, kSamples, [&](size_t i, corvane::historian::SampleInput& s) {
      s.time = first + i * minute;
      s.quality = 0xC0;
      s.number = 100.0 + i;
      if (text) s.text = corvane::WFormat(OLESTR("note %d"), static_cast<int>(i));
    }));
  }
  Open();
}

void ConsumerTest::TearDown() {
  Close();
  LeakCheckedTest::TearDown();
}

testing::CFaultInjectingHost* NewHost(std::shared_ptr<CHistorianStore> store) {
  IAggregates* aggregates = nullptr;
  IUnknown* reference = nullptr;
  EXPECT_EQ(S_OK, corvane::historian::CAggregates::CreateInstance(nullptr, IID_IAggregates,
                                                                  reinterpret_cast<void**>(&aggregates)));
  EXPECT_EQ(S_OK, CReferenceHistorian::Create(std::move(store), IID_IUnknown, reinterpret_cast<void**>(&reference),
                                              aggregates));
  if (aggregates) aggregates->Release();
  testing::CFaultInjectingHost* host = testing::CFaultInjectingHost::Create(reference);
  if (reference) reference->Release();
  return host;
}

TextParameters::TextParameters(const std::vector<Parameter>& values) : slots(values.size()) {
  for (size_t i = 0; i < values.size(); ++i) {
    const WString text = FromUtf8(values[i].value).substr(0, Cell::kTextChars - 1);
    slots[i].status = DBSTATUS_S_OK;
    slots[i].length = text.size() * sizeof(OLECHAR);
    std::memcpy(slots[i].v.text, text.c_str(), slots[i].length + sizeof(OLECHAR));
    bindings.push_back(CellBinding(i, i + 1, DBTYPE_WSTR, DBPARAMIO_INPUT));
  }
}

void OpenProvider(IUnknown* host, IUnknown** dataSource, IOpenRowset** session, const std::string& providerString) {
  ComPtr<ICreateCorvaneOleDbProvider> creator;
#ifdef CORVANE_CONSUMER_OF_DLL
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorvaneOleDbProvider, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_ICreateCorvaneOleDbProvider, creator.PutVoid()));
#else
  ASSERT_EQ(S_OK, CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                                  creator.PutVoid()));
#endif
  ASSERT_EQ(S_OK, creator->Create(host, dataSource));
  auto props = QueryAs<IDBProperties>(*dataSource, IID_IDBProperties);
  ASSERT_TRUE(props);
  DBPROP prop[2] = {{DBPROP_INIT_CATALOG, 0, 0, {}, {}}, {DBPROP_INIT_PROVIDERSTRING, 0, 0, {}, {}}};
  for (DBPROP& p : prop) p.vValue.vt = VT_BSTR;
  prop[0].vValue.bstrVal = SysAllocString(OLESTR("Plant"));
  prop[1].vValue.bstrVal = SysAllocString(FromUtf8(providerString).c_str());
  DBPROPSET set{prop, providerString.empty() ? 1u : 2u, DBPROPSET_DBINIT};
  EXPECT_EQ(S_OK, props->SetProperties(1, &set));
  for (DBPROP& p : prop) VariantClear(&p.vValue);
  auto init = QueryAs<IDBInitialize>(*dataSource, IID_IDBInitialize);
  ASSERT_TRUE(init);
  ASSERT_EQ(S_OK, init->Initialize());
  auto create = QueryAs<IDBCreateSession>(*dataSource, IID_IDBCreateSession);
  ASSERT_TRUE(create);
  ASSERT_EQ(S_OK, create->CreateSession(nullptr, IID_IOpenRowset, reinterpret_cast<IUnknown**>(session)));
}

void CloseProvider(IUnknown** dataSource, IOpenRowset** session) {
  if (*session) (*session)->Release();
  *session = nullptr;
  if (*dataSource) {
    if (auto init = QueryAs<IDBInitialize>(*dataSource, IID_IDBInitialize)) {
      EXPECT_EQ(S_OK, init->Uninitialize());
    }
    EXPECT_EQ(0u, (*dataSource)->Release()) << "nothing but the consumer holds the data source";
  }
  *dataSource = nullptr;
  ClearThreadErrors();
}

SqlConsumer::SqlConsumer(std::shared_ptr<historian::CHistorianStore> store) : store_(std::move(store)) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  host_ = NewHost(store_);
}

SqlConsumer::~SqlConsumer() {
  Close();
  CoUninitialize();
}

void SqlConsumer::Close() {
  if (command_) {
    EXPECT_EQ(0u, command_->Release()) << "a rowset kept the command";
  }
  command_ = nullptr;
  CloseProvider(&dataSource_, &session_);
  if (host_) {
    EXPECT_EQ(0u, host_->Release()) << "the provider kept a host reference";
  }
  host_ = nullptr;
}

void SqlConsumer::Open(const std::string& providerString) {
  OpenProvider(static_cast<IRawDataProvider*>(host_), &dataSource_, &session_, providerString);
  if (!session_) return;
  auto commands = QueryAs<IDBCreateCommand>(session_, IID_IDBCreateCommand);
  ASSERT_TRUE(commands);
  ASSERT_EQ(S_OK, commands->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command_)));
}

Outcome SqlConsumer::Run(const std::string& sql, const std::vector<Parameter>& parameters, DBROWCOUNT batch,
                         IUnknown** open) {
  Outcome out;
  if (!command_) return out.hr = E_UNEXPECTED, out;
  auto described = QueryAs<ICommandWithParameters>(command_, IID_ICommandWithParameters);
  if (!sql.empty()) {
    // Each statement starts without the parameter descriptions of the one before.
    out.hr = described->SetParameterInfo(0, nullptr, nullptr);
    if (SUCCEEDED(out.hr)) out.hr = command_->SetCommandText(DBGUID_DEFAULT, FromUtf8(sql).c_str());
  }
  for (size_t i = 0; SUCCEEDED(out.hr) && i < parameters.size(); ++i) {
    if (parameters[i].type.empty()) continue;
    WString type = FromUtf8(parameters[i].type);
    DBPARAMBINDINFO info{};
    info.pwszDataSourceType = &type[0];
    info.dwFlags = DBPARAMFLAGS_ISINPUT;
    const DB_UPARAMS ordinal = i + 1;
    out.hr = described->SetParameterInfo(1, &ordinal, &info);
  }
  auto accessor = QueryAs<IAccessor>(command_, IID_IAccessor);
  TextParameters values(parameters);
  DBPARAMS params{values.slots.data(), 1, DB_NULL_HACCESSOR};
  if (SUCCEEDED(out.hr) && !parameters.empty())
    out.hr = accessor->CreateAccessor(DBACCESSOR_PARAMETERDATA, values.bindings.size(), values.bindings.data(),
                                      values.slots.size() * sizeof(Cell), &params.hAccessor, nullptr);
  IUnknown* rowset = nullptr;
  if (SUCCEEDED(out.hr))
    out.hr = command_->Execute(nullptr, IID_IRowset, parameters.empty() ? nullptr : &params, &out.affected, &rowset);
  if (FAILED(out.hr)) out.atExecute = true, out.error = ConsumerTest::TakeLastError();
  if (params.hAccessor != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(params.hAccessor, nullptr);
  if (open) *open = rowset;
  else if (rowset) Read(rowset, batch, &out);
  return out;
}

void SqlConsumer::Read(IUnknown* rowset, DBROWCOUNT batch, Outcome* out) {
  out->columns = Columns(rowset);
  HRESULT fetched = S_OK;
  out->rows = ReadAll(rowset, {}, batch, &fetched, &out->error, true);
  if (FAILED(fetched)) out->hr = fetched;
  rowset->Release();
}

Outcome SqlConsumer::Prepare(const std::string& sql) {
  Outcome out;
  auto prepare = QueryAs<ICommandPrepare>(command_, IID_ICommandPrepare);
  if (!prepare) return out.hr = E_UNEXPECTED, out;
  out.hr = command_->SetCommandText(DBGUID_DEFAULT, FromUtf8(sql).c_str());
  if (SUCCEEDED(out.hr)) out.hr = prepare->Prepare(1);
  if (FAILED(out.hr)) out.atExecute = true, out.error = ConsumerTest::TakeLastError();
  else out.columns = Columns(command_);
  return out;
}

Outcome SqlConsumer::Schema(const std::vector<std::string>& request, DBROWCOUNT batch) {
  static const std::pair<const char*, const GUID*> kSchemas[] = {
      {"CATALOGS", &DBSCHEMA_CATALOGS},       {"COLUMNS", &DBSCHEMA_COLUMNS},
      {"PROCEDURES", &DBSCHEMA_PROCEDURES},   {"PROCEDURE_PARAMETERS", &DBSCHEMA_PROCEDURE_PARAMETERS},
      {"PROCEDURE_COLUMNS", &DBSCHEMA_PROCEDURE_COLUMNS}, {"PROVIDER_TYPES", &DBSCHEMA_PROVIDER_TYPES},
      {"SCHEMATA", &DBSCHEMA_SCHEMATA},       {"TABLES", &DBSCHEMA_TABLES},
      {"TABLES_INFO", &DBSCHEMA_TABLES_INFO}, {"VIEWS", &DBSCHEMA_VIEWS}};
  Outcome out;
  const GUID* schema = nullptr;
  for (const auto& [name, guid] : kSchemas)
    if (request[0] == name) schema = guid;
  auto schemas = QueryAs<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  if (!schema || !schemas) return out.hr = E_UNEXPECTED, out;
  std::vector<VARIANT> restrictions(request.size() - 1);
  for (size_t i = 0; i < restrictions.size(); ++i) {
    VariantInit(&restrictions[i]);
    const std::string& r = request[i + 1];
    if (!r.empty() && r.find_first_not_of("0123456789") == std::string::npos) {
      V_VT(&restrictions[i]) = VT_I4, V_I4(&restrictions[i]) = std::atoi(r.c_str());
    } else if (!r.empty()) {
      V_VT(&restrictions[i]) = VT_BSTR, V_BSTR(&restrictions[i]) = SysAllocString(FromUtf8(r).c_str());
    }
  }
  IUnknown* rowset = nullptr;
  out.hr = schemas->GetRowset(nullptr, *schema, restrictions.size(), restrictions.data(), IID_IRowset, 0, nullptr,
                              &rowset);
  for (VARIANT& v : restrictions) VariantClear(&v);
  if (FAILED(out.hr)) out.atExecute = true, out.error = ConsumerTest::TakeLastError();
  if (rowset) Read(rowset, batch, &out);
  return out;
}

Rows SqlConsumer::Contents() const {
  Rows rows;
  for (const historian::TagDefinition& tag : store_->ListTags(nullptr, nullptr)) {
    historian::ReadCursor all;
    all.tagKey = WUpper(tag.name);
    all.high = ~0ull;
    HistoryValueList* list = nullptr;
    bool more = false;
    EXPECT_EQ(S_OK, store_->ReadPage(all, 0, &list, &more));
    for (ULONG i = 0; list && i < list->count; ++i) {
      const HistoryValue& v = list->values[i];
      VARIANT text{};
      VariantChangeType(&text, const_cast<VARIANT*>(&v.value), 0, VT_BSTR);
      char quality[16];
      std::snprintf(quality, sizeof quality, "%X", static_cast<unsigned>(v.quality));
      const double seconds = (static_cast<double>(FileTimeToU64(v.timestamp)) - 132223104000000000.0) / 1e7;
      char at[32];
      std::snprintf(at, sizeof at, "%g", seconds);
      rows.push_back({ToUtf8(tag.name), at, V_VT(&text) == VT_BSTR ? ToUtf8(V_BSTR(&text)) : std::string("?"), quality});
      VariantClear(&text);
    }
    FreeHistoryValueList(list);
  }
  return rows;
}

LastError ConsumerTest::TakeLastError() {
  LastError last;
#ifdef _WIN32
  ComPtr<IErrorInfo> info, described;
  if (GetErrorInfo(0, info.Put()) != S_OK || !info) return last;
  auto records = QueryAs<IErrorRecords>(info.Get(), IID_IErrorRecords);
  if (records && SUCCEEDED(records->GetRecordCount(&last.count)) && last.count) {
    ERRORINFO basic{};
    if (SUCCEEDED(records->GetBasicErrorInfo(last.count - 1, &basic))) last.hr = basic.hrError, last.iid = basic.iid;
    // The provider keeps each record's text in its custom error object.
    ComPtr<IUnknown> custom;
    if (SUCCEEDED(records->GetCustomErrorObject(last.count - 1, IID_IErrorInfo, custom.Put())))
      described = QueryAs<IErrorInfo>(custom.Get(), IID_IErrorInfo);
  } else if (!records) {
    last.count = 1;
    described = info;
    info->GetGUID(&last.iid);
  }
  Bstr text;
  if (described && SUCCEEDED(described->GetDescription(text.Put())) && text) last.description = ToUtf8(text.Get());
  if (!records && described && SUCCEEDED(described->GetSource(text.Put())) && text) last.source = ToUtf8(text.Get());
#else
  auto records = corvane::platform::TakeErrorRecords();
  last.count = static_cast<ULONG>(records.size());
  if (!records.empty()) {
    const auto& r = records.back();
    last.hr = r.info.hrError;
    last.iid = r.info.iid;
    last.source = corvane::ToUtf8(corvane::WStringView(r.source));
    last.description = corvane::ToUtf8(corvane::WStringView(r.description));
  }
#endif
  return last;
}

std::vector<std::vector<std::string>> ReadAll(IUnknown* rowset, std::vector<DBORDINAL> columns, DBROWCOUNT batch,
                                              HRESULT* failure, LastError* error, bool hold) {
  if (columns.empty())
    for (size_t i = 0; i < Columns(rowset).size(); ++i) columns.push_back(i + 1);
  CellColumns cells;
  for (DBORDINAL c : columns) cells.emplace_back(c, DBTYPE_WSTR);
  std::vector<std::vector<std::string>> rows;
  const HRESULT hr = ReadRows(
      rowset, cells, [batch](size_t) { return batch; },
      [&rows](const Row& row) {
        rows.emplace_back();
        for (const Cell& c : row)
          rows.back().push_back(c.status == DBSTATUS_S_ISNULL ? std::string("<null>") : corvane::ToUtf8(c.v.text));
        return true;
      },
      hold, [error](HRESULT) {
        if (error) *error = ConsumerTest::TakeLastError();
      });
  if (failure) *failure = hr;
  EXPECT_TRUE(failure || hr == S_OK) << std::hex << hr;
  return rows;
}

std::vector<ColumnInfo> Columns(IUnknown* object) {
  std::vector<ColumnInfo> out;
  auto info = QueryAs<IColumnsInfo>(object, IID_IColumnsInfo);
  if (!info) return out;
  DBORDINAL n = 0;
  TaskMem<DBCOLUMNINFO> columns;
  TaskMem<OLECHAR> strings;
  EXPECT_EQ(S_OK, info->GetColumnInfo(&n, columns.Put(), strings.Put()));
  for (DBORDINAL i = 0; i < n; ++i)
    out.push_back({ToUtf8(columns[i].pwszName), columns[i].wType, columns[i].ulColumnSize, columns[i].dwFlags,
                   columns[i].iOrdinal});
  return out;
}

#define CORVANE_HOST_OP_NAME(name) #name,
const char* const kOpNames[] = {CORVANE_HOST_OPERATIONS(CORVANE_HOST_OP_NAME)};
#undef CORVANE_HOST_OP_NAME

bool HostOpNamed(const std::string& name, HostOp* op) {
  for (int i = 0; i < static_cast<int>(HostOp::Count); ++i)
    if (name == kOpNames[i]) return *op = static_cast<HostOp>(i), true;
  return false;
}

const char* HostOpName(HostOp op) { return kOpNames[static_cast<int>(op)]; }

std::string TimeText(ULONGLONG ticks) {
  const FILETIME ft = U64ToFileTime(ticks);
  SYSTEMTIME st{};
  FileTimeToSystemTime(&ft, &st);
  char text[40];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond);
  std::string out = text;
  if (st.wMilliseconds) {
    std::snprintf(text, sizeof text, ".%03u", st.wMilliseconds);
    out += text;
  }
  return out;
}

}  // namespace corvane::test
