#include "provider/CreateCorvaneOleDbProviderImpl.h"

#include <new>

#include "base/ComPtr.h"
#include "base/HistorianInterfaces.h"
#include "provider/Module.h"
#include "provider/ProviderDataSource.h"
#include "base/Trace.h"

using corvane::ComPtr;

HRESULT CCreateCorvaneOleDbProviderImpl::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (pUnkOuter) return CLASS_E_NOAGGREGATION;
  auto* object = new (std::nothrow) CCreateCorvaneOleDbProviderImpl();
  if (!object) return E_OUTOFMEMORY;
  const HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();
  return hr;
}

CCreateCorvaneOleDbProviderImpl::CCreateCorvaneOleDbProviderImpl() { corvane::module::Lock(); }
CCreateCorvaneOleDbProviderImpl::~CCreateCorvaneOleDbProviderImpl() { corvane::module::Unlock(); }

HRESULT CCreateCorvaneOleDbProviderImpl::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ICreateCorvaneOleDbProvider)) {
    *ppv = static_cast<ICreateCorvaneOleDbProvider*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

ULONG CCreateCorvaneOleDbProviderImpl::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CCreateCorvaneOleDbProviderImpl::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT CCreateCorvaneOleDbProviderImpl::Create(IUnknown* pProvider, IUnknown** ppUnk) {
  if (!pProvider || !ppUnk) return E_INVALIDARG;

  ComPtr<IRawDataProvider> raw;
  HRESULT hr = pProvider->QueryInterface(IID_IRawDataProvider, raw.PutVoid());
  if (FAILED(hr)) {
    raw.Detach();  // a failing QueryInterface hands out nothing to release
    CVTRACE(TRACE_ERROR, OLESTR("Unable to initialize IRawDataProvider interface"));
    return hr;
  }

  ComPtr<IProcessedDataProvider> processed;
  if (FAILED(pProvider->QueryInterface(IID_IProcessedDataProvider, processed.PutVoid()))) {
    processed.Detach();
    // The host has no aggregates of its own: the aggregates component builds them on
    // top of the raw history.
    ComPtr<IAggregates> aggregates;
    CLSID clsid;
    hr = CLSIDFromProgID(CORVANE_AGGREGATES_PROGID, &clsid);
    if (SUCCEEDED(hr))
      hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IAggregates, aggregates.PutVoid());
    if (FAILED(hr)) {
      aggregates.Detach();
      CVTRACE(TRACE_ERROR, OLESTR("Unable to initialize IAggregates interface"));
      return hr;
    }
    hr = aggregates->CreateProcessedDataProvider(raw.Get(), processed.Put());
    if (FAILED(hr)) {
      processed.Detach();
      CVTRACE(TRACE_ERROR, OLESTR("Unable to initialize IProcessedDataProvider interface"));
      return hr;
    }
  }

  ComPtr<IValuesProvider> values;
  if (FAILED(pProvider->QueryInterface(IID_IValuesProvider, values.PutVoid()))) {
    values.Detach();
    CVTRACE(TRACE_WARNING, OLESTR("Unable to initialize IValuesProvider interface"));
  }

  CProviderDataSource* created = nullptr;
  hr = CProviderDataSource::CreateInstance(&created);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("Unable to create data source object"));
    return hr;
  }
  const ComPtr<CProviderDataSource> dataSource = ComPtr<CProviderDataSource>::Share(created);
  dataSource->InitializeDataSource(raw.Get(), processed.Get(), values.Get());
  return dataSource->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppUnk));
}
