// VariantChangeType(Ex) and the Var* conversions with the OLE Automation rules: half
// to even rounding, DISP_E_OVERFLOW past a type's range, DISP_E_TYPEMISMATCH for text
// that does not read as the target, VARIANT_TRUE = -1, en-US text.
#include <cfloat>
#include <cmath>

#include "platform/posix/OleAutoInternal.h"

namespace corvane::platform::detail {
namespace {

bool IsValueType(VARTYPE vt) {
  switch (vt) {
    case VT_EMPTY: case VT_NULL: case VT_I1: case VT_I2: case VT_I4: case VT_I8: case VT_UI1: case VT_UI2:
    case VT_UI4: case VT_UI8: case VT_INT: case VT_UINT: case VT_R4: case VT_R8: case VT_BOOL: case VT_BSTR:
    case VT_DATE: case VT_CY: case VT_DECIMAL:
      return true;
    default:
      return false;
  }
}

struct IntType {
  int bits;
  bool isSigned;
};

bool IntTypeOf(VARTYPE vt, IntType& t) {
  switch (vt) {
    case VT_I1: t = {8, true}; return true;
    case VT_UI1: t = {8, false}; return true;
    case VT_I2: t = {16, true}; return true;
    case VT_UI2: t = {16, false}; return true;
    case VT_I4: case VT_INT: t = {32, true}; return true;
    case VT_UI4: case VT_UINT: t = {32, false}; return true;
    case VT_I8: t = {64, true}; return true;
    case VT_UI8: t = {64, false}; return true;
    default: return false;
  }
}

// The value of an integer-typed VARIANT, sign-extended to 64 bits.
int64_t SignedValue(const VARIANT& v) {
  switch (v.vt) {
    case VT_I1: return v.cVal;
    case VT_I2: return v.iVal;
    case VT_I4: return v.lVal;
    case VT_INT: return v.intVal;
    default: return v.llVal;
  }
}

uint64_t UnsignedValue(const VARIANT& v) {
  switch (v.vt) {
    case VT_UI1: return v.bVal;
    case VT_UI2: return v.uiVal;
    case VT_UI4: return v.ulVal;
    case VT_UINT: return v.uintVal;
    default: return v.ullVal;
  }
}

void StoreInteger(VARIANT& r, VARTYPE vt, uint64_t bits) {
  r.vt = vt;
  switch (vt) {
    case VT_I1: r.cVal = static_cast<CHAR>(bits); break;
    case VT_UI1: r.bVal = static_cast<BYTE>(bits); break;
    case VT_I2: r.iVal = static_cast<SHORT>(bits); break;
    case VT_UI2: r.uiVal = static_cast<USHORT>(bits); break;
    case VT_I4: r.lVal = static_cast<LONG>(bits); break;
    case VT_INT: r.intVal = static_cast<INT>(bits); break;
    case VT_UI4: r.ulVal = static_cast<ULONG>(bits); break;
    case VT_UINT: r.uintVal = static_cast<UINT>(bits); break;
    default: r.ullVal = bits; break;
  }
}

// Half to even, the rounding of every float-to-integer conversion here.
double RoundEven(double d) { return std::nearbyint(d); }

U128 RoundCurrencyToInteger(LONGLONG c, bool& negative) {
  negative = c < 0;
  U128 mag = negative ? U128(-(c + 1)) + 1 : U128(c);
  U128 q = mag / 10000, r = mag % 10000;
  if (r * 2 > 10000 || (r * 2 == 10000 && (q & 1))) ++q;
  return q;
}

HRESULT ToInteger(const VARIANT& s, LCID lcid, VARTYPE vt, VARIANT& r) {
  IntType t{64, true};  // every caller passes an integer type; the default only keeps the compiler sure
  IntTypeOf(vt, t);
  const uint64_t mask = t.bits == 64 ? ~uint64_t(0) : (uint64_t(1) << t.bits) - 1;
  const U128 maxPositive = t.isSigned ? (U128(1) << (t.bits - 1)) - 1 : (U128(1) << t.bits) - 1;
  const U128 maxNegative = t.isSigned ? U128(1) << (t.bits - 1) : 0;
  auto fromMagnitude = [&](bool negative, U128 mag) -> HRESULT {
    if (negative && mag) {
      if (mag > maxNegative) return DISP_E_OVERFLOW;
      StoreInteger(r, vt, uint64_t(0) - static_cast<uint64_t>(mag));
    } else {
      if (mag > maxPositive) return DISP_E_OVERFLOW;
      StoreInteger(r, vt, static_cast<uint64_t>(mag));
    }
    return S_OK;
  };
  IntType source;
  switch (s.vt) {
    case VT_EMPTY:
      StoreInteger(r, vt, 0);
      return S_OK;
    case VT_BOOL:
      // A boolean is taken as its 16-bit pattern, sign-extended: TRUE becomes 255,
      // 65535... in unsigned types, as the system does.
      StoreInteger(r, vt, static_cast<uint64_t>(static_cast<int64_t>(s.boolVal)) & mask);
      return S_OK;
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: {
      IntTypeOf(s.vt, source);
      const int64_t x = SignedValue(s);
      // Between a signed and an unsigned type of one size the bits are kept as they are.
      if (!t.isSigned && source.bits == t.bits) {
        StoreInteger(r, vt, static_cast<uint64_t>(x) & mask);
        return S_OK;
      }
      return fromMagnitude(x < 0, x < 0 ? U128(uint64_t(0) - static_cast<uint64_t>(x)) : U128(x));
    }
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8: {
      IntTypeOf(s.vt, source);
      const uint64_t u = UnsignedValue(s);
      if (t.isSigned && source.bits == t.bits) {
        StoreInteger(r, vt, u);
        return S_OK;
      }
      return fromMagnitude(false, u);
    }
    case VT_R4: case VT_R8: case VT_DATE: {
      const double d = s.vt == VT_R4 ? static_cast<double>(s.fltVal) : s.dblVal;
      // NaN has no integer value; it is out of every range.
      if (std::isnan(d)) return DISP_E_OVERFLOW;
      const double rounded = RoundEven(d);
      if (!(std::fabs(rounded) < 18446744073709551616.0)) return DISP_E_OVERFLOW;
      return fromMagnitude(rounded < 0, U128(static_cast<uint64_t>(std::fabs(rounded))));
    }
    case VT_CY: {
      bool negative;
      U128 mag = RoundCurrencyToInteger(s.cyVal.int64, negative);
      return fromMagnitude(negative, mag);
    }
    case VT_DECIMAL:
      return fromMagnitude((s.decVal.sign & DECIMAL_NEG) != 0, DecimalRoundToInteger(s.decVal));
    case VT_BSTR: {
      NumberText n;
      HRESULT hr = ParseNumberText(s.bstrVal, lcid, n);
      if (FAILED(hr)) return hr;
      if (n.radix && !n.negative) {
        // &H and &O give a bit pattern: &HFF is -1 as VT_I1.
        if (n.bits > mask) return DISP_E_OVERFLOW;
        StoreInteger(r, vt, n.bits);
        return S_OK;
      }
      U128 mag;
      if (!RoundToInteger(n, mag)) return DISP_E_OVERFLOW;
      return fromMagnitude(n.negative, mag);
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

// Any numeric source as a double (R4 exactly, CY and DECIMAL to the nearest).
HRESULT ToDouble(const VARIANT& s, LCID lcid, double& out) {
  switch (s.vt) {
    case VT_EMPTY: out = 0; return S_OK;
    case VT_BOOL: out = s.boolVal; return S_OK;
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: out = static_cast<double>(SignedValue(s)); return S_OK;
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8:
      out = static_cast<double>(UnsignedValue(s));
      return S_OK;
    case VT_R4: out = s.fltVal; return S_OK;
    case VT_R8: case VT_DATE: out = s.dblVal; return S_OK;
    case VT_CY: out = static_cast<double>(s.cyVal.int64) / 10000.0; return S_OK;
    case VT_DECIMAL: out = DecimalToDouble(s.decVal); return S_OK;
    case VT_BSTR: {
      NumberText n;
      HRESULT hr = ParseNumberText(s.bstrVal, lcid, n);
      if (FAILED(hr)) return hr;
      if (n.radix && !n.negative) {
        out = static_cast<double>(n.bits);
        return S_OK;
      }
      return NumberTextToDouble(n, out);
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

HRESULT ToFloat(const VARIANT& s, LCID lcid, VARIANT& r) {
  float f;
  switch (s.vt) {
    // Integers round once, straight to float.
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: f = static_cast<float>(SignedValue(s)); break;
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8: f = static_cast<float>(UnsignedValue(s)); break;
    default: {
      double d;
      HRESULT hr = ToDouble(s, lcid, d);
      if (FAILED(hr)) return hr;
      if (std::isinf(d)) return DISP_E_OVERFLOW;
      f = static_cast<float>(d);
      if (std::isinf(f)) return DISP_E_OVERFLOW;
    }
  }
  r.vt = VT_R4;
  r.fltVal = f;
  return S_OK;
}

bool TextEqualsIgnoringCase(const OLECHAR* s, const char* word) {
  for (; *word; ++s, ++word) {
    OLECHAR c = *s;
    if (c >= u'A' && c <= u'Z') c = static_cast<OLECHAR>(c + 32);
    if (c != static_cast<OLECHAR>(*word)) return false;
  }
  return *s == 0;
}

HRESULT ToBool(const VARIANT& s, LCID lcid, VARIANT& r) {
  bool value;
  switch (s.vt) {
    case VT_EMPTY: value = false; break;
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: value = SignedValue(s) != 0; break;
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8: value = UnsignedValue(s) != 0; break;
    case VT_R4: value = s.fltVal != 0; break;
    case VT_R8: case VT_DATE: value = s.dblVal != 0; break;
    case VT_CY: value = s.cyVal.int64 != 0; break;
    case VT_DECIMAL: value = DecimalMantissa(s.decVal) != 0; break;
    case VT_BSTR: {
      const OLECHAR* text = s.bstrVal;
      if (text && (TextEqualsIgnoringCase(text, "true") || TextEqualsIgnoringCase(text, "#true#"))) {
        value = true;
      } else if (text && (TextEqualsIgnoringCase(text, "false") || TextEqualsIgnoringCase(text, "#false#"))) {
        value = false;
      } else {
        double d;
        HRESULT hr = ToDouble(s, lcid, d);
        if (FAILED(hr)) return hr;
        value = d != 0;
      }
      break;
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
  r.vt = VT_BOOL;
  r.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT ToDate(const VARIANT& s, LCID lcid, VARIANT& r) {
  double d;
  if (s.vt == VT_BSTR) {
    HRESULT hr = ParseDateText(s.bstrVal, lcid, 0, d);
    if (FAILED(hr)) return hr;
  } else {
    HRESULT hr = ToDouble(s, lcid, d);
    if (FAILED(hr)) return hr;
    // NaN passes through unchecked, as on the system.
    if (!std::isnan(d) && !DateInRange(d)) return DISP_E_OVERFLOW;
  }
  r.vt = VT_DATE;
  r.date = d;
  return S_OK;
}

HRESULT ToCurrency(const VARIANT& s, LCID lcid, VARIANT& r) {
  constexpr int64_t kWholeMax = INT64_MAX / 10000;  // 922337203685477
  LONGLONG c;
  switch (s.vt) {
    case VT_EMPTY: c = 0; break;
    case VT_BOOL: c = s.boolVal * 10000LL; break;
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: {
      const int64_t x = SignedValue(s);
      if (x > kWholeMax || x < -kWholeMax) return DISP_E_OVERFLOW;
      c = x * 10000;
      break;
    }
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8: {
      const uint64_t u = UnsignedValue(s);
      if (u > static_cast<uint64_t>(kWholeMax)) return DISP_E_OVERFLOW;
      c = static_cast<int64_t>(u) * 10000;
      break;
    }
    case VT_R4: case VT_R8: case VT_DATE: {
      // Whole units and the fraction are scaled apart so that a whole number of any
      // size converts exactly; the whole part is even in units of 10^-4, so rounding
      // the fraction half to even rounds the sum half to even.
      const double d = s.vt == VT_R4 ? static_cast<double>(s.fltVal) : s.dblVal;
      if (std::isnan(d) || !(std::fabs(d) < 1e15)) return DISP_E_OVERFLOW;
      const double whole = std::trunc(d);
      const __int128 total = static_cast<__int128>(whole) * 10000 + static_cast<__int128>(RoundEven((d - whole) * 10000.0));
      if (total > INT64_MAX || total < INT64_MIN) return DISP_E_OVERFLOW;
      c = static_cast<LONGLONG>(total);
      break;
    }
    case VT_DECIMAL: {
      const DECIMAL& dec = s.decVal;
      const bool negative = (dec.sign & DECIMAL_NEG) != 0;
      U128 m = DecimalMantissa(dec);
      if (dec.scale <= 4) {
        for (int i = dec.scale; i < 4; ++i) m *= 10;  // 96 bits times 10^4 fits 128
      } else {
        DECIMAL shifted = dec;
        shifted.scale = static_cast<BYTE>(dec.scale - 4);
        m = DecimalRoundToInteger(shifted);
      }
      if (negative ? m > (U128(1) << 63) : m > U128(INT64_MAX)) return DISP_E_OVERFLOW;
      c = negative ? static_cast<LONGLONG>(uint64_t(0) - static_cast<uint64_t>(m)) : static_cast<LONGLONG>(m);
      break;
    }
    case VT_BSTR: {
      NumberText n;
      HRESULT hr = ParseNumberText(s.bstrVal, lcid, n);
      if (FAILED(hr)) return hr;
      // The system has no currency reading of &H / &O texts.
      if (n.radix) return DISP_E_OVERFLOW;
      hr = NumberTextToCurrency(n, c);
      if (FAILED(hr)) return hr;
      break;
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
  r.vt = VT_CY;
  r.cyVal.int64 = c;
  return S_OK;
}

HRESULT ToDecimal(const VARIANT& s, LCID lcid, VARIANT& r) {
  DECIMAL d;
  switch (s.vt) {
    case VT_EMPTY: SetDecimal(d, false, 0, 0); break;
    case VT_BOOL: SetDecimal(d, s.boolVal != 0, 0, s.boolVal != 0 ? 1 : 0); break;
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: {
      const int64_t x = SignedValue(s);
      SetDecimal(d, x < 0, 0, x < 0 ? U128(uint64_t(0) - static_cast<uint64_t>(x)) : U128(x));
      break;
    }
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8: SetDecimal(d, false, 0, UnsignedValue(s)); break;
    // A binary float carries 7 (R4) or 15 (R8) significant decimal digits.
    case VT_R4: {
      HRESULT hr = DecimalFromDouble(s.fltVal, 7, d);
      if (FAILED(hr)) return hr;
      break;
    }
    case VT_R8: case VT_DATE: {
      HRESULT hr = DecimalFromDouble(s.dblVal, 15, d);
      if (FAILED(hr)) return hr;
      break;
    }
    case VT_CY: {
      const LONGLONG c = s.cyVal.int64;
      SetDecimal(d, c < 0, 4, c < 0 ? U128(uint64_t(0) - static_cast<uint64_t>(c)) : U128(c));
      break;
    }
    case VT_BSTR: {
      NumberText n;
      HRESULT hr = ParseNumberText(s.bstrVal, lcid, n);
      if (FAILED(hr)) return hr;
      if (n.radix && !n.negative) {
        SetDecimal(d, false, 0, n.bits);
      } else {
        hr = NumberTextToDecimal(n, d);
        if (FAILED(hr)) return hr;
      }
      break;
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
  r.decVal = d;
  r.vt = VT_DECIMAL;  // after the DECIMAL, whose first field shares vt's place
  return S_OK;
}

HRESULT ToText(const VARIANT& s, LCID lcid, USHORT flags, VARIANT& r) {
  std::u16string text;
  switch (s.vt) {
    case VT_EMPTY: break;
    case VT_BOOL:
      if (flags & (VARIANT_ALPHABOOL | VARIANT_LOCALBOOL))
        text = s.boolVal ? u"True" : u"False";
      else
        text = FormatInteger(s.boolVal < 0, s.boolVal < 0 ? U128(-s.boolVal) : U128(s.boolVal));
      break;
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: {
      const int64_t x = SignedValue(s);
      text = FormatInteger(x < 0, x < 0 ? U128(uint64_t(0) - static_cast<uint64_t>(x)) : U128(x));
      break;
    }
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8: text = FormatInteger(false, UnsignedValue(s)); break;
    case VT_R4: text = FormatReal(s.fltVal, 7); break;
    case VT_R8: text = FormatReal(s.dblVal, 15); break;
    case VT_DATE: {
      HRESULT hr = FormatDate(s.date, lcid, 0, text);
      if (FAILED(hr)) return hr;
      break;
    }
    case VT_CY: {
      const LONGLONG c = s.cyVal.int64;
      text = FormatScaled(c < 0, c < 0 ? U128(uint64_t(0) - static_cast<uint64_t>(c)) : U128(c), 4);
      break;
    }
    case VT_DECIMAL:
      text = FormatScaled((s.decVal.sign & DECIMAL_NEG) != 0, DecimalMantissa(s.decVal), s.decVal.scale);
      break;
    case VT_BSTR:
      // Only a null string arrives here (other strings are copied): it reads as "".
      break;
    default:
      return DISP_E_TYPEMISMATCH;
  }
  r.bstrVal = AllocBstr(text);
  if (!r.bstrVal) return E_OUTOFMEMORY;
  r.vt = VT_BSTR;
  return S_OK;
}

// Converts a by-value source into an empty `r`.
HRESULT Coerce(VARIANT& s, LCID lcid, USHORT flags, VARTYPE vt, VARIANT& r) {
  if (s.vt == vt && !(vt == VT_BSTR && !s.bstrVal)) return VariantCopy(&r, &s);
  if (vt == VT_EMPTY || vt == VT_NULL) {
    if (!IsValueType(s.vt) || (vt == VT_EMPTY && s.vt == VT_NULL)) return DISP_E_TYPEMISMATCH;
    r.vt = vt;
    return S_OK;
  }
  if (s.vt == VT_NULL || !IsValueType(s.vt)) return DISP_E_TYPEMISMATCH;
  // A DECIMAL scale past 28 is malformed; only its text form is still written.
  if (s.vt == VT_DECIMAL && s.decVal.scale > 28 && vt != VT_BSTR) return E_INVALIDARG;
  switch (vt) {
    case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT:
    case VT_UI8:
      return ToInteger(s, lcid, vt, r);
    case VT_R4:
      return ToFloat(s, lcid, r);
    case VT_R8: {
      double d;
      HRESULT hr = ToDouble(s, lcid, d);
      if (FAILED(hr)) return hr;
      r.vt = VT_R8;
      r.dblVal = d;
      return S_OK;
    }
    case VT_BOOL: return ToBool(s, lcid, r);
    case VT_DATE: return ToDate(s, lcid, r);
    case VT_CY: return ToCurrency(s, lcid, r);
    case VT_DECIMAL: return ToDecimal(s, lcid, r);
    case VT_BSTR: return ToText(s, lcid, flags, r);
    default: return DISP_E_TYPEMISMATCH;
  }
}

// Converts a string argument of a Var*FromStr function as VariantChangeType would.
HRESULT CoerceText(OLECHAR* text, LCID lcid, VARTYPE vt, VARIANT& r) {
  VARIANT s;
  s.vt = VT_BSTR;
  s.bstrVal = text;  // read only up to its terminator, never freed
  VariantInit(&r);
  return Coerce(s, lcid, 0, vt, r);
}

}  // namespace
}  // namespace corvane::platform::detail

using namespace corvane::platform::detail;

extern "C" {

HRESULT VariantChangeTypeEx(VARIANTARG* pvargDest, VARIANTARG* pvarSrc, LCID lcid, USHORT wFlags, VARTYPE vt) {
  if (!pvargDest || !pvarSrc) return E_INVALIDARG;
  HRESULT hr = ValidateVarType(pvarSrc->vt);
  if (FAILED(hr)) return hr;
  hr = ValidateVarType(vt);
  if (FAILED(hr)) return hr;
  if (vt & (VT_BYREF | VT_ARRAY)) return DISP_E_TYPEMISMATCH;

  VARIANT deref;
  VariantInit(&deref);
  VARIANT* source = pvarSrc;
  if (pvarSrc->vt & VT_BYREF) {
    hr = VariantCopyInd(&deref, pvarSrc);
    if (FAILED(hr)) return hr;
    source = &deref;
  }
  // The result is built aside: the destination may be the source, and a failed
  // conversion must leave the destination as it was.
  VARIANT result;
  VariantInit(&result);
  hr = Coerce(*source, lcid, wFlags, vt, result);
  VariantClear(&deref);
  if (FAILED(hr)) return hr;
  hr = VariantClear(pvargDest);
  if (FAILED(hr)) {
    VariantClear(&result);
    return hr;
  }
  *pvargDest = result;
  return S_OK;
}

HRESULT VariantChangeType(VARIANTARG* pvargDest, VARIANTARG* pvarSrc, USHORT wFlags, VARTYPE vt) {
  return VariantChangeTypeEx(pvargDest, pvarSrc, LOCALE_USER_DEFAULT, wFlags, vt);
}

HRESULT VarR8FromStr(OLECHAR* strIn, LCID lcid, ULONG, DOUBLE* pdblOut) {
  if (!pdblOut) return E_INVALIDARG;
  VARIANT r;
  HRESULT hr = CoerceText(strIn, lcid, VT_R8, r);
  if (SUCCEEDED(hr)) *pdblOut = r.dblVal;
  return hr;
}

HRESULT VarI8FromStr(OLECHAR* strIn, LCID lcid, ULONG, LONG64* pi64Out) {
  if (!pi64Out) return E_INVALIDARG;
  VARIANT r;
  HRESULT hr = CoerceText(strIn, lcid, VT_I8, r);
  if (SUCCEEDED(hr)) *pi64Out = r.llVal;
  return hr;
}

HRESULT VarI4FromStr(OLECHAR* strIn, LCID lcid, ULONG, LONG* plOut) {
  if (!plOut) return E_INVALIDARG;
  VARIANT r;
  HRESULT hr = CoerceText(strIn, lcid, VT_I4, r);
  if (SUCCEEDED(hr)) *plOut = r.lVal;
  return hr;
}

HRESULT VarBstrFromR8(DOUBLE dblIn, LCID, ULONG, BSTR* pbstrOut) {
  if (!pbstrOut) return E_INVALIDARG;
  *pbstrOut = AllocBstr(FormatReal(dblIn, 15));
  return *pbstrOut ? S_OK : E_OUTOFMEMORY;
}

HRESULT VarBstrFromI8(LONG64 i64In, LCID, ULONG, BSTR* pbstrOut) {
  if (!pbstrOut) return E_INVALIDARG;
  const bool negative = i64In < 0;
  *pbstrOut = AllocBstr(
      FormatInteger(negative, negative ? U128(uint64_t(0) - static_cast<uint64_t>(i64In)) : U128(i64In)));
  return *pbstrOut ? S_OK : E_OUTOFMEMORY;
}

HRESULT VarR8FromDec(DECIMAL* pdecIn, DOUBLE* pdblOut) {
  if (!pdecIn || !pdblOut || pdecIn->scale > 28) return E_INVALIDARG;
  *pdblOut = DecimalToDouble(*pdecIn);
  return S_OK;
}

HRESULT VarDecFromR8(DOUBLE dblIn, DECIMAL* pdecOut) {
  if (!pdecOut) return E_INVALIDARG;
  return DecimalFromDouble(dblIn, 15, *pdecOut);
}

HRESULT VarR8FromCy(CY cyIn, DOUBLE* pdblOut) {
  if (!pdblOut) return E_INVALIDARG;
  *pdblOut = static_cast<double>(cyIn.int64) / 10000.0;
  return S_OK;
}

HRESULT VarCyFromR8(DOUBLE dblIn, CY* pcyOut) {
  if (!pcyOut) return E_INVALIDARG;
  VARIANT s, r;
  s.vt = VT_R8;
  s.dblVal = dblIn;
  HRESULT hr = ToCurrency(s, LOCALE_USER_DEFAULT, r);
  if (SUCCEEDED(hr)) *pcyOut = r.cyVal;
  return hr;
}

}  // extern "C"
