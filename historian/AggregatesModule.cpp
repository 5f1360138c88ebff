// The aggregates component as its own in-process COM server on Windows
// (CorvaneHistoryAggregates.dll): class object, unload check and self-registration
// under CLSID_CorvaneHistoryAggregates and the ProgID "Quellix.HistoryAggregates_VLD64".
// Compiled only into that DLL; elsewhere the component registers itself in-process.
#if defined(_WIN32) && defined(CORVANE_AGGREGATES_DLL)

#include <string>

#include "historian/Aggregates.h"

namespace {

using corvane::historian::CLSID_CorvaneHistoryAggregates;

HINSTANCE g_instance = nullptr;

constexpr const wchar_t* kDescription = L"Corvane history aggregates";
constexpr const wchar_t* kThreadingModel = L"Both";

std::wstring ClsidText() {
  wchar_t text[40] = {};
  StringFromGUID2(CLSID_CorvaneHistoryAggregates, text, 40);
  return text;
}

// Classes go under HKCR; where the machine part is closed to this user, under the
// user's own Software\Classes, which HKCR merges in.
struct ClassesRoot {
  HKEY root;
  std::wstring prefix;
};

HRESULT SetValue(const ClassesRoot& r, const std::wstring& subKey, const wchar_t* name, const std::wstring& value) {
  HKEY key = nullptr;
  LONG rc = RegCreateKeyExW(r.root, (r.prefix + subKey).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE,
                            nullptr, &key, nullptr);
  if (rc != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc);
  rc = RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                      static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  RegCloseKey(key);
  return rc == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(rc);
}

HRESULT DeleteTree(const ClassesRoot& r, const std::wstring& subKey) {
  const LONG rc = RegDeleteTreeW(r.root, (r.prefix + subKey).c_str());
  if (rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND) return S_OK;
  return HRESULT_FROM_WIN32(rc);
}

HRESULT Unregister(const ClassesRoot& r) {
  const HRESULT a = DeleteTree(r, L"CLSID\\" + ClsidText());
  const HRESULT b = DeleteTree(r, CORVANE_AGGREGATES_PROGID);
  return FAILED(a) ? a : b;
}

HRESULT Register(const ClassesRoot& r) {
  wchar_t path[MAX_PATH * 2] = {};
  const DWORD length = GetModuleFileNameW(g_instance, path, MAX_PATH * 2);
  if (length == 0 || length >= MAX_PATH * 2) return HRESULT_FROM_WIN32(GetLastError());
  const std::wstring clsidKey = L"CLSID\\" + ClsidText();
  const std::wstring progId = CORVANE_AGGREGATES_PROGID;
  HRESULT hr = SetValue(r, clsidKey, nullptr, kDescription);
  if (SUCCEEDED(hr)) hr = SetValue(r, clsidKey + L"\\InprocServer32", nullptr, path);
  if (SUCCEEDED(hr)) hr = SetValue(r, clsidKey + L"\\InprocServer32", L"ThreadingModel", kThreadingModel);
  if (SUCCEEDED(hr)) hr = SetValue(r, clsidKey + L"\\ProgID", nullptr, progId);
  if (SUCCEEDED(hr)) hr = SetValue(r, progId, nullptr, kDescription);
  if (SUCCEEDED(hr)) hr = SetValue(r, progId + L"\\CLSID", nullptr, ClsidText());
  if (FAILED(hr)) Unregister(r);  // leave no half-written registration behind
  return hr;
}

const ClassesRoot kMachine{HKEY_CLASSES_ROOT, L""};
const ClassesRoot kUser{HKEY_CURRENT_USER, L"Software\\Classes\\"};

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_instance = instance;
    DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (!IsEqualCLSID(rclsid, CLSID_CorvaneHistoryAggregates)) return CLASS_E_CLASSNOTAVAILABLE;
  return corvane::historian::CAggregatesClassFactory::Create(riid, ppv);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow(void) {
  return corvane::historian::AggregatesObjectCount() == 0 ? S_OK : S_FALSE;
}

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer(void) {
  HRESULT hr = Register(kMachine);
  if (hr == HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED)) hr = Register(kUser);
  return hr;
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer(void) {
  const HRESULT machine = Unregister(kMachine);
  const HRESULT user = Unregister(kUser);
  return machine == HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED) ? user : (FAILED(machine) ? machine : user);
}

#endif  // _WIN32 && CORVANE_AGGREGATES_DLL
