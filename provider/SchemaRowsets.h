// The rows of the schema rowsets a session serves, in the OLE DB standard column
// layouts: catalogs, schemata, tables (also for TABLES_INFO), columns, provider types,
// procedures, procedure parameters and procedure columns. They are built from a
// description of the table and procedure catalogs into a data store that a rowset
// then serves; restrictions filter the rows as the standard defines them.
#pragma once
#include <memory>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/procedures/ProcedureCatalog.h"
#include "provider/store/DataStore.h"
#include "provider/tables/TableFactory.h"

// Everything the schema rowsets show: the data source's catalog and schema names and
// what lives under them.
struct SchemaCatalog {
  corvane::WString catalog;
  corvane::WString schema;
  std::vector<TableInfo> tables;
  std::vector<ProcedureInfo> procedures;
};

class CSchemaRowsets {
 public:
  // The schemas a session supports, in the order GetSchemas reports them.
  static size_t SchemaCount();
  static const GUID& SchemaAt(size_t index);
  // The restriction mask of a schema; false when the schema is not supported.
  static bool RestrictionMask(REFGUID schema, ULONG* mask);

  // A store holding the rows of `schema` that pass the restrictions. E_INVALIDARG for
  // an unsupported schema, too many restrictions, or a restriction of the wrong type.
  static HRESULT Build(REFGUID schema, const SchemaCatalog& catalog, ULONG cRestrictions,
                       const VARIANT rgRestrictions[], std::unique_ptr<CDataStore>* store);

  // The type name a consumer passes to ICommandWithParameters for `type`, as listed
  // by PROVIDER_TYPES; empty for a type the provider does not list.
  static corvane::WString TypeName(DBTYPE type);
};
