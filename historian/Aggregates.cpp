#include "historian/Aggregates.h"

#include <mutex>
#include <new>

#include "base/ComPtr.h"
#include "historian/ProcessedDataProvider.h"
#include "platform/ClassObject.h"

namespace corvane::historian {

namespace {

std::atomic<long> g_objects{0};

std::mutex g_registrationLock;
bool g_registered = false;
DWORD g_registrationCookie = 0;

}  // namespace

long AggregatesObjectCount() { return g_objects.load(); }
void AggregatesObjectCreated() { ++g_objects; }
void AggregatesObjectDestroyed() { --g_objects; }

// ---- CAggregates -----------------------------------------------------------------------

CAggregates::CAggregates() { AggregatesObjectCreated(); }
CAggregates::~CAggregates() { AggregatesObjectDestroyed(); }

HRESULT CAggregates::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (outer) return CLASS_E_NOAGGREGATION;
  auto* object = new (std::nothrow) CAggregates();
  if (!object) return E_OUTOFMEMORY;
  const HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();
  return hr;
}

HRESULT STDMETHODCALLTYPE CAggregates::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IAggregates)) {
    *ppv = static_cast<IAggregates*>(this);
    AddRef();
    return S_OK;
  }
  return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CAggregates::AddRef() { return ++refs_; }

ULONG STDMETHODCALLTYPE CAggregates::Release() {
  const ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

HRESULT STDMETHODCALLTYPE CAggregates::CreateProcessedDataProvider(IRawDataProvider* raw,
                                                              IProcessedDataProvider** processed) {
  return CProcessedDataProvider::Create(raw, processed);
}

// ---- Class factory ---------------------------------------------------------------------

CAggregatesClassFactory::CAggregatesClassFactory() { AggregatesObjectCreated(); }
CAggregatesClassFactory::~CAggregatesClassFactory() { AggregatesObjectDestroyed(); }

HRESULT CAggregatesClassFactory::Create(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  auto* factory = new (std::nothrow) CAggregatesClassFactory();
  if (!factory) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(riid, ppv);
  factory->Release();
  return hr;
}

HRESULT STDMETHODCALLTYPE CAggregatesClassFactory::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CAggregatesClassFactory::AddRef() { return ++refs_; }

ULONG STDMETHODCALLTYPE CAggregatesClassFactory::Release() {
  const ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

HRESULT STDMETHODCALLTYPE CAggregatesClassFactory::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  return CAggregates::CreateInstance(outer, riid, ppv);
}

HRESULT STDMETHODCALLTYPE CAggregatesClassFactory::LockServer(BOOL lock) {
  if (lock) {
    AggregatesObjectCreated();
  } else {
    AggregatesObjectDestroyed();
  }
  return S_OK;
}

// ---- Registration in this process --------------------------------------------------------

HRESULT RegisterAggregatesComponent() {
  std::lock_guard<std::mutex> lock(g_registrationLock);
  if (g_registered) return S_OK;
  ComPtr<IClassFactory> factory;
  HRESULT hr = CAggregatesClassFactory::Create(IID_IClassFactory, factory.PutVoid());
  if (FAILED(hr)) return hr;
  hr = platform::RegisterProcessClass(CLSID_CorvaneHistoryAggregates, CORVANE_AGGREGATES_PROGID, factory.Get(),
                                      &g_registrationCookie);
  if (SUCCEEDED(hr)) g_registered = true;
  return hr;
}

HRESULT UnregisterAggregatesComponent() {
  std::lock_guard<std::mutex> lock(g_registrationLock);
  if (!g_registered) return S_FALSE;
  const HRESULT hr = platform::RevokeProcessClass(CLSID_CorvaneHistoryAggregates, g_registrationCookie);
  if (SUCCEEDED(hr)) g_registered = false;
  return hr;
}

}  // namespace corvane::historian
