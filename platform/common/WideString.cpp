// Wide string helpers and the wide printf formatter shared by both targets. The
// formatter is our own so that traces read the same on Windows and POSIX: the C
// library's wide printf is 32-bit on POSIX and differs in %s/%S and %p on Windows.
#include "platform/WideString.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace corvane {

size_t WLen(const OLECHAR* s) {
  if (!s) return 0;
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

int WCmp(const OLECHAR* a, const OLECHAR* b) {
  static const OLECHAR kEmpty[1] = {0};
  if (!a) a = kEmpty;
  if (!b) b = kEmpty;
  for (;; ++a, ++b) {
    if (*a != *b) return static_cast<uint16_t>(*a) < static_cast<uint16_t>(*b) ? -1 : 1;
    if (!*a) return 0;
  }
}

OLECHAR WToUpper(OLECHAR c) {
  const uint16_t u = static_cast<uint16_t>(c);
  if (u >= 'a' && u <= 'z') return static_cast<OLECHAR>(u - 0x20);
  // Latin-1 lower-case letters sit 0x20 above their capitals, except the division sign.
  if (u >= 0xE0 && u <= 0xFE && u != 0xF7) return static_cast<OLECHAR>(u - 0x20);
  if (u == 0xFF) return static_cast<OLECHAR>(0x178);  // y with diaeresis
  return c;
}

namespace {
// Local, so that the compare loop inlines it: a shared library's exported function is
// called through its interposable symbol.
inline uint16_t FoldLower(uint16_t u) {
  if (u >= 'A' && u <= 'Z') return static_cast<uint16_t>(u + 0x20);
  if (u >= 0xC0 && u <= 0xDE && u != 0xD7) return static_cast<uint16_t>(u + 0x20);
  if (u == 0x178) return 0xFF;
  return u;
}
}  // namespace

OLECHAR WToLower(OLECHAR c) { return static_cast<OLECHAR>(FoldLower(static_cast<uint16_t>(c))); }

int WICmp(WStringView a, WStringView b) {
  const size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    uint16_t ca = static_cast<uint16_t>(a[i]);
    uint16_t cb = static_cast<uint16_t>(b[i]);
    if (ca == cb) continue;
    // Fold to lower case, as the Windows run-time's case-blind compare does, so that
    // '_' and the brackets order the same way on both targets.
    ca = FoldLower(ca);
    cb = FoldLower(cb);
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

int WICmp(const OLECHAR* a, const OLECHAR* b) {
  return WICmp(WStringView(a ? a : OLESTR("")), WStringView(b ? b : OLESTR("")));
}

bool WIEquals(WStringView a, WStringView b) { return a.size() == b.size() && WICmp(a, b) == 0; }

WString WUpper(WStringView s) {
  WString out(s);
  for (auto& c : out) c = WToUpper(c);
  return out;
}

// ---- UTF-8 <-> UTF-16 ---------------------------------------------------------------

namespace {
constexpr OLECHAR kReplacement = static_cast<OLECHAR>(0xFFFD);

void AppendCodePoint(WString& out, uint32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<OLECHAR>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<OLECHAR>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<OLECHAR>(0xDC00 + (cp & 0x3FF)));
  }
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}
}  // namespace

WString FromUtf8(std::string_view utf8) {
  WString out;
  out.reserve(utf8.size());
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const size_t n = utf8.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char b0 = p[i];
    if (b0 < 0x80) {
      out.push_back(static_cast<OLECHAR>(b0));
      ++i;
      continue;
    }
    // Expected length and the allowed range of the second byte, which is what rules
    // out overlong forms, encoded surrogates and code points above U+10FFFF.
    int len;
    unsigned char lo = 0x80, hi = 0xBF;
    uint32_t cp;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
      len = 2;
      cp = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
      len = 3;
      cp = b0 & 0x0F;
      if (b0 == 0xE0) lo = 0xA0;
      if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
      len = 4;
      cp = b0 & 0x07;
      if (b0 == 0xF0) lo = 0x90;
      if (b0 == 0xF4) hi = 0x8F;
    } else {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    // One replacement character for the longest valid prefix of a broken sequence;
    // the byte that broke it starts over.
    size_t j = i + 1;
    bool ok = true;
    for (int k = 1; k < len; ++k, ++j) {
      if (j >= n) {
        ok = false;
        break;
      }
      const unsigned char b = p[j];
      const unsigned char min = k == 1 ? lo : 0x80;
      const unsigned char max = k == 1 ? hi : 0xBF;
      if (b < min || b > max) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (b & 0x3F);
    }
    if (ok) {
      AppendCodePoint(out, cp);
    } else {
      out.push_back(kReplacement);
    }
    i = j;
  }
  return out;
}

