#include "provider/ProviderDataSource.h"

#include <cstring>
#include <new>

#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "provider/ErrorReporting.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "provider/Module.h"
#include "provider/ProviderSession.h"
#include "base/Trace.h"

using corvane::CPropertyEngine;
using corvane::PropertyDefault;
using corvane::PropertyDefinition;
using corvane::PropertySetDefinition;
using corvane::WString;

namespace {

const OLECHAR kSource[] = OLESTR("CProviderDataSource class");

constexpr DBPROPFLAGS kInit = DBPROPFLAGS_DBINIT | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE;
constexpr DBPROPFLAGS kInfo = DBPROPFLAGS_DATASOURCEINFO | DBPROPFLAGS_READ;

// Descriptions are the standard OLE DB texts that consumers show in their dialogs.
const PropertyDefinition kInitProperties[] = {
    {DBPROP_AUTH_PASSWORD, kInit, PropertyDefault::Text(OLESTR("")), OLESTR("Password")},
    {DBPROP_AUTH_PERSIST_SENSITIVE_AUTHINFO, kInit, PropertyDefault::Bool(true), OLESTR("Persist Security Info")},
    {DBPROP_AUTH_USERID, kInit, PropertyDefault::Text(OLESTR("Guest")), OLESTR("User ID")},
    {DBPROP_INIT_OLEDBSERVICES, kInit, PropertyDefault::I4(static_cast<LONG>(0xFFFFFFFF)), OLESTR("OLE DB Services")},
    {DBPROP_INIT_MODE, kInit, PropertyDefault::I4(DB_MODE_READWRITE), OLESTR("Mode")},
    {DBPROP_INIT_PROMPT, kInit, PropertyDefault::I2(DBPROMPT_NOPROMPT), OLESTR("Prompt")},
    {DBPROP_INIT_PROVIDERSTRING, kInit, PropertyDefault::Text(OLESTR("")), OLESTR("Extended Properties")},
    {DBPROP_INIT_CATALOG, kInit, PropertyDefault::Text(OLESTR("")), OLESTR("Initial Catalog")},
    {DBPROP_INIT_DATASOURCE, kInit, PropertyDefault::Text(OLESTR("")), OLESTR("Data Source")},
    {DBPROP_INIT_LOCATION, kInit, PropertyDefault::Text(OLESTR(".\\")), OLESTR("Location")},
};

const PropertyDefinition kInfoProperties[] = {
    {DBPROP_MULTIPLEPARAMSETS, kInfo, PropertyDefault::Bool(false), OLESTR("Multiple Parameter Sets")},
    {DBPROP_BYREFACCESSORS, kInfo, PropertyDefault::Bool(false), OLESTR("Pass By Ref Accessors")},
    {DBPROP_DATASOURCEREADONLY, kInfo, PropertyDefault::Bool(false), OLESTR("Read-Only Data Source")},
    {DBPROP_ISupportErrorInfo, kInfo | DBPROPFLAGS_ROWSET, PropertyDefault::Bool(true), OLESTR("ISupportErrorInfo")},
    {DBPROP_DSOTHREADMODEL, kInfo, PropertyDefault::I4(DBPROPVAL_RT_FREETHREAD),
     OLESTR("Data Source Object Threading Model")},
    {DBPROP_OUTPUTPARAMETERAVAILABILITY, kInfo, PropertyDefault::I4(DBPROPVAL_OA_NOTSUPPORTED),
     OLESTR("Output Parameter Availability")},
    {DBPROP_PROVIDEROLEDBVER, kInfo, PropertyDefault::Text(OLESTR("2.50")), OLESTR("OLE DB Version")},
    {DBPROP_PROVIDERVER, kInfo, PropertyDefault::Text(OLESTR("1.00")), OLESTR("Provider Version")},
    {DBPROP_SUPPORTEDTXNISOLEVELS, kInfo, PropertyDefault::I4(DBPROPVAL_TI_READUNCOMMITTED),
     OLESTR("Isolation Levels")},
    {DBPROP_SQLSUPPORT, kInfo, PropertyDefault::I4(DBPROPVAL_SQL_ANSI92_ENTRY), OLESTR("SQL Support")},
    {DBPROP_SERVERDATAONINSERT, kInfo | DBPROPFLAGS_ROWSET | DBPROPFLAGS_WRITE, PropertyDefault::Bool(true),
     OLESTR("Server Data on Insert")},
    {DBPROP_USERNAME, kInfo, PropertyDefault::Text(OLESTR("Guest")), OLESTR("User Name")},
    {DBPROP_ACTIVESESSIONS, kInfo, PropertyDefault::I4(0), OLESTR("Active Sessions")},
};

const PropertySetDefinition kPropertySets[] = {
    {&DBPROPSET_DBINIT, DBPROPFLAGS_DBINIT, kInitProperties, sizeof kInitProperties / sizeof kInitProperties[0]},
    {&DBPROPSET_DATASOURCEINFO, DBPROPFLAGS_DATASOURCEINFO, kInfoProperties,
     sizeof kInfoProperties / sizeof kInfoProperties[0]},
};

// Before Initialize only the initialisation properties exist for the consumer; after
// it they are fixed until Uninitialize.
constexpr DBPROPFLAGS kGroupsUninitialized = DBPROPFLAGS_DBINIT;
constexpr DBPROPFLAGS kGroupsInitialized =
    DBPROPFLAGS_DBINIT | DBPROPFLAGS_DATASOURCEINFO | DBPROPFLAGS_DATASOURCE;
constexpr DBPROPFLAGS kSettableInitialized = DBPROPFLAGS_DATASOURCEINFO | DBPROPFLAGS_DATASOURCE;

const OLECHAR kKeywords[] = OLESTR("QualityToStr;AccessRightsToStr;DataTypeToStr");

struct LiteralDefinition {
  DBLITERAL literal;
  const OLECHAR* value;
  const OLECHAR* invalidChars;
  const OLECHAR* invalidStartingChars;
  ULONG maxLength;
};
constexpr ULONG kNameLength = 128;
constexpr ULONG kUnlimited = ~0u;
// The SQL dialect: names are quoted with double quotes, texts with single quotes, and
// catalog, schema and table are joined with '.'.
const LiteralDefinition kLiterals[] = {
    {DBLITERAL_CATALOG_NAME, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_CATALOG_SEPARATOR, OLESTR("."), nullptr, nullptr, 1},
    {DBLITERAL_CHAR_LITERAL, nullptr, nullptr, nullptr, kUnlimited},
    {DBLITERAL_COLUMN_ALIAS, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_COLUMN_NAME, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_CORRELATION_NAME, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_LIKE_PERCENT, OLESTR("%"), nullptr, nullptr, 1},
    {DBLITERAL_LIKE_UNDERSCORE, OLESTR("_"), nullptr, nullptr, 1},
    {DBLITERAL_PROCEDURE_NAME, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_QUOTE_PREFIX, OLESTR("\""), nullptr, nullptr, 1},
    {DBLITERAL_SCHEMA_NAME, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_TABLE_NAME, nullptr, OLESTR(".\"'"), OLESTR("0123456789"), kNameLength},
    {DBLITERAL_TEXT_COMMAND, nullptr, nullptr, nullptr, kUnlimited},
    {DBLITERAL_USER_NAME, nullptr, nullptr, nullptr, kNameLength},
    {DBLITERAL_SCHEMA_SEPARATOR, OLESTR("."), nullptr, nullptr, 1},
    {DBLITERAL_QUOTE_SUFFIX, OLESTR("\""), nullptr, nullptr, 1},
};

struct ItemName {
  int number;
  const OLECHAR* name;
};
const ItemName kItemNames[] = {
    {CProviderDataSource::kInitialSchema, OLESTR("Initial Schema")},
    {CProviderDataSource::kDefaultTag, OLESTR("Default Tag")},
    {CProviderDataSource::kByrefStrings, OLESTR("Byref Strings")},
    {CProviderDataSource::kUseTimestamps, OLESTR("Use Timestamps")},
    {CProviderDataSource::kTimestampStart, OLESTR("Timestamp Start")},
    {CProviderDataSource::kTimestampEnd, OLESTR("Timestamp End")},
};

const OLECHAR* StringOf(const VARIANT& v) {
  return (v.vt == VT_BSTR && v.bstrVal) ? v.bstrVal : OLESTR("");
}

HRESULT AllocFileTime(const FILETIME& value, FILETIME** out) {
  if (!out) return E_INVALIDARG;
  *out = static_cast<FILETIME*>(CoTaskMemAlloc(sizeof(FILETIME)));
  if (!*out) return E_OUTOFMEMORY;
  **out = value;
  return S_OK;
}

WString FileTimeText(const FILETIME& ft) {
  SYSTEMTIME st{};
  FileTimeToSystemTime(&ft, &st);
  return corvane::WFormat(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d.%.3d"), st.wYear, st.wMonth, st.wDay, st.wHour,
                          st.wMinute, st.wSecond, st.wMilliseconds);
}

HRESULT CopyBstr(const WString& text, BSTR* out) {
  if (!out) return E_INVALIDARG;
  *out = SysAllocStringLen(text.c_str(), static_cast<UINT>(text.size()));
  return *out ? S_OK : E_OUTOFMEMORY;
}

template <typename T>
HRESULT HandOut(const corvane::ComPtr<T>& held, T** out) {
  if (!out) return E_INVALIDARG;
  *out = corvane::ComPtr<T>(held).Detach();
  return S_OK;
}

}  // namespace

