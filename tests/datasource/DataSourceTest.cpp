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
