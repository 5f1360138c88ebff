// The COM subset the provider calls: the task allocator, CoFileTimeNow, GUID text
// forms, and a per-process class registry standing in for CoCreateInstance and
// CLSIDFromProgID (factories are registered in-process instead of in the registry).
#pragma once
#ifndef _WIN32
#include "Types.h"

extern "C" {
LPVOID CoTaskMemAlloc(SIZE_T cb);
LPVOID CoTaskMemRealloc(LPVOID pv, SIZE_T cb);
void CoTaskMemFree(LPVOID pv);
HRESULT CoFileTimeNow(FILETIME* lpFileTime);
HRESULT CoInitialize(LPVOID pvReserved);
HRESULT CoInitializeEx(LPVOID pvReserved, DWORD dwCoInit);
void CoUninitialize();

HRESULT CoCreateInstance(REFCLSID rclsid, LPUNKNOWN pUnkOuter, DWORD dwClsContext, REFIID riid, LPVOID* ppv);
HRESULT CoGetClassObject(REFCLSID rclsid, DWORD dwClsContext, LPVOID pvReserved, REFIID riid, LPVOID* ppv);
HRESULT CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid);
HRESULT CLSIDFromString(LPCOLESTR lpsz, LPCLSID pclsid);
HRESULT IIDFromString(LPCOLESTR lpsz, LPIID lpiid);
// Writes "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"; returns the characters written with
// the terminator, or 0 when cchMax is below 39.
INT StringFromGUID2(REFGUID rguid, LPOLESTR lpsz, INT cchMax);
}

#define COINIT_MULTITHREADED 0x0
#define COINIT_APARTMENTTHREADED 0x2
#define COINIT_DISABLE_OLE1DDE 0x4
#define COINIT_SPEED_OVER_MEMORY 0x8
#define RPC_E_CHANGED_MODE ((HRESULT)0x80010106L)

namespace corvane::platform {
// Registers an in-process class factory under a CLSID and (optionally) a ProgID; the
// registry holds a reference until UnregisterClass. Returns E_INVALIDARG for a null
// factory.
HRESULT RegisterClass(REFCLSID clsid, LPCOLESTR progId, IClassFactory* factory);
HRESULT UnregisterClass(REFCLSID clsid);
}  // namespace corvane::platform

#endif  // !_WIN32
