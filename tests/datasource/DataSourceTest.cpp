// Creation through ICreateCorvaneOleDbProvider over the reference historian: what the
// data source takes from its host, and every reference and lock given back; the texts
// of failures and the error lookup service that hands them to the error object.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorLookup.h"
#include "provider/ErrorReporting.h"
#include "provider/Module.h"
#include "provider/ProviderDataSource.h"
#include "tests/session/ConsumerFixture.h"

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

}  // namespace corvane::test
