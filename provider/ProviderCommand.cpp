#include "provider/ProviderCommand.h"

#include <cstring>
#include <new>

#include "SQLParser/SQLParser.h"
#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "provider/ErrorReporting.h"
#include "base/InterfaceName.h"
#include "provider/Module.h"
#include "provider/ProviderIRowset.h"
#include "provider/ProviderSession.h"
#include "provider/RowsetPropertySets.h"
#include "base/Trace.h"
#include "provider/execution/CommandProviderRowset.h"
#include "provider/store/DataConvert.h"

using corvane::WString;

namespace {

const OLECHAR kSource[] = OLESTR("CProviderCommand class");

// The creator a command rowset holds: it answers for the command and tells the
// command when the rowset is gone, which is how the command knows rowsets are open.
class CRowsetCreator final : public IUnknown {
 public:
  explicit CRowsetCreator(CProviderCommand* command) : command_(command) {
    static_cast<ICommandText*>(command_)->AddRef();
  }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    return static_cast<ICommandText*>(command_)->QueryInterface(riid, ppv);
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }

 private:
  ~CRowsetCreator() {
    command_->RowsetClosed();
    static_cast<ICommandText*>(command_)->Release();
  }
  std::atomic<ULONG> refs_{1};
  CProviderCommand* command_;
};

ULONG64 Ticks(const FILETIME& ft) { return (static_cast<ULONG64>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

bool IsVariableLength(DBTYPE t) { return t == DBTYPE_STR || t == DBTYPE_WSTR || t == DBTYPE_BYTES; }

}  // namespace

// ---- Creation

HRESULT CProviderCommand::Create(CProviderSession* session, REFIID riid, IUnknown** ppCommand) {
  if (!session || !ppCommand) return E_INVALIDARG;
  *ppCommand = nullptr;
  corvane::ComPtr<ICommandText> command(new (std::nothrow) CProviderCommand(session));
  if (!command) return E_OUTOFMEMORY;
  return command->QueryInterface(riid, reinterpret_cast<void**>(ppCommand));
}

namespace {
const corvane::PropertySetDefinition* CommandSets() {
  size_t n = 0;
  return corvane::CommandRowsetPropertySets(&n);
}
size_t CommandSetCount() {
  size_t n = 0;
  corvane::CommandRowsetPropertySets(&n);
  return n;
}
}  // namespace

CProviderCommand::CProviderCommand(CProviderSession* session)
    : session_(session), dialect_(DBGUID_DEFAULT), properties_(CommandSets(), CommandSetCount()) {
  static_cast<IDBCreateCommand*>(session_)->AddRef();
  corvane::module::Lock();
}

CProviderCommand::~CProviderCommand() {
  UnprepareLocked();
  static_cast<IDBCreateCommand*>(session_)->Release();
  corvane::module::Unlock();
}

// ---- IUnknown

HRESULT CProviderCommand::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ICommand) || IsEqualIID(riid, IID_ICommandText))
    *ppv = static_cast<ICommandText*>(this);
  else if (IsEqualIID(riid, IID_ICommandPrepare))
    *ppv = static_cast<ICommandPrepare*>(this);
  else if (IsEqualIID(riid, IID_ICommandProperties))
    *ppv = static_cast<ICommandProperties*>(this);
  else if (IsEqualIID(riid, IID_ICommandWithParameters))
    *ppv = static_cast<ICommandWithParameters*>(this);
  else if (IsEqualIID(riid, IID_IAccessor))
    *ppv = static_cast<IAccessor*>(this);
  else if (IsEqualIID(riid, IID_IColumnsInfo))
    *ppv = static_cast<IColumnsInfo*>(this);
  else if (IsEqualIID(riid, IID_IConvertType))
    *ppv = static_cast<IConvertType*>(this);
  else if (IsEqualIID(riid, IID_ISupportErrorInfo))
    *ppv = static_cast<ISupportErrorInfo*>(this);
  else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG CProviderCommand::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CProviderCommand::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

// ---- Failures

HRESULT CProviderCommand::PostMessage(REFIID iid, HRESULT hr, const OLECHAR* message) {
  const WString description = corvane::DescribeFailure(iid, message);
  corvane::PostErrorRecord(iid, hr, kSource, description.c_str());
  return hr;
}

void CProviderCommand::TraceUnsupported(HRESULT hr, REFIID riid) {
  if (hr == E_NOINTERFACE)
    CVTRACE(TRACE_WARNING, OLESTR("Unsupported interface '%s'."), corvane::InterfaceName(riid).c_str());
}

