#include "tests/procedures/ProcedureHarness.h"

#include <gtest/gtest.h>

#include "SQLParser/SQLParser.h"
#include "SQLParser/TimeConversion.h"
#include "historian/Aggregates.h"
#include "historian/ReferenceHistorian.h"
#include "provider/procedures/ProcedureFactory.h"

namespace corvane::test {

CTestDataSource::CTestDataSource(IRawDataProvider* raw, IProcessedDataProvider* processed, IValuesProvider* values)
    : raw_(raw), processed_(processed), values_(values) {}

CTestDataSource::~CTestDataSource() {
  if (raw_) raw_->Release();
  if (processed_) processed_->Release();
  if (values_) values_->Release();
}

HRESULT CTestDataSource::QueryInterface(REFIID riid, void** object) {
  if (!object) return E_INVALIDARG;
  if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IProviderDataSource)) {
    *object = this;
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

HRESULT CTestDataSource::InitializeDataSource(IRawDataProvider*, IProcessedDataProvider*, IValuesProvider*) {
  return E_NOTIMPL;
}

template <typename I>
static HRESULT Give(I* held, I** out) {
  if (!out) return E_INVALIDARG;
  *out = held;
  if (!held) return E_NOINTERFACE;
  held->AddRef();
  return S_OK;
}

HRESULT CTestDataSource::GetRawDataProvider(IRawDataProvider** raw) { return Give(raw_, raw); }
HRESULT CTestDataSource::GetProcessedDataProvider(IProcessedDataProvider** p) { return Give(processed_, p); }
HRESULT CTestDataSource::GetValuesProvider(IValuesProvider** values) { return Give(values_, values); }

HRESULT CTestDataSource::GetMaxRowsToReturn(LONG* value) {
  if (FAILED(maxRowsResult)) return maxRowsResult;
  *value = maxRows;
  return S_OK;
}
HRESULT CTestDataSource::SetMaxRowsToReturn(LONG value) {
  maxRows = value;
  return S_OK;
}
HRESULT CTestDataSource::GetTreatUncertainAsGood(LONG* value) {
  if (FAILED(settingsResult)) return settingsResult;
  *value = 1;
  return S_OK;
}
HRESULT CTestDataSource::GetPercentDataBad(BYTE* value) {
  *value = 0;
  return S_OK;
}
HRESULT CTestDataSource::GetPercentDataGood(BYTE* value) {
  *value = 0;
  return S_OK;
}

ProcedureHarness::ProcedureHarness(bool withValues) {
  store_ = std::make_shared<historian::CHistorianStore>();
  IAggregates* aggregates = nullptr;
  EXPECT_EQ(S_OK, historian::CAggregates::CreateInstance(nullptr, IID_IAggregates,
                                                         reinterpret_cast<void**>(&aggregates)));
  EXPECT_EQ(S_OK, historian::CReferenceHistorian::Create(store_, IID_IUnknown,
                                                         reinterpret_cast<void**>(&historian_), aggregates));
  if (aggregates) aggregates->Release();
  host_ = testing::CFaultInjectingHost::Create(historian_);
  IRawDataProvider* raw = nullptr;
  IProcessedDataProvider* processed = nullptr;
  IValuesProvider* values = nullptr;
  host_->QueryInterface(IID_IRawDataProvider, reinterpret_cast<void**>(&raw));
  host_->QueryInterface(IID_IProcessedDataProvider, reinterpret_cast<void**>(&processed));
  if (withValues) host_->QueryInterface(IID_IValuesProvider, reinterpret_cast<void**>(&values));
  dataSource_ = std::make_unique<CTestDataSource>(raw, processed, values);
}

ProcedureHarness::~ProcedureHarness() {
  EXPECT_EQ(1u, dataSource_->refs_) << "a procedure kept the data source";
  dataSource_.reset();
  EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
  host_->Release();
  historian_->Release();
}

HRESULT ProcedureHarness::Create(const std::string& sql, std::unique_ptr<CBaseStoredProcedure>* procedure) {
  const WString text = FromUtf8(sql);
  SQLParseRequest request{OLESTR("Plant"), OLESTR("Main"), text};
  std::unique_ptr<CSQLQueryInfo> query;
  HRESULT hr = CSQLParser::ParseQuery(request, &query);
  if (FAILED(hr)) return hr;
  if (!query) return E_FAIL;
  StoredProcedureCall call;
  call.query = query.get();
  for (const auto& item : query->FromItems())
    if (item->Kind() == SQL_SELECT_ITEM_SP) call.item = static_cast<const CSQLSelectItemSP*>(item.get());
  SetReferenceTimesToNow(&call.bindContext);
  call.dataSource = dataSource_.get();
  hr = CreateStoredProcedure(call, procedure);
  queries_.clear();  // the procedure keeps nothing of the query
  return hr;
}

HRESULT ProcedureHarness::Run(const std::string& sql, ProducedRecordList* rows) {
  std::unique_ptr<CBaseStoredProcedure> procedure;
  HRESULT hr = Create(sql, &procedure);
  if (FAILED(hr)) return hr;
  rows->clear();
  for (;;) {
    ProducedRecordList batch;
    hr = procedure->FetchRows(batch, 7);  // small batches: the fetch must wait and resume
    for (auto& r : batch) rows->push_back(std::move(r));
    if (hr != S_OK) break;
  }
  return hr == DB_S_ENDOFROWSET ? S_OK : hr;
}

ULONGLONG T(double seconds) {
  ULONGLONG base = 0;
  CalendarToTicks(2020, 1, 1, 0, 0, 0, 0, &base);
  return base + static_cast<ULONGLONG>(seconds * 1e7);
}

std::string Text(const StoreValue& cell) {
  if (cell.Kind != StoreValue::kVariant || V_VT(&cell.Value) != VT_BSTR) return "<not text>";
  return ToUtf8(V_BSTR(&cell.Value));
}

double Number(const StoreValue& cell) {
  VARIANT copy;
  VariantInit(&copy);
  if (cell.Kind != StoreValue::kVariant ||
      FAILED(VariantChangeType(&copy, const_cast<VARIANT*>(&cell.Value), 0, VT_R8)))
    return -999999;
  return V_R8(&copy);
}

ULONG Unsigned(const StoreValue& cell) {
  if (cell.Kind != StoreValue::kVariant || V_VT(&cell.Value) != VT_UI4) return 0xDEADBEEF;
  return V_UI4(&cell.Value);
}

ULONGLONG Time(const StoreValue& cell) { return cell.Kind == StoreValue::kTime ? FileTimeToTicks(cell.Time) : 0; }

}  // namespace corvane::test
