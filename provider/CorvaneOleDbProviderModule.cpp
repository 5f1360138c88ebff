#include "provider/CorvaneOleDbProviderModule.h"

#include <atomic>
#include <string>

#ifdef _WIN32
#include <olectl.h>  // SELFREG_E_CLASS, SELFREG_E_TYPELIB
#endif

#include "base/ComPtr.h"
#include "provider/ClassFactory.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorLookup.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "provider/Module.h"
#include "base/Trace.h"

namespace {
std::atomic<long> g_lockCount{0};
}  // namespace

void CCorvaneOleDbProviderModule::Lock() { g_lockCount.fetch_add(1, std::memory_order_acq_rel); }
void CCorvaneOleDbProviderModule::Unlock() { g_lockCount.fetch_sub(1, std::memory_order_acq_rel); }
long CCorvaneOleDbProviderModule::LockCount() { return g_lockCount.load(std::memory_order_acquire); }

HRESULT CCorvaneOleDbProviderModule::GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (IsEqualCLSID(rclsid, CLSID_CorvaneOleDbProvider))
    return CClassFactory::Create(&CCreateCorvaneOleDbProviderImpl::CreateInstance, riid, ppv);
  if (IsEqualCLSID(rclsid, CLSID_CorvaneErrorLookup))
    return CClassFactory::Create(&CErrorLookup::CreateInstance, riid, ppv);
  return CLASS_E_CLASSNOTAVAILABLE;
}

#ifdef _WIN32

namespace {

constexpr const wchar_t* kClsid = L"{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}";
constexpr const wchar_t* kAppId = L"{E16D1923-C9EA-4b7c-B86C-42511B8AD21A}";
constexpr const wchar_t* kLibId = L"{00047AC6-757D-44F9-95FB-0CB5973F029B}";
constexpr const wchar_t* kProgId = L"Quellix.CorvaneOleDbProvider_VLD64";
constexpr const wchar_t* kProgIdVersioned = L"Quellix.CorvaneOleDbProvider_VLD64.1";
constexpr const wchar_t* kDescription = L"Corvane OLE DB Provider";
constexpr const wchar_t* kLookupClsid = L"{4847E217-9067-4A53-89DC-8281638914AE}";
constexpr const wchar_t* kLookupDescription = L"Corvane OLE DB Provider Error Lookup";

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

bool ModulePath(std::wstring* path) {
  wchar_t buf[MAX_PATH * 2];
  const DWORD n = GetModuleFileNameW(corvane::module::Instance(), buf, sizeof buf / sizeof buf[0]);
  if (n == 0 || n >= sizeof buf / sizeof buf[0]) return false;
  path->assign(buf, n);
  return true;
}

// The per-user forms exist from Vista on; the SDK headers declare them only for such
// targets, so they are looked up at run time.
using RegisterForUserFn = HRESULT(WINAPI*)(ITypeLib*, OLECHAR*, OLECHAR*);
using UnregisterForUserFn = HRESULT(WINAPI*)(REFGUID, WORD, WORD, LCID, SYSKIND);

template <typename Fn>
Fn OleAutFunction(const char* name) {
  HMODULE oleaut = GetModuleHandleW(L"oleaut32.dll");
  return oleaut ? reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(oleaut, name))) : nullptr;
}

// The type library is a resource of the module itself.
HRESULT RegisterTypeLibrary(const std::wstring& path, bool perUser) {
  corvane::ComPtr<ITypeLib> library;
  const HRESULT hr = LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put());
  if (FAILED(hr)) return hr;
  std::wstring mutablePath = path;
  if (!perUser) return RegisterTypeLib(library.Get(), &mutablePath[0], nullptr);
  auto registerForUser = OleAutFunction<RegisterForUserFn>("RegisterTypeLibForUser");
  return registerForUser ? registerForUser(library.Get(), &mutablePath[0], nullptr) : E_NOTIMPL;
}

HRESULT UnregisterTypeLibrary(bool perUser) {
  // A library that is not registered is already gone (the system answers that case
  // with differing codes).
  const ClassesRoot r = RootFor(perUser);
  HKEY key = nullptr;
  if (RegOpenKeyExW(r.root, Join(r, std::wstring(L"TypeLib\\") + kLibId).c_str(), 0, KEY_READ, &key) !=
      ERROR_SUCCESS)
    return S_OK;
  RegCloseKey(key);
  GUID libId;
  if (FAILED(CLSIDFromString(kLibId, &libId))) return E_UNEXPECTED;
  HRESULT hr;
  if (perUser) {
    auto unregisterForUser = OleAutFunction<UnregisterForUserFn>("UnRegisterTypeLibForUser");
    hr = unregisterForUser ? unregisterForUser(libId, 1, 0, LOCALE_NEUTRAL, SYS_WIN64) : E_NOTIMPL;
  } else {
    hr = UnRegisterTypeLib(libId, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
  }
  // A library that is not registered is already gone.
  if (hr == TYPE_E_REGISTRYACCESS || hr == TYPE_E_LIBNOTREGISTERED) return S_OK;
  return hr;
}

}  // namespace

