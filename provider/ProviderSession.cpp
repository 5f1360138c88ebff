#include "provider/ProviderSession.h"

#include <new>

#include "base/Bstr.h"
#include "base/TaskMem.h"
#include "provider/ErrorReporting.h"
#include "base/InterfaceName.h"
#include "provider/Module.h"
#include "provider/ProviderCommand.h"
#include "provider/RowsetPropertySets.h"
#include "provider/SchemaRowsets.h"
#include "base/Trace.h"
#include "provider/execution/TableProviderRowset.h"

using corvane::WString;

namespace {

const OLECHAR kSource[] = OLESTR("CProviderSession class");

const corvane::PropertyDefinition kSessionProperties[] = {
    {DBPROP_SESS_AUTOCOMMITISOLEVELS, DBPROPFLAGS_SESSION | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE,
     corvane::PropertyDefault::I4(0), OLESTR("Autocommit Isolation Levels")},
};
const corvane::PropertySetDefinition kSessionSets[] = {
    {&DBPROPSET_SESSION, DBPROPFLAGS_SESSION, kSessionProperties,
     sizeof kSessionProperties / sizeof kSessionProperties[0]},
};

}  // namespace

HRESULT CProviderSession::Create(IProviderDataSource* dataSource, std::atomic<long>* openSessions, REFIID riid,
                                 IUnknown** ppSession) {
  if (!dataSource || !ppSession) return E_INVALIDARG;
  *ppSession = nullptr;
  auto* session = new (std::nothrow) CProviderSession(dataSource, openSessions);
  if (!session) return E_OUTOFMEMORY;
  const HRESULT hr = session->QueryInterface(riid, reinterpret_cast<void**>(ppSession));
  session->Release();
  return hr;
}

CProviderSession::CProviderSession(IProviderDataSource* dataSource, std::atomic<long>* openSessions)
    : dataSource_(dataSource),
      openSessions_(openSessions),
      properties_(kSessionSets, sizeof kSessionSets / sizeof kSessionSets[0]) {
  dataSource_->AddRef();
  if (openSessions_) openSessions_->fetch_add(1);
  corvane::module::Lock();
}

CProviderSession::~CProviderSession() {
  // The count lives in the data source, which this session still holds here.
  if (openSessions_) openSessions_->fetch_sub(1);
  dataSource_->Release();
  corvane::module::Unlock();
}

HRESULT CProviderSession::GetProviderDataSource(IProviderDataSource** dataSource) {
  if (!dataSource) return E_INVALIDARG;
  *dataSource = dataSource_;
  dataSource_->AddRef();
  return S_OK;
}

// ---- IUnknown

HRESULT CProviderSession::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IOpenRowset))
    *ppv = static_cast<IOpenRowset*>(this);
  else if (IsEqualIID(riid, IID_IDBCreateCommand))
    *ppv = static_cast<IDBCreateCommand*>(this);
  else if (IsEqualIID(riid, IID_IDBSchemaRowset))
    *ppv = static_cast<IDBSchemaRowset*>(this);
  else if (IsEqualIID(riid, IID_IGetDataSource))
    *ppv = static_cast<IGetDataSource*>(this);
  else if (IsEqualIID(riid, IID_ISessionProperties))
    *ppv = static_cast<ISessionProperties*>(this);
  else if (IsEqualIID(riid, IID_ISupportErrorInfo))
    *ppv = static_cast<ISupportErrorInfo*>(this);
  else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG CProviderSession::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CProviderSession::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

// ---- Failures

HRESULT CProviderSession::Fail(REFIID iid, HRESULT hr) {
  corvane::PostFailure(iid, hr, kSource);
  return hr;
}

void CProviderSession::TraceUnsupported(HRESULT hr, REFIID riid) {
  if (hr == E_NOINTERFACE)
    CVTRACE(TRACE_WARNING, OLESTR("Unsupported interface '%s'."), corvane::InterfaceName(riid).c_str());
}

HRESULT CProviderSession::CheckRowsetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) {
  if (cPropertySets == 0) return S_OK;
  if (!rgPropertySets) return E_INVALIDARG;
  for (ULONG s = 0; s < cPropertySets; ++s)
    if (rgPropertySets[s].cProperties && !rgPropertySets[s].rgProperties) return E_INVALIDARG;
  size_t count = 0;
  const corvane::PropertySetDefinition* sets = corvane::TableRowsetPropertySets(&count);
  // The table rowsets take no setting that changes how they read: a throw-away engine
  // decides the status of each property by the standard rules and nothing more.
  corvane::CPropertyEngine engine(sets, count);
  return engine.SetProperties(cPropertySets, rgPropertySets, corvane::CPropertyEngine::SetMode::AllRequired);
}

