// Creation through ICreateCorvaneOleDbProvider over the reference historian: what the
// data source takes from its host, and every reference and lock given back; the texts
// of failures and the error lookup service that hands them to the error object.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorLookup.h"
#include "provider/ErrorReporting.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "provider/Module.h"
#include "provider/PropertyEngine.h"
#include "provider/ProviderDataSource.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/TraceCapture.h"

namespace corvane::test {

using testing::CFaultInjectingHost;

namespace {

// A fresh reference historian with its aggregates behind the counting host.
CFaultInjectingHost* MakeHost() { return corvane::test::NewHost(std::make_shared<historian::CHistorianStore>()); }

// On Windows the system's error object and the provider's classes need COM on the thread.
class ComTest : public corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    ASSERT_EQ(S_OK, CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                                    creator_.PutVoid()));
  }
  void TearDown() override {
    creator_.Reset();
    CoUninitialize();
    LeakCheckedTest::TearDown();
  }
  ComPtr<ICreateCorvaneOleDbProvider> creator_;
};
using Creation = ComTest;

// A lookup as an OLE DB error object makes it: by HRESULT and lookup id only.
struct LookedUp { HRESULT hr; std::string source, description; };
LookedUp LookUp(IErrorLookup* lookup, HRESULT hr, DWORD id, LCID lcid = LOCALE_USER_DEFAULT) {
  corvane::Bstr source, description;
  LookedUp r{lookup->GetErrorDescription(hr, id, nullptr, lcid, source.Put(), description.Put()), {}, {}};
  if (SUCCEEDED(r.hr)) r.source = ToUtf8(source.Get()), r.description = ToUtf8(description.Get());
  else EXPECT_TRUE(!source && !description) << "nothing handed out on failure";
  return r;
}

IErrorLookup* NewLookup() {
  IErrorLookup* lookup = nullptr;
  EXPECT_EQ(S_OK, CErrorLookup::CreateInstance(nullptr, IID_IErrorLookup, reinterpret_cast<void**>(&lookup)));
  return lookup;
}

using ErrorLookupService = ComTest;

}  // namespace

// Each data source holds the module while it lives and keeps its own settings; all that
// two of them share is the host, whose references all come back. (That the host's own
// interfaces serve the reads shows in the case files' host call counts.)
TEST_F(Creation, DataSourcesHoldTheModuleAndShareOnlyTheHost) {
  CFaultInjectingHost* host = MakeHost();
  const long locks = corvane::module::LockCount();  // the creation object's own
  ComPtr<IUnknown> first, second;
  ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), first.Put()));
  ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), second.Put()));
  EXPECT_EQ(locks + 2, corvane::module::LockCount());
  QueryAs<IProviderDataSource>(second.Get(), IID_IProviderDataSource)->SetMaxRowsToReturn(5);
  LONG rows = 0;
  QueryAs<IProviderDataSource>(first.Get(), IID_IProviderDataSource)->GetMaxRowsToReturn(&rows);
  EXPECT_EQ(2000, rows);
  first.Reset();
  second.Reset();
  EXPECT_EQ(locks, corvane::module::LockCount());
  EXPECT_EQ(0u, static_cast<IRawDataProvider*>(host)->Release());
}

TEST_F(Creation, MissingInterfacesOfTheHost) {
  CFaultInjectingHost* host = MakeHost();
  IUnknown* hostUnknown = static_cast<IRawDataProvider*>(host);
  host->Omit(IID_IValuesProvider);
  {
    TraceCapture trace;
    IUnknown* ds = nullptr;
    ASSERT_EQ(S_OK, creator_->Create(hostUnknown, &ds));
    auto lines = trace.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(TRACE_WARNING, lines[0].level);
    EXPECT_EQ("Unable to initialize IValuesProvider interface", lines[0].text);
    EXPECT_TRUE(trace.Contains("ValuesProvider is not initialized (is NULL)"));
    ComPtr<IProviderDataSource> access = QueryAs<IProviderDataSource>(ds, IID_IProviderDataSource);
    IValuesProvider* values = reinterpret_cast<IValuesProvider*>(&trace);
    EXPECT_EQ(S_OK, access->GetValuesProvider(&values));
    EXPECT_EQ(nullptr, values);
    EXPECT_EQ(E_INVALIDARG, access->GetValuesProvider(nullptr));
    access.Reset();
    ds->Release();
  }

  // No processed interface and no aggregates component: the ProgID lookup's code and
  // the IAggregates message, never the one about the processed provider.
  host->Omit(IID_IProcessedDataProvider);
  {
    TraceCapture trace;
    IUnknown* ds = reinterpret_cast<IUnknown*>(&trace);
    const HRESULT hr = creator_->Create(hostUnknown, &ds);
    CLSID clsid;
    EXPECT_EQ(CLSIDFromProgID(CORVANE_AGGREGATES_PROGID, &clsid), hr);
    EXPECT_TRUE(FAILED(hr));
    EXPECT_EQ(reinterpret_cast<IUnknown*>(&trace), ds);  // left untouched
    EXPECT_EQ(std::vector<std::string>{"Unable to initialize IAggregates interface"}, trace.Texts());
  }

  IUnknown* ds = nullptr;
  EXPECT_EQ(E_INVALIDARG, creator_->Create(nullptr, &ds));
  EXPECT_EQ(E_INVALIDARG, creator_->Create(hostUnknown, nullptr));
  hostUnknown->Release();

  // An object that is no historian at all.
  TraceCapture trace;
  EXPECT_EQ(E_NOINTERFACE, creator_->Create(creator_.Get(), &ds));
  EXPECT_EQ(std::vector<std::string>{"Unable to initialize IRawDataProvider interface"}, trace.Texts());
}

