#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/AllocCounters.h"
#include "platform/Platform.h"
#include "platform/Sync.h"

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

// The Automation types the POSIX layer provides as Windows does: BSTRs, VARIANT lifetimes, the ISO date texts and the
// calendar of FILETIME. Under Wine the first two run against the system's own.
namespace {

// The prefix before the text is what other code (and consumers across an interface)
// read for the length, so it is checked directly, not only through SysStringByteLen.
DWORD Prefix(BSTR s) {
  DWORD v;
  std::memcpy(&v, reinterpret_cast<const char*>(s) - sizeof(DWORD), sizeof v);
  return v;
}

TEST(BstrLayout, PrefixLengthTerminatorAndEmbeddedNulls) {
  BSTR s = SysAllocString(OLESTR("abc"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(Prefix(s), 6u);
  EXPECT_EQ(SysStringLen(s), 3u);
  EXPECT_EQ(SysStringByteLen(s), 6u);
  EXPECT_EQ(std::memcmp(s, OLESTR("abc"), 4 * sizeof(OLECHAR)), 0) << "text and terminator";
  EXPECT_EQ(reinterpret_cast<uintptr_t>(s) % 4, 0u);
  SysFreeString(s);

  const OLECHAR text[] = {'a', 0, 'b', 0, 'c'};
  s = SysAllocStringLen(text, 5);
  EXPECT_EQ(SysStringLen(s), 5u);
  EXPECT_EQ(std::memcmp(s, text, sizeof text), 0);
  EXPECT_EQ(s[5], OLECHAR(0));
  BSTR t = SysAllocString(text);  // stops at the first null, unlike the length-taking form
  EXPECT_EQ(SysStringLen(t), 1u);
  SysFreeString(t);
  SysFreeString(s);

  // Empty and null are distinct; null is harmless everywhere.
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  s = SysAllocString(OLESTR(""));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(SysStringLen(s), 0u);
  EXPECT_EQ(s[0], OLECHAR(0));
  SysFreeString(s);
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  SysFreeString(nullptr);
}

// Counts references so the tests can see exactly which calls AddRef or Release.
struct CountedObject : IUnknown {
  ULONG refs = 1;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }
};

int64_t LiveBstrs() {
#ifdef _WIN32
  return 0;  // the system's string cache makes counts inexact there
#else
  corvane::platform::StartAllocCounting();
  return corvane::platform::CurrentAllocCounts().bstrs;
#endif
}

// A consumer's VARIANT parameter may hold a string, a reference or an interface: the
// provider copies it with VariantCopyInd and clears its copy.
TEST(VariantLifetime, ClearReleasesWhatTheVariantOwnsAndRefusesWhatItCannotRead) {
  const int64_t base = LiveBstrs();
  BSTR s = SysAllocString(OLESTR("caller's"));
  CountedObject obj;
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_BSTR;
  v.bstrVal = SysAllocString(OLESTR("owned"));
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(v.vt, VT_EMPTY);
  v.vt = VT_BYREF | VT_BSTR;
  v.pbstrVal = &s;
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(SysStringLen(s), 8u) << "a referenced string stays the caller's";
  obj.refs = 2;
  v.vt = VT_UNKNOWN;
  v.punkVal = &obj;
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(obj.refs, 1u);
  v.vt = VT_DISPATCH;
  v.punkVal = nullptr;  // a null interface is legal and released as nothing
  EXPECT_EQ(VariantClear(&v), S_OK);
  SysFreeString(s);
  EXPECT_EQ(LiveBstrs(), base);
  for (VARTYPE bad : {VARTYPE(15), VARTYPE(0x7F), VARTYPE(VT_BYREF | VT_NULL), VARTYPE(VT_VECTOR | VT_I4)}) {
    v.vt = bad;
    EXPECT_EQ(VariantClear(&v), DISP_E_BADVARTYPE) << bad;
    EXPECT_EQ(v.vt, bad) << "left untouched";
  }
}

TEST(VariantLifetime, CopiesDuplicateStringsAddReferencesAndFollowOneLevelOfReference) {
  const int64_t base = LiveBstrs();
  const OLECHAR text[] = {'x', 0, 'y'};
  VARIANT src, dst;
  src.vt = VT_BSTR;
  src.bstrVal = SysAllocStringLen(text, 3);
  dst.vt = VT_BSTR;
  dst.bstrVal = SysAllocString(OLESTR("old content, released by the copy"));
  ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
  EXPECT_NE(dst.bstrVal, src.bstrVal);
  ASSERT_EQ(SysStringLen(dst.bstrVal), 3u);
  EXPECT_EQ(std::memcmp(dst.bstrVal, text, sizeof text), 0);
  EXPECT_EQ(VariantCopy(&src, &src), S_OK) << "onto itself: neither freed nor duplicated";
  EXPECT_EQ(SysStringLen(src.bstrVal), 3u);
  CountedObject obj;
  VARIANT u;
  u.vt = VT_UNKNOWN;
  u.punkVal = &obj;
  ASSERT_EQ(VariantCopy(&dst, &u), S_OK);
  EXPECT_EQ(obj.refs, 2u);
  VariantClear(&dst);
  EXPECT_EQ(obj.refs, 1u);

  // VariantCopyInd: a referenced string is duplicated, a DECIMAL copied whole, a value
  // converted in place, and a reference to a reference refused.
  VARIANT ref, out;
  VariantInit(&out);
  ref.vt = VT_BYREF | VT_BSTR;
  ref.pbstrVal = &src.bstrVal;
  ASSERT_EQ(VariantCopyInd(&out, &ref), S_OK);
  EXPECT_TRUE(out.vt == VT_BSTR && out.bstrVal != src.bstrVal && SysStringLen(out.bstrVal) == 3);
  VariantClear(&out);
  ref.vt = VT_BYREF | VT_VARIANT;
  ref.pvarVal = &src;
  ASSERT_EQ(VariantCopyInd(&out, &ref), S_OK);
  EXPECT_EQ(out.vt, VT_BSTR);
  EXPECT_NE(out.bstrVal, src.bstrVal);
  VariantClear(&out);
  VARIANT twice;
  twice.vt = VT_BYREF | VT_VARIANT;
  twice.pvarVal = &ref;
  EXPECT_EQ(VariantCopyInd(&out, &twice), E_INVALIDARG);
  DECIMAL d{};
  d.scale = 2;
  d.sign = DECIMAL_NEG;
  d.Lo64 = 12345;
  ref.vt = VT_BYREF | VT_DECIMAL;
  ref.pdecVal = &d;
  ASSERT_EQ(VariantCopyInd(&out, &ref), S_OK);
  EXPECT_EQ(out.vt, VT_DECIMAL);
  EXPECT_EQ(std::memcmp(&out.decVal.scale, &d.scale, sizeof d - 2), 0);
  LONG l = -7;
  ref.vt = VT_BYREF | VT_I4;
  ref.plVal = &l;
  ASSERT_EQ(VariantCopyInd(&ref, &ref), S_OK);
  EXPECT_EQ(ref.vt, VT_I4);
  EXPECT_EQ(ref.lVal, -7);
  VariantClear(&src);
  EXPECT_EQ(LiveBstrs(), base);
}

// What VariantChangeType answers for each value is compared with the system's own conversions by the differential probe
// (tests/differential/probe_variant.cpp), and the strings of the conversions the provider makes are counted by the leak
// checks of the conversion and expression suites. What is left here is what neither can see: the ISO forms the layer
// reads beyond the system's parser, whose values the probe only lists as differences.
#ifndef _WIN32
TEST(VariantDateConversion, IsoTextWithTZoneAndFractionReads) {
  const DATE jan2 = 43832;  // 2020-01-02
  const struct { std::u16string text; HRESULT hr; DATE date; } cases[] = {
      {u"2020-01-02T15:04:05Z", S_OK, jan2 + (15 * 3600 + 4 * 60 + 5) / 86400.0},
      {u"2020-01-02T15:04:05.250", S_OK, jan2 + (15 * 3600 + 4 * 60 + 5.25) / 86400.0},
      {u"2020-01-02T25:00:00", DISP_E_TYPEMISMATCH, -1},
  };
  for (auto c : cases) {
    DATE date = -1;
    EXPECT_EQ(VarDateFromStr(c.text.data(), 0x0409, 0, &date), c.hr);
    EXPECT_NEAR(date, c.date, 1e-9);
  }
}

// FILETIME <-> SYSTEMTIME: named instants, random instants, the limits and each invalid field are compared with the
// system's answers by the differential probe (tests/differential/probe_time.cpp). Kept here: the cases where Wine,
// which runs the Windows build, answers differently from Windows.
SYSTEMTIME St(WORD y, WORD mo, WORD d) { return SYSTEMTIME{y, mo, 0, d, 0, 0, 0, 0}; }

TEST(FileTimeCalendar, OnlyRealDatesUpToTheYear30827Convert) {
  // Wine converts any year whose instant still fits, and takes 29 February in every year.
  for (const SYSTEMTIME& st : {St(30828, 1, 1), St(2021, 2, 29), St(1900, 2, 29), St(2100, 2, 29)}) {
    FILETIME ft{0x12345678, 0x9ABC};
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft)) << st.wYear << "-" << st.wMonth << "-" << st.wDay;
  }
  for (const SYSTEMTIME& st : {St(2000, 2, 29), St(2024, 2, 29)}) {
    FILETIME ft{};
    EXPECT_TRUE(SystemTimeToFileTime(&st, &ft)) << st.wYear;
  }
}
#endif

}  // namespace

