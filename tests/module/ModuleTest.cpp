#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "provider/Module.h"

#ifndef _WIN32
#include <dlfcn.h>
#endif

namespace {

constexpr CLSID kClsid = {0xEFFACBC0, 0x538B, 0x4bc7, {0xAF, 0xE1, 0x2E, 0x90, 0x16, 0x74, 0x24, 0xC6}};
constexpr CLSID kLookupClsid = {0x4847E217, 0x9067, 0x4A53, {0x89, 0xDC, 0x82, 0x81, 0x63, 0x89, 0x14, 0xAE}};

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, LPVOID*);
using CanUnloadNowFn = HRESULT(STDAPICALLTYPE*)();
using RegisterFn = HRESULT(STDAPICALLTYPE*)();
using InstallFn = HRESULT(STDAPICALLTYPE*)(BOOL, LPCWSTR);

// The built module, loaded the way a COM client loads an in-process server.
class LoadedModule {
 public:
  LoadedModule() {
    std::string path = CORVANE_PROVIDER_MODULE;
#ifdef _WIN32
    // The build hands us a POSIX path; under Wine the root is drive Z:.
    if (!path.empty() && path[0] == '/') path = "Z:" + path;
    for (auto& c : path)
      if (c == '/') c = '\\';
    handle_ = LoadLibraryA(path.c_str());
#else
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
#endif
  }
  ~LoadedModule() {
    if (!handle_) return;
#ifdef _WIN32
    FreeLibrary(static_cast<HMODULE>(handle_));
#else
    dlclose(handle_);
#endif
  }
  bool Loaded() const { return handle_ != nullptr; }
  void* Symbol(const char* name) const {
#ifdef _WIN32
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name));
#else
    return dlsym(handle_, name);
#endif
  }
  template <typename Fn>
  Fn Get(const char* name) const {
    return reinterpret_cast<Fn>(Symbol(name));
  }

 private:
  void* handle_ = nullptr;
};

}  // namespace

TEST(ModuleEntryPoints, ExportsTheFiveEntryPointsAndNothingElse) {
  LoadedModule module;
  ASSERT_TRUE(module.Loaded()) << CORVANE_PROVIDER_MODULE;
  for (const char* name : {"DllGetClassObject", "DllCanUnloadNow", "DllRegisterServer", "DllUnregisterServer",
                           "DllInstall"})
    EXPECT_NE(module.Symbol(name), nullptr) << name;
  // The static libraries inside stay private, so a host's own copies never mix with them.
  EXPECT_EQ(module.Symbol("_ZN9ORelTrace8RegisterEPKDs"), nullptr);
  EXPECT_EQ(module.Symbol("_ZN9ORelTrace8RegisterEPKw"), nullptr);
}

TEST(ModuleEntryPoints, ServeTheCreationObjectAndTheErrorLookupService) {
  LoadedModule module;
  ASSERT_TRUE(module.Loaded());
  auto getClassObject = module.Get<GetClassObjectFn>("DllGetClassObject");
  auto canUnloadNow = module.Get<CanUnloadNowFn>("DllCanUnloadNow");
  ASSERT_TRUE(getClassObject && canUnloadNow);

  EXPECT_EQ(canUnloadNow(), S_OK);
  void* pv = reinterpret_cast<void*>(static_cast<uintptr_t>(0xBAD));
  ASSERT_EQ(getClassObject(kClsid, IID_IClassFactory, &pv), S_OK);
  auto* factory = static_cast<IClassFactory*>(pv);
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(canUnloadNow(), S_FALSE);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  IUnknown* creator = nullptr;
  ASSERT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&creator)), S_OK);
  factory->Release();
  EXPECT_EQ(canUnloadNow(), S_FALSE);  // the creation object holds the module
  creator->Release();
  EXPECT_EQ(canUnloadNow(), S_OK);
  ASSERT_EQ(getClassObject(kLookupClsid, IID_IClassFactory, &pv), S_OK);
  factory = static_cast<IClassFactory*>(pv);
  IUnknown* lookup = nullptr;
  ASSERT_EQ(factory->CreateInstance(nullptr, IID_IErrorLookup, reinterpret_cast<void**>(&lookup)), S_OK);
  factory->Release();
  EXPECT_EQ(canUnloadNow(), S_FALSE);  // so does the lookup service
  lookup->Release();
  EXPECT_EQ(canUnloadNow(), S_OK);
  pv = reinterpret_cast<void*>(static_cast<uintptr_t>(0xBAD));
  EXPECT_EQ(getClassObject(GUID_NULL, IID_IUnknown, &pv), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(getClassObject(kClsid, IID_IClassFactory, nullptr), E_POINTER);
  EXPECT_EQ(canUnloadNow(), S_OK);
}

