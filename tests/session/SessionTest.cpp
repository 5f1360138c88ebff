// The session and its command as a consumer drives them through OLE DB, failures and their error
// records included; what statements and schema rowsets answer is in tests/cases.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "tests/session/ConsumerFixture.h"

namespace corvane::test {

namespace {

struct ParamInfo { DBORDINAL ordinal; DBTYPE type; std::string name; DBLENGTH size; };

// Interfaces of the rowset family the provider's rowsets lack, known by name, and one nobody knows.
const GUID kRowsetLocate = {0x0C733A7D, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};
const GUID kRowsetChange = {0x0C733A05, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};
const GUID kMadeUp = {0x12345678, 0x9ABC, 0xDEF0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

DBID Named(const OLECHAR* name) { return DBID{{}, DBKIND_NAME, {const_cast<LPOLESTR>(name)}}; }

using SessionObject = ConsumerTest;

class CommandTest : public ConsumerTest {
 protected:
  // Taken afresh for each use: Close checks that nothing but the consumer holds the command.
  ComPtr<IAccessor> Accessor() { return QueryAs<IAccessor>(command_, IID_IAccessor); }
  ComPtr<ICommandWithParameters> Params() {
    return QueryAs<ICommandWithParameters>(command_, IID_ICommandWithParameters);
  }
  HRESULT Prepare() { return QueryAs<ICommandPrepare>(command_, IID_ICommandPrepare)->Prepare(1); }
  std::string Text(GUID* dialect) {
    TaskMem<OLECHAR> text;
    EXPECT_EQ(S_OK, command_->GetCommandText(dialect, text.Put()));
    return text ? corvane::ToUtf8(text.Get()) : "";
  }
  void SetText(const OLECHAR* sql) { ASSERT_EQ(S_OK, command_->SetCommandText(DBGUID_DEFAULT, sql)); }
  HACCESSOR ParameterAccessor(const TextParameters& values) {
    HACCESSOR handle = DB_NULL_HACCESSOR;
    EXPECT_EQ(S_OK, Accessor()->CreateAccessor(DBACCESSOR_PARAMETERDATA, values.bindings.size(), values.bindings.data(),
                                               0, &handle, nullptr));
    return handle;
  }
  std::vector<ParamInfo> Parameters() {
    DB_UPARAMS n = 0;
    TaskMem<DBPARAMINFO> infos;
    TaskMem<OLECHAR> names;
    EXPECT_EQ(S_OK, Params()->GetParameterInfo(&n, infos.Put(), names.Put()));
    std::vector<ParamInfo> result;
    for (DB_UPARAMS i = 0; i < n; ++i)
      result.push_back(
          {infos[i].iOrdinal, infos[i].wType, infos[i].pwszName ? corvane::ToUtf8(infos[i].pwszName) : "",
           infos[i].ulParamSize});
    return result;
  }
};

using CommandText = CommandTest;
using CommandParameters = CommandTest;
using CommandExecution = CommandTest;

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
}

TEST_F(SessionObject, OpenSessionsKeepTheDataSourceInitialised) {
  auto init = QueryAs<IDBInitialize>(dataSource_, IID_IDBInitialize);
  ASSERT_TRUE(init);
  TraceCapture trace;
  EXPECT_EQ(DB_E_OBJECTOPEN, init->Uninitialize());
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
}

TEST_F(SessionObject, OpenRowsetReadsATableAndNamesWhatItCannotGiveOrHonour) {
  DBID table = Named(OLESTR("rawdata"));
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 0, nullptr, &rowset));
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

