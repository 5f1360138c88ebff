// The session as a consumer sees it: its interfaces, opening tables, creating
// commands, the failures with their traces and error records, and the schema rowsets
// with and without restrictions.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/session/ConsumerFixture.h"

using corvane::test::Columns;
using corvane::test::ConsumerTest;
using corvane::test::ReadAll;
using corvane::test::TraceCapture;

namespace {

using SessionObject = ConsumerTest;
using SchemaRowsets = ConsumerTest;

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

VARIANT Text(const OLECHAR* s) {
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_BSTR;
  v.bstrVal = SysAllocString(s);
  return v;
}

struct Restrictions {
  std::vector<VARIANT> values;
  explicit Restrictions(std::initializer_list<const OLECHAR*> texts) {
    for (const OLECHAR* t : texts) {
      VARIANT v;
      VariantInit(&v);
      if (t) v = Text(t);
      values.push_back(v);
    }
  }
  ~Restrictions() {
    for (auto& v : values) VariantClear(&v);
  }
};

}  // namespace

TEST_F(SessionObject, AnswersItsInterfacesAndLeadsBackToItsDataSource) {
  for (const IID* iid : {&IID_IOpenRowset, &IID_IDBCreateCommand, &IID_IDBSchemaRowset, &IID_IGetDataSource,
                         &IID_ISessionProperties, &IID_ISupportErrorInfo}) {
    IUnknown* p = Query<IUnknown>(session_, *iid);
    EXPECT_NE(nullptr, p);
    if (p) p->Release();
  }
  EXPECT_EQ(nullptr, Query<IUnknown>(session_, IID_IDBInitialize));

  IGetDataSource* get = Query<IGetDataSource>(session_, IID_IGetDataSource);
  ASSERT_NE(nullptr, get);
  IUnknown* ds = nullptr;
  ASSERT_EQ(S_OK, get->GetDataSource(IID_IUnknown, &ds));
  IUnknown* identity = Query<IUnknown>(dataSource_, IID_IUnknown);
  EXPECT_EQ(identity, ds);
  identity->Release();
  ds->Release();
  get->Release();

  ISupportErrorInfo* support = Query<ISupportErrorInfo>(session_, IID_ISupportErrorInfo);
  ASSERT_NE(nullptr, support);
  EXPECT_EQ(S_OK, support->InterfaceSupportsErrorInfo(IID_IOpenRowset));
  EXPECT_EQ(S_OK, support->InterfaceSupportsErrorInfo(IID_IDBSchemaRowset));
  EXPECT_EQ(S_FALSE, support->InterfaceSupportsErrorInfo(IID_IRowset));
  support->Release();

  // The session keeps the data source alive while the consumer holds only the session.
  const ULONG before = RefCount(dataSource_);
  IOpenRowset* second = nullptr;
  IDBCreateSession* create = Query<IDBCreateSession>(dataSource_, IID_IDBCreateSession);
  ASSERT_EQ(S_OK, create->CreateSession(nullptr, IID_IOpenRowset, reinterpret_cast<IUnknown**>(&second)));
  create->Release();
  EXPECT_EQ(before + 1, RefCount(dataSource_));
  second->Release();
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
  IDBCreateCommand* create = Query<IDBCreateCommand>(session_, IID_IDBCreateCommand);
  ICommandText* command = nullptr;
  ASSERT_EQ(S_OK, create->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command)));
  create->Release();
  ASSERT_EQ(S_OK, command->SetCommandText(DBGUID_DEFAULT, OLESTR("SELECT * FROM TAGS")));
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, command->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset));
  command->Release();
  session_->Release();
  session_ = nullptr;
  EXPECT_EQ(DB_E_OBJECTOPEN, init->Uninitialize());
  TakeLastError();
  rowset->Release();
  EXPECT_EQ(S_OK, init->Uninitialize());

  ASSERT_EQ(S_OK, init->Initialize());
  IDBCreateSession* sessions = Query<IDBCreateSession>(dataSource_, IID_IDBCreateSession);
  IUnknown* session = nullptr;
  // A session refused for its interface never counted.
  EXPECT_EQ(E_NOINTERFACE, sessions->CreateSession(nullptr, IID_IDBInitialize, &session));
  TakeLastError();
  sessions->Release();
  init->Release();
}

