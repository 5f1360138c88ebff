#include "provider/execution/TableProviderRowset.h"

#include <new>

#include "SQLParser/TimeConversion.h"
#include "base/Trace.h"
#include "provider/tables/BaseTable.h"
#include "provider/tables/TableFactory.h"

namespace {

corvane::WString Text(BSTR b) { return b ? corvane::WString(b, SysStringLen(b)) : corvane::WString(); }

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
  FILETIME* start = nullptr;
  FILETIME* end = nullptr;
  HRESULT hr = dataSource->GetStartTimeForQuery(&start);
  if (SUCCEEDED(hr)) hr = dataSource->GetEndTimeForQuery(&end);
  if (SUCCEEDED(hr)) {
    args.start = *start;
    args.end = *end;
  }
  CoTaskMemFree(start);
  CoTaskMemFree(end);
  if (FAILED(hr)) return hr;
  BSTR catalog = nullptr;
  BSTR schema = nullptr;
  if (SUCCEEDED(dataSource->GetDefaultCatalog(&catalog))) args.catalog = Text(catalog);
  if (SUCCEEDED(dataSource->GetDefaultSchema(&schema))) args.schema = Text(schema);
  SysFreeString(catalog);
  SysFreeString(schema);

  std::unique_ptr<CBaseTable> table;
  hr = info.Make(args, &table);
  if (SUCCEEDED(hr)) hr = table->EnsurePrepared();
  if (FAILED(hr)) return hr;
  std::unique_ptr<CDataStore> store(new (std::nothrow) CDataStore());
  if (!store) return E_OUTOFMEMORY;
  hr = store->Initialize(std::move(table), info.Columns);
  if (FAILED(hr)) return hr;
  auto* rowset = new (std::nothrow) CTableProviderRowset(std::move(store), creator);
  if (!rowset) return E_OUTOFMEMORY;
  hr = rowset->QueryInterface(riid, reinterpret_cast<void**>(ppRowset));
  rowset->Release();
  return hr;
}
