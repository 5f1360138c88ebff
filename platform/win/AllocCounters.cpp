// Windows side of the allocation counters: an IMallocSpy registered with
// CoRegisterMallocSpy sees every block of the COM task allocator (CoTaskMemAlloc,
// CoTaskMemRealloc, CoTaskMemFree and IMalloc itself).
//
// BSTRs: oleaut32 allocates them from the same task allocator, so the spy sees them
// too, but cannot be told which blocks they are. We tell them apart by who asked:
// at allocation time the spy walks a few frames of the stack, skips its own module
// and the COM allocator (ole32/combase), and counts the block as a BSTR when the first
// caller beyond that is oleaut32. Everything oleaut32 allocates therefore counts as a
// BSTR (that also covers SAFEARRAY memory, which this provider does not use), and
// everything else as a COM block. oleaut32 keeps freed BSTRs in a cache; SetOaNoCache
// turns that off so a freed BSTR is seen as freed at once.
//
// What we found under Wine 8: CoRegisterMallocSpy works, the spy is called for every
// task-allocator call including those made by oleaut32, SysAllocString goes through
// CoTaskMemAlloc, SetOaNoCache is exported and disables the cache, and
// RtlCaptureStackBackTrace unwinds through Wine's PE modules, so both counts work.
// COM's own bookkeeping (CoInitializeEx, CLSIDFromProgID, a failed CoCreateInstance,
// CoUninitialize) leaves nothing counted, and VariantChangeType to VT_BSTR and
// SysReAllocString count as one BSTR each until freed.
// (The allocation-counting suite checks exactly this on every run.)
#include "platform/AllocCounters.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

#include "platform/Platform.h"

namespace corvane::platform {
namespace {

enum class Kind : unsigned char { Com, Bstr };

HMODULE ModuleOf(const void* address) {
  HMODULE m = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          static_cast<LPCWSTR>(address), &m))
    return nullptr;
  return m;
}

class CountingSpy final : public IMallocSpy {
 public:
  CountingSpy() {
    self_ = ModuleOf(reinterpret_cast<const void*>(&ModuleOf));
    ole32_ = GetModuleHandleW(L"ole32.dll");
    combase_ = GetModuleHandleW(L"combase.dll");
    oleaut32_ = GetModuleHandleW(L"oleaut32.dll");
  }