namespace corvane::platform {

using Clock = std::chrono::steady_clock;

namespace {
int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
}  // namespace

TEST(Events, ManualResetStaysSignalledAutoResetReleasesExactlyOneWaiterPerSet) {
  Event manual(Event::Mode::ManualReset);
  EXPECT_FALSE(manual.Wait(0));
  manual.Set();
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.Wait(0)) << "a manual-reset event is not consumed by a wait";
  manual.Reset();
  EXPECT_FALSE(manual.IsSet());
  EXPECT_FALSE(manual.Wait(0));
  EXPECT_TRUE(Event(Event::Mode::ManualReset, true).Wait(0));

  Event e(Event::Mode::AutoReset, true);
  EXPECT_TRUE(e.Wait(0));
  EXPECT_FALSE(e.Wait(0)) << "the first wait consumed the signal";
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { woken += e.Wait(2000) ? 1 : 0; });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  e.Set();
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ(woken, 1);
  // A Set on an event that is still set does nothing, so each one waits to be taken.
  for (int expected = 2; expected <= 3; ++expected) {
    e.Set();
    const auto start = Clock::now();
    while (woken < expected && MsSince(start) < 2000) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(woken, expected);
  }
  for (auto& t : waiters) t.join();
  EXPECT_FALSE(e.IsSet());
}