#ifndef _WIN32
static ULONG RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

TEST_F(Creation, RawOnlyHostGetsTheAggregatesComponent) {
  ASSERT_EQ(S_OK, corvane::historian::RegisterAggregatesComponent());
  CFaultInjectingHost* host = MakeHost();
  host->Omit(IID_IProcessedDataProvider);
  const ULONG hostRefs = RefCount(static_cast<IRawDataProvider*>(host));
  IUnknown* ds = nullptr;
  ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), &ds));
  {
    ComPtr<IProcessedDataProvider> processed;
    const ComPtr<IProviderDataSource> access = QueryAs<IProviderDataSource>(ds, IID_IProviderDataSource);
    ASSERT_EQ(S_OK, access->GetProcessedDataProvider(processed.Put()));
    ASSERT_TRUE(processed);
    EXPECT_NE(static_cast<IProcessedDataProvider*>(host), processed.Get());  // built by the component
    EXPECT_GE(corvane::historian::AggregatesObjectCount(), 1);  // the built provider lives on, the factory is gone
  }
  ds->Release();
  EXPECT_EQ(hostRefs, RefCount(static_cast<IRawDataProvider*>(host)));
  static_cast<IRawDataProvider*>(host)->Release();
  EXPECT_EQ(S_OK, corvane::historian::UnregisterAggregatesComponent());
}
#endif

TEST(ErrorDescriptions, JoinInterfaceAndResultTexts) {
  // One row per kind of text, and the provider texts no statement reaches; provider codes without a text of their own
  // (8004C006) fall through to the general one. (Through SQL: ICommand's name and 8004C007's text, procedures.test;
  // IRowset's identifier as its name and a historian code's text, execution.test; a caller's text, tests/session.)
  const struct { const IID& iid; HRESULT hr; const char* text; } cases[] = {
      {IID_IDBInitialize, E_FAIL, "Failed to initialize/unitialize a data source (IID_IDBInitialize). Details: "
                                  "Returned E_FAIL."},
      {IID_IDBProperties, HRESULT(0xC0041009), "Failed to get/set the properties (IID_IDBProperties). Details: The "
                                               "requested aggregate is not available from the provided item "
                                               "(C0041009)."},
      {IID_ICommandPrepare, CORVANE_E_MISSING_PARAMETER, "Failed to prepare a command (IID_ICommandPrepare). Details: "
                                                         "Missing required parameter."},
      {IID_IDBSchemaRowset, CORVANE_E_TAG_PATH_NOT_FOUND, "Failed to get a rowset or schema (IID_IDBSchemaRowset). "
                                                          "Details: Required tag path doesn't exist."},
      {IID_IDBCreateSession, DISP_E_TYPEMISMATCH, "Failed to create a session (IID_IDBCreateSession). Details: Type "
                                                  "mismatch."},
      {IID_IDBInfo, E_OUTOFMEMORY, "Failed to get keywords or literals (IID_IDBInfo). Details: No more details "
                                   "(HRESULT = 8007000E)."},
      {IID_IDBCreateCommand, CORVANE_E_NOT_ONE_FROM_ITEM, "Failed to create a command (IID_IDBCreateCommand). "
                                                          "Details: No more details (HRESULT = 8004C006)."},
  };
  for (const auto& c : cases) EXPECT_EQ(ToUtf8(DescribeFailure(c.iid, c.hr)), c.text);
  EXPECT_EQ(ToUtf8(DescribeFailure(IID_ICommand, static_cast<const OLECHAR*>(nullptr))),
            "Failed to execute a command (IID_ICommand). Details: ");
}

