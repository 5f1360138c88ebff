#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/AllocCounters.h"
#include "platform/Platform.h"

namespace {

// Allocated by a static initialiser, before any test could start counting.
void* g_blockFromBeforeCounting = CoTaskMemAlloc(64);

// Outstanding task-memory blocks and BSTRs: the leak checks of every suite, and the shell's
// --leak-check, stand on them.
corvane::platform::AllocCounts Live() {
  corvane::platform::StartAllocCounting();
  return corvane::platform::CurrentAllocCounts();
}

#define W(s) reinterpret_cast<LPCOLESTR>(u##s)

std::u16string GuidText(REFGUID g) {
  OLECHAR buf[64] = {};
  return StringFromGUID2(g, buf, 64) > 0 ? std::u16string(reinterpret_cast<const char16_t*>(buf)) : u"";
}

}  // namespace

TEST(TaskAllocator, CountsBlocksAndStringsUntilFreed) {
  const auto before = Live();
  void* a = CoTaskMemAlloc(16);
  void* b = CoTaskMemAlloc(0);  // a zero-byte request still gives a block to free
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Live().comBlocks - before.comBlocks, 2);
#ifndef _WIN32
  // The system's string cache makes these inexact on Windows; blocks must suit any type here.
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % alignof(std::max_align_t), 0u);
  BSTR s = SysAllocString(OLESTR("a")), t = SysAllocStringLen(nullptr, 10);
  EXPECT_EQ(Live().bstrs - before.bstrs, 2);
  EXPECT_EQ(Live().comBlocks - before.comBlocks, 2) << "a BSTR is not a task-memory block";
  SysFreeString(s);
  SysFreeString(t);
#endif
  CoTaskMemFree(a);
  CoTaskMemFree(b);
  CoTaskMemFree(nullptr);
  ASSERT_NE(g_blockFromBeforeCounting, nullptr);
  CoTaskMemFree(g_blockFromBeforeCounting);  // leaves the counters alone
  g_blockFromBeforeCounting = nullptr;
  EXPECT_EQ(Live().comBlocks, before.comBlocks);
  EXPECT_EQ(Live().bstrs, before.bstrs);
}

TEST(GuidText, WritesTheBracedUpperCaseFormAndReadsItBackWithTheWindowsCodes) {
  OLECHAR buf[39];
  EXPECT_EQ(StringFromGUID2(IID_IClassFactory, buf, 39), 39);
  EXPECT_EQ(GuidText(IID_IClassFactory), u"{00000001-0000-0000-C000-000000000046}");
  EXPECT_EQ(StringFromGUID2(IID_IClassFactory, buf, 38), 0) << "no room for the terminator";
  // Text, then what CLSIDFromString answers and the GUID it reads (either case; null text is the null GUID).
  const struct { const char16_t* text; HRESULT hr; const char16_t* read; } cases[] = {
      {u"{effacbc0-538b-4bc7-afe1-2e90167424c6}", S_OK, u"{EFFACBC0-538B-4BC7-AFE1-2E90167424C6}"},
      {nullptr, S_OK, u"{00000000-0000-0000-0000-000000000000}"},
      {u"{EFFACBC0-538B-4BC7-AFE1-2E90167424CG}", CO_E_CLASSSTRING, nullptr},   // not hexadecimal
      {u"{EFFACBC0+538B-4BC7-AFE1-2E90167424C6}", CO_E_CLASSSTRING, nullptr},   // wrong separator
      {u"{EFFACBC0-538B-4BC7-AFE12E90167424C6-}", CO_E_CLASSSTRING, nullptr},   // separator misplaced
  };
  for (const auto& c : cases) {
    CLSID clsid = IID_IClassFactory;
    EXPECT_EQ(CLSIDFromString(reinterpret_cast<LPCOLESTR>(c.text), &clsid), c.hr) << (&c - cases);
    if (c.read) {
      EXPECT_EQ(GuidText(clsid), c.read);
    }
  }
  EXPECT_EQ(CLSIDFromString(W("{EFFACBC0-538B-4BC7-AFE1-2E90167424C6}"), nullptr), E_INVALIDARG);
}

#ifndef _WIN32
namespace {

CORVANE_DEFINE_GUID(CLSID_TestWidget, 0x6B1D0F4A, 0x1C2B, 0x4E55, 0x9A, 0x10, 0x32, 0x44, 0x55, 0x66, 0x77, 0x88);
CORVANE_DEFINE_GUID(CLSID_NeverRegistered, 0x6B1D0F4C, 0x1C2B, 0x4E55, 0x9A, 0x10, 0x32, 0x44, 0x55, 0x66, 0x77, 0x88);

// A factory on the test's stack that counts its references and hands itself out as the
// instance, so every instance not released shows as a reference too many.
class WidgetFactory : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IClassFactory)) return *ppv = nullptr, E_NOINTERFACE;
    *ppv = static_cast<IClassFactory*>(this);
    return AddRef(), S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID riid, void** ppv) override {
    return QueryInterface(riid, ppv);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

  std::atomic<ULONG> refs{0};
};

using corvane::platform::ErrorRecord;
using corvane::platform::RegisterClass;
using corvane::platform::UnregisterClass;

