// The common base of every virtual table: a data producer whose first fetch prepares
// the table (reads its settings, produces its rows or starts its worker), and whose
// worker, for tables that read in steps, runs one Step per signal.
#pragma once
#include <vector>

#include "provider/IProviderDataSource.h"
#include "provider/store/DataProvider.h"

class CBaseTable : public CDataProvider {
 public:
  // `name`: the table's catalog name, for traces. `columns`: its column map (a copy).
  CBaseTable(const OLECHAR* name, std::vector<ColumnRecord> columns);
  ~CBaseTable() override;

  // Prepares on the first call, then hands out what was produced. A failed Prepare is
  // returned from this and every later call.
  HRESULT FetchRows(ProducedRecordList& rows, size_t wanted) override;
  // Runs Prepare once (the first fetch does it too) so that an execution can report a
  // table that cannot start before any row is asked for.
  HRESULT EnsurePrepared();
  BOOL IsDataPending() override;

  // True while more rows may still come.
  virtual bool HasMoreData();
  // Table-specific: reads settings and produces the rows, or starts the worker.
  virtual HRESULT Prepare() = 0;
  // One unit of work on the worker; tables that produce everything in Prepare keep this.
  virtual HRESULT Step();
  HRESULT GetColumns(std::vector<ColumnRecord>& columns) override;
  // Raw-data tables: the cell value and quality for one historian sample. Here:
  // E_NOTIMPL.
  virtual HRESULT ConvertValue(const VARIANT& value, DWORD quality, VARIANT* outValue, DWORD* outQuality);

  const corvane::WString& Name() const { return m_Name; }
  const std::vector<ColumnRecord>& Columns() const { return m_Columns; }

 protected:
  HRESULT ExecuteStep() override;
  // Marks the rows complete and lets the worker (if any) end after this step.
  void FinishProducing();

 private:
  corvane::WString m_Name;
  std::vector<ColumnRecord> m_Columns;
  bool m_bPrepared = false;
  HRESULT m_hrPrepare = S_OK;
};
