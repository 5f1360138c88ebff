// The rowset IOpenRowset returns for a table identifier: the table read as
// `SELECT * FROM <table>` over the query settings' time range, with no tag
// restriction, served through the shared rowset core with the table rowset's
// properties.
#pragma once
#include "platform/Platform.h"
#include "provider/IProviderDataSource.h"
#include "provider/ProviderIRowset.h"

class CTableProviderRowset final : public CProviderIRowset {
 public:
  // `tableName`: the name from the table identifier (any case). `creator`: the
  // session, held by the rowset. The session refreshes the data source's computed time
  // range (UpdateQueryTimeRange) before calling, as a command does.
  // DB_E_NOTABLE for a name the catalog does not know; E_INVALIDARG for a null data
  // source, name or ppRowset; otherwise the table's failure.
  static HRESULT Open(IProviderDataSource* dataSource, IUnknown* creator, const OLECHAR* tableName,
                      REFIID riid, IUnknown** ppRowset);

 private:
  CTableProviderRowset(std::unique_ptr<CDataStore> store, IUnknown* creator);
  ~CTableProviderRowset() override = default;
};
