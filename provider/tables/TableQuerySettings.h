// QUERYSETTINGS: the data source's query settings as one row. UPDATE of this table is
// carried out by command execution through the data source's setters.
#pragma once
#include "provider/tables/BaseTable.h"
#include "provider/tables/TableFactory.h"

class CTableQuerySettings final : public CBaseTable {
 public:
  explicit CTableQuerySettings(const TableCreateArgs& args);
  ~CTableQuerySettings() override;
  HRESULT Prepare() override;

 private:
  IProviderDataSource* m_pDataSource;
};