TEST_F(SessionObject, SessionPropertiesReadAndWrite) {
  ISessionProperties* props = Query<ISessionProperties>(session_, IID_ISessionProperties);
  ASSERT_NE(nullptr, props);
  DBPROP prop{};
  prop.dwPropertyID = DBPROP_SESS_AUTOCOMMITISOLEVELS;
  prop.vValue.vt = VT_I4;
  prop.vValue.lVal = DBPROPVAL_TI_READUNCOMMITTED;
  DBPROPSET set{&prop, 1, DBPROPSET_SESSION};
  EXPECT_EQ(S_OK, props->SetProperties(1, &set));
  DBPROPID id = DBPROP_SESS_AUTOCOMMITISOLEVELS;
  DBPROPIDSET ids{&id, 1, DBPROPSET_SESSION};
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  ASSERT_EQ(S_OK, props->GetProperties(1, &ids, &n, &sets));
  EXPECT_EQ(DBPROPVAL_TI_READUNCOMMITTED, sets[0].rgProperties[0].vValue.lVal);
  corvane::test::FreePropertySets(n, sets);
  props->Release();
}

TEST_F(SessionObject, OpenRowsetReadsATableAndNamesWhatItCannotGive) {
  DBID table = TableId(OLESTR("rawdata"));
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 0, nullptr, &rowset));
  const auto columns = Columns(rowset);
  ASSERT_GE(columns.size(), 3u);
  const auto rows = ReadAll(rowset, {1});
  // Without a tag restriction the table reads every tag the historian lists.
  EXPECT_EQ(static_cast<size_t>(2 * kSamples), rows.size());
  rowset->Release();

  TraceCapture trace;
  EXPECT_EQ(E_NOINTERFACE, session_->OpenRowset(nullptr, &table, nullptr, kRowsetLocate, 0, nullptr, &rowset));
  EXPECT_EQ(nullptr, rowset);
  EXPECT_TRACED(trace, "Called CProviderSession::OpenRowset");
  EXPECT_TRACED(trace, "Failed to open rowset (80004002).");
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
}

TEST_F(SessionObject, OpenRowsetHonoursOrRefusesRequiredRowsetProperties) {
  DBID table = TableId(OLESTR("TAGS"));
  DBPROP prop{};
  prop.dwPropertyID = DBPROP_BOOKMARKS;  // the table rowsets have no bookmarks
  prop.dwOptions = DBPROPOPTIONS_REQUIRED;
  prop.vValue.vt = VT_BOOL;
  prop.vValue.boolVal = VARIANT_TRUE;
  DBPROPSET set{&prop, 1, DBPROPSET_ROWSET};
  IUnknown* rowset = nullptr;
  EXPECT_EQ(DB_E_ERRORSOCCURRED, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 1, &set, &rowset));
  EXPECT_EQ(nullptr, rowset);
  EXPECT_NE(DBPROPSTATUS_OK, prop.dwStatus);
  TakeLastError();

  prop.dwPropertyID = DBPROP_CANHOLDROWS;
  prop.dwStatus = 99;
  ASSERT_EQ(S_OK, session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 1, &set, &rowset));
  EXPECT_EQ(DBPROPSTATUS_OK, prop.dwStatus);
  const auto rows = ReadAll(rowset, {1});
  EXPECT_EQ(2u, rows.size());
  rowset->Release();
}

TEST_F(SessionObject, CreateCommandNamesAnUnknownInterfaceByItsGuid) {
  IDBCreateCommand* create = Query<IDBCreateCommand>(session_, IID_IDBCreateCommand);
  ASSERT_NE(nullptr, create);
  IUnknown* command = nullptr;
  ASSERT_EQ(S_OK, create->CreateCommand(nullptr, IID_ICommandText, &command));
  // The command holds the session: releasing the consumer's session first is fine.
  ICommand* asCommand = Query<ICommand>(command, IID_ICommand);
  IUnknown* back = nullptr;
  ASSERT_EQ(S_OK, asCommand->GetDBSession(IID_IOpenRowset, &back));
  EXPECT_EQ(static_cast<IUnknown*>(session_), back);
  back->Release();
  asCommand->Release();
  command->Release();

  TraceCapture trace;
  EXPECT_EQ(E_NOINTERFACE, create->CreateCommand(nullptr, kMadeUp, &command));
  EXPECT_TRACED(trace, "Failed to create command (80004002).");
  EXPECT_TRACED(trace, "Unsupported interface '{12345678-9ABC-DEF0-0123-456789ABCDEF}'.");
  auto error = TakeLastError();
  EXPECT_TRUE(IsEqualIID(IID_IDBCreateCommand, error.iid));
  EXPECT_EQ(DB_E_NOAGGREGATION, create->CreateCommand(reinterpret_cast<IUnknown*>(session_), IID_IUnknown, &command));
  TakeLastError();
  create->Release();
}

