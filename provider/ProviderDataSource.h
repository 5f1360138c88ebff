// The OLE DB data source object that ICreateCorvaneOleDbProvider::Create returns. It
// holds, for all of its sessions, the host's historian interfaces, the default catalog
// and schema, and the query settings; it serves the standard data source interfaces
// (free-threaded) and IProviderDataSource for the provider's own objects.
#pragma once
#include <atomic>
#include <map>
#include <utility>

#include "base/ComPtr.h"
#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/IProviderDataSource.h"
#include "provider/PropertyEngine.h"
#include "provider/QuerySettings.h"

class CProviderDataSource final : public IDBInitialize,
                                  public IDBProperties,
                                  public IDBCreateSession,
                                  public IDBInfo,
                                  public IPersist,
                                  public ISupportErrorInfo,
                                  public IProviderDataSource {
 public:
  // A new object with a reference count of zero (the caller takes the first one).
  static HRESULT CreateInstance(CProviderDataSource** object);

  // Provider-string item numbers; unknown names are kept under kUnknownItem.
  enum ProviderStringItem : int {
    kUnknownItem = -1,
    kInitialSchema = 1,
    kDefaultTag = 2,
    kByrefStrings = 3,
    kUseTimestamps = 4,
    kTimestampStart = 5,
    kTimestampEnd = 6,
  };
  using ProviderStringItems = std::map<int, std::pair<corvane::WString, corvane::WString>>;

  // For the provider's objects and tests: the state behind the interfaces.
  bool IsInitialized() const { return initialized_.load(); }
  corvane::WString DataSourceName() const;

  // IUnknown (shared by every interface)
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IDBInitialize
  HRESULT STDMETHODCALLTYPE Initialize() override;
  HRESULT STDMETHODCALLTYPE Uninitialize() override;

  // IDBProperties
  HRESULT STDMETHODCALLTYPE GetProperties(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                          ULONG* pcPropertySets, DBPROPSET** prgPropertySets) override;
  HRESULT STDMETHODCALLTYPE GetPropertyInfo(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                            ULONG* pcPropertyInfoSets, DBPROPINFOSET** prgPropertyInfoSets,
                                            OLECHAR** ppDescBuffer) override;
  HRESULT STDMETHODCALLTYPE SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) override;

  // IDBCreateSession
  HRESULT STDMETHODCALLTYPE CreateSession(IUnknown* pUnkOuter, REFIID riid, IUnknown** ppDBSession) override;

  // IDBInfo
  HRESULT STDMETHODCALLTYPE GetKeywords(LPOLESTR* ppwszKeywords) override;
  HRESULT STDMETHODCALLTYPE GetLiteralInfo(ULONG cLiterals, const DBLITERAL rgLiterals[], ULONG* pcLiteralInfo,
                                           DBLITERALINFO** prgLiteralInfo, OLECHAR** ppCharBuffer) override;

  // IPersist
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* pClassID) override;

  // ISupportErrorInfo
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) override;

  // IProviderDataSource
  HRESULT STDMETHODCALLTYPE InitializeDataSource(IRawDataProvider* raw, IProcessedDataProvider* processed,
                                                 IValuesProvider* values) override;
  HRESULT STDMETHODCALLTYPE GetRawDataProvider(IRawDataProvider** raw) override;
  HRESULT STDMETHODCALLTYPE GetProcessedDataProvider(IProcessedDataProvider** processed) override;
  HRESULT STDMETHODCALLTYPE GetValuesProvider(IValuesProvider** values) override;
  HRESULT STDMETHODCALLTYPE GetStartTime(FILETIME** start) override;
  HRESULT STDMETHODCALLTYPE SetStartTime(FILETIME start) override;
  HRESULT STDMETHODCALLTYPE GetEndTime(FILETIME** end) override;
  HRESULT STDMETHODCALLTYPE SetEndTime(FILETIME end) override;
  HRESULT STDMETHODCALLTYPE GetMaxRowsToReturn(LONG* value) override;
  HRESULT STDMETHODCALLTYPE SetMaxRowsToReturn(LONG value) override;
  HRESULT STDMETHODCALLTYPE GetTreatUncertainAsGood(LONG* value) override;
  HRESULT STDMETHODCALLTYPE SetTreatUncertainAsGood(LONG value) override;
  HRESULT STDMETHODCALLTYPE GetPercentDataBad(BYTE* value) override;
  HRESULT STDMETHODCALLTYPE SetPercentDataBad(BYTE value) override;
  HRESULT STDMETHODCALLTYPE GetPercentDataGood(BYTE* value) override;
  HRESULT STDMETHODCALLTYPE SetPercentDataGood(BYTE value) override;
  HRESULT STDMETHODCALLTYPE GetAllowEmptyTag(LONG* value) override;
  HRESULT STDMETHODCALLTYPE SetAllowEmptyTag(LONG value) override;
  HRESULT STDMETHODCALLTYPE GetUseUserTimeRange(LONG* value) override;
  HRESULT STDMETHODCALLTYPE SetUseUserTimeRange(LONG value) override;
  HRESULT STDMETHODCALLTYPE GetDefaultCatalog(BSTR* catalog) override;
  HRESULT STDMETHODCALLTYPE GetDefaultSchema(BSTR* schema) override;
  HRESULT STDMETHODCALLTYPE GetCurrentCatalog(BSTR* catalog) override;
  HRESULT STDMETHODCALLTYPE GetDataStore(CDataStore** store) override;
  HRESULT STDMETHODCALLTYPE UpdateQueryTimeRange() override;
  HRESULT STDMETHODCALLTYPE GetStartTimeForQuery(FILETIME** start) override;
  HRESULT STDMETHODCALLTYPE GetEndTimeForQuery(FILETIME** end) override;

 private:
  CProviderDataSource();
  ~CProviderDataSource();

  void ParseProviderString(const OLECHAR* text);
  // Traces the failure and posts the error record of a failed standard operation.
  HRESULT Fail(REFIID iid, const OLECHAR* traceFormat, HRESULT hr);
  // Makes the session object; the session arrives with its own object.
  HRESULT CreateSessionObject(IUnknown* pUnkOuter, REFIID riid, IUnknown** ppDBSession);

  std::atomic<ULONG> refs_{0};
  std::atomic<bool> initialized_{false};
  std::atomic<long> openSessions_{0};
  corvane::platform::CriticalSection lock_;
  corvane::CPropertyEngine properties_;

  corvane::ComPtr<IRawDataProvider> raw_;
  corvane::ComPtr<IProcessedDataProvider> processed_;
  corvane::ComPtr<IValuesProvider> values_;
  CDataStore* dataStore_ = nullptr;

  corvane::WString dataSourceName_;
  corvane::WString defaultCatalog_;
  corvane::WString defaultSchema_;
  ProviderStringItems items_;
  corvane::QuerySettings settings_;
};
