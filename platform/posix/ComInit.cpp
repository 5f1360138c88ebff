// COM initialisation on POSIX. There are no apartments to set up, but callers pair
// CoInitialize with CoUninitialize and read the result codes as Windows returns them,
// so the per-thread nesting and the concurrency model are kept.
#include "platform/Platform.h"

namespace {
thread_local int t_initCount = 0;
thread_local DWORD t_model = 0;
}  // namespace

extern "C" {

HRESULT CoInitializeEx(LPVOID pvReserved, DWORD dwCoInit) {
  const DWORD model = dwCoInit & (COINIT_APARTMENTTHREADED | COINIT_MULTITHREADED);
  if (t_initCount > 0) {
    if (model != t_model) return RPC_E_CHANGED_MODE;
    ++t_initCount;
    return S_FALSE;
  }
  t_model = model;
  t_initCount = 1;
  return S_OK;
}

HRESULT CoInitialize(LPVOID pvReserved) { return CoInitializeEx(pvReserved, COINIT_APARTMENTTHREADED); }

void CoUninitialize() {
  if (t_initCount > 0) --t_initCount;
}

}  // extern "C"
