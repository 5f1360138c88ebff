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

// A text restriction, or none for null.
void Restrict(VARIANT* v, const OLECHAR* text) {
  VariantInit(v);
  if (!text) return;
  V_VT(v) = VT_BSTR;
  V_BSTR(v) = SysAllocString(text);
}

class SchemaRowsets : public ConsumerTest {
 protected:
  using Rows = std::vector<std::vector<std::string>>;
  void SetUp() override {
    ConsumerTest::SetUp();
    if (HasFatalFailure()) return;
    schemas_ = Query<IDBSchemaRowset>(session_, IID_IDBSchemaRowset);
    ASSERT_NE(nullptr, schemas_);
  }
  void TearDown() override {
    if (schemas_) schemas_->Release();
    ConsumerTest::TearDown();
  }
  // Reads `columns` of every row of a schema rowset opened with text restrictions, or
  // with the one `given`; `layout` receives the rowset's columns.
  Rows Read(const GUID& schema, std::initializer_list<const OLECHAR*> texts, const std::vector<DBORDINAL>& columns,
            std::vector<std::pair<std::string, DBTYPE>>* layout = nullptr, VARIANT* given = nullptr) {
    std::vector<VARIANT> values(texts.size());
    for (size_t i = 0; i < values.size(); ++i) Restrict(&values[i], texts.begin()[i]);
    IUnknown* rowset = nullptr;
    const HRESULT hr = schemas_->GetRowset(nullptr, schema, given ? 1 : values.size(), given ? given : values.data(),
                                           IID_IRowset, 0, nullptr, &rowset);
    for (auto& v : values) VariantClear(&v);
    EXPECT_EQ(S_OK, hr);
    if (FAILED(hr)) return {};
    if (layout) *layout = Columns(rowset);
    Rows rows = ReadAll(rowset, columns);
    rowset->Release();
    return rows;
  }
  IDBSchemaRowset* schemas_ = nullptr;
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

TEST_F(SessionObject, OpenRowsetReadsATableAndNamesWhatItCannotGive) {
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
  EXPECT_EQ(2u, ReadAll(rowset, {1}).size());
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
  ULONG n = 0;
  GUID* guids = nullptr;
  ULONG* masks = nullptr;
  TraceCapture trace;
  ASSERT_EQ(S_OK, schemas_->GetSchemas(&n, &guids, &masks));
  EXPECT_TRACED(trace, "Called CProviderSession::GetSchemas");
  const std::pair<const GUID*, ULONG> expected[] = {
      {&DBSCHEMA_CATALOGS, 1},       {&DBSCHEMA_COLUMNS, 15},  {&DBSCHEMA_PROCEDURES, 15},
      {&DBSCHEMA_PROCEDURE_PARAMETERS, 15}, {&DBSCHEMA_PROCEDURE_COLUMNS, 15}, {&DBSCHEMA_PROVIDER_TYPES, 15},
      {&DBSCHEMA_SCHEMATA, 15},      {&DBSCHEMA_TABLES, 15},   {&DBSCHEMA_TABLES_INFO, 15},
  };
  ASSERT_EQ(9u, n);
  for (const auto& e : expected) {
    const GUID* at = std::find_if(guids, guids + n, [&](const GUID& g) { return IsEqualGUID(*e.first, g); });
    ASSERT_NE(guids + n, at);
    EXPECT_EQ(e.second, masks[at - guids]);
  }
  CoTaskMemFree(guids);
  CoTaskMemFree(masks);
  EXPECT_EQ(E_INVALIDARG, schemas_->GetSchemas(&n, nullptr, &masks));
  EXPECT_TRACED(trace, "ERROR in CProviderSession::GetSchemas, HR = 80070057");
  EXPECT_TRUE(IsEqualIID(IID_IDBSchemaRowset, TakeLastError().iid));
}

TEST_F(SchemaRowsets, TablesColumnsAndTypesFollowTheCatalog) {
  // CATALOGS and SCHEMATA: the data source's names.
  EXPECT_EQ(Rows{{"Plant"}}, Read(DBSCHEMA_CATALOGS, {}, {1}));
  EXPECT_EQ((Rows{{"Plant", "_default_schema_"}}), Read(DBSCHEMA_SCHEMATA, {}, {1, 2}));

  // TABLES: fifteen tables under the catalog and schema, in the standard layout.
  std::vector<std::pair<std::string, DBTYPE>> layout;
  Rows rows = Read(DBSCHEMA_TABLES, {}, {1, 2, 3, 4}, &layout);
  ASSERT_EQ(9u, layout.size());
  EXPECT_EQ("TABLE_NAME", layout[2].first);
  EXPECT_EQ(DBTYPE_WSTR, layout[2].second);
  EXPECT_EQ("DATE_MODIFIED", layout[8].first);
  EXPECT_EQ(15u, rows.size());
  EXPECT_NE(rows.end(), std::find(rows.begin(), rows.end(),
                                  std::vector<std::string>{"Plant", "_default_schema_", "QUERYSETTINGS", "TABLE"}));

  // A restriction on the table name, in any case; another catalog finds nothing.
  rows = Read(DBSCHEMA_COLUMNS, {nullptr, nullptr, OLESTR("rawdata_string")}, {3, 4, 12, 14});
  const auto value = std::find_if(rows.begin(), rows.end(), [](const auto& row) { return row[1] == "VALUE"; });
  ASSERT_NE(rows.end(), value);
  EXPECT_EQ((std::vector<std::string>{"RAWDATA_STRING", "VALUE", std::to_string(DBTYPE_WSTR), "4096"}), *value);
  EXPECT_EQ((Rows{{"RAWDATA", "VALUE", std::to_string(DBTYPE_VARIANT)}}),
            Read(DBSCHEMA_COLUMNS, {nullptr, nullptr, OLESTR("RAWDATA"), OLESTR("VALUE")}, {3, 4, 12}));
  EXPECT_TRUE(Read(DBSCHEMA_TABLES, {OLESTR("OtherPlant")}, {3}).empty());

  // PROVIDER_TYPES lists the types the columns use, restricted here to DBTYPE_WSTR.
  rows = Read(DBSCHEMA_PROVIDER_TYPES, {}, {1, 2});
  for (const char* used : {"DBTYPE_VARIANT", "DBTYPE_WSTR", "DBTYPE_R8", "DBTYPE_DBTIMESTAMP"})
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [used](const auto& row) { return row[0] == used; })) << used;
  VARIANT type;
  VariantInit(&type);
  V_VT(&type) = VT_I4;
  V_I4(&type) = DBTYPE_WSTR;
  EXPECT_EQ(Rows{{"DBTYPE_WSTR"}}, Read(DBSCHEMA_PROVIDER_TYPES, {}, {1}, nullptr, &type));

  // The GUID columns: nothing here is known by GUID, so each reads as null on every row.
  const std::pair<const GUID*, std::vector<DBORDINAL>> guidColumns[] = {
      {&DBSCHEMA_TABLES, {5}}, {&DBSCHEMA_TABLES_INFO, {5}}, {&DBSCHEMA_COLUMNS, {5, 13}},
      {&DBSCHEMA_PROVIDER_TYPES, {16}}, {&DBSCHEMA_PROCEDURE_COLUMNS, {5, 11}}};
  for (const auto& schema : guidColumns) {
    rows = Read(*schema.first, {}, schema.second, &layout);
    for (DBORDINAL c : schema.second) EXPECT_NE(std::string::npos, layout.at(c - 1).first.find("GUID"));
    EXPECT_FALSE(rows.empty());
    for (const auto& row : rows)
      for (const auto& cell : row) EXPECT_EQ("<null>", cell) << layout.at(schema.second[0] - 1).first;
  }
}

