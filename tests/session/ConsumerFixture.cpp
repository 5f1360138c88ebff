#ifdef CORVANE_CONSUMER_OF_DLL
// This consumer does not link the provider, so it defines the SDK's OLE DB GUIDs itself.
#define DBINITCONSTANTS
#endif
#include "tests/session/ConsumerFixture.h"

#include <cstring>


#ifdef CORVANE_CONSUMER_OF_DLL
#include "tests/support/Registration.h"
#else
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorReporting.h"
#endif

namespace corvane::test {

namespace {

void ClearThreadErrors() {
#ifdef CORVANE_CONSUMER_OF_DLL
  SetErrorInfo(0, nullptr);
#else
  corvane::ClearErrorRecords();
#endif
}

#ifdef CORVANE_CONSUMER_OF_DLL
// The DLL is registered for the whole run and unregistered at its end.
class RegisteredDll : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_EQ(0u, Regsvr32(L"", WindowsPath(CORVANE_PROVIDER_MODULE))); }
  void TearDown() override { EXPECT_EQ(0u, Regsvr32(L"/u", WindowsPath(CORVANE_PROVIDER_MODULE))); }
};
::testing::Environment* const kRegisteredDll = ::testing::AddGlobalTestEnvironment(new RegisteredDll);
#endif

}  // namespace

using corvane::historian::CHistorianStore;
using corvane::historian::CReferenceHistorian;

void ConsumerTest::SetUp() {
  LeakCheckedTest::SetUp();
#ifdef _WIN32
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
#endif
  ClearThreadErrors();
  auto store = std::make_shared<CHistorianStore>();
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const ULONGLONG nowTicks = (static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  const ULONGLONG minute = 600000000ull;
  // Whole minutes, so that the times read back in text are exact.
  firstSample_ = (nowTicks / minute) * minute - kSamples * minute;
  for (const bool text : {false, true}) {
    corvane::historian::TagDefinition tag;
    tag.name = text ? OLESTR("Area1.Text") : OLESTR("Area1.Temp");
    tag.description = text ? OLESTR("Operator note") : OLESTR("Reactor temperature");
    tag.vartype = text ? VT_BSTR : VT_R8;
    ASSERT_EQ(S_OK, store->AddTag(tag));
    ASSERT_EQ(S_OK, store->AppendGenerated(tag.name, kSamples, [&](size_t i, corvane::historian::SampleInput& s) {
      s.time = firstSample_ + i * minute;
      s.quality = 0xC0;
      s.number = 100.0 + i;
      if (text) s.text = corvane::WFormat(OLESTR("note %d"), static_cast<int>(i));
    }));
  }
  host_ = static_cast<IRawDataProvider*>(NewHost(store));
  hostRefs_ = RefCount(host_);

  OpenProvider(host_, &dataSource_, &session_);
}

void ConsumerTest::TearDown() {
  CloseProvider(&dataSource_, &session_);
  if (host_) {
    EXPECT_EQ(hostRefs_ - 1, host_->Release()) << "the provider released every host reference";
  }
#ifdef _WIN32
  CoUninitialize();
#endif
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

TextParameters::TextParameters(const std::vector<const OLECHAR*>& values) : slots(values.size()) {
  for (size_t i = 0; i < values.size(); ++i) {
    const WString text = values[i] ? WString(values[i]).substr(0, Cell::kTextChars - 1) : WString();
    slots[i].status = values[i] ? DBSTATUS_S_OK : DBSTATUS_S_ISNULL;
    slots[i].length = text.size() * sizeof(OLECHAR);
    std::memcpy(slots[i].v.text, text.c_str(), slots[i].length + sizeof(OLECHAR));
    bindings.push_back(CellBinding(i, i + 1, DBTYPE_WSTR, DBPARAMIO_INPUT));
  }
}

void OpenProvider(IUnknown* host, IUnknown** dataSource, IOpenRowset** session, const std::string& providerString) {
  ICreateCorvaneOleDbProvider* creator = nullptr;
#ifdef CORVANE_CONSUMER_OF_DLL
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorvaneOleDbProvider, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_ICreateCorvaneOleDbProvider, reinterpret_cast<void**>(&creator)));
#else
  ASSERT_EQ(S_OK, CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                                  reinterpret_cast<void**>(&creator)));