  AllocCounts Counts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
  }

  // IUnknown: the spy is a process-lifetime object, reference counts are moot.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IMallocSpy)) {
      *ppv = static_cast<IMallocSpy*>(this);
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }

  SIZE_T STDMETHODCALLTYPE PreAlloc(SIZE_T cbRequest) override { return cbRequest; }
  void* STDMETHODCALLTYPE PostAlloc(void* pActual) override {
    if (pActual) Add(pActual, Classify());
    return pActual;
  }

  void* STDMETHODCALLTYPE PreFree(void* pRequest, BOOL /*fSpyed*/) override {
    if (pRequest) Remove(pRequest);
    return pRequest;
  }
  void STDMETHODCALLTYPE PostFree(BOOL /*fSpyed*/) override {}

  SIZE_T STDMETHODCALLTYPE PreRealloc(void* pRequest, SIZE_T cbRequest, void** ppNewRequest,
                                      BOOL /*fSpyed*/) override {
    *ppNewRequest = pRequest;
    if (pRequest && cbRequest == 0) {
      // Realloc to zero bytes frees the block. Count it here: Wine's allocator frees it
      // without calling PostRealloc.
      Remove(pRequest);
      pendingOld_ = nullptr;
      pendingSize_ = 0;
      pendingFreed_ = true;
      return cbRequest;
    }
    pendingFreed_ = false;
    pendingOld_ = pRequest;
    pendingSize_ = cbRequest;
    return cbRequest;
  }
  void* STDMETHODCALLTYPE PostRealloc(void* pActual, BOOL /*fSpyed*/) override {
    void* old = pendingOld_;
    pendingOld_ = nullptr;
    if (pendingFreed_) {
      pendingFreed_ = false;
      return pActual;
    }
    if (!old) {
      // Realloc of null is an allocation.
      if (pActual) Add(pActual, Classify());
    } else if (pActual) {
      // The block moved or stayed; it keeps its kind and is counted only if the old
      // one was (blocks from before counting began stay uncounted).
      Move(old, pActual);
    } else if (pendingSize_ == 0) {
      Remove(old);  // realloc to zero bytes frees
    }
    return pActual;
  }

  void* STDMETHODCALLTYPE PreGetSize(void* pRequest, BOOL /*fSpyed*/) override { return pRequest; }
  SIZE_T STDMETHODCALLTYPE PostGetSize(SIZE_T cbActual, BOOL /*fSpyed*/) override { return cbActual; }
  void* STDMETHODCALLTYPE PreDidAlloc(void* pRequest, BOOL /*fSpyed*/) override { return pRequest; }
  int STDMETHODCALLTYPE PostDidAlloc(void* /*pRequest*/, BOOL /*fSpyed*/, int fActual) override { return fActual; }
  void STDMETHODCALLTYPE PreHeapMinimize() override {}
  void STDMETHODCALLTYPE PostHeapMinimize() override {}

 private:
  Kind Classify() const {
    void* frames[24];
    const USHORT n = RtlCaptureStackBackTrace(1, 24, frames, nullptr);
    USHORT i = 0;
    while (i < n && ModuleOf(frames[i]) == self_) ++i;
    for (; i < n; ++i) {
      const HMODULE m = ModuleOf(frames[i]);
      if (m && (m == ole32_ || m == combase_)) continue;
      return m && m == oleaut32_ ? Kind::Bstr : Kind::Com;
    }
    return Kind::Com;
  }

  int64_t& Counter(Kind k) { return k == Kind::Bstr ? counts_.bstrs : counts_.comBlocks; }

  void Add(void* p, Kind k) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto [it, inserted] = blocks_.emplace(p, k);
    if (!inserted) {
      // The allocator handed out an address we still thought live: its free went
      // past us. Count the block as the new kind.
      --Counter(it->second);
      it->second = k;
    }
    ++Counter(k);
  }
  void Remove(void* p) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = blocks_.find(p);
    if (it == blocks_.end()) return;
    --Counter(it->second);
    blocks_.erase(it);
  }
  void Move(void* from, void* to) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = blocks_.find(from);
    if (it == blocks_.end()) return;
    const Kind k = it->second;
    blocks_.erase(it);
    blocks_[to] = k;
  }

  HMODULE self_, ole32_, combase_, oleaut32_;
  std::mutex mutex_;
  std::unordered_map<void*, Kind> blocks_;
  AllocCounts counts_;
  static thread_local void* pendingOld_;
  static thread_local SIZE_T pendingSize_;
  static thread_local bool pendingFreed_;
};

thread_local void* CountingSpy::pendingOld_ = nullptr;
thread_local SIZE_T CountingSpy::pendingSize_ = 0;
thread_local bool CountingSpy::pendingFreed_ = false;

std::once_flag g_startOnce;
std::atomic<CountingSpy*> g_spy{nullptr};

}  // namespace

void StartAllocCounting() {
  std::call_once(g_startOnce, [] {
    // oleaut32 must be loaded before the spy looks up its module handle.
    HMODULE oleaut = LoadLibraryW(L"oleaut32.dll");
    if (oleaut) {
      using SetOaNoCacheFn = void(WINAPI*)();
      auto setNoCache = reinterpret_cast<SetOaNoCacheFn>(
          reinterpret_cast<void*>(GetProcAddress(oleaut, "SetOaNoCache")));
      if (setNoCache) setNoCache();
    }
    // Intentionally never deleted: the spy stays registered until the process ends.
    auto* spy = new CountingSpy();
    if (SUCCEEDED(CoRegisterMallocSpy(spy))) g_spy.store(spy, std::memory_order_release);
  });
}

AllocCounts CurrentAllocCounts() {
  CountingSpy* spy = g_spy.load(std::memory_order_acquire);
  return spy ? spy->Counts() : AllocCounts{};
}

}  // namespace corvane::platform
