// The in-process server module: its lock count (live objects plus server locks),
// which DllCanUnloadNow reads, and the module's instance handle on Windows.
#pragma once
#include "platform/Platform.h"

namespace corvane::module {
// Every COM object of the provider and every IClassFactory::LockServer(TRUE) takes a
// lock; the module may unload only when none is held.
void Lock();
void Unlock();
long LockCount();
#ifdef _WIN32
HINSTANCE Instance();
#endif
}  // namespace corvane::module

extern "C" {
HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv);
HRESULT STDAPICALLTYPE DllCanUnloadNow(void);
HRESULT STDAPICALLTYPE DllRegisterServer(void);
HRESULT STDAPICALLTYPE DllUnregisterServer(void);
HRESULT STDAPICALLTYPE DllInstall(BOOL bInstall, LPCWSTR pszCmdLine);
}
