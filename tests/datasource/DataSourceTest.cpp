// Creation through ICreateCorvaneOleDbProvider and the data source it returns: the
// creation paths over the reference historian, the data source's property rules,
// provider string, query settings, information interfaces and error records.
#include <gtest/gtest.h>

#include <memory>

#include "historian/Aggregates.h"
#include "historian/ReferenceHistorian.h"
#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorReporting.h"
#include "provider/Module.h"
#include "provider/ProviderDataSource.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/TraceCapture.h"

using corvane::ToUtf8;
using corvane::historian::CAggregates;
using corvane::historian::CHistorianStore;
using corvane::historian::CReferenceHistorian;
using corvane::test::TraceCapture;
using corvane::testing::CFaultInjectingHost;

namespace {

ULONG RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

// A host over a fresh reference historian, wrapped so it counts its references and can
// hide interfaces. With `processed` the historian answers IProcessedDataProvider itself.
CFaultInjectingHost* MakeHost(bool processed) {
  IAggregates* factory = nullptr;
  if (processed) CAggregates::CreateInstance(nullptr, IID_IAggregates, reinterpret_cast<void**>(&factory));
  IUnknown* historian = nullptr;
  CReferenceHistorian::Create(std::make_shared<CHistorianStore>(), IID_IUnknown, reinterpret_cast<void**>(&historian),
                              factory);
  if (factory) factory->Release();
  CFaultInjectingHost* host = CFaultInjectingHost::Create(historian);
  historian->Release();
  return host;
}

class Creation : public corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
#ifdef _WIN32
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
#endif
    ASSERT_EQ(S_OK, CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                                    reinterpret_cast<void**>(&creator_)));
  }
  void TearDown() override {
    creator_->Release();
#ifdef _WIN32
    CoUninitialize();
#endif
    LeakCheckedTest::TearDown();
  }
  template <typename T>
  T* Query(IUnknown* ds, REFIID iid) {
    T* p = nullptr;
    ds->QueryInterface(iid, reinterpret_cast<void**>(&p));
    return p;
  }
  ICreateCorvaneOleDbProvider* creator_ = nullptr;
};

}  // namespace

TEST_F(Creation, HostWithAllThreeInterfaces) {
  CFaultInjectingHost* host = MakeHost(true);
  const ULONG hostRefs = RefCount(static_cast<IRawDataProvider*>(host));
  const long locks = corvane::module::LockCount();  // the creation object's own
  {
    TraceCapture trace(TRACE_WARNING);
    IUnknown* ds = nullptr;
    ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), &ds));
    EXPECT_EQ(1u, RefCount(ds));  // one reference, the caller's
    EXPECT_TRUE(trace.Texts().empty());
    auto* access = Query<IProviderDataSource>(ds, IID_IProviderDataSource);
    IRawDataProvider* raw = nullptr;
    IProcessedDataProvider* processed = nullptr;
    IValuesProvider* values = nullptr;
    ASSERT_EQ(S_OK, access->GetRawDataProvider(&raw));
    ASSERT_EQ(S_OK, access->GetProcessedDataProvider(&processed));
    ASSERT_EQ(S_OK, access->GetValuesProvider(&values));
    EXPECT_EQ(static_cast<IRawDataProvider*>(host), raw);
    EXPECT_EQ(static_cast<IProcessedDataProvider*>(host), processed);  // the host's own, no component
    EXPECT_EQ(static_cast<IValuesProvider*>(host), values);
    raw->Release();
    processed->Release();
    values->Release();

    // A second data source from the same host shares nothing but the host.
    IUnknown* other = nullptr;
    ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), &other));
    EXPECT_NE(ds, other);
    auto* otherAccess = Query<IProviderDataSource>(other, IID_IProviderDataSource);
    otherAccess->SetMaxRowsToReturn(5);
    LONG rows = 0;
    access->GetMaxRowsToReturn(&rows);
    EXPECT_EQ(2000, rows);
    otherAccess->Release();
    other->Release();
    access->Release();
    EXPECT_EQ(locks + 1, corvane::module::LockCount());  // the live data source
    ds->Release();
  }
  // Every reference the provider took on the host is back.
  EXPECT_EQ(hostRefs, RefCount(static_cast<IRawDataProvider*>(host)));
  EXPECT_EQ(locks, corvane::module::LockCount());
  static_cast<IRawDataProvider*>(host)->Release();
}