  DBID missing = Named(OLESTR("NOSUCHTABLE"));
  EXPECT_EQ(DB_E_NOTABLE, session_->OpenRowset(nullptr, &missing, nullptr, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_EQ(DB_E_NOTABLE, TakeLastError().hr);
  EXPECT_EQ(DB_E_NOINDEX, session_->OpenRowset(nullptr, &table, &table, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_EQ(E_INVALIDARG, session_->OpenRowset(nullptr, nullptr, nullptr, IID_IRowset, 0, nullptr, &rowset));
  // Asked only whether the table exists.
  EXPECT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 0, nullptr, nullptr));
  TakeLastError();

  // Required rowset properties are honoured or refused.
  table = Named(OLESTR("TAGS"));
  DBPROP prop{DBPROP_BOOKMARKS, DBPROPOPTIONS_REQUIRED, 0, {}, {}};  // the table rowsets have no bookmarks
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
  EXPECT_TRUE(IsEqualIID(IID_IDBCreateCommand, TakeLastError().iid));
  EXPECT_EQ(DB_E_NOAGGREGATION, create->CreateCommand(reinterpret_cast<IUnknown*>(session_), IID_IUnknown, &command));
  TakeLastError();
}

// Every schema GetSchemas lists can be read.
TEST_F(SessionObject, GetSchemasListsWhatTheSessionServes) {
  auto schemas = QueryAs<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  TraceCapture trace;
  ULONG n = 0;
  TaskMem<GUID> guids;
  TaskMem<ULONG> masks;
  ASSERT_EQ(S_OK, schemas->GetSchemas(&n, guids.Put(), masks.Put()));
  EXPECT_GT(n, 0u);
  for (ULONG i = 0; i < n; ++i) {
    ComPtr<IUnknown> rowset;
    EXPECT_EQ(S_OK, schemas->GetRowset(nullptr, guids[i], 0, nullptr, IID_IRowset, 0, nullptr, rowset.Put())) << i;
  }
  EXPECT_EQ(E_INVALIDARG, schemas->GetSchemas(&n, nullptr, masks.Put()));
  EXPECT_TRUE(IsEqualIID(IID_IDBSchemaRowset, TakeLastError().iid));
}

TEST_F(CommandText, TextDialectAndPrepareWithoutText) {
  TraceCapture trace;  // the trace lines of the failures are formatted too
  GUID dialect{};
  TaskMem<OLECHAR> none;
  EXPECT_EQ(DB_E_NOCOMMAND, command_->GetCommandText(&dialect, none.Put()));
  // The failures of a statement's text are in tests/cases/execution.test.
  EXPECT_EQ(E_FAIL, Prepare());
  auto error = TakeLastError();
  EXPECT_EQ(E_FAIL, error.hr);
  EXPECT_TRUE(IsEqualIID(IID_ICommandPrepare, error.iid));
#ifndef _WIN32
  EXPECT_EQ("Failed to prepare a command (IID_ICommandPrepare). Details: No command text was set.", error.description);
#endif
  SetText(OLESTR(""));
  EXPECT_TRUE(FAILED(Prepare()));
  TakeLastError();

  ASSERT_EQ(S_OK, command_->SetCommandText(DBGUID_SQL, OLESTR("SELECT * FROM TAGS")));
  EXPECT_EQ("SELECT * FROM TAGS", Text(&dialect));
  EXPECT_TRUE(IsEqualGUID(DBGUID_DEFAULT, dialect));  // the SQL dialect is the default one

  EXPECT_EQ(DB_E_DIALECTNOTSUPPORTED, command_->SetCommandText(DBGUID_MDX, OLESTR("SELECT 1")));
  error = TakeLastError();
  EXPECT_TRUE(IsEqualIID(IID_ICommandText, error.iid));
#ifndef _WIN32
  EXPECT_EQ("CProviderCommand class", error.source);
  EXPECT_EQ("Failed to run a command (IID_ICommandText). Details: Unable to set command text.", error.description);
#endif
  EXPECT_EQ("SELECT * FROM TAGS", Text(nullptr));  // the refused text left the earlier one in place
}

TEST_F(CommandParameters, TypeNamesKeepTheirMappingAndUndescribedOnesAreVariants) {
  DB_UPARAMS n = 0;
  TaskMem<DBPARAMINFO> none;
  TaskMem<OLECHAR> noNames;
  EXPECT_EQ(DB_E_NOTPREPARED, Params()->GetParameterInfo(&n, none.Put(), noNames.Put()));

  // Names ignore case; consumers rely on NVARCHAR by reference and WVARCHAR by value. Given in reverse order.
  const struct { const OLECHAR *type, *name; DBTYPE mapped; } cases[] = {
      {OLESTR("DBTYPE_GUID"), OLESTR("@c"), DBTYPE_EMPTY},
      {OLESTR("DBTYPE_WVARCHAR"), OLESTR("@b"), DBTYPE_WSTR},
      {OLESTR("dbtype_nvarchar"), OLESTR("@a"), static_cast<DBTYPE>(DBTYPE_WSTR | DBTYPE_BYREF)},
  };
  std::vector<DB_UPARAMS> ordinals = {3, 2, 1};
  std::vector<DBPARAMBINDINFO> bind(3);
  for (size_t i = 0; i < 3; ++i)
    bind[i] = {const_cast<LPOLESTR>(cases[i].type), const_cast<LPOLESTR>(cases[i].name), 10 + i,
               DBPARAMFLAGS_ISINPUT, 0, 0};
  ASSERT_EQ(S_OK, Params()->SetParameterInfo(bind.size(), ordinals.data(), bind.data()));
  const auto described = Parameters();
  ASSERT_EQ(3u, described.size());
  for (size_t i = 0; i < 3; ++i) {  // ordered by ordinal
    EXPECT_EQ(i + 1, described[i].ordinal);
    EXPECT_EQ(cases[2 - i].mapped, described[i].type) << corvane::ToUtf8(cases[2 - i].type);
    EXPECT_EQ(corvane::ToUtf8(cases[2 - i].name), described[i].name);
    EXPECT_EQ(12 - i, described[i].size);
  }
  const OLECHAR* lookup[] = {OLESTR("@B"), OLESTR("@nobody")};
  DB_LPARAMS found[2] = {};
  EXPECT_EQ(DB_S_ERRORSOCCURRED, Params()->MapParameterNames(2, lookup, found));
  EXPECT_EQ(2, found[0]);
  EXPECT_EQ(0, found[1]);

  // Without descriptions Prepare counts the `?`, however deeply nested: many subtrees pend while it walks.
  ASSERT_EQ(S_OK, Params()->SetParameterInfo(0, nullptr, nullptr));
  constexpr int kNested = 40;
  std::string nested = "SELECT * FROM RAWDATA WHERE ";
  for (int i = 0; i < kNested; ++i) nested += "? = (";
  nested += "? = 1" + std::string(kNested, ')');
  SetText(corvane::FromUtf8(nested).c_str());
  ASSERT_EQ(S_OK, Prepare());
  const auto many = Parameters();
  ASSERT_EQ(static_cast<size_t>(kNested + 1), many.size());
  EXPECT_EQ(static_cast<DBORDINAL>(kNested + 1), many.back().ordinal);
  EXPECT_EQ(DBTYPE_VARIANT, many[0].type);

  // An undescribed parameter is listed beside a described one (its effect: tests/cases/procedures.test).
  SetText(OLESTR("SELECT * FROM GET_VALUES(?, '2100-01-01', ?, 'Area1.Temp')"));
  ASSERT_EQ(S_OK, Prepare());
  DBPARAMBINDINFO info{const_cast<LPOLESTR>(OLESTR("DBTYPE_UI4")), nullptr, 0, DBPARAMFLAGS_ISINPUT, 0, 0};
  const DB_UPARAMS second = 2;
  ASSERT_EQ(S_OK, Params()->SetParameterInfo(1, &second, &info));
  const auto mixed = Parameters();
  ASSERT_EQ(2u, mixed.size());
  EXPECT_EQ(DBTYPE_VARIANT, mixed[0].type);
  EXPECT_EQ(DBTYPE_UI4, mixed[1].type);
  // A value that does not read as its described type fails the execution (the code differs by platform).
  TextParameters bad({Parameter{"", "2000-01-01"}, Parameter{"", "three"}});
  DBPARAMS p{bad.slots.data(), 1, ParameterAccessor(bad)};
  IUnknown* rowset = nullptr;
  EXPECT_TRUE(FAILED(command_->Execute(nullptr, IID_IRowset, &p, nullptr, &rowset)));
  EXPECT_EQ(nullptr, rowset);
  TakeLastError();
  Accessor()->ReleaseAccessor(p.hAccessor, nullptr);
}

TEST_F(CommandExecution, ParameterSetsAndAccessorsAreChecked) {
  SetText(OLESTR("SELECT * FROM RAWDATA WHERE TAGNAME = ?"));
  TextParameters values({Parameter{"", "Area1.Temp"}});
  HACCESSOR handle = DB_NULL_HACCESSOR;
  // One accessor is not both kinds; output parameters do not exist.
  EXPECT_EQ(DB_E_BADACCESSORFLAGS, Accessor()->CreateAccessor(DBACCESSOR_ROWDATA | DBACCESSOR_PARAMETERDATA, 1,
                                                              values.bindings.data(), 0, &handle, nullptr));
  DBBINDING output = values.bindings[0];
  output.eParamIO = DBPARAMIO_OUTPUT;
  DBBINDSTATUS status = DBBINDSTATUS_OK;
  EXPECT_EQ(DB_E_ERRORSOCCURRED, Accessor()->CreateAccessor(DBACCESSOR_PARAMETERDATA, 1, &output, 0, &handle, &status));
  EXPECT_EQ(DBBINDSTATUS_BADBINDINFO, status);
  handle = ParameterAccessor(values);

  // Several parameter sets, or none, fail without an error record: the trace says why.
  TraceCapture trace;
  IUnknown* rowset = nullptr;
  for (DB_UPARAMS sets : {DB_UPARAMS(0), DB_UPARAMS(2)}) {
    DBPARAMS params{values.slots.data(), sets, handle};
    EXPECT_EQ(E_FAIL, command_->Execute(nullptr, IID_IRowset, &params, nullptr, &rowset));
    EXPECT_EQ(nullptr, rowset);
    EXPECT_EQ(0u, TakeLastError().count) << "no record for parameter sets";
  }
  EXPECT_TRACED(trace, "MULTIPLEPARAMSETS is not allowed.");

  DBPARAMS stale{values.slots.data(), 1, static_cast<HACCESSOR>(0x7777)};
  EXPECT_EQ(DB_E_BADACCESSORHANDLE, command_->Execute(nullptr, IID_IRowset, &stale, nullptr, &rowset));
  EXPECT_TRUE(IsEqualIID(IID_ICommand, TakeLastError().iid));
  // No parameters at all for a statement that has one.
  EXPECT_EQ(DB_E_PARAMNOTOPTIONAL, command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));
  EXPECT_EQ(DB_E_PARAMNOTOPTIONAL, TakeLastError().hr);
  Accessor()->ReleaseAccessor(handle, nullptr);
}

TEST_F(CommandExecution, RowAccessorsOfTheCommandReadItsRowsets) {
  SetText(OLESTR("SELECT DESCRIPTION, TagName FROM TAGS"));
  // Columns are known once prepared (what they are is in tests/cases/command.test).
  auto info = QueryAs<IColumnsInfo>(command_, IID_IColumnsInfo);
  DBORDINAL n = 0;
  TaskMem<DBCOLUMNINFO> columns;
  TaskMem<OLECHAR> strings;
  EXPECT_EQ(DB_E_NOTPREPARED, info->GetColumnInfo(&n, columns.Put(), strings.Put()));
  const DBBINDING name = corvane::test::CellBinding(0, 2, DBTYPE_WSTR);
  HACCESSOR stale = DB_NULL_HACCESSOR, handle = DB_NULL_HACCESSOR;
  ASSERT_EQ(S_OK, Accessor()->CreateAccessor(DBACCESSOR_ROWDATA, 1, &name, sizeof(Cell), &stale, nullptr));
  ASSERT_EQ(S_OK, Accessor()->CreateAccessor(DBACCESSOR_ROWDATA, 1, &name, sizeof(Cell), &handle, nullptr));
  EXPECT_EQ(S_OK, Accessor()->ReleaseAccessor(stale, nullptr));
  DBPARAMS params{nullptr, 1, handle};
  IUnknown* rowset = nullptr;
  EXPECT_EQ(DB_E_BADACCESSORTYPE, command_->Execute(nullptr, IID_IRowset, &params, nullptr, &rowset));
  TakeLastError();

  // The command's rowset inherits the accessor.
  ASSERT_EQ(S_OK, command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));
  auto rows = QueryAs<IRowset>(rowset, IID_IRowset);
  auto own = QueryAs<IAccessor>(rowset, IID_IAccessor);
  rowset->Release();
  DBCOUNTITEM obtained = 0;
  TaskMem<HROW> handles;
  ASSERT_EQ(DB_S_ENDOFROWSET, rows->GetNextRows(DB_NULL_HCHAPTER, 0, 10, &obtained, handles.Put()));
  ASSERT_EQ(2u, obtained);
  Cell cell{};
  EXPECT_EQ(S_OK, rows->GetData(handles[1], handle, &cell));
  EXPECT_EQ("Area1.Text", corvane::ToUtf8(cell.v.text));
  // The rowset's own accessors get handles of their own.
  HACCESSOR mine = DB_NULL_HACCESSOR;
  ASSERT_EQ(S_OK, own->CreateAccessor(DBACCESSOR_ROWDATA, 1, &name, sizeof(Cell), &mine, nullptr));
  EXPECT_NE(handle, mine);
  EXPECT_EQ(S_OK, rows->GetData(handles[0], mine, &cell));
  EXPECT_EQ("Area1.Temp", corvane::ToUtf8(cell.v.text));
  rows->ReleaseRows(obtained, handles.Get(), nullptr, nullptr, nullptr);
  own->ReleaseAccessor(mine, nullptr);
  own.Reset();
  rows.Reset();