std::string ToUtf8(WStringView text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = static_cast<uint16_t>(text[i]);
    if (c >= 0xD800 && c <= 0xDBFF) {
      const uint32_t next = i + 1 < text.size() ? static_cast<uint16_t>(text[i + 1]) : 0;
      if (next >= 0xDC00 && next <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (next - 0xDC00);
        ++i;
      } else {
        c = 0xFFFD;
      }
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    AppendUtf8(out, c);
  }
  return out;
}

std::string ToUtf8(const OLECHAR* text) { return text ? ToUtf8(WStringView(text)) : std::string(); }

// ---- printf --------------------------------------------------------------------------

namespace {

struct FieldFormat {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool zero = false;
  bool alt = false;
  int width = 0;
  int precision = -1;  // -1: none given
};

enum class Size { None, Char, Short, Long, LongLong, SizeT, IntMax, PtrDiff, LongDouble, Int32 };

void Pad(WString& out, size_t n, OLECHAR c) { out.append(n, c); }

// Writes `body` (already including any sign/prefix handling) padded to the width.
void EmitPadded(WString& out, const FieldFormat& field, WStringView body) {
  const size_t w = field.width > 0 ? static_cast<size_t>(field.width) : 0;
  if (body.size() >= w) {
    out.append(body);
  } else if (field.left) {
    out.append(body);
    Pad(out, w - body.size(), OLECHAR(' '));
  } else {
    Pad(out, w - body.size(), OLECHAR(' '));
    out.append(body);
  }
}

void EmitInteger(WString& out, const FieldFormat& field, uint64_t magnitude, bool negative, int base, bool upper,
                 bool isSigned, bool isPointer = false) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char buf[72];
  int n = 0;
  uint64_t v = magnitude;
  while (v) {
    buf[n++] = digits[v % static_cast<unsigned>(base)];
    v /= static_cast<unsigned>(base);
  }
  // Digits, most significant first, with the precision's minimum count; a precision
  // of 0 prints nothing for the value 0.
  std::string num;
  int minDigits = field.precision >= 0 ? field.precision : 1;
  if (isPointer) minDigits = static_cast<int>(sizeof(void*) * 2);
  for (int k = n; k < minDigits; ++k) num.push_back('0');
  for (int k = n - 1; k >= 0; --k) num.push_back(buf[k]);
  if (field.alt && base == 8 && (num.empty() || num[0] != '0')) num.insert(num.begin(), '0');

  std::string prefix;
  if (isSigned) {
    if (negative)
      prefix = "-";
    else if (field.plus)
      prefix = "+";
    else if (field.space)
      prefix = " ";
  }
  if (field.alt && base == 16 && magnitude != 0) prefix += upper ? "0X" : "0x";

  // The 0 flag pads between sign and digits, unless a precision or '-' is given.
  const size_t w = field.width > 0 ? static_cast<size_t>(field.width) : 0;
  if (field.zero && !field.left && field.precision < 0 && prefix.size() + num.size() < w)
    num.insert(num.begin(), w - prefix.size() - num.size(), '0');

  WString body;
  body.reserve(prefix.size() + num.size());
  for (char c : prefix) body.push_back(static_cast<OLECHAR>(c));
  for (char c : num) body.push_back(static_cast<OLECHAR>(c));
  EmitPadded(out, field, body);
}

void EmitString(WString& out, const FieldFormat& field, WStringView s) {
  if (field.precision >= 0 && static_cast<size_t>(field.precision) < s.size()) s = s.substr(0, field.precision);
  EmitPadded(out, field, s);
}

void EmitFloat(WString& out, const FieldFormat& field, char conv, bool longDouble, va_list& args) {
  char fmt[32];
  int k = 0;
  fmt[k++] = '%';
  if (field.left) fmt[k++] = '-';
  if (field.plus) fmt[k++] = '+';
  if (field.space) fmt[k++] = ' ';
  if (field.zero) fmt[k++] = '0';
  if (field.alt) fmt[k++] = '#';
  fmt[k++] = '*';
  fmt[k++] = '.';
  fmt[k++] = '*';
  if (longDouble) fmt[k++] = 'L';
  fmt[k++] = conv;
  fmt[k] = 0;
  const int precision = field.precision >= 0 ? field.precision : (conv == 'a' || conv == 'A' ? -1 : 6);
  char small[128];
  std::string big;
  const char* text = small;
  int len;
  if (longDouble) {
    const long double v = va_arg(args, long double);
    len = std::snprintf(small, sizeof small, fmt, field.width, precision, v);
    if (len >= static_cast<int>(sizeof small)) {
      big.resize(static_cast<size_t>(len) + 1);
      std::snprintf(&big[0], big.size(), fmt, field.width, precision, v);
      text = big.c_str();
    }
  } else {
    const double v = va_arg(args, double);
    len = std::snprintf(small, sizeof small, fmt, field.width, precision, v);
    if (len >= static_cast<int>(sizeof small)) {
      big.resize(static_cast<size_t>(len) + 1);
      std::snprintf(&big[0], big.size(), fmt, field.width, precision, v);
      text = big.c_str();
    }
  }
  if (len < 0) return;
  for (int i = 0; i < len; ++i) out.push_back(static_cast<OLECHAR>(static_cast<unsigned char>(text[i])));
}

