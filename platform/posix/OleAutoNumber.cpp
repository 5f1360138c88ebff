// Numbers and text for the OLE Automation conversions: reading numbers from text,
// exact DECIMAL and CY arithmetic, and the en-US text forms of numbers.
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "platform/posix/OleAutoInternal.h"

namespace corvane::platform::detail {
namespace {

bool IsSpace(OLECHAR c) { return c == u' ' || (c >= 0x09 && c <= 0x0D) || c == 0xA0; }
bool IsDigit(OLECHAR c) { return c >= u'0' && c <= u'9'; }

constexpr U128 Pow10(int n) {
  U128 v = 1;
  while (n-- > 0) v *= 10;
  return v;
}

// Accumulates decimal digits; false once the value leaves 128 bits.
bool DigitsToInteger(const char* digits, size_t count, U128& out) {
  constexpr U128 kLimit = ~U128(0) / 10;
  U128 v = 0;
  for (size_t i = 0; i < count; ++i) {
    if (v > kLimit) return false;
    U128 next = v * 10 + U128(digits[i] - '0');
    if (next < v * 10) return false;
    v = next;
  }
  out = v;
  return true;
}

// Keeps `keep` leading digits of `digits` (keep may be <= 0) and rounds half to even on
// what is dropped; false when the result leaves 128 bits.
bool RoundDigits(const std::string& digits, long keep, U128& out) {
  const long n = static_cast<long>(digits.size());
  U128 kept = 0;
  if (keep > 0 && !DigitsToInteger(digits.data(), static_cast<size_t>(std::min(keep, n)), kept)) return false;
  if (keep >= n) {
    out = kept;
    return true;
  }
  if (keep < 0) {  // every digit lies below the first dropped position: less than a half
    out = 0;
    return true;
  }
  const int first = digits[static_cast<size_t>(keep)] - '0';
  // Trailing zeros were stripped, so any further digit is non-zero.
  const bool rest = keep + 1 < n;
  if (first > 5 || (first == 5 && (rest || (kept & 1)))) {
    if (kept == ~U128(0)) return false;
    ++kept;
  }
  out = kept;
  return true;
}

void ToDigits(U128 v, std::string& out) {
  char buf[48];
  int i = sizeof buf;
  do {
    buf[--i] = static_cast<char>('0' + static_cast<int>(v % 10));
    v /= 10;
  } while (v);
  out.assign(buf + i, buf + sizeof buf);
}

// Normalises digits/exponent: no leading zeros, no trailing zeros.
void Normalise(NumberText& n) {
  size_t lead = n.digits.find_first_not_of('0');
  if (lead == std::string::npos) {
    n.digits.clear();
    n.exponent = 0;
    return;
  }
  n.digits.erase(0, lead);
  size_t last = n.digits.find_last_not_of('0');
  n.exponent += static_cast<int>(n.digits.size() - 1 - last);
  n.digits.resize(last + 1);
}

// The significant digits (trailing zeros dropped) and decimal exponent of a finite,
// non-zero double rounded to `digits` digits: |value| ~ d1.d2d3... * 10^exp10.
// The significant digits of |value| rounded to `digits` (at most kMaxDigits), trailing
// zeros dropped, into `mantissa`; returns how many there are and sets the decimal
// exponent of the first. A buffer rather than a string: every text cell of a read
// formats one number.
constexpr int kMaxDigits = 32;
size_t ScientificDigits(double value, int digits, char (&mantissa)[kMaxDigits], int& exp10) {
  digits = digits < 1 ? 1 : digits > kMaxDigits ? kMaxDigits : digits;
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, std::fabs(value), std::chars_format::scientific, digits - 1);
  // "d.ddde+XX" (no point for one digit): the digits stand at known places. Every
  // finite value fits the buffer; the fallback only keeps a broken result in bounds.
  const size_t n = static_cast<size_t>(digits);
  const char* e = buf + (n > 1 ? n + 1 : 1);
  if (res.ec != std::errc() || e >= res.ptr || *e != 'e') {
    mantissa[0] = '0';
    exp10 = 0;
    return 1;
  }
  mantissa[0] = buf[0];
  if (n > 1) std::memcpy(mantissa + 1, buf + 2, n - 1);
  exp10 = 0;
  std::from_chars(e + 1 + (e[1] == '+'), res.ptr, exp10);
  size_t kept = n;
  while (kept > 1 && mantissa[kept - 1] == '0') --kept;
  return kept;
}

void ScientificDigits(double value, int digits, std::string& mantissa, int& exp10) {
  char m[kMaxDigits];
  mantissa.assign(m, ScientificDigits(value, digits, m, exp10));
}

}  // namespace

