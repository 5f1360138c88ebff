// The aggregates component: a COM class whose IAggregates builds a processed history
// provider (CProcessedDataProvider) over any raw history provider. It is found by the
// ProgID "Quellix.HistoryAggregates_VLD64" under CLSID_CorvaneHistoryAggregates
// {EBB2B0B2-F53B-4C41-9693-AD8EE439B16A}: on POSIX through the platform class registry
// (RegisterAggregatesComponent), on Windows through the registry keys that the
// component's own DLL writes (DllRegisterServer), or in-process through
// RegisterAggregatesComponent (CoRegisterClassObject, found by CLSID only).
#pragma once
#include <atomic>

#include "base/HistorianInterfaces.h"

namespace corvane::historian {

inline constexpr GUID CLSID_CorvaneHistoryAggregates = {
    0xEBB2B0B2, 0xF53B, 0x4C41, {0x96, 0x93, 0xAD, 0x8E, 0xE4, 0x39, 0xB1, 0x6A}};

class CAggregates final : public IAggregates {
 public:
  static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE CreateProcessedDataProvider(IRawDataProvider* raw,
                                                    IProcessedDataProvider** processed) override;

 private:
  CAggregates();
  ~CAggregates();
  std::atomic<ULONG> refs_{1};
};

// The class factory of CAggregates; it also carries the module's server locks.
class CAggregatesClassFactory final : public IClassFactory {
 public:
  static HRESULT Create(REFIID riid, void** ppv);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override;

 private:
  CAggregatesClassFactory();
  ~CAggregatesClassFactory();
  std::atomic<ULONG> refs_{1};
};

// Live objects of the component plus server locks: zero means the module may unload.
long AggregatesObjectCount();
void AggregatesObjectCreated();
void AggregatesObjectDestroyed();

// Makes the component creatable in this process (see the top of this file). Idempotent:
// a second call while registered does nothing. Unregister undoes it.
HRESULT RegisterAggregatesComponent();
HRESULT UnregisterAggregatesComponent();

}  // namespace corvane::historian