// ---- IOpenRowset

HRESULT CProviderSession::OpenRowset(IUnknown* pUnkOuter, DBID* pTableID, DBID* pIndexID, REFIID riid,
                                     ULONG cPropertySets, DBPROPSET rgPropertySets[], IUnknown** ppRowset) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::OpenRowset"));
  corvane::ClearErrorRecords();
  if (ppRowset) *ppRowset = nullptr;
  HRESULT hr = S_OK;
  HRESULT propertiesHr = S_OK;
  if (!pTableID && !pIndexID) {
    hr = E_INVALIDARG;
  } else if (pIndexID) {
    hr = DB_E_NOINDEX;  // the virtual tables have no indexes
  } else if (pTableID->eKind != DBKIND_NAME || !pTableID->uName.pwszName || !*pTableID->uName.pwszName) {
    hr = DB_E_NOTABLE;
  } else if (pUnkOuter && !IsEqualIID(riid, IID_IUnknown)) {
    hr = DB_E_NOAGGREGATION;
  } else if (pUnkOuter) {
    hr = DB_E_NOAGGREGATION;  // the rowsets cannot be aggregated
  } else {
    propertiesHr = CheckRowsetProperties(cPropertySets, rgPropertySets);
    if (FAILED(propertiesHr)) {
      hr = propertiesHr;
    } else if (!ppRowset) {
      // Only asked whether the table could be opened.
      TableInfo info;
      hr = CTableFactory::GetTableInfo(pTableID->uName.pwszName, &info) == S_OK ? S_OK : DB_E_NOTABLE;
    } else {
      hr = dataSource_->UpdateQueryTimeRange();
      if (SUCCEEDED(hr))
        hr = CTableProviderRowset::Open(dataSource_, static_cast<IOpenRowset*>(this), pTableID->uName.pwszName,
                                        riid, ppRowset);
    }
  }
  if (SUCCEEDED(hr)) return propertiesHr == DB_S_ERRORSOCCURRED ? DB_S_ERRORSOCCURRED : hr;
  CVTRACE(TRACE_ERROR, OLESTR("Failed to open rowset (%X)."), static_cast<unsigned>(hr));
  TraceUnsupported(hr, riid);
  return Fail(IID_IOpenRowset, hr);
}

// ---- IDBCreateCommand

HRESULT CProviderSession::CreateCommand(IUnknown* pUnkOuter, REFIID riid, IUnknown** ppCommand) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::CreateCommand"));
  corvane::ClearErrorRecords();
  HRESULT hr;
  if (!ppCommand) {
    hr = E_INVALIDARG;
  } else {
    *ppCommand = nullptr;
    if (pUnkOuter)
      hr = DB_E_NOAGGREGATION;
    else
      hr = CProviderCommand::Create(this, riid, ppCommand);
  }
  if (SUCCEEDED(hr)) return hr;
  CVTRACE(TRACE_ERROR, OLESTR("Failed to create command (%X)."), static_cast<unsigned>(hr));
  TraceUnsupported(hr, riid);
  return Fail(IID_IDBCreateCommand, hr);
}

// ---- IDBSchemaRowset

HRESULT CProviderSession::DescribeCatalog(SchemaCatalog* catalog) {
  corvane::Bstr name;
  HRESULT hr = dataSource_->GetDefaultCatalog(name.Put());
  if (FAILED(hr)) return hr;
  catalog->catalog = name ? name.Get() : OLESTR("");
  hr = dataSource_->GetDefaultSchema(name.Put());
  if (FAILED(hr)) return hr;
  catalog->schema = name ? name.Get() : OLESTR("");
  catalog->tables = CTableFactory::EnumerateTables();
  EnumerateProcedures(&catalog->procedures);
  return S_OK;
}