TEST_F(ErrorLookupService, GivesBackHeldTextsUntilReleasedAndBoundsWhatItHolds) {
  IErrorLookup* lookup = NewLookup();
  const size_t before = CErrorLookup::HeldCount();
  const DWORD id = CErrorLookup::Hold(E_FAIL, OLESTR("CProviderCommand class"), OLESTR("it failed"));
  ASSERT_NE(0u, id);
  EXPECT_LT(id, static_cast<DWORD>(IDENTIFIER_SDK_ERROR)) << "that range is the error object's own";
  const LookedUp found = LookUp(lookup, E_FAIL, id, 0x0407);
  EXPECT_EQ(S_OK, found.hr) << "any locale";
  EXPECT_EQ("CProviderCommand class", found.source);
  EXPECT_EQ("it failed", found.description);
  EXPECT_EQ(DB_E_BADHRESULT, LookUp(lookup, E_INVALIDARG, id).hr);
  EXPECT_EQ(DB_E_BADLOOKUPID, LookUp(lookup, E_FAIL, id + 1).hr);
  BSTR text = nullptr;
  EXPECT_EQ(E_INVALIDARG, lookup->GetErrorDescription(E_FAIL, id, nullptr, 0, &text, nullptr));
  DWORD context = 7;
  text = reinterpret_cast<BSTR>(&context);
  EXPECT_EQ(S_OK, lookup->GetHelpInfo(E_FAIL, id, 0, &text, &context));
  EXPECT_TRUE(text == nullptr && context == 0) << "no help file";

  EXPECT_EQ(before + 1, CErrorLookup::HeldCount());
  EXPECT_EQ(S_OK, lookup->ReleaseErrors(id));
  EXPECT_EQ(before, CErrorLookup::HeldCount());
  EXPECT_EQ(DB_E_BADLOOKUPID, LookUp(lookup, E_FAIL, id).hr);
  EXPECT_EQ(DB_E_BADDYNAMICERRORID, lookup->ReleaseErrors(id));
  EXPECT_EQ(E_INVALIDARG, lookup->ReleaseErrors(0));

  // An error object that never releases: the oldest texts make way, the newest stay.
  std::vector<DWORD> ids;
  for (size_t i = 0; i < CErrorLookup::kHeldTextLimit + 5; ++i)
    ids.push_back(CErrorLookup::Hold(E_FAIL, OLESTR("s"), corvane::WFormat(OLESTR("text %u"), unsigned(i)).c_str()));
  EXPECT_EQ(CErrorLookup::kHeldTextLimit, CErrorLookup::HeldCount());
  EXPECT_EQ(DB_E_BADLOOKUPID, LookUp(lookup, E_FAIL, ids[4]).hr);
  EXPECT_EQ("text 5", LookUp(lookup, E_FAIL, ids[5]).description);
  for (DWORD held : ids) lookup->ReleaseErrors(held);
  EXPECT_EQ(0u, CErrorLookup::HeldCount());
  lookup->Release();
}

TEST_F(ErrorLookupService, ThreadsPostAndLookUpAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &wrong] {
      IErrorLookup* lookup = NewLookup();
      for (int i = 0; i < 2000; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i);
        const DWORD id = CErrorLookup::Hold(E_FAIL, OLESTR("s"), corvane::FromUtf8(text).c_str());
        if (LookUp(lookup, E_FAIL, id).description != text || lookup->ReleaseErrors(id) != S_OK) ++wrong;
      }
      lookup->Release();
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, wrong.load());
}

