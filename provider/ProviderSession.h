// The OLE DB session a data source creates: it opens tables directly, creates
// commands, serves the schema rowsets and the session properties, and keeps its data
// source alive for the commands and rowsets made through it.
#pragma once
#include <atomic>

#include "platform/Platform.h"
#include "platform/Sync.h"
#include "provider/IProviderDataSource.h"
#include "provider/PropertyEngine.h"

struct SchemaCatalog;

class CProviderSession final : public IOpenRowset,
                               public IDBCreateCommand,
                               public IDBSchemaRowset,
                               public IGetDataSource,
                               public ISessionProperties,
                               public ISupportErrorInfo {
 public:
  // A new session over `dataSource` (which it holds), returning interface `riid`.
  // `openSessions` (may be null) is the data source's count of live sessions: the
  // session adds itself to it now and takes itself off when it is destroyed.
  static HRESULT Create(IProviderDataSource* dataSource, std::atomic<long>* openSessions, REFIID riid,
                        IUnknown** ppSession);

  // For the session's commands: the data source with a reference for the caller.
  HRESULT GetProviderDataSource(IProviderDataSource** dataSource);

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IOpenRowset
  HRESULT STDMETHODCALLTYPE OpenRowset(IUnknown* pUnkOuter, DBID* pTableID, DBID* pIndexID, REFIID riid,
                                       ULONG cPropertySets, DBPROPSET rgPropertySets[], IUnknown** ppRowset) override;

  // IDBCreateCommand
  HRESULT STDMETHODCALLTYPE CreateCommand(IUnknown* pUnkOuter, REFIID riid, IUnknown** ppCommand) override;

  // IDBSchemaRowset
  HRESULT STDMETHODCALLTYPE GetRowset(IUnknown* pUnkOuter, REFGUID rguidSchema, ULONG cRestrictions,
                                      const VARIANT rgRestrictions[], REFIID riid, ULONG cPropertySets,
                                      DBPROPSET rgPropertySets[], IUnknown** ppRowset) override;
  HRESULT STDMETHODCALLTYPE GetSchemas(ULONG* pcSchemas, GUID** prgSchemas, ULONG** prgRestrictionSupport) override;
  // Writes the restriction mask of every supported schema among `rguidSchema` into the
  // matching slot of `rgRestrictions`; other slots keep what the caller put there.
  HRESULT SetRestrictions(ULONG cRestrictions, const GUID* rguidSchema, ULONG* rgRestrictions);

  // IGetDataSource
  HRESULT STDMETHODCALLTYPE GetDataSource(REFIID riid, IUnknown** ppDataSource) override;

  // ISessionProperties
  HRESULT STDMETHODCALLTYPE GetProperties(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                          ULONG* pcPropertySets, DBPROPSET** prgPropertySets) override;
  HRESULT STDMETHODCALLTYPE SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) override;

  // ISupportErrorInfo
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) override;

 private:
  CProviderSession(IProviderDataSource* dataSource, std::atomic<long>* openSessions);
  ~CProviderSession();

  HRESULT Fail(REFIID iid, HRESULT hr);
  void TraceUnsupported(HRESULT hr, REFIID riid);
  HRESULT DescribeCatalog(SchemaCatalog* catalog);
  // Applies the consumer's rowset properties to a new rowset's property list; fails
  // when a required one cannot be honoured.
  HRESULT CheckRowsetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]);

  std::atomic<ULONG> refs_{1};
  IProviderDataSource* dataSource_;
  std::atomic<long>* openSessions_;
  corvane::platform::CriticalSection lock_;
  corvane::CPropertyEngine properties_;
};