// ---- ICommandText

HRESULT CProviderCommand::GetCommandText(GUID* pguidDialect, LPOLESTR* ppwszCommand) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::GetCommandText"));
  corvane::ClearErrorRecords();
  if (ppwszCommand) *ppwszCommand = nullptr;
  if (!ppwszCommand) {
    if (pguidDialect) *pguidDialect = DB_NULLGUID;
    return E_INVALIDARG;
  }
  corvane::platform::CriticalSectionLock guard(CommandLock());
  if (!hasText_) {
    if (pguidDialect) *pguidDialect = DB_NULLGUID;
    return DB_E_NOCOMMAND;
  }
  const size_t bytes = (text_.size() + 1) * sizeof(OLECHAR);
  *ppwszCommand = static_cast<LPOLESTR>(CoTaskMemAlloc(bytes));
  if (!*ppwszCommand) return E_OUTOFMEMORY;
  std::memcpy(*ppwszCommand, text_.c_str(), bytes);
  if (pguidDialect) *pguidDialect = dialect_;
  return S_OK;
}

HRESULT CProviderCommand::SetCommandText(REFGUID rguidDialect, LPCOLESTR pwszCommand) {
  const OLECHAR* text = pwszCommand ? pwszCommand : OLESTR("");
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::SetCommandText, QUERY = %s"), text);
  corvane::ClearErrorRecords();
  if (!*text) return Unprepare();

  HRESULT hr = S_OK;
  {
    corvane::platform::CriticalSectionLock guard(CommandLock());
    GUID dialect = rguidDialect;
    if (IsEqualGUID(dialect, DBGUID_SQL)) dialect = DBGUID_DEFAULT;
    if (HasOpenRowsets())
      hr = DB_E_OBJECTOPEN;
    else if (!IsEqualGUID(dialect, DBGUID_DEFAULT))
      hr = DB_E_DIALECTNOTSUPPORTED;
    else {
      UnprepareLocked();
      text_ = text;
      hasText_ = true;
      dialect_ = dialect;
    }
  }
  if (SUCCEEDED(hr)) return hr;
  CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderCommand::SetCommandText, HR = %X"), static_cast<unsigned>(hr));
  return PostMessage(IID_ICommandText, hr, OLESTR("Unable to set command text."));
}

// ---- ICommandPrepare

HRESULT CProviderCommand::Prepare(ULONG /*cExpectedRuns*/) {
  corvane::ClearErrorRecords();
  corvane::platform::CriticalSectionLock guard(CommandLock());
  if (HasOpenRowsets()) {
    CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::Prepare"));
    CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderCommand::Prepare, HR = %X"),
            static_cast<unsigned>(DB_E_OBJECTOPEN));
    corvane::PostFailure(IID_ICommandPrepare, DB_E_OBJECTOPEN, kSource);
    return DB_E_OBJECTOPEN;
  }
  return PrepareLocked();
}