int64_t ReadSigned(Size size, va_list& args) {
  switch (size) {
    case Size::Char:
      return static_cast<signed char>(va_arg(args, int));
    case Size::Short:
      return static_cast<short>(va_arg(args, int));
    case Size::Long:
      return va_arg(args, long);
    case Size::LongLong:
      return va_arg(args, long long);
    case Size::SizeT:
      return static_cast<int64_t>(va_arg(args, ptrdiff_t));
    case Size::IntMax:
      return static_cast<int64_t>(va_arg(args, intmax_t));
    case Size::PtrDiff:
      return static_cast<int64_t>(va_arg(args, ptrdiff_t));
    default:
      return va_arg(args, int);
  }
}

uint64_t ReadUnsigned(Size size, va_list& args) {
  switch (size) {
    case Size::Char:
      return static_cast<unsigned char>(va_arg(args, unsigned int));
    case Size::Short:
      return static_cast<unsigned short>(va_arg(args, unsigned int));
    case Size::Long:
      return va_arg(args, unsigned long);
    case Size::LongLong:
      return va_arg(args, unsigned long long);
    case Size::SizeT:
      return va_arg(args, size_t);
    case Size::IntMax:
      return static_cast<uint64_t>(va_arg(args, uintmax_t));
    case Size::PtrDiff:
      return static_cast<uint64_t>(va_arg(args, ptrdiff_t));
    default:
      return va_arg(args, unsigned int);
  }
}

bool IsDigit(OLECHAR c) { return c >= OLECHAR('0') && c <= OLECHAR('9'); }

// Reads a decimal number, saturating rather than overflowing on absurd widths.
int ReadNumber(const OLECHAR*& p) {
  int v = 0;
  while (IsDigit(*p)) {
    const int d = static_cast<int>(*p - OLECHAR('0'));
    v = v > (INT_MAX - d) / 10 ? INT_MAX : v * 10 + d;
    ++p;
  }
  return v;
}

// Widths beyond this are refused: a trace never needs them and a hostile format
// must not make us allocate gigabytes.
constexpr int kMaxField = 4096;

}  // namespace