  DBID id = Named(OLESTR("TAGNAME"));
  DBORDINAL ordinal = 0;
  EXPECT_EQ(S_OK, info->MapColumnIDs(1, &id, &ordinal));
  EXPECT_EQ(2u, ordinal);
  // A prepared command knows its columns; an unprepared one leaves the check to the rowset.
  DBBINDING beyond = name;
  beyond.iOrdinal = 3;
  HACCESSOR late = DB_NULL_HACCESSOR;
  DBBINDSTATUS status = DBBINDSTATUS_OK;
  EXPECT_EQ(DB_E_ERRORSOCCURRED, Accessor()->CreateAccessor(DBACCESSOR_ROWDATA, 1, &beyond, 0, &late, &status));
  EXPECT_EQ(DBBINDSTATUS_BADORDINAL, status);
  EXPECT_EQ(S_OK, QueryAs<ICommandPrepare>(command_, IID_ICommandPrepare)->Unprepare());
  ASSERT_EQ(S_OK, Accessor()->CreateAccessor(DBACCESSOR_ROWDATA, 1, &beyond, 0, &late, nullptr));
  EXPECT_EQ(DB_E_BADBINDINFO, command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));
  EXPECT_EQ(nullptr, rowset);
  EXPECT_EQ(DB_E_BADBINDINFO, TakeLastError().hr);
  EXPECT_EQ(S_OK, Accessor()->ReleaseAccessor(late, nullptr));
  // No rowset is left open by the refused execution.
  EXPECT_EQ(S_OK, command_->SetCommandText(DBGUID_DEFAULT, OLESTR("SELECT * FROM TAGS")));
  EXPECT_EQ(S_OK, Accessor()->ReleaseAccessor(handle, nullptr));
}