TEST_F(SchemaRowsets, ProceduresWithTheirParametersAndColumns) {
  Rows rows = Read(DBSCHEMA_PROCEDURES, {}, {1, 2, 3});
  for (const char* name : {"SP_RAWDATA", "HDA_ANALOG_5"})
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [name](const auto& r) { return r[2] == name; })) << name;
  for (const auto& r : rows) EXPECT_EQ("Plant", r[0]);

  rows = Read(DBSCHEMA_PROCEDURE_PARAMETERS, {nullptr, nullptr, OLESTR("sp_rawdata")}, {3, 4, 5});
  ASSERT_FALSE(rows.empty());
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ("SP_RAWDATA", rows[i][0]);
    EXPECT_EQ(std::to_string(i + 1), rows[i][2]);  // ordinal positions in order
  }
  rows = Read(DBSCHEMA_PROCEDURE_COLUMNS, {nullptr, nullptr, OLESTR("sp_rawdata")}, {3, 4});
  EXPECT_FALSE(rows.empty());
  for (const auto& r : rows) EXPECT_EQ("SP_RAWDATA", r[0]);
}

TEST_F(SchemaRowsets, BadRequestsAreRefusedWithARecord) {
  IUnknown* rowset = nullptr;
  TraceCapture trace;
  // A schema the session does not serve.
  EXPECT_EQ(E_INVALIDARG, schemas_->GetRowset(nullptr, DBSCHEMA_VIEWS, 0, nullptr, IID_IRowset, 0, nullptr, &rowset));
  EXPECT_TRACED(trace, "Called CProviderSession::GetRowset");
  EXPECT_TRACED(trace, "ERROR in CProviderSession::GetRowset, HR = 80070057");
  auto error = TakeLastError();
  EXPECT_TRUE(IsEqualIID(IID_IDBSchemaRowset, error.iid));
#ifndef _WIN32
  EXPECT_EQ("Failed to get a rowset or schema (IID_IDBSchemaRowset). Details: No more details (HRESULT = 80070057).",
            error.description);
#endif
  // More restrictions than CATALOGS has, and a name restriction that is not a text.
  VARIANT v[2];
  for (VARIANT& text : v) Restrict(&text, OLESTR("Plant"));
  EXPECT_EQ(E_INVALIDARG, schemas_->GetRowset(nullptr, DBSCHEMA_CATALOGS, 2, v, IID_IRowset, 0, nullptr, &rowset));
  VariantClear(&v[1]);
  V_VT(&v[1]) = VT_I4;
  V_I4(&v[1]) = 5;
  EXPECT_EQ(E_INVALIDARG, schemas_->GetRowset(nullptr, DBSCHEMA_TABLES, 1, &v[1], IID_IRowset, 0, nullptr, &rowset));
  VariantClear(&v[0]);
  EXPECT_EQ(nullptr, rowset);
  TakeLastError();
}
