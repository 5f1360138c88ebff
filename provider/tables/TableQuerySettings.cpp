#include "provider/tables/TableQuerySettings.h"

#include "base/Trace.h"

namespace {

std::vector<ColumnRecord> SettingsColumns() {
  TableInfo info;
  CTableFactory::GetTableInfo(OLESTR("QUERYSETTINGS"), &info);
  return info.Columns;
}

StoreValue Scalar(VARTYPE vt, LONG value) {
  VARIANT v;
  VariantInit(&v);
  V_VT(&v) = vt;
  switch (vt) {
    case VT_BOOL: V_BOOL(&v) = value ? VARIANT_TRUE : VARIANT_FALSE; break;
    case VT_UI4: V_UI4(&v) = static_cast<ULONG>(value); break;
    case VT_UI1: V_UI1(&v) = static_cast<BYTE>(value); break;
    default: break;
  }
  return StoreValue::TakeVariant(&v);
}

}  // namespace

CTableQuerySettings::CTableQuerySettings(const TableCreateArgs& args)
    : CBaseTable(OLESTR("QUERYSETTINGS"), SettingsColumns()), m_pDataSource(args.dataSource) {
  if (m_pDataSource) m_pDataSource->AddRef();
}

CTableQuerySettings::~CTableQuerySettings() {
  StopWorker();
  if (m_pDataSource) m_pDataSource->Release();
}

HRESULT CTableQuerySettings::Prepare() {
  if (!m_pDataSource) return E_INVALIDARG;
  IProviderDataSource* ds = m_pDataSource;
  ProducedRecord row(8);

  FILETIME* time = nullptr;
  HRESULT hr = ds->GetStartTime(&time);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read TIMESTAMP_START value (%X)."), hr);
    return hr;
  }
  row[0] = StoreValue::FromTime(*time);
  CoTaskMemFree(time);
  time = nullptr;
  hr = ds->GetEndTime(&time);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read TIMESTAMP_END value (%X)."), hr);
    return hr;
  }
  row[1] = StoreValue::FromTime(*time);
  CoTaskMemFree(time);

  LONG value = 0;
  hr = ds->GetUseUserTimeRange(&value);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read USE_USER_TIME_RANGE value (%X)."), hr);
    return hr;
  }
  row[2] = Scalar(VT_BOOL, value);
  hr = ds->GetMaxRowsToReturn(&value);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read MAX_ROWS_TO_RETURN value (%X)."), hr);
    return hr;
  }
  row[3] = Scalar(VT_UI4, value);
  hr = ds->GetTreatUncertainAsGood(&value);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read TREAT_UNCERTAIN_AS_GOOD value (%X)."), hr);
    return hr;
  }
  row[4] = Scalar(VT_BOOL, value);
  BYTE percent = 0;
  hr = ds->GetPercentDataBad(&percent);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read PERCENT_DATA_BAD value (%X)."), hr);
    return hr;
  }
  row[5] = Scalar(VT_UI1, percent);
  hr = ds->GetPercentDataGood(&percent);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read PERCENT_DATA_GOOD value (%X)."), hr);
    return hr;
  }
  row[6] = Scalar(VT_UI1, percent);
  hr = ds->GetAllowEmptyTag(&value);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] QUERYSETTINGS -> Failed to read ALLOW_EMPTY_TAG value (%X)."), hr);
    return hr;
  }
  row[7] = Scalar(VT_BOOL, value);

  AppendRecord(std::move(row));
  FinishProducing();
  return S_OK;
}