TEST_F(SchemaRowsets, GetSchemasListsTheNineSchemasWithTheirMasks) {
  IDBSchemaRowset* schemas = Query<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  ASSERT_NE(nullptr, schemas);
  ULONG n = 0;
  GUID* guids = nullptr;
  ULONG* masks = nullptr;
  TraceCapture trace;
  ASSERT_EQ(S_OK, schemas->GetSchemas(&n, &guids, &masks));
  EXPECT_TRACED(trace, "Called CProviderSession::GetSchemas");
  const std::pair<const GUID*, ULONG> expected[] = {
      {&DBSCHEMA_CATALOGS, 1},       {&DBSCHEMA_COLUMNS, 15},  {&DBSCHEMA_PROCEDURES, 15},
      {&DBSCHEMA_PROCEDURE_PARAMETERS, 15}, {&DBSCHEMA_PROCEDURE_COLUMNS, 15}, {&DBSCHEMA_PROVIDER_TYPES, 15},
      {&DBSCHEMA_SCHEMATA, 15},      {&DBSCHEMA_TABLES, 15},   {&DBSCHEMA_TABLES_INFO, 15},
  };
  ASSERT_EQ(9u, n);
  for (const auto& e : expected) {
    bool seen = false;
    for (ULONG i = 0; i < n; ++i)
      if (IsEqualGUID(*e.first, guids[i])) {
        seen = true;
        EXPECT_EQ(e.second, masks[i]);
      }
    EXPECT_TRUE(seen);
  }
  CoTaskMemFree(guids);
  CoTaskMemFree(masks);
  EXPECT_EQ(E_INVALIDARG, schemas->GetSchemas(&n, nullptr, &masks));
  EXPECT_TRACED(trace, "ERROR in CProviderSession::GetSchemas, HR = 80070057");
  EXPECT_TRUE(IsEqualIID(IID_IDBSchemaRowset, TakeLastError().iid));
  schemas->Release();
}

TEST_F(SchemaRowsets, TablesColumnsAndTypesFollowTheCatalog) {
  IDBSchemaRowset* schemas = Query<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  ASSERT_NE(nullptr, schemas);
  IUnknown* rowset = nullptr;

  // CATALOGS and SCHEMATA: the data source's names.
  ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_CATALOGS, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  auto rows = ReadAll(rowset, {1});
  rowset->Release();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("Plant", rows[0][0]);
  ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_SCHEMATA, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  rows = ReadAll(rowset, {1, 2});
  rowset->Release();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"Plant", "_default_schema_"}), rows[0]);

  // TABLES: fifteen tables under the catalog and schema, in the standard layout.
  ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_TABLES, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  const auto layout = Columns(rowset);
  ASSERT_EQ(9u, layout.size());
  EXPECT_EQ("TABLE_NAME", layout[2].first);
  EXPECT_EQ(DBTYPE_WSTR, layout[2].second);
  EXPECT_EQ("DATE_MODIFIED", layout[8].first);
  rows = ReadAll(rowset, {1, 2, 3, 4});
  rowset->Release();
  EXPECT_EQ(15u, rows.size());
  EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [](const std::vector<std::string>& r) {
    return r == std::vector<std::string>{"Plant", "_default_schema_", "QUERYSETTINGS", "TABLE"};
  }));

  // A restriction on the table name, in any case; another catalog finds nothing.
  {
    Restrictions r{nullptr, nullptr, OLESTR("rawdata_string")};
    ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_COLUMNS, 3, r.values.data(), IID_IRowset, 0, nullptr,
                                       &rowset));
    rows = ReadAll(rowset, {3, 4, 12, 14});
    rowset->Release();
    const auto value = std::find_if(rows.begin(), rows.end(),
                                    [](const std::vector<std::string>& row) { return row[1] == "VALUE"; });
    ASSERT_NE(rows.end(), value);
    EXPECT_EQ("RAWDATA_STRING", (*value)[0]);
    EXPECT_EQ(std::to_string(DBTYPE_WSTR), (*value)[2]);
    EXPECT_EQ("4096", (*value)[3]);
  }
  {
    Restrictions r{nullptr, nullptr, OLESTR("RAWDATA"), OLESTR("VALUE")};
    ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_COLUMNS, 4, r.values.data(), IID_IRowset, 0, nullptr,
                                       &rowset));
    rows = ReadAll(rowset, {3, 4, 12});
    rowset->Release();
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ(std::to_string(DBTYPE_VARIANT), rows[0][2]);
  }
  {
    Restrictions r{OLESTR("OtherPlant")};
    ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_TABLES, 1, r.values.data(), IID_IRowset, 0, nullptr,
                                       &rowset));
    EXPECT_TRUE(ReadAll(rowset, {3}).empty());
    rowset->Release();
  }

  // PROVIDER_TYPES lists the types the columns use, restricted here to DBTYPE_WSTR.
  ASSERT_EQ(S_OK,
            schemas->GetRowset(nullptr, DBSCHEMA_PROVIDER_TYPES, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  rows = ReadAll(rowset, {1, 2});
  rowset->Release();
  for (const char* used : {"DBTYPE_VARIANT", "DBTYPE_WSTR", "DBTYPE_R8", "DBTYPE_DBTIMESTAMP"})
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [used](const auto& row) { return row[0] == used; })) << used;
  {
    VARIANT type;
    VariantInit(&type);
    type.vt = VT_I4;
    type.lVal = DBTYPE_WSTR;
    ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_PROVIDER_TYPES, 1, &type, IID_IRowset, 0, nullptr,
                                       &rowset));
    rows = ReadAll(rowset, {1});
    rowset->Release();
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ("DBTYPE_WSTR", rows[0][0]);
  }

  // The GUID columns: nothing here is known by GUID, so each reads as null on every row.
  const std::pair<const GUID*, std::vector<DBORDINAL>> guidColumns[] = {
      {&DBSCHEMA_TABLES, {5}}, {&DBSCHEMA_TABLES_INFO, {5}}, {&DBSCHEMA_COLUMNS, {5, 13}},
      {&DBSCHEMA_PROVIDER_TYPES, {16}}, {&DBSCHEMA_PROCEDURE_COLUMNS, {5, 11}}};
  for (const auto& schema : guidColumns) {
    ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, *schema.first, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
    const auto names = Columns(rowset);
    for (DBORDINAL c : schema.second) EXPECT_NE(std::string::npos, names.at(c - 1).first.find("GUID"));
    rows = ReadAll(rowset, schema.second);
    rowset->Release();
    EXPECT_FALSE(rows.empty());
    for (const auto& row : rows)
      for (const auto& cell : row) EXPECT_EQ("<null>", cell) << names.at(schema.second[0] - 1).first;
  }
  schemas->Release();
}

