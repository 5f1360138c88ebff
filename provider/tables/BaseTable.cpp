#include "provider/tables/BaseTable.h"

CBaseTable::CBaseTable(const OLECHAR* name, std::vector<ColumnRecord> columns)
    : m_Name(name ? name : OLESTR("")), m_Columns(std::move(columns)) {}

CBaseTable::~CBaseTable() { StopWorker(); }

HRESULT CBaseTable::EnsurePrepared() {
  if (!m_bPrepared) {
    m_bPrepared = true;
    m_hrPrepare = Prepare();
  }
  return m_hrPrepare;
}

HRESULT CBaseTable::FetchRows(ProducedRecordList& rows, size_t wanted) {
  const HRESULT hr = EnsurePrepared();
  if (FAILED(hr)) {
    rows.clear();
    return hr;
  }
  return CDataProvider::FetchRows(rows, wanted);
}

BOOL CBaseTable::IsDataPending() { return HasMoreData() ? 1 : 0; }

bool CBaseTable::HasMoreData() { return CDataProvider::IsDataPending() != 0; }

HRESULT CBaseTable::Step() { return S_OK; }

HRESULT CBaseTable::ExecuteStep() { return Step(); }

HRESULT CBaseTable::GetColumns(std::vector<ColumnRecord>& columns) {
  columns = m_Columns;
  return S_OK;
}

HRESULT CBaseTable::ConvertValue(const VARIANT&, DWORD, VARIANT*, DWORD*) { return E_NOTIMPL; }

void CBaseTable::FinishProducing() {
  SetMoreData(false);
  RequestStop();
}
