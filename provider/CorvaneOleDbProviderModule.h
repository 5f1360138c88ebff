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

  // DllGetClassObject: the class factory of the creation object
  // (CLSID_CorvaneOleDbProvider) or of the error lookup service (CLSID_CorvaneErrorLookup).
  static HRESULT GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);

  // Windows: writes or removes both classes, the ProgIDs, AppID, type library and the
  // provider's ExtendedErrors key naming the lookup service, for the machine or
  // (perUser) under HKEY_CURRENT_USER. POSIX: adds both classes to, or removes them
  // from, the process's class registry, with the ExtendedErrors stand-in.
  static HRESULT RegisterServer(bool perUser);
  static HRESULT UnregisterServer(bool perUser);
};
