// Creation through ICreateCorvaneOleDbProvider over the reference historian: what the
// data source takes from its host, and every reference and lock given back.
#include <gtest/gtest.h>

#include <memory>

#include "base/ComPtr.h"
#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorReporting.h"
#include "provider/Module.h"
#include "provider/ProviderDataSource.h"
#include "tests/session/ConsumerFixture.h"

using corvane::ComPtr;
using corvane::QueryAs;
using corvane::ToUtf8;
using corvane::historian::CHistorianStore;
using corvane::test::TraceCapture;
using corvane::testing::CFaultInjectingHost;

namespace {

ULONG RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

// A fresh reference historian with its aggregates behind the counting host.
CFaultInjectingHost* MakeHost() { return corvane::test::NewHost(std::make_shared<CHistorianStore>()); }

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
  ICreateCorvaneOleDbProvider* creator_ = nullptr;
};

}  // namespace

TEST_F(Creation, HostWithAllThreeInterfaces) {
  CFaultInjectingHost* host = MakeHost();
  const ULONG hostRefs = RefCount(static_cast<IRawDataProvider*>(host));
  const long locks = corvane::module::LockCount();  // the creation object's own
  {
    TraceCapture trace(TRACE_WARNING);
    IUnknown* ds = nullptr;
    ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), &ds));
    EXPECT_EQ(1u, RefCount(ds));  // one reference, the caller's
    EXPECT_TRUE(trace.Texts().empty());
    ComPtr<IProviderDataSource> access = QueryAs<IProviderDataSource>(ds, IID_IProviderDataSource);
    ComPtr<IRawDataProvider> raw;
    ComPtr<IProcessedDataProvider> processed;
    ComPtr<IValuesProvider> values;
    ASSERT_EQ(S_OK, access->GetRawDataProvider(raw.Put()));
    ASSERT_EQ(S_OK, access->GetProcessedDataProvider(processed.Put()));
    ASSERT_EQ(S_OK, access->GetValuesProvider(values.Put()));
    EXPECT_EQ(static_cast<IRawDataProvider*>(host), raw.Get());
    EXPECT_EQ(static_cast<IProcessedDataProvider*>(host), processed.Get());  // the host's own, no component
    EXPECT_EQ(static_cast<IValuesProvider*>(host), values.Get());

    // A second data source from the same host shares nothing but the host.
    ComPtr<IUnknown> other;
    ASSERT_EQ(S_OK, creator_->Create(static_cast<IRawDataProvider*>(host), other.Put()));
    EXPECT_NE(ds, other.Get());
    QueryAs<IProviderDataSource>(other.Get(), IID_IProviderDataSource)->SetMaxRowsToReturn(5);
    LONG rows = 0;
    access->GetMaxRowsToReturn(&rows);
    EXPECT_EQ(2000, rows);
    other.Reset();
    EXPECT_EQ(locks + 1, corvane::module::LockCount());  // the live data source
    access.Reset();
    ds->Release();
  }
  // Every reference the provider took on the host is back.
  EXPECT_EQ(hostRefs, RefCount(static_cast<IRawDataProvider*>(host)));
  EXPECT_EQ(locks, corvane::module::LockCount());
  static_cast<IRawDataProvider*>(host)->Release();
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
    EXPECT_EQ("CreateCorvaneOleDbProviderImpl", lines[0].source);
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

  // Null arguments: E_INVALIDARG and not a single trace.
  TraceCapture trace;
  IUnknown* ds = nullptr;
  EXPECT_EQ(E_INVALIDARG, creator_->Create(nullptr, &ds));
  EXPECT_EQ(E_INVALIDARG, creator_->Create(hostUnknown, nullptr));
  EXPECT_TRUE(trace.Texts().empty());
  hostUnknown->Release();

  // An object that is no historian at all.
  TraceCapture rawTrace;
  EXPECT_EQ(E_NOINTERFACE, creator_->Create(creator_, &ds));
  EXPECT_EQ(std::vector<std::string>{"Unable to initialize IRawDataProvider interface"}, rawTrace.Texts());
}

#ifndef _WIN32
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