TEST(Events, WaitEitherLetsTheFirstEventWin) {
  Event stop(Event::Mode::ManualReset), work(Event::Mode::AutoReset);
  EXPECT_EQ(Event::WaitEither(stop, work, 0), -1);
  work.Set();
  stop.Set();
  EXPECT_EQ(Event::WaitEither(stop, work, 0), 0) << "both set: the first wins";
  EXPECT_TRUE(work.IsSet()) << "the losing auto-reset event keeps its signal";
  stop.Reset();
  EXPECT_EQ(Event::WaitEither(stop, work, 0), 1);
  EXPECT_FALSE(work.IsSet()) << "the winning auto-reset event is consumed";

  const auto start = Clock::now();
  EXPECT_EQ(Event::WaitEither(stop, work, 60), -1);
  EXPECT_GE(MsSince(start), 55);

  std::thread setter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    work.Set();
  });
  EXPECT_EQ(Event::WaitEither(stop, work, 5000), 1);
  setter.join();
}

TEST(Locks, CriticalSectionIsReentrantAndExcludesOtherThreads) {
  CriticalSection cs;
  CriticalSectionLock outer(cs);
  {
    CriticalSectionLock inner(cs);  // would deadlock if not recursive
    bool otherGotIt = true;
    std::thread([&] { otherGotIt = cs.TryEnter(); }).join();
    EXPECT_FALSE(otherGotIt);
  }
  bool stillHeld = true;
  std::thread([&] { stillHeld = !cs.TryEnter(); }).join();
  EXPECT_TRUE(stillHeld) << "one Leave of two Enters keeps the lock";
}

