// The class object that DllGetClassObject (or, on POSIX, the process's class registry)
// hands out for each creatable class of the module: it creates instances through the
// class's own creation function and holds the module while the server is locked.
#pragma once
#include <atomic>

#include "platform/Platform.h"

class CClassFactory final : public IClassFactory {
 public:
  using CreateFn = HRESULT (*)(IUnknown* pUnkOuter, REFIID riid, void** ppv);

  // A new factory of `create`, asked for `riid`.
  static HRESULT Create(CreateFn create, REFIID riid, void** ppv);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL fLock) override;

 private:
  explicit CClassFactory(CreateFn create) : create_(create) {}
  const CreateFn create_;
  std::atomic<ULONG> refs_{1};
};
