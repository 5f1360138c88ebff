// VARIANT lifetime: initialisation, release of what a VARIANT owns, and copies. A
// VARIANT owns its BSTR and one reference on its interface pointer; a VT_BYREF VARIANT
// owns nothing, its pointer belongs to the caller.
#include "platform/posix/OleAutoInternal.h"

#include <cstdint>

namespace corvane::platform::detail {

HRESULT ValidateVarType(VARTYPE vt) {
  const VARTYPE extra = vt & ~VARTYPE(VT_TYPEMASK);
  const VARTYPE base = vt & VT_TYPEMASK;
  if (extra & (VT_VECTOR | VT_RESERVED)) return DISP_E_BADVARTYPE;
  if (extra & ~VARTYPE(VT_BYREF | VT_ARRAY)) return DISP_E_BADVARTYPE;
  // VT_EMPTY and VT_NULL carry no value, so nothing can point at one.
  if ((extra & (VT_BYREF | VT_ARRAY)) && base <= VT_NULL) return DISP_E_BADVARTYPE;
  if (base < VT_VOID && base != 15) return S_OK;
  if (base == VT_RECORD) return S_OK;
  return DISP_E_BADVARTYPE;
}

// Arrays and records need SAFEARRAY and IRecordInfo support, which the provider never
// puts in a VARIANT; refusing them keeps a stray one from being leaked silently.
static bool IsUnsupportedPayload(VARTYPE vt) {
  return (vt & VT_ARRAY) || (vt & VT_TYPEMASK) == VT_RECORD;
}

}  // namespace corvane::platform::detail

using namespace corvane::platform::detail;

extern "C" {

void VariantInit(VARIANTARG* pvarg) {
  if (!pvarg) return;
  pvarg->vt = VT_EMPTY;
  pvarg->wReserved1 = pvarg->wReserved2 = pvarg->wReserved3 = 0;
}

HRESULT VariantClear(VARIANTARG* pvarg) {
  if (!pvarg) return E_INVALIDARG;
  // Most values hold nothing to free; every row of a read clears several of them, so
  // these skip the full type check (which they pass anyway).
  constexpr uint32_t kOwnsNothing = (1u << VT_EMPTY) | (1u << VT_NULL) | (1u << VT_I2) | (1u << VT_I4) |
                                    (1u << VT_R4) | (1u << VT_R8) | (1u << VT_CY) | (1u << VT_DATE) |
                                    (1u << VT_ERROR) | (1u << VT_BOOL) | (1u << VT_DECIMAL) | (1u << VT_I1) |
                                    (1u << VT_UI1) | (1u << VT_UI2) | (1u << VT_UI4) | (1u << VT_I8) |
                                    (1u << VT_UI8) | (1u << VT_INT) | (1u << VT_UINT);
  if (pvarg->vt < 32 && (kOwnsNothing >> pvarg->vt) & 1u) {
    pvarg->vt = VT_EMPTY;
    return S_OK;
  }
  HRESULT hr = ValidateVarType(pvarg->vt);
  if (FAILED(hr)) return hr;
  if (!(pvarg->vt & VT_BYREF)) {
    if (IsUnsupportedPayload(pvarg->vt)) return E_NOTIMPL;
    switch (pvarg->vt) {
      case VT_BSTR:
        SysFreeString(pvarg->bstrVal);
        break;
      case VT_UNKNOWN:
      case VT_DISPATCH:
        // IDispatch derives from IUnknown with Release in the same slot.
        if (pvarg->punkVal) pvarg->punkVal->Release();
        break;
      default:
        break;
    }
  }
  pvarg->vt = VT_EMPTY;
  return S_OK;
}

HRESULT VariantCopy(VARIANTARG* pvargDest, VARIANTARG* pvargSrc) {
  if (!pvargDest || !pvargSrc) return E_INVALIDARG;
  HRESULT hr = ValidateVarType(pvargSrc->vt);
  if (FAILED(hr)) return hr;
  if (pvargDest == pvargSrc) return S_OK;
  if (!(pvargSrc->vt & VT_BYREF) && IsUnsupportedPayload(pvargSrc->vt)) return E_NOTIMPL;
  hr = VariantClear(pvargDest);
  if (FAILED(hr)) return hr;
  *pvargDest = *pvargSrc;
  if (pvargSrc->vt & VT_BYREF) return S_OK;
  switch (pvargSrc->vt) {
    case VT_BSTR:
      if (pvargSrc->bstrVal) {
        pvargDest->bstrVal = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(pvargSrc->bstrVal),
                                                   SysStringByteLen(pvargSrc->bstrVal));
        if (!pvargDest->bstrVal) {
          pvargDest->vt = VT_EMPTY;
          return E_OUTOFMEMORY;
        }
      }
      break;
    case VT_UNKNOWN:
    case VT_DISPATCH:
      if (pvargDest->punkVal) pvargDest->punkVal->AddRef();
      break;
    default:
      break;
  }
  return S_OK;
}

