// The catalog of virtual tables, one entry per table (name, description, columns in
// ordinal order, what a SELECT takes from its WHERE clause, which statements change it,
// and how to make it), looked up by name ignoring case. A new table is its class plus
// one entry in TableFactory.cpp.
#pragma once
#include <memory>
#include <vector>

#include "platform/WideString.h"
#include "provider/IProviderDataSource.h"
#include "provider/store/StoreValue.h"

class CBaseTable;
struct TableCreateArgs;

// The comparisons a read already honours by what it asks the historian for; a filter
// over that read counts them as true.
enum class GivenComparisons {
  kNone,         // every comparison is evaluated (data changes, procedures)
  kRawDataRead,  // any comparison with TAGNAME or TIMESTAMP: the tags and range read
  kTagBrowse,    // TAGNAME or DESCRIPTION compared with a text or `?`: the browse filters
};

// The statements other than SELECT that a table accepts.
enum class TableChanges {
  kNone,
  kSamples,   // INSERT, UPDATE and DELETE write the historian's samples
  kSettings,  // UPDATE sets this connection's query settings
};

using TableMaker = HRESULT (*)(const TableCreateArgs& args, std::unique_ptr<CBaseTable>* table);

struct TableInfo {
  corvane::WString Name;
  corvane::WString Description;
  std::vector<ColumnRecord> Columns;
  // What a SELECT takes from its WHERE clause to shape the read: raw-data tables take
  // their tags and time range, TAGS its browse filters.
  GivenComparisons Given = GivenComparisons::kNone;
  TableChanges Changes = TableChanges::kNone;
  TableMaker Make = nullptr;  // null for tables that are not in the catalog

  // RAWDATA and its typed forms: the raw history of the tags and range the WHERE names.
  bool IsRawData() const { return Given == GivenComparisons::kRawDataRead; }
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
  // The same without the trace, for callers that report an unknown name their own way.
  static const TableInfo* LookupTable(const OLECHAR* name);
  // The catalog tables in catalog order.
  static std::vector<TableInfo> EnumerateTables();

  // The one-column map of the INSERT, UPDATE and DELETE result tables.
  static std::vector<ColumnRecord> ResultColumns(const OLECHAR* tableName);
};
