#include "tools/corvane-sql/ShellConnection.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "base/TaskMem.h"
#include "base/Variant.h"
#include "historian/Aggregates.h"
#include "historian/CsvLoader.h"
#include "historian/DemoPlant.h"
#include "historian/ReferenceHistorian.h"
#include "platform/WideString.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ErrorLookup.h"
#include "provider/ICreateCorvaneOleDbProvider.h"

namespace corvane::shell {

namespace {

using corvane::Bstr;
using corvane::ComPtr;
using corvane::QueryAs;
using corvane::TaskMem;

std::string Timestamp(int year, int month, int day, int hour, int minute, int second, int millis) {
  char buffer[96];
  snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d.%03d", year, month, day, hour, minute, second,
           millis);
  return buffer;
}

// Civil date of a day count from 1970-01-01 (proleptic Gregorian).
void CivilFromDays(long long z, int* year, int* month, int* day) {
  z += 719468;
  const long long era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *year = static_cast<int>(yoe + era * 400 + (*month <= 2));
}

// An OLE Automation date (days since 1899-12-30, the fraction being the time of day
// even for negative days) to the shell's timestamp text, to the millisecond.
std::string TimestampFromDate(double date) {
  double days = std::floor(date);
  double fraction = std::fabs(date - days);
  if (date < 0 && fraction != 0) {  // -1.25 is 1899-12-29 06:00
    days = std::ceil(date);
    fraction = std::fabs(date - days);
  }
  long long millis = std::llround(fraction * 86400000.0);
  long long dayCount = static_cast<long long>(days) - 25569;  // to 1970-01-01
  if (millis >= 86400000) {
    millis -= 86400000;
    ++dayCount;
  }
  int y, m, d;
  CivilFromDays(dayCount, &y, &m, &d);
  return Timestamp(y, m, d, static_cast<int>(millis / 3600000), static_cast<int>(millis / 60000 % 60),
                   static_cast<int>(millis / 1000 % 60), static_cast<int>(millis % 1000));
}

Cell CellFromVariant(const VARIANT& v) {
  switch (v.vt) {
    case VT_EMPTY:
    case VT_NULL: return Cell{};
    case VT_BOOL: return Cell{Cell::Bool, v.boolVal ? "true" : "false"};
    case VT_R8: return Cell{Cell::Number, ShortestDouble(v.dblVal)};
    case VT_R4: return Cell{Cell::Number, ShortestFloat(v.fltVal)};
    case VT_I1: return Cell{Cell::Number, std::to_string(static_cast<int>(v.cVal))};
    case VT_I2: return Cell{Cell::Number, std::to_string(v.iVal)};
    case VT_I4: return Cell{Cell::Number, std::to_string(v.lVal)};
    case VT_INT: return Cell{Cell::Number, std::to_string(v.intVal)};
    case VT_I8: return Cell{Cell::Number, std::to_string(v.llVal)};
    case VT_UI1: return Cell{Cell::Number, std::to_string(v.bVal)};
    case VT_UI2: return Cell{Cell::Number, std::to_string(v.uiVal)};
    case VT_UI4: return Cell{Cell::Number, std::to_string(v.ulVal)};
    case VT_UINT: return Cell{Cell::Number, std::to_string(v.uintVal)};
    case VT_UI8: return Cell{Cell::Number, std::to_string(v.ullVal)};
    case VT_DATE: return Cell{Cell::Time, TimestampFromDate(v.date)};
    case VT_BSTR: return Cell{Cell::Text, corvane::ToUtf8(v.bstrVal)};
    default: break;
  }
  // Anything else (currency, decimal...) reads as a number if it can, else as text.
  corvane::Variant converted;
  if (SUCCEEDED(VariantChangeType(converted.Get(), const_cast<VARIANT*>(&v), 0, VT_R8)))
    return Cell{Cell::Number, ShortestDouble(converted->dblVal)};
  if (SUCCEEDED(VariantChangeType(converted.Get(), const_cast<VARIANT*>(&v), 0, VT_BSTR)))
    return Cell{Cell::Text, corvane::ToUtf8(converted->bstrVal)};
  return Cell{Cell::Text, "?"};
}

bool IsTimeType(DBTYPE type) {
  switch (type & ~DBTYPE_BYREF) {
    case DBTYPE_DBTIMESTAMP:
    case DBTYPE_DATE:
    case DBTYPE_FILETIME:
    case DBTYPE_DBDATE: return true;
    default: return false;
  }
}

constexpr DBROWCOUNT kBatch = 256;

// One bound cell of the row buffer: timestamps come as DBTIMESTAMP (exact to the
// nanosecond), every other column as a VARIANT of the provider's own type.
struct Slot {
  DBSTATUS status;
  DBLENGTH length;
  union {
    VARIANT variant;
    DBTIMESTAMP timestamp;
  };
};

struct TextSlot {
  DBSTATUS status;
  DBLENGTH length;
  OLECHAR text[1024];
};

Cell::Kind TextKind(DBTYPE type) {
  switch (type) {
    case DBTYPE_I1: case DBTYPE_I2: case DBTYPE_I4: case DBTYPE_I8:
    case DBTYPE_UI1: case DBTYPE_UI2: case DBTYPE_UI4: case DBTYPE_UI8:
    case DBTYPE_R4: case DBTYPE_R8: case DBTYPE_DECIMAL: case DBTYPE_NUMERIC: case DBTYPE_CY:
      return Cell::Number;
    case DBTYPE_BOOL: return Cell::Bool;
    default: return Cell::Text;
  }
}

Cell TextCell(Cell::Kind kind, const OLECHAR* text) {
  std::string value = corvane::ToUtf8(text);
  if (kind == Cell::Bool) value = (value == "0" || value == "False" || value == "false") ? "false" : "true";
  return Cell{kind, value};
}

HRESULT SetInitProperties(IUnknown* dataSource, const ConnectionOptions& options) {
  std::vector<DBPROP> props;
  auto add = [&props](DBPROPID id, const std::string& value) {
    DBPROP p{};
    p.dwPropertyID = id;
    p.dwOptions = DBPROPOPTIONS_REQUIRED;
    p.vValue.vt = VT_BSTR;
    p.vValue.bstrVal = SysAllocString(corvane::FromUtf8(value).c_str());
    props.push_back(p);
  };
  if (!options.catalog.empty()) add(DBPROP_INIT_CATALOG, options.catalog);
  if (!options.providerString.empty()) add(DBPROP_INIT_PROVIDERSTRING, options.providerString);
  if (props.empty()) return S_OK;
  ComPtr<IDBProperties> properties = QueryAs<IDBProperties>(dataSource, IID_IDBProperties);
  if (!properties) return E_NOINTERFACE;
  DBPROPSET set{props.data(), static_cast<ULONG>(props.size()), DBPROPSET_DBINIT};
  const HRESULT hr = properties->SetProperties(1, &set);
  for (auto& p : props) VariantClear(&p.vValue);
  return hr;
}

ULONGLONG NowTicks() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return (static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

bool ParseTimestampText(const std::string& text, DBTIMESTAMP* ts) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, consumed = 0;
  char sep = ' ';
  const int n = sscanf(text.c_str(), "%4d-%2d-%2d%c%2d:%2d:%2d%n", &y, &mo, &d, &sep, &h, &mi, &s, &consumed);
  if (n == 3 && text.size() == 10) {
    h = mi = s = 0;
  } else if (n < 7 || (sep != ' ' && sep != 'T')) {
    return false;
  }
  unsigned long fraction = 0;
  if (n == 7 && static_cast<size_t>(consumed) < text.size()) {
    const char* rest = text.c_str() + consumed;
    if (*rest != '.') return false;
    unsigned long scale = 1000000000;
    for (++rest; *rest >= '0' && *rest <= '9'; ++rest) {
      scale /= 10;
      fraction += static_cast<unsigned long>(*rest - '0') * scale;
    }
    if (*rest && !(rest[0] == 'Z' && rest[1] == 0)) return false;
  }
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) return false;
  *ts = DBTIMESTAMP{static_cast<SHORT>(y), static_cast<USHORT>(mo), static_cast<USHORT>(d), static_cast<USHORT>(h),
                    static_cast<USHORT>(mi), static_cast<USHORT>(s), static_cast<ULONG>(fraction)};
  return true;
}

