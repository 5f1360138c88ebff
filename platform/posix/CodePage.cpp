#include "platform/CodePage.h"

namespace corvane::platform {
namespace {

// Windows-1252 differs from Latin-1 only in 0x80..0x9F.
const char16_t kCp1252High[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                  0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                  0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                  0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

}  // namespace

void AnsiToWide(const char* text, size_t n, WString& out) {
  out.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    out[i] = (c >= 0x80 && c < 0xA0) ? kCp1252High[c - 0x80] : static_cast<OLECHAR>(c);
  }
}

void WideToAnsi(const OLECHAR* text, size_t n, std::string& out) {
  out.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const OLECHAR c = text[i];
    char b = '?';
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
      b = static_cast<char>(c);
    } else {
      for (int k = 0; k < 32; ++k) {
        if (kCp1252High[k] == c) {
          b = static_cast<char>(0x80 + k);
          break;
        }
      }
    }
    out[i] = b;
  }
}

}  // namespace corvane::platform