#ifndef _WIN32
// The thread's records are its error object: dropping them releases their texts at the
// service registered for the provider, as the system's error object does on Windows.
TEST_F(ErrorLookupService, DroppedRecordsReleaseTheirTextsWhereTheServiceIsRegistered) {
  ASSERT_EQ(S_OK, DllRegisterServer());
  const size_t before = CErrorLookup::HeldCount();
  corvane::PostFailure(IID_ICommand, E_FAIL, OLESTR("CProviderCommand class"));
  std::thread([] { corvane::PostFailure(IID_ICommand, E_FAIL, OLESTR("CProviderCommand class")); }).join();
  EXPECT_EQ(before + 1, CErrorLookup::HeldCount()) << "the ended thread's record is released";
  corvane::ClearErrorRecords();
  EXPECT_EQ(before, CErrorLookup::HeldCount());
  EXPECT_EQ(S_OK, DllUnregisterServer());
  CLSID found;
  EXPECT_FALSE(corvane::platform::FindErrorLookup(CLSID_CorvaneOleDbProvider, &found));
  corvane::PostFailure(IID_ICommand, E_FAIL, OLESTR("CProviderCommand class"));
  corvane::platform::ErrorRecord record;
  ASSERT_TRUE(corvane::platform::GetErrorRecord(0, record));
  corvane::ClearErrorRecords();
  EXPECT_EQ(before + 1, CErrorLookup::HeldCount()) << "unregistered, nobody is told; the bound still holds";
  EXPECT_EQ(S_OK, CErrorLookup::Drop(record.dynamicErrorId));
}
#endif

// The data source on its own (as Create makes it): property rules before and after Initialize, what the provider string
// does not show through SQL (tests/cases/datasource.test), IDBInfo and the records of failed calls; and the property
// engine's rules on a small table of its own (a writable integer, a read-only text, a required flag), where every
// status can be provoked.
namespace {

// A property of `vt` (I2, I4, BOOL, BSTR or EMPTY) holding `n` or the text `text`.
DBPROP Prop(DBPROPID id, VARTYPE vt, LONG n, const OLECHAR* text = nullptr,
            DBPROPOPTIONS options = DBPROPOPTIONS_REQUIRED) {
  DBPROP prop{};
  prop.dwPropertyID = id;
  prop.dwOptions = options;
  prop.vValue.vt = vt;
  if (vt == VT_BSTR) prop.vValue.bstrVal = SysAllocString(text);
  else if (vt == VT_BOOL) prop.vValue.boolVal = n ? VARIANT_TRUE : VARIANT_FALSE;
  else if (vt == VT_I2) prop.vValue.iVal = static_cast<SHORT>(n);
  else prop.vValue.lVal = n;
  return prop;
}

class DataSourceTest : public corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    corvane::ClearErrorRecords();
    ASSERT_EQ(S_OK, CProviderDataSource::CreateInstance(&ds_));
    ds_->AddRef();
  }
  void TearDown() override {
    ds_->Release();
    corvane::ClearErrorRecords();
    LeakCheckedTest::TearDown();
  }
  HRESULT SetString(DBPROPID id, const OLECHAR* text, DBPROPSTATUS* status = nullptr) {
    DBPROP prop = Prop(id, VT_BSTR, 0, text);
    DBPROPSET set{&prop, 1, DBPROPSET_DBINIT};
    const HRESULT hr = ds_->SetProperties(1, &set);
    if (status) *status = prop.dwStatus;
    VariantClear(&prop.vValue);
    return hr;
  }
  std::string Name(HRESULT (CProviderDataSource::*getter)(BSTR*)) {
    corvane::Bstr b;
    (ds_->*getter)(b.Put());
    return ToUtf8(b.Get());
  }
  std::string Schema() { return Name(&CProviderDataSource::GetDefaultSchema); }
  CProviderDataSource* ds_ = nullptr;
};

constexpr DBPROPID kLimit = 1, kName = 2, kNeeded = 3;
const PropertyDefinition kRowsetProps[] = {
    {kLimit, DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE, PropertyDefault::I4(10), OLESTR("Limit")},
    {kName, DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ, PropertyDefault::Text(OLESTR("fixed")), OLESTR("Name")},
};
const PropertyDefinition kInitProps[] = {
    {kNeeded, DBPROPFLAGS_DBINIT | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE | DBPROPFLAGS_REQUIRED,
     PropertyDefault::I2(0), OLESTR("Needed")},
};
const corvane::PropertySetDefinition kSets[] = {
    {&DBPROPSET_ROWSET, DBPROPFLAGS_ROWSET, kRowsetProps, 2},
    {&DBPROPSET_DBINIT, DBPROPFLAGS_DBINIT, kInitProps, 1},
};