TEST(Workers, RunTheBodyOnAnotherThreadJoinAndAreWaitedForOnDestruction) {
  WorkerThread worker;
  std::atomic<bool> ranOnWorker{false};
  Event release(Event::Mode::ManualReset);
  ASSERT_TRUE(worker.Start([&] {
    ranOnWorker = worker.IsCurrentThread();
    release.Wait(5000);
  }));
  EXPECT_TRUE(worker.Joinable());
  EXPECT_FALSE(worker.IsCurrentThread());
  EXPECT_FALSE(worker.Start([] {})) << "one body at a time";
  release.Set();
  worker.Join();
  EXPECT_TRUE(ranOnWorker);
  EXPECT_FALSE(worker.Joinable());
  std::atomic<bool> second{false};
  ASSERT_TRUE(worker.Start([&] { second = true; }, false)) << "a joined worker can start again";
  worker.Join();
  EXPECT_TRUE(second);
  std::atomic<bool> finished{false};
  {
    WorkerThread destroyed;
    ASSERT_TRUE(destroyed.Start([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
      finished = true;
    }));
  }
  EXPECT_TRUE(finished) << "the destructor waits for the body";
}

}  // namespace corvane::platform

// The POSIX layer must lay data out exactly as the Windows SDK does: these structures cross
// interfaces and are written into consumers' buffers. Member by member, with the offsets of
// the 64-bit Windows SDK (the Windows build compiles this same file against the SDK).
#define SIZE(T, n) static_assert(sizeof(T) == n, #T);
#define AT(T, m, n) static_assert(offsetof(T, m) == n, #T "." #m);
SIZE(DBBINDING, 88) AT(DBBINDING, iOrdinal, 0) AT(DBBINDING, obValue, 8) AT(DBBINDING, obLength, 16)
    AT(DBBINDING, obStatus, 24) AT(DBBINDING, pTypeInfo, 32) AT(DBBINDING, pObject, 40) AT(DBBINDING, pBindExt, 48)
    AT(DBBINDING, dwPart, 56) AT(DBBINDING, dwMemOwner, 60) AT(DBBINDING, eParamIO, 64) AT(DBBINDING, cbMaxLen, 72)
    AT(DBBINDING, dwFlags, 80) AT(DBBINDING, wType, 84) AT(DBBINDING, bPrecision, 86) AT(DBBINDING, bScale, 87)
SIZE(DBID, 32) AT(DBID, uGuid, 0) AT(DBID, eKind, 16) AT(DBID, uName, 24)
SIZE(DBCOLUMNINFO, 80) AT(DBCOLUMNINFO, pwszName, 0) AT(DBCOLUMNINFO, pTypeInfo, 8) AT(DBCOLUMNINFO, iOrdinal, 16)
    AT(DBCOLUMNINFO, dwFlags, 24) AT(DBCOLUMNINFO, ulColumnSize, 32) AT(DBCOLUMNINFO, wType, 40)
    AT(DBCOLUMNINFO, bPrecision, 42) AT(DBCOLUMNINFO, bScale, 43) AT(DBCOLUMNINFO, columnid, 48)
SIZE(DBPROP, 72) AT(DBPROP, dwPropertyID, 0) AT(DBPROP, dwOptions, 4) AT(DBPROP, dwStatus, 8) AT(DBPROP, colid, 16)
    AT(DBPROP, vValue, 48)
SIZE(DBPROPSET, 32) AT(DBPROPSET, rgProperties, 0) AT(DBPROPSET, cProperties, 8) AT(DBPROPSET, guidPropertySet, 12)
SIZE(DBPROPIDSET, 32) AT(DBPROPIDSET, rgPropertyIDs, 0) AT(DBPROPIDSET, cPropertyIDs, 8)
    AT(DBPROPIDSET, guidPropertySet, 12)
SIZE(DBPROPINFO, 48) AT(DBPROPINFO, pwszDescription, 0) AT(DBPROPINFO, dwPropertyID, 8) AT(DBPROPINFO, dwFlags, 12)
    AT(DBPROPINFO, vtType, 16) AT(DBPROPINFO, vValues, 24)
SIZE(DBPROPINFOSET, 32) AT(DBPROPINFOSET, rgPropertyInfos, 0) AT(DBPROPINFOSET, cPropertyInfos, 8)
    AT(DBPROPINFOSET, guidPropertySet, 12)
SIZE(DBPARAMINFO, 48) AT(DBPARAMINFO, dwFlags, 0) AT(DBPARAMINFO, iOrdinal, 8) AT(DBPARAMINFO, pwszName, 16)
    AT(DBPARAMINFO, pTypeInfo, 24) AT(DBPARAMINFO, ulParamSize, 32) AT(DBPARAMINFO, wType, 40)
    AT(DBPARAMINFO, bPrecision, 42) AT(DBPARAMINFO, bScale, 43)