HRESULT ParseNumberText(const OLECHAR* text, LCID lcid, NumberText& out) {
  out = NumberText();
  // The invariant locale's currency sign is the generic one.
  const OLECHAR currencySign = (lcid & 0xFFFF) == LOCALE_INVARIANT ? 0xA4 : u'$';
  if (!text) return DISP_E_TYPEMISMATCH;
  const OLECHAR* p = text;
  auto skipSpaces = [&] {
    while (IsSpace(*p)) ++p;
  };
  bool sign = false, currency = false, paren = false;
  skipSpaces();
  for (;;) {
    if ((*p == u'+' || *p == u'-') && !sign) {
      sign = true;
      out.negative = *p == u'-';
    } else if (*p == currencySign && !currency) {
      currency = true;
    } else if (*p == u'(' && !paren) {
      paren = true;
    } else {
      break;
    }
    ++p;
    skipSpaces();
  }

  if (*p == u'&' && (p[1] == u'H' || p[1] == u'h' || p[1] == u'O' || p[1] == u'o')) {
    const int base = (p[1] == u'H' || p[1] == u'h') ? 16 : 8;
    p += 2;
    out.radix = true;
    int count = 0;
    bool overflow = false;
    for (;; ++p, ++count) {
      int d;
      if (IsDigit(*p))
        d = *p - u'0';
      else if (base == 16 && *p >= u'a' && *p <= u'f')
        d = *p - u'a' + 10;
      else if (base == 16 && *p >= u'A' && *p <= u'F')
        d = *p - u'A' + 10;
      else
        break;
      if (d >= base) break;
      if (out.bits > (UINT64_MAX >> (base == 16 ? 4 : 3))) overflow = true;
      out.bits = out.bits * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    }
    if (count == 0) return DISP_E_TYPEMISMATCH;
    skipSpaces();
    if (*p) return DISP_E_TYPEMISMATCH;
    if (overflow) return DISP_E_OVERFLOW;
    ToDigits(out.bits, out.digits);
    Normalise(out);
    return S_OK;
  }

  int mantissaDigits = 0;
  int fractionDigits = 0;
  while (IsDigit(*p) || (*p == u',' && mantissaDigits > 0)) {
    if (*p != u',') {
      out.digits += static_cast<char>(*p);
      ++mantissaDigits;
    }
    ++p;
  }
  if (*p == u'.') {
    ++p;
    // Group separators are skipped after the point too, as the system does.
    while (IsDigit(*p) || (*p == u',' && mantissaDigits > 0)) {
      if (*p != u',') {
        out.digits += static_cast<char>(*p);
        ++mantissaDigits;
        ++fractionDigits;
      }
      ++p;
    }
  }
  if (mantissaDigits == 0) return DISP_E_TYPEMISMATCH;
  long exponent = 0;
  if (*p == u'e' || *p == u'E') {
    ++p;
    bool negativeExponent = false;
    if (*p == u'+' || *p == u'-') negativeExponent = *p++ == u'-';
    if (!IsDigit(*p)) return DISP_E_TYPEMISMATCH;
    while (IsDigit(*p)) {
      // Far beyond any representable value; the cap only keeps the arithmetic sane.
      if (exponent < 100000) exponent = exponent * 10 + (*p - u'0');
      ++p;
    }
    if (negativeExponent) exponent = -exponent;
  }
  skipSpaces();
  if ((*p == u'+' || *p == u'-') && !sign) {
    sign = true;
    out.negative = *p == u'-';
    ++p;
    skipSpaces();
  }
  if (paren) {
    if (*p != u')') return DISP_E_TYPEMISMATCH;
    out.negative = true;
    ++p;
    skipSpaces();
  }
  if (*p) return DISP_E_TYPEMISMATCH;
  out.exponent = static_cast<int>(exponent) - fractionDigits;
  Normalise(out);
  return S_OK;
}