HRESULT CProviderCommand::PrepareLocked() {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::Prepare"));
  UnprepareLocked();

  corvane::Bstr catalog, schema;
  {
    corvane::ComPtr<IProviderDataSource> ds;
    if (FAILED(session_->GetProviderDataSource(ds.Put())) || !ds)
      return PostMessage(IID_ICommandPrepare, E_FAIL, OLESTR("Unable to get data source object."));
    HRESULT hr = ds->GetDefaultCatalog(catalog.Put());
    if (FAILED(hr)) return PostMessage(IID_ICommandPrepare, hr, OLESTR("Unable to get default catalog."));
    if (!catalog || !*catalog.Get()) return PostMessage(IID_ICommandPrepare, E_FAIL, OLESTR("Default catalog is empty."));
    hr = ds->GetDefaultSchema(schema.Put());
    if (FAILED(hr)) return PostMessage(IID_ICommandPrepare, hr, OLESTR("Unable to get default schema."));
    if (!schema || !*schema.Get()) return PostMessage(IID_ICommandPrepare, E_FAIL, OLESTR("Default schema is empty."));
  }

  if (!hasText_ || text_.empty()) {
    // The parser's own voice: an empty statement is its observation, not the command's.
    if (TRACE_WARNING >= corvane::TraceThreshold() &&
        OTraceMsg::BeginTrace(corvane::ModuleTrace(), TRACE_WARNING, "SQLParser/SQLParser.cpp", __LINE__))
      OTraceMsg::TraceMsg(OLESTR("SQL query is empty."));
  }
  SQLParseRequest request;
  request.defaultCatalog = corvane::WStringView(catalog.Get(), catalog.Length());
  request.defaultSchema = corvane::WStringView(schema.Get(), schema.Length());
  request.queryText = text_;
  WString parseError;
  std::unique_ptr<CSQLQueryInfo> query;
  HRESULT hr = CSQLParser::ParseQuery(request, &query, &parseError);
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderCommand::Prepare, Failed to parse the query"));
    return PostMessage(IID_ICommandPrepare, hr, parseError.c_str());
  }
  if (!query) {
    CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderCommand::SetCommandText, No command text was set"));
    return PostMessage(IID_ICommandPrepare, E_FAIL, OLESTR("No command text was set."));
  }
  std::shared_ptr<const StatementPlan> plan;
  WString callMessage;
  hr = StatementPlan::Make(std::move(query), &plan, &callMessage);
  if (FAILED(hr) && !callMessage.empty()) {
    CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderCommand::Prepare, %s"), callMessage.c_str());
    return PostMessage(IID_ICommandPrepare, hr, callMessage.c_str());
  }
  if (SUCCEEDED(hr) && !plan->unknownColumn.empty()) {
    CVTRACE(TRACE_ERROR, OLESTR("Column '%s' is not a column of table '%s'"), plan->unknownColumn.c_str(),
            plan->source->Name.c_str());
    hr = DB_E_ERRORSINCOMMAND;
  }
  if (FAILED(hr)) {
    CVTRACE(TRACE_ERROR, OLESTR("ERROR in CProviderCommand::SetCommandText, Failed to initialize output columns"));
    return PostMessage(IID_ICommandPrepare, hr,
                       OLESTR("Unable to initialize output columns. Please, check the column names."));
  }
  // The column descriptions are the plan's: IColumnsInfo reads them as they are, so
  // there is no binding step left that could fail here.
  plan_ = std::move(plan);
  return S_OK;
}

HRESULT CProviderCommand::Unprepare() {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::Unprepare"));
  corvane::platform::CriticalSectionLock guard(CommandLock());
  if (HasOpenRowsets()) return DB_E_OBJECTOPEN;
  UnprepareLocked();
  return S_OK;
}

void CProviderCommand::UnprepareLocked() { plan_.reset(); }

long CProviderCommand::PreparedParameterCount() { return plan_ ? plan_->parameterCount : -1; }

// ---- IColumnsInfo

HRESULT CProviderCommand::GetColumnInfo(DBORDINAL* pcColumns, DBCOLUMNINFO** prgInfo, OLECHAR** ppStringsBuffer) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::GetColumnInfo"));
  corvane::ClearErrorRecords();
  if (pcColumns) *pcColumns = 0;
  if (prgInfo) *prgInfo = nullptr;
  if (ppStringsBuffer) *ppStringsBuffer = nullptr;
  if (!pcColumns || !prgInfo || !ppStringsBuffer) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(CommandLock());
  if (!plan_) return hasText_ ? DB_E_NOTPREPARED : DB_E_NOCOMMAND;
  const StatementPlan& plan = *plan_;
  const size_t count = plan.ColumnCount();
  if (count == 0) return S_OK;
  size_t chars = 0;
  for (size_t i = 0; i < count; ++i) chars += plan.ColumnAt(i).name.size() + 1;
  auto infos = corvane::TaskMem<DBCOLUMNINFO>::Allocate(count);
  auto strings = corvane::TaskMem<OLECHAR>::Allocate(chars);
  if (!infos || !strings) return E_OUTOFMEMORY;
  OLECHAR* next = strings.Get();
  for (size_t i = 0; i < count; ++i) {
    const StatementPlan::Column column = plan.ColumnAt(i);
    DBCOLUMNINFO& info = infos[i];
    std::memset(&info, 0, sizeof info);
    info.iOrdinal = i + 1;
    info.dwFlags = column.dwFlags;
    info.wType = column.wType;
    info.ulColumnSize = static_cast<DBLENGTH>(column.ColumnSize);
    info.bPrecision = 255;
    info.bScale = 255;
    info.columnid.eKind = DBKIND_NAME;
    const corvane::WStringView name = column.name;
    std::memcpy(next, name.data(), name.size() * sizeof(OLECHAR));
    next[name.size()] = 0;
    info.pwszName = next;
    info.columnid.uName.pwszName = next;
    next += name.size() + 1;
  }
  *pcColumns = count;
  *prgInfo = infos.Detach();
  *ppStringsBuffer = strings.Detach();
  return S_OK;
}

