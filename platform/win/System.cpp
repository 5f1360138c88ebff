#include "platform/System.h"

#include "platform/WideString.h"

namespace corvane::platform {

FILE* OpenFile(const std::string& utf8Path, const char* mode) {
  const WString widePath = FromUtf8(utf8Path);
  const WString wideMode = FromUtf8(mode);
  return _wfopen(reinterpret_cast<const wchar_t*>(widePath.c_str()), reinterpret_cast<const wchar_t*>(wideMode.c_str()));
}

bool ReadEnvironment(const char* name, std::string* utf8Value) {
  const WString wideName = FromUtf8(name);
  WCHAR buf[1024];
  const DWORD n = GetEnvironmentVariableW(reinterpret_cast<LPCWSTR>(wideName.c_str()), buf, sizeof buf / sizeof buf[0]);
  const bool present = n > 0 && n < sizeof buf / sizeof buf[0];
  *utf8Value = present ? ToUtf8(reinterpret_cast<const OLECHAR*>(buf)) : std::string();
  return present;
}

int LastSystemError() { return static_cast<int>(GetLastError()); }

}  // namespace corvane::platform