TEST(ModuleLockCount, UnloadOnlyWhenNoLockIsHeld) {
  ASSERT_EQ(DllCanUnloadNow(), S_OK);
  corvane::module::Lock();
  corvane::module::Lock();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  corvane::module::Unlock();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  corvane::module::Unlock();
  EXPECT_EQ(DllCanUnloadNow(), S_OK);

  // Objects on many threads take and drop locks at once; the count must end at zero.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 20000; ++i) {
        corvane::module::Lock();
        corvane::module::Unlock();
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(corvane::module::LockCount(), 0);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

#ifdef _WIN32

namespace {

std::wstring ReadString(HKEY root, const std::wstring& key, const wchar_t* name) {
  wchar_t buf[1024];
  DWORD size = sizeof buf;
  if (RegGetValueW(root, key.c_str(), name, RRF_RT_REG_SZ, nullptr, buf, &size) != ERROR_SUCCESS)
    return L"<missing>";
  return buf;
}

bool KeyExists(HKEY root, const std::wstring& key) {
  HKEY h = nullptr;
  if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
  RegCloseKey(h);
  return true;
}

const std::wstring kClsidKey = L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}";
const std::wstring kProgId = L"Quellix.CorvaneOleDbProvider_VLD64";

}  // namespace

TEST(ModuleRegistration, InstallForTheUserOnly) {
  LoadedModule module;
  ASSERT_TRUE(module.Loaded());
  auto install = module.Get<InstallFn>("DllInstall");
  ASSERT_TRUE(install);
  const std::wstring userClsid = L"Software\\Classes\\" + kClsidKey;

  ASSERT_EQ(install(TRUE, L"user"), S_OK);
  EXPECT_EQ(ReadString(HKEY_CURRENT_USER, userClsid + L"\\InprocServer32", L"ThreadingModel"), L"Both");
  EXPECT_EQ(ReadString(HKEY_CURRENT_USER, userClsid + L"\\ExtendedErrors\\{4847E217-9067-4A53-89DC-8281638914AE}",
                       nullptr),
            L"Corvane OLE DB Provider Error Lookup");
  EXPECT_EQ(ReadString(HKEY_CURRENT_USER, L"Software\\Classes\\" + kProgId + L"\\CLSID", nullptr),
            L"{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}");
  ASSERT_EQ(install(FALSE, L"user"), S_OK);
  EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, userClsid));
  EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, L"Software\\Classes\\CLSID\\{4847E217-9067-4A53-89DC-8281638914AE}"));
}

#else

TEST(ModuleRegistration, HasNothingToWriteOnPosix) {
  LoadedModule module;
  ASSERT_TRUE(module.Loaded());
  auto install = module.Get<InstallFn>("DllInstall");
  auto reg = module.Get<RegisterFn>("DllRegisterServer");
  ASSERT_TRUE(install && reg);
  EXPECT_EQ(reg(), S_OK);
  EXPECT_EQ(install(TRUE, OLESTR("user")), S_OK);
  EXPECT_EQ(install(FALSE, nullptr), S_OK);
}

#endif
