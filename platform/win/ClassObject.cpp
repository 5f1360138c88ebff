#include "platform/ClassObject.h"

namespace corvane::platform {

HRESULT RegisterProcessClass(REFCLSID clsid, LPCOLESTR /*progId*/, IClassFactory* factory, DWORD* cookie) {
  return CoRegisterClassObject(clsid, factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, cookie);
}

HRESULT RevokeProcessClass(REFCLSID /*clsid*/, DWORD cookie) { return CoRevokeClassObject(cookie); }

}  // namespace corvane::platform