TEST_F(CommandExecution, OpenRowsetsHoldTheCommand) {
  TraceCapture trace;
  SetText(OLESTR("SELECT * FROM TAGS"));
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));

  // While the rowset is open the command keeps its text and parameter descriptions.
  EXPECT_EQ(DB_E_OBJECTOPEN, command_->SetCommandText(DBGUID_DEFAULT, OLESTR("SELECT * FROM RAWDATA")));
  EXPECT_EQ(DB_E_OBJECTOPEN, TakeLastError().hr);
  DB_UPARAMS ordinal = 1;
  DBPARAMBINDINFO bind{const_cast<LPOLESTR>(OLESTR("DBTYPE_I4")), nullptr, 0, 0, 0, 0};
  EXPECT_EQ(DB_E_OBJECTOPEN, Params()->SetParameterInfo(1, &ordinal, &bind));

  // The rowset names its command as its creator.
  ComPtr<IUnknown> creator;
  ASSERT_EQ(S_OK, QueryAs<IRowsetInfo>(rowset, IID_IRowsetInfo)->GetSpecification(IID_ICommandText, creator.Put()));
  EXPECT_EQ(static_cast<IUnknown*>(command_), creator.Get());
  // Its fetches post error records (a failing page read shows in tests/cases/execution.test).
  EXPECT_EQ(S_OK, QueryAs<ISupportErrorInfo>(rowset, IID_ISupportErrorInfo)->InterfaceSupportsErrorInfo(IID_IRowset));
  EXPECT_EQ(2u, ReadAll(rowset, {1}).size());
  rowset->Release();

  EXPECT_EQ(S_OK, command_->SetCommandText(DBGUID_DEFAULT, OLESTR("SELECT * FROM RAWDATA")));
  EXPECT_EQ(S_OK, Params()->SetParameterInfo(1, &ordinal, &bind));

  // An interface the command rowset lacks is refused, and the command is free again afterwards.
  EXPECT_EQ(E_NOINTERFACE, command_->Execute(nullptr, kRowsetChange, nullptr, nullptr, &rowset));
  TakeLastError();
  EXPECT_EQ(S_OK, command_->SetCommandText(DBGUID_DEFAULT, OLESTR("SELECT * FROM TAGS")));
}

TEST_F(CommandExecution, EachExecutionHasItsOwnNow) {
  // NOWUTC() is read once per execution: one instant on every row, a later one in the next execution.
  SetText(OLESTR("SELECT NOWUTC(), TAGNAME FROM TAGS"));
  std::vector<std::string> nows;
  for (int run = 0; run < 2; ++run) {
    IUnknown* rowset = nullptr;
    ASSERT_EQ(S_OK, command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));
    const auto rows = ReadAll(rowset, {1}, 1);
    rowset->Release();
    ASSERT_EQ(2u, rows.size());
    EXPECT_EQ(rows[0][0], rows[1][0]);
    nows.push_back(rows[0][0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_NE(nows[0], nows[1]) << nows[0];
}

}  // namespace corvane::test
