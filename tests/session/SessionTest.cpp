// The session as a consumer sees it: its interfaces, opening tables, creating
// commands, the failures with their traces and error records, and the schemas it lists
// (their rows are in tests/cases/schemas.test).
#include <gtest/gtest.h>


#include "base/ComPtr.h"
#include "tests/session/ConsumerFixture.h"

using corvane::ComPtr;
using corvane::QueryAs;
using corvane::test::Columns;
using corvane::test::ConsumerTest;
using corvane::test::ReadAll;
using corvane::test::TraceCapture;

namespace {

using SessionObject = ConsumerTest;

// {0C733A7D-2A1C-11CE-ADE5-00AA0044773D}: an interface of the rowset family the
// provider's rowsets lack, known by name.
const GUID kRowsetLocate = {0x0C733A7D, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};
const GUID kMadeUp = {0x12345678, 0x9ABC, 0xDEF0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

DBID TableId(const OLECHAR* name) {
  DBID id{};
  id.eKind = DBKIND_NAME;
  id.uName.pwszName = const_cast<LPOLESTR>(name);
  return id;
}

}  // namespace

TEST_F(SessionObject, AnswersItsInterfacesAndLeadsBackToItsDataSource) {
  for (const IID* iid : {&IID_IOpenRowset, &IID_IDBCreateCommand, &IID_IDBSchemaRowset, &IID_IGetDataSource,
                         &IID_ISessionProperties, &IID_ISupportErrorInfo})
    EXPECT_TRUE(QueryAs<IUnknown>(session_, *iid));
  EXPECT_FALSE(QueryAs<IUnknown>(session_, IID_IDBInitialize));

  ComPtr<IUnknown> ds;
  ASSERT_EQ(S_OK, QueryAs<IGetDataSource>(session_, IID_IGetDataSource)->GetDataSource(IID_IUnknown, ds.Put()));
  EXPECT_EQ(QueryAs<IUnknown>(dataSource_, IID_IUnknown).Get(), ds.Get());

  auto support = QueryAs<ISupportErrorInfo>(session_, IID_ISupportErrorInfo);
  EXPECT_EQ(S_OK, support->InterfaceSupportsErrorInfo(IID_IOpenRowset));
  EXPECT_EQ(S_OK, support->InterfaceSupportsErrorInfo(IID_IDBSchemaRowset));
  EXPECT_EQ(S_FALSE, support->InterfaceSupportsErrorInfo(IID_IRowset));

  // The session keeps the data source alive while the consumer holds only the session.
  const ULONG before = RefCount(dataSource_);
  ComPtr<IUnknown> second;
  ASSERT_EQ(S_OK, QueryAs<IDBCreateSession>(dataSource_, IID_IDBCreateSession)
                      ->CreateSession(nullptr, IID_IOpenRowset, second.Put()));
  EXPECT_EQ(before + 1, RefCount(dataSource_));
  second.Reset();
  EXPECT_EQ(before, RefCount(dataSource_));
}

TEST_F(SessionObject, OpenSessionsKeepTheDataSourceInitialised) {
  IDBInitialize* init = Query<IDBInitialize>(dataSource_, IID_IDBInitialize);
  ASSERT_NE(nullptr, init);
  TraceCapture trace;
  EXPECT_EQ(DB_E_OBJECTOPEN, init->Uninitialize());
  EXPECT_TRACED(trace, "Uninitialize, HR = 80040E05");
  auto error = TakeLastError();
  EXPECT_EQ(DB_E_OBJECTOPEN, error.hr);
  EXPECT_TRUE(IsEqualIID(IID_IDBInitialize, error.iid));

  // A rowset holds its command, which holds the session the consumer let go of.
  ComPtr<ICommandText> command;
  ASSERT_EQ(S_OK, QueryAs<IDBCreateCommand>(session_, IID_IDBCreateCommand)
                      ->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(command.Put())));
  ASSERT_EQ(S_OK, command->SetCommandText(DBGUID_DEFAULT, OLESTR("SELECT * FROM TAGS")));
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, command->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));
  command.Reset();
  command_->Release();
  command_ = nullptr;
  session_->Release();
  session_ = nullptr;
  EXPECT_EQ(DB_E_OBJECTOPEN, init->Uninitialize());
  TakeLastError();
  rowset->Release();
  EXPECT_EQ(S_OK, init->Uninitialize());

  ASSERT_EQ(S_OK, init->Initialize());
  IUnknown* session = nullptr;
  // A session refused for its interface never counted.
  EXPECT_EQ(E_NOINTERFACE, QueryAs<IDBCreateSession>(dataSource_, IID_IDBCreateSession)
                               ->CreateSession(nullptr, IID_IDBInitialize, &session));
  TakeLastError();
  init->Release();
}

