// The data source on its own (as Create makes it): property rules before and after
// Initialize, what the provider string does not show through SQL (tests/cases/
// datasource.test), IDBInfo and the records of failed calls.
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/WideString.h"
#include "provider/ErrorReporting.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "provider/ProviderDataSource.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/TraceCapture.h"

using corvane::CPropertyEngine;
using corvane::ToUtf8;
using corvane::test::TraceCapture;

namespace {

// A property of `vt` (BSTR, BOOL or I2) holding `text` or `n`.
DBPROP Prop(DBPROPID id, VARTYPE vt, const OLECHAR* text, SHORT n = 0) {
  DBPROP prop{};
  prop.dwPropertyID = id;
  prop.vValue.vt = vt;
  if (vt == VT_BSTR) prop.vValue.bstrVal = SysAllocString(text);
  else prop.vValue.iVal = vt == VT_BOOL ? (n ? VARIANT_TRUE : VARIANT_FALSE) : n;
  return prop;
}

class DataSourceTest : public corvane::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    corvane::ClearErrorRecords();
    ASSERT_EQ(S_OK, CProviderDataSource::CreateInstance(&ds_));
    ds_->AddRef();
  }
  void TearDown() override {
    ds_->Release();
    corvane::ClearErrorRecords();
    LeakCheckedTest::TearDown();
  }
  HRESULT SetString(DBPROPID id, const OLECHAR* text, DBPROPSTATUS* status = nullptr) {
    DBPROP prop = Prop(id, VT_BSTR, text);
    DBPROPSET set{&prop, 1, DBPROPSET_DBINIT};
    const HRESULT hr = ds_->SetProperties(1, &set);
    if (status) *status = prop.dwStatus;
    VariantClear(&prop.vValue);
    return hr;
  }
  std::string Name(HRESULT (CProviderDataSource::*getter)(BSTR*)) {
    BSTR b = nullptr;
    (ds_->*getter)(&b);
    std::string s = ToUtf8(b);
    SysFreeString(b);
    return s;
  }
  std::string Schema() { return Name(&CProviderDataSource::GetDefaultSchema); }
  CProviderDataSource* ds_ = nullptr;
};

using DataSourceProperties = DataSourceTest;
using ProviderString = DataSourceTest;
using DataSourceInfo = DataSourceTest;

}  // namespace

TEST_F(DataSourceProperties, InitialisationPropertiesOnlyUntilInitialised) {
  // Before Initialize only DBINIT exists: the information set reads empty, its properties
  // are not supported, and setting them fails.
  DBPROPID threading = DBPROP_DSOTHREADMODEL;
  DBPROPIDSET before[3] = {{nullptr, 0, DBPROPSET_DBINIT},
                           {nullptr, 0, DBPROPSET_DATASOURCEINFO},
                           {&threading, 1, DBPROPSET_DATASOURCEINFO}};
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  ASSERT_EQ(DB_S_ERRORSOCCURRED, ds_->GetProperties(3, before, &n, &sets));
  ASSERT_EQ(3u, n);
  EXPECT_LT(0u, sets[0].cProperties);
  EXPECT_EQ(0u, sets[1].cProperties);
  EXPECT_EQ(DBPROPSTATUS_NOTSUPPORTED, sets[2].rgProperties[0].dwStatus);
  CPropertyEngine::FreePropertySets(n, sets);
  ASSERT_EQ(S_OK, ds_->GetProperties(0, nullptr, &n, &sets));
  EXPECT_EQ(1u, n);
  CPropertyEngine::FreePropertySets(n, sets);
  DBPROP props[2] = {Prop(DBPROP_USERNAME, VT_BSTR, OLESTR("admin")), Prop(DBPROP_SERVERDATAONINSERT, VT_BOOL, nullptr)};
  DBPROPSET set{props, 2, DBPROPSET_DATASOURCEINFO};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, ds_->SetProperties(1, &set));
  EXPECT_EQ(DBPROPSTATUS_NOTSUPPORTED, props[1].dwStatus);

  DBPROPSTATUS status = 99;
  EXPECT_EQ(S_OK, SetString(DBPROP_AUTH_USERID, OLESTR("operator"), &status));
  EXPECT_EQ(DBPROPSTATUS_OK, status);
  ASSERT_EQ(S_OK, ds_->Initialize());

  // Afterwards the information set reads, the user id stays, and DBINIT is fixed.
  DBPROPID ids[] = {DBPROP_DSOTHREADMODEL, DBPROP_PROVIDEROLEDBVER, DBPROP_SQLSUPPORT};
  DBPROPIDSET asked[2] = {{ids, 3, DBPROPSET_DATASOURCEINFO}, {nullptr, 0, DBPROPSET_DBINIT}};
  ASSERT_EQ(S_OK, ds_->GetProperties(2, asked, &n, &sets));
  EXPECT_EQ(DBPROPVAL_RT_FREETHREAD, sets[0].rgProperties[0].vValue.lVal);
  EXPECT_EQ("2.50", ToUtf8(sets[0].rgProperties[1].vValue.bstrVal));
  EXPECT_EQ(DBPROPVAL_SQL_ANSI92_ENTRY, sets[0].rgProperties[2].vValue.lVal);
  DBPROP* const end = sets[1].rgProperties + sets[1].cProperties;
  DBPROP* user =
      std::find_if(sets[1].rgProperties, end, [](const DBPROP& p) { return p.dwPropertyID == DBPROP_AUTH_USERID; });
  ASSERT_NE(end, user);
  EXPECT_EQ("operator", ToUtf8(user->vValue.bstrVal));
  CPropertyEngine::FreePropertySets(n, sets);
  EXPECT_EQ(DB_E_ERRORSOCCURRED, SetString(DBPROP_AUTH_USERID, OLESTR("late"), &status));
  EXPECT_EQ(DBPROPSTATUS_NOTSETTABLE, status);

  // Read-only information cannot change; the writable one can.
  EXPECT_EQ(DB_S_ERRORSOCCURRED, ds_->SetProperties(1, &set));
  EXPECT_EQ(DBPROPSTATUS_NOTSETTABLE, props[0].dwStatus);
  EXPECT_EQ(DBPROPSTATUS_OK, props[1].dwStatus);
  VariantClear(&props[0].vValue);

  // Uninitialize makes DBINIT settable again.
  ASSERT_EQ(S_OK, ds_->Uninitialize());
  EXPECT_EQ(S_OK, SetString(DBPROP_AUTH_USERID, OLESTR("again")));
}

