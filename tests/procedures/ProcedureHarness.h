// A procedure under test: a data source stand-in with adjustable settings over the
// reference historian (behind the fault-injecting host), a parser for the call, and a
// fetch of every row.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "historian/HistorianStore.h"
#include "provider/IProviderDataSource.h"
#include "provider/procedures/BaseStoredProcedure.h"
#include "tests/support/FaultInjectingHost.h"

namespace corvane::test {

class CTestDataSource final : public IProviderDataSource {
 public:
  CTestDataSource(IRawDataProvider* raw, IProcessedDataProvider* processed, IValuesProvider* values);
  ~CTestDataSource();
  LONG maxRows = 2000;
  HRESULT maxRowsResult = S_OK;
  HRESULT settingsResult = S_OK;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }  // owned by the harness
  HRESULT STDMETHODCALLTYPE InitializeDataSource(IRawDataProvider*, IProcessedDataProvider*, IValuesProvider*) override;
  HRESULT STDMETHODCALLTYPE GetRawDataProvider(IRawDataProvider** raw) override;
  HRESULT STDMETHODCALLTYPE GetProcessedDataProvider(IProcessedDataProvider** processed) override;
  HRESULT STDMETHODCALLTYPE GetValuesProvider(IValuesProvider** values) override;
  HRESULT STDMETHODCALLTYPE GetStartTime(FILETIME**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetStartTime(FILETIME) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetEndTime(FILETIME**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetEndTime(FILETIME) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMaxRowsToReturn(LONG* value) override;
  HRESULT STDMETHODCALLTYPE SetMaxRowsToReturn(LONG value) override;
  HRESULT STDMETHODCALLTYPE GetTreatUncertainAsGood(LONG* value) override;
  HRESULT STDMETHODCALLTYPE SetTreatUncertainAsGood(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPercentDataBad(BYTE* value) override;
  HRESULT STDMETHODCALLTYPE SetPercentDataBad(BYTE) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPercentDataGood(BYTE* value) override;
  HRESULT STDMETHODCALLTYPE SetPercentDataGood(BYTE) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetAllowEmptyTag(LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetAllowEmptyTag(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetUseUserTimeRange(LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetUseUserTimeRange(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDefaultCatalog(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDefaultSchema(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCurrentCatalog(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDataStore(CDataStore**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE UpdateQueryTimeRange() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetStartTimeForQuery(FILETIME**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetEndTimeForQuery(FILETIME**) override { return E_NOTIMPL; }

  ULONG refs_ = 1;

 private:
  IRawDataProvider* raw_;
  IProcessedDataProvider* processed_;
  IValuesProvider* values_;
};

// One historian, one fault-injecting host over it, one data source per harness.
class ProcedureHarness {
 public:
  explicit ProcedureHarness(bool withValues = true);
  ~ProcedureHarness();

  historian::CHistorianStore& Store() { return *store_; }
  testing::CFaultInjectingHost& Host() { return *host_; }
  CTestDataSource& DataSource() { return *dataSource_; }

  // Parses `sql` (default catalog "Plant", schema "Main") and creates its procedure.
  HRESULT Create(const std::string& sql, std::unique_ptr<CBaseStoredProcedure>* procedure);
  // Creates, then fetches every row; the rows go to *rows.
  HRESULT Run(const std::string& sql, ProducedRecordList* rows);

 private:
  std::shared_ptr<historian::CHistorianStore> store_;
  IUnknown* historian_ = nullptr;
  testing::CFaultInjectingHost* host_ = nullptr;
  std::unique_ptr<CTestDataSource> dataSource_;
  std::vector<std::unique_ptr<CSQLQueryInfo>> queries_;
};

// 1 January 2020 00:00:00 UTC plus `seconds`.
ULONGLONG T(double seconds);
std::string Text(const StoreValue& cell);  // a BSTR cell as UTF-8
double Number(const StoreValue& cell);     // a numeric cell
ULONG Unsigned(const StoreValue& cell);    // a VT_UI4 cell
ULONGLONG Time(const StoreValue& cell);    // a timestamp cell

}  // namespace corvane::test