HRESULT CProviderCommand::MapColumnIDs(DBORDINAL cColumnIDs, const DBID rgColumnIDs[], DBORDINAL rgColumns[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::MapColumnIDs"));
  corvane::ClearErrorRecords();
  if (cColumnIDs == 0) return S_OK;
  if (!rgColumnIDs || !rgColumns) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(CommandLock());
  if (!plan_) return hasText_ ? DB_E_NOTPREPARED : DB_E_NOCOMMAND;
  DBORDINAL found = 0;
  for (DBORDINAL i = 0; i < cColumnIDs; ++i) {
    rgColumns[i] = DB_INVALIDCOLUMN;
    const DBID& id = rgColumnIDs[i];
    if (id.eKind != DBKIND_NAME || !id.uName.pwszName) continue;
    for (size_t c = 0; c < plan_->ColumnCount(); ++c) {
      if (corvane::WIEquals(plan_->ColumnAt(c).name, id.uName.pwszName)) {
        rgColumns[i] = c + 1;
        ++found;
        break;
      }
    }
  }
  if (found == cColumnIDs) return S_OK;
  return found ? DB_S_ERRORSOCCURRED : DB_E_ERRORSOCCURRED;
}

// ---- ICommand

HRESULT CProviderCommand::Cancel() {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::Cancel"));
  // Execute runs on the caller's thread and returns only when its rowset is made:
  // there is never an execution in progress to stop.
  return S_OK;
}

HRESULT CProviderCommand::GetDBSession(REFIID riid, IUnknown** ppSession) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::GetDBSession"));
  if (!ppSession) return E_INVALIDARG;
  *ppSession = nullptr;
  return static_cast<IDBCreateCommand*>(session_)->QueryInterface(riid, reinterpret_cast<void**>(ppSession));
}

namespace {

// The type a value of a described parameter travels in: text of any kind as a BSTR, a
// timestamp as an OLE date (the VARIANT form of a time), other types as themselves;
// DBTYPE_EMPTY when the value stays as the consumer bound it.
DBTYPE TravellingType(DBTYPE described) {
  switch (described & ~DBTYPE_BYREF) {
    case DBTYPE_STR:
    case DBTYPE_WSTR:
    case DBTYPE_BSTR: return DBTYPE_BSTR;
    case DBTYPE_DBTIMESTAMP: return DBTYPE_DATE;
    case DBTYPE_BOOL: case DBTYPE_I1: case DBTYPE_I2: case DBTYPE_I4: case DBTYPE_I8:
    case DBTYPE_UI1: case DBTYPE_UI2: case DBTYPE_UI4: case DBTYPE_UI8:
    case DBTYPE_R4: case DBTYPE_R8: case DBTYPE_DATE:
      return static_cast<DBTYPE>(described & ~DBTYPE_BYREF);
    default: return DBTYPE_EMPTY;
  }
}

size_t FixedSize(DBTYPE type) {
  switch (type) {
    case DBTYPE_I1: case DBTYPE_UI1: return 1;
    case DBTYPE_BOOL: case DBTYPE_I2: case DBTYPE_UI2: return 2;
    case DBTYPE_I4: case DBTYPE_UI4: case DBTYPE_R4: return 4;
    default: return 8;  // I8, UI8, R8, DATE
  }
}

}  // namespace

// A consumer that described a parameter's type gets its value in that type, whatever
// type its accessor binds: "5" bound as text for a DBTYPE_I4 parameter is the number 5.
// The bound value is converted to the described type first, then to the VARIANT the
// statement reads. A value that does not convert fails the execution.
HRESULT CProviderCommand::ConvertToDescribedType(IDataConvert* convert, DBTYPE described, DBTYPE boundType,
                                                 DBLENGTH length, void* source, BYTE precision, BYTE scale,
                                                 DBDATACONVERT flags, VARIANT* value) {
  union {
    BSTR text;
    unsigned char bytes[16];
  } middle;
  std::memset(&middle, 0, sizeof middle);
  DBLENGTH written = 0;
  DBSTATUS status = DBSTATUS_S_OK;
  HRESULT hr = convert->DataConvert(boundType, described, length, &written, source, &middle, sizeof middle,
                                    DBSTATUS_S_OK, &status, precision, scale, flags);
  if (SUCCEEDED(hr) && status != DBSTATUS_S_OK) hr = DB_E_CANTCONVERTVALUE;
  if (FAILED(hr)) {
    if (described == DBTYPE_BSTR) SysFreeString(middle.text);
    CVTRACE(TRACE_ERROR, OLESTR("A parameter value does not convert to its described type %d (%X)."),
            static_cast<int>(described), static_cast<unsigned>(hr));
    return hr;
  }
  // Every travelling type is also a VARIANT type with the same bytes; the VARIANT is
  // made here rather than by the conversion library, which not every system's offers
  // from each of these types.
  VariantClear(value);
  V_VT(value) = static_cast<VARTYPE>(described);
  if (described == DBTYPE_BSTR) V_BSTR(value) = middle.text;  // the VARIANT owns it now
  else std::memcpy(&V_UI1(value), middle.bytes, FixedSize(described));
  return S_OK;
}