bool RoundToInteger(const NumberText& n, U128& magnitude) {
  if (n.digits.empty()) {
    magnitude = 0;
    return true;
  }
  if (n.exponent >= 0) {
    if (n.digits.size() + static_cast<size_t>(n.exponent) > 39) return false;
    U128 v;
    if (!DigitsToInteger(n.digits.data(), n.digits.size(), v)) return false;
    for (int i = 0; i < n.exponent; ++i) {
      if (v > ~U128(0) / 10) return false;
      v *= 10;
    }
    magnitude = v;
    return true;
  }
  return RoundDigits(n.digits, static_cast<long>(n.digits.size()) + n.exponent, magnitude);
}

HRESULT NumberTextToDouble(const NumberText& n, double& out) {
  // The digits are accumulated in a double and then scaled by a power of ten, the way
  // the system computes it, so that long texts give the same (not always the nearest)
  // double on both targets.
  double v = 0;
  for (char c : n.digits) v = v * 10 + (c - '0');
  if (v != 0) {
    if (n.exponent >= 0) {
      v *= std::pow(10.0, n.exponent);
    } else {
      int e = -n.exponent;
      for (; e > 300 && v != 0; e -= 300) v /= 1e300;
      v /= std::pow(10.0, e);
    }
  }
  if (std::isinf(v)) return DISP_E_OVERFLOW;
  out = n.negative ? -v : v;
  return S_OK;
}

HRESULT NumberTextToDecimal(const NumberText& n, DECIMAL& out) {
  if (n.digits.empty()) {
    SetDecimal(out, false, 0, 0);
    return S_OK;
  }
  const long count = static_cast<long>(n.digits.size());
  if (n.exponent >= 0) {
    U128 v;
    if (!RoundToInteger(n, v) || v > kDecimalMax) return DISP_E_OVERFLOW;
    SetDecimal(out, n.negative, 0, v);
    return S_OK;
  }
  long scale = -static_cast<long>(n.exponent);
  long keep = count;
  if (scale > 28) {
    keep -= scale - 28;
    scale = 28;
  }
  for (;;) {
    U128 v;
    if (RoundDigits(n.digits, keep, v) && v <= kDecimalMax) {
      SetDecimal(out, n.negative && v != 0, v ? static_cast<int>(scale) : 0, v);
      return S_OK;
    }
    // Too many digits for 96 bits: give up one decimal place, never an integer digit.
    if (scale == 0) return DISP_E_OVERFLOW;
    --scale;
    --keep;
  }
}

HRESULT NumberTextToCurrency(const NumberText& n, LONGLONG& out) {
  NumberText scaled = n;
  if (!scaled.digits.empty()) scaled.exponent += 4;
  U128 v;
  if (!RoundToInteger(scaled, v)) return DISP_E_OVERFLOW;
  if (n.negative ? v > (U128(1) << 63) : v > U128(INT64_MAX)) return DISP_E_OVERFLOW;
  out = n.negative ? static_cast<LONGLONG>(-v) : static_cast<LONGLONG>(v);
  return S_OK;
}

void SetDecimal(DECIMAL& d, bool negative, int scale, U128 mantissa) {
  d.wReserved = 0;
  d.scale = static_cast<BYTE>(scale);
  d.sign = negative ? DECIMAL_NEG : 0;
  d.Hi32 = static_cast<ULONG>(mantissa >> 64);
  d.Lo64 = static_cast<ULONGLONG>(mantissa);
}

U128 DecimalRoundToInteger(const DECIMAL& d) {
  U128 m = DecimalMantissa(d);
  if (d.scale == 0) return m;
  const U128 div = Pow10(d.scale);
  U128 q = m / div;
  U128 r = m % div;
  U128 twice = r * 2;
  if (twice > div || (twice == div && (q & 1))) ++q;
  return q;
}

