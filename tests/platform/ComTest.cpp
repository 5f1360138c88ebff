#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/AllocCounters.h"
#include "platform/Platform.h"
#ifndef _WIN32
#include "platform/posix/ComInternal.h"
#endif

using corvane::platform::AllocCounts;
using corvane::platform::CurrentAllocCounts;
using corvane::platform::StartAllocCounting;

namespace {

// Allocated by a static initialiser, before any test could start counting.
void* g_blockFromBeforeCounting = CoTaskMemAlloc(64);

AllocCounts Delta(const AllocCounts& before) {
  AllocCounts now = CurrentAllocCounts();
  return AllocCounts{now.comBlocks - before.comBlocks, now.bstrs - before.bstrs};
}

std::u16string GuidText(REFGUID g) {
  OLECHAR buf[64] = {};
  int n = StringFromGUID2(g, buf, 64);
  return n > 0 ? std::u16string(reinterpret_cast<const char16_t*>(buf)) : std::u16string();
}

#define W(s) reinterpret_cast<LPCOLESTR>(u##s)

std::string Narrow(const char16_t* s) {
  std::string out;
  for (; *s; ++s) out.push_back(static_cast<char>(*s));
  return out;
}

}  // namespace

// ---- The task allocator and its counters ---------------------------------------

TEST(TaskAllocator, CountsOutstandingBlocksUntilFreed) {
  StartAllocCounting();
  const AllocCounts before = CurrentAllocCounts();
  void* a = CoTaskMemAlloc(16);
  void* b = CoTaskMemAlloc(0);  // a zero-byte request still gives a block to free
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Delta(before).comBlocks, 2);
  CoTaskMemFree(a);
  CoTaskMemFree(b);
  CoTaskMemFree(nullptr);
  EXPECT_EQ(Delta(before).comBlocks, 0);
  EXPECT_EQ(Delta(before).bstrs, 0);
  ASSERT_NE(g_blockFromBeforeCounting, nullptr);
  CoTaskMemFree(g_blockFromBeforeCounting);
  g_blockFromBeforeCounting = nullptr;
  EXPECT_EQ(Delta(before).comBlocks, 0) << "a block from before counting leaves the counters alone";
}

TEST(TaskAllocator, CountersStayExactUnderConcurrentUse) {
  StartAllocCounting();
  const AllocCounts before = CurrentAllocCounts();
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      std::vector<void*> held;
      for (int i = 0; i < kRounds; ++i) {
        held.push_back(CoTaskMemAlloc(static_cast<SIZE_T>(i % 97)));
        if (held.size() > 16) {
          CoTaskMemFree(held.front());
          held.erase(held.begin());
        }
      }
      for (void* p : held) CoTaskMemFree(p);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(Delta(before).comBlocks, 0);
}

#ifndef _WIN32
TEST(TaskAllocator, BlocksAreAlignedForAnyType) {
  void* p = CoTaskMemAlloc(24);
  void* q = CoTaskMemAlloc(3);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % alignof(std::max_align_t), 0u);
  CoTaskMemFree(p);
  CoTaskMemFree(q);
}
#endif

// ---- GUID text -----------------------------------------------------------------

TEST(GuidText, WritesTheBracedUpperCaseFormAndReadsItBackWithTheWindowsCodes) {
  OLECHAR buf[39];
  EXPECT_EQ(StringFromGUID2(IID_IClassFactory, buf, 39), 39);
  EXPECT_EQ(GuidText(IID_IClassFactory), u"{00000001-0000-0000-C000-000000000046}");
  const GUID mixed = {0xEFFACBC0, 0x538B, 0x4BC7, {0xAF, 0xE1, 0x2E, 0x90, 0x16, 0x74, 0x24, 0xC6}};
  EXPECT_EQ(StringFromGUID2(mixed, buf, 38), 0) << "no room for the terminator";
  // Text, then what CLSIDFromString answers and the GUID it reads (either case; null text
  // is the null GUID).
  const struct {
    const char16_t* text;
    HRESULT hr;
    const char16_t* read;
  } cases[] = {
      {u"{effacbc0-538b-4bc7-afe1-2e90167424c6}", S_OK, u"{EFFACBC0-538B-4BC7-AFE1-2E90167424C6}"},
      {nullptr, S_OK, u"{00000000-0000-0000-0000-000000000000}"},
      {u"{EFFACBC0-538B-4BC7-AFE1-2E90167424C}", CO_E_CLASSSTRING, nullptr},    // one digit short
      {u"{EFFACBC0-538B-4BC7-AFE1-2E90167424C6", CO_E_CLASSSTRING, nullptr},    // no closing brace
      {u"{EFFACBC0-538B-4BC7-AFE1-2E90167424C6}x", CO_E_CLASSSTRING, nullptr},  // trailing text
      {u"{EFFACBC0-538B-4BC7-AFE1-2E90167424CG}", CO_E_CLASSSTRING, nullptr},   // not hexadecimal
      {u"{EFFACBC0+538B-4BC7-AFE1-2E90167424C6}", CO_E_CLASSSTRING, nullptr},   // wrong separator
      {u"{EFFACBC0-538B-4BC7-AFE12E90167424C6-}", CO_E_CLASSSTRING, nullptr},   // separator misplaced
  };
  for (const auto& c : cases) {
    CLSID clsid = IID_IClassFactory;
    EXPECT_EQ(CLSIDFromString(reinterpret_cast<LPCOLESTR>(c.text), &clsid), c.hr) << (c.text ? Narrow(c.text) : "null");
    if (c.read) {
      EXPECT_EQ(GuidText(clsid), c.read);
    }
  }
  EXPECT_EQ(CLSIDFromString(W("{EFFACBC0-538B-4BC7-AFE1-2E90167424C6}"), nullptr), E_INVALIDARG);
}