TEST_F(SchemaRowsets, ProceduresWithTheirParametersAndColumns) {
  IDBSchemaRowset* schemas = Query<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  ASSERT_NE(nullptr, schemas);
  IUnknown* rowset = nullptr;
  ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_PROCEDURES, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  auto rows = ReadAll(rowset, {1, 2, 3});
  rowset->Release();
  EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [](const auto& r) { return r[2] == "SP_RAWDATA"; }));
  EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [](const auto& r) { return r[2] == "HDA_ANALOG_5"; }));
  for (const auto& r : rows) EXPECT_EQ("Plant", r[0]);

  Restrictions name{nullptr, nullptr, OLESTR("sp_rawdata")};
  ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_PROCEDURE_PARAMETERS, 3, name.values.data(), IID_IRowset, 0,
                                     nullptr, &rowset));
  rows = ReadAll(rowset, {3, 4, 5});
  rowset->Release();
  ASSERT_FALSE(rows.empty());
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ("SP_RAWDATA", rows[i][0]);
    EXPECT_EQ(std::to_string(i + 1), rows[i][2]);  // ordinal positions in order
  }
  ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, DBSCHEMA_PROCEDURE_COLUMNS, 3, name.values.data(), IID_IRowset, 0,
                                     nullptr, &rowset));
  rows = ReadAll(rowset, {3, 4});
  rowset->Release();
  EXPECT_FALSE(rows.empty());
  for (const auto& r : rows) EXPECT_EQ("SP_RAWDATA", r[0]);
  schemas->Release();
}

TEST_F(SchemaRowsets, BadRequestsAreRefusedWithARecord) {
  IDBSchemaRowset* schemas = Query<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
  ASSERT_NE(nullptr, schemas);
  IUnknown* rowset = nullptr;
  TraceCapture trace;
  // A schema the session does not serve.
  EXPECT_EQ(E_INVALIDARG, schemas->GetRowset(nullptr, DBSCHEMA_VIEWS, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_TRACED(trace, "Called CProviderSession::GetRowset");
  EXPECT_TRACED(trace, "ERROR in CProviderSession::GetRowset, HR = 80070057");
  auto error = TakeLastError();
  EXPECT_TRUE(IsEqualIID(IID_IDBSchemaRowset, error.iid));
#ifndef _WIN32
  EXPECT_EQ("Failed to get a rowset or schema (IID_IDBSchemaRowset). Details: No more details (HRESULT = 80070057).",
            error.description);
#endif
  // More restrictions than CATALOGS has, and a name restriction that is not a text.
  Restrictions two{OLESTR("Plant"), OLESTR("x")};
  EXPECT_EQ(E_INVALIDARG,
            schemas->GetRowset(nullptr, DBSCHEMA_CATALOGS, 2, two.values.data(), IID_IRowset, 0, nullptr, &rowset));
  VARIANT number;
  VariantInit(&number);
  number.vt = VT_I4;
  number.lVal = 5;
  EXPECT_EQ(E_INVALIDARG, schemas->GetRowset(nullptr, DBSCHEMA_TABLES, 1, &number, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_EQ(nullptr, rowset);
  TakeLastError();
  schemas->Release();
}
