#include "platform/CodePage.h"

namespace corvane::platform {

void AnsiToWide(const char* text, size_t n, WString& out) {
  out.clear();
  if (n == 0) return;
  const int len = MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(n), nullptr, 0);
  if (len <= 0) return;
  out.resize(static_cast<size_t>(len));
  MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(n), reinterpret_cast<LPWSTR>(&out[0]), len);
}

void WideToAnsi(const OLECHAR* text, size_t n, std::string& out) {
  out.clear();
  if (n == 0) return;
  const auto* wide = reinterpret_cast<LPCWSTR>(text);
  const int len = WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(n), nullptr, 0, nullptr, nullptr);
  if (len <= 0) return;
  out.resize(static_cast<size_t>(len));
  WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(n), &out[0], len, nullptr, nullptr);
}

}  // namespace corvane::platform