HRESULT CProviderCommand::FillParameters(const DBPARAMS& params, std::vector<VARIANT>& values) {
  DBACCESSORFLAGS flags = 0;
  DBCOUNTITEM count = 0;
  // The copy GetBindings makes carries no storage objects: CreateAccessor keeps none.
  corvane::TaskMem<DBBINDING> bindings;
  HRESULT hr = GetBindings(params.hAccessor, &flags, &count, bindings.Put());
  // A row accessor of the command binds columns, not `?` values.
  if (SUCCEEDED(hr) && !(flags & DBACCESSOR_PARAMETERDATA)) hr = DB_E_BADACCESSORTYPE;
  if (FAILED(hr)) {
    corvane::PostFailure(IID_ICommand, hr, kSource);
    CVTRACE(TRACE_ERROR, OLESTR("Failed to get bindings, HR = %X."), static_cast<unsigned>(hr));
    return hr;
  }
  if (params.cParamSets != 1) {
    CVTRACE(TRACE_ERROR, OLESTR("MULTIPLEPARAMSETS is not allowed."));
    return E_FAIL;
  }

  const std::vector<ParameterDescription> described = ParameterDescriptions();
  corvane::ComPtr<IDataConvert> convert;
  hr = corvane::CreateDataConvert(convert.Put());
  const BYTE* data = static_cast<const BYTE*>(params.pData);
  if (SUCCEEDED(hr) && count && !data) hr = E_INVALIDARG;
  for (DBCOUNTITEM i = 0; SUCCEEDED(hr) && i < count; ++i) {
    const DBBINDING& b = bindings[i];
    if (!(b.eParamIO & DBPARAMIO_INPUT)) continue;
    if (b.iOrdinal == 0 || b.iOrdinal > values.size()) continue;  // not a `?` of this statement
    VARIANT& target = values[b.iOrdinal - 1];
    VariantClear(&target);
    DBSTATUS status = (b.dwPart & DBPART_STATUS) ? *reinterpret_cast<const DBSTATUS*>(data + b.obStatus)
                                                  : static_cast<DBSTATUS>(DBSTATUS_S_OK);
    if (status == DBSTATUS_S_ISNULL) {
      target.vt = VT_NULL;
      continue;
    }
    if (status == DBSTATUS_S_DEFAULT || status == DBSTATUS_S_IGNORE) continue;
    if (status != DBSTATUS_S_OK || !(b.dwPart & DBPART_VALUE)) {
      hr = DB_E_ERRORSOCCURRED;
      break;
    }
    void* source = const_cast<BYTE*>(data + b.obValue);
    DBTYPE type = b.wType;
    if (type & DBTYPE_BYREF) {
      source = *static_cast<void**>(source);
      type = static_cast<DBTYPE>(type & ~DBTYPE_BYREF);
    }
    DBLENGTH length = (b.dwPart & DBPART_LENGTH) ? *reinterpret_cast<const DBLENGTH*>(data + b.obLength) : 0;
    DBDATACONVERT convertFlags = 0;
    if (IsVariableLength(type) && !(b.dwPart & DBPART_LENGTH)) convertFlags |= DBDATACONVERT_LENGTHFROMNTS;
    DBLENGTH written = 0;
    DBSTATUS outStatus = DBSTATUS_S_OK;
    DBTYPE wanted = DBTYPE_EMPTY;
    for (const auto& d : described)
      if (d.ordinal == b.iOrdinal) wanted = TravellingType(d.type);
    if (wanted != DBTYPE_EMPTY && wanted != type) {
      hr = ConvertToDescribedType(convert.Get(), wanted, type, length, source, b.bPrecision, b.bScale, convertFlags,
                                  &target);
      continue;
    }
    hr = convert->DataConvert(type, DBTYPE_VARIANT, length, &written, source, &target, sizeof(VARIANT),
                              DBSTATUS_S_OK, &outStatus, b.bPrecision, b.bScale, convertFlags);
    if (SUCCEEDED(hr) && outStatus != DBSTATUS_S_OK) hr = DB_E_CANTCONVERTVALUE;
  }
  if (FAILED(hr)) {
    corvane::PostFailure(IID_ICommand, hr, kSource);
    CVTRACE(TRACE_ERROR, OLESTR("Failed to fill parameters, HR = %X."), static_cast<unsigned>(hr));
  }
  return hr;
}