class PropertyRules : public corvane::test::LeakCheckedTest {
 protected:
  PropertyRules() : engine_(kSets, 2) {}
  HRESULT Set(std::vector<DBPROP>& props, const GUID& set = DBPROPSET_ROWSET,
              CPropertyEngine::SetMode mode = CPropertyEngine::SetMode::Each) {
    DBPROPSET s{props.data(), static_cast<ULONG>(props.size()), set};
    return engine_.SetProperties(1, &s, mode);
  }
  static std::vector<DBSTATUS> Statuses(const std::vector<DBPROP>& props) {
    std::vector<DBSTATUS> out;
    for (const DBPROP& p : props) out.push_back(p.dwStatus);
    return out;
  }
  LONG Limit() {
    VARIANT v{};
    engine_.GetValue(DBPROPSET_ROWSET, kLimit, &v);
    return v.lVal;
  }
  CPropertyEngine engine_;
};

}  // namespace

TEST_F(DataSourceTest, InitialisationPropertiesOnlyUntilInitialised) {
  // Before Initialize only DBINIT exists: the information set reads empty, its properties
  // are not supported, and setting them fails.
  DBPROPID threading = DBPROP_DSOTHREADMODEL;
  DBPROPIDSET before[3] = {{nullptr, 0, DBPROPSET_DBINIT},
                           {nullptr, 0, DBPROPSET_DATASOURCEINFO},
                           {&threading, 1, DBPROPSET_DATASOURCEINFO}};
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  ASSERT_EQ(DB_S_ERRORSOCCURRED, ds_->GetProperties(3, before, &n, &sets));
  ASSERT_EQ(3u, n);
  EXPECT_LT(0u, sets[0].cProperties);
  EXPECT_EQ(0u, sets[1].cProperties);
  EXPECT_EQ(DBPROPSTATUS_NOTSUPPORTED, sets[2].rgProperties[0].dwStatus);
  CPropertyEngine::FreePropertySets(n, sets);
  ASSERT_EQ(S_OK, ds_->GetProperties(0, nullptr, &n, &sets));
  EXPECT_EQ(1u, n);
  CPropertyEngine::FreePropertySets(n, sets);
  DBPROP props[2] = {Prop(DBPROP_USERNAME, VT_BSTR, 0, OLESTR("admin")), Prop(DBPROP_SERVERDATAONINSERT, VT_BOOL, 0)};
  DBPROPSET set{props, 2, DBPROPSET_DATASOURCEINFO};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, ds_->SetProperties(1, &set));
  EXPECT_EQ(DBPROPSTATUS_NOTSUPPORTED, props[1].dwStatus);

  DBPROPSTATUS status = 99;
  EXPECT_EQ(S_OK, SetString(DBPROP_AUTH_USERID, OLESTR("operator"), &status));
  EXPECT_EQ(DBPROPSTATUS_OK, status);
  ASSERT_EQ(S_OK, ds_->Initialize());

  // Afterwards the information set reads, the user id stays, and DBINIT is fixed.
  DBPROPIDSET asked[2] = {before[2], {nullptr, 0, DBPROPSET_DBINIT}};
  ASSERT_EQ(S_OK, ds_->GetProperties(2, asked, &n, &sets));
  EXPECT_EQ(DBPROPVAL_RT_FREETHREAD, sets[0].rgProperties[0].vValue.lVal);
  DBPROP* const end = sets[1].rgProperties + sets[1].cProperties;
  DBPROP* user =
      std::find_if(sets[1].rgProperties, end, [](const DBPROP& p) { return p.dwPropertyID == DBPROP_AUTH_USERID; });
  ASSERT_NE(end, user);
  EXPECT_EQ("operator", ToUtf8(user->vValue.bstrVal));
  CPropertyEngine::FreePropertySets(n, sets);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, SetString(DBPROP_AUTH_USERID, OLESTR("late"), &status));
  EXPECT_EQ(DBPROPSTATUS_NOTSETTABLE, status);

  // Read-only information cannot change; the writable one can.
  EXPECT_EQ(DB_S_ERRORSOCCURRED, ds_->SetProperties(1, &set));
  EXPECT_EQ(DBPROPSTATUS_NOTSETTABLE, props[0].dwStatus);
  EXPECT_EQ(DBPROPSTATUS_OK, props[1].dwStatus);
  VariantClear(&props[0].vValue);

  // Uninitialize makes DBINIT settable again.
  ASSERT_EQ(S_OK, ds_->Uninitialize());
  EXPECT_EQ(S_OK, SetString(DBPROP_AUTH_USERID, OLESTR("again")));
}