#ifndef _WIN32
// ---- The in-process class registry ------------------------------------------------

namespace {

CORVANE_DEFINE_GUID(CLSID_TestWidget, 0x6B1D0F4A, 0x1C2B, 0x4E55, 0x9A, 0x10, 0x32, 0x44, 0x55, 0x66, 0x77, 0x88);
CORVANE_DEFINE_GUID(CLSID_NeverRegistered, 0x6B1D0F4C, 0x1C2B, 0x4E55, 0x9A, 0x10, 0x32, 0x44, 0x55, 0x66, 0x77,
                    0x88);

// A widget counts itself live while it exists.
class Widget final : public IUnknown {
 public:
  explicit Widget(std::atomic<int>& live) : live_(live) { ++live_; }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!IsEqualIID(riid, IID_IUnknown)) return *ppv = nullptr, E_NOINTERFACE;
    *ppv = this;
    return AddRef(), S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --refs_;
    if (n == 0) --live_, delete this;
    return n;
  }

 private:
  std::atomic<ULONG> refs_{0};
  std::atomic<int>& live_;
};

// A factory that counts its own references.
class WidgetFactory : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IClassFactory)) return *ppv = nullptr, E_NOINTERFACE;
    *ppv = static_cast<IClassFactory*>(this);
    return AddRef(), S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives on the test's stack
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID riid, void** ppv) override {
    Widget* w = new Widget(liveWidgets);
    w->AddRef();
    const HRESULT hr = w->QueryInterface(riid, ppv);
    w->Release();
    return hr;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

  std::atomic<ULONG> refs{0};
  std::atomic<int> liveWidgets{0};
};

using corvane::platform::RegisterClass;
using corvane::platform::UnregisterClass;

}  // namespace

TEST(ClassRegistry, CreatesRegisteredClassesAndAnswersWithWindowsCodesOtherwise) {
  WidgetFactory factory;
  ASSERT_EQ(RegisterClass(CLSID_TestWidget, W("Corvane.TestWidget.1"), &factory), S_OK);
  EXPECT_EQ(factory.refs, 1u) << "the registry holds one reference";

  IUnknown* unk = nullptr;
  ASSERT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, (void**)&unk), S_OK);
  ASSERT_NE(unk, nullptr);
  EXPECT_EQ(factory.liveWidgets, 1);
  unk->Release();
  EXPECT_EQ(factory.liveWidgets, 0);

  void* out = reinterpret_cast<void*>(1);
  EXPECT_EQ(CoCreateInstance(CLSID_NeverRegistered, nullptr, CLSCTX_ALL, IID_IUnknown, &out), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(out, nullptr) << "the out pointer is cleared on failure";
  EXPECT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &out), REGDB_E_CLASSNOTREG)
      << "only in-process servers exist here";
  EXPECT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, nullptr), E_POINTER);

  EXPECT_EQ(UnregisterClass(CLSID_TestWidget), S_OK);
  EXPECT_EQ(factory.refs, 0u) << "unregistering releases the registry's reference";
  EXPECT_EQ(CoCreateInstance(CLSID_TestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &out),
            REGDB_E_CLASSNOTREG);
  EXPECT_EQ(UnregisterClass(CLSID_TestWidget), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(RegisterClass(CLSID_TestWidget, nullptr, nullptr), E_INVALIDARG);
}

TEST(ClassRegistry, ResolvesProgIdsIgnoringCase) {
  WidgetFactory widgets;
  ASSERT_EQ(RegisterClass(CLSID_TestWidget, W("Corvane.TestWidget.1"), &widgets), S_OK);
  CLSID clsid = {};
  EXPECT_EQ(CLSIDFromProgID(W("corvane.testwidget.1"), &clsid), S_OK);
  EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_TestWidget));
  EXPECT_EQ(CLSIDFromString(W("CORVANE.TESTWIDGET.1"), &clsid), S_OK) << "CLSIDFromString also takes a ProgID";
  EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_TestWidget));

  EXPECT_EQ(CLSIDFromProgID(W("Corvane.NoSuchThing"), &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromString(W("Corvane.NoSuchThing"), &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromProgID(W(""), &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromProgID(nullptr, &clsid), E_INVALIDARG);
  EXPECT_EQ(CLSIDFromProgID(W("Corvane.TestWidget.1"), nullptr), E_INVALIDARG);

  EXPECT_EQ(UnregisterClass(CLSID_TestWidget), S_OK);
  EXPECT_EQ(CLSIDFromProgID(W("Corvane.TestWidget.1"), &clsid), CO_E_CLASSSTRING) << "its ProgID goes with it";
  EXPECT_EQ(widgets.refs, 0u);
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
        if (hr == S_OK) {
          ++created;
          unk->Release();
        } else if (hr == REGDB_E_CLASSNOTREG) {
          ++notRegistered;
        } else {
          ++other;
        }
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
  EXPECT_EQ(factory.liveWidgets, 0);
  EXPECT_GE(created, 200);
  EXPECT_GE(notRegistered, 200);
}
#endif  // !_WIN32
