// The module's five exports and the lock-count shorthand used by the provider's COM
// objects (the module object itself is CCorvaneOleDbProviderModule).
#pragma once
#include "platform/Platform.h"
#include "provider/CorvaneOleDbProviderModule.h"

namespace corvane::module {
inline void Lock() { CCorvaneOleDbProviderModule::Lock(); }
inline void Unlock() { CCorvaneOleDbProviderModule::Unlock(); }
inline long LockCount() { return CCorvaneOleDbProviderModule::LockCount(); }
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