// The parameter values laid out for a DBACCESSOR_PARAMETERDATA accessor.
struct ParameterBuffer {
  std::vector<DBBINDING> bindings;
  std::vector<unsigned char> data;

  HRESULT Build(const std::vector<Parameter>& parameters, size_t count, std::string* error) {
    size_t offset = 0;
    auto align = [](size_t n) { return (n + 7) & ~size_t(7); };
    std::vector<size_t> sizes;
    for (size_t i = 0; i < count; ++i) {
      const Parameter& p = parameters[i];
      size_t size = 16;
      if (p.type == DBTYPE_WSTR) size = (corvane::FromUtf8(p.value).size() + 1) * sizeof(OLECHAR);
      DBBINDING b{};
      b.iOrdinal = i + 1;
      b.obStatus = offset;
      b.obLength = offset + 8;
      b.obValue = offset + 16;
      b.cbMaxLen = size;
      b.dwPart = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS;
      b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
      b.eParamIO = DBPARAMIO_INPUT;
      b.wType = p.type;
      bindings.push_back(b);
      sizes.push_back(size);
      offset = align(offset + 16 + size);
    }
    data.assign(offset, 0);
    for (size_t i = 0; i < count; ++i) {
      const Parameter& p = parameters[i];
      unsigned char* value = data.data() + bindings[i].obValue;
      DBLENGTH length = 0;
      bool ok = true;
      char* end = nullptr;
      const char* text = p.value.c_str();
      errno = 0;
      switch (p.type) {
        case DBTYPE_WSTR: {
          const WString w = corvane::FromUtf8(p.value);
          memcpy(value, w.c_str(), (w.size() + 1) * sizeof(OLECHAR));
          length = w.size() * sizeof(OLECHAR);
          break;
        }
        case DBTYPE_R8: {
          const double d = strtod(text, &end);
          memcpy(value, &d, sizeof d);
          length = sizeof d;
          break;
        }
        case DBTYPE_R4: {
          const float f = strtof(text, &end);
          memcpy(value, &f, sizeof f);
          length = sizeof f;
          break;
        }
        case DBTYPE_I1: case DBTYPE_I2: case DBTYPE_I4: case DBTYPE_I8: {
          const long long n = strtoll(text, &end, 10);
          length = p.type == DBTYPE_I1 ? 1 : p.type == DBTYPE_I2 ? 2 : p.type == DBTYPE_I4 ? 4 : 8;
          ok = length == 8 || (n >= -(1ll << (length * 8 - 1)) && n < (1ll << (length * 8 - 1)));
          memcpy(value, &n, length);  // little-endian: the low bytes come first
          break;
        }
        case DBTYPE_UI1: case DBTYPE_UI2: case DBTYPE_UI4: case DBTYPE_UI8: {
          const unsigned long long n = strtoull(text, &end, 10);
          length = p.type == DBTYPE_UI1 ? 1 : p.type == DBTYPE_UI2 ? 2 : p.type == DBTYPE_UI4 ? 4 : 8;
          ok = text[0] != '-' && (length == 8 || n < (1ull << (length * 8)));
          memcpy(value, &n, length);
          break;
        }
        case DBTYPE_BOOL: {
          VARIANT_BOOL b = VARIANT_FALSE;
          if (p.value == "true" || p.value == "1") b = VARIANT_TRUE;
          else ok = p.value == "false" || p.value == "0";
          memcpy(value, &b, sizeof b);
          length = sizeof b;
          break;
        }
        case DBTYPE_DBTIMESTAMP: {
          DBTIMESTAMP ts{};
          ok = ParseTimestampText(p.value, &ts);
          memcpy(value, &ts, sizeof ts);
          length = sizeof ts;
          break;
        }
        default: ok = false;
      }
      if (end && (*end || end == text || errno == ERANGE)) ok = false;
      if (!ok) {
        *error = "parameter " + std::to_string(i + 1) + ": '" + p.value + "' is not a valid " + p.typeName;
        return E_INVALIDARG;
      }
      memcpy(data.data() + bindings[i].obLength, &length, sizeof length);
      const DBSTATUS ok_status = DBSTATUS_S_OK;
      memcpy(data.data() + bindings[i].obStatus, &ok_status, sizeof ok_status);
    }
    return S_OK;
  }
};

}  // namespace

