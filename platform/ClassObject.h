// Making a class object creatable by CLSID within this process only (no registry):
// CoRegisterClassObject on Windows, the platform's class registry on POSIX, where the
// ProgID is registered too.
#pragma once
#include "platform/Platform.h"

namespace corvane::platform {

// The registration keeps its own reference to `factory`. `cookie` identifies it for
// RevokeProcessClass.
HRESULT RegisterProcessClass(REFCLSID clsid, LPCOLESTR progId, IClassFactory* factory, DWORD* cookie);
HRESULT RevokeProcessClass(REFCLSID clsid, DWORD cookie);

}  // namespace corvane::platform
