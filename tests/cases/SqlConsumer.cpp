#include "tests/cases/SqlConsumer.h"

#include <cstring>


namespace corvane::test {

namespace {

const char* const kOpNames[] = {"GetTagInfo",    "GetTimeBounds",    "BrowseTags",      "GetCapabilities",
                                "ReadRaw",       "ReleaseContinuationPoint", "InsertValue", "DeleteValues",
                                "UpdateValue",   "ReadProcessed",    "GetFilteredTagStatistics",
                                "GetMostRecentValue", "GetGoodValues", "GetBadValues", "GetAllValues"};
static_assert(sizeof(kOpNames) / sizeof(kOpNames[0]) == static_cast<size_t>(HostOp::Count), "a name per operation");

using Q = ConsumerTest;

}  // namespace

bool HostOpNamed(const std::string& name, HostOp* op) {
  for (int i = 0; i < static_cast<int>(HostOp::Count); ++i)
    if (name == kOpNames[i]) return *op = static_cast<HostOp>(i), true;
  return false;
}

const char* HostOpName(HostOp op) { return kOpNames[static_cast<int>(op)]; }

SqlConsumer::SqlConsumer(std::shared_ptr<historian::CHistorianStore> store) : store_(std::move(store)) {
#ifdef _WIN32
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
#endif
  host_ = NewHost(store_);
}

SqlConsumer::~SqlConsumer() {
  if (command_) {
    EXPECT_EQ(0u, command_->Release()) << "a rowset kept the command";
  }
  CloseProvider(&dataSource_, &session_);
  if (host_) {
    EXPECT_EQ(0u, host_->Release()) << "the provider kept a host reference";
  }
#ifdef _WIN32
  CoUninitialize();
#endif
}

void SqlConsumer::Open(const std::string& providerString) {
  OpenProvider(static_cast<IRawDataProvider*>(host_), &dataSource_, &session_, providerString);
  if (!session_) return;
  IDBCreateCommand* commands = Q::Query<IDBCreateCommand>(session_, IID_IDBCreateCommand);
  ASSERT_NE(nullptr, commands);
  commands->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command_));
  commands->Release();
  ASSERT_NE(nullptr, command_);
}

Outcome SqlConsumer::Run(const std::string& sql, const std::vector<Parameter>& parameters, DBROWCOUNT batch,
                         IUnknown** open) {
  Outcome out;
  if (!command_) return out.hr = E_UNEXPECTED, out;
  IUnknown* rowset = nullptr;
  ICommandWithParameters* described = Q::Query<ICommandWithParameters>(command_, IID_ICommandWithParameters);
  if (!sql.empty()) {
    // Each statement starts without the parameter descriptions of the one before.
    out.hr = described->SetParameterInfo(0, nullptr, nullptr);
    if (SUCCEEDED(out.hr)) out.hr = command_->SetCommandText(DBGUID_DEFAULT, FromUtf8(sql).c_str());
  }
  IAccessor* accessor = Q::Query<IAccessor>(command_, IID_IAccessor);
  HACCESSOR handle = DB_NULL_HACCESSOR;
  std::vector<WString> texts, typeNames;
  std::vector<const OLECHAR*> given;
  for (const Parameter& p : parameters) texts.push_back(FromUtf8(p.value)), typeNames.push_back(FromUtf8(p.type));
  for (size_t i = 0; i < parameters.size(); ++i) given.push_back(parameters[i].null ? nullptr : texts[i].c_str());
  TextParameters values(given);
  for (size_t i = 0; SUCCEEDED(out.hr) && i < parameters.size(); ++i) {
    if (parameters[i].type.empty()) continue;
    DBPARAMBINDINFO info{};
    info.pwszDataSourceType = &typeNames[i][0];
    info.dwFlags = DBPARAMFLAGS_ISINPUT;
    const DB_UPARAMS ordinal = i + 1;
    out.hr = described->SetParameterInfo(1, &ordinal, &info);
  }
  if (SUCCEEDED(out.hr) && !parameters.empty())
    out.hr = accessor->CreateAccessor(DBACCESSOR_PARAMETERDATA, values.bindings.size(), values.bindings.data(),
                                      values.slots.size() * sizeof(Cell), &handle, nullptr);
  DBPARAMS params{values.slots.data(), 1, handle};
  if (SUCCEEDED(out.hr))
    out.hr = command_->Execute(nullptr, IID_IRowset, parameters.empty() ? nullptr : &params, &out.affected, &rowset);
  if (FAILED(out.hr)) {
    out.atExecute = true;
    out.error = ConsumerTest::TakeLastError();
  }
  if (handle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(handle, nullptr);
  if (described) described->Release();
  if (accessor) accessor->Release();
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
  ICommandPrepare* prepare = command_ ? Q::Query<ICommandPrepare>(command_, IID_ICommandPrepare) : nullptr;
  if (!prepare) return out.hr = E_UNEXPECTED, out;
  out.hr = command_->SetCommandText(DBGUID_DEFAULT, FromUtf8(sql).c_str());
  if (SUCCEEDED(out.hr)) out.hr = prepare->Prepare(1);
  prepare->Release();
  if (FAILED(out.hr)) out.atExecute = true, out.error = ConsumerTest::TakeLastError();
  else out.columns = Columns(command_);
  return out;
}

Outcome SqlConsumer::Schema(const std::string& request, DBROWCOUNT batch) {
  static const std::pair<const char*, const GUID*> kSchemas[] = {
      {"CATALOGS", &DBSCHEMA_CATALOGS},       {"COLUMNS", &DBSCHEMA_COLUMNS},
      {"PROCEDURES", &DBSCHEMA_PROCEDURES},   {"PROCEDURE_PARAMETERS", &DBSCHEMA_PROCEDURE_PARAMETERS},
      {"PROCEDURE_COLUMNS", &DBSCHEMA_PROCEDURE_COLUMNS}, {"PROVIDER_TYPES", &DBSCHEMA_PROVIDER_TYPES},
      {"SCHEMATA", &DBSCHEMA_SCHEMATA},       {"TABLES", &DBSCHEMA_TABLES},
      {"TABLES_INFO", &DBSCHEMA_TABLES_INFO}, {"VIEWS", &DBSCHEMA_VIEWS}};
  Outcome out;
  std::vector<std::string> parts(1);
  for (char c : request) {
    if (c == '|') parts.emplace_back();
    else if (c != ' ') parts.back() += c;
  }
  const GUID* schema = nullptr;
  for (const auto& [name, guid] : kSchemas)
    if (parts[0] == name) schema = guid;
  IDBSchemaRowset* schemas = Q::Query<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  if (!schema || !schemas) return out.hr = E_UNEXPECTED, out;
  std::vector<VARIANT> restrictions(parts.size() - 1);
  for (size_t i = 0; i < restrictions.size(); ++i) {
    VariantInit(&restrictions[i]);
    const std::string& r = parts[i + 1];
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
  schemas->Release();
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
      VARIANT text;
      VariantInit(&text);
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
