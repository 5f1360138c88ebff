#include "provider/tables/TableResult.h"

#include "base/Trace.h"
#include "provider/tables/TableFactory.h"

CTableResult::CTableResult(const OLECHAR* name, const OLECHAR* message)
    : CBaseTable(name, CTableFactory::ResultColumns(name)), m_Message(message) {}

CTableResult::~CTableResult() { StopWorker(); }

HRESULT CTableResult::Prepare() {
  VARIANT text;
  V_VT(&text) = VT_BSTR;
  V_BSTR(&text) = SysAllocString(m_Message);
  if (!V_BSTR(&text)) {
    CVTRACE(TRACE_ERROR, OLESTR("[TABLE] %s -> Failed to prepare the output data (%X)."), Name().c_str(),
            E_OUTOFMEMORY);
    return E_OUTOFMEMORY;
  }
  ProducedRecord row(1);
  row[0] = StoreValue::TakeVariant(&text);
  AppendRecord(std::move(row));
  FinishProducing();
  return S_OK;
}