HRESULT VariantCopyInd(VARIANT* pvarDest, VARIANTARG* pvargSrc) {
  if (!pvarDest || !pvargSrc) return E_INVALIDARG;
  if (!(pvargSrc->vt & VT_BYREF)) return VariantCopy(pvarDest, pvargSrc);
  HRESULT hr = ValidateVarType(pvargSrc->vt);
  if (FAILED(hr)) return hr;
  const VARTYPE base = pvargSrc->vt & ~VARTYPE(VT_BYREF);
  if (base & VT_ARRAY) return E_NOTIMPL;
  if (!pvargSrc->byref) return E_INVALIDARG;

  // Build the result aside: the source may be the destination itself.
  VARIANT result;
  VariantInit(&result);
  const void* p = pvargSrc->byref;
  switch (base) {
    case VT_VARIANT: {
      VARIANT* inner = static_cast<VARIANT*>(pvargSrc->byref);
      // One level of indirection only, as on Windows.
      if (inner->vt == (VT_BYREF | VT_VARIANT)) return E_INVALIDARG;
      hr = VariantCopyInd(&result, inner);
      if (FAILED(hr)) return hr;
      break;
    }
    case VT_DECIMAL:
      // The DECIMAL covers the whole VARIANT head, vt included.
      result.decVal = *static_cast<const DECIMAL*>(p);
      break;
    case VT_I1: result.cVal = *static_cast<const CHAR*>(p); break;
    case VT_UI1: result.bVal = *static_cast<const BYTE*>(p); break;
    case VT_I2: result.iVal = *static_cast<const SHORT*>(p); break;
    case VT_UI2: result.uiVal = *static_cast<const USHORT*>(p); break;
    case VT_BOOL: result.boolVal = *static_cast<const VARIANT_BOOL*>(p); break;
    case VT_I4: case VT_INT: case VT_ERROR: result.lVal = *static_cast<const LONG*>(p); break;
    case VT_UI4: case VT_UINT: result.ulVal = *static_cast<const ULONG*>(p); break;
    case VT_R4: result.fltVal = *static_cast<const FLOAT*>(p); break;
    case VT_I8: result.llVal = *static_cast<const LONGLONG*>(p); break;
    case VT_UI8: result.ullVal = *static_cast<const ULONGLONG*>(p); break;
    case VT_R8: case VT_DATE: result.dblVal = *static_cast<const DOUBLE*>(p); break;
    case VT_CY: result.cyVal = *static_cast<const CY*>(p); break;
    case VT_BSTR: {
      BSTR s = *static_cast<const BSTR*>(p);
      result.bstrVal = nullptr;
      if (s) {
        result.bstrVal = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(s), SysStringByteLen(s));
        if (!result.bstrVal) return E_OUTOFMEMORY;
      }
      break;
    }
    case VT_UNKNOWN:
    case VT_DISPATCH:
      result.punkVal = *static_cast<IUnknown* const*>(p);
      if (result.punkVal) result.punkVal->AddRef();
      break;
    default:
      return E_NOTIMPL;
  }
  if (base != VT_VARIANT) result.vt = base;

  hr = VariantClear(pvarDest);
  if (FAILED(hr)) {
    VariantClear(&result);
    return hr;
  }
  *pvarDest = result;
  return S_OK;
}

}  // extern "C"