HRESULT CProviderDataSource::CreateInstance(CProviderDataSource** object) {
  if (!object) return E_INVALIDARG;
  *object = new (std::nothrow) CProviderDataSource();
  return *object ? S_OK : E_OUTOFMEMORY;
}

CProviderDataSource::CProviderDataSource()
    : properties_(kPropertySets, sizeof kPropertySets / sizeof kPropertySets[0]),
      defaultCatalog_(OLESTR("_default_catalog_")),
      defaultSchema_(OLESTR("_default_schema_")),
      settings_(corvane::QuerySettings::Defaults()) {
  properties_.SetVisibleGroups(kGroupsUninitialized);
  properties_.SetSettableGroups(~0u);
  corvane::module::Lock();
}

CProviderDataSource::~CProviderDataSource() {
  corvane::module::Unlock();
}

WString CProviderDataSource::DataSourceName() const {
  corvane::platform::CriticalSectionLock guard(const_cast<corvane::platform::CriticalSection&>(lock_));
  return dataSourceName_;
}

// ---- IUnknown

HRESULT CProviderDataSource::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDBInitialize))
    *ppv = static_cast<IDBInitialize*>(this);
  else if (IsEqualIID(riid, IID_IDBProperties))
    *ppv = static_cast<IDBProperties*>(this);
  else if (IsEqualIID(riid, IID_IDBCreateSession))
    *ppv = static_cast<IDBCreateSession*>(this);
  else if (IsEqualIID(riid, IID_IDBInfo))
    *ppv = static_cast<IDBInfo*>(this);
  else if (IsEqualIID(riid, IID_IPersist))
    *ppv = static_cast<IPersist*>(this);
  else if (IsEqualIID(riid, IID_ISupportErrorInfo))
    *ppv = static_cast<ISupportErrorInfo*>(this);
  else if (IsEqualIID(riid, IID_IProviderDataSource))
    *ppv = static_cast<IProviderDataSource*>(this);
  else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG CProviderDataSource::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CProviderDataSource::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