double DecimalToDouble(const DECIMAL& d) {
  static const double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,
                                  1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19,
                                  1e20, 1e21, 1e22, 1e23, 1e24, 1e25, 1e26, 1e27, 1e28};
  double v = static_cast<double>(DecimalMantissa(d));
  if (d.scale <= 28) v /= kPow10[d.scale];
  else v /= std::pow(10.0, d.scale);
  return (d.sign & DECIMAL_NEG) ? -v : v;
}

HRESULT DecimalFromDouble(double value, int digits, DECIMAL& out) {
  if (std::isnan(value)) return DISP_E_BADVARTYPE;
  if (std::isinf(value)) return DISP_E_OVERFLOW;
  if (value == 0) {
    SetDecimal(out, false, 0, 0);
    return S_OK;
  }
  NumberText n;
  n.negative = value < 0;
  int exp10;
  ScientificDigits(value, digits, n.digits, exp10);
  n.exponent = exp10 - static_cast<int>(n.digits.size() - 1);
  Normalise(n);
  return NumberTextToDecimal(n, out);
}

std::u16string FormatInteger(bool negative, U128 magnitude) {
  std::string digits;
  ToDigits(magnitude, digits);
  std::u16string s;
  if (negative && magnitude) s += u'-';
  for (char c : digits) s += static_cast<char16_t>(c);
  return s;
}

std::u16string FormatReal(double value, int digits) {
  if (std::isnan(value)) return u"NAN";
  if (std::isinf(value)) return value < 0 ? u"-INF" : u"INF";
  if (value == 0) return u"0";
  char m[kMaxDigits];
  int exp10;
  const size_t count = ScientificDigits(value, digits, m, exp10);
  // Longest forms: sign, 32 digits, point and "E+308"; or "0.0000" and 32 digits.
  char16_t out[48];
  size_t n = 0;
  auto put = [&](const char* from, size_t length) {
    for (size_t i = 0; i < length; ++i) out[n++] = static_cast<char16_t>(from[i]);
  };
  if (value < 0) out[n++] = u'-';
  if (exp10 < -4 || exp10 >= digits) {
    out[n++] = static_cast<char16_t>(m[0]);
    if (count > 1) {
      out[n++] = u'.';
      put(m + 1, count - 1);
    }
    out[n++] = u'E';
    out[n++] = exp10 < 0 ? u'-' : u'+';
    const int e = exp10 < 0 ? -exp10 : exp10;
    if (e >= 100) out[n++] = static_cast<char16_t>(u'0' + e / 100);
    out[n++] = static_cast<char16_t>(u'0' + e / 10 % 10);
    out[n++] = static_cast<char16_t>(u'0' + e % 10);
  } else if (exp10 < 0) {
    out[n++] = u'0';
    out[n++] = u'.';
    for (int i = 0; i < -exp10 - 1; ++i) out[n++] = u'0';
    put(m, count);
  } else {
    const size_t intDigits = static_cast<size_t>(exp10) + 1;
    if (count <= intDigits) {
      put(m, count);
      for (size_t i = count; i < intDigits; ++i) out[n++] = u'0';
    } else {
      put(m, intDigits);
      out[n++] = u'.';
      put(m + intDigits, count - intDigits);
    }
  }
  return std::u16string(out, n);
}

std::u16string FormatScaled(bool negative, U128 mantissa, int scale) {
  std::string digits;
  ToDigits(mantissa, digits);
  if (static_cast<int>(digits.size()) <= scale) digits.insert(0, static_cast<size_t>(scale) + 1 - digits.size(), '0');
  std::string s = negative && mantissa ? "-" : "";
  const size_t intDigits = digits.size() - static_cast<size_t>(scale);
  s += digits.substr(0, intDigits);
  std::string fraction = digits.substr(intDigits);
  size_t last = fraction.find_last_not_of('0');
  if (last != std::string::npos) s += "." + fraction.substr(0, last + 1);
  return std::u16string(s.begin(), s.end());
}

BSTR AllocBstr(const std::u16string& text) {
  return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

}  // namespace corvane::platform::detail
