#include "provider/execution/TableProviderRowset.h"

#include <new>

#include "SQLParser/TimeConversion.h"
#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "base/Trace.h"
#include "provider/tables/BaseTable.h"
#include "provider/tables/TableFactory.h"

namespace {

corvane::WString Text(const corvane::Bstr& b) { return b ? corvane::WString(b.Get(), b.Length()) : corvane::WString(); }

}  // namespace

CTableProviderRowset::CTableProviderRowset(std::unique_ptr<CDataStore> store, IUnknown* creator)
    : CProviderIRowset(std::move(store), RowsetKind::Table, creator) {}

HRESULT CTableProviderRowset::Open(IProviderDataSource* dataSource, IUnknown* creator,
                                   const OLECHAR* tableName, REFIID riid, IUnknown** ppRowset) {
  if (ppRowset) *ppRowset = nullptr;
  if (!dataSource || !tableName || !ppRowset) return E_INVALIDARG;
  TableInfo info;
  if (CTableFactory::GetTableInfo(tableName, &info) != S_OK) return DB_E_NOTABLE;

  TableCreateArgs args;
  args.dataSource = dataSource;
  corvane::TaskMem<FILETIME> start, end;
  HRESULT hr = dataSource->GetStartTimeForQuery(start.Put());
  if (SUCCEEDED(hr)) hr = dataSource->GetEndTimeForQuery(end.Put());
  if (FAILED(hr)) return hr;
  args.start = *start.Get();
  args.end = *end.Get();
  corvane::Bstr catalog, schema;
  if (SUCCEEDED(dataSource->GetDefaultCatalog(catalog.Put()))) args.catalog = Text(catalog);
  if (SUCCEEDED(dataSource->GetDefaultSchema(schema.Put()))) args.schema = Text(schema);

  std::unique_ptr<CBaseTable> table;
  hr = info.Make(args, &table);
  if (SUCCEEDED(hr)) hr = table->EnsurePrepared();
  if (FAILED(hr)) return hr;
  std::unique_ptr<CDataStore> store(new (std::nothrow) CDataStore());
  if (!store) return E_OUTOFMEMORY;
  hr = store->Initialize(std::move(table), info.Columns);
  if (FAILED(hr)) return hr;
  corvane::ComPtr<CTableProviderRowset> rowset(new (std::nothrow) CTableProviderRowset(std::move(store), creator));
  if (!rowset) return E_OUTOFMEMORY;
  return rowset->QueryInterface(riid, reinterpret_cast<void**>(ppRowset));
}
