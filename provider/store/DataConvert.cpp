#include "provider/store/DataConvert.h"

#include <cstring>
#include <new>

#include "base/Trace.h"
#include "platform/SystemDataConvert.h"

namespace corvane {

HRESULT CreateOwnDataConvert(IDataConvert** convert) {
  if (convert == nullptr) return E_INVALIDARG;
  *convert = new (std::nothrow) CDataConvert();
  return *convert != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CreateDataConvert(IDataConvert** convert) {
  if (convert == nullptr) return E_INVALIDARG;
  *convert = nullptr;
  const HRESULT hr = platform::CreateSystemDataConvert(convert);
  if (hr == S_OK) return S_OK;
  if (FAILED(hr))
    CVTRACE(TRACE_WARNING,
            OLESTR("CreateDataConvert -> system conversion library unavailable (hr = %X), using the provider's own"),
            static_cast<unsigned>(hr));
  return CreateOwnDataConvert(convert);
}

CDataConvert::CDataConvert() = default;
CDataConvert::~CDataConvert() = default;

HRESULT STDMETHODCALLTYPE CDataConvert::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IDataConvert)) {
    *ppv = static_cast<IDataConvert*>(this);
  } else if (IsEqualGUID(riid, IID_IDCInfo)) {
    *ppv = static_cast<IDCInfo*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG STDMETHODCALLTYPE CDataConvert::AddRef() { return m_cRef.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG STDMETHODCALLTYPE CDataConvert::Release() {
  ULONG left = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT STDMETHODCALLTYPE CDataConvert::GetInfo(ULONG cInfo, DCINFOTYPE rgeInfoType[], DCINFO** prgInfo) {
  if (prgInfo == nullptr) return E_INVALIDARG;
  *prgInfo = nullptr;
  if (cInfo == 0) return S_OK;
  if (rgeInfoType == nullptr) return E_INVALIDARG;
  for (ULONG i = 0; i < cInfo; ++i) {
    if (rgeInfoType[i] != DCINFOTYPE_VERSION) return DB_E_NOTSUPPORTED;
  }
  auto* info = static_cast<DCINFO*>(CoTaskMemAlloc(sizeof(DCINFO) * cInfo));
  if (info == nullptr) return E_OUTOFMEMORY;
  for (ULONG i = 0; i < cInfo; ++i) {
    info[i].eInfoType = rgeInfoType[i];
    VariantInit(&info[i].vData);
    V_VT(&info[i].vData) = VT_UI4;
    V_UI4(&info[i].vData) = m_Version.load(std::memory_order_relaxed);
  }
  *prgInfo = info;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CDataConvert::SetInfo(ULONG cInfo, DCINFO rgInfo[]) {
  if (cInfo == 0) return S_OK;
  if (rgInfo == nullptr) return E_INVALIDARG;
  // Validate all before changing anything, so a bad entry leaves the version as it was.
  for (ULONG i = 0; i < cInfo; ++i) {
    if (rgInfo[i].eInfoType != DCINFOTYPE_VERSION) return DB_E_NOTSUPPORTED;
    if (V_VT(&rgInfo[i].vData) != VT_UI4) return DB_E_BADTYPE;
  }
  for (ULONG i = 0; i < cInfo; ++i) m_Version.store(V_UI4(&rgInfo[i].vData), std::memory_order_relaxed);
  return S_OK;
}

}  // namespace corvane
