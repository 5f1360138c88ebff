// Registers a COM server DLL the way an installer does, by running regsvr32 on it
// (Windows and Wine only: POSIX has no registry).
#pragma once
#ifdef _WIN32
#include <string>

#include "platform/Platform.h"

namespace corvane::test {

// A build path as Windows sees it: "/x/y.dll" becomes "Z:\x\y.dll" (Wine maps Z: to
// the host's root); a path that already has a drive only gets backslashes.
inline std::wstring WindowsPath(const char* path) {
  std::string p = path ? path : "";
  if (!p.empty() && p[0] == '/') p = "Z:" + p;
  std::wstring w(p.begin(), p.end());
  for (auto& c : w)
    if (c == L'/') c = L'\\';
  return w;
}

// Runs "regsvr32.exe /s <options> <dll>" and answers its exit code (0 is success), or
// the launch failure with the top bit set.
inline DWORD Regsvr32(const wchar_t* options, const std::wstring& dll) {
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
