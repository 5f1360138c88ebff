// Consumers nobody here wrote, from Wine's system DLLs, over the registered provider: ADO (msado15) given the
// provider's rowsets through ADORecordsetConstruction, and the data links service (oledb32) describing an initialised
// data source. Wine's ADO does not fetch rows yet, so its Fields are checked against what the provider describes
// (IColumnsInfo) and the rows are read through OLE DB directly.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "tests/session/ConsumerFixture.h"
#include <msdasc.h>  // the data links service, from oledb32

// The parts of ADO's interfaces this consumer calls, in their published vtable order and with 64-bit ADO's widths (its
// ADO_LONGPTR is pointer-wide); SDK headers of ADO do not build here. Slots this consumer does not call are
// placeholders. They stay outside the anonymous namespace: there the compiler would know that nothing implements them
// and would drop the calls.
#define ADO_UNUSED(n) virtual HRESULT STDMETHODCALLTYPE Unused##n() = 0
struct AdoObject : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Properties(IUnknown** properties) = 0;
};
struct AdoField : AdoObject {
  ADO_UNUSED(0);  // get_ActualSize
  virtual HRESULT STDMETHODCALLTYPE get_Attributes(LONG* attributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DefinedSize(LONG_PTR* size) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Type(LONG* type) = 0;  // DataTypeEnum: DBTYPE values
};
struct AdoFields : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;
  ADO_UNUSED(0); ADO_UNUSED(1);  // _NewEnum, Refresh
  virtual HRESULT STDMETHODCALLTYPE get_Item(VARIANT index, AdoField** field) = 0;
};
struct AdoRecordset : AdoObject {
  ADO_UNUSED(0); ADO_UNUSED(1); ADO_UNUSED(2);  // get_AbsolutePosition, put_AbsolutePosition, putref_ActiveConnection
  ADO_UNUSED(3); ADO_UNUSED(4);  // put_ActiveConnection, get_ActiveConnection
  ADO_UNUSED(5); ADO_UNUSED(6); ADO_UNUSED(7);  // get_BOF, get_Bookmark, put_Bookmark
  ADO_UNUSED(8); ADO_UNUSED(9); ADO_UNUSED(10);  // get_CacheSize, put_CacheSize, get_CursorType
  ADO_UNUSED(11); ADO_UNUSED(12);  // put_CursorType, get_EOF
  virtual HRESULT STDMETHODCALLTYPE get_Fields(AdoFields** fields) = 0;
};
struct AdoRecordsetConstruction : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Rowset(IUnknown** rowset) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Rowset(IUnknown* rowset) = 0;
};
#undef ADO_UNUSED

namespace {

using corvane::ComPtr;
using corvane::ToUtf8;

constexpr CLSID kRecordsetClass = {0x00000535, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x6D, 0x2E, 0xA4}};
// Recordset15 as ADO 2.x numbers it, and as ADO 6.1 renumbered it.
constexpr IID kRecordsets[] = {{0x0000050E, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x6D, 0x2E, 0xA4}},
                               {0x0000150E, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x6D, 0x2E, 0xA4}}};
constexpr IID kRecordsetConstruction = {0x00000283, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x6D, 0x2E, 0xA4}};

