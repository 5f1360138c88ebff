#include "SQLParser/SQLFunctionDateAdd.h"

#include <cstdint>

#include "SQLParser/TimeConversion.h"

namespace {

enum DateAddUnit : int { kNoUnit = 0, kMs, kSs, kMi, kHh, kDd, kWk, kMm, kYy };

int UnitOf(corvane::WStringView text) {
  static const OLECHAR* const kUnits[] = {OLESTR("ms"), OLESTR("ss"), OLESTR("mi"), OLESTR("hh"),
                                          OLESTR("dd"), OLESTR("wk"), OLESTR("mm"), OLESTR("yy")};
  for (int i = 0; i < 8; ++i)
    if (corvane::WIEquals(text, kUnits[i])) return i + 1;
  return kNoUnit;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }
int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

constexpr int kLastSystemTimeYear = 30827;

}  // namespace

HRESULT CSQLFunctionDateAdd::OutOfRange() const {
  TraceError(OLESTR("Result out of range (HR = %X)."), static_cast<unsigned>(DISP_E_OVERFLOW));
  return DISP_E_OVERFLOW;
}

HRESULT CSQLFunctionDateAdd::Evaluate() {
  HRESULT hr = CheckArgumentCount(3, 3);
  if (FAILED(hr)) return hr;
  VARIANT unit, count;
  VariantInit(&unit);
  VariantInit(&count);
  ULONG64 date = 0;
  hr = ReadConverted(0, VT_BSTR, &unit);
  if (SUCCEEDED(hr)) hr = ReadConverted(1, VT_I4, &count);
  if (SUCCEEDED(hr)) hr = EvaluateFunctionArgument(2);  // DATEADD('hh', -1, NOW())
  if (SUCCEEDED(hr)) hr = ReadTime(2, &date);
  if (FAILED(hr)) {
    VariantClear(&unit);
    TraceError(OLESTR("Failed to initialize parameters (HR = %X)."), static_cast<unsigned>(hr));
    return hr;
  }
  const int unitNumber =
      UnitOf(corvane::WStringView(unit.bstrVal ? unit.bstrVal : OLESTR(""), unit.bstrVal ? SysStringLen(unit.bstrVal) : 0));
  VariantClear(&unit);
  const LONG64 n = V_I4(&count);

  if (unitNumber == kNoUnit) {
    SetResultTime(0);
    return S_OK;
  }
  if (unitNumber <= kWk) {
    static const LONG64 kTicks[] = {0, 10000LL, 10000000LL, 600000000LL, 36000000000LL, 864000000000LL,
                                    6048000000000LL};
    // A count of weeks or days can be 2^31: the product and the sum are checked in
    // 64 bits before they are made, and the result must stay a FILETIME.
    LONG64 delta = 0;
    LONG64 result = 0;
    if (date > static_cast<ULONG64>(INT64_MAX) || __builtin_mul_overflow(n, kTicks[unitNumber], &delta) ||
        __builtin_add_overflow(static_cast<LONG64>(date), delta, &result) || result < 0)
      return OutOfRange();
    SetResultTime(static_cast<ULONG64>(result));
    return S_OK;
  }

  const FILETIME in = corvane::TicksToFileTime(date);
  SYSTEMTIME fields{};
  if (!FileTimeToSystemTime(&in, &fields)) return OutOfRange();
  LONG64 year = fields.wYear;
  if (unitNumber == kYy) {
    year += n;
  } else {
    // One month at a time, the day of the month left as it is.
    int month = fields.wMonth;
    const int step = n < 0 ? -1 : 1;
    for (LONG64 i = 0; i < (n < 0 ? -n : n) && year >= 1601 && year <= kLastSystemTimeYear; ++i) {
      month += step;
      if (month > 12) {
        month = 1;
        ++year;
      } else if (month < 1) {
        month = 12;
        --year;
      }
    }
    fields.wMonth = static_cast<WORD>(month);
  }
  if (year < 1601 || year > kLastSystemTimeYear) return OutOfRange();
  fields.wYear = static_cast<WORD>(year);
  // 31 January plus one month is 31 February: no such date, and no quiet clamping
  // to the month's end either.
  FILETIME out{};
  if (fields.wDay > DaysInMonth(fields.wYear, fields.wMonth) || !SystemTimeToFileTime(&fields, &out)) {
    TraceError(OLESTR("No such date: %u-%02u-%02u (HR = %X)."), static_cast<unsigned>(fields.wYear),
               static_cast<unsigned>(fields.wMonth), static_cast<unsigned>(fields.wDay),
               static_cast<unsigned>(E_INVALIDARG));
    return E_INVALIDARG;
  }
  // Calendar fields hold milliseconds; the finer ticks are carried over.
  SetResultTime(corvane::FileTimeToTicks(out) + date % corvane::kTicksPerMillisecond);
  return S_OK;
}
