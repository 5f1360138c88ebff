#include "provider/procedures/ProcedureFactory.h"

#include "provider/ErrorReporting.h"
#include "provider/procedures/BaseStoredProcedure.h"
#include "provider/procedures/ProcedureCatalog.h"

using corvane::WString;

HRESULT CreateStoredProcedure(const StoredProcedureCall& call, std::unique_ptr<CBaseStoredProcedure>* procedure) {
  if (!procedure) return E_INVALIDARG;
  procedure->reset();
  if (!call.query || !call.item || !call.dataSource) return E_INVALIDARG;
  const ProcedureInfo* info = call.info ? call.info : FindProcedure(call.item->ProcedureName().c_str());
  if (!info) return CORVANE_E_PROCEDURE_NOT_FOUND;
  const WString catalog = call.catalog.empty() ? call.item->Catalog() : call.catalog;
  const WString schema = call.schema.empty() ? call.item->Schema() : call.schema;
  try {
    *procedure = info->Make(call, catalog, schema);
    (*procedure)->SetCatalogEntry(info);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}
