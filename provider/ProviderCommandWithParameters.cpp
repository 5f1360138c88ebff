#include "provider/ProviderCommandWithParameters.h"

#include <algorithm>
#include <cstring>

#include "base/Trace.h"

using corvane::WString;

namespace {

struct TypeName {
  const OLECHAR* name;
  DBTYPE type;
};

// VARCHAR and NVARCHAR arrive as pointers to the consumer's text, WVARCHAR as the
// text itself: consumers written for this provider rely on exactly this.
const TypeName kTypeNames[] = {
    {OLESTR("DBTYPE_BOOL"), DBTYPE_BOOL},
    {OLESTR("DBTYPE_I1"), DBTYPE_I1},
    {OLESTR("DBTYPE_I2"), DBTYPE_I2},
    {OLESTR("DBTYPE_I4"), DBTYPE_I4},
    {OLESTR("DBTYPE_I8"), DBTYPE_I8},
    {OLESTR("DBTYPE_UI1"), DBTYPE_UI1},
    {OLESTR("DBTYPE_UI2"), DBTYPE_UI2},
    {OLESTR("DBTYPE_UI4"), DBTYPE_UI4},
    {OLESTR("DBTYPE_UI8"), DBTYPE_UI8},
    {OLESTR("DBTYPE_R4"), DBTYPE_R4},
    {OLESTR("DBTYPE_R8"), DBTYPE_R8},
    {OLESTR("DBTYPE_BSTR"), DBTYPE_BSTR},
    {OLESTR("DBTYPE_VARCHAR"), static_cast<DBTYPE>(DBTYPE_STR | DBTYPE_BYREF)},
    {OLESTR("DBTYPE_NVARCHAR"), static_cast<DBTYPE>(DBTYPE_WSTR | DBTYPE_BYREF)},
    {OLESTR("DBTYPE_WVARCHAR"), DBTYPE_WSTR},
    {OLESTR("DBTYPE_STR"), DBTYPE_STR},
    {OLESTR("DBTYPE_WSTR"), DBTYPE_WSTR},
    {OLESTR("DBTYPE_DBTIMESTAMP"), DBTYPE_DBTIMESTAMP},
    {OLESTR("DBTYPE_DATE"), DBTYPE_DATE},
};

}  // namespace

DBTYPE CProviderCommandWithParameters::GetDBTypeFromStr(const OLECHAR* typeName) {
  const OLECHAR* name = typeName ? typeName : OLESTR("");
  CVTRACE(TRACE_INFO, OLESTR("CProviderCommandWithParameters::GetDBTypeFromStr -> type: %s"), name);
  for (const auto& t : kTypeNames)
    if (corvane::WIEquals(name, t.name)) return t.type;
  CVTRACE(TRACE_ERROR, OLESTR("CProviderCommandWithParameters::GetDBTypeFromStr -> unsuported type! type name: %s"),
          name);
  return DBTYPE_EMPTY;
}

std::vector<CProviderCommandWithParameters::ParameterDescription>
CProviderCommandWithParameters::ParameterDescriptions() {
  corvane::platform::CriticalSectionLock guard(commandLock_);
  return parameters_;
}