TEST_F(DataSourceTest, FailuresArePostedAsErrorRecords) {
  ASSERT_EQ(S_OK, ds_->Initialize());
  EXPECT_EQ(DB_E_ALREADYINITIALIZED, ds_->Initialize());
#ifndef _WIN32
  auto records = corvane::platform::TakeErrorRecords();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(DB_E_ALREADYINITIALIZED, records[0].info.hrError);
  EXPECT_TRUE(IsEqualIID(IID_IDBInitialize, records[0].info.iid));
  EXPECT_EQ("CProviderDataSource class", ToUtf8(corvane::WStringView(records[0].source)));
  EXPECT_EQ("Failed to initialize/unitialize a data source (IID_IDBInitialize). Details: No more details "
            "(HRESULT = 80040E52).",
            ToUtf8(corvane::WStringView(records[0].description)));
  // A successful call leaves no record behind.
  LONG rows = 0;
  EXPECT_EQ(S_OK, ds_->GetMaxRowsToReturn(&rows));
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  EXPECT_EQ(S_OK, ds_->GetProperties(0, nullptr, &n, &sets));
  CPropertyEngine::FreePropertySets(n, sets);
  EXPECT_EQ(0u, corvane::platform::ErrorRecordCount());
  EXPECT_EQ(E_INVALIDARG, ds_->GetProperties(0, nullptr, nullptr, &sets));
  ASSERT_EQ(1u, corvane::platform::ErrorRecordCount());
#endif
  // The internal interface's getters refuse a null pointer too.
  EXPECT_EQ(E_INVALIDARG, ds_->GetPercentDataGood(nullptr));
  EXPECT_EQ(E_INVALIDARG, ds_->GetStartTimeForQuery(nullptr));
  EXPECT_EQ(S_OK, ds_->InterfaceSupportsErrorInfo(IID_IDBInitialize));
  EXPECT_EQ(S_OK, ds_->InterfaceSupportsErrorInfo(IID_IProviderDataSource));
  EXPECT_EQ(S_FALSE, ds_->InterfaceSupportsErrorInfo(IID_IPersist));
}

// (What the provider string's times and "Use Timestamps" do is read through SQL in
// queryrange.test and datasource.test.)
TEST_F(DataSourceTest, TheSchemaFollowsTheLastStringAndIsFilledOnce) {
  ASSERT_EQ(S_OK, SetString(DBPROP_INIT_PROVIDERSTRING, OLESTR("Initial Schema=plant")));
  EXPECT_EQ("plant", Schema());
  ASSERT_EQ(S_OK, SetString(DBPROP_INIT_PROVIDERSTRING, OLESTR("Timestamp End=2020-01-01 00:00:00")));
  EXPECT_EQ("", Schema()) << "a string without the schema item empties it";

  // Initialize fills empty names (the schema's shows in schemas.test); a schema emptied after it stays empty.
  ASSERT_EQ(S_OK, SetString(DBPROP_INIT_CATALOG, OLESTR("")));
  ASSERT_EQ(S_OK, ds_->Initialize());
  EXPECT_EQ("_default_catalog_", Name(&CProviderDataSource::GetDefaultCatalog));
  DBPROPSTATUS status = 0;
  EXPECT_EQ(DB_E_ERRORSOCCURRED, SetString(DBPROP_INIT_PROVIDERSTRING, OLESTR("Initial Schema="), &status));
  EXPECT_EQ(DBPROPSTATUS_NOTSETTABLE, status);
  EXPECT_EQ("", Schema());
}

TEST_F(DataSourceTest, DataSourceCatalogAndWindowHandleByIdentifierAlone) {
  TraceCapture trace;
  DBPROP props[3] = {Prop(DBPROP_INIT_DATASOURCE, VT_BSTR, 0),  // a null BSTR is an empty string
                     Prop(DBPROP_INIT_CATALOG, VT_BSTR, 0, OLESTR("History")), Prop(DBPROP_INIT_HWND, VT_I2, 12)};
  DBPROPSET set{props, 3, DBPROPSET_ROWSET};  // the wrong set: the engine refuses them
  EXPECT_EQ(DB_E_ERRORSOCCURRED, ds_->SetProperties(1, &set));
  EXPECT_TRUE(trace.Contains("Set INIT_DATASOURCE = "));
  EXPECT_EQ("History", Name(&CProviderDataSource::GetDefaultCatalog));
  EXPECT_EQ(VT_I4, props[2].vValue.vt);
  EXPECT_EQ(12, props[2].vValue.lVal);
  VariantClear(&props[1].vValue);
}

