#include <gtest/gtest.h>

#include <string>

#include "provider/ICreateCorvaneOleDbProvider.h"
#include "tests/support/Registration.h"

using corvane::test::Regsvr32;
using corvane::test::WindowsPath;

namespace {

bool KeyExists(const wchar_t* key) {
  HKEY h = nullptr;
  if (RegOpenKeyExW(HKEY_CLASSES_ROOT, key, 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
  RegCloseKey(h);
  return true;
}

std::wstring ReadString(const wchar_t* key, const wchar_t* name) {
  wchar_t buf[1024];
  DWORD size = sizeof buf;
  if (RegGetValueW(HKEY_CLASSES_ROOT, key, name, RRF_RT_REG_SZ, nullptr, buf, &size) != ERROR_SUCCESS)
    return L"<missing>";
  return buf;
}

}  // namespace

TEST(RegisteredProvider, RegistersCreatesAndUnregistersUnderTheSystemComRuntime) {
  ASSERT_EQ(0u, Regsvr32(L"", WindowsPath(CORVANE_PROVIDER_MODULE)));
  ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
  const wchar_t* server = L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}\\InprocServer32";
  EXPECT_EQ(WindowsPath(CORVANE_PROVIDER_MODULE), ReadString(server, nullptr));
  EXPECT_EQ(std::wstring(L"Both"), ReadString(server, L"ThreadingModel"));
  EXPECT_EQ(std::wstring(L"{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}"),
            ReadString(L"Quellix.CorvaneOleDbProvider_VLD64\\CLSID", nullptr));
  EXPECT_TRUE(KeyExists(L"Quellix.CorvaneOleDbProvider_VLD64.1"));
  // The error lookup service, where an OLE DB error object looks for it.
  const wchar_t* lookup = L"CLSID\\{4847E217-9067-4A53-89DC-8281638914AE}";
  EXPECT_EQ(std::wstring(L"Corvane OLE DB Provider Error Lookup"),
            ReadString(L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}\\ExtendedErrors\\"
                       L"{4847E217-9067-4A53-89DC-8281638914AE}",
                       nullptr));
  const std::wstring lookupServer = std::wstring(lookup) + L"\\InprocServer32";
  EXPECT_EQ(WindowsPath(CORVANE_PROVIDER_MODULE), ReadString(lookupServer.c_str(), nullptr));
  EXPECT_EQ(std::wstring(L"Both"), ReadString(lookupServer.c_str(), L"ThreadingModel"));

  // The type library describes the creation interface.
  ITypeLib* library = nullptr;
  ASSERT_EQ(S_OK, LoadRegTypeLib(LIBID_CorvaneOleDbProviderLib, 1, 0, LOCALE_NEUTRAL, &library));
  ITypeInfo* info = nullptr;
  ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(IID_ICreateCorvaneOleDbProvider, &info));
  TYPEATTR* attr = nullptr;
  ASSERT_EQ(S_OK, info->GetTypeAttr(&attr));
  EXPECT_EQ(TKIND_INTERFACE, attr->typekind);
  EXPECT_EQ(4, attr->cFuncs + 3);  // IUnknown's three and Create
  info->ReleaseTypeAttr(attr);
  info->Release();
  library->Release();

  // Created by CLSID and by ProgID. (Data sources of the registered DLL, their
  // properties and error records are what every consumer suite of the Windows build
  // runs on: tests/session/ConsumerFixture.cpp.)
  ICreateCorvaneOleDbProvider* created = nullptr;
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorvaneOleDbProvider, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_ICreateCorvaneOleDbProvider, reinterpret_cast<void**>(&created)));
  created->Release();
  CLSID clsid{};
  ASSERT_EQ(S_OK, CLSIDFromProgID(L"Quellix.CorvaneOleDbProvider_VLD64", &clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, clsid));
  ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateCorvaneOleDbProvider,
                                   reinterpret_cast<void**>(&created)));
  created->Release();
  CoUninitialize();

  EXPECT_EQ(0u, Regsvr32(L"/u", WindowsPath(CORVANE_PROVIDER_MODULE)));
  EXPECT_FALSE(KeyExists(L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}\\ExtendedErrors"));
  EXPECT_FALSE(KeyExists(L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}"));
  EXPECT_FALSE(KeyExists(lookup));
  EXPECT_FALSE(KeyExists(L"Quellix.CorvaneOleDbProvider_VLD64"));
  EXPECT_FALSE(KeyExists(L"Quellix.CorvaneOleDbProvider_VLD64.1"));
  EXPECT_EQ(0u, Regsvr32(L"/u", WindowsPath(CORVANE_PROVIDER_MODULE))) << "unregistering twice is harmless";
}
