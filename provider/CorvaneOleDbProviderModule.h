// The in-process server module: the lock count behind DllCanUnloadNow, the class
// object of the creation object, and registration (the registry and the type library
// on Windows; the platform class registry on POSIX, where there is no registry).
#pragma once
#include "platform/Platform.h"

class CCorvaneOleDbProviderModule {
 public:
  // Every COM object of the provider and every IClassFactory::LockServer(TRUE) takes a
  // lock; the module may unload only when none is held.
  static void Lock();
  static void Unlock();
  static long LockCount();

  // DllGetClassObject: the class factory of CLSID_CorvaneOleDbProvider.
  static HRESULT GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);

  // Windows: writes or removes the CLSID, ProgIDs, AppID and type library, for the
  // machine or (perUser) under HKEY_CURRENT_USER. POSIX: adds the class to, or removes
  // it from, the process's class registry (by CLSID and ProgID).
  static HRESULT RegisterServer(bool perUser);
  static HRESULT UnregisterServer(bool perUser);
};