void Post(HRESULT hr, const char16_t* description) {
  ErrorRecord r;
  r.info.hrError = hr;
  r.description = description;
  corvane::platform::AddErrorRecord(r);
}

}  // namespace

TEST(ClassRegistry, CreatesAndNamesRegisteredClassesAndAnswersWithWindowsCodesOtherwise) {
  WidgetFactory factory;
  ASSERT_EQ(RegisterClass(CLSID_TestWidget, W("Corvane.TestWidget.1"), &factory), S_OK);
  EXPECT_EQ(factory.refs, 1u) << "the registry holds one reference";
  IUnknown* unk = nullptr;
  ASSERT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, (void**)&unk), S_OK);
  EXPECT_EQ(factory.refs, 2u) << "the registry's and the instance's";
  unk->Release();
  EXPECT_EQ(factory.refs, 1u);
  CLSID clsid = {};
  EXPECT_EQ(CLSIDFromProgID(W("corvane.testwidget.1"), &clsid), S_OK);
  EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_TestWidget));
  clsid = {};
  EXPECT_EQ(CLSIDFromString(W("CORVANE.TESTWIDGET.1"), &clsid), S_OK) << "CLSIDFromString also takes a ProgID";
  EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_TestWidget));
  EXPECT_EQ(CLSIDFromProgID(W("Corvane.NoSuchThing"), &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromProgID(W(""), &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromProgID(nullptr, &clsid), E_INVALIDARG);
  EXPECT_EQ(CLSIDFromProgID(W("Corvane.TestWidget.1"), nullptr), E_INVALIDARG);

  void* out = reinterpret_cast<void*>(1);
  EXPECT_EQ(CoCreateInstance(CLSID_NeverRegistered, nullptr, CLSCTX_ALL, IID_IUnknown, &out), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(out, nullptr) << "the out pointer is cleared on failure";
  EXPECT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &out), REGDB_E_CLASSNOTREG)
      << "only in-process servers exist here";
  EXPECT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, nullptr), E_POINTER);

  EXPECT_EQ(UnregisterClass(CLSID_TestWidget), S_OK);
  EXPECT_EQ(factory.refs, 0u) << "unregistering releases the registry's reference";
  EXPECT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &out), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(CLSIDFromProgID(W("Corvane.TestWidget.1"), &clsid), CO_E_CLASSSTRING) << "its ProgID goes with it";
  EXPECT_EQ(UnregisterClass(CLSID_TestWidget), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(RegisterClass(CLSID_TestWidget, nullptr, nullptr), E_INVALIDARG);
}

TEST(ClassRegistry, StaysConsistentWhileClassesComeAndGoOnOtherThreads) {
  WidgetFactory factory;
  std::atomic<bool> stop{false};
  std::atomic<int> created{0}, notRegistered{0}, other{0};
  std::vector<std::thread> creators;
  for (int t = 0; t < 3; ++t) {
    creators.emplace_back([&] {
      while (!stop) {
        IUnknown* unk = nullptr;
        HRESULT hr = CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, (void**)&unk);
        if (hr == S_OK) unk->Release();
        ++(hr == S_OK ? created : hr == REGDB_E_CLASSNOTREG ? notRegistered : other);
      }
    });
  }
  // Churn until the creators have seen the class both present and absent a fair number of times.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while ((created < 200 || notRegistered < 200) && std::chrono::steady_clock::now() < deadline) {
    ASSERT_EQ(RegisterClass(CLSID_TestWidget, W("Corvane.TestWidget.1"), &factory), S_OK);
    std::this_thread::yield();
    ASSERT_EQ(UnregisterClass(CLSID_TestWidget), S_OK);
    std::this_thread::yield();
  }
  stop = true;
  for (auto& t : creators) t.join();
  EXPECT_EQ(other, 0);
  EXPECT_EQ(factory.refs, 0u) << "every reference taken by a creation was given back";
  EXPECT_GE(created, 200);
  EXPECT_GE(notRegistered, 200);
}

// What a record carries (interface, source, description) is read back through the data
// source's own failures in tests/datasource; here, the list itself.
TEST(ErrorRecords, KeepThePostingOrderPerThreadAndAreTakenWhole) {
  corvane::platform::ClearErrorRecords();
  Post(E_FAIL, u"first");
  Post(DB_E_NOTABLE, u"second");
  size_t seenOnWorker = 99;
  std::u16string workerFirst;
  std::thread([&] {
    seenOnWorker = corvane::platform::ErrorRecordCount();
    Post(E_INVALIDARG, u"worker thread");
    ErrorRecord r;
    if (corvane::platform::GetErrorRecord(0, r)) workerFirst = r.description;
  }).join();
  EXPECT_EQ(seenOnWorker, 0u);
  EXPECT_EQ(workerFirst, u"worker thread");

  ErrorRecord r;
  ASSERT_TRUE(corvane::platform::GetErrorRecord(1, r));
  EXPECT_EQ(r.description, u"second");
  EXPECT_FALSE(corvane::platform::GetErrorRecord(2, r));
  auto taken = corvane::platform::TakeErrorRecords();
  ASSERT_EQ(taken.size(), 2u) << "the worker's record stayed on the worker";
  EXPECT_EQ(taken[0].info.hrError, E_FAIL);
  EXPECT_EQ(corvane::platform::ErrorRecordCount(), 0u) << "taking empties the list";
}
#endif  // !_WIN32