TEST_F(DataSourceProperties, FailuresAreTracedAndPostedAsErrorRecords) {
  TraceCapture trace;
  ASSERT_EQ(S_OK, ds_->Initialize());
  EXPECT_EQ(DB_E_ALREADYINITIALIZED, ds_->Initialize());
  EXPECT_TRUE(trace.Contains("Initialize, HR = 80040E52"));
#ifndef _WIN32
  auto records = corvane::platform::TakeErrorRecords();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(DB_E_ALREADYINITIALIZED, records[0].info.hrError);
  EXPECT_TRUE(IsEqualIID(IID_IDBInitialize, records[0].info.iid));
  EXPECT_EQ("CProviderDataSource class", ToUtf8(corvane::WStringView(records[0].source)));
  EXPECT_EQ("Failed to initialize/unitialize a data source (IID_IDBInitialize). Details: No more details "
            "(HRESULT = 80040E52).",
            ToUtf8(corvane::WStringView(records[0].description)));
  // A successful call leaves no record behind.
  LONG rows = 0;
  EXPECT_EQ(S_OK, ds_->GetMaxRowsToReturn(&rows));
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  EXPECT_EQ(S_OK, ds_->GetProperties(0, nullptr, &n, &sets));
  CPropertyEngine::FreePropertySets(n, sets);
  EXPECT_EQ(0u, corvane::platform::ErrorRecordCount());
  EXPECT_EQ(E_INVALIDARG, ds_->GetProperties(0, nullptr, nullptr, &sets));
  EXPECT_TRUE(trace.Contains("GetProperties, HR = 80070057"));
  ASSERT_EQ(1u, corvane::platform::ErrorRecordCount());
#endif
  // The internal interface's getters refuse a null pointer too.
  EXPECT_EQ(E_INVALIDARG, ds_->GetPercentDataGood(nullptr));
  EXPECT_EQ(E_INVALIDARG, ds_->GetStartTimeForQuery(nullptr));
  EXPECT_EQ(S_OK, ds_->InterfaceSupportsErrorInfo(IID_IDBInitialize));
  EXPECT_EQ(S_OK, ds_->InterfaceSupportsErrorInfo(IID_IProviderDataSource));
  EXPECT_EQ(S_FALSE, ds_->InterfaceSupportsErrorInfo(IID_IPersist));
}