TEST_F(Creation, MissingInterfacesOfTheHost) {
  CFaultInjectingHost* host = MakeHost(true);
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
    EXPECT_EQ("CreateCorvaneOleDbProviderImpl", lines[0].source);
    EXPECT_TRUE(trace.Contains("ValuesProvider is not initialized (is NULL)"));
    auto* access = Query<IProviderDataSource>(ds, IID_IProviderDataSource);
    IValuesProvider* values = reinterpret_cast<IValuesProvider*>(&trace);
    EXPECT_EQ(S_OK, access->GetValuesProvider(&values));
    EXPECT_EQ(nullptr, values);
    EXPECT_EQ(E_INVALIDARG, access->GetValuesProvider(nullptr));
    access->Release();
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
  hostUnknown->Release();

  // Null arguments: E_INVALIDARG and not a single trace.
  TraceCapture trace;
  IUnknown* ds = nullptr;
  EXPECT_EQ(E_INVALIDARG, creator_->Create(nullptr, &ds));
  CFaultInjectingHost* other = MakeHost(false);
  EXPECT_EQ(E_INVALIDARG, creator_->Create(static_cast<IRawDataProvider*>(other), nullptr));
  EXPECT_TRUE(trace.Texts().empty());
  static_cast<IRawDataProvider*>(other)->Release();

  // An object that is no historian at all.
  TraceCapture rawTrace;
  EXPECT_EQ(E_NOINTERFACE, creator_->Create(creator_, &ds));
  EXPECT_EQ(std::vector<std::string>{"Unable to initialize IRawDataProvider interface"}, rawTrace.Texts());
}

#ifndef _WIN32
TEST_F(Creation, RawOnlyHostGetsTheAggregatesComponent) {
  ASSERT_EQ(S_OK, corvane::historian::RegisterAggregatesComponent());
  CFaultInjectingHost* host = MakeHost(false);
  const ULONG hostRefs = RefCount(static_cast<IRawDataProvider*>(host));
  IUnknown* ds = nullptr;
  ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), &ds));
  auto* access = Query<IProviderDataSource>(ds, IID_IProviderDataSource);
  IProcessedDataProvider* processed = nullptr;
  ASSERT_EQ(S_OK, access->GetProcessedDataProvider(&processed));
  ASSERT_NE(nullptr, processed);
  EXPECT_NE(static_cast<IProcessedDataProvider*>(host), processed);  // built by the component
  const long componentObjects = corvane::historian::AggregatesObjectCount();
  EXPECT_GE(componentObjects, 1);  // the built provider lives on, the factory object is gone
  processed->Release();
  access->Release();
  ds->Release();
  EXPECT_EQ(hostRefs, RefCount(static_cast<IRawDataProvider*>(host)));
  static_cast<IRawDataProvider*>(host)->Release();

  // The creation object is found by its CLSID and ProgID in the class registry.
  ASSERT_EQ(S_OK, DllRegisterServer());
  CLSID clsid{};
  ASSERT_EQ(S_OK, CLSIDFromProgID(CORVANE_PROVIDER_PROGID, &clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, clsid));
  ICreateCorvaneOleDbProvider* creator = nullptr;
  ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateCorvaneOleDbProvider,
                                   reinterpret_cast<void**>(&creator)));
  creator->Release();
  EXPECT_EQ(S_OK, DllUnregisterServer());
  EXPECT_EQ(S_OK, DllUnregisterServer());
  EXPECT_EQ(S_OK, corvane::historian::UnregisterAggregatesComponent());
}
#endif
