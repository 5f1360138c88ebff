#include "platform/ClassObject.h"

namespace corvane::platform {

HRESULT RegisterProcessClass(REFCLSID clsid, LPCOLESTR progId, IClassFactory* factory, DWORD* cookie) {
  *cookie = 0;
  return RegisterClass(clsid, progId, factory);
}

HRESULT RevokeProcessClass(REFCLSID clsid, DWORD /*cookie*/) { return UnregisterClass(clsid); }

}  // namespace corvane::platform