// (What the provider string's times and "Use Timestamps" do is read through SQL in
// queryrange.test and datasource.test.)
TEST_F(ProviderString, TheSchemaFollowsTheLastStringAndIsFilledOnce) {
  ASSERT_EQ(S_OK, SetString(DBPROP_INIT_PROVIDERSTRING, OLESTR("Initial Schema=plant")));
  EXPECT_EQ("plant", Schema());
  ASSERT_EQ(S_OK, SetString(DBPROP_INIT_PROVIDERSTRING, OLESTR("Timestamp End=2020-01-01 00:00:00")));
  EXPECT_EQ("", Schema()) << "a string without the schema item empties it";

  // Initialize fills empty names; a schema emptied after it stays empty.
  ASSERT_EQ(S_OK, SetString(DBPROP_INIT_CATALOG, OLESTR("")));
  ASSERT_EQ(S_OK, ds_->Initialize());
  EXPECT_EQ("_default_schema_", Schema());
  EXPECT_EQ("_default_catalog_", Name(&CProviderDataSource::GetDefaultCatalog));
  DBPROPSTATUS status = 0;
  EXPECT_EQ(DB_E_ERRORSOCCURRED, SetString(DBPROP_INIT_PROVIDERSTRING, OLESTR("Initial Schema="), &status));
  EXPECT_EQ(DBPROPSTATUS_NOTSETTABLE, status);
  EXPECT_EQ("", Schema());
}

TEST_F(ProviderString, DataSourceCatalogAndWindowHandleByIdentifierAlone) {
  TraceCapture trace;
  DBPROP props[3] = {Prop(DBPROP_INIT_DATASOURCE, VT_BSTR, nullptr),  // a null BSTR is an empty string
                     Prop(DBPROP_INIT_CATALOG, VT_BSTR, OLESTR("History")), Prop(DBPROP_INIT_HWND, VT_I2, nullptr, 12)};
  DBPROPSET set{props, 3, DBPROPSET_ROWSET};  // the wrong set: the engine refuses them
  EXPECT_EQ(DB_E_ERRORSOCCURRED, ds_->SetProperties(1, &set));
  EXPECT_TRUE(trace.Contains("Set INIT_DATASOURCE = "));
  EXPECT_EQ("History", Name(&CProviderDataSource::GetDefaultCatalog));
  EXPECT_EQ(VT_I4, props[2].vValue.vt);
  EXPECT_EQ(12, props[2].vValue.lVal);
  VariantClear(&props[1].vValue);
}

TEST_F(DataSourceInfo, KeywordsLiteralsSessionAndClass) {
  LPOLESTR keywords = nullptr;
  EXPECT_EQ(E_UNEXPECTED, ds_->GetKeywords(&keywords));
  IUnknown* session = nullptr;
  EXPECT_EQ(E_UNEXPECTED, ds_->CreateSession(nullptr, IID_IUnknown, &session));
  ASSERT_EQ(S_OK, ds_->Initialize());
  ASSERT_EQ(S_OK, ds_->GetKeywords(&keywords));
  EXPECT_EQ("QualityToStr;AccessRightsToStr;DataTypeToStr", ToUtf8(keywords));
  CoTaskMemFree(keywords);
  EXPECT_EQ(E_INVALIDARG, ds_->GetKeywords(nullptr));

  DBLITERAL asked[] = {DBLITERAL_CATALOG_SEPARATOR, DBLITERAL_QUOTE_PREFIX, DBLITERAL_CURSOR_NAME,
                       DBLITERAL_LIKE_PERCENT};
  ULONG n = 0;
  DBLITERALINFO* infos = nullptr;
  OLECHAR* chars = nullptr;
  ASSERT_EQ(DB_S_ERRORSOCCURRED, ds_->GetLiteralInfo(4, asked, &n, &infos, &chars));
  std::string got;  // "literal=value", or "literal-" when not supported
  for (ULONG i = 0; i < n; ++i)
    got += std::to_string(infos[i].lt) + (infos[i].fSupported ? "=" + ToUtf8(infos[i].pwszLiteralValue) : "-") + " ";
  EXPECT_EQ("3=. 15=\" 8- 12=% ", got);
  CoTaskMemFree(infos);
  CoTaskMemFree(chars);

  TraceCapture trace;
  // A session does not offer IRowset: the failure is traced and posted.
  EXPECT_EQ(E_NOINTERFACE, ds_->CreateSession(nullptr, IID_IRowset, &session));
  EXPECT_EQ(nullptr, session);
  EXPECT_TRUE(trace.Contains("Failed to create session (80004002)."));
#ifndef _WIN32
  ASSERT_EQ(1u, corvane::platform::ErrorRecordCount());
  corvane::platform::ErrorRecord record;
  corvane::platform::GetErrorRecord(0, record);
  EXPECT_EQ("Failed to create a session (IID_IDBCreateSession). Details: No more details (HRESULT = 80004002).",
            ToUtf8(corvane::WStringView(record.description)));
#endif
  CLSID clsid{};
  ASSERT_EQ(S_OK, ds_->GetClassID(&clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, clsid));
}