bool Parameter::Parse(const std::string& text, Parameter* parameter, std::string* error) {
  static const struct {
    const char* name;
    DBTYPE type;
  } kTypes[] = {{"DBTYPE_WSTR", DBTYPE_WSTR}, {"DBTYPE_R8", DBTYPE_R8},     {"DBTYPE_R4", DBTYPE_R4},
                {"DBTYPE_I1", DBTYPE_I1},     {"DBTYPE_I2", DBTYPE_I2},     {"DBTYPE_I4", DBTYPE_I4},
                {"DBTYPE_I8", DBTYPE_I8},     {"DBTYPE_UI1", DBTYPE_UI1},   {"DBTYPE_UI2", DBTYPE_UI2},
                {"DBTYPE_UI4", DBTYPE_UI4},   {"DBTYPE_UI8", DBTYPE_UI8},   {"DBTYPE_BOOL", DBTYPE_BOOL},
                {"DBTYPE_DBTIMESTAMP", DBTYPE_DBTIMESTAMP}};
  *parameter = Parameter{};
  parameter->value = text;
  const size_t colon = text.find(':');
  if (text.compare(0, 7, "DBTYPE_") != 0 || colon == std::string::npos) return true;
  std::string name = text.substr(0, colon);
  for (char& c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  for (const auto& t : kTypes) {
    if (name == t.name) {
      parameter->typeName = t.name;
      parameter->type = t.type;
      parameter->value = text.substr(colon + 1);
      return true;
    }
  }
  *error = "unknown parameter type '" + text.substr(0, colon) + "'";
  return false;
}

// Each record's text comes from the provider's error lookup service, asked with the
// record's HRESULT and lookup id the way an OLE DB error object asks it, so the shell
// prints what every consumer of the standard error interfaces reads. The service is the
// one linked in here, which holds the texts of the provider linked in here. A record
// whose text the service no longer holds falls back to what the record carries.
Failure TakeFailure(HRESULT hr) {
  Failure failure;
  failure.hr = hr;
  ComPtr<IErrorLookup> lookup;
  if (FAILED(CErrorLookup::CreateInstance(nullptr, IID_IErrorLookup, lookup.PutVoid()))) lookup.Reset();
  auto lookUp = [&lookup](const ERRORINFO& info, std::string* text) {
    Bstr source, description;
    const bool found =
        lookup && SUCCEEDED(lookup->GetErrorDescription(info.hrError, info.dwMinor, nullptr, LOCALE_USER_DEFAULT,
                                                        source.Put(), description.Put()));
    if (found) *text = corvane::ToUtf8(description.Get());
    return found;
  };
#ifdef _WIN32
  ComPtr<IErrorInfo> info;
  if (GetErrorInfo(0, info.Put()) == S_OK && info) {
    ComPtr<IErrorRecords> records = QueryAs<IErrorRecords>(info.Get(), IID_IErrorRecords);
    ULONG count = 0;
    if (records && SUCCEEDED(records->GetRecordCount(&count))) {
      // Record 0 is the newest; the report lists them oldest first, as on POSIX.
      for (ULONG i = count; i-- > 0;) {
        ERRORINFO basic{};
        std::string text;
        if (SUCCEEDED(records->GetBasicErrorInfo(i, &basic)) && lookUp(basic, &text)) {
          failure.descriptions.push_back(text);
          continue;
        }
        ComPtr<IErrorInfo> record;
        ComPtr<IUnknown> custom;
        if (SUCCEEDED(records->GetCustomErrorObject(i, IID_IErrorInfo, custom.Put())) && custom)
          record = QueryAs<IErrorInfo>(custom.Get(), IID_IErrorInfo);
        if (!record && FAILED(records->GetErrorInfo(i, GetUserDefaultLCID(), record.Put()))) record.Reset();
        Bstr description;
        if (record && SUCCEEDED(record->GetDescription(description.Put())) && description)
          failure.descriptions.push_back(corvane::ToUtf8(description.Get()));
      }
    } else {
      Bstr text;
      if (SUCCEEDED(info->GetDescription(text.Put())) && text) failure.descriptions.push_back(corvane::ToUtf8(text.Get()));
    }
  }
#else
  for (const auto& record : corvane::platform::TakeErrorRecords()) {
    std::string text;
    if (!lookUp(record.info, &text)) text = corvane::ToUtf8(corvane::WStringView(record.description));
    failure.descriptions.push_back(text);
  }
#endif
  // Some descriptions end in a line break of their own; the report adds its own.
  for (auto& text : failure.descriptions)
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return failure;
}

HRESULT CShellConnection::Open(const ConnectionOptions& options, Failure* failure, std::string* message,
                               bool* loadFailed) {
  *loadFailed = false;
  auto store = std::make_shared<corvane::historian::CHistorianStore>();
  if (options.demo) {
    corvane::historian::DemoPlantOptions demo;
    demo.now = NowTicks();
    const HRESULT hr = corvane::historian::CDemoPlant::Populate(*store, demo);
    if (FAILED(hr)) {
      *message = "cannot build the demo plant";
      return hr;
    }
  }
  for (const auto& file : options.csvFiles) {
    corvane::historian::CsvLoadReport report;
    const HRESULT hr = corvane::historian::CCsvLoader::LoadFile(*store, file, &report);
    if (FAILED(hr)) {
      *loadFailed = true;
      *message = report.error.empty() ? "cannot read " + file : corvane::ToUtf8(report.error);
      return hr;
    }
  }
  // The host carries its own processed-history provider, so no component has to be
  // found by its registered name.
  ComPtr<IAggregates> aggregates;
  HRESULT hr = corvane::historian::CAggregates::CreateInstance(nullptr, IID_IAggregates, aggregates.PutVoid());
  if (SUCCEEDED(hr))
    hr = corvane::historian::CReferenceHistorian::Create(store, IID_IUnknown, host_.PutVoid(), aggregates.Get());
  if (FAILED(hr)) {
    *message = "cannot create the historian";
    return hr;
  }
  ComPtr<ICreateCorvaneOleDbProvider> creator;
  hr = CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider, creator.PutVoid());
  if (SUCCEEDED(hr)) hr = creator->Create(host_.Get(), dataSource_.Put());
  if (SUCCEEDED(hr)) hr = SetInitProperties(dataSource_.Get(), options);
  if (SUCCEEDED(hr)) {
    ComPtr<IDBInitialize> init = QueryAs<IDBInitialize>(dataSource_.Get(), IID_IDBInitialize);
    hr = init ? init->Initialize() : E_NOINTERFACE;
    initialized_ = SUCCEEDED(hr);
  }
  if (SUCCEEDED(hr)) {
    ComPtr<IDBCreateSession> create = QueryAs<IDBCreateSession>(dataSource_.Get(), IID_IDBCreateSession);
    hr = create ? create->CreateSession(nullptr, IID_IDBCreateCommand, session_.Put()) : E_NOINTERFACE;
  }
  if (FAILED(hr)) {
    *failure = TakeFailure(hr);
    *message = "cannot open the provider";
    Close();
  }
  return hr;
}

