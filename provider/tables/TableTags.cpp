#include "provider/tables/TableTags.h"

#include "base/Trace.h"

namespace {

std::vector<ColumnRecord> TagColumns() {
  TableInfo info;
  CTableFactory::GetTableInfo(OLESTR("TAGS"), &info);
  return info.Columns;
}

HRESULT TextValue(const OLECHAR* text, StoreValue* cell) {
  VARIANT v;
  V_VT(&v) = VT_BSTR;
  V_BSTR(&v) = SysAllocString(text ? text : OLESTR(""));
  if (!V_BSTR(&v)) return E_OUTOFMEMORY;
  *cell = StoreValue::TakeVariant(&v);
  return S_OK;
}

StoreValue UShortValue(USHORT value) {
  VARIANT v;
  V_VT(&v) = VT_UI2;
  V_UI2(&v) = value;
  return StoreValue::TakeVariant(&v);
}

}  // namespace

CTableTags::CTableTags(const TableCreateArgs& args)
    : CBaseTable(OLESTR("TAGS"), TagColumns()),
      m_pDataSource(args.dataSource),
      m_NameFilter(args.nameFilter),
      m_DescriptionFilter(args.descriptionFilter) {
  if (m_pDataSource) m_pDataSource->AddRef();
}

CTableTags::~CTableTags() {
  StopWorker();
  if (m_pDataSource) m_pDataSource->Release();
}

HRESULT CTableTags::Prepare() {
  if (!m_pDataSource) return E_INVALIDARG;
  IRawDataProvider* raw = nullptr;
  HRESULT hr = m_pDataSource->GetRawDataProvider(&raw);
  if (SUCCEEDED(hr) && !raw) hr = E_FAIL;
  ULONG count = 0;
  TagRecord* tags = nullptr;
  BOOL truncated = FALSE;
  if (SUCCEEDED(hr)) {
    hr = raw->BrowseTags(m_NameFilter.c_str(), m_DescriptionFilter.c_str(), &count, &tags, &truncated);
    raw->Release();
  }
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] TAGS -> Failed to read data from the server (%X)."), hr);
    return hr;
  }
  ProducedRecordList records;
  for (ULONG i = 0; tags && i < count && SUCCEEDED(hr); ++i) {
    ProducedRecord record(5);
    hr = TextValue(tags[i].name, &record[0]);
    if (SUCCEEDED(hr)) hr = TextValue(tags[i].description, &record[1]);
    if (FAILED(hr)) break;
    record[2] = UShortValue(tags[i].vartype);
    VARIANT stepped;
    V_VT(&stepped) = VT_BOOL;
    V_BOOL(&stepped) = tags[i].stepped ? VARIANT_TRUE : VARIANT_FALSE;
    record[3] = StoreValue::TakeVariant(&stepped);
    record[4] = UShortValue(static_cast<USHORT>(tags[i].accessRights));
    records.push_back(std::move(record));
  }
  FreeTagRecords(tags, count);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] TAGS -> Failed to prepare the output data (%X)."), hr);
    return hr;
  }
  AppendRecords(std::move(records));
  FinishProducing();
  return S_OK;
}