SIZE(DBPARAMBINDINFO, 32) AT(DBPARAMBINDINFO, pwszDataSourceType, 0) AT(DBPARAMBINDINFO, pwszName, 8)
    AT(DBPARAMBINDINFO, ulParamSize, 16) AT(DBPARAMBINDINFO, dwFlags, 24) AT(DBPARAMBINDINFO, bPrecision, 28)
    AT(DBPARAMBINDINFO, bScale, 29)
SIZE(DBPARAMS, 24) AT(DBPARAMS, pData, 0) AT(DBPARAMS, cParamSets, 8) AT(DBPARAMS, hAccessor, 16)
SIZE(DBOBJECT, 20) AT(DBOBJECT, dwFlags, 0) AT(DBOBJECT, iid, 4)
SIZE(DBLITERALINFO, 40) AT(DBLITERALINFO, lt, 24) AT(DBLITERALINFO, fSupported, 28) AT(DBLITERALINFO, cchMaxLen, 32)
SIZE(DBDATE, 6) SIZE(DBTIME, 6) SIZE(DB_NUMERIC, 19) SIZE(DBVECTOR, 16)
SIZE(DCINFO, 32) AT(DCINFO, vData, 8)
SIZE(ERRORINFO, 44) AT(ERRORINFO, hrError, 0) AT(ERRORINFO, dwMinor, 4) AT(ERRORINFO, clsid, 8)
    AT(ERRORINFO, iid, 24) AT(ERRORINFO, dispid, 40)
SIZE(DISPPARAMS, 24) AT(DISPPARAMS, rgvarg, 0) AT(DISPPARAMS, rgdispidNamedArgs, 8) AT(DISPPARAMS, cArgs, 16)
    AT(DISPPARAMS, cNamedArgs, 20)
SIZE(TIME_ZONE_INFORMATION, 172) AT(TIME_ZONE_INFORMATION, StandardName, 4)
    AT(TIME_ZONE_INFORMATION, StandardDate, 68) AT(TIME_ZONE_INFORMATION, StandardBias, 84)
    AT(TIME_ZONE_INFORMATION, DaylightName, 88) AT(TIME_ZONE_INFORMATION, DaylightDate, 152)
    AT(TIME_ZONE_INFORMATION, DaylightBias, 168)
SIZE(LARGE_INTEGER, 8)
SIZE(DECIMAL, 16) AT(DECIMAL, scale, 2) AT(DECIMAL, sign, 3) AT(DECIMAL, Hi32, 4) AT(DECIMAL, Lo32, 8)
    AT(DECIMAL, Mid32, 12)
SIZE(SAFEARRAY, 32) AT(SAFEARRAY, pvData, 16) AT(SAFEARRAY, rgsabound, 24)
SIZE(DBREFCOUNT, 4) SIZE(DBHASHVALUE, 8) SIZE(DBLENGTH, 8) SIZE(HACCESSOR, 8) SIZE(DBTYPE, 2) SIZE(DBSTATUS, 4)
SIZE(DBROWCOUNT, 8)
// The base types: 32-bit LONG as on Windows, one UTF-16 code unit per OLECHAR.
SIZE(VARIANT, 24) AT(VARIANT, vt, 0) AT(VARIANT, lVal, 8) AT(VARIANT, llVal, 8) AT(VARIANT, bstrVal, 8)
    AT(VARIANT, decVal, 0)  // a DECIMAL takes the whole VARIANT, its reserved word over vt
SIZE(DBTIMESTAMP, 16) AT(DBTIMESTAMP, fraction, 12) SIZE(FILETIME, 8) SIZE(SYSTEMTIME, 16) SIZE(GUID, 16)
SIZE(OLECHAR, 2) SIZE(CY, 8) SIZE(HRESULT, 4) SIZE(ULONG, 4) SIZE(LONG, 4)

#undef SIZE
#undef AT

namespace {
// Slot of a virtual method in its vtable. Every compiler we build with (g++ and clang on Linux, mingw g++ for Windows)
// follows the Itanium C++ ABI, where a pointer to a virtual member function holds 1 + the slot's byte offset.
template <typename Method>
size_t Slot(Method method) {
  static_assert(sizeof(Method) == 2 * sizeof(uintptr_t), "Itanium member-function pointer");
  uintptr_t raw[2];
  std::memcpy(raw, &method, sizeof raw);
  return (raw[0] - 1) / sizeof(void*);
}
}  // namespace

