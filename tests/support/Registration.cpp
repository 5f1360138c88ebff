#include "tests/support/Registration.h"

#ifdef _WIN32
namespace corvane::test {

std::wstring WindowsPath(const char* path) {
  std::string p = path ? path : "";
  if (!p.empty() && p[0] == '/') p = "Z:" + p;
  std::wstring w(p.begin(), p.end());
  for (auto& c : w)
    if (c == L'/') c = L'\\';
  return w;
}

DWORD Regsvr32(const wchar_t* options, const std::wstring& dll) {
  std::wstring command = std::wstring(L"regsvr32.exe /s ") + options + L" \"" + dll + L"\"";
  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
    return GetLastError() | 0x80000000u;
  WaitForSingleObject(process.hProcess, 120000);
  DWORD code = 1;
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}

}  // namespace corvane::test
#endif