#endif
  ASSERT_EQ(S_OK, creator->Create(host, dataSource));
  creator->Release();

  IDBProperties* props = ConsumerTest::Query<IDBProperties>(*dataSource, IID_IDBProperties);
  ASSERT_NE(nullptr, props);
  DBPROP prop[2] = {};
  prop[0].dwPropertyID = DBPROP_INIT_CATALOG;
  prop[0].vValue.vt = VT_BSTR;
  prop[0].vValue.bstrVal = SysAllocString(OLESTR("Plant"));
  prop[1].dwPropertyID = DBPROP_INIT_PROVIDERSTRING;
  prop[1].vValue.vt = VT_BSTR;
  prop[1].vValue.bstrVal = SysAllocString(FromUtf8(providerString).c_str());
  DBPROPSET set{prop, providerString.empty() ? 1u : 2u, DBPROPSET_DBINIT};
  EXPECT_EQ(S_OK, props->SetProperties(1, &set));
  VariantClear(&prop[0].vValue);
  VariantClear(&prop[1].vValue);
  props->Release();
  IDBInitialize* init = ConsumerTest::Query<IDBInitialize>(*dataSource, IID_IDBInitialize);
  ASSERT_NE(nullptr, init);
  ASSERT_EQ(S_OK, init->Initialize());
  init->Release();
  IDBCreateSession* create = ConsumerTest::Query<IDBCreateSession>(*dataSource, IID_IDBCreateSession);
  ASSERT_NE(nullptr, create);
  ASSERT_EQ(S_OK, create->CreateSession(nullptr, IID_IOpenRowset, reinterpret_cast<IUnknown**>(session)));
  create->Release();
}

void CloseProvider(IUnknown** dataSource, IOpenRowset** session) {
  if (*session) (*session)->Release();
  *session = nullptr;
  if (*dataSource) {
    IDBInitialize* init = ConsumerTest::Query<IDBInitialize>(*dataSource, IID_IDBInitialize);
    if (init) {
      EXPECT_EQ(S_OK, init->Uninitialize());
      init->Release();
    }
    EXPECT_EQ(0u, (*dataSource)->Release()) << "nothing but the consumer holds the data source";
  }
  *dataSource = nullptr;
  ClearThreadErrors();
}

LastError ConsumerTest::TakeLastError() {
  LastError last;
#ifdef _WIN32
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK || !info) return last;
  IErrorRecords* records = Query<IErrorRecords>(info, IID_IErrorRecords);
  IErrorInfo* described = nullptr;
  if (records && SUCCEEDED(records->GetRecordCount(&last.count)) && last.count) {
    ERRORINFO basic{};
    if (SUCCEEDED(records->GetBasicErrorInfo(last.count - 1, &basic))) last.hr = basic.hrError, last.iid = basic.iid;
    // The provider keeps each record's text in its custom error object.
    IUnknown* custom = nullptr;
    if (SUCCEEDED(records->GetCustomErrorObject(last.count - 1, IID_IErrorInfo, &custom)) && custom) {
      described = Query<IErrorInfo>(custom, IID_IErrorInfo);
      custom->Release();
    }
  } else if (!records) {
    last.count = 1;
    described = info;
    info->AddRef();
    info->GetGUID(&last.iid);
  }
  BSTR text = nullptr;
  if (described && SUCCEEDED(described->GetDescription(&text)) && text) last.description = corvane::ToUtf8(text);
  SysFreeString(text);
  text = nullptr;
  if (!records && described && SUCCEEDED(described->GetSource(&text)) && text) last.source = corvane::ToUtf8(text);
  SysFreeString(text);
  if (described) described->Release();
  if (records) records->Release();
  info->Release();
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

std::vector<std::pair<std::string, DBTYPE>> Columns(IUnknown* object) {
  std::vector<std::pair<std::string, DBTYPE>> out;
  IColumnsInfo* info = nullptr;
  if (FAILED(object->QueryInterface(IID_IColumnsInfo, reinterpret_cast<void**>(&info)))) return out;
  DBORDINAL n = 0;
  DBCOLUMNINFO* columns = nullptr;
  OLECHAR* strings = nullptr;
  EXPECT_EQ(S_OK, info->GetColumnInfo(&n, &columns, &strings));
  for (DBORDINAL i = 0; i < n; ++i) out.emplace_back(corvane::ToUtf8(columns[i].pwszName), columns[i].wType);
  CoTaskMemFree(columns);
  CoTaskMemFree(strings);
  info->Release();
  return out;
}

}  // namespace corvane::test
