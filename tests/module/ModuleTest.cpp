#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "provider/Module.h"
#include "tests/support/Registration.h"

#ifndef _WIN32
#include <dlfcn.h>
#endif

namespace {

constexpr CLSID kClsid = {0xEFFACBC0, 0x538B, 0x4bc7, {0xAF, 0xE1, 0x2E, 0x90, 0x16, 0x74, 0x24, 0xC6}};
constexpr CLSID kLookupClsid = {0x4847E217, 0x9067, 0x4A53, {0x89, 0xDC, 0x82, 0x81, 0x63, 0x89, 0x14, 0xAE}};

// A symbol of the built module, loaded once the way a COM client loads an in-process server.
void* ModuleSymbol(const char* name) {
#ifdef _WIN32
  static const HMODULE module = LoadLibraryW(corvane::test::WindowsPath(CORVANE_PROVIDER_MODULE).c_str());
  return module ? reinterpret_cast<void*>(GetProcAddress(module, name)) : nullptr;
#else
  static void* const module = dlopen(CORVANE_PROVIDER_MODULE, RTLD_NOW | RTLD_LOCAL);
  return module ? dlsym(module, name) : nullptr;
#endif
}

}  // namespace

TEST(ModuleEntryPoints, ExportsTheFiveEntryPointsAndNothingElse) {
  for (const char* name : {"DllGetClassObject", "DllCanUnloadNow", "DllRegisterServer", "DllUnregisterServer",
                           "DllInstall"})
    EXPECT_NE(ModuleSymbol(name), nullptr) << name << " of " << CORVANE_PROVIDER_MODULE;
  // The static libraries inside stay private, so a host's own copies never mix with them.
  EXPECT_EQ(ModuleSymbol("_ZN9ORelTrace8RegisterEPKDs"), nullptr);
  EXPECT_EQ(ModuleSymbol("_ZN9ORelTrace8RegisterEPKw"), nullptr);
}

TEST(ModuleEntryPoints, ServeTheCreationObjectAndTheErrorLookupService) {
  // The loaded module's own entry points, not the statically linked ones of the same name.
  auto getClassObject = reinterpret_cast<decltype(&DllGetClassObject)>(ModuleSymbol("DllGetClassObject"));
  auto canUnloadNow = reinterpret_cast<decltype(&DllCanUnloadNow)>(ModuleSymbol("DllCanUnloadNow"));
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

// Objects on many threads take and drop locks at once; the count must end at zero.
TEST(ModuleLockCount, UnloadOnlyWhenNoLockIsHeld) {
  ASSERT_EQ(DllCanUnloadNow(), S_OK);
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
