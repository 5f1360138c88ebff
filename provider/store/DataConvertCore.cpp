// The conversion matrix of CDataConvert. Values pass through one of five source forms
// (a number or date in a VARIANT, a timestamp, wide text, narrow text, a null) and are
// written by the destination's family. Number, text and date rules are the OLE
// Automation ones (VariantChangeType), so a cell converts the same way here as a
// VARIANT does anywhere else in the provider.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/CodePage.h"
#include "platform/WideString.h"
#include "provider/store/DataConvert.h"

namespace corvane {

namespace {

constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;
constexpr DBTYPE kStrRef = DBTYPE_STR | DBTYPE_BYREF;
constexpr DBTYPE kBStrRef = DBTYPE_BSTR | DBTYPE_BYREF;

enum class Family { None, Number, Date, Time, Text, Variant, Numeric };

Family FamilyOf(DBTYPE type) {
  switch (type) {
    case DBTYPE_I1: case DBTYPE_I2: case DBTYPE_I4: case DBTYPE_I8:
    case DBTYPE_UI1: case DBTYPE_UI2: case DBTYPE_UI4: case DBTYPE_UI8:
    case DBTYPE_R4: case DBTYPE_R8: case DBTYPE_CY: case DBTYPE_DECIMAL: case DBTYPE_BOOL:
      return Family::Number;
    case DBTYPE_DATE:
      return Family::Date;
    case DBTYPE_DBTIMESTAMP: case DBTYPE_DBDATE: case DBTYPE_DBTIME: case DBTYPE_FILETIME:
      return Family::Time;
    case DBTYPE_WSTR: case DBTYPE_STR: case DBTYPE_BSTR:
      return Family::Text;
    case DBTYPE_VARIANT:
      return Family::Variant;
    case DBTYPE_NUMERIC:
      return Family::Numeric;
    default:
      return Family::None;
  }
}

bool IsUnsigned(DBTYPE type) {
  return type == DBTYPE_UI1 || type == DBTYPE_UI2 || type == DBTYPE_UI4 || type == DBTYPE_UI8;
}

// Bytes a fixed-size destination occupies; 0 for the variable-length ones.
DBLENGTH FixedSize(DBTYPE type) {
  switch (type) {
    case DBTYPE_I1: case DBTYPE_UI1: return 1;
    case DBTYPE_I2: case DBTYPE_UI2: case DBTYPE_BOOL: return 2;
    case DBTYPE_I4: case DBTYPE_UI4: case DBTYPE_R4: return 4;
    case DBTYPE_I8: case DBTYPE_UI8: case DBTYPE_R8: case DBTYPE_CY: case DBTYPE_DATE: case DBTYPE_FILETIME:
      return 8;
    case DBTYPE_DECIMAL: return sizeof(DECIMAL);
    case DBTYPE_DBTIMESTAMP: return sizeof(DBTIMESTAMP);
    case DBTYPE_DBDATE: return sizeof(DBDATE);
    case DBTYPE_DBTIME: return sizeof(DBTIME);
    case DBTYPE_NUMERIC: return sizeof(DB_NUMERIC);
    case DBTYPE_VARIANT: return sizeof(VARIANT);
    case DBTYPE_BSTR: return sizeof(BSTR);
    default: return 0;
  }
}

// Source types are the store's cell types plus the other fixed types a consumer may
// hand back; the by-reference strings hold a pointer to the text.
bool IsSourceType(DBTYPE type) {
  if (type == kWStrRef || type == kStrRef || type == kBStrRef) return true;
  Family f = FamilyOf(type);
  return f != Family::None && f != Family::Numeric;
}

bool IsDestinationType(DBTYPE type) {
  if (type == kWStrRef || type == kStrRef) return true;
  return FamilyOf(type) != Family::None;
}

DBTYPE BaseOf(DBTYPE type) { return static_cast<DBTYPE>(type & ~DBTYPE_BYREF); }

bool SupportedPair(DBTYPE src, DBTYPE dst) {
  if (!IsSourceType(src) || !IsDestinationType(dst)) return false;
  Family s = FamilyOf(BaseOf(src));
  Family d = FamilyOf(BaseOf(dst));
  // Numbers and points in time do not mix, except through DATE, which is a number.
  if (s == Family::Number && d == Family::Time) return false;
  if (s == Family::Time && (d == Family::Number || d == Family::Numeric)) return false;
  return true;
}

// Every call asks, so the answers are worked out once: the plain types are below 140,
// and the three by-reference strings take the slots after them.
constexpr int kSlots = 143;

int Slot(DBTYPE type) {
  if (type < 140) return type;
  if (type == kWStrRef) return 140;
  if (type == kStrRef) return 141;
  if (type == kBStrRef) return 142;
  return -1;
}

struct SupportTable {
  bool pair[kSlots][kSlots];
  SupportTable() {
    for (int a = 0; a < kSlots; ++a) {
      for (int b = 0; b < kSlots; ++b) {
        const auto type = [](int slot) {
          return static_cast<DBTYPE>(slot < 140 ? slot : slot == 140 ? kWStrRef : slot == 141 ? kStrRef : kBStrRef);
        };
        pair[a][b] = SupportedPair(type(a), type(b));
      }
    }
  }
};

bool Supported(DBTYPE src, DBTYPE dst) {
  static const SupportTable table;
  const int a = Slot(src), b = Slot(dst);
  return a >= 0 && b >= 0 && table.pair[a][b];
}

// ---- Calendar arithmetic (proleptic Gregorian, days relative to 1970-01-01)

long long DaysFromCivil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  const long long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

void CivilFromDays(long long z, long long& y, unsigned& m, unsigned& d) {
  z += 719468;
  const long long era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<long long>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y += m <= 2;
}

const long long kDateEpochDays = DaysFromCivil(1899, 12, 30);
const long long kFileTimeEpochDays = DaysFromCivil(1601, 1, 1);

bool ValidTimestamp(const DBTIMESTAMP& ts) {
  static const unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (ts.month < 1 || ts.month > 12 || ts.day < 1) return false;
  unsigned days = kDays[ts.month - 1];
  const int y = ts.year;
  if (ts.month == 2 && ((y % 4 == 0 && y % 100 != 0) || y % 400 == 0)) days = 29;
  return ts.day <= days && ts.hour < 24 && ts.minute < 60 && ts.second < 60 && ts.fraction < 1000000000u;
}

// DATE: whole days since 1899-12-30, the fraction's magnitude is the time of day
// (so -1.25 is 1899-12-29 06:00). Kept to the nanosecond the double carries,
// rounded to the millisecond like OLE Automation dates.
bool DateToTimestamp(DATE date, DBTIMESTAMP& ts) {
  if (!(date > -657435.0 && date < 2958466.0)) return false;
  double whole = std::trunc(date);
  long long ms = std::llround(std::fabs(date - whole) * 86400000.0);
  long long day = static_cast<long long>(whole) + kDateEpochDays;
  if (ms >= 86400000LL) {
    ms -= 86400000LL;
    day += 1;
  }
  long long y;
  unsigned m, d;
  CivilFromDays(day, y, m, d);
  ts.year = static_cast<SHORT>(y);
  ts.month = static_cast<USHORT>(m);
  ts.day = static_cast<USHORT>(d);
  ts.hour = static_cast<USHORT>(ms / 3600000);
  ts.minute = static_cast<USHORT>(ms / 60000 % 60);
  ts.second = static_cast<USHORT>(ms / 1000 % 60);
  ts.fraction = static_cast<ULONG>(ms % 1000 * 1000000);
  return true;
}

// Whole seconds go through the Automation routine, so a timestamp and the same time
// parsed from text give the very same double; the fraction is added on top.
DATE TimestampToDate(const DBTIMESTAMP& ts) {
  SYSTEMTIME st{};
  st.wYear = static_cast<WORD>(ts.year);
  st.wMonth = ts.month;
  st.wDay = ts.day;
  st.wHour = ts.hour;
  st.wMinute = ts.minute;
  st.wSecond = ts.second;
  DATE date = 0;
  if (!SystemTimeToVariantTime(&st, &date)) {
    const long long days = DaysFromCivil(ts.year, ts.month, ts.day) - kDateEpochDays;
    const double time = (ts.hour * 3600.0 + ts.minute * 60.0 + ts.second) / 86400.0;
    date = days >= 0 ? static_cast<double>(days) + time : static_cast<double>(days) - time;
  }
  if (ts.fraction != 0) {
    const double fraction = ts.fraction / 1e9 / 86400.0;
    date += date >= 0 ? fraction : -fraction;
  }
  return date;
}

bool FileTimeToTimestamp(const FILETIME& ft, DBTIMESTAMP& ts) {
  const unsigned long long ticks = (static_cast<unsigned long long>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  const unsigned long long perDay = 864000000000ULL;
  long long day = static_cast<long long>(ticks / perDay) + kFileTimeEpochDays;
  unsigned long long rest = ticks % perDay;
  long long y;
  unsigned m, d;
  CivilFromDays(day, y, m, d);
  if (y > 9999) return false;
  ts.year = static_cast<SHORT>(y);
  ts.month = static_cast<USHORT>(m);
  ts.day = static_cast<USHORT>(d);
  const unsigned long long secs = rest / 10000000ULL;
  ts.hour = static_cast<USHORT>(secs / 3600);
  ts.minute = static_cast<USHORT>(secs / 60 % 60);
  ts.second = static_cast<USHORT>(secs % 60);
  ts.fraction = static_cast<ULONG>(rest % 10000000ULL * 100);
  return true;
}

// ---- Text

using platform::AnsiToWide;
using platform::WideToAnsi;

size_t NarrowLen(const char* s) { return s == nullptr ? 0 : std::strlen(s); }

// "yyyy-mm-dd hh:mm:ss" with ".fffffffff" when the fraction is not zero; returns the
// characters written (at most 29).
size_t FormatTimestamp(const DBTIMESTAMP& ts, OLECHAR* out) {
  char buf[48];
  int n;
  if (ts.fraction != 0) {
    n = std::snprintf(buf, sizeof buf, "%04d-%02u-%02u %02u:%02u:%02u.%09lu", static_cast<int>(ts.year),
                      static_cast<unsigned>(ts.month), static_cast<unsigned>(ts.day), static_cast<unsigned>(ts.hour),
                      static_cast<unsigned>(ts.minute), static_cast<unsigned>(ts.second),
                      static_cast<unsigned long>(ts.fraction));
  } else {
    n = std::snprintf(buf, sizeof buf, "%04d-%02u-%02u %02u:%02u:%02u", static_cast<int>(ts.year),
                      static_cast<unsigned>(ts.month), static_cast<unsigned>(ts.day), static_cast<unsigned>(ts.hour),
                      static_cast<unsigned>(ts.minute), static_cast<unsigned>(ts.second));
  }
  for (int i = 0; i < n; ++i) out[i] = static_cast<OLECHAR>(buf[i]);
  return static_cast<size_t>(n);
}

// Reads the canonical form "yyyy-mm-dd[ hh:mm:ss[.f...]]" (blanks around it allowed);
// false for anything else, which then goes to the OLE Automation date parser.
bool ParseCanonicalTimestamp(const OLECHAR* s, size_t n, DBTIMESTAMP& ts) {
  size_t i = 0;
  while (i < n && s[i] == ' ') ++i;
  while (n > i && s[n - 1] == ' ') --n;
  auto number = [&](size_t digits, unsigned& value) {
    value = 0;
    for (size_t k = 0; k < digits; ++k, ++i) {
      if (i >= n || s[i] < '0' || s[i] > '9') return false;
      value = value * 10 + static_cast<unsigned>(s[i] - '0');
    }
    return true;
  };
  auto expect = [&](OLECHAR c) { return i < n && s[i++] == c; };
  unsigned y, mo, d, h = 0, mi = 0, sec = 0, frac = 0;
  if (!number(4, y) || !expect('-') || !number(2, mo) || !expect('-') || !number(2, d)) return false;
  if (i < n) {
    if (!expect(' ') || !number(2, h) || !expect(':') || !number(2, mi) || !expect(':') || !number(2, sec))
      return false;
    if (i < n) {
      if (!expect('.')) return false;
      unsigned scale = 100000000;
      size_t start = i;
      for (; i < n && s[i] >= '0' && s[i] <= '9'; ++i) {
        frac += static_cast<unsigned>(s[i] - '0') * scale;
        scale /= 10;
        if (i - start >= 9) return false;
      }
      if (i == start || i != n) return false;
    }
  }
  ts.year = static_cast<SHORT>(y);
  ts.month = static_cast<USHORT>(mo);
  ts.day = static_cast<USHORT>(d);
  ts.hour = static_cast<USHORT>(h);
  ts.minute = static_cast<USHORT>(mi);
  ts.second = static_cast<USHORT>(sec);
  ts.fraction = frac;
  return ValidTimestamp(ts);
}

// Decimal text of an integer without going through a BSTR; returns the characters.
size_t FormatInteger(bool negative, unsigned long long magnitude, OLECHAR* out) {
  OLECHAR digits[20];
  size_t n = 0;
  do {
    digits[n++] = static_cast<OLECHAR>(u'0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude);
  size_t k = 0;
  if (negative) out[k++] = u'-';
  while (n) out[k++] = digits[--n];
  return k;
}

size_t FormatSigned(long long value, OLECHAR* out) {
  return FormatInteger(value < 0, value < 0 ? 0ull - static_cast<unsigned long long>(value) : value, out);
}

// Exact powers of ten as doubles (every one up to 1e22 is).
constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// The Automation text of a double is its value rounded to 15 significant digits,
// trailing zeros dropped, positional from 1E-4 up to below 1E15. A decimal D of at most
// 15 digits that reads back as d exactly is that rounding: d's rounding interval is at
// most 2^-53 of d on either side, much narrower than half a step of the 15th digit
// (at least 5E-16 of d), so no other 15-digit decimal is as near. Measured values are
// mostly such short decimals (12.5, 0.25, 1013.2), found here in a few multiplications;
// anything else gives 0 and takes the general route.
size_t FormatShortDouble(double d, OLECHAR* out) {
  if (d == 0) {
    out[0] = u'0';
    return 1;
  }
  const double magnitude = std::fabs(d);
  if (!(magnitude >= 1e-4 && magnitude < 1e15)) return 0;  // the exponent forms, NaN and infinities
  for (int k = 0; k < 15; ++k) {
    const double scaled = magnitude * kPowersOfTen[k];
    if (scaled >= 1e15) return 0;  // more than 15 digits
    const double m = std::nearbyint(scaled);
    if (m / kPowersOfTen[k] != magnitude) continue;
    // m * 10^-k is d exactly as a double; m has no trailing zero when k > 0, since k - 1
    // would have matched.
    OLECHAR digits[16];
    size_t count = 0;
    for (auto u = static_cast<unsigned long long>(m); u; u /= 10) digits[count++] = static_cast<OLECHAR>(u'0' + u % 10);
    size_t n = 0;
    if (d < 0) out[n++] = u'-';
    const size_t fraction = static_cast<size_t>(k);
    if (count <= fraction) {
      out[n++] = u'0';
      out[n++] = u'.';
      for (size_t i = count; i < fraction; ++i) out[n++] = u'0';
    }
    for (size_t i = count; i-- > 0;) {
      out[n++] = digits[i];
      if (i == fraction && i != 0 && count > fraction) out[n++] = u'.';
    }
    return n;
  }
  return 0;
}

}  // namespace

size_t NumberText(const VARIANT& v, OLECHAR* out) {
  switch (V_VT(&v)) {
    case VT_I1: return FormatSigned(V_I1(&v), out);
    case VT_I2: return FormatSigned(V_I2(&v), out);
    case VT_I4: return FormatSigned(V_I4(&v), out);
    case VT_INT: return FormatSigned(V_INT(&v), out);
    case VT_I8: return FormatSigned(V_I8(&v), out);
    case VT_UI1: return FormatInteger(false, V_UI1(&v), out);
    case VT_UI2: return FormatInteger(false, V_UI2(&v), out);
    case VT_UI4: return FormatInteger(false, V_UI4(&v), out);
    case VT_UINT: return FormatInteger(false, V_UINT(&v), out);
    case VT_UI8: return FormatInteger(false, V_UI8(&v), out);
    case VT_R8: return FormatShortDouble(V_R8(&v), out);
    default: return 0;
  }
}

namespace {

// ---- The conversion itself

// Where and how one conversion writes its result.
struct Target {
  DBTYPE type;
  DBTYPE base;
  void* dst;
  DBLENGTH max;
  DBLENGTH* length;
  DBSTATUS* status;
  DBDATACONVERT flags;
  BYTE precision;
  BYTE scale;

  void SetLength(DBLENGTH n) const {
    if (length != nullptr) *length = n;
  }
  HRESULT Fail(DBSTATUS s) const {
    *status = s;
    return DB_E_ERRORSOCCURRED;
  }
  HRESULT Ok(DBSTATUS s = DBSTATUS_S_OK) const {
    *status = s;
    return S_OK;
  }
};

// Writes text of `units` code units of `unitSize` bytes. `wholeUnits` is the count of
// leading units that may not be cut (the integer part of a number): losing any of
// them is an overflow, losing later ones a truncation.
HRESULT WriteText(const Target& t, const void* text, size_t units, size_t unitSize, size_t wholeUnits) {
  const DBLENGTH full = static_cast<DBLENGTH>(units) * unitSize;
  if (t.type & DBTYPE_BYREF) {
    void* block = CoTaskMemAlloc(full + unitSize);
    if (block == nullptr) return E_OUTOFMEMORY;
    if (units != 0) std::memcpy(block, text, full);
    std::memset(static_cast<BYTE*>(block) + full, 0, unitSize);
    *static_cast<void**>(t.dst) = block;
    t.SetLength(full);
    return t.Ok();
  }
  if (t.base == DBTYPE_BSTR) {
    BSTR b = SysAllocStringLen(static_cast<const OLECHAR*>(text), static_cast<UINT>(units));
    if (b == nullptr) return E_OUTOFMEMORY;
    *static_cast<BSTR*>(t.dst) = b;
    t.SetLength(sizeof(BSTR));
    return t.Ok();
  }
  t.SetLength(full);
  if (t.max < unitSize) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
  const size_t room = static_cast<size_t>(t.max / unitSize) - 1;
  size_t fit = units < room ? units : room;
  DBSTATUS status = DBSTATUS_S_OK;
  if (fit < units) {
    // A setter must not store a shortened value; neither may a number lose digits
    // of its integer part.
    if ((t.flags & DBDATACONVERT_SETDATABEHAVIOR) || fit < wholeUnits) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
    status = DBSTATUS_S_TRUNCATED;
  }
  auto* out = static_cast<BYTE*>(t.dst);
  if (fit != 0) std::memmove(out, text, fit * unitSize);
  if ((t.flags & DBDATACONVERT_DSTISFIXEDLENGTH) && status == DBSTATUS_S_OK) {
    // A fixed-length text column is blank-padded to its whole width.
    for (size_t k = fit; k < room; ++k) {
      if (unitSize == 2) {
        const OLECHAR blank = ' ';
        std::memcpy(out + k * 2, &blank, 2);
      } else {
        out[k] = ' ';
      }
    }
    fit = room;
    t.SetLength(static_cast<DBLENGTH>(room) * unitSize);
  }
  std::memset(out + fit * unitSize, 0, unitSize);
  return t.Ok(status);
}

HRESULT WriteWide(const Target& t, const OLECHAR* text, size_t units, size_t wholeUnits = 0) {
  if (t.base == DBTYPE_STR) {
    std::string narrow;
    WideToAnsi(text, units, narrow);
    // Code pages here map one unit to one byte, so the integer part keeps its length.
    return WriteText(t, narrow.data(), narrow.size(), 1, wholeUnits);
  }
  return WriteText(t, text, units, 2, wholeUnits);
}

HRESULT WriteNarrow(const Target& t, const char* text, size_t bytes) {
  if (t.base == DBTYPE_STR) return WriteText(t, text, bytes, 1, 0);
  WString wide;
  AnsiToWide(text, bytes, wide);
  return WriteText(t, wide.data(), wide.size(), 2, 0);
}

// Owns what a conversion had to allocate on the way (a BSTR for text given by length).
struct ScratchVariant {
  VARIANT v;
  ScratchVariant() { VariantInit(&v); }
  ~ScratchVariant() { VariantClear(&v); }
  ScratchVariant(const ScratchVariant&) = delete;
  ScratchVariant& operator=(const ScratchVariant&) = delete;
};

// The source, reduced to one of its forms.
struct Source {
  enum Kind { Value, Stamp, Wide, Narrow } kind = Value;
  DBTYPE type = DBTYPE_EMPTY;      // the source type after unwrapping
  const VARIANT* value = nullptr;  // Value: a number, DATE, BOOL... (never VT_NULL)
  VARIANT local;                   // storage for a value read from a cell
  DBTIMESTAMP stamp{};             // Stamp
  DBTYPE stampType = DBTYPE_DBTIMESTAMP;
  const OLECHAR* wide = nullptr;   // Wide
  size_t wideLen = 0;
  BSTR bstr = nullptr;             // Wide: the same text when it already is a BSTR
  const char* narrow = nullptr;    // Narrow
  size_t narrowLen = 0;
  Source() { VariantInit(&local); }
};

bool IsNumericVt(VARTYPE vt) {
  switch (vt) {
    case VT_I1: case VT_I2: case VT_I4: case VT_I8: case VT_INT:
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_UI8: case VT_UINT:
    case VT_R4: case VT_R8: case VT_CY: case VT_DECIMAL:
      return true;
    default:
      return false;
  }
}

// A VARIANT holding the source as a BSTR, borrowing when the source already is one.
HRESULT TextAsBstr(const Source& s, ScratchVariant& scratch, const VARIANT*& out) {
  if (s.kind == Source::Wide && s.bstr != nullptr) {
    V_VT(&scratch.v) = VT_BSTR;
    V_BSTR(&scratch.v) = s.bstr;
    out = &scratch.v;
    // Borrowed: the caller's BSTR must not be freed with the scratch.
    return S_FALSE;
  }
  BSTR b;
  if (s.kind == Source::Wide) {
    b = SysAllocStringLen(s.wide, static_cast<UINT>(s.wideLen));
  } else {
    WString wide;
    AnsiToWide(s.narrow, s.narrowLen, wide);
    b = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
  }
  if (b == nullptr) return E_OUTOFMEMORY;
  V_VT(&scratch.v) = VT_BSTR;
  V_BSTR(&scratch.v) = b;
  out = &scratch.v;
  return S_OK;
}

// Runs VariantChangeType from the source into `result` as `vt`, mapping failures to
// statuses. A borrowed BSTR is detached again before the scratch is cleared.
HRESULT ChangeType(const Target& t, const Source& s, VARIANT& result, VARTYPE vt, DBSTATUS& failure) {
  ScratchVariant scratch;
  const VARIANT* in = s.value;
  bool borrowed = false;
  if (s.kind == Source::Wide || s.kind == Source::Narrow) {
    HRESULT hr = TextAsBstr(s, scratch, in);
    if (FAILED(hr)) return hr;
    borrowed = hr == S_FALSE;
  } else if (s.kind == Source::Stamp) {
    V_VT(&scratch.v) = VT_DATE;
    V_DATE(&scratch.v) = TimestampToDate(s.stamp);
    in = &scratch.v;
  }
  HRESULT hr = VariantChangeType(&result, const_cast<VARIANT*>(in), 0, vt);
  if (hr == DISP_E_OVERFLOW) {
    // A negative value has no unsigned form at all: that is a sign mismatch, not a
    // value too large.
    failure = DBSTATUS_E_DATAOVERFLOW;
    VARIANT r8;
    VariantInit(&r8);
    if (IsUnsigned(t.base) && SUCCEEDED(VariantChangeType(&r8, const_cast<VARIANT*>(in), 0, VT_R8)) &&
        V_R8(&r8) < 0)
      failure = DBSTATUS_E_SIGNMISMATCH;
  } else if (FAILED(hr)) {
    failure = DBSTATUS_E_CANTCONVERTVALUE;
  }
  if (borrowed) V_VT(&scratch.v) = VT_EMPTY;
  return hr;
}

HRESULT FailedChange(const Target& t, HRESULT hr, DBSTATUS failure) {
  if (hr == E_OUTOFMEMORY) return hr;
  return t.Fail(failure);
}

// The value bytes of a scalar VARIANT as the matching DBTYPE (their codes are equal).
void StoreScalar(const Target& t, const VARIANT& v) {
  if (t.base == DBTYPE_DECIMAL) {
    DECIMAL d = V_DECIMAL(&v);
    d.wReserved = 0;
    std::memcpy(t.dst, &d, sizeof d);
  } else {
    std::memcpy(t.dst, &V_I8(&v), static_cast<size_t>(FixedSize(t.base)));
  }
  t.SetLength(FixedSize(t.base));
}

bool IntegerLimits(VARTYPE vt, __int128& lo, __int128& hi) {
  switch (vt) {
    case VT_I1: lo = -128; hi = 127; return true;
    case VT_I2: lo = -32768; hi = 32767; return true;
    case VT_I4: lo = -2147483647LL - 1; hi = 2147483647; return true;
    case VT_I8: lo = static_cast<__int128>(-9223372036854775807LL - 1); hi = 9223372036854775807LL; return true;
    case VT_UI1: lo = 0; hi = 255; return true;
    case VT_UI2: lo = 0; hi = 65535; return true;
    case VT_UI4: lo = 0; hi = 4294967295LL; return true;
    case VT_UI8: lo = 0; hi = static_cast<__int128>(18446744073709551615ULL); return true;
    default: return false;
  }
}

bool IntegerValue(const VARIANT& v, __int128& value) {
  switch (V_VT(&v)) {
    case VT_I1: value = V_I1(&v); return true;
    case VT_I2: value = V_I2(&v); return true;
    case VT_I4: value = V_I4(&v); return true;
    case VT_I8: value = V_I8(&v); return true;
    case VT_UI1: value = V_UI1(&v); return true;
    case VT_UI2: value = V_UI2(&v); return true;
    case VT_UI4: value = V_UI4(&v); return true;
    case VT_UI8: value = V_UI8(&v); return true;
    default: return false;
  }
}

HRESULT ToScalar(const Target& t, const Source& s) {
  const auto vt = static_cast<VARTYPE>(t.base);
  if (s.kind == Source::Value && V_VT(s.value) == vt) {
    StoreScalar(t, *s.value);
    return t.Ok();
  }
  // Integer to integer is checked here: the Automation rules keep the bits between a
  // signed and an unsigned type of one size, where a consumer must see the failure.
  __int128 value, lo, hi;
  if (s.kind == Source::Value && IntegerValue(*s.value, value) && IntegerLimits(vt, lo, hi)) {
    if (value < lo) return t.Fail(lo == 0 ? DBSTATUS_E_SIGNMISMATCH : DBSTATUS_E_DATAOVERFLOW);
    if (value > hi) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
    const auto bits = static_cast<unsigned long long>(value);
    std::memcpy(t.dst, &bits, static_cast<size_t>(FixedSize(t.base)));  // little-endian: the low bytes
    t.SetLength(FixedSize(t.base));
    return t.Ok();
  }
  if (s.kind == Source::Stamp && t.base != DBTYPE_DATE) return t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
  VARIANT result;
  VariantInit(&result);
  DBSTATUS failure = DBSTATUS_S_OK;
  HRESULT hr = ChangeType(t, s, result, vt, failure);
  if (FAILED(hr)) return FailedChange(t, hr, failure);
  StoreScalar(t, result);
  return t.Ok();
}

// DECIMAL into DB_NUMERIC at the binding's precision and scale: fraction digits past
// the scale are cut (truncated), integer digits past the precision overflow.
HRESULT ToNumeric(const Target& t, const Source& s) {
  const BYTE precision = t.precision == 0 ? 38 : t.precision;
  if (precision > 38 || t.scale > precision) return DB_E_BADBINDINFO;
  VARIANT result;
  VariantInit(&result);
  DBSTATUS failure = DBSTATUS_S_OK;
  HRESULT hr;
  if (s.kind == Source::Value && V_VT(s.value) == VT_DECIMAL) {
    result = *s.value;
    hr = S_OK;
  } else {
    if (s.kind == Source::Stamp) return t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
    hr = ChangeType(t, s, result, VT_DECIMAL, failure);
  }
  if (FAILED(hr)) return FailedChange(t, hr, failure);
  const DECIMAL& dec = V_DECIMAL(&result);
  unsigned __int128 m = (static_cast<unsigned __int128>(dec.Hi32) << 64) | dec.Lo64;
  int scale = dec.scale;
  DBSTATUS status = DBSTATUS_S_OK;
  while (scale > t.scale) {
    if (m % 10 != 0) status = DBSTATUS_S_TRUNCATED;
    m /= 10;
    --scale;
  }
  unsigned __int128 limit = 1;
  for (int k = 0; k < precision; ++k) limit *= 10;
  while (scale < t.scale) {
    if (m >= limit / 10) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
    m *= 10;
    ++scale;
  }
  if (m >= limit) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
  DB_NUMERIC out{};
  out.precision = precision;
  out.scale = t.scale;
  out.sign = (dec.sign & DECIMAL_NEG) ? 0 : 1;
  for (int k = 0; k < 16; ++k) out.val[k] = static_cast<BYTE>(m >> (8 * k));
  std::memcpy(t.dst, &out, sizeof out);
  t.SetLength(sizeof(DB_NUMERIC));
  return t.Ok(status);
}

// The source as a timestamp, or the status that says why it is none.
bool SourceTimestamp(const Target& t, const Source& s, DBTIMESTAMP& ts, DBSTATUS& failure) {
  failure = DBSTATUS_E_CANTCONVERTVALUE;
  if (s.kind == Source::Stamp) {
    ts = s.stamp;
    return true;
  }
  if (s.kind == Source::Wide || s.kind == Source::Narrow) {
    WString scratch;
    const OLECHAR* text = s.wide;
    size_t n = s.wideLen;
    if (s.kind == Source::Narrow) {
      AnsiToWide(s.narrow, s.narrowLen, scratch);
      text = scratch.data();
      n = scratch.size();
    }
    if (ParseCanonicalTimestamp(text, n, ts)) return true;
  }
  VARIANT date;
  VariantInit(&date);
  HRESULT hr = ChangeType(t, s, date, VT_DATE, failure);
  if (FAILED(hr)) return false;
  if (!DateToTimestamp(V_DATE(&date), ts)) {
    failure = DBSTATUS_E_DATAOVERFLOW;
    return false;
  }
  return true;
}

// A date or a time of day is a part of a point in time, not a shortened one: what the
// destination has no place for is dropped with S_OK.
HRESULT ToTime(const Target& t, const Source& s) {
  DBTIMESTAMP ts{};
  DBSTATUS failure;
  if (!SourceTimestamp(t, s, ts, failure)) return t.Fail(failure);
  switch (t.base) {
    case DBTYPE_DBTIMESTAMP:
      std::memcpy(t.dst, &ts, sizeof ts);
      t.SetLength(sizeof ts);
      return t.Ok();
    case DBTYPE_DBDATE: {
      DBDATE d{ts.year, ts.month, ts.day};
      std::memcpy(t.dst, &d, sizeof d);
      t.SetLength(sizeof d);
      return t.Ok();
    }
    case DBTYPE_DBTIME: {
      DBTIME tm{ts.hour, ts.minute, ts.second};
      std::memcpy(t.dst, &tm, sizeof tm);
      t.SetLength(sizeof tm);
      return t.Ok();
    }
    default: {  // FILETIME
      const long long days = DaysFromCivil(ts.year, ts.month, ts.day) - kFileTimeEpochDays;
      if (days < 0) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
      const unsigned long long ticks = static_cast<unsigned long long>(days) * 864000000000ULL +
                                       (ts.hour * 3600ULL + ts.minute * 60ULL + ts.second) * 10000000ULL +
                                       ts.fraction / 100;
      FILETIME ft;
      ft.dwLowDateTime = static_cast<DWORD>(ticks);
      ft.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
      std::memcpy(t.dst, &ft, sizeof ft);
      t.SetLength(sizeof ft);
      return t.Ok();
    }
  }
}

// Characters of a number's text that carry its integer part (sign included).
size_t IntegerPart(const OLECHAR* text, size_t n) {
  size_t k = 0;
  while (k < n && text[k] != '.' && text[k] != 'E' && text[k] != 'e') ++k;
  return k;
}

HRESULT ToText(const Target& t, const Source& s) {
  if (s.kind == Source::Wide) return WriteWide(t, s.wide, s.wideLen);
  if (s.kind == Source::Narrow) return WriteNarrow(t, s.narrow, s.narrowLen);
  OLECHAR buf[40];
  if (s.kind == Source::Stamp) {
    DBTIMESTAMP ts = s.stamp;
    size_t n;
    if (s.stampType == DBTYPE_DBDATE) {
      n = FormatTimestamp(ts, buf);
      n = 10;  // the date alone
    } else if (s.stampType == DBTYPE_DBTIME) {
      n = FormatTimestamp(ts, buf);
      std::memmove(buf, buf + 11, 8 * sizeof(OLECHAR));
      n = 8;
    } else {
      n = FormatTimestamp(ts, buf);
    }
    return WriteWide(t, buf, n);
  }
  const VARIANT& v = *s.value;
  switch (V_VT(&v)) {
    case VT_I1: case VT_I2: case VT_I4: case VT_I8: case VT_UI1: case VT_UI2: case VT_UI4: case VT_UI8:
      return WriteWide(t, buf, NumberText(v, buf), 64);
    case VT_R8: {
      const size_t n = FormatShortDouble(V_R8(&v), buf);
      if (n) return WriteWide(t, buf, n, IntegerPart(buf, n));
      break;
    }
    case VT_EMPTY: return WriteWide(t, buf, 0);
    default: break;
  }
  VARIANT text;
  VariantInit(&text);
  HRESULT hr = VariantChangeType(&text, const_cast<VARIANT*>(&v), VARIANT_ALPHABOOL, VT_BSTR);
  if (FAILED(hr)) return hr == E_OUTOFMEMORY ? hr : t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
  const OLECHAR* chars = V_BSTR(&text);
  const size_t n = SysStringLen(V_BSTR(&text));
  const bool number = IsNumericVt(V_VT(&v));
  hr = WriteWide(t, chars, n, number ? IntegerPart(chars, n) : 0);
  VariantClear(&text);
  return hr;
}

HRESULT ToVariant(const Target& t, const Source& s) {
  auto* out = static_cast<VARIANT*>(t.dst);
  VARIANT result;
  VariantInit(&result);
  if (s.kind == Source::Value) {
    HRESULT hr = VariantCopyInd(&result, const_cast<VARIANT*>(s.value));
    if (FAILED(hr)) return hr == E_OUTOFMEMORY ? hr : t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
  } else if (s.kind == Source::Stamp) {
    V_VT(&result) = VT_DATE;
    V_DATE(&result) = TimestampToDate(s.stamp);
  } else {
    BSTR b;
    if (s.kind == Source::Wide) {
      b = SysAllocStringLen(s.wide, static_cast<UINT>(s.wideLen));
    } else {
      WString wide;
      AnsiToWide(s.narrow, s.narrowLen, wide);
      b = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
    }
    if (b == nullptr) return E_OUTOFMEMORY;
    V_VT(&result) = VT_BSTR;
    V_BSTR(&result) = b;
  }
  std::memcpy(static_cast<void*>(out), &result, sizeof result);
  t.SetLength(sizeof(VARIANT));
  return t.Ok();
}

// Text given by a pointer and a byte length, or up to its terminator.
size_t WideSourceLength(const OLECHAR* text, DBLENGTH cbSrcLength, DBDATACONVERT flags) {
  if (flags & DBDATACONVERT_LENGTHFROMNTS) return WLen(text);
  return static_cast<size_t>(cbSrcLength / 2);
}

}  // namespace

HRESULT STDMETHODCALLTYPE CDataConvert::DataConvert(DBTYPE wSrcType, DBTYPE wDstType, DBLENGTH cbSrcLength,
                                                    DBLENGTH* pcbDstLength, void* pSrc, void* pDst,
                                                    DBLENGTH cbDstMaxLength, DBSTATUS dbsSrcStatus,
                                                    DBSTATUS* pdbsStatus, BYTE bPrecision, BYTE bScale,
                                                    DBDATACONVERT dwFlags) {
  DBSTATUS ignored;
  DBSTATUS* status = pdbsStatus != nullptr ? pdbsStatus : &ignored;
  const bool supported = Supported(wSrcType, wDstType);
  if (dbsSrcStatus == DBSTATUS_S_ISNULL && supported) {
    if (pcbDstLength != nullptr) *pcbDstLength = 0;
    *status = DBSTATUS_S_ISNULL;
    return S_OK;
  }
  if (!supported) {
    *status = DBSTATUS_E_BADACCESSOR;
    return DB_E_UNSUPPORTEDCONVERSION;
  }
  if (pSrc == nullptr || pDst == nullptr) return E_INVALIDARG;

  // Same fixed-size type: the hot path of every numeric and timestamp column.
  if (wSrcType == wDstType && wSrcType != DBTYPE_VARIANT && wSrcType != DBTYPE_BSTR &&
      wSrcType != DBTYPE_NUMERIC) {
    const DBLENGTH size = FixedSize(wSrcType);
    if (size != 0) {
      std::memcpy(pDst, pSrc, static_cast<size_t>(size));
      if (pcbDstLength != nullptr) *pcbDstLength = size;
      *status = DBSTATUS_S_OK;
      return S_OK;
    }
  }

  const Target t{wDstType, BaseOf(wDstType), pDst, cbDstMaxLength, pcbDstLength, status, dwFlags, bPrecision, bScale};

  // Wide text into wide text: the other hot path (tag names).
  if (wSrcType == DBTYPE_WSTR && wDstType == DBTYPE_WSTR) {
    const auto* text = static_cast<const OLECHAR*>(pSrc);
    return WriteText(t, text, WideSourceLength(text, cbSrcLength, dwFlags), 2, 0);
  }

  // A VARIANT holding a plain value: copied whole, or read out when it already is of
  // the destination's type (the VALUE column read as VARIANT or as its own type).
  if (wSrcType == DBTYPE_VARIANT) {
    const auto* v = static_cast<const VARIANT*>(pSrc);
    const VARTYPE vt = V_VT(v);
    const bool plain = IsNumericVt(vt) || vt == VT_DATE || vt == VT_BOOL || vt == VT_EMPTY;
    if (plain && wDstType == DBTYPE_VARIANT) {
      std::memcpy(pDst, v, sizeof(VARIANT));
      t.SetLength(sizeof(VARIANT));
      return t.Ok();
    }
    if (plain && vt == static_cast<VARTYPE>(wDstType) && vt != VT_DECIMAL && FamilyOf(wDstType) != Family::None) {
      std::memcpy(pDst, &V_I8(v), static_cast<size_t>(FixedSize(wDstType)));
      t.SetLength(FixedSize(wDstType));
      return t.Ok();
    }
  }

  Source s;
  s.type = BaseOf(wSrcType);
  switch (wSrcType) {
    case DBTYPE_WSTR:
      s.kind = Source::Wide;
      s.wide = static_cast<const OLECHAR*>(pSrc);
      s.wideLen = WideSourceLength(s.wide, cbSrcLength, dwFlags);
      break;
    case kWStrRef:
      s.kind = Source::Wide;
      s.wide = *static_cast<OLECHAR* const*>(pSrc);
      s.wideLen = WideSourceLength(s.wide, cbSrcLength, dwFlags);
      break;
    case DBTYPE_BSTR:
    case kBStrRef: {
      if (wSrcType == kBStrRef && *static_cast<BSTR**>(pSrc) == nullptr) return E_INVALIDARG;
      BSTR b = wSrcType == DBTYPE_BSTR ? *static_cast<BSTR*>(pSrc) : **static_cast<BSTR**>(pSrc);
      s.kind = Source::Wide;
      s.wide = b;
      s.wideLen = SysStringLen(b);
      s.bstr = b;
      break;
    }
    case DBTYPE_STR:
    case kStrRef: {
      s.kind = Source::Narrow;
      s.narrow = wSrcType == DBTYPE_STR ? static_cast<const char*>(pSrc) : *static_cast<char* const*>(pSrc);
      s.narrowLen = (dwFlags & DBDATACONVERT_LENGTHFROMNTS) ? NarrowLen(s.narrow)
                                                            : static_cast<size_t>(cbSrcLength);
      break;
    }
    case DBTYPE_VARIANT: {
      const auto* v = static_cast<const VARIANT*>(pSrc);
      if (V_VT(v) == VT_NULL) {
        if (pcbDstLength != nullptr) *pcbDstLength = 0;
        *status = DBSTATUS_S_ISNULL;
        return S_OK;
      }
      if (V_VT(v) == VT_BSTR) {
        s.kind = Source::Wide;
        s.bstr = V_BSTR(v);
        s.wide = s.bstr;
        s.wideLen = SysStringLen(s.bstr);
      } else {
        s.value = v;
      }
      break;
    }
    case DBTYPE_DBTIMESTAMP:
      s.kind = Source::Stamp;
      std::memcpy(&s.stamp, pSrc, sizeof s.stamp);
      if (!ValidTimestamp(s.stamp)) return t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
      break;
    case DBTYPE_DBDATE: {
      DBDATE d;
      std::memcpy(&d, pSrc, sizeof d);
      s.kind = Source::Stamp;
      s.stampType = DBTYPE_DBDATE;
      s.stamp = DBTIMESTAMP{d.year, d.month, d.day, 0, 0, 0, 0};
      if (!ValidTimestamp(s.stamp)) return t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
      break;
    }
    case DBTYPE_DBTIME: {
      DBTIME tm;
      std::memcpy(&tm, pSrc, sizeof tm);
      s.kind = Source::Stamp;
      s.stampType = DBTYPE_DBTIME;
      // A time of day alone is that time on DATE's day zero.
      s.stamp = DBTIMESTAMP{1899, 12, 30, tm.hour, tm.minute, tm.second, 0};
      if (!ValidTimestamp(s.stamp)) return t.Fail(DBSTATUS_E_CANTCONVERTVALUE);
      break;
    }
    case DBTYPE_FILETIME: {
      FILETIME ft;
      std::memcpy(&ft, pSrc, sizeof ft);
      s.kind = Source::Stamp;
      if (!FileTimeToTimestamp(ft, s.stamp)) return t.Fail(DBSTATUS_E_DATAOVERFLOW);
      break;
    }
    default: {
      // A fixed-size number, BOOL or DATE: read into a VARIANT of the same code.
      V_VT(&s.local) = static_cast<VARTYPE>(wSrcType);
      if (wSrcType == DBTYPE_DECIMAL) {
        std::memcpy(&V_DECIMAL(&s.local), pSrc, sizeof(DECIMAL));
        V_VT(&s.local) = VT_DECIMAL;
      } else {
        std::memcpy(&V_I8(&s.local), pSrc, static_cast<size_t>(FixedSize(wSrcType)));
      }
      s.value = &s.local;
      break;
    }
  }
  if ((s.kind == Source::Wide && s.wide == nullptr && s.wideLen != 0) ||
      (s.kind == Source::Narrow && s.narrow == nullptr && s.narrowLen != 0))
    return E_INVALIDARG;

  switch (FamilyOf(t.base)) {
    case Family::Text:
      return ToText(t, s);
    case Family::Variant:
      return ToVariant(t, s);
    case Family::Numeric:
      return ToNumeric(t, s);
    case Family::Time:
      return ToTime(t, s);
    case Family::Date:
      if (s.kind == Source::Stamp) {
        V_DATE(&s.local) = TimestampToDate(s.stamp);
        std::memcpy(pDst, &V_DATE(&s.local), sizeof(DATE));
        t.SetLength(sizeof(DATE));
        return t.Ok();
      }
      if (s.kind == Source::Wide) {
        // The canonical form keeps its fraction, which the date parser would not.
        DBTIMESTAMP ts;
        if (ParseCanonicalTimestamp(s.wide, s.wideLen, ts)) {
          const DATE date = TimestampToDate(ts);
          std::memcpy(pDst, &date, sizeof date);
          t.SetLength(sizeof(DATE));
          return t.Ok();
        }
      }
      return ToScalar(t, s);
    default:
      return ToScalar(t, s);
  }
}

HRESULT STDMETHODCALLTYPE CDataConvert::CanConvert(DBTYPE wSrcType, DBTYPE wDstType) {
  return Supported(wSrcType, wDstType) ? S_OK : S_FALSE;
}

HRESULT STDMETHODCALLTYPE CDataConvert::GetConversionSize(DBTYPE wSrcType, DBTYPE wDstType,
                                                          DBLENGTH* pcbSrcLength, DBLENGTH* pcbDstLength,
                                                          void* pSrc) {
  if (pcbDstLength == nullptr) return E_INVALIDARG;
  if (!Supported(wSrcType, wDstType)) return DB_E_UNSUPPORTEDCONVERSION;
  const DBTYPE dst = BaseOf(wDstType);
  if (wDstType & DBTYPE_BYREF) {
    *pcbDstLength = sizeof(void*);
    return S_OK;
  }
  if (dst != DBTYPE_WSTR && dst != DBTYPE_STR) {
    *pcbDstLength = FixedSize(dst);
    return S_OK;
  }
  const DBLENGTH unit = dst == DBTYPE_WSTR ? 2 : 1;
  const DBTYPE src = BaseOf(wSrcType);
  size_t chars = 0;
  if (src == DBTYPE_WSTR || src == DBTYPE_STR || src == DBTYPE_BSTR || src == DBTYPE_VARIANT) {
    // Only the value itself can tell how long its text is.
    if (pSrc == nullptr) return E_INVALIDARG;
    const void* value = (wSrcType & DBTYPE_BYREF) ? *static_cast<void* const*>(pSrc) : pSrc;
    if (src == DBTYPE_WSTR) {
      const auto* w = static_cast<const OLECHAR*>(value);
      chars = (pcbSrcLength != nullptr && *pcbSrcLength != 0) ? static_cast<size_t>(*pcbSrcLength / 2) : WLen(w);
    } else if (src == DBTYPE_STR) {
      const auto* a = static_cast<const char*>(value);
      chars = (pcbSrcLength != nullptr && *pcbSrcLength != 0) ? static_cast<size_t>(*pcbSrcLength) : NarrowLen(a);
    } else if (src == DBTYPE_BSTR) {
      chars = SysStringLen(*static_cast<const BSTR*>(value));
    } else {
      // Convert once to learn the length; the text itself is dropped.
      DBLENGTH length = 0;
      DBSTATUS status = DBSTATUS_S_OK;
      OLECHAR* text = nullptr;
      HRESULT hr = DataConvert(wSrcType, kWStrRef, 0, &length, const_cast<void*>(value), &text, 0,
                               DBSTATUS_S_OK, &status, 0, 0, 0);
      CoTaskMemFree(text);
      if (FAILED(hr)) return hr;
      chars = static_cast<size_t>(length / 2);
    }
  } else {
    // The longest text each fixed type can take.
    switch (src) {
      case DBTYPE_I1: chars = 4; break;
      case DBTYPE_UI1: chars = 3; break;
      case DBTYPE_I2: chars = 6; break;
      case DBTYPE_UI2: chars = 5; break;
      case DBTYPE_I4: chars = 11; break;
      case DBTYPE_UI4: chars = 10; break;
      case DBTYPE_I8: case DBTYPE_UI8: chars = 20; break;
      case DBTYPE_BOOL: chars = 5; break;
      case DBTYPE_DBTIMESTAMP: chars = 29; break;
      case DBTYPE_DBDATE: chars = 10; break;
      case DBTYPE_DBTIME: chars = 8; break;
      default: chars = 32; break;  // reals, CY, DECIMAL, DATE and FILETIME texts
    }
  }
  *pcbDstLength = (static_cast<DBLENGTH>(chars) + 1) * unit;
  return S_OK;
}

}  // namespace corvane