HRESULT CProviderCommand::Execute(IUnknown* pUnkOuter, REFIID riid, DBPARAMS* pParams, DBROWCOUNT* pcRowsAffected,
                                  IUnknown** ppRowset) {
  corvane::ClearErrorRecords();
  corvane::platform::CriticalSectionLock guard(CommandLock());
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::Execute, QUERY = %s"), text_.c_str());
  if (ppRowset) *ppRowset = nullptr;
  if (pcRowsAffected) *pcRowsAffected = DB_COUNTUNAVAILABLE;
  if (pUnkOuter) return corvane::PostFailure(IID_ICommand, DB_E_NOAGGREGATION, kSource), DB_E_NOAGGREGATION;
  if (!hasText_) return corvane::PostFailure(IID_ICommand, DB_E_NOCOMMAND, kSource), DB_E_NOCOMMAND;

  corvane::ComPtr<IProviderDataSource> ds;
  HRESULT hr = session_->GetProviderDataSource(ds.Put());
  if (FAILED(hr) || !ds) return PostMessage(IID_ICommand, FAILED(hr) ? hr : E_FAIL, OLESTR("Unable to get data source object."));
  hr = ds->UpdateQueryTimeRange();
  if (FAILED(hr)) return PostMessage(IID_ICommand, hr, OLESTR("Unable to update time range for the query."));

  // The plan made at Prepare runs as it is: the default catalog and schema it was
  // parsed with are fixed while the session lives, and what depends on the `?` values,
  // the clock and the query settings is worked out by each execution.
  if (!plan_) {
    hr = PrepareLocked();
    if (FAILED(hr)) return hr;
  }

  GetSystemTimeAsFileTime(&nowUtc_);
  FileTimeToLocalFileTime(&nowUtc_, &nowLocal_);

  std::vector<VARIANT> values(static_cast<size_t>(plan_->parameterCount));
  for (auto& v : values) VariantInit(&v);
  struct Cleaner {
    std::vector<VARIANT>& v;
    ~Cleaner() {
      for (auto& x : v) VariantClear(&x);
    }
  } cleanValues{values};

  if (pParams) {
    hr = FillParameters(*pParams, values);
    if (FAILED(hr)) return hr;
  }
  // Every `?` needs a value by now; the statement cannot run with a hole in it.
  for (size_t i = 0; i < values.size(); ++i) {
    if (values[i].vt == VT_EMPTY) {
      CVTRACE(TRACE_ERROR, OLESTR("Parameter %d has no value"), static_cast<int>(i + 1));
      return corvane::PostFailure(IID_ICommand, DB_E_PARAMNOTOPTIONAL, kSource), DB_E_PARAMNOTOPTIONAL;
    }
  }

  CommandExecutionRequest request;
  request.dataSource = ds.Get();
  request.commandText = text_;
  request.plan = plan_;
  request.binding.parameters = values.empty() ? nullptr : values.data();
  request.binding.parameterCount = values.size();
  request.binding.nowLocal = Ticks(nowLocal_);
  request.binding.nowUtc = Ticks(nowUtc_);
  WString message;
  request.message = &message;

  corvane::ComPtr<IUnknown> creator(new (std::nothrow) CRowsetCreator(this));
  if (!creator) hr = E_OUTOFMEMORY;
  if (creator) {
    openRowsets_.fetch_add(1);
    request.creator = creator.Get();
    corvane::ComPtr<IUnknown> rowset;
    hr = CCommandProviderRowset::Execute(request, pcRowsAffected, riid, ppRowset ? rowset.Put() : nullptr);
    creator.Reset();  // the rowset keeps its own reference while it lives
    if (SUCCEEDED(hr) && rowset) hr = HandRowAccessorsTo(rowset.Get());
    if (SUCCEEDED(hr) && ppRowset) *ppRowset = rowset.Detach();
  }
  if (SUCCEEDED(hr)) return hr;
  CVTRACE(TRACE_ERROR, OLESTR("Failed to create create rowset (%X)."), static_cast<unsigned>(hr));
  TraceUnsupported(hr, riid);
  if (message.empty())
    corvane::PostFailure(IID_ICommand, hr, kSource);
  else
    PostMessage(IID_ICommand, hr, message.c_str());
  return hr;
}

