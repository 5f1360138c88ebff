// Pieces shared by the POSIX OLE Automation sources: type validation, and the number,
// text and date machinery behind VariantChangeType and the Var* functions.
#pragma once
#ifndef _WIN32
#include <cstdint>
#include <string>

#include "platform/posix/OleAuto.h"

namespace corvane::platform::detail {

// S_OK when vt names a type a VARIANT may hold, DISP_E_BADVARTYPE otherwise.
HRESULT ValidateVarType(VARTYPE vt);

using U128 = unsigned __int128;

// ---- Numbers read from text --------------------------------------------------------
// value = (negative ? -1 : 1) * digits * 10^exponent, or, for the &H / &O forms, the bit
// pattern in `bits`.
struct NumberText {
  bool negative = false;
  bool radix = false;  // &H / &O
  uint64_t bits = 0;
  std::string digits;  // significant decimal digits without leading zeros; empty is zero
  int exponent = 0;
};
// Reads a whole text as a number with the en-US rules (white space, signs before or
// after, parentheses, '$', ',' grouping, '.', exponents, &H and &O). Parsing stops at
// the first null, as it does for any OLECHAR string. DISP_E_TYPEMISMATCH when the text
// is not a number, DISP_E_OVERFLOW when a radix form exceeds 64 bits.
HRESULT ParseNumberText(const OLECHAR* text, LCID lcid, NumberText& out);
// Rounds half to even to an integer magnitude; false when it does not fit 128 bits.
bool RoundToInteger(const NumberText& n, U128& magnitude);
// As a double; DISP_E_OVERFLOW beyond its range.
HRESULT NumberTextToDouble(const NumberText& n, double& out);
// Exactly, rounding half to even past 28 decimals; DISP_E_OVERFLOW beyond 96 bits.
HRESULT NumberTextToDecimal(const NumberText& n, DECIMAL& out);
// The value times 10^4 rounded half to even; DISP_E_OVERFLOW beyond 64 bits.
HRESULT NumberTextToCurrency(const NumberText& n, LONGLONG& out);

// ---- DECIMAL in working form -------------------------------------------------------
constexpr U128 kDecimalMax = (U128(1) << 96) - 1;
inline U128 DecimalMantissa(const DECIMAL& d) { return (U128(d.Hi32) << 64) | d.Lo64; }
void SetDecimal(DECIMAL& d, bool negative, int scale, U128 mantissa);
// Divides by 10^scale rounding half to even.
U128 DecimalRoundToInteger(const DECIMAL& d);
double DecimalToDouble(const DECIMAL& d);
// From a double with `digits` significant decimal digits (15 for R8, 7 for R4).
HRESULT DecimalFromDouble(double value, int digits, DECIMAL& out);

// ---- Text output (en-US) -----------------------------------------------------------
std::u16string FormatInteger(bool negative, U128 magnitude);
// %G-style with the given significant digits: "0.1", "1E+20", "1.5E-07", "NAN", "INF".
std::u16string FormatReal(double value, int digits);
// Fixed notation, trailing zeros after the point dropped.
std::u16string FormatScaled(bool negative, U128 mantissa, int scale);
BSTR AllocBstr(const std::u16string& text);

// ---- Dates -------------------------------------------------------------------------
// The valid DATE range: 0100-01-01 through 9999-12-31 23:59:59.
constexpr double kDateMin = -657434.0;
constexpr double kDateMax = 2958465.0;
inline bool DateInRange(double d) { return d > kDateMin - 1.0 && d < kDateMax + 1.0; }
HRESULT ParseDateText(const OLECHAR* text, LCID lcid, ULONG flags, DATE& out);
HRESULT FormatDate(DATE value, LCID lcid, ULONG flags, std::u16string& out);

}  // namespace corvane::platform::detail
#endif  // !_WIN32