TEST_F(DataSourceTest, KeywordsLiteralsSessionAndClass) {
  corvane::TaskMem<OLECHAR> keywords;
  EXPECT_EQ(E_UNEXPECTED, ds_->GetKeywords(keywords.Put()));
  IUnknown* session = nullptr;
  EXPECT_EQ(E_UNEXPECTED, ds_->CreateSession(nullptr, IID_IUnknown, &session));
  ASSERT_EQ(S_OK, ds_->Initialize());
  ASSERT_EQ(S_OK, ds_->GetKeywords(keywords.Put()));
  EXPECT_EQ("QualityToStr;AccessRightsToStr;DataTypeToStr", ToUtf8(keywords.Get()));
  EXPECT_EQ(E_INVALIDARG, ds_->GetKeywords(nullptr));

  DBLITERAL asked[] = {DBLITERAL_CATALOG_SEPARATOR, DBLITERAL_CURSOR_NAME};
  ULONG n = 0;
  corvane::TaskMem<DBLITERALINFO> infos;
  corvane::TaskMem<OLECHAR> chars;
  ASSERT_EQ(DB_S_ERRORSOCCURRED, ds_->GetLiteralInfo(2, asked, &n, infos.Put(), chars.Put()));
  std::string got;  // "literal=value", or "literal-" when not supported
  for (ULONG i = 0; i < n; ++i)
    got += std::to_string(infos[i].lt) + (infos[i].fSupported ? "=" + ToUtf8(infos[i].pwszLiteralValue) : "-") + " ";
  EXPECT_EQ("3=. 8- ", got);

  // A session does not offer IRowset: the failure is posted.
  EXPECT_EQ(E_NOINTERFACE, ds_->CreateSession(nullptr, IID_IRowset, &session));
  EXPECT_EQ(nullptr, session);
#ifndef _WIN32
  ASSERT_EQ(1u, corvane::platform::ErrorRecordCount());
  corvane::platform::ErrorRecord record;
  corvane::platform::GetErrorRecord(0, record);
  EXPECT_EQ("Failed to create a session (IID_IDBCreateSession). Details: No more details (HRESULT = 80004002).",
            ToUtf8(corvane::WStringView(record.description)));
#endif
  CLSID clsid{};
  ASSERT_EQ(S_OK, ds_->GetClassID(&clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, clsid));
}


TEST_F(PropertyRules, EachStatusAndTheCallResult) {
  std::vector<DBPROP> props = {Prop(kLimit, VT_I4, 42),
                               Prop(99, VT_I4, 1),                 // unknown id
                               Prop(kLimit, VT_BOOL, 1),           // wrong type
                               Prop(kLimit, VT_I4, 5, nullptr, 7), // bad option
                               Prop(kName, VT_BSTR, 0, OLESTR("other"))};  // read-only, different value
  EXPECT_EQ(DB_S_ERRORSOCCURRED, Set(props));
  EXPECT_EQ(Statuses(props), (std::vector<DBSTATUS>{DBPROPSTATUS_OK, DBPROPSTATUS_NOTSUPPORTED, DBPROPSTATUS_BADVALUE,
                                                    DBPROPSTATUS_BADOPTION, DBPROPSTATUS_NOTSETTABLE}));
  EXPECT_EQ(42, Limit());  // the good one stays set
  VariantClear(&props.back().vValue);

  // Setting a read-only property to the value it has is no error; all failing is DB_E.
  std::vector<DBPROP> same = {Prop(kName, VT_BSTR, 0, OLESTR("fixed"))};
  EXPECT_EQ(S_OK, Set(same));
  VariantClear(&same[0].vValue);
  std::vector<DBPROP> allBad = {Prop(77, VT_I4, 1), Prop(kLimit, VT_BOOL, 0)};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, Set(allBad));
  EXPECT_EQ(42, Limit());

  // VT_EMPTY puts the default back; bad argument shapes are E_INVALIDARG.
  std::vector<DBPROP> reset = {Prop(kLimit, VT_EMPTY, 0)};
  EXPECT_EQ(S_OK, Set(reset));
  EXPECT_EQ(10, Limit());
  DBPROPSET broken{nullptr, 2, DBPROPSET_ROWSET};
  EXPECT_EQ(E_INVALIDARG, engine_.SetProperties(1, &broken));
  EXPECT_EQ(E_INVALIDARG, engine_.SetProperties(1, nullptr));
  EXPECT_EQ(S_OK, engine_.SetProperties(0, nullptr));
}

