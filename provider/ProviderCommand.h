// The OLE DB command object a session creates: it takes SQL text, has the provider's
// SQL front end parse it at Prepare, describes the output columns and parameters,
// takes `?` values from the consumer's parameter accessor and, at each Execute,
// refreshes the query time range, fixes the execution moment and runs the statement
// into a new command rowset.
#pragma once
#include <atomic>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/PropertyEngine.h"
#include "provider/ProviderCommandWithParameters.h"
#include "provider/execution/StatementPlan.h"
#include "provider/store/StoreValue.h"

class CProviderSession;

class CProviderCommand final : public ICommandText,
                               public ICommandPrepare,
                               public ICommandProperties,
                               public CProviderCommandWithParameters,
                               public IAccessor,
                               public IColumnsInfo,
                               public IConvertType,
                               public ISupportErrorInfo {
 public:
  // A new command of `session` (which it holds), returning interface `riid`.
  static HRESULT Create(CProviderSession* session, REFIID riid, IUnknown** ppCommand);

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // ICommand
  HRESULT STDMETHODCALLTYPE Cancel() override;
  HRESULT STDMETHODCALLTYPE Execute(IUnknown* pUnkOuter, REFIID riid, DBPARAMS* pParams, DBROWCOUNT* pcRowsAffected,
                                    IUnknown** ppRowset) override;
  HRESULT STDMETHODCALLTYPE GetDBSession(REFIID riid, IUnknown** ppSession) override;

  // ICommandText
  HRESULT STDMETHODCALLTYPE GetCommandText(GUID* pguidDialect, LPOLESTR* ppwszCommand) override;
  HRESULT STDMETHODCALLTYPE SetCommandText(REFGUID rguidDialect, LPCOLESTR pwszCommand) override;

  // ICommandPrepare
  HRESULT STDMETHODCALLTYPE Prepare(ULONG cExpectedRuns) override;
  HRESULT STDMETHODCALLTYPE Unprepare() override;

  // ICommandProperties
  HRESULT STDMETHODCALLTYPE GetProperties(const ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                          ULONG* pcPropertySets, DBPROPSET** prgPropertySets) override;
  HRESULT STDMETHODCALLTYPE SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) override;

  // IAccessor (parameter accessors, and row accessors its rowsets inherit)
  HRESULT STDMETHODCALLTYPE AddRefAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) override;
  HRESULT STDMETHODCALLTYPE CreateAccessor(DBACCESSORFLAGS dwAccessorFlags, DBCOUNTITEM cBindings,
                                           const DBBINDING rgBindings[], DBLENGTH cbRowSize, HACCESSOR* phAccessor,
                                           DBBINDSTATUS rgStatus[]) override;
  HRESULT STDMETHODCALLTYPE GetBindings(HACCESSOR hAccessor, DBACCESSORFLAGS* pdwAccessorFlags,
                                        DBCOUNTITEM* pcBindings, DBBINDING** prgBindings) override;
  HRESULT STDMETHODCALLTYPE ReleaseAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) override;

  // IColumnsInfo (of the prepared statement)
  HRESULT STDMETHODCALLTYPE GetColumnInfo(DBORDINAL* pcColumns, DBCOLUMNINFO** prgInfo,
                                          OLECHAR** ppStringsBuffer) override;
  HRESULT STDMETHODCALLTYPE MapColumnIDs(DBORDINAL cColumnIDs, const DBID rgColumnIDs[],
                                         DBORDINAL rgColumns[]) override;

  // IConvertType
  HRESULT STDMETHODCALLTYPE CanConvert(DBTYPE wFromType, DBTYPE wToType, DBCONVERTFLAGS dwConvertFlags) override;

  // ISupportErrorInfo
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) override;

  // Called when a rowset of this command goes away.
  void RowsetClosed() { openRowsets_.fetch_sub(1); }

 protected:
  bool HasOpenRowsets() override { return openRowsets_.load() > 0; }
  long PreparedParameterCount() override;

 private:
  explicit CProviderCommand(CProviderSession* session);
  ~CProviderCommand() override;

  struct Accessor {
    DBACCESSORFLAGS flags = 0;
    std::vector<DBBINDING> bindings;
    DBREFCOUNT refs = 1;
  };

  HRESULT PostMessage(REFIID iid, HRESULT hr, const OLECHAR* message);
  void TraceUnsupported(HRESULT hr, REFIID riid);
  HRESULT PrepareLocked();
  void UnprepareLocked();
  HRESULT FillParameters(const DBPARAMS& params, std::vector<VARIANT>& values);
  HRESULT ConvertToDescribedType(IDataConvert* convert, DBTYPE described, DBTYPE boundType, DBLENGTH length,
                                 void* source, BYTE precision, BYTE scale, DBDATACONVERT flags, VARIANT* value);
  // Gives a new rowset of this command a copy of each of the command's row accessors,
  // under the same handles.
  HRESULT HandRowAccessorsTo(IUnknown* rowset);

  std::atomic<ULONG> refs_{1};
  std::atomic<long> openRowsets_{0};
  CProviderSession* session_;

  corvane::WString text_;
  bool hasText_ = false;
  GUID dialect_;
  // The prepared statement; the rowsets of earlier executions may still share it.
  std::shared_ptr<const StatementPlan> plan_;

  FILETIME nowUtc_{};
  FILETIME nowLocal_{};

  std::unordered_map<HACCESSOR, Accessor> accessors_;
  ULONG_PTR accessorGenerator_ = 0;

  corvane::CPropertyEngine properties_;
};
