// The module of the in-process server: the five entry points, the lock count behind
// DllCanUnloadNow, COM registration on Windows, and attaching the trace facility for
// the life of the loaded module.
#include "provider/Module.h"

#include <atomic>
#include <string>

#ifdef _WIN32
#include <olectl.h>  // SELFREG_E_CLASS
#endif

#include "provider/Trace.h"

namespace {

std::atomic<long> g_lockCount{0};
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

namespace corvane::module {
void Lock() { g_lockCount.fetch_add(1, std::memory_order_acq_rel); }
void Unlock() { g_lockCount.fetch_sub(1, std::memory_order_acq_rel); }
long LockCount() { return g_lockCount.load(std::memory_order_acquire); }
#ifdef _WIN32
HINSTANCE Instance() { return g_instance; }
#endif
}  // namespace corvane::module

#ifdef _WIN32
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

// The creation object's class factory arrives with the creation object itself; until
// then no class is served, which is what a COM client expects from a server that
// does not implement the CLSID it asked for.
extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID /*rclsid*/, REFIID /*riid*/, LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  return CLASS_E_CLASSNOTAVAILABLE;
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow(void) {
  return corvane::module::LockCount() == 0 ? S_OK : S_FALSE;
}

#ifdef _WIN32

namespace {

constexpr const wchar_t* kClsid = L"{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}";
constexpr const wchar_t* kAppId = L"{E16D1923-C9EA-4b7c-B86C-42511B8AD21A}";
constexpr const wchar_t* kProgId = L"Quellix.CorvaneOleDbProvider_VLD64";
constexpr const wchar_t* kProgIdVersioned = L"Quellix.CorvaneOleDbProvider_VLD64.1";
constexpr const wchar_t* kDescription = L"Corvane OLE DB Provider";

// Classes go under HKCR for the machine, or under the user's Software\Classes.
struct ClassesRoot {
  HKEY root;
  const wchar_t* prefix;  // "" or "Software\\Classes\\"
};

ClassesRoot RootFor(bool perUser) {
  return perUser ? ClassesRoot{HKEY_CURRENT_USER, L"Software\\Classes\\"} : ClassesRoot{HKEY_CLASSES_ROOT, L""};
}

std::wstring Join(const ClassesRoot& r, const std::wstring& sub) { return std::wstring(r.prefix) + sub; }

HRESULT SetValue(const ClassesRoot& r, const std::wstring& subKey, const wchar_t* name, const std::wstring& value) {
  HKEY key = nullptr;
  LONG rc = RegCreateKeyExW(r.root, Join(r, subKey).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE, nullptr,
                            &key, nullptr);
  if (rc != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc);
  rc = RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                      static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  RegCloseKey(key);
  return rc == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(rc);
}

HRESULT DeleteTree(const ClassesRoot& r, const std::wstring& subKey) {
  const LONG rc = RegDeleteTreeW(r.root, Join(r, subKey).c_str());
  // Removing what is not there is not a failure: unregistering twice is harmless.
  if (rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND) return S_OK;
  return HRESULT_FROM_WIN32(rc);
}

HRESULT UnregisterClasses(bool perUser);

HRESULT RegisterClasses(bool perUser) {
  wchar_t path[MAX_PATH * 2];
  const DWORD n = GetModuleFileNameW(g_instance, path, sizeof path / sizeof path[0]);
  if (n == 0 || n >= sizeof path / sizeof path[0]) return HRESULT_FROM_WIN32(GetLastError());
  const ClassesRoot r = RootFor(perUser);
  const std::wstring clsidKey = std::wstring(L"CLSID\\") + kClsid;
  const struct {
    std::wstring key;
    const wchar_t* name;
    std::wstring value;
  } entries[] = {
      {clsidKey, nullptr, kDescription},
      {clsidKey, L"AppID", kAppId},
      {clsidKey + L"\\InprocServer32", nullptr, path},
      {clsidKey + L"\\InprocServer32", L"ThreadingModel", L"Both"},
      {clsidKey + L"\\ProgID", nullptr, kProgIdVersioned},
      {clsidKey + L"\\VersionIndependentProgID", nullptr, kProgId},
      {kProgId, nullptr, kDescription},
      {std::wstring(kProgId) + L"\\CLSID", nullptr, kClsid},
      {std::wstring(kProgId) + L"\\CurVer", nullptr, kProgIdVersioned},
      {kProgIdVersioned, nullptr, kDescription},
      {std::wstring(kProgIdVersioned) + L"\\CLSID", nullptr, kClsid},
  };
  for (const auto& e : entries) {
    const HRESULT hr = SetValue(r, e.key, e.name, e.value);
    if (FAILED(hr)) {
      // Leave no half registration behind.
      UnregisterClasses(perUser);
      CVTRACE(TRACE_ERROR, OLESTR("DllRegisterServer failed, HR = %X"), static_cast<unsigned>(hr));
      return SELFREG_E_CLASS;
    }
  }
  return S_OK;
}

HRESULT UnregisterClasses(bool perUser) {
  const ClassesRoot r = RootFor(perUser);
  HRESULT result = S_OK;
  for (const std::wstring& key : {std::wstring(L"CLSID\\") + kClsid, std::wstring(kProgId),
                                  std::wstring(kProgIdVersioned)}) {
    const HRESULT hr = DeleteTree(r, key);
    if (FAILED(hr)) result = SELFREG_E_CLASS;
  }
  return result;
}

}  // namespace

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer(void) { return RegisterClasses(false); }
extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer(void) { return UnregisterClasses(false); }

extern "C" HRESULT STDAPICALLTYPE DllInstall(BOOL bInstall, LPCWSTR pszCmdLine) {
  const bool perUser = pszCmdLine && lstrcmpiW(pszCmdLine, L"user") == 0;
  return bInstall ? RegisterClasses(perUser) : UnregisterClasses(perUser);
}

#else  // POSIX: classes are registered in-process by the host; there is no registry.

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer(void) { return S_OK; }
extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer(void) { return S_OK; }

extern "C" HRESULT STDAPICALLTYPE DllInstall(BOOL bInstall, LPCWSTR /*pszCmdLine*/) {
  return bInstall ? DllRegisterServer() : DllUnregisterServer();
}

#endif
