// The data source's own interface for the provider's other objects (sessions,
// commands, tables, procedures): the historian interfaces, the catalog and schema
// names, and the query settings that decide the time range and page size of every
// query. Getters return E_INVALIDARG for a null out-pointer; interface getters add a
// reference; FILETIME getters allocate the result with CoTaskMemAlloc for the caller.
#pragma once
#include "platform/Platform.h"
#include "base/HistorianInterfaces.h"

class CDataStore;

// {4F537628-86CA-46A4-8D27-E60DE913BD5C}
inline constexpr IID IID_IProviderDataSource = {
    0x4F537628, 0x86CA, 0x46A4, {0x8D, 0x27, 0xE6, 0x0D, 0xE9, 0x13, 0xBD, 0x5C}};

struct IProviderDataSource : public IUnknown {
  // Replaces the held historian interfaces (any may be null).
  virtual HRESULT STDMETHODCALLTYPE InitializeDataSource(IRawDataProvider* raw, IProcessedDataProvider* processed,
                                                         IValuesProvider* values) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetRawDataProvider(IRawDataProvider** raw) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetProcessedDataProvider(IProcessedDataProvider** processed) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetValuesProvider(IValuesProvider** values) = 0;

  // The user time range (used when UseUserTimeRange is 1).
  virtual HRESULT STDMETHODCALLTYPE GetStartTime(FILETIME** start) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetStartTime(FILETIME start) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetEndTime(FILETIME** end) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEndTime(FILETIME end) = 0;

  virtual HRESULT STDMETHODCALLTYPE GetMaxRowsToReturn(LONG* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetMaxRowsToReturn(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetTreatUncertainAsGood(LONG* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetTreatUncertainAsGood(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPercentDataBad(BYTE* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetPercentDataBad(BYTE value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPercentDataGood(BYTE* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetPercentDataGood(BYTE value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAllowEmptyTag(LONG* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetAllowEmptyTag(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetUseUserTimeRange(LONG* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetUseUserTimeRange(LONG value) = 0;

  // Copies allocated with SysAllocString; the caller frees them.
  virtual HRESULT STDMETHODCALLTYPE GetDefaultCatalog(BSTR* catalog) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDefaultSchema(BSTR* schema) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentCatalog(BSTR* catalog) = 0;

  // The data store shared by the data source's objects; null until one is attached.
  virtual HRESULT STDMETHODCALLTYPE GetDataStore(CDataStore** store) = 0;

  // Sets the computed range to the 72 hours up to now; the command calls it before
  // each execution.
  virtual HRESULT STDMETHODCALLTYPE UpdateQueryTimeRange() = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStartTimeForQuery(FILETIME** start) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetEndTimeForQuery(FILETIME** end) = 0;
};