HRESULT CProviderCommand::HandRowAccessorsTo(IUnknown* rowset) {
  bool any = false;
  for (const auto& entry : accessors_) any = any || (entry.second.flags & DBACCESSOR_ROWDATA);
  if (!any) return S_OK;
  corvane::ComPtr<IAccessor> accessor;
  HRESULT hr = rowset->QueryInterface(IID_IAccessor, accessor.PutVoid());
  if (FAILED(hr)) return hr;
  // Execute's rowsets are all built on the shared rowset core, whose IAccessor this is.
  auto* core = static_cast<CProviderIRowset*>(accessor.Get());
  for (const auto& entry : accessors_) {
    if (!(entry.second.flags & DBACCESSOR_ROWDATA)) continue;
    const Accessor& a = entry.second;
    hr = core->InheritAccessor(entry.first, a.flags, a.bindings.size(), a.bindings.data());
    if (FAILED(hr)) {
      CVTRACE(TRACE_ERROR, OLESTR("Row accessor %d does not fit the rowset, HR = %X"),
              static_cast<int>(entry.first), static_cast<unsigned>(hr));
      break;
    }
  }
  return hr;
}

// ---- ICommandProperties

HRESULT CProviderCommand::GetProperties(const ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                        ULONG* pcPropertySets, DBPROPSET** prgPropertySets) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::GetProperties"));
  corvane::ClearErrorRecords();
  const HRESULT hr = properties_.GetProperties(cPropertyIDSets, rgPropertyIDSets, pcPropertySets, prgPropertySets);
  if (FAILED(hr)) corvane::PostFailure(IID_ICommandProperties, hr, kSource);
  return hr;
}

HRESULT CProviderCommand::SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::SetProperties"));
  corvane::ClearErrorRecords();
  HRESULT hr;
  {
    corvane::platform::CriticalSectionLock guard(CommandLock());
    hr = HasOpenRowsets() ? DB_E_OBJECTOPEN : properties_.SetProperties(cPropertySets, rgPropertySets);
  }
  if (FAILED(hr)) corvane::PostFailure(IID_ICommandProperties, hr, kSource);
  return hr;
}

// ---- IAccessor

HRESULT CProviderCommand::CreateAccessor(DBACCESSORFLAGS dwAccessorFlags, DBCOUNTITEM cBindings,
                                         const DBBINDING rgBindings[], DBLENGTH /*cbRowSize*/, HACCESSOR* phAccessor,
                                         DBBINDSTATUS rgStatus[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommand::CreateAccessor"));
  if (!phAccessor) return E_INVALIDARG;
  *phAccessor = DB_NULL_HACCESSOR;
  if (cBindings && !rgBindings) return E_INVALIDARG;
  // Parameter accessors for Execute, or row accessors that every rowset of the command
  // inherits; one accessor is not both.
  const DBACCESSORFLAGS kind = dwAccessorFlags & ~static_cast<DBACCESSORFLAGS>(DBACCESSOR_OPTIMIZED);
  if (kind == (DBACCESSOR_ROWDATA | DBACCESSOR_PASSBYREF)) return DB_E_BYREFACCESSORNOTSUPPORTED;
  if (kind != DBACCESSOR_PARAMETERDATA && kind != DBACCESSOR_ROWDATA) return DB_E_BADACCESSORFLAGS;
  const bool rows = kind == DBACCESSOR_ROWDATA;
  if (cBindings == 0) return DB_E_NULLACCESSORNOTSUPPORTED;

  corvane::platform::CriticalSectionLock guard(CommandLock());
  bool bad = false;
  for (DBCOUNTITEM i = 0; i < cBindings; ++i) {
    const DBBINDING& b = rgBindings[i];
    DBBINDSTATUS status = DBBINDSTATUS_OK;
    // The columns are known once prepared; conversions are checked by the rowset that
    // inherits the accessor, at Execute.
    if (b.iOrdinal == 0 || (rows && plan_ && b.iOrdinal > plan_->ColumnCount()))
      status = DBBINDSTATUS_BADORDINAL;
    else if (!(b.dwPart & (DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS)) ||
             (b.dwPart & ~static_cast<DBPART>(DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS)))
      status = DBBINDSTATUS_BADBINDINFO;
    else if (b.eParamIO != (rows ? DBPARAMIO_NOTPARAM : DBPARAMIO_INPUT))  // no output parameters
      status = DBBINDSTATUS_BADBINDINFO;
    else if ((b.wType & ~DBTYPE_BYREF) == DBTYPE_EMPTY || (b.wType & (DBTYPE_ARRAY | DBTYPE_VECTOR)))
      status = DBBINDSTATUS_BADBINDINFO;
    else if (rows && b.pObject)  // no column of the provider is a storage object
      status = DBBINDSTATUS_BADBINDINFO;
    if (rgStatus) rgStatus[i] = status;
    if (status != DBBINDSTATUS_OK) bad = true;
  }
  if (bad) return DB_E_ERRORSOCCURRED;

  Accessor accessor;
  accessor.flags = dwAccessorFlags;
  accessor.bindings.assign(rgBindings, rgBindings + cBindings);
  for (auto& b : accessor.bindings) b.pObject = nullptr;  // no storage objects among parameters
  const HACCESSOR handle = static_cast<HACCESSOR>(++accessorGenerator_);
  accessors_.emplace(handle, std::move(accessor));
  *phAccessor = handle;
  return S_OK;
}

HRESULT CProviderCommand::AddRefAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) {
  corvane::platform::CriticalSectionLock guard(CommandLock());
  auto it = accessors_.find(hAccessor);
  if (it == accessors_.end()) return DB_E_BADACCESSORHANDLE;
  ++it->second.refs;
  if (pcRefCount) *pcRefCount = it->second.refs;
  return S_OK;
}