void CShellConnection::Close() {
  session_.Reset();
  if (dataSource_) {
    if (initialized_) {
      ComPtr<IDBInitialize> init = QueryAs<IDBInitialize>(dataSource_.Get(), IID_IDBInitialize);
      if (init) init->Uninitialize();
    }
    dataSource_.Reset();
  }
  initialized_ = false;
  host_.Reset();
}

HRESULT CShellConnection::Execute(const std::string& sql, const std::vector<Parameter>& parameters, IRowSink& sink,
                                  const std::atomic<bool>& cancel, const ProgressCallback& progress,
                                  Failure* failure, size_t* used) {
  ComPtr<IDBCreateCommand> create = QueryAs<IDBCreateCommand>(session_.Get(), IID_IDBCreateCommand);
  if (!create) return *failure = Failure{E_NOINTERFACE, {"no open session"}}, E_NOINTERFACE;
  ComPtr<ICommandText> command;
  HRESULT hr = create->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(command.Put()));
  if (SUCCEEDED(hr)) hr = command->SetCommandText(DBGUID_DEFAULT, corvane::FromUtf8(sql).c_str());
  if (SUCCEEDED(hr)) {
    ComPtr<ICommandPrepare> prepare = QueryAs<ICommandPrepare>(command.Get(), IID_ICommandPrepare);
    hr = prepare ? prepare->Prepare(0) : E_NOINTERFACE;
  }
  if (FAILED(hr)) return *failure = TakeFailure(hr), hr;

  // How many `?` the prepared statement has decides how many values it takes.
  ComPtr<ICommandWithParameters> withParameters = QueryAs<ICommandWithParameters>(command.Get(), IID_ICommandWithParameters);
  DB_UPARAMS count = 0;
  if (withParameters) {
    TaskMem<DBPARAMINFO> infos;
    TaskMem<OLECHAR> names;
    if (FAILED(withParameters->GetParameterInfo(&count, infos.Put(), names.Put()))) {
      count = 0;
      TakeFailure(S_OK);  // nothing described is no failure of the statement
    }
  }
  if (used) *used = static_cast<size_t>(count);
  if (count > parameters.size()) {
    *failure = Failure{DB_E_PARAMNOTOPTIONAL, {"the statement has " + std::to_string(count) + " parameter(s) but " +
                                                   std::to_string(parameters.size()) + " --param value(s) were given"}};
    return DB_E_PARAMNOTOPTIONAL;
  }
  ParameterBuffer buffer;
  ComPtr<IAccessor> parameterAccessor;
  HACCESSOR handle = DB_NULL_HACCESSOR;
  if (count) {
    std::string error;
    hr = buffer.Build(parameters, count, &error);
    if (FAILED(hr)) return *failure = Failure{hr, {error}}, hr;
    std::vector<DB_UPARAMS> ordinals;
    std::vector<DBPARAMBINDINFO> infos;
    std::vector<WString> typeNames;
    for (size_t i = 0; i < count; ++i) typeNames.push_back(corvane::FromUtf8(parameters[i].typeName));
    for (size_t i = 0; i < count; ++i) {
      DBPARAMBINDINFO info{};
      info.pwszDataSourceType = const_cast<LPOLESTR>(typeNames[i].c_str());
      info.ulParamSize = buffer.bindings[i].cbMaxLen;
      info.dwFlags = DBPARAMFLAGS_ISINPUT;
      infos.push_back(info);
      ordinals.push_back(i + 1);
    }
    hr = withParameters->SetParameterInfo(count, ordinals.data(), infos.data());
    if (SUCCEEDED(hr)) {
      parameterAccessor = QueryAs<IAccessor>(command.Get(), IID_IAccessor);
      hr = parameterAccessor ? parameterAccessor->CreateAccessor(DBACCESSOR_PARAMETERDATA, count,
                                                                 buffer.bindings.data(), buffer.data.size(), &handle,
                                                                 nullptr)
                             : E_NOINTERFACE;
    }
    if (FAILED(hr)) return *failure = TakeFailure(hr), hr;
  }
  DBPARAMS params{buffer.data.data(), 1, handle};
  ComPtr<IUnknown> rowset;
  DBROWCOUNT affected = 0;
  hr = command->Execute(nullptr, IID_IRowset, count ? &params : nullptr, &affected, rowset.Put());
  if (FAILED(hr)) *failure = TakeFailure(hr);
  if (parameterAccessor) parameterAccessor->ReleaseAccessor(handle, nullptr);
  if (FAILED(hr)) return hr;
  if (!rowset) return S_OK;  // a statement without rows
  hr = ReadRowset(rowset.Get(), sink, cancel, progress);
  if (FAILED(hr) && hr != E_ABORT) *failure = TakeFailure(hr);
  return hr;
}