WString WFormatV(const OLECHAR* format, va_list argsIn) {
  WString out;
  if (!format) return out;
  va_list args;
  va_copy(args, argsIn);
  const OLECHAR* p = format;
  while (*p) {
    if (*p != OLECHAR('%')) {
      const OLECHAR* start = p;
      while (*p && *p != OLECHAR('%')) ++p;
      out.append(start, static_cast<size_t>(p - start));
      continue;
    }
    const OLECHAR* specStart = p;
    ++p;
    if (*p == OLECHAR('%')) {
      out.push_back(OLECHAR('%'));
      ++p;
      continue;
    }
    FieldFormat field;
    for (;; ++p) {
      if (*p == OLECHAR('-'))
        field.left = true;
      else if (*p == OLECHAR('+'))
        field.plus = true;
      else if (*p == OLECHAR(' '))
        field.space = true;
      else if (*p == OLECHAR('0'))
        field.zero = true;
      else if (*p == OLECHAR('#'))
        field.alt = true;
      else
        break;
    }
    if (*p == OLECHAR('*')) {
      int w = va_arg(args, int);
      if (w < 0) {
        field.left = true;
        w = w == INT_MIN ? INT_MAX : -w;
      }
      field.width = w;
      ++p;
    } else {
      field.width = ReadNumber(p);
    }
    if (*p == OLECHAR('.')) {
      ++p;
      if (*p == OLECHAR('*')) {
        const int prec = va_arg(args, int);
        field.precision = prec < 0 ? -1 : prec;
        ++p;
      } else {
        field.precision = ReadNumber(p);
      }
    }
    if (field.width > kMaxField) field.width = kMaxField;
    if (field.precision > kMaxField) field.precision = kMaxField;

    Size size = Size::None;
    bool narrowText = false;  // h on %s/%c
    bool wideText = false;    // l or w on %s/%c
    if (*p == OLECHAR('h')) {
      ++p;
      size = Size::Short;
      narrowText = true;
      if (*p == OLECHAR('h')) {
        ++p;
        size = Size::Char;
      }
    } else if (*p == OLECHAR('l')) {
      ++p;
      size = Size::Long;
      wideText = true;
      if (*p == OLECHAR('l')) {
        ++p;
        size = Size::LongLong;
      }
    } else if (*p == OLECHAR('w')) {
      ++p;
      wideText = true;
    } else if (*p == OLECHAR('I')) {
      if (p[1] == OLECHAR('6') && p[2] == OLECHAR('4')) {
        p += 3;
        size = Size::LongLong;
      } else if (p[1] == OLECHAR('3') && p[2] == OLECHAR('2')) {
        p += 3;
        size = Size::Int32;
      } else {
        ++p;
        size = Size::SizeT;
      }
    } else if (*p == OLECHAR('z')) {
      ++p;
      size = Size::SizeT;
    } else if (*p == OLECHAR('j')) {
      ++p;
      size = Size::IntMax;
    } else if (*p == OLECHAR('t')) {
      ++p;
      size = Size::PtrDiff;
    } else if (*p == OLECHAR('L')) {
      ++p;
      size = Size::LongDouble;
    }

    const OLECHAR conv = *p;
    if (conv) ++p;
    switch (conv) {
      case OLECHAR('d'):
      case OLECHAR('i'): {
        const int64_t v = ReadSigned(size, args);
        const uint64_t mag = v < 0 ? static_cast<uint64_t>(0) - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
        EmitInteger(out, field, mag, v < 0, 10, false, true);
        break;
      }
      case OLECHAR('u'):
        EmitInteger(out, field, ReadUnsigned(size, args), false, 10, false, false);
        break;
      case OLECHAR('x'):
        EmitInteger(out, field, ReadUnsigned(size, args), false, 16, false, false);
        break;
      case OLECHAR('X'):
        EmitInteger(out, field, ReadUnsigned(size, args), false, 16, true, false);
        break;
      case OLECHAR('o'):
        EmitInteger(out, field, ReadUnsigned(size, args), false, 8, false, false);
        break;
      case OLECHAR('p'): {
        // The Windows form: all hex digits of the pointer, upper case, no prefix.
        FieldFormat ps = field;
        ps.precision = -1;
        ps.alt = false;
        EmitInteger(out, ps, reinterpret_cast<uintptr_t>(va_arg(args, void*)), false, 16, true, false, true);
        break;
      }
      case OLECHAR('c'):
      case OLECHAR('C'): {
        // In a wide format %c is a wide character and %C (or %hc) a narrow one.
        const unsigned int raw = va_arg(args, unsigned int);
        OLECHAR ch;
        if ((conv == OLECHAR('C') && !wideText) || narrowText)
          ch = static_cast<OLECHAR>(static_cast<unsigned char>(raw));
        else
          ch = static_cast<OLECHAR>(raw & 0xFFFF);
        FieldFormat cs = field;
        cs.precision = -1;
        EmitPadded(out, cs, WStringView(&ch, 1));
        break;
      }
      case OLECHAR('s'):
      case OLECHAR('S'): {
        // In a wide format %s (and %ls, %ws) is a wide string, %S and %hs a narrow one.
        const bool narrow = (conv == OLECHAR('S') && !wideText) || narrowText;
        if (narrow) {
          const char* s = va_arg(args, const char*);
          if (!s) s = "(null)";
          size_t len = std::strlen(s);
          if (field.precision >= 0 && static_cast<size_t>(field.precision) < len) len = field.precision;
          // Narrow arguments are UTF-8 in this code base.
          EmitString(out, FieldFormat{field.left, false, false, false, false, field.width, -1},
                     FromUtf8(std::string_view(s, len)));
        } else {
          const OLECHAR* s = va_arg(args, const OLECHAR*);
          EmitString(out, field, s ? WStringView(s) : WStringView(OLESTR("(null)")));
        }
        break;
      }
      case OLECHAR('f'):
      case OLECHAR('F'):
      case OLECHAR('e'):
      case OLECHAR('E'):
      case OLECHAR('g'):
      case OLECHAR('G'):
      case OLECHAR('a'):
      case OLECHAR('A'):
        EmitFloat(out, field, static_cast<char>(conv), size == Size::LongDouble, args);
        break;
      case OLECHAR('n'):
        // Writing through a caller's pointer from a format string is never wanted.
        (void)va_arg(args, void*);
        break;
      default:
        // Unknown or truncated conversion: show it as written, consume nothing.
        out.append(specStart, static_cast<size_t>(p - specStart));
        break;
    }
  }
  va_end(args);
  return out;
}

WString WFormat(const OLECHAR* format, ...) {
  va_list args;
  va_start(args, format);
  WString out = WFormatV(format, args);
  va_end(args);
  return out;
}

}  // namespace corvane
