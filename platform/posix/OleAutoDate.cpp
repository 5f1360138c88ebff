// DATE values (days since 1899-12-30, the fraction being the time of day, also for
// negative dates) to and from calendar parts and en-US text.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "platform/posix/OleAutoInternal.h"

namespace corvane::platform::detail {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date; month may be any value and
// rolls into neighbouring years.
long DaysFromCivil(long y, long m, long d) {
  y += (m > 0 ? (m - 1) / 12 : (m - 12) / 12);
  m = ((m - 1) % 12 + 12) % 12 + 1;
  y -= m <= 2;
  const long era = (y >= 0 ? y : y - 399) / 400;
  const long yoe = y - era * 400;
  const long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void CivilFromDays(long z, long& y, long& m, long& d) {
  z += 719468;
  const long era = (z >= 0 ? z : z - 146096) / 146097;
  const long doe = z - era * 146097;
  const long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const long mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = yoe + era * 400 + (m <= 2);
}

const long kEpoch = DaysFromCivil(1899, 12, 30);

bool IsLeap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }
long DaysInMonth(long y, long m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && IsLeap(y) ? 29 : kDays[m - 1];
}

// Two-digit years: 0-49 are 2000-2049, 50-99 are 1950-1999.
long ExpandYear(long y) { return y < 50 ? y + 2000 : y < 100 ? y + 1900 : y; }

// The time is added part by part with the sign of the date, as the system does, so
// that results agree to the last bit.
double ComposeDate(long dayNumber, long h, long mi, double s) {
  double v = static_cast<double>(dayNumber);
  const double sign = v < 0 ? -1.0 : 1.0;
  v += h / 24.0 * sign;
  v += mi / 1440.0 * sign;
  v += s / 86400.0 * sign;
  return v;
}

struct DateParts {
  long year, month, day, hour, minute, second, dayOfWeek;
};

// Rounds to the nearest second; the day rolls over when the time rounds up to 24:00.
// A hair (1e-11 day, under a microsecond) is added first, as the system does, so that
// a time meant as hh:mm:ss.5 that landed a few bits short still rounds up.
DateParts BreakDate(double value) {
  double whole = std::trunc(value);
  double fraction = std::fabs(value - whole);
  long seconds = static_cast<long>(std::floor((fraction + 1e-11) * 86400.0 + 0.5));
  long day = static_cast<long>(whole);
  if (seconds >= 86400) {
    seconds -= 86400;
    ++day;
  }
  DateParts p;
  CivilFromDays(day + kEpoch, p.year, p.month, p.day);
  p.hour = seconds / 3600;
  p.minute = seconds / 60 % 60;
  p.second = seconds % 60;
  // 1970-01-01 was a Thursday.
  p.dayOfWeek = ((day + kEpoch) % 7 + 7 + 4) % 7;
  return p;
}

long CurrentYear() {
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  return local.tm_year + 1900;
}

bool IsSpace(OLECHAR c) { return c == u' ' || (c >= 0x09 && c <= 0x0D) || c == 0xA0; }
bool IsDigit(OLECHAR c) { return c >= u'0' && c <= u'9'; }
bool IsLetter(OLECHAR c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }

enum class Tok { Number, Month, AmPm, DayName, Sep, Space };
struct Token {
  Tok kind;
  unsigned long value;  // number (saturated), month 1-12, 0 = AM / 1 = PM
  int digits;           // digit count of a number
  char sep;
};

bool MatchWord(const std::u16string& w, Token& t) {
  static const char* const kMonths[] = {"january", "february", "march",     "april",   "may",      "june",
                                        "july",    "august",   "september", "october", "november", "december"};
  static const char* const kDays[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
  std::string lower;
  for (char16_t c : w) lower += static_cast<char>(c >= u'A' && c <= u'Z' ? c + 32 : c);
  auto matches = [&](const char* name) { return lower == name || (lower.size() == 3 && lower == std::string(name, 3)); };
  for (int i = 0; i < 12; ++i)
    if (matches(kMonths[i])) {
      t = {Tok::Month, static_cast<unsigned long>(i + 1), 0, 0};
      return true;
    }
  for (const char* d : kDays)
    if (matches(d)) {
      t = {Tok::DayName, 0, 0, 0};
      return true;
    }
  if (lower == "am" || lower == "pm") {
    t = {Tok::AmPm, lower == "pm" ? 1ul : 0ul, 0, 0};
    return true;
  }
  return false;
}

bool Tokenize(const OLECHAR* p, std::vector<Token>& out) {
  while (*p) {
    if (IsSpace(*p)) {
      while (IsSpace(*p)) ++p;
      if (!out.empty() && out.back().kind != Tok::Space) out.push_back({Tok::Space, 0, 0, ' '});
    } else if (IsDigit(*p)) {
      Token t{Tok::Number, 0, 0, 0};
      for (; IsDigit(*p); ++p, ++t.digits)
        if (t.value < 100000000ul) t.value = t.value * 10 + static_cast<unsigned long>(*p - u'0');
      out.push_back(t);
    } else if (IsLetter(*p)) {
      std::u16string word;
      while (IsLetter(*p)) word += *p++;
      Token t;
      if (!MatchWord(word, t)) return false;
      out.push_back(t);
    } else if (*p == u'/' || *p == u'-' || *p == u',' || *p == u'.' || *p == u':') {
      out.push_back({Tok::Sep, 0, 0, static_cast<char>(*p++)});
    } else {
      return false;
    }
  }
  if (!out.empty() && out.back().kind == Tok::Space) out.pop_back();
  return true;
}

struct ParsedDate {
  bool hasDate = false, hasTime = false;
  long year = 1899, month = 12, day = 30;
  long hour = 0, minute = 0;
  double second = 0;
};

bool YearLike(const Token& t) { return t.digits >= 3 || t.value > 31; }

// The forms the system's own parser reads: month/day/year in any of the separators
// '/', '-', ',' and space, day-first or year-first when the numbers demand it, month
// names, and h:mm[:ss] (':' or '.') with AM/PM.
bool ParseGeneral(const OLECHAR* text, ParsedDate& r) {
  std::vector<Token> t;
  if (!Tokenize(text, t) || t.empty()) return false;
  if (t.front().kind == Tok::Sep) return false;
  std::vector<Token> dateNumbers;
  long month = 0;
  bool ampmSeen = false, pm = false;
  std::vector<unsigned long> time;
  for (size_t i = 0; i < t.size(); ++i) {
    const Token& k = t[i];
    switch (k.kind) {
      case Tok::Number: {
        const bool timeGroup = i + 2 < t.size() && t[i + 1].kind == Tok::Sep &&
                               (t[i + 1].sep == ':' || t[i + 1].sep == '.') && t[i + 2].kind == Tok::Number;
        size_t next = i + 1;
        while (next < t.size() && t[next].kind == Tok::Space) ++next;
        const bool hourOnly = next < t.size() && t[next].kind == Tok::AmPm;
        if (timeGroup || hourOnly) {
          if (!time.empty()) return false;
          time.push_back(k.value);
          while (i + 2 < t.size() && t[i + 1].kind == Tok::Sep && (t[i + 1].sep == ':' || t[i + 1].sep == '.') &&
                 t[i + 2].kind == Tok::Number) {
            time.push_back(t[i + 2].value);
            i += 2;
          }
          if (time.size() > 3) return false;
        } else {
          dateNumbers.push_back(k);
        }
        break;
      }
      case Tok::Month:
        if (month) return false;
        month = static_cast<long>(k.value);
        break;
      case Tok::AmPm:
        if (time.empty() || ampmSeen) return false;
        ampmSeen = true;
        pm = k.value == 1;
        break;
      case Tok::Sep:
        // ':' and '.' only join the parts of a time.
        if (k.sep == ':' || k.sep == '.') return false;
        break;
      default:
        break;
    }
  }

  if (!time.empty()) {
    r.hasTime = true;
    long h = static_cast<long>(time[0]);
    if (ampmSeen) {
      if (h == 12) h = pm ? 12 : 0;
      else if (pm && h < 12) h += 12;
    }
    r.hour = h;
    r.minute = time.size() > 1 ? static_cast<long>(time[1]) : 0;
    r.second = time.size() > 2 ? static_cast<double>(time[2]) : 0;
    if (r.hour > 23 || r.minute > 59 || r.second > 59) return false;
  }

  long y, m, d;
  const size_t n = dateNumbers.size();
  if (month) {
    m = month;
    if (n == 2) {
      const bool yearFirst = YearLike(dateNumbers[0]);
      y = static_cast<long>(dateNumbers[yearFirst ? 0 : 1].value);
      d = static_cast<long>(dateNumbers[yearFirst ? 1 : 0].value);
    } else if (n == 1) {
      if (YearLike(dateNumbers[0])) {
        y = static_cast<long>(dateNumbers[0].value);
        d = 1;
      } else {
        y = CurrentYear();
        d = static_cast<long>(dateNumbers[0].value);
      }
    } else {
      return false;
    }
  } else if (n == 3) {
    const Token &a = dateNumbers[0], &b = dateNumbers[1], &c = dateNumbers[2];
    if (YearLike(a)) {
      y = static_cast<long>(a.value);
      m = static_cast<long>(b.value);
      d = static_cast<long>(c.value);
    } else {
      m = static_cast<long>(a.value);
      d = static_cast<long>(b.value);
      y = static_cast<long>(c.value);
    }
    if (m > 12 && d <= 12) std::swap(m, d);
  } else if (n == 2) {
    const Token &a = dateNumbers[0], &b = dateNumbers[1];
    if (YearLike(b)) {
      m = static_cast<long>(a.value);
      y = static_cast<long>(b.value);
      d = 1;
    } else if (YearLike(a)) {
      y = static_cast<long>(a.value);
      m = static_cast<long>(b.value);
      d = 1;
    } else {
      m = static_cast<long>(a.value);
      d = static_cast<long>(b.value);
      y = CurrentYear();
      if (m > 12 && d <= 12) std::swap(m, d);
    }
  } else if (n == 0) {
    return r.hasTime;
  } else {
    return false;
  }
  y = ExpandYear(y);
  if (m < 1 || m > 12 || y < 100 || y > 9999 || d < 1 || d > DaysInMonth(y, m)) return false;
  r.hasDate = true;
  r.year = y;
  r.month = m;
  r.day = d;
  return true;
}

// ISO 8601 forms the system's parser does not know: yyyy-mm-dd followed by 'T' or a
// space, hh:mm[:ss[.fraction]], and an optional 'Z' (times in text are UTC already).
bool ParseIso(const OLECHAR* p, ParsedDate& r) {
  auto number = [&](int minDigits, int maxDigits, long& v) {
    int n = 0;
    v = 0;
    while (IsDigit(*p) && n < maxDigits) {
      v = v * 10 + (*p++ - u'0');
      ++n;
    }
    return n >= minDigits && !IsDigit(*p);
  };
  while (IsSpace(*p)) ++p;
  long y, m, d;
  if (!number(4, 4, y) || *p++ != u'-' || !number(1, 2, m) || *p++ != u'-' || !number(1, 2, d)) return false;
  if (m < 1 || m > 12 || y < 100 || d < 1 || d > DaysInMonth(y, m)) return false;
  r.hasDate = true;
  r.year = y;
  r.month = m;
  r.day = d;
  if (*p == u'T' || (*p == u' ' && IsDigit(p[1]))) {
    ++p;
    long h, mi, s = 0;
    if (!number(1, 2, h) || *p++ != u':' || !number(2, 2, mi)) return false;
    double fraction = 0;
    if (*p == u':') {
      ++p;
      if (!number(2, 2, s)) return false;
      if (*p == u'.') {
        ++p;
        if (!IsDigit(*p)) return false;
        double unit = 0.1;
        for (; IsDigit(*p); ++p, unit /= 10) fraction += (*p - u'0') * unit;
      }
    }
    if (h > 23 || mi > 59 || s > 59) return false;
    r.hasTime = true;
    r.hour = h;
    r.minute = mi;
    r.second = static_cast<double>(s) + fraction;
    if (*p == u'Z') ++p;
  }
  while (IsSpace(*p)) ++p;
  return *p == 0;
}

void AppendNumber(std::u16string& s, long v, int width) {
  char buf[24];
  int n = snprintf(buf, sizeof buf, "%0*ld", width, v);
  for (int i = 0; i < n; ++i) s += static_cast<char16_t>(buf[i]);
}

}  // namespace

HRESULT ParseDateText(const OLECHAR* text, LCID, ULONG flags, DATE& out) {
  if (!text) return DISP_E_TYPEMISMATCH;
  ParsedDate r;
  if (!ParseGeneral(text, r)) {
    r = ParsedDate();
    if (!ParseIso(text, r)) return DISP_E_TYPEMISMATCH;
  }
  if (flags & VAR_TIMEVALUEONLY) r.year = 1899, r.month = 12, r.day = 30;
  if (flags & VAR_DATEVALUEONLY) r.hour = 0, r.minute = 0, r.second = 0;
  out = ComposeDate(DaysFromCivil(r.year, r.month, r.day) - kEpoch, r.hour, r.minute, r.second);
  return S_OK;
}

HRESULT FormatDate(DATE value, LCID lcid, ULONG flags, std::u16string& out) {
  if (!DateInRange(value)) return E_INVALIDARG;
  const double whole = std::trunc(value);
  bool showDate = whole != 0;
  bool showTime = value != whole || whole == 0;
  if (flags & VAR_TIMEVALUEONLY) showDate = false;
  if (flags & VAR_DATEVALUEONLY) showTime = false;
  const DateParts p = BreakDate(value);
  // The invariant locale writes MM/dd/y HH:mm:ss; the others here follow en-US.
  const bool invariant = (lcid & 0xFFFF) == LOCALE_INVARIANT;
  out.clear();
  if (showDate) {
    AppendNumber(out, p.month, invariant ? 2 : 1);
    out += u'/';
    AppendNumber(out, p.day, invariant ? 2 : 1);
    out += u'/';
    AppendNumber(out, p.year, 1);
  }
  if (showTime) {
    if (showDate) out += u' ';
    if (invariant) {
      AppendNumber(out, p.hour, 2);
    } else {
      AppendNumber(out, p.hour % 12 == 0 ? 12 : p.hour % 12, 1);
    }
    out += u':';
    AppendNumber(out, p.minute, 2);
    out += u':';
    AppendNumber(out, p.second, 2);
    if (!invariant) out += p.hour < 12 ? u" AM" : u" PM";
  }
  return S_OK;
}

}  // namespace corvane::platform::detail