HRESULT CShellConnection::Schema(REFGUID schema, const std::vector<std::string>& restrictions, IRowSink& sink,
                                 Failure* failure) {
  ComPtr<IDBSchemaRowset> schemas = QueryAs<IDBSchemaRowset>(session_.Get(), IID_IDBSchemaRowset);
  if (!schemas) return *failure = Failure{E_NOINTERFACE, {"the session has no schema rowsets"}}, E_NOINTERFACE;
  std::vector<VARIANT> values(restrictions.size());
  for (size_t i = 0; i < restrictions.size(); ++i) {
    VariantInit(&values[i]);
    if (restrictions[i].empty()) continue;
    values[i].vt = VT_BSTR;
    values[i].bstrVal = SysAllocString(corvane::FromUtf8(restrictions[i]).c_str());
  }
  ComPtr<IUnknown> rowset;
  HRESULT hr = schemas->GetRowset(nullptr, schema, static_cast<ULONG>(values.size()), values.data(), IID_IRowset, 0,
                                  nullptr, rowset.Put());
  for (auto& v : values) VariantClear(&v);
  if (FAILED(hr)) return *failure = TakeFailure(hr), hr;
  std::atomic<bool> never{false};
  hr = ReadRowset(rowset.Get(), sink, never, nullptr);
  if (FAILED(hr)) *failure = TakeFailure(hr);
  return hr;
}