TEST_F(PropertyRules, RequiredAgainstOptionalAndThePropertiesInError) {
  // Optional: a failure does not fail an open.
  std::vector<DBPROP> optional = {Prop(kLimit, VT_I4, 7), Prop(kLimit, VT_BOOL, 1, nullptr, DBPROPOPTIONS_OPTIONAL)};
  EXPECT_EQ(DB_S_ERRORSOCCURRED, Set(optional, DBPROPSET_ROWSET, CPropertyEngine::SetMode::AllRequired));
  EXPECT_EQ(7, Limit());

  // Required: the open fails as a whole and nothing of it stays set.
  std::vector<DBPROP> required = {Prop(kLimit, VT_I4, 8), Prop(kLimit, VT_BOOL, 1)};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, Set(required, DBPROPSET_ROWSET, CPropertyEngine::SetMode::AllRequired));
  EXPECT_EQ(Statuses(required), (std::vector<DBSTATUS>{DBPROPSTATUS_OK, DBPROPSTATUS_BADVALUE}));
  EXPECT_EQ(7, Limit());

  DBPROPIDSET inError{nullptr, 0, DBPROPSET_PROPERTIESINERROR};
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  ASSERT_EQ(S_OK, engine_.GetProperties(1, &inError, &n, &sets));
  ASSERT_EQ(1u, n);
  EXPECT_TRUE(IsEqualGUID(DBPROPSET_ROWSET, sets[0].guidPropertySet));
  ASSERT_EQ(1u, sets[0].cProperties);
  EXPECT_EQ(kLimit, sets[0].rgProperties[0].dwPropertyID);
  EXPECT_EQ(DBPROPSTATUS_BADVALUE, sets[0].rgProperties[0].dwStatus);
  CPropertyEngine::FreePropertySets(n, sets);
  // It is asked for alone and whole.
  DBPROPIDSET twice[2] = {inError, inError};
  EXPECT_EQ(E_INVALIDARG, engine_.GetProperties(2, twice, &n, &sets));

  // A property flagged REQUIRED that nobody set holds up whoever needs it.
  EXPECT_TRUE(engine_.MissingRequired());
  std::vector<DBPROP> needed = {Prop(kNeeded, VT_I2, 2)};
  EXPECT_EQ(S_OK, Set(needed, DBPROPSET_DBINIT));
  EXPECT_FALSE(engine_.MissingRequired());
}

TEST_F(PropertyRules, PropertyInfoWithDescriptionsAndGroups) {
  DBPROPID asked[] = {kName, 55};
  DBPROPIDSET ids[2] = {{asked, 2, DBPROPSET_ROWSET}, {nullptr, 0, DBPROPSET_DBINITALL}};
  ULONG n = 0;
  DBPROPINFOSET* infos = nullptr;
  OLECHAR* descriptions = nullptr;
  EXPECT_EQ(DB_S_ERRORSOCCURRED, engine_.GetPropertyInfo(2, ids, &n, &infos, &descriptions));
  ASSERT_EQ(2u, n);
  ASSERT_EQ(2u, infos[0].cPropertyInfos);
  const DBPROPINFO& name = infos[0].rgPropertyInfos[0];
  EXPECT_EQ(DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ, name.dwFlags);
  EXPECT_EQ(VT_BSTR, name.vtType);
  EXPECT_EQ("Name", ToUtf8(name.pwszDescription));
  EXPECT_EQ(DBPROPFLAGS_NOTSUPPORTED, infos[0].rgPropertyInfos[1].dwFlags);
  // The group stands for its real set, flags REQUIRED included.
  EXPECT_TRUE(IsEqualGUID(DBPROPSET_DBINIT, infos[1].guidPropertySet));
  ASSERT_EQ(1u, infos[1].cPropertyInfos);
  EXPECT_TRUE(infos[1].rgPropertyInfos[0].dwFlags & DBPROPFLAGS_REQUIRED);
  EXPECT_EQ("Needed", ToUtf8(infos[1].rgPropertyInfos[0].pwszDescription));
  // Descriptions live in the one buffer handed out.
  EXPECT_GE(name.pwszDescription, descriptions);
  CPropertyEngine::FreePropertyInfoSets(n, infos, descriptions);

  // Without a description buffer there are no descriptions, and still every flag.
  EXPECT_EQ(S_OK, engine_.GetPropertyInfo(0, nullptr, &n, &infos, nullptr));
  ASSERT_EQ(2u, n);
  EXPECT_EQ(nullptr, infos[0].rgPropertyInfos[0].pwszDescription);
  CPropertyEngine::FreePropertyInfoSets(n, infos, nullptr);
}

}  // namespace corvane::test
