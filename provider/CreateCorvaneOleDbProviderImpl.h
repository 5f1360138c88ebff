// The creation object (CLSID_CorvaneOleDbProvider): a historian host creates it and
// calls Create with its own object to get a data source wired to the host's raw,
// processed and values interfaces. It keeps no state besides its reference count.
#pragma once
#include <atomic>

#include "provider/ICreateCorvaneOleDbProvider.h"

class CCreateCorvaneOleDbProviderImpl final : public ICreateCorvaneOleDbProvider {
 public:
  // Creates the object (no aggregation) and returns interface `riid` of it.
  static HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE Create(IUnknown* pProvider, IUnknown** ppUnk) override;

 private:
  CCreateCorvaneOleDbProviderImpl();
  ~CCreateCorvaneOleDbProviderImpl();
  std::atomic<ULONG> refs_{1};
};