HRESULT CProviderCommandWithParameters::SetParameterInfo(DB_UPARAMS cParams, const DB_UPARAMS rgParamOrdinals[],
                                                         const DBPARAMBINDINFO rgParamBindInfo[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommandWithParameters::SetParameterInfo"));
  corvane::platform::CriticalSectionLock guard(commandLock_);
  if (HasOpenRowsets()) return DB_E_OBJECTOPEN;
  if (cParams == 0) {
    parameters_.clear();
    return S_OK;
  }
  if (!rgParamOrdinals) return E_INVALIDARG;
  for (DB_UPARAMS i = 0; i < cParams; ++i)
    if (rgParamOrdinals[i] == 0) return E_INVALIDARG;

  std::vector<ParameterDescription> next = parameters_;
  for (DB_UPARAMS i = 0; i < cParams; ++i) {
    const DB_UPARAMS ordinal = rgParamOrdinals[i];
    next.erase(std::remove_if(next.begin(), next.end(),
                              [ordinal](const ParameterDescription& p) { return p.ordinal == ordinal; }),
               next.end());
    if (!rgParamBindInfo) continue;  // no bind information discards the descriptions
    const DBPARAMBINDINFO& info = rgParamBindInfo[i];
    ParameterDescription p;
    p.name = info.pwszName ? info.pwszName : OLESTR("");
    p.type = GetDBTypeFromStr(info.pwszDataSourceType);
    p.size = info.ulParamSize;
    p.ordinal = ordinal;
    p.flags = info.dwFlags;
    p.precision = info.bPrecision;
    p.scale = info.bScale;
    CVTRACE(TRACE_INFO, OLESTR("::SetParameterInfo -> name: %s, size: %d, position: %d"), p.name.c_str(),
            static_cast<int>(p.size), static_cast<int>(p.ordinal));
    next.push_back(std::move(p));
  }
  std::sort(next.begin(), next.end(),
            [](const ParameterDescription& a, const ParameterDescription& b) { return a.ordinal < b.ordinal; });
  parameters_ = std::move(next);
  return S_OK;
}

HRESULT CProviderCommandWithParameters::GetParameterInfo(DB_UPARAMS* pcParams, DBPARAMINFO** prgParamInfo,
                                                         OLECHAR** ppNamesBuffer) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommandWithParameters::GetParameterInfo"));
  if (pcParams) *pcParams = 0;
  if (prgParamInfo) *prgParamInfo = nullptr;
  if (ppNamesBuffer) *ppNamesBuffer = nullptr;
  if (!pcParams || !prgParamInfo) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(commandLock_);

  // Every `?` of the prepared statement is listed: as the consumer described it, or
  // else as a VARIANT, the type its value travels in when nobody said otherwise.
  std::vector<ParameterDescription> described = parameters_;
  const long prepared = PreparedParameterCount();
  if (described.empty() && prepared < 0) return DB_E_NOTPREPARED;
  for (long i = 1; i <= prepared; ++i) {
    const auto ordinal = static_cast<DB_UPARAMS>(i);
    if (std::any_of(parameters_.begin(), parameters_.end(),
                    [ordinal](const ParameterDescription& p) { return p.ordinal == ordinal; }))
      continue;
    ParameterDescription p;
    p.type = DBTYPE_VARIANT;
    p.size = sizeof(VARIANT);
    p.ordinal = ordinal;
    p.flags = DBPARAMFLAGS_ISINPUT | DBPARAMFLAGS_ISNULLABLE;
    described.push_back(p);
  }
  std::sort(described.begin(), described.end(),
            [](const ParameterDescription& a, const ParameterDescription& b) { return a.ordinal < b.ordinal; });
  if (described.empty()) return S_OK;

  size_t chars = 0;
  for (const auto& p : described)
    if (!p.name.empty()) chars += p.name.size() + 1;
  auto* infos = static_cast<DBPARAMINFO*>(CoTaskMemAlloc(described.size() * sizeof(DBPARAMINFO)));
  OLECHAR* names = (chars && ppNamesBuffer) ? static_cast<OLECHAR*>(CoTaskMemAlloc(chars * sizeof(OLECHAR)))
                                            : nullptr;
  if (!infos || (chars && ppNamesBuffer && !names)) {
    CoTaskMemFree(infos);
    CoTaskMemFree(names);
    return E_OUTOFMEMORY;
  }
  OLECHAR* next = names;
  for (size_t i = 0; i < described.size(); ++i) {
    const ParameterDescription& p = described[i];
    DBPARAMINFO& info = infos[i];
    std::memset(&info, 0, sizeof info);
    info.dwFlags = p.flags ? p.flags : static_cast<DBPARAMFLAGS>(DBPARAMFLAGS_ISINPUT);
    info.iOrdinal = p.ordinal;
    info.ulParamSize = p.size;
    info.wType = p.type;
    info.bPrecision = p.precision;
    info.bScale = p.scale;
    if (names && !p.name.empty()) {
      std::memcpy(next, p.name.c_str(), (p.name.size() + 1) * sizeof(OLECHAR));
      info.pwszName = next;
      next += p.name.size() + 1;
    }
  }
  *pcParams = described.size();
  *prgParamInfo = infos;
  if (ppNamesBuffer) *ppNamesBuffer = names;
  return S_OK;
}

HRESULT CProviderCommandWithParameters::MapParameterNames(DB_UPARAMS cParamNames, const OLECHAR* rgParamNames[],
                                                          DB_LPARAMS rgParamOrdinals[]) {
  CVTRACE(TRACE_INFO, OLESTR("Called CProviderCommandWithParameters::MapParameterNames"));
  if (cParamNames == 0) return S_OK;
  if (!rgParamNames || !rgParamOrdinals) return E_INVALIDARG;
  corvane::platform::CriticalSectionLock guard(commandLock_);
  if (parameters_.empty() && PreparedParameterCount() < 0) return DB_E_NOTPREPARED;
  DB_UPARAMS found = 0;
  for (DB_UPARAMS i = 0; i < cParamNames; ++i) {
    rgParamOrdinals[i] = 0;
    if (!rgParamNames[i]) continue;
    for (const auto& p : parameters_) {
      if (!p.name.empty() && corvane::WIEquals(p.name, rgParamNames[i])) {
        rgParamOrdinals[i] = static_cast<DB_LPARAMS>(p.ordinal);
        ++found;
        break;
      }
    }
  }
  if (found == cParamNames) return S_OK;
  return found ? DB_S_ERRORSOCCURRED : DB_E_ERRORSOCCURRED;
}