TEST_F(SessionObject, OpenRowsetReadsATableAndNamesWhatItCannotGiveOrHonour) {
  DBID table = TableId(OLESTR("rawdata"));
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 0, nullptr, &rowset));
  ASSERT_GE(Columns(rowset).size(), 3u);
  // Without a tag restriction the table reads every tag the historian lists.
  EXPECT_EQ(static_cast<size_t>(2 * kSamples), ReadAll(rowset, {1}).size());
  rowset->Release();

  TraceCapture trace;
  EXPECT_EQ(E_NOINTERFACE, session_->OpenRowset(nullptr, &table, nullptr, kRowsetLocate, 0, nullptr, &rowset));
  EXPECT_EQ(nullptr, rowset);
  EXPECT_TRACED(trace, "Unsupported interface 'IRowsetLocate'.");
  auto error = TakeLastError();
  EXPECT_EQ(1u, error.count);
  EXPECT_EQ(E_NOINTERFACE, error.hr);
  EXPECT_TRUE(IsEqualIID(IID_IOpenRowset, error.iid));
#ifndef _WIN32
  EXPECT_EQ("CProviderSession class", error.source);
  EXPECT_EQ("Failed to open a rowset (IID_IOpenRowset). Details: No more details (HRESULT = 80004002).",
            error.description);
#endif

  DBID missing = TableId(OLESTR("NOSUCHTABLE"));
  EXPECT_EQ(DB_E_NOTABLE, session_->OpenRowset(nullptr, &missing, nullptr, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_EQ(DB_E_NOTABLE, TakeLastError().hr);
  EXPECT_EQ(DB_E_NOINDEX, session_->OpenRowset(nullptr, &table, &table, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_EQ(E_INVALIDARG, session_->OpenRowset(nullptr, nullptr, nullptr, IID_IRowset, 0, nullptr, &rowset));
  // Asked only whether the table exists.
  EXPECT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 0, nullptr, nullptr));
  TakeLastError();

  // Required rowset properties are honoured or refused.
  table = TableId(OLESTR("TAGS"));
  DBPROP prop{};
  prop.dwPropertyID = DBPROP_BOOKMARKS;  // the table rowsets have no bookmarks
  prop.dwOptions = DBPROPOPTIONS_REQUIRED;
  prop.vValue.vt = VT_BOOL;
  prop.vValue.boolVal = VARIANT_TRUE;
  DBPROPSET set{&prop, 1, DBPROPSET_ROWSET};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 1, &set, &rowset));
  EXPECT_EQ(nullptr, rowset);
  EXPECT_NE(DBPROPSTATUS_OK, prop.dwStatus);
  TakeLastError();

  prop.dwPropertyID = DBPROP_CANHOLDROWS;
  prop.dwStatus = 99;
  ASSERT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 1, &set, &rowset));
  EXPECT_EQ(DBPROPSTATUS_OK, prop.dwStatus);
  EXPECT_EQ(2u, ReadAll(rowset, {1}).size());
  rowset->Release();
}

TEST_F(SessionObject, CreateCommandNamesAnUnknownInterfaceByItsGuid) {
  auto create = QueryAs<IDBCreateCommand>(session_, IID_IDBCreateCommand);
  ASSERT_TRUE(create);
  IUnknown* command = nullptr;
  ComPtr<IUnknown> made, back;
  ASSERT_EQ(S_OK, create->CreateCommand(nullptr, IID_ICommandText, made.Put()));
  ASSERT_EQ(S_OK, QueryAs<ICommand>(made.Get(), IID_ICommand)->GetDBSession(IID_IOpenRowset, back.Put()));
  EXPECT_EQ(static_cast<IUnknown*>(session_), back.Get());

  TraceCapture trace;
  EXPECT_EQ(E_NOINTERFACE, create->CreateCommand(nullptr, kMadeUp, &command));
  EXPECT_TRACED(trace, "Unsupported interface '{12345678-9ABC-DEF0-0123-456789ABCDEF}'.");
  auto error = TakeLastError();
  EXPECT_TRUE(IsEqualIID(IID_IDBCreateCommand, error.iid));
  EXPECT_EQ(DB_E_NOAGGREGATION, create->CreateCommand(reinterpret_cast<IUnknown*>(session_), IID_IUnknown, &command));
  TakeLastError();
}

// Every schema GetSchemas lists can be read (what their rows hold is in tests/cases/schemas.test).
TEST_F(SessionObject, GetSchemasListsWhatTheSessionServes) {
  auto schemas = QueryAs<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  ULONG n = 0;
  GUID* guids = nullptr;
  ULONG* masks = nullptr;
  TraceCapture trace;
  ASSERT_EQ(S_OK, schemas->GetSchemas(&n, &guids, &masks));
  EXPECT_GT(n, 0u);
  for (ULONG i = 0; i < n; ++i) {
    ComPtr<IUnknown> rowset;
    EXPECT_EQ(S_OK, schemas->GetRowset(nullptr, guids[i], 0, nullptr, IID_IRowset, 0, nullptr, rowset.Put())) << i;
  }
  CoTaskMemFree(guids);
  CoTaskMemFree(masks);
  EXPECT_EQ(E_INVALIDARG, schemas->GetSchemas(&n, nullptr, &masks));
  EXPECT_TRACED(trace, "ERROR in CProviderSession::GetSchemas, HR = 80070057");
  EXPECT_TRUE(IsEqualIID(IID_IDBSchemaRowset, TakeLastError().iid));
}