HRESULT CProviderSession::GetRowset(IUnknown* pUnkOuter, REFGUID rguidSchema, ULONG cRestrictions,
                                    const VARIANT rgRestrictions[], REFIID riid, ULONG cPropertySets,
                                    DBPROPSET rgPropertySets[], IUnknown** ppRowset) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::GetRowset"));
  corvane::ClearErrorRecords();
  HRESULT hr = S_OK;
  HRESULT propertiesHr = S_OK;
  if (ppRowset) *ppRowset = nullptr;
  if (!ppRowset || (cRestrictions && !rgRestrictions)) {
    hr = E_INVALIDARG;
  } else if (pUnkOuter) {
    hr = DB_E_NOAGGREGATION;
  } else if (!CSchemaRowsets::RestrictionMask(rguidSchema, nullptr)) {
    hr = E_INVALIDARG;
  } else {
    propertiesHr = CheckRowsetProperties(cPropertySets, rgPropertySets);
    SchemaCatalog catalog;
    std::unique_ptr<CDataStore> store;
    if (FAILED(propertiesHr))
      hr = propertiesHr;
    else
      hr = DescribeCatalog(&catalog);
    if (SUCCEEDED(hr)) hr = CSchemaRowsets::Build(rguidSchema, catalog, cRestrictions, rgRestrictions, &store);
    if (SUCCEEDED(hr))
      hr = CProviderIRowset::Create(std::move(store), CProviderIRowset::RowsetKind::Table,
                                    static_cast<IOpenRowset*>(this), riid, reinterpret_cast<void**>(ppRowset));
  }
  if (SUCCEEDED(hr)) return propertiesHr == DB_S_ERRORSOCCURRED ? DB_S_ERRORSOCCURRED : hr;
  CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderSession::GetRowset, HR = %X"), static_cast<unsigned>(hr));
  TraceUnsupported(hr, riid);
  return Fail(IID_IDBSchemaRowset, hr);
}

HRESULT CProviderSession::GetSchemas(ULONG* pcSchemas, GUID** prgSchemas, ULONG** prgRestrictionSupport) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::GetSchemas"));
  corvane::ClearErrorRecords();
  HRESULT hr = S_OK;
  if (pcSchemas) *pcSchemas = 0;
  if (prgSchemas) *prgSchemas = nullptr;
  if (prgRestrictionSupport) *prgRestrictionSupport = nullptr;
  if (!pcSchemas || !prgSchemas || !prgRestrictionSupport) {
    hr = E_INVALIDARG;
  } else {
    const size_t n = CSchemaRowsets::SchemaCount();
    auto guids = corvane::TaskMem<GUID>::Allocate(n);
    auto masks = corvane::TaskMem<ULONG>::Allocate(n);
    if (!guids || !masks) {
      hr = E_OUTOFMEMORY;
    } else {
      for (size_t i = 0; i < n; ++i) {
        guids[i] = CSchemaRowsets::SchemaAt(i);
        masks[i] = 0;
      }
      SetRestrictions(static_cast<ULONG>(n), guids.Get(), masks.Get());
      *pcSchemas = static_cast<ULONG>(n);
      *prgSchemas = guids.Detach();
      *prgRestrictionSupport = masks.Detach();
    }
  }
  if (SUCCEEDED(hr)) return hr;
  CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderSession::GetSchemas, HR = %X"), static_cast<unsigned>(hr));
  return Fail(IID_IDBSchemaRowset, hr);
}

HRESULT CProviderSession::SetRestrictions(ULONG cRestrictions, const GUID* rguidSchema, ULONG* rgRestrictions) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::SetRestrictions"));
  for (ULONG i = 0; i < cRestrictions; ++i) {
    ULONG mask = 0;
    if (CSchemaRowsets::RestrictionMask(rguidSchema[i], &mask)) rgRestrictions[i] = mask;
  }
  return S_OK;
}

// ---- IGetDataSource

HRESULT CProviderSession::GetDataSource(REFIID riid, IUnknown** ppDataSource) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::GetDataSource"));
  if (!ppDataSource) return E_INVALIDARG;
  *ppDataSource = nullptr;
  return dataSource_->QueryInterface(riid, reinterpret_cast<void**>(ppDataSource));
}

// ---- ISessionProperties

HRESULT CProviderSession::GetProperties(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                        ULONG* pcPropertySets, DBPROPSET** prgPropertySets) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::GetProperties"));
  corvane::ClearErrorRecords();
  corvane::platform::CriticalSectionLock guard(lock_);
  const HRESULT hr = properties_.GetProperties(cPropertyIDSets, rgPropertyIDSets, pcPropertySets, prgPropertySets);
  return FAILED(hr) ? Fail(IID_ISessionProperties, hr) : hr;
}

HRESULT CProviderSession::SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderSession::SetProperties"));
  corvane::ClearErrorRecords();
  corvane::platform::CriticalSectionLock guard(lock_);
  const HRESULT hr = properties_.SetProperties(cPropertySets, rgPropertySets);
  return FAILED(hr) ? Fail(IID_ISessionProperties, hr) : hr;
}

// ---- ISupportErrorInfo

HRESULT CProviderSession::InterfaceSupportsErrorInfo(REFIID riid) {
  // The interfaces whose failures post records.
  for (const IID* iid : {&IID_IOpenRowset, &IID_IDBCreateCommand, &IID_IDBSchemaRowset, &IID_ISessionProperties})
    if (IsEqualIID(riid, *iid)) return S_OK;
  return S_FALSE;
}