// ---- Failures

HRESULT CProviderDataSource::Fail(REFIID iid, const OLECHAR* traceFormat, HRESULT hr) {
  CVTRACE(TRACE_ERROR, traceFormat, static_cast<unsigned>(hr));
  corvane::PostFailure(iid, hr, kSource);
  return hr;
}

// ---- IDBInitialize

HRESULT CProviderDataSource::Initialize() {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::Initialize"));
  corvane::ClearErrorRecords();
  HRESULT hr = S_OK;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    if (initialized_.load()) {
      hr = DB_E_ALREADYINITIALIZED;
    } else if (properties_.MissingRequired()) {
      hr = DB_E_ERRORSOCCURRED;
    } else {
      if (defaultCatalog_.empty()) defaultCatalog_ = OLESTR("_default_catalog_");
      if (defaultSchema_.empty()) defaultSchema_ = OLESTR("_default_schema_");
      properties_.SetVisibleGroups(kGroupsInitialized);
      properties_.SetSettableGroups(kSettableInitialized);
      initialized_.store(true);
    }
  }
  if (FAILED(hr)) return Fail(IID_IDBInitialize, OLESTR("Initialize, HR = %X"), hr);
  return S_OK;
}

HRESULT CProviderDataSource::Uninitialize() {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::Uninitialize"));
  corvane::ClearErrorRecords();
  HRESULT hr = S_OK;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    if (openSessions_.load() > 0) {
      hr = DB_E_OBJECTOPEN;
    } else if (initialized_.load()) {
      properties_.SetVisibleGroups(kGroupsUninitialized);
      properties_.SetSettableGroups(~0u);
      initialized_.store(false);
    }
  }
  if (FAILED(hr)) return Fail(IID_IDBInitialize, OLESTR("Uninitialize, HR = %X"), hr);
  return S_OK;
}

