// Registers a COM server DLL the way an installer does, by running regsvr32 on it
// (Windows and Wine only: POSIX has no registry).
#pragma once
#ifdef _WIN32
#include <string>

#include "platform/Platform.h"

namespace corvane::test {

// A build path as Windows sees it: "/x/y.dll" becomes "Z:\x\y.dll" (Wine maps Z: to
// the host's root); a path that already has a drive only gets backslashes.
std::wstring WindowsPath(const char* path);
// Runs "regsvr32.exe /s <options> <dll>" and answers its exit code (0 is success), or
// the launch failure with the top bit set.
DWORD Regsvr32(const wchar_t* options, const std::wstring& dll);

}  // namespace corvane::test
#endif
