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

template <class T>
HRESULT Make(const TableCreateArgs& args, std::unique_ptr<CBaseTable>* table) {
  table->reset(new (std::nothrow) T(args));
  return *table ? S_OK : E_OUTOFMEMORY;
}

TableInfo MakeTable(const OLECHAR* name, const OLECHAR* description, const OLECHAR* columnTable,
                    std::initializer_list<ColumnShape> columns, TableMaker make,
                    GivenComparisons given = GivenComparisons::kNone, TableChanges changes = TableChanges::kNone) {
  TableInfo info;
  info.Name = name;
  info.Description = description;
  info.Make = make;
  info.Given = given;
  info.Changes = changes;
  ULONGLONG ordinal = 1;
  for (const ColumnShape& c : columns) info.Columns.push_back(MakeColumn(columnTable, c, ordinal++));
  return info;
}

template <class T>
TableInfo RawTable(const OLECHAR* name, DBTYPE valueType, const OLECHAR* valueTypeName,
                   TableChanges changes = TableChanges::kNone) {
  // Typed maps name RAWDATA as their table: column binding treats them as RAWDATA.
  const corvane::WString description = corvane::WFormat(
      OLESTR("Contains raw data (VALUE column is exposed as %s)."), valueTypeName);
  return MakeTable(name, description.c_str(), OLESTR("RAWDATA"),
                   {{OLESTR("TAGNAME"), DBTYPE_WSTR},
                    {OLESTR("TIMESTAMP"), DBTYPE_DBTIMESTAMP},
                    {OLESTR("QUALITY"), DBTYPE_UI4},
                    {OLESTR("VALUE"), valueType}},
                   &Make<T>, GivenComparisons::kRawDataRead, changes);
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
                           {OLESTR("ALLOW_EMPTY_TAG"), DBTYPE_BOOL}},
                          &Make<CTableQuerySettings>, GivenComparisons::kNone, TableChanges::kSettings));
    t.push_back(MakeTable(OLESTR("TAGS"), OLESTR("Contains list of the tags."), OLESTR("TAGS"),
                          {{OLESTR("TAGNAME"), DBTYPE_WSTR},
                           {OLESTR("DESCRIPTION"), DBTYPE_WSTR},
                           {OLESTR("DATATYPE"), DBTYPE_UI2},
                           {OLESTR("STEPPEDINTERPOLATION"), DBTYPE_BOOL},
                           {OLESTR("ACCESSRIGHTS"), DBTYPE_UI2}},
                          &Make<CTableTags>, GivenComparisons::kTagBrowse));
    t.push_back(RawTable<CTableRawData>(OLESTR("RAWDATA"), DBTYPE_VARIANT, OLESTR("DBTYPE_VARIANT"),
                                        TableChanges::kSamples));
    t.push_back(RawTable<CTableRawDataString>(OLESTR("RAWDATA_STRING"), DBTYPE_WSTR, OLESTR("DBTYPE_WSTR")));
    t.push_back(RawTable<CTableRawDataInt8>(OLESTR("RAWDATA_INT8"), DBTYPE_I1, OLESTR("DBTYPE_I1")));
    t.push_back(RawTable<CTableRawDataInt16>(OLESTR("RAWDATA_INT16"), DBTYPE_I2, OLESTR("DBTYPE_I2")));
    t.push_back(RawTable<CTableRawDataInt32>(OLESTR("RAWDATA_INT32"), DBTYPE_I4, OLESTR("DBTYPE_I4")));
    t.push_back(RawTable<CTableRawDataInt64>(OLESTR("RAWDATA_INT64"), DBTYPE_I8, OLESTR("DBTYPE_I8")));
    t.push_back(RawTable<CTableRawDataUInt8>(OLESTR("RAWDATA_UINT8"), DBTYPE_UI1, OLESTR("DBTYPE_UI1")));
    t.push_back(RawTable<CTableRawDataUInt16>(OLESTR("RAWDATA_UINT16"), DBTYPE_UI2, OLESTR("DBTYPE_UI2")));
    t.push_back(RawTable<CTableRawDataUInt32>(OLESTR("RAWDATA_UINT32"), DBTYPE_UI4, OLESTR("DBTYPE_UI4")));
    t.push_back(RawTable<CTableRawDataUInt64>(OLESTR("RAWDATA_UINT64"), DBTYPE_UI8, OLESTR("DBTYPE_UI8")));
    t.push_back(RawTable<CTableRawDataSingle>(OLESTR("RAWDATA_SINGLE"), DBTYPE_R4, OLESTR("DBTYPE_R4")));
    t.push_back(RawTable<CTableRawDataDouble>(OLESTR("RAWDATA_DOUBLE"), DBTYPE_R8, OLESTR("DBTYPE_R8")));
    t.push_back(RawTable<CTableRawDataBoolean>(OLESTR("RAWDATA_BOOLEAN"), DBTYPE_BOOL, OLESTR("DBTYPE_BOOL")));
    return t;
  }();
  return catalog;
}

}  // namespace

HRESULT CTableFactory::GetTableInfo(const OLECHAR* name, TableInfo* info) {
  if (!name || !info) return E_INVALIDARG;
  const TableInfo* found = FindTableInfo(name);
  if (!found) return S_FALSE;
  *info = *found;
  return S_OK;
}

const TableInfo* CTableFactory::LookupTable(const OLECHAR* name) {
  if (!name) return nullptr;
  // Measured once and compared by length first: every Prepare looks its table up here.
  const corvane::WStringView wanted(name);
  for (const TableInfo& t : Catalog())
    if (t.Name.size() == wanted.size() && corvane::WIEquals(t.Name, wanted)) return &t;
  return nullptr;
}

const TableInfo* CTableFactory::FindTableInfo(const OLECHAR* name) {
  const TableInfo* found = LookupTable(name);
  if (!found && name) CVTRACE(TRACE_ERROR, OLESTR("Failed to get info for table '%s'."), name);
  return found;
}

std::vector<TableInfo> CTableFactory::EnumerateTables() { return Catalog(); }

std::vector<ColumnRecord> CTableFactory::ResultColumns(const OLECHAR* tableName) {
  return {MakeColumn(tableName, {OLESTR("DESCRIPTION"), DBTYPE_WSTR}, 1)};
}