// ---- IDBProperties

HRESULT CProviderDataSource::GetProperties(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                           ULONG* pcPropertySets, DBPROPSET** prgPropertySets) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetProperties"));
  corvane::ClearErrorRecords();
  HRESULT hr;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    hr = properties_.GetProperties(cPropertyIDSets, rgPropertyIDSets, pcPropertySets, prgPropertySets);
  }
  if (FAILED(hr)) return Fail(IID_IDBProperties, OLESTR("GetProperties, HR = %X"), hr);
  return hr;
}

HRESULT CProviderDataSource::GetPropertyInfo(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                             ULONG* pcPropertyInfoSets, DBPROPINFOSET** prgPropertyInfoSets,
                                             OLECHAR** ppDescBuffer) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetPropertyInfo"));
  corvane::ClearErrorRecords();
  HRESULT hr;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    hr = properties_.GetPropertyInfo(cPropertyIDSets, rgPropertyIDSets, pcPropertyInfoSets, prgPropertyInfoSets,
                                     ppDescBuffer);
  }
  if (FAILED(hr)) return Fail(IID_IDBProperties, OLESTR("GetPropertyInfo, HR = %X"), hr);
  return hr;
}

HRESULT CProviderDataSource::SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::SetProperties"));
  corvane::ClearErrorRecords();
  bool argumentsValid = !(cPropertySets && !rgPropertySets);
  for (ULONG s = 0; argumentsValid && s < cPropertySets; ++s)
    if (rgPropertySets[s].cProperties && !rgPropertySets[s].rgProperties) argumentsValid = false;
  if (!argumentsValid) return Fail(IID_IDBProperties, OLESTR("SetProperties, HR = %X"), E_INVALIDARG);

  HRESULT hr;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    // The provider's own settings travel in four initialisation properties; they are
    // taken by identifier alone, whatever set the caller put them in.
    for (ULONG s = 0; s < cPropertySets; ++s) {
      for (ULONG p = 0; p < rgPropertySets[s].cProperties; ++p) {
        DBPROP& prop = rgPropertySets[s].rgProperties[p];
        switch (prop.dwPropertyID) {
          case DBPROP_INIT_DATASOURCE:
            dataSourceName_ = StringOf(prop.vValue);
            CVTRACE(TRACE_INFO, OLESTR("Set INIT_DATASOURCE = %s"), dataSourceName_.c_str());
            break;
          case DBPROP_INIT_HWND:
            VariantChangeType(&prop.vValue, &prop.vValue, 0, VT_I4);
            break;
          case DBPROP_INIT_PROVIDERSTRING:
            ParseProviderString(StringOf(prop.vValue));
            CVTRACE(TRACE_INFO, OLESTR("Set INIT_PROVIDERSTRING = %s"), StringOf(prop.vValue));
            break;
          case DBPROP_INIT_CATALOG:
            defaultCatalog_ = StringOf(prop.vValue);
            CVTRACE(TRACE_INFO, OLESTR("Set INIT_CATALOG = %s"), defaultCatalog_.c_str());
            break;
          default:
            break;
        }
      }
    }
    hr = properties_.SetProperties(cPropertySets, rgPropertySets);
  }
  if (FAILED(hr)) return Fail(IID_IDBProperties, OLESTR("SetProperties, HR = %X"), hr);
  return hr;
}