HRESULT CCorvaneOleDbProviderModule::RegisterServer(bool perUser) {
  std::wstring path;
  if (!ModulePath(&path)) return HRESULT_FROM_WIN32(GetLastError());
  const ClassesRoot r = RootFor(perUser);
  const std::wstring clsidKey = std::wstring(L"CLSID\\") + kClsid;
  const std::wstring lookupKey = std::wstring(L"CLSID\\") + kLookupClsid;
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
      {clsidKey + L"\\TypeLib", nullptr, kLibId},
      // Where an OLE DB error object finds the service that gives the provider's texts.
      {clsidKey + L"\\ExtendedErrors", nullptr, L"Extended Error Service"},
      {clsidKey + L"\\ExtendedErrors\\" + kLookupClsid, nullptr, kLookupDescription},
      {lookupKey, nullptr, kLookupDescription},
      {lookupKey + L"\\InprocServer32", nullptr, path},
      {lookupKey + L"\\InprocServer32", L"ThreadingModel", L"Both"},
      {std::wstring(L"AppID\\") + kAppId, nullptr, kDescription},
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
      UnregisterServer(perUser);
      CVTRACE(TRACE_ERROR, OLESTR("DllRegisterServer failed, HR = %X"), static_cast<unsigned>(hr));
      return SELFREG_E_CLASS;
    }
  }
  const HRESULT hr = RegisterTypeLibrary(path, perUser);
  if (FAILED(hr)) {
    UnregisterServer(perUser);
    CVTRACE(TRACE_ERROR, OLESTR("Type library registration failed, HR = %X"), static_cast<unsigned>(hr));
    return SELFREG_E_TYPELIB;
  }
  return S_OK;
}

HRESULT CCorvaneOleDbProviderModule::UnregisterServer(bool perUser) {
  const ClassesRoot r = RootFor(perUser);
  HRESULT result = S_OK;
  if (FAILED(UnregisterTypeLibrary(perUser))) result = SELFREG_E_TYPELIB;
  for (const std::wstring& key :
       {std::wstring(L"CLSID\\") + kClsid, std::wstring(L"CLSID\\") + kLookupClsid,
        std::wstring(L"AppID\\") + kAppId, std::wstring(kProgId), std::wstring(kProgIdVersioned)}) {
    if (FAILED(DeleteTree(r, key))) result = SELFREG_E_CLASS;
  }
  return result;
}

#else  // POSIX: the process's class registry stands in for the system registry.

namespace {
HRESULT RegisterFactory(REFCLSID clsid, LPCOLESTR progId) {
  corvane::ComPtr<IClassFactory> factory;
  const HRESULT hr = CCorvaneOleDbProviderModule::GetClassObject(clsid, IID_IClassFactory, factory.PutVoid());
  return FAILED(hr) ? hr : corvane::platform::RegisterClass(clsid, progId, factory.Get());
}
}  // namespace

HRESULT CCorvaneOleDbProviderModule::RegisterServer(bool /*perUser*/) {
  HRESULT hr = RegisterFactory(CLSID_CorvaneOleDbProvider, CORVANE_PROVIDER_PROGID);
  if (SUCCEEDED(hr)) hr = RegisterFactory(CLSID_CorvaneErrorLookup, nullptr);
  if (FAILED(hr)) return UnregisterServer(false), hr;
  corvane::platform::RegisterErrorLookup(CLSID_CorvaneOleDbProvider, CLSID_CorvaneErrorLookup);
  return S_OK;
}

HRESULT CCorvaneOleDbProviderModule::UnregisterServer(bool /*perUser*/) {
  corvane::platform::UnregisterErrorLookup(CLSID_CorvaneOleDbProvider);
  HRESULT result = S_OK;
  for (const CLSID& clsid : {CLSID_CorvaneOleDbProvider, CLSID_CorvaneErrorLookup}) {
    const HRESULT hr = corvane::platform::UnregisterClass(clsid);
    if (FAILED(hr) && hr != REGDB_E_CLASSNOTREG) result = hr;
  }
  return result;
}

#endif
