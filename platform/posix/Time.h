// System clock and time-zone conversions with Windows semantics: FILETIME counts
// 100 ns since 1601-01-01 UTC; the local-time conversions apply the current bias.
#pragma once
#ifndef _WIN32
#include "Types.h"

extern "C" {
void GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime);
void GetSystemTime(LPSYSTEMTIME lpSystemTime);
void GetLocalTime(LPSYSTEMTIME lpSystemTime);
BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime);
BOOL SystemTimeToFileTime(const SYSTEMTIME* lpSystemTime, LPFILETIME lpFileTime);
BOOL FileTimeToLocalFileTime(const FILETIME* lpFileTime, LPFILETIME lpLocalFileTime);
BOOL LocalFileTimeToFileTime(const FILETIME* lpLocalFileTime, LPFILETIME lpFileTime);
DWORD GetTimeZoneInformation(LPTIME_ZONE_INFORMATION lpTimeZoneInformation);
BOOL QueryPerformanceCounter(LARGE_INTEGER* lpPerformanceCount);
BOOL QueryPerformanceFrequency(LARGE_INTEGER* lpFrequency);
DWORD GetTickCount();
ULONGLONG GetTickCount64();
void Sleep(DWORD dwMilliseconds);
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();
}

#endif  // !_WIN32