void CProviderDataSource::ParseProviderString(const OLECHAR* text) {
  items_.clear();
  const WString all(text ? text : OLESTR(""));
  size_t begin = 0;
  while (begin <= all.size()) {
    size_t end = all.find(OLECHAR(';'), begin);
    if (end == WString::npos) end = all.size();
    const WString token = all.substr(begin, end - begin);
    begin = end + 1;
    const size_t eq = token.find(OLECHAR('='));
    if (token.empty() || eq == WString::npos) continue;
    WString name = token.substr(0, eq), value = token.substr(eq + 1);
    int number = kUnknownItem;
    for (const auto& item : kItemNames)
      if (corvane::WIEquals(name, item.name)) number = item.number;
    items_[number] = {std::move(name), std::move(value)};
  }

  auto item = items_.find(kInitialSchema);
  defaultSchema_ = item != items_.end() ? item->second.second : WString();

  item = items_.find(kUseTimestamps);
  if (item == items_.end() || !corvane::WIEquals(item->second.second, OLESTR("true"))) return;
  auto takeTime = [this](int number, FILETIME& target) {
    auto it = items_.find(number);
    if (it == items_.end() || it->second.second.empty()) return;
    FILETIME parsed;
    if (!corvane::TextToFileTime(it->second.second.c_str(), &parsed)) {
      CVTRACE(TRACE_WARNING, OLESTR("Provider string: '%s' is not a time"), it->second.second.c_str());
      return;
    }
    target = parsed;
    settings_.UseUserTimeRange = 1;
  };
  takeTime(kTimestampStart, settings_.StartTime);
  takeTime(kTimestampEnd, settings_.EndTime);
}

// ---- IDBCreateSession

HRESULT CProviderDataSource::CreateSessionObject(IUnknown* pUnkOuter, REFIID riid, IUnknown** ppDBSession) {
  // Sessions are not aggregatable.
  if (pUnkOuter) return DB_E_NOAGGREGATION;
  return CProviderSession::Create(static_cast<IProviderDataSource*>(this), &openSessions_, riid, ppDBSession);
}

HRESULT CProviderDataSource::CreateSession(IUnknown* pUnkOuter, REFIID riid, IUnknown** ppDBSession) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::CreateSession"));
  corvane::ClearErrorRecords();
  HRESULT hr;
  if (!ppDBSession) {
    hr = E_INVALIDARG;
  } else {
    *ppDBSession = nullptr;
    // Under the lock Uninitialize takes, so that no session appears between its count
    // of open sessions and the end of the initialised state.
    corvane::platform::CriticalSectionLock guard(lock_);
    if (!initialized_.load())
      hr = E_UNEXPECTED;
    else if (pUnkOuter && !IsEqualIID(riid, IID_IUnknown))
      hr = DB_E_NOAGGREGATION;
    else
      hr = CreateSessionObject(pUnkOuter, riid, ppDBSession);
  }
  if (SUCCEEDED(hr)) return hr;
  CVTRACE(TRACE_ERROR, OLESTR("Failed to create session (%X)."), static_cast<unsigned>(hr));
  if (hr == E_NOINTERFACE) {
    OLECHAR text[40] = {};  // a braced GUID and its terminator
    StringFromGUID2(riid, text, 40);
    CVTRACE(TRACE_WARNING, OLESTR("Unsupported interface '%s'."), text);
  }
  corvane::PostFailure(IID_IDBCreateSession, hr, kSource);
  return hr;
}

