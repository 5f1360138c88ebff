// The per-process class registry that stands in for the system registry on POSIX:
// factories are registered in-process under a CLSID and an optional ProgID, and the
// creation functions answer with the codes Windows gives for the same situations.
#include <map>
#include <new>
#include <mutex>
#include <string>

#include "platform/Platform.h"

namespace {

struct GuidLess {
  bool operator()(const GUID& a, const GUID& b) const { return std::memcmp(&a, &b, sizeof(GUID)) < 0; }
};

// ProgIDs are registry key names, which Windows compares ignoring case.
std::u16string FoldProgId(LPCOLESTR progId) {
  std::u16string folded;
  for (; *progId; ++progId) {
    OLECHAR c = *progId;
    folded.push_back(c >= u'a' && c <= u'z' ? static_cast<OLECHAR>(c - u'a' + u'A') : c);
  }
  return folded;
}

struct Entry {
  IClassFactory* factory = nullptr;  // one reference held by the registry
  std::u16string progId;             // folded; empty when none
};

struct Registry {
  std::mutex mutex;
  std::map<GUID, Entry, GuidLess> classes;
  std::map<std::u16string, GUID> progIds;
};

// Never destroyed: factories may be released by code running during static
// destruction, and the registry must still be there for them. It lives in static
// storage rather than on the heap, so a module that is unloaded with nothing registered
// leaves no block behind (empty maps own no memory).
Registry& TheRegistry() {
  alignas(Registry) static unsigned char storage[sizeof(Registry)];
  static Registry* registry = new (storage) Registry;
  return *registry;
}

// The factory for a class with one extra reference the caller releases, or null.
IClassFactory* AcquireFactory(REFCLSID clsid) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.classes.find(clsid);
  if (it == r.classes.end()) return nullptr;
  it->second.factory->AddRef();
  return it->second.factory;
}

// Removes an entry under the lock and returns its factory for release outside it:
// a factory's Release may run arbitrary code, including calls back into here.
IClassFactory* DetachLocked(Registry& r, REFCLSID clsid) {
  auto it = r.classes.find(clsid);
  if (it == r.classes.end()) return nullptr;
  IClassFactory* factory = it->second.factory;
  if (!it->second.progId.empty()) {
    auto p = r.progIds.find(it->second.progId);
    if (p != r.progIds.end() && IsEqualGUID(p->second, clsid)) r.progIds.erase(p);
  }
  r.classes.erase(it);
  return factory;
}

bool InProcess(DWORD context) { return (context & (CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER)) != 0; }

}  // namespace

namespace corvane::platform {

HRESULT RegisterClass(REFCLSID clsid, LPCOLESTR progId, IClassFactory* factory) {
  if (!factory) return E_INVALIDARG;
  std::u16string folded = progId ? FoldProgId(progId) : std::u16string();
  factory->AddRef();
  IClassFactory* previous = nullptr;
  {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    previous = DetachLocked(r, clsid);
    if (!folded.empty()) {
      // A ProgID names one class; taking it over drops the older class's claim.
      auto p = r.progIds.find(folded);
      if (p != r.progIds.end()) {
        auto owner = r.classes.find(p->second);
        if (owner != r.classes.end()) owner->second.progId.clear();
      }
      r.progIds[folded] = clsid;
    }
    r.classes[clsid] = Entry{factory, folded};
  }
  if (previous) previous->Release();
  return S_OK;
}

HRESULT UnregisterClass(REFCLSID clsid) {
  IClassFactory* factory = nullptr;
  {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    factory = DetachLocked(r, clsid);
  }
  if (!factory) return REGDB_E_CLASSNOTREG;
  factory->Release();
  return S_OK;
}

}  // namespace corvane::platform

extern "C" {

HRESULT CoGetClassObject(REFCLSID rclsid, DWORD dwClsContext, LPVOID pvReserved, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_INVALIDARG;
  *ppv = nullptr;
  if (!InProcess(dwClsContext)) return REGDB_E_CLASSNOTREG;
  IClassFactory* factory = AcquireFactory(rclsid);
  if (!factory) return REGDB_E_CLASSNOTREG;
  HRESULT hr = factory->QueryInterface(riid, ppv);
  factory->Release();
  return hr;
}

HRESULT CoCreateInstance(REFCLSID rclsid, LPUNKNOWN pUnkOuter, DWORD dwClsContext, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (!InProcess(dwClsContext)) return REGDB_E_CLASSNOTREG;
  IClassFactory* factory = AcquireFactory(rclsid);
  if (!factory) return REGDB_E_CLASSNOTREG;
  HRESULT hr = factory->CreateInstance(pUnkOuter, riid, ppv);
  factory->Release();
  if (FAILED(hr)) *ppv = nullptr;
  return hr;
}

HRESULT CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid) {
  if (!lpszProgID || !lpclsid) return E_INVALIDARG;
  const std::u16string folded = FoldProgId(lpszProgID);
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = folded.empty() ? r.progIds.end() : r.progIds.find(folded);
  if (it == r.progIds.end()) {
    *lpclsid = CLSID_NULL;
    return CO_E_CLASSSTRING;
  }
  *lpclsid = it->second;
  return S_OK;
}

}  // extern "C"