using namespace corvane::platform::detail;

extern "C" {

INT SystemTimeToVariantTime(LPSYSTEMTIME st, DOUBLE* pvtime) {
  if (!st || !pvtime) return FALSE;
  if (st->wYear > 9999 || st->wMonth > 12 || st->wDay > 31) return FALSE;
  // Milliseconds are ignored; seconds, minutes and hours past their range roll over
  // into the next unit, and days past the month's end into the next month.
  long second = st->wSecond, minute = st->wMinute, hour = st->wHour;
  minute += second / 60;
  second %= 60;
  hour += minute / 60;
  minute %= 60;
  const long extraDays = hour / 24;
  hour %= 24;
  const long year = ExpandYear(st->wYear);
  const long day = DaysFromCivil(year, st->wMonth, 1) + st->wDay - 1 + extraDays - kEpoch;
  if (!DateInRange(static_cast<double>(day))) return FALSE;
  *pvtime = ComposeDate(day, hour, minute, static_cast<double>(second));
  return TRUE;
}

INT VariantTimeToSystemTime(DOUBLE vtime, LPSYSTEMTIME st) {
  if (!st || !DateInRange(vtime)) return FALSE;
  const DateParts p = BreakDate(vtime);
  st->wYear = static_cast<WORD>(p.year);
  st->wMonth = static_cast<WORD>(p.month);
  st->wDay = static_cast<WORD>(p.day);
  st->wDayOfWeek = static_cast<WORD>(p.dayOfWeek);
  st->wHour = static_cast<WORD>(p.hour);
  st->wMinute = static_cast<WORD>(p.minute);
  st->wSecond = static_cast<WORD>(p.second);
  st->wMilliseconds = 0;
  return TRUE;
}

HRESULT VarDateFromStr(OLECHAR* strIn, LCID lcid, ULONG dwFlags, DATE* pdateOut) {
  if (!pdateOut) return E_INVALIDARG;
  return ParseDateText(strIn, lcid, dwFlags, *pdateOut);
}

HRESULT VarBstrFromDate(DATE dateIn, LCID lcid, ULONG dwFlags, BSTR* pbstrOut) {
  if (!pbstrOut) return E_INVALIDARG;
  *pbstrOut = nullptr;
  std::u16string text;
  HRESULT hr = FormatDate(dateIn, lcid, dwFlags, text);
  if (FAILED(hr)) return hr;
  *pbstrOut = AllocBstr(text);
  return *pbstrOut ? S_OK : E_OUTOFMEMORY;
}

}  // extern "C"