// ---- IDBInfo

HRESULT CProviderDataSource::GetKeywords(LPOLESTR* ppwszKeywords) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetKeywords"));
  corvane::ClearErrorRecords();
  HRESULT hr = S_OK;
  if (!ppwszKeywords) {
    hr = E_INVALIDARG;
  } else {
    *ppwszKeywords = nullptr;
    if (!initialized_.load()) {
      hr = E_UNEXPECTED;
    } else {
      *ppwszKeywords = static_cast<LPOLESTR>(CoTaskMemAlloc(sizeof kKeywords));
      if (*ppwszKeywords)
        std::memcpy(*ppwszKeywords, kKeywords, sizeof kKeywords);
      else
        hr = E_OUTOFMEMORY;
    }
  }
  if (FAILED(hr)) return Fail(IID_IDBInfo, OLESTR("GetKeywords, HR = %X"), hr);
  return S_OK;
}

HRESULT CProviderDataSource::GetLiteralInfo(ULONG cLiterals, const DBLITERAL rgLiterals[], ULONG* pcLiteralInfo,
                                            DBLITERALINFO** prgLiteralInfo, OLECHAR** ppCharBuffer) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetLiteralInfo"));
  corvane::ClearErrorRecords();
  if (pcLiteralInfo) *pcLiteralInfo = 0;
  if (prgLiteralInfo) *prgLiteralInfo = nullptr;
  if (ppCharBuffer) *ppCharBuffer = nullptr;
  HRESULT hr = S_OK;
  if (!pcLiteralInfo || !prgLiteralInfo || !ppCharBuffer || (cLiterals && !rgLiterals))
    hr = E_INVALIDARG;
  else if (!initialized_.load())
    hr = E_UNEXPECTED;
  if (FAILED(hr)) return Fail(IID_IDBInfo, OLESTR("GetLiteralInfo, HR = %X"), hr);

  const size_t known = sizeof kLiterals / sizeof kLiterals[0];
  std::vector<const LiteralDefinition*> plan;
  std::vector<DBLITERAL> asked;
  if (cLiterals == 0) {
    for (const auto& lit : kLiterals) {
      plan.push_back(&lit);
      asked.push_back(lit.literal);
    }
  } else {
    for (ULONG i = 0; i < cLiterals; ++i) {
      const LiteralDefinition* found = nullptr;
      for (size_t k = 0; k < known; ++k)
        if (kLiterals[k].literal == rgLiterals[i]) found = &kLiterals[k];
      plan.push_back(found);
      asked.push_back(rgLiterals[i]);
    }
  }
  // Every text of the answer lives in one buffer, each terminated.
  size_t chars = 0;
  for (const auto* lit : plan)
    if (lit)
      for (const OLECHAR* s : {lit->value, lit->invalidChars, lit->invalidStartingChars})
        if (s) chars += corvane::WLen(s) + 1;
  auto buffer = chars ? corvane::TaskMem<OLECHAR>::Allocate(chars) : corvane::TaskMem<OLECHAR>();
  auto infos = corvane::TaskMem<DBLITERALINFO>::Allocate(plan.size());
  if ((chars && !buffer) || !infos) return Fail(IID_IDBInfo, OLESTR("GetLiteralInfo, HR = %X"), E_OUTOFMEMORY);
  OLECHAR* next = buffer.Get();
  auto place = [&next](const OLECHAR* s) -> LPOLESTR {
    if (!s) return nullptr;
    const size_t n = corvane::WLen(s);
    std::memcpy(next, s, (n + 1) * sizeof(OLECHAR));
    LPOLESTR at = next;
    next += n + 1;
    return at;
  };
  ULONG unsupported = 0;
  for (size_t i = 0; i < plan.size(); ++i) {
    DBLITERALINFO& info = infos[i];
    std::memset(&info, 0, sizeof info);
    info.lt = asked[i];
    if (!plan[i]) {
      info.fSupported = FALSE;
      ++unsupported;
      continue;
    }
    info.fSupported = TRUE;
    info.pwszLiteralValue = place(plan[i]->value);
    info.pwszInvalidChars = place(plan[i]->invalidChars);
    info.pwszInvalidStartingChars = place(plan[i]->invalidStartingChars);
    info.cchMaxLen = plan[i]->maxLength;
  }
  *pcLiteralInfo = static_cast<ULONG>(plan.size());
  *prgLiteralInfo = infos.Detach();
  *ppCharBuffer = buffer.Detach();
  if (unsupported == 0) return S_OK;
  if (unsupported < plan.size()) return DB_S_ERRORSOCCURRED;
  return Fail(IID_IDBInfo, OLESTR("GetLiteralInfo, HR = %X"), DB_E_ERRORSOCCURRED);
}

