#include <gtest/gtest.h>

#include <string>

#include "provider/ICreateCorvaneOleDbProvider.h"
#include "tests/support/Registration.h"

using corvane::test::Regsvr32;
using corvane::test::WindowsPath;

namespace {

const std::wstring kClsid = L"{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}";
const std::wstring kProvider = L"CLSID\\" + kClsid;
const std::wstring kLookup = L"CLSID\\{4847E217-9067-4A53-89DC-8281638914AE}";
const std::wstring kExtendedErrors = kProvider + L"\\ExtendedErrors\\{4847E217-9067-4A53-89DC-8281638914AE}";
const std::wstring kProgId = L"Quellix.CorvaneOleDbProvider_VLD64";

bool KeyExists(const std::wstring& key, HKEY root = HKEY_CLASSES_ROOT) {
  HKEY h = nullptr;
  if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
  RegCloseKey(h);
  return true;
}

std::wstring ReadString(const std::wstring& key, const wchar_t* name, HKEY root = HKEY_CLASSES_ROOT) {
  wchar_t buf[1024];
  DWORD size = sizeof buf;
  if (RegGetValueW(root, key.c_str(), name, RRF_RT_REG_SZ, nullptr, buf, &size) != ERROR_SUCCESS)
    return L"<missing>";
  return buf;
}

}  // namespace

TEST(RegisteredProvider, RegistersCreatesAndUnregistersUnderTheSystemComRuntime) {
  const std::wstring dll = WindowsPath(CORVANE_PROVIDER_MODULE);
  ASSERT_EQ(0u, Regsvr32(L"", dll));
  ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
  // The creation object and the error lookup service, where an OLE DB error object looks for it.
  for (const std::wstring& server : {kProvider + L"\\InprocServer32", kLookup + L"\\InprocServer32"}) {
    EXPECT_EQ(dll, ReadString(server, nullptr));
    EXPECT_EQ(L"Both", ReadString(server, L"ThreadingModel"));
  }
  EXPECT_EQ(kClsid, ReadString(kProgId + L"\\CLSID", nullptr));
  EXPECT_TRUE(KeyExists(kProgId + L".1"));
  EXPECT_EQ(L"Corvane OLE DB Provider Error Lookup", ReadString(kExtendedErrors, nullptr));

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

  // Created by CLSID and by ProgID. (Data sources of the registered DLL, their properties and error records are what
  // every consumer suite of the Windows build runs on: tests/session/ConsumerFixture.cpp.)
  CLSID clsid{};
  ASSERT_EQ(S_OK, CLSIDFromProgID(kProgId.c_str(), &clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, clsid));
  ICreateCorvaneOleDbProvider* created = nullptr;
  ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateCorvaneOleDbProvider,
                                   reinterpret_cast<void**>(&created)));
  created->Release();
  CoUninitialize();

  EXPECT_EQ(0u, Regsvr32(L"/u", dll));
  for (const std::wstring& key : {kProvider, kLookup, kProgId, kProgId + L".1"}) EXPECT_FALSE(KeyExists(key));
  EXPECT_EQ(0u, Regsvr32(L"/u", dll)) << "unregistering twice is harmless";
}

// DllInstall with "user" (regsvr32 /n /i:user) writes the classes for this user alone.
TEST(RegisteredProvider, InstallsForTheUserOnly) {
  const std::wstring dll = WindowsPath(CORVANE_PROVIDER_MODULE), user = L"Software\\Classes\\";
  ASSERT_EQ(0u, Regsvr32(L"/n /i:user", dll));
  EXPECT_EQ(L"Both", ReadString(user + kProvider + L"\\InprocServer32", L"ThreadingModel", HKEY_CURRENT_USER));
  EXPECT_EQ(L"Corvane OLE DB Provider Error Lookup", ReadString(user + kExtendedErrors, nullptr, HKEY_CURRENT_USER));
  EXPECT_EQ(kClsid, ReadString(user + kProgId + L"\\CLSID", nullptr, HKEY_CURRENT_USER));
  ASSERT_EQ(0u, Regsvr32(L"/u /n /i:user", dll));
  EXPECT_FALSE(KeyExists(user + kProvider, HKEY_CURRENT_USER));
  EXPECT_FALSE(KeyExists(user + kLookup, HKEY_CURRENT_USER));
}
