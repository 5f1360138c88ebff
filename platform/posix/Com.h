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
// CO_E_CLASSSTRING for a ProgID that is not registered (ignoring case).
HRESULT CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid);
// The braced form or a registered ProgID; null or empty text gives CLSID_NULL.
HRESULT CLSIDFromString(LPCOLESTR lpsz, LPCLSID pclsid);
// The braced form only: E_INVALIDARG when the length is wrong, CO_E_IIDSTRING when
// the text of the right length is not a GUID.
HRESULT IIDFromString(LPCOLESTR lpsz, LPIID lpiid);
// Writes "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"; returns the characters written with
// the terminator, or 0 when cchMax is below 39.
INT StringFromGUID2(REFGUID rguid, LPOLESTR lpsz, INT cchMax);
}

enum tagCOINIT {
  COINIT_APARTMENTTHREADED = 0x2,
  COINIT_MULTITHREADED = 0x0,
  COINIT_DISABLE_OLE1DDE = 0x4,
  COINIT_SPEED_OVER_MEMORY = 0x8
};
typedef enum tagCOINIT COINIT;
#define RPC_E_CHANGED_MODE ((HRESULT)0x80010106L)
#define CO_E_IIDSTRING ((HRESULT)0x800401F4L)
#define CHARS_IN_GUID 39

namespace corvane::platform {
// Registers an in-process class factory under a CLSID and (optionally) a ProgID; the
// registry holds a reference until UnregisterClass. Registering a CLSID again replaces
// its factory; a ProgID names the class registered last under it. Returns
// E_INVALIDARG for a null factory.
HRESULT RegisterClass(REFCLSID clsid, LPCOLESTR progId, IClassFactory* factory);
// Drops the class and its ProgID; REGDB_E_CLASSNOTREG when it was not registered.
HRESULT UnregisterClass(REFCLSID clsid);
}  // namespace corvane::platform

#endif  // !_WIN32