// ---- IPersist, ISupportErrorInfo

HRESULT CProviderDataSource::GetClassID(CLSID* pClassID) {
  if (!pClassID) return E_FAIL;
  *pClassID = CLSID_CorvaneOleDbProvider;
  return S_OK;
}

HRESULT CProviderDataSource::InterfaceSupportsErrorInfo(REFIID riid) {
  for (const IID* iid : {&IID_IDBProperties, &IID_IDBInitialize, &IID_IDBCreateSession, &IID_IDBInfo,
                         &IID_IProviderDataSource})
    if (IsEqualIID(riid, *iid)) return S_OK;
  return S_FALSE;
}

// ---- IProviderDataSource

HRESULT CProviderDataSource::InitializeDataSource(IRawDataProvider* raw, IProcessedDataProvider* processed,
                                                  IValuesProvider* values) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::InitializeDataSource"));
  if (!raw) CVTRACE(TRACE_WARNING, OLESTR("RawDataProvider is not initialized (is NULL)"));
  if (!processed) CVTRACE(TRACE_WARNING, OLESTR("ProcessedDataProvider is not initialized (is NULL)"));
  if (!values) CVTRACE(TRACE_WARNING, OLESTR("ValuesProvider is not initialized (is NULL)"));
  raw_ = corvane::ComPtr<IRawDataProvider>::Share(raw);
  processed_ = corvane::ComPtr<IProcessedDataProvider>::Share(processed);
  values_ = corvane::ComPtr<IValuesProvider>::Share(values);
  return S_OK;
}

HRESULT CProviderDataSource::GetRawDataProvider(IRawDataProvider** raw) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetRawDataProvider"));
  return HandOut(raw_, raw);
}

HRESULT CProviderDataSource::GetProcessedDataProvider(IProcessedDataProvider** processed) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetProcessedDataProvider"));
  return HandOut(processed_, processed);
}

HRESULT CProviderDataSource::GetValuesProvider(IValuesProvider** values) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetValuesProvider"));
  return HandOut(values_, values);
}

#define CORVANE_DS_TIME_ACCESSORS(Name, Field)                                                       \
  HRESULT CProviderDataSource::Get##Name(FILETIME** value) {                                         \
    CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::Get" #Name));                             \
    FILETIME copy;                                                                                     \
    {                                                                                                  \
      corvane::platform::CriticalSectionLock guard(lock_);                                             \
      copy = settings_.Field;                                                                          \
    }                                                                                                  \
    const HRESULT hr = AllocFileTime(copy, value);                                                     \
    if (SUCCEEDED(hr)) CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %s"), FileTimeText(**value).c_str());     \
    return hr;                                                                                         \
  }                                                                                                    \
  HRESULT CProviderDataSource::Set##Name(FILETIME value) {                                           \
    CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::Set" #Name ", VALUE = %s"),               \
            FileTimeText(value).c_str());                                                              \
    corvane::platform::CriticalSectionLock guard(lock_);                                               \
    settings_.Field = value;                                                                           \
    return S_OK;                                                                                       \
  }

