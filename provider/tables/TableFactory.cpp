#include "provider/tables/TableFactory.h"

#include <new>

#include "base/Trace.h"
#include "provider/tables/TableQuerySettings.h"
#include "provider/tables/TableRawData.h"
#include "provider/tables/TableRawDataBoolean.h"
#include "provider/tables/TableRawDataDouble.h"
#include "provider/tables/TableRawDataInt16.h"
#include "provider/tables/TableRawDataInt32.h"
#include "provider/tables/TableRawDataInt64.h"
#include "provider/tables/TableRawDataInt8.h"
#include "provider/tables/TableRawDataSingle.h"
#include "provider/tables/TableRawDataString.h"
#include "provider/tables/TableRawDataUInt16.h"
#include "provider/tables/TableRawDataUInt32.h"
#include "provider/tables/TableRawDataUInt64.h"
#include "provider/tables/TableRawDataUInt8.h"
#include "provider/tables/TableTags.h"

namespace {

struct ColumnShape {
  const OLECHAR* name;
  DBTYPE type;
};

ColumnRecord MakeColumn(const OLECHAR* table, const ColumnShape& shape, ULONGLONG ordinal) {
  ColumnRecord c;
  c.ColumnName = shape.name;
  c.ColumnAlias = shape.name;
  c.TableName = table;
  c.Ordinal = ordinal;
  c.wType = shape.type;
  c.ColumnSize = shape.type == DBTYPE_WSTR ? 4096 : shape.type == DBTYPE_DBTIMESTAMP ? 16 : 0;
  if (c.ColumnSize == 0) {
    switch (shape.type) {
      case DBTYPE_I1: case DBTYPE_UI1: c.ColumnSize = 1; break;
      case DBTYPE_I2: case DBTYPE_UI2: case DBTYPE_BOOL: c.ColumnSize = 2; break;
      case DBTYPE_I4: case DBTYPE_UI4: case DBTYPE_R4: c.ColumnSize = 4; break;
      case DBTYPE_I8: case DBTYPE_UI8: case DBTYPE_R8: c.ColumnSize = 8; break;
      case DBTYPE_VARIANT: c.ColumnSize = sizeof(VARIANT); break;
      default: break;
    }
  }
  return c;
}

TableInfo MakeTable(const OLECHAR* name, const OLECHAR* description, const OLECHAR* columnTable,
                    std::initializer_list<ColumnShape> columns) {
  TableInfo info;
  info.Name = name;
  info.Description = description;
  ULONGLONG ordinal = 1;
  for (const ColumnShape& c : columns) info.Columns.push_back(MakeColumn(columnTable, c, ordinal++));
  return info;
}

TableInfo RawTable(const OLECHAR* name, const OLECHAR* description, DBTYPE valueType) {
  // Typed maps name RAWDATA as their table: column binding treats them as RAWDATA.
  return MakeTable(name, description, OLESTR("RAWDATA"),
                   {{OLESTR("TAGNAME"), DBTYPE_WSTR},
                    {OLESTR("TIMESTAMP"), DBTYPE_DBTIMESTAMP},
                    {OLESTR("QUALITY"), DBTYPE_UI4},
                    {OLESTR("VALUE"), valueType}});
}

const std::vector<TableInfo>& Catalog() {
  static const std::vector<TableInfo> catalog = [] {
    std::vector<TableInfo> t;
    t.push_back(MakeTable(OLESTR("QUERYSETTINGS"), OLESTR("Contains settings applied in the queries."),
                          OLESTR("QUERYSETTINGS"),
                          {{OLESTR("TIMESTAMP_START"), DBTYPE_DBTIMESTAMP},
                           {OLESTR("TIMESTAMP_END"), DBTYPE_DBTIMESTAMP},
                           {OLESTR("USE_USER_TIME_RANGE"), DBTYPE_BOOL},
                           {OLESTR("MAX_ROWS_TO_RETURN"), DBTYPE_UI4},
                           {OLESTR("TREAT_UNCERTAIN_AS_GOOD"), DBTYPE_BOOL},
                           {OLESTR("PERCENT_DATA_BAD"), DBTYPE_UI1},
                           {OLESTR("PERCENT_DATA_GOOD"), DBTYPE_UI1},
                           {OLESTR("ALLOW_EMPTY_TAG"), DBTYPE_BOOL}}));
    t.push_back(MakeTable(OLESTR("TAGS"), OLESTR("Contains list of the tags."), OLESTR("TAGS"),
                          {{OLESTR("TAGNAME"), DBTYPE_WSTR},
                           {OLESTR("DESCRIPTION"), DBTYPE_WSTR},
                           {OLESTR("DATATYPE"), DBTYPE_UI2},
                           {OLESTR("STEPPEDINTERPOLATION"), DBTYPE_BOOL},
                           {OLESTR("ACCESSRIGHTS"), DBTYPE_UI2}}));
    t.push_back(RawTable(OLESTR("RAWDATA"), OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_VARIANT)."),
                         DBTYPE_VARIANT));
    t.push_back(RawTable(OLESTR("RAWDATA_STRING"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_WSTR)."), DBTYPE_WSTR));
    t.push_back(RawTable(OLESTR("RAWDATA_INT8"), OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_I1)."),
                         DBTYPE_I1));
    t.push_back(RawTable(OLESTR("RAWDATA_INT16"), OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_I2)."),
                         DBTYPE_I2));
    t.push_back(RawTable(OLESTR("RAWDATA_INT32"), OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_I4)."),
                         DBTYPE_I4));
    t.push_back(RawTable(OLESTR("RAWDATA_INT64"), OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_I8)."),
                         DBTYPE_I8));
    t.push_back(RawTable(OLESTR("RAWDATA_UINT8"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_UI1)."), DBTYPE_UI1));
    t.push_back(RawTable(OLESTR("RAWDATA_UINT16"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_UI2)."), DBTYPE_UI2));
    t.push_back(RawTable(OLESTR("RAWDATA_UINT32"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_UI4)."), DBTYPE_UI4));
    t.push_back(RawTable(OLESTR("RAWDATA_UINT64"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_UI8)."), DBTYPE_UI8));
    t.push_back(RawTable(OLESTR("RAWDATA_SINGLE"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_R4)."), DBTYPE_R4));
    t.push_back(RawTable(OLESTR("RAWDATA_DOUBLE"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_R8)."), DBTYPE_R8));
    t.push_back(RawTable(OLESTR("RAWDATA_BOOLEAN"),
                         OLESTR("Contains raw data (VALUE column is exposed as DBTYPE_BOOL)."), DBTYPE_BOOL));
    return t;
  }();
  return catalog;
}

template <class T>
HRESULT Make(const TableCreateArgs& args, std::unique_ptr<CBaseTable>* table) {
  table->reset(new (std::nothrow) T(args));
  return *table ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

HRESULT CTableFactory::GetTableInfo(const OLECHAR* name, TableInfo* info) {
  if (!name || !info) return E_INVALIDARG;
  const TableInfo* found = FindTableInfo(name);
  if (!found) return S_FALSE;
  *info = *found;
  return S_OK;
}

const TableInfo* CTableFactory::FindTableInfo(const OLECHAR* name) {
  if (!name) return nullptr;
  for (const TableInfo& t : Catalog())
    if (corvane::WICmp(name, t.Name.c_str()) == 0) return &t;
  CVTRACE(TRACE_ERROR, OLESTR("Failed to get info for table '%s'."), name);
  return nullptr;
}

std::vector<TableInfo> CTableFactory::EnumerateTables() { return Catalog(); }

bool CTableFactory::IsRawDataTable(const OLECHAR* name) {
  if (!name) return false;
  const std::vector<TableInfo>& c = Catalog();
  for (size_t i = 2; i < c.size(); ++i)
    if (corvane::WICmp(name, c[i].Name.c_str()) == 0) return true;
  return false;
}

HRESULT CTableFactory::CreateTable(const OLECHAR* name, const TableCreateArgs& args,
                                   std::unique_ptr<CBaseTable>* table) {
  if (!name || !table) return E_INVALIDARG;
  using Maker = HRESULT (*)(const TableCreateArgs&, std::unique_ptr<CBaseTable>*);
  static const struct {
    const OLECHAR* name;
    Maker make;
  } kMakers[] = {
      {OLESTR("TAGS"), &Make<CTableTags>},
      {OLESTR("QUERYSETTINGS"), &Make<CTableQuerySettings>},
      {OLESTR("RAWDATA"), &Make<CTableRawData>},
      {OLESTR("RAWDATA_STRING"), &Make<CTableRawDataString>},
      {OLESTR("RAWDATA_INT8"), &Make<CTableRawDataInt8>},
      {OLESTR("RAWDATA_INT16"), &Make<CTableRawDataInt16>},
      {OLESTR("RAWDATA_INT32"), &Make<CTableRawDataInt32>},
      {OLESTR("RAWDATA_INT64"), &Make<CTableRawDataInt64>},
      {OLESTR("RAWDATA_UINT8"), &Make<CTableRawDataUInt8>},
      {OLESTR("RAWDATA_UINT16"), &Make<CTableRawDataUInt16>},
      {OLESTR("RAWDATA_UINT32"), &Make<CTableRawDataUInt32>},
      {OLESTR("RAWDATA_UINT64"), &Make<CTableRawDataUInt64>},
      {OLESTR("RAWDATA_SINGLE"), &Make<CTableRawDataSingle>},
      {OLESTR("RAWDATA_DOUBLE"), &Make<CTableRawDataDouble>},
      {OLESTR("RAWDATA_BOOLEAN"), &Make<CTableRawDataBoolean>},
  };
  for (const auto& m : kMakers)
    if (corvane::WICmp(name, m.name) == 0) return m.make(args, table);
  return DB_E_NOTABLE;
}

std::vector<ColumnRecord> CTableFactory::ResultColumns(const OLECHAR* tableName) {
  return {MakeColumn(tableName, {OLESTR("DESCRIPTION"), DBTYPE_WSTR}, 1)};
}
