// The five entry points of the in-process server and attaching the trace facility for
// the life of the loaded module; the work is CCorvaneOleDbProviderModule's.
#include "provider/Module.h"

#include "base/Trace.h"

namespace {

ORelTrace* g_moduleTrace = nullptr;

constexpr const OLECHAR* kModuleName = OLESTR("CorvaneOleDbProvider");

void AttachModule() { g_moduleTrace = ORelTrace::Register(kModuleName); }

void DetachModule() {
  ORelTrace::Unregister(g_moduleTrace);
  g_moduleTrace = nullptr;
}

#ifdef _WIN32
HINSTANCE g_instance = nullptr;
#else
// No DllMain on POSIX: a static object of the shared library stands in for it, so
// the module is attached when the library is loaded and detached when it is unloaded.
struct ModuleLifetime {
  ModuleLifetime() { AttachModule(); }
  ~ModuleLifetime() { DetachModule(); }
} g_moduleLifetime;
#endif

}  // namespace

#ifdef _WIN32
HINSTANCE corvane::module::Instance() { return g_instance; }

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_instance = instance;
    DisableThreadLibraryCalls(instance);
    AttachModule();
  } else if (reason == DLL_PROCESS_DETACH) {
    DetachModule();
  }
  return TRUE;
}
#endif

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  return CCorvaneOleDbProviderModule::GetClassObject(rclsid, riid, ppv);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow(void) {
  return CCorvaneOleDbProviderModule::LockCount() == 0 ? S_OK : S_FALSE;
}

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer(void) { return CCorvaneOleDbProviderModule::RegisterServer(false); }

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer(void) {
  return CCorvaneOleDbProviderModule::UnregisterServer(false);
}

// "user" as the command line selects the per-user registration.
extern "C" HRESULT STDAPICALLTYPE DllInstall(BOOL bInstall, LPCWSTR pszCmdLine) {
  bool perUser = false;
  if (pszCmdLine) {
    const OLECHAR* text = reinterpret_cast<const OLECHAR*>(pszCmdLine);
    perUser = corvane::WIEquals(text, OLESTR("user"));
  }
  return bInstall ? CCorvaneOleDbProviderModule::RegisterServer(perUser)
                  : CCorvaneOleDbProviderModule::UnregisterServer(perUser);
}