#define CORVANE_DS_NUMBER_ACCESSORS(Name, Type)                                        \
  HRESULT CProviderDataSource::Get##Name(Type* value) {                                \
    CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::Get" #Name));               \
    if (!value) return E_INVALIDARG;                                                     \
    {                                                                                    \
      corvane::platform::CriticalSectionLock guard(lock_);                               \
      *value = settings_.Name;                                                           \
    }                                                                                    \
    CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %d"), static_cast<int>(*value));               \
    return S_OK;                                                                         \
  }                                                                                      \
  HRESULT CProviderDataSource::Set##Name(Type value) {                                 \
    CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::Set" #Name ", VALUE = %d"), \
            static_cast<int>(value));                                                    \
    corvane::platform::CriticalSectionLock guard(lock_);                                 \
    settings_.Name = value;                                                              \
    return S_OK;                                                                         \
  }

CORVANE_DS_TIME_ACCESSORS(StartTime, StartTime)
CORVANE_DS_TIME_ACCESSORS(EndTime, EndTime)
CORVANE_DS_NUMBER_ACCESSORS(MaxRowsToReturn, LONG)
CORVANE_DS_NUMBER_ACCESSORS(TreatUncertainAsGood, LONG)
CORVANE_DS_NUMBER_ACCESSORS(PercentDataBad, BYTE)
CORVANE_DS_NUMBER_ACCESSORS(PercentDataGood, BYTE)
CORVANE_DS_NUMBER_ACCESSORS(AllowEmptyTag, LONG)
CORVANE_DS_NUMBER_ACCESSORS(UseUserTimeRange, LONG)

HRESULT CProviderDataSource::GetDefaultCatalog(BSTR* catalog) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetDefaultCatalog"));
  if (!catalog) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(lock_);
  CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %s"), defaultCatalog_.c_str());
  return CopyBstr(defaultCatalog_, catalog);
}

HRESULT CProviderDataSource::GetDefaultSchema(BSTR* schema) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetDefaultSchema"));
  if (!schema) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(lock_);
  CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %s"), defaultSchema_.c_str());
  return CopyBstr(defaultSchema_, schema);
}

HRESULT CProviderDataSource::GetCurrentCatalog(BSTR* catalog) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetCurrentCatalog"));
  if (!catalog) return E_INVALIDARG;
  // DBPROP_CURRENTCATALOG of the data source set: empty unless the set carries it.
  VARIANT value;
  VariantInit(&value);
  WString text;
  if (SUCCEEDED(properties_.GetValue(DBPROPSET_DATASOURCE, DBPROP_CURRENTCATALOG, &value))) text = StringOf(value);
  VariantClear(&value);
  CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %s"), text.c_str());
  return CopyBstr(text, catalog);
}

HRESULT CProviderDataSource::GetDataStore(CDataStore** store) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetDataStore"));
  if (!store) return E_INVALIDARG;
  *store = dataStore_;
  return S_OK;
}

HRESULT CProviderDataSource::UpdateQueryTimeRange() {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::UpdateQueryTimeRange"));
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  // Every Execute of every session moves the range while other commands read it.
  corvane::platform::CriticalSectionLock guard(lock_);
  settings_.SetQueryRangeEndingAt(now);
  return S_OK;
}

HRESULT CProviderDataSource::GetStartTimeForQuery(FILETIME** start) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetStartTimeForQuery"));
  if (!start) return E_INVALIDARG;
  FILETIME value;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    value = settings_.StartForQuery();
  }
  const HRESULT hr = AllocFileTime(value, start);
  if (SUCCEEDED(hr)) CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %s"), FileTimeText(**start).c_str());
  return hr;
}

HRESULT CProviderDataSource::GetEndTimeForQuery(FILETIME** end) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderDataSource::GetEndTimeForQuery"));
  if (!end) return E_INVALIDARG;
  FILETIME value;
  {
    corvane::platform::CriticalSectionLock guard(lock_);
    value = settings_.EndForQuery();
  }
  const HRESULT hr = AllocFileTime(value, end);
  if (SUCCEEDED(hr)) CVTRACE(TRACE_DETAIL, OLESTR("VALUE = %s"), FileTimeText(**end).c_str());
  return hr;
}