HRESULT CProviderCommand::ReleaseAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) {
  corvane::platform::CriticalSectionLock guard(CommandLock());
  auto it = accessors_.find(hAccessor);
  if (it == accessors_.end()) return DB_E_BADACCESSORHANDLE;
  const DBREFCOUNT left = --it->second.refs;
  if (left == 0) accessors_.erase(it);
  if (pcRefCount) *pcRefCount = left;
  return S_OK;
}

HRESULT CProviderCommand::GetBindings(HACCESSOR hAccessor, DBACCESSORFLAGS* pdwAccessorFlags,
                                      DBCOUNTITEM* pcBindings, DBBINDING** prgBindings) {
  if (pcBindings) *pcBindings = 0;
  if (prgBindings) *prgBindings = nullptr;
  if (pdwAccessorFlags) *pdwAccessorFlags = DBACCESSOR_INVALID;
  if (!pdwAccessorFlags || !pcBindings || !prgBindings) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(CommandLock());
  auto it = accessors_.find(hAccessor);
  if (it == accessors_.end()) return DB_E_BADACCESSORHANDLE;
  const auto& bindings = it->second.bindings;
  auto* copy = static_cast<DBBINDING*>(CoTaskMemAlloc(bindings.size() * sizeof(DBBINDING)));
  if (!copy) return E_OUTOFMEMORY;
  std::memcpy(copy, bindings.data(), bindings.size() * sizeof(DBBINDING));
  *pdwAccessorFlags = it->second.flags;
  *pcBindings = bindings.size();
  *prgBindings = copy;
  return S_OK;
}

// ---- IConvertType

HRESULT CProviderCommand::CanConvert(DBTYPE wFromType, DBTYPE wToType, DBCONVERTFLAGS dwConvertFlags) {
  const DBCONVERTFLAGS known = DBCONVERTFLAGS_PARAMETER | DBCONVERTFLAGS_ISLONG | DBCONVERTFLAGS_ISFIXEDLENGTH |
                               DBCONVERTFLAGS_FROMVARIANT;
  if (dwConvertFlags & ~known) return DB_E_BADCONVERTFLAG;
  corvane::ComPtr<IDataConvert> convert;
  const HRESULT hr = corvane::CreateDataConvert(convert.Put());
  return FAILED(hr) ? hr : convert->CanConvert(wFromType, wToType);
}

// ---- ISupportErrorInfo

HRESULT CProviderCommand::InterfaceSupportsErrorInfo(REFIID riid) {
  // The interfaces whose failures post records; the others answer by HRESULT alone.
  for (const IID* iid : {&IID_ICommand, &IID_ICommandText, &IID_ICommandPrepare, &IID_ICommandProperties})
    if (IsEqualIID(riid, *iid)) return S_OK;
  return S_FALSE;
}
