// This consumer does not link the provider, so it defines the SDK's OLE DB GUIDs itself.
#define DBINITCONSTANTS
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "historian/Aggregates.h"
#include "historian/ReferenceHistorian.h"
#include "platform/WideString.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/Registration.h"

using corvane::historian::CAggregates;
using corvane::historian::CHistorianStore;
using corvane::historian::CReferenceHistorian;
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

ULONG RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

}  // namespace

TEST(RegisteredProvider, ConsumerLifecycleUnderTheSystemComRuntime) {
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

  // Created by CLSID and by ProgID.
  ICreateCorvaneOleDbProvider* byClsid = nullptr;
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorvaneOleDbProvider, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_ICreateCorvaneOleDbProvider, reinterpret_cast<void**>(&byClsid)));
  CLSID clsid{};
  ASSERT_EQ(S_OK, CLSIDFromProgID(L"Quellix.CorvaneOleDbProvider_VLD64", &clsid));
  ICreateCorvaneOleDbProvider* byProgId = nullptr;
  ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateCorvaneOleDbProvider,
                                   reinterpret_cast<void**>(&byProgId)));
  byProgId->Release();

  // A host that counts its references: the reference historian with its own aggregates.
  IAggregates* factory = nullptr;
  ASSERT_EQ(S_OK, CAggregates::CreateInstance(nullptr, IID_IAggregates, reinterpret_cast<void**>(&factory)));
  IUnknown* historian = nullptr;
  ASSERT_EQ(S_OK, CReferenceHistorian::Create(std::make_shared<CHistorianStore>(), IID_IUnknown,
                                              reinterpret_cast<void**>(&historian), factory));
  factory->Release();
  auto* host = corvane::testing::CFaultInjectingHost::Create(historian);
  historian->Release();
  IUnknown* hostUnknown = static_cast<IRawDataProvider*>(host);
  const ULONG hostRefs = RefCount(hostUnknown);

  IUnknown* ds = nullptr;
  ASSERT_EQ(S_OK, byClsid->Create(hostUnknown, &ds));
  IDBProperties* props = nullptr;
  ASSERT_EQ(S_OK, ds->QueryInterface(IID_IDBProperties, reinterpret_cast<void**>(&props)));
  DBPROP set[2] = {};
  set[0].dwPropertyID = DBPROP_INIT_CATALOG;
  set[0].vValue.vt = VT_BSTR;
  set[0].vValue.bstrVal = SysAllocString(L"Plant");
  set[1].dwPropertyID = DBPROP_INIT_PROVIDERSTRING;
  set[1].vValue.vt = VT_BSTR;
  set[1].vValue.bstrVal = SysAllocString(L"Initial Schema=Area1");
  DBPROPSET sets{set, 2, DBPROPSET_DBINIT};
  ASSERT_EQ(S_OK, props->SetProperties(1, &sets));
  VariantClear(&set[0].vValue);
  VariantClear(&set[1].vValue);
  IDBInitialize* init = nullptr;
  ASSERT_EQ(S_OK, ds->QueryInterface(IID_IDBInitialize, reinterpret_cast<void**>(&init)));
  ASSERT_EQ(S_OK, init->Initialize());

  DBPROPID ids[] = {DBPROP_INIT_CATALOG, DBPROP_INIT_PROVIDERSTRING};
  DBPROPIDSET asked{ids, 2, DBPROPSET_DBINIT};
  ULONG n = 0;
  DBPROPSET* got = nullptr;
  ASSERT_EQ(S_OK, props->GetProperties(1, &asked, &n, &got));
  ASSERT_EQ(1u, n);
  EXPECT_STREQ(L"Plant", got[0].rgProperties[0].vValue.bstrVal);
  EXPECT_STREQ(L"Initial Schema=Area1", got[0].rgProperties[1].vValue.bstrVal);
  for (ULONG i = 0; i < got[0].cProperties; ++i) VariantClear(&got[0].rgProperties[i].vValue);
  CoTaskMemFree(got[0].rgProperties);
  CoTaskMemFree(got);

  // A failure leaves a record in the system's error object.
  EXPECT_EQ(DB_E_ALREADYINITIALIZED, init->Initialize());
  IErrorInfo* error = nullptr;
  ASSERT_EQ(S_OK, GetErrorInfo(0, &error));
  IErrorRecords* records = nullptr;
  ASSERT_EQ(S_OK, error->QueryInterface(IID_IErrorRecords, reinterpret_cast<void**>(&records)));
  ULONG count = 0;
  EXPECT_EQ(S_OK, records->GetRecordCount(&count));
  EXPECT_EQ(1u, count);
  ERRORINFO basic = {};
  EXPECT_EQ(S_OK, records->GetBasicErrorInfo(0, &basic));
  EXPECT_EQ(DB_E_ALREADYINITIALIZED, basic.hrError);
  EXPECT_TRUE(IsEqualIID(IID_IDBInitialize, basic.iid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, basic.clsid));
  records->Release();
  error->Release();

  init->Release();
  props->Release();
  ds->Release();
  byClsid->Release();
  EXPECT_EQ(hostRefs, RefCount(hostUnknown));
  hostUnknown->Release();
  CoUninitialize();

  EXPECT_EQ(0u, Regsvr32(L"/u", WindowsPath(CORVANE_PROVIDER_MODULE)));
  EXPECT_FALSE(KeyExists(L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}\\ExtendedErrors"));
  EXPECT_FALSE(KeyExists(L"CLSID\\{EFFACBC0-538B-4bc7-AFE1-2E90167424C6}"));
  EXPECT_FALSE(KeyExists(lookup));
  EXPECT_FALSE(KeyExists(L"Quellix.CorvaneOleDbProvider_VLD64"));
  EXPECT_FALSE(KeyExists(L"Quellix.CorvaneOleDbProvider_VLD64.1"));
  EXPECT_EQ(0u, Regsvr32(L"/u", WindowsPath(CORVANE_PROVIDER_MODULE))) << "unregistering twice is harmless";
}
