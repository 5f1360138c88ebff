#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/WideString.h"
#include "provider/ErrorLookup.h"
#include "provider/ErrorReporting.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "provider/Module.h"
#include "tests/support/LeakCheckedTest.h"

using corvane::DescribeFailure;
using corvane::ToUtf8;

TEST(ErrorDescriptions, JoinInterfaceAndResultTexts) {
  // Provider codes without a text of their own (8004C006) fall through to the general one.
  // (Through SQL: IRowset's identifier as its name, execution.test; 8004C001, tables.test;
  // a historian code's text, execution.test; a text of the caller's, tests/session.)
  const struct {
    const IID& iid;
    HRESULT hr;
    const char* text;
  } cases[] = {
      {IID_IDBInitialize, E_FAIL, "Failed to initialize/unitialize a data source (IID_IDBInitialize). Details: "
                                  "Returned E_FAIL."},
      {IID_IDBProperties, HRESULT(0xC0041009), "Failed to get/set the properties (IID_IDBProperties). Details: The "
                                               "requested aggregate is not available from the provided item "
                                               "(C0041009)."},
      {IID_ICommandPrepare, CORVANE_E_MISSING_PARAMETER, "Failed to prepare a command (IID_ICommandPrepare). Details: "
                                                         "Missing required parameter."},
      {IID_IDBSchemaRowset, CORVANE_E_TAG_PATH_NOT_FOUND, "Failed to get a rowset or schema (IID_IDBSchemaRowset). "
                                                          "Details: Required tag path doesn't exist."},
      {IID_IDBCreateCommand, CORVANE_E_PROCEDURE_NOT_FOUND, "Failed to create a command (IID_IDBCreateCommand). "
                                                            "Details: Required stored procedure doesn't exist."},
      {IID_IDBCreateSession, DISP_E_TYPEMISMATCH, "Failed to create a session (IID_IDBCreateSession). Details: Type "
                                                  "mismatch."},
      {IID_IDBInfo, E_OUTOFMEMORY, "Failed to get keywords or literals (IID_IDBInfo). Details: No more details "
                                   "(HRESULT = 8007000E)."},
      {IID_ICommand, CORVANE_E_NOT_ONE_FROM_ITEM, "Failed to execute a command (IID_ICommand). Details: No more "
                                                  "details (HRESULT = 8004C006)."},
  };
  for (const auto& c : cases) EXPECT_EQ(ToUtf8(DescribeFailure(c.iid, c.hr)), c.text);
  EXPECT_EQ(ToUtf8(DescribeFailure(IID_ICommand, static_cast<const OLECHAR*>(nullptr))),
            "Failed to execute a command (IID_ICommand). Details: ");
}

namespace {

// A lookup as an OLE DB error object makes it: by HRESULT and lookup id only.
struct LookedUp {
  HRESULT hr;
  std::string source, description;
};
LookedUp LookUp(IErrorLookup* lookup, HRESULT hr, DWORD id, LCID lcid = LOCALE_USER_DEFAULT) {
  BSTR source = nullptr, description = nullptr;
  LookedUp r{lookup->GetErrorDescription(hr, id, nullptr, lcid, &source, &description), {}, {}};
  if (SUCCEEDED(r.hr)) r.source = ToUtf8(source), r.description = ToUtf8(description);
  else EXPECT_TRUE(source == nullptr && description == nullptr) << "nothing handed out on failure";
  SysFreeString(source);
  SysFreeString(description);
  return r;
}

IErrorLookup* NewLookup() {
  IErrorLookup* lookup = nullptr;
  EXPECT_EQ(S_OK, CErrorLookup::CreateInstance(nullptr, IID_IErrorLookup, reinterpret_cast<void**>(&lookup)));
  return lookup;
}

}  // namespace

class ErrorLookupService : public corvane::test::LeakCheckedTest {
#ifdef _WIN32
  // The system's error object is a COM object.
  void SetUp() override {
    LeakCheckedTest::SetUp();
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  }
  void TearDown() override {
    CoUninitialize();
    LeakCheckedTest::TearDown();
  }
#endif
};

