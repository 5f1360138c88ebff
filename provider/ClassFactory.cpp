#include "provider/ClassFactory.h"

#include <new>

#include "provider/Module.h"

HRESULT CClassFactory::Create(CreateFn create, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  auto* factory = new (std::nothrow) CClassFactory(create);
  if (!factory) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(riid, ppv);
  factory->Release();
  return hr;
}

HRESULT CClassFactory::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

ULONG CClassFactory::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CClassFactory::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT CClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
  return create_(pUnkOuter, riid, ppv);
}

HRESULT CClassFactory::LockServer(BOOL fLock) {
  if (fLock)
    corvane::module::Lock();
  else
    corvane::module::Unlock();
  return S_OK;
}