// ADO's view of `rowset`, through a recordset of Wine's ADO over it: every field, by
// position and again by name, is the column the provider describes.
void ExpectAdoSeesTheColumns(IUnknown* rowset, const std::string& what) {
  std::vector<corvane::test::ColumnInfo> columns = corvane::test::Columns(rowset);
  // ADO shows no field for the bookmark.
  columns.erase(std::remove_if(columns.begin(), columns.end(), [](const auto& c) { return c.ordinal == 0; }),
                columns.end());
  ASSERT_FALSE(columns.empty()) << what;
  ComPtr<IUnknown> object;
  ASSERT_EQ(S_OK, CoCreateInstance(kRecordsetClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, object.PutVoid()));
  ComPtr<AdoRecordset> recordset;
  for (const IID& iid : kRecordsets)
    if (!recordset && FAILED(object->QueryInterface(iid, recordset.PutVoid()))) recordset.Reset();
  ASSERT_TRUE(recordset) << "no Recordset15";
  ComPtr<AdoRecordsetConstruction> construction;
  ASSERT_EQ(S_OK, object->QueryInterface(kRecordsetConstruction, construction.PutVoid()));
  ASSERT_EQ(S_OK, construction->put_Rowset(rowset)) << what;
  ComPtr<AdoFields> fields;
  ASSERT_EQ(S_OK, recordset->get_Fields(fields.Put())) << what;
  LONG count = -1;
  ASSERT_EQ(S_OK, fields->get_Count(&count));
  ASSERT_EQ(static_cast<LONG>(columns.size()), count) << what;
  for (size_t i = 0; i < columns.size(); ++i) {
    const auto& c = columns[i];
    const corvane::Bstr byName(SysAllocString(corvane::FromUtf8(c.name).c_str()));
    for (int way = 0; way < 2; ++way) {  // by position, then by name
      VARIANT key;
      key.vt = way ? VT_BSTR : VT_I4;
      if (way) key.bstrVal = byName.Get(); else key.lVal = static_cast<LONG>(i);
      ComPtr<AdoField> field;
      EXPECT_EQ(S_OK, fields->get_Item(key, field.Put())) << what << "." << c.name << (way ? " by name" : " by position");
      if (!field) continue;
      corvane::Bstr name;
      LONG type = -1, attributes = -1;
      LONG_PTR size = -1;
      EXPECT_EQ(S_OK, field->get_Name(name.Put()));
      EXPECT_EQ(S_OK, field->get_Type(&type));
      EXPECT_EQ(S_OK, field->get_DefinedSize(&size));
      EXPECT_EQ(S_OK, field->get_Attributes(&attributes));
      EXPECT_EQ(c.name, ToUtf8(name.Get())) << what << (way ? " by name" : " by position");
      EXPECT_EQ(c.type, type) << what << "." << c.name;
      EXPECT_EQ(static_cast<LONG_PTR>(c.size), size) << what << "." << c.name;
      EXPECT_EQ(static_cast<LONG>(c.flags), attributes) << what << "." << c.name;
    }
  }
}

}  // namespace

using AdoConsumer = corvane::test::ConsumerTest;

TEST_F(AdoConsumer, FieldsMatchTheColumnsOfEveryKindOfRowset) {
  const char* const statements[] = {
      "SELECT TAGNAME, TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Area1.Temp'",
      "SELECT * FROM RAWDATA_DOUBLE WHERE TAGNAME = 'Area1.Temp'",
      "SELECT * FROM TAGS",
      "SELECT * FROM QUERYSETTINGS",
      "EXEC GET_VALUES DATEADD('hh', -2, NOWUTC()), NOWUTC(), 5, 'Area1.Temp'",
      "EXEC HDA_ANALOG DATEADD('hh', -2, NOWUTC()), NOWUTC(), 1800000, 'Area1.Temp'",
  };
  for (const char* sql : statements) {
    ComPtr<IUnknown> rowset;
    ASSERT_EQ(S_OK, corvane::test::SqlConsumer::Run(sql, {}, 7, rowset.Put()).hr) << sql;
    ExpectAdoSeesTheColumns(rowset.Get(), sql);
    // ADO handed the rowset back untouched: its rows are all there.
    EXPECT_FALSE(corvane::test::ReadAll(rowset.Get(), {1}).empty()) << sql;
  }

  ComPtr<IDBSchemaRowset> schemas;
  ASSERT_EQ(S_OK, session_->QueryInterface(IID_IDBSchemaRowset, schemas.PutVoid()));
  ULONG count = 0;
  corvane::TaskMem<GUID> guids;
  corvane::TaskMem<ULONG> restrictions;
  ASSERT_EQ(S_OK, schemas->GetSchemas(&count, guids.Put(), restrictions.Put()));
  for (ULONG i = 0; i < count; ++i) {
    ComPtr<IUnknown> rowset;
    ASSERT_EQ(S_OK, schemas->GetRowset(nullptr, guids[i], 0, nullptr, IID_IRowset, 0, nullptr, rowset.Put()));
    ExpectAdoSeesTheColumns(rowset.Get(), "schema rowset " + std::to_string(i));
  }
}

TEST_F(AdoConsumer, DataLinksDescribeTheInitialisedDataSource) {
  ComPtr<IDataInitialize> links;
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_MSDAINITIALIZE, nullptr, CLSCTX_INPROC_SERVER, IID_IDataInitialize,
                                   links.PutVoid()));
  auto initString = [&](BOOL password) {
    corvane::TaskMem<OLECHAR> text;
    EXPECT_EQ(S_OK, links->GetInitializationString(dataSource_, password, text.Put()));
    return text ? ToUtf8(text.Get()) : std::string("<none>");
  };
  // Wine writes the provider's versioned ProgID (from the data source's class) and then
  // only the first of its initialisation properties, the password; without the password
  // nothing follows, though the catalog ("Plant") is set too.
  EXPECT_EQ("Provider=Quellix.CorvaneOleDbProvider_VLD64.1;Password=;", initString(TRUE));
  EXPECT_EQ("Provider=Quellix.CorvaneOleDbProvider_VLD64.1;", initString(FALSE));
}