HRESULT CShellConnection::ReadRowset(IUnknown* rowset, IRowSink& sink, const std::atomic<bool>& cancel,
                                     const ProgressCallback& progress) {
  ComPtr<IColumnsInfo> info = QueryAs<IColumnsInfo>(rowset, IID_IColumnsInfo);
  ComPtr<IAccessor> accessor = QueryAs<IAccessor>(rowset, IID_IAccessor);
  ComPtr<IRowset> fetch = QueryAs<IRowset>(rowset, IID_IRowset);
  if (!info || !accessor || !fetch) return E_NOINTERFACE;
  // A stored procedure's worker describes its columns as it starts producing rows, so
  // the first batch is fetched before the columns are asked for.
  DBCOUNTITEM obtained = 0;
  HROW* rows = nullptr;
  HRESULT hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, kBatch, &obtained, &rows);
  if (FAILED(hr)) return hr;
  struct RowsHeld {  // the rows of the current batch, released on every way out
    IRowset* fetch;
    DBCOUNTITEM* obtained;
    HROW** rows;
    void Release() {
      if (*obtained) fetch->ReleaseRows(*obtained, *rows, nullptr, nullptr, nullptr);
      CoTaskMemFree(*rows);
      *obtained = 0;
      *rows = nullptr;
    }
    ~RowsHeld() { Release(); }
  } held{fetch.Get(), &obtained, &rows};

  DBORDINAL columnCount = 0;
  TaskMem<DBCOLUMNINFO> columns;
  TaskMem<OLECHAR> names;
  HRESULT described = info->GetColumnInfo(&columnCount, columns.Put(), names.Put());
  if (FAILED(described)) return described;
  std::vector<Column> header;
  std::vector<DBBINDING> bindings, textBindings;
  std::vector<Cell::Kind> textKinds;
  for (DBORDINAL i = 0; i < columnCount; ++i) {
    // Ordinal 0 is the bookmark; the flags are not looked at, since procedure columns
    // carry the bookmark bit on ordinary columns.
    if (columns[i].iOrdinal == 0) continue;
    DBBINDING b{};
    const size_t at = bindings.size() * sizeof(Slot);
    b.iOrdinal = columns[i].iOrdinal;
    b.obStatus = at + offsetof(Slot, status);
    b.obLength = at + offsetof(Slot, length);
    b.obValue = at + offsetof(Slot, variant);
    b.dwPart = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS;
    b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
    b.eParamIO = DBPARAMIO_NOTPARAM;
    b.wType = IsTimeType(columns[i].wType) ? DBTYPE_DBTIMESTAMP : DBTYPE_VARIANT;
    b.cbMaxLen = b.wType == DBTYPE_VARIANT ? sizeof(VARIANT) : sizeof(DBTIMESTAMP);
    bindings.push_back(b);
    const Cell::Kind kind = IsTimeType(columns[i].wType)           ? Cell::Time
                            : (columns[i].wType & ~DBTYPE_BYREF) == DBTYPE_VARIANT ? Cell::Null
                                                                                : TextKind(columns[i].wType);
    header.push_back(Column{columns[i].pwszName ? corvane::ToUtf8(columns[i].pwszName) : "", kind});
    // The same column as text, for values that a data conversion library cannot hand
    // over as a VARIANT.
    b.obStatus = textBindings.size() * sizeof(TextSlot) + offsetof(TextSlot, status);
    b.obLength = textBindings.size() * sizeof(TextSlot) + offsetof(TextSlot, length);
    b.obValue = textBindings.size() * sizeof(TextSlot) + offsetof(TextSlot, text);
    b.wType = DBTYPE_WSTR;
    b.cbMaxLen = sizeof(TextSlot::text);
    textBindings.push_back(b);
    textKinds.push_back(TextKind(columns[i].wType));
  }
  names.Reset();
  columns.Reset();
  HACCESSOR handle = DB_NULL_HACCESSOR, textHandle = DB_NULL_HACCESSOR;
  if (!bindings.empty()) {
    described = accessor->CreateAccessor(DBACCESSOR_ROWDATA, bindings.size(), bindings.data(),
                                         bindings.size() * sizeof(Slot), &handle, nullptr);
    if (FAILED(described)) return described;
    if (FAILED(accessor->CreateAccessor(DBACCESSOR_ROWDATA, textBindings.size(), textBindings.data(),
                                        textBindings.size() * sizeof(TextSlot), &textHandle, nullptr)))
      textHandle = DB_NULL_HACCESSOR;
  }
  std::vector<TextSlot> textRow;
  sink.Begin(header);
  std::vector<Slot> row(bindings.size());
  std::vector<Cell> cells(bindings.size());
  size_t fetched = 0;
  bool complete = true, stopped = false;
  for (;;) {
    for (DBCOUNTITEM r = 0; r < obtained; ++r) {
      memset(static_cast<void*>(row.data()), 0, row.size() * sizeof(Slot));
      const HRESULT got = bindings.empty() ? S_OK : fetch->GetData(rows[r], handle, row.data());
      for (size_t c = 0; c < bindings.size(); ++c) {
        Slot& s = row[c];
        if (FAILED(got) && got != DB_E_ERRORSOCCURRED) {
          cells[c] = Cell{Cell::Text, "<error>"};
        } else if (s.status == DBSTATUS_S_ISNULL) {
          cells[c] = Cell{};
        } else if (s.status != DBSTATUS_S_OK && s.status != DBSTATUS_S_TRUNCATED) {
          if (textRow.empty() && textHandle != DB_NULL_HACCESSOR) {
            textRow.resize(textBindings.size());
            if (FAILED(fetch->GetData(rows[r], textHandle, textRow.data()))) textRow.clear();
          }
          if (!textRow.empty() && textRow[c].status == DBSTATUS_S_OK)
            cells[c] = TextCell(textKinds[c], textRow[c].text);
          else
            cells[c] = Cell{Cell::Text, "<status " + std::to_string(s.status) + ">"};
        } else if (bindings[c].wType == DBTYPE_DBTIMESTAMP) {
          const DBTIMESTAMP& t = s.timestamp;
          cells[c] = Cell{Cell::Time, Timestamp(t.year, t.month, t.day, t.hour, t.minute, t.second,
                                                static_cast<int>(t.fraction / 1000000))};
        } else {
          cells[c] = CellFromVariant(s.variant);
          VariantClear(&s.variant);
        }
      }
      textRow.clear();
      if (!sink.Row(cells)) {
        stopped = true;
        break;
      }
    }
    const bool more = hr == S_OK && obtained > 0;
    fetched += obtained;
    held.Release();
    if (progress) progress(fetched);
    stopped = stopped || !sink.EndBatch();
    if (!more && !stopped) break;
    if (stopped || cancel.load()) {
      complete = false;
      hr = E_ABORT;
      break;
    }
    hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, kBatch, &obtained, &rows);
    if (FAILED(hr)) {
      complete = false;
      break;
    }
  }
  if (SUCCEEDED(hr)) hr = S_OK;
  sink.End(complete);
  if (handle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(handle, nullptr);
  if (textHandle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(textHandle, nullptr);
  return hr;
}

}  // namespace corvane::shell