// Objects cross between the provider and consumers built against the SDK, so every
// method must sit in the slot the SDK gives it (IUnknown takes slots 0 to 2).
TEST(Layout, InterfaceMethodsSitInTheSdkVtableSlots) {
#define SLOT(method, n) EXPECT_EQ(Slot(&method), size_t{n}) << #method;
  SLOT(IClassFactory::CreateInstance, 3) SLOT(IClassFactory::LockServer, 4) SLOT(IDBInitialize::Initialize, 3)
  SLOT(IDBInitialize::Uninitialize, 4) SLOT(IDBProperties::GetProperties, 3) SLOT(IDBProperties::GetPropertyInfo, 4)
  SLOT(IDBProperties::SetProperties, 5) SLOT(IDBCreateSession::CreateSession, 3) SLOT(IDBInfo::GetKeywords, 3)
  SLOT(IDBInfo::GetLiteralInfo, 4) SLOT(IPersist::GetClassID, 3) SLOT(IDBCreateCommand::CreateCommand, 3)
  SLOT(IOpenRowset::OpenRowset, 3) SLOT(IGetDataSource::GetDataSource, 3) SLOT(ISessionProperties::GetProperties, 3)
  SLOT(ISessionProperties::SetProperties, 4) SLOT(IDBSchemaRowset::GetRowset, 3) SLOT(IDBSchemaRowset::GetSchemas, 4)
  SLOT(ICommand::Cancel, 3) SLOT(ICommand::Execute, 4) SLOT(ICommand::GetDBSession, 5)
  SLOT(ICommandText::GetCommandText, 6) SLOT(ICommandText::SetCommandText, 7) SLOT(ICommandPrepare::Prepare, 3)
  SLOT(ICommandPrepare::Unprepare, 4) SLOT(ICommandProperties::GetProperties, 3)
  SLOT(ICommandProperties::SetProperties, 4) SLOT(ICommandWithParameters::GetParameterInfo, 3)
  SLOT(ICommandWithParameters::MapParameterNames, 4) SLOT(ICommandWithParameters::SetParameterInfo, 5)
  SLOT(IAccessor::AddRefAccessor, 3) SLOT(IAccessor::CreateAccessor, 4) SLOT(IAccessor::GetBindings, 5)
  SLOT(IAccessor::ReleaseAccessor, 6) SLOT(IRowset::AddRefRows, 3) SLOT(IRowset::GetData, 4)
  SLOT(IRowset::GetNextRows, 5) SLOT(IRowset::ReleaseRows, 6) SLOT(IRowset::RestartPosition, 7)
  SLOT(IRowsetInfo::GetProperties, 3) SLOT(IRowsetInfo::GetReferencedRowset, 4)
  SLOT(IRowsetInfo::GetSpecification, 5) SLOT(IColumnsInfo::GetColumnInfo, 3) SLOT(IColumnsInfo::MapColumnIDs, 4)
  SLOT(IConvertType::CanConvert, 3) SLOT(IMultipleResults::GetResult, 3) SLOT(IDataConvert::DataConvert, 3)
  SLOT(IDataConvert::CanConvert, 4) SLOT(IDataConvert::GetConversionSize, 5) SLOT(IDCInfo::GetInfo, 3)
  SLOT(IDCInfo::SetInfo, 4) SLOT(IErrorInfo::GetGUID, 3) SLOT(IErrorInfo::GetHelpContext, 7)
  SLOT(ISupportErrorInfo::InterfaceSupportsErrorInfo, 3) SLOT(IErrorRecords::AddErrorRecord, 3)
  SLOT(IErrorRecords::GetBasicErrorInfo, 4) SLOT(IErrorRecords::GetCustomErrorObject, 5)
  SLOT(IErrorRecords::GetErrorInfo, 6) SLOT(IErrorRecords::GetErrorParameters, 7)
  SLOT(IErrorRecords::GetRecordCount, 8) SLOT(IErrorLookup::GetErrorDescription, 3)
  SLOT(IErrorLookup::ReleaseErrors, 5)
#undef SLOT
}