TEST_F(ErrorLookupService, GivesBackHeldTextsUntilReleasedAndBoundsWhatItHolds) {
  IErrorLookup* lookup = NewLookup();
  const size_t before = CErrorLookup::HeldCount();
  const DWORD id = CErrorLookup::Hold(E_FAIL, OLESTR("CProviderCommand class"), OLESTR("it failed"));
  ASSERT_NE(0u, id);
  EXPECT_LT(id, static_cast<DWORD>(IDENTIFIER_SDK_ERROR)) << "that range is the error object's own";
  const LookedUp found = LookUp(lookup, E_FAIL, id, 0x0407);
  EXPECT_EQ(S_OK, found.hr) << "any locale";
  EXPECT_EQ("CProviderCommand class", found.source);
  EXPECT_EQ("it failed", found.description);
  EXPECT_EQ(DB_E_BADHRESULT, LookUp(lookup, E_INVALIDARG, id).hr);
  EXPECT_EQ(DB_E_BADLOOKUPID, LookUp(lookup, E_FAIL, id + 1).hr);
  BSTR text = nullptr;
  EXPECT_EQ(E_INVALIDARG, lookup->GetErrorDescription(E_FAIL, id, nullptr, 0, &text, nullptr));
  DWORD context = 7;
  text = reinterpret_cast<BSTR>(&context);
  EXPECT_EQ(S_OK, lookup->GetHelpInfo(E_FAIL, id, 0, &text, &context));
  EXPECT_TRUE(text == nullptr && context == 0) << "no help file";

  EXPECT_EQ(before + 1, CErrorLookup::HeldCount());
  EXPECT_EQ(S_OK, lookup->ReleaseErrors(id));
  EXPECT_EQ(before, CErrorLookup::HeldCount());
  EXPECT_EQ(DB_E_BADLOOKUPID, LookUp(lookup, E_FAIL, id).hr);
  EXPECT_EQ(DB_E_BADDYNAMICERRORID, lookup->ReleaseErrors(id));
  EXPECT_EQ(E_INVALIDARG, lookup->ReleaseErrors(0));

  // An error object that never releases: the oldest texts make way, the newest stay.
  std::vector<DWORD> ids;
  for (size_t i = 0; i < CErrorLookup::kHeldTextLimit + 5; ++i)
    ids.push_back(CErrorLookup::Hold(E_FAIL, OLESTR("s"), corvane::WFormat(OLESTR("text %u"), unsigned(i)).c_str()));
  EXPECT_EQ(CErrorLookup::kHeldTextLimit, CErrorLookup::HeldCount());
  EXPECT_EQ(DB_E_BADLOOKUPID, LookUp(lookup, E_FAIL, ids[4]).hr);
  EXPECT_EQ("text 5", LookUp(lookup, E_FAIL, ids[5]).description);
  for (DWORD held : ids) lookup->ReleaseErrors(held);
  EXPECT_EQ(0u, CErrorLookup::HeldCount());
  lookup->Release();
}

TEST_F(ErrorLookupService, ThreadsPostAndLookUpAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &wrong] {
      IErrorLookup* lookup = NewLookup();
      for (int i = 0; i < 2000; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i);
        const DWORD id = CErrorLookup::Hold(E_FAIL, OLESTR("s"), corvane::FromUtf8(text).c_str());
        if (LookUp(lookup, E_FAIL, id).description != text || lookup->ReleaseErrors(id) != S_OK) ++wrong;
      }
      lookup->Release();
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, wrong.load());
}

#ifndef _WIN32
// The thread's records are its error object: dropping them releases their texts at the
// service registered for the provider, as the system's error object does on Windows.
TEST_F(ErrorLookupService, DroppedRecordsReleaseTheirTextsWhereTheServiceIsRegistered) {
  ASSERT_EQ(S_OK, DllRegisterServer());
  const size_t before = CErrorLookup::HeldCount();
  corvane::PostFailure(IID_ICommand, E_FAIL, OLESTR("CProviderCommand class"));
  std::thread([] { corvane::PostFailure(IID_ICommand, E_FAIL, OLESTR("CProviderCommand class")); }).join();
  EXPECT_EQ(before + 1, CErrorLookup::HeldCount()) << "the ended thread's record is released";
  corvane::ClearErrorRecords();
  EXPECT_EQ(before, CErrorLookup::HeldCount());
  EXPECT_EQ(S_OK, DllUnregisterServer());
  CLSID found;
  EXPECT_FALSE(corvane::platform::FindErrorLookup(CLSID_CorvaneOleDbProvider, &found));
  corvane::PostFailure(IID_ICommand, E_FAIL, OLESTR("CProviderCommand class"));
  corvane::platform::ErrorRecord record;
  ASSERT_TRUE(corvane::platform::GetErrorRecord(0, record));
  corvane::ClearErrorRecords();
  EXPECT_EQ(before + 1, CErrorLookup::HeldCount()) << "unregistered, nobody is told; the bound still holds";
  EXPECT_EQ(S_OK, CErrorLookup::Drop(record.dynamicErrorId));
}
#endif
