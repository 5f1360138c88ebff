// The catalog of virtual tables (name, description, columns in ordinal order), looked
// up by name ignoring case, and the builder of table objects for command execution.
#pragma once
#include <memory>
#include <vector>

#include "platform/WideString.h"
#include "provider/IProviderDataSource.h"
#include "provider/store/StoreValue.h"

class CBaseTable;

struct TableInfo {
  corvane::WString Name;
  corvane::WString Description;
  std::vector<ColumnRecord> Columns;
};

// What a table object is built from. Raw-data tables use every field; TAGS the two
// browse filters; QUERYSETTINGS only the data source.
struct TableCreateArgs {
  IProviderDataSource* dataSource = nullptr;  // the table adds its own reference
  corvane::WString catalog;                   // the FROM item's catalog and schema
  corvane::WString schema;
  std::vector<corvane::WString> tagNames;  // in the query's order
  FILETIME start{};                         // the execution's range; start later than
  FILETIME end{};                           // end reads newest first
  corvane::WString nameFilter;              // TAGS: TAGNAME and DESCRIPTION patterns
  corvane::WString descriptionFilter;
};

class CTableFactory {
 public:
  // S_OK with the table's information; S_FALSE (and the trace "Failed to get info for
  // table '%s'.") for a name that is not in the catalog; E_INVALIDARG for null.
  static HRESULT GetTableInfo(const OLECHAR* name, TableInfo* info);
  // The same without a copy: the catalog's own entry (it lives as long as the process),
  // or null with the same trace.
  static const TableInfo* FindTableInfo(const OLECHAR* name);
  // The 15 catalog tables in catalog order.
  static std::vector<TableInfo> EnumerateTables();
  // True for RAWDATA and the twelve typed raw-data tables.
  static bool IsRawDataTable(const OLECHAR* name);

  // The table object for a catalog name (any case); DB_E_NOTABLE for any other name.
  static HRESULT CreateTable(const OLECHAR* name, const TableCreateArgs& args, std::unique_ptr<CBaseTable>* table);

  // The one-column map of the INSERT, UPDATE and DELETE result tables.
  static std::vector<ColumnRecord> ResultColumns(const OLECHAR* tableName);
};
