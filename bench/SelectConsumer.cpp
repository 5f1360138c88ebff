#include "bench/SelectConsumer.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "SQLParser/TimeConversion.h"
#include "historian/Aggregates.h"
#include "provider/CreateCorvaneOleDbProviderImpl.h"
#include "provider/ICreateCorvaneOleDbProvider.h"

namespace corvane::e2e {

const OLECHAR kTagName[] = OLESTR("Plant.Flow");

namespace {

using Clock = std::chrono::steady_clock;

template <typename T>
T* Query(IUnknown* object, REFIID iid) {
  T* p = nullptr;
  if (!object || FAILED(object->QueryInterface(iid, reinterpret_cast<void**>(&p)))) return nullptr;
  return p;
}

// A binding into a buffer of type `Buffer` whose lengths and statuses are arrays at its end.
template <typename Buffer>
DBBINDING Bind(DBORDINAL ordinal, DBTYPE type, DBBYTEOFFSET value, DBLENGTH maxLen, size_t slot,
               DBPARAMIO io = DBPARAMIO_NOTPARAM) {
  DBBINDING b;
  std::memset(&b, 0, sizeof b);
  b.iOrdinal = ordinal;
  b.obValue = value;
  b.obLength = offsetof(Buffer, lengths) + slot * sizeof(DBLENGTH);
  b.obStatus = offsetof(Buffer, statuses) + slot * sizeof(DBSTATUS);
  b.dwPart = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS;
  b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
  b.eParamIO = io;
  b.cbMaxLen = maxLen;
  b.wType = type;
  return b;
}

// "YYYY-MM-DD HH:MM:SS" of a UTC time, as the query settings read it.
WString TimeText(ULONGLONG ticks) {
  FILETIME time;
  time.dwLowDateTime = static_cast<DWORD>(ticks);
  time.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  SYSTEMTIME s{};
  if (!FileTimeToSystemTime(&time, &s)) return WString();
  return WFormat(OLESTR("%04u-%02u-%02u %02u:%02u:%02u"), s.wYear, s.wMonth, s.wDay, s.wHour, s.wMinute,
                 s.wSecond);
}

// The parameter accessor's buffer for RangeParameters.
struct RangeParameterData {
  OLECHAR tag[ConsumerRow::kTagChars];
  DBTIMESTAMP first;
  DBTIMESTAMP end;
  DBLENGTH lengths[3];
  DBSTATUS statuses[3];
};

DBBINDING BindParameter(DBORDINAL ordinal, DBTYPE type, DBBYTEOFFSET value, DBLENGTH maxLen) {
  return Bind<RangeParameterData>(ordinal, type, value, maxLen, ordinal - 1, DBPARAMIO_INPUT);
}

// Describes the three parameters to the command and creates the accessor over `data`.
HRESULT BindRange(ICommandText* command, const RangeParameters& values, RangeParameterData* data,
                  IAccessor** accessor, HACCESSOR* handle) {
  *accessor = nullptr;
  *handle = DB_NULL_HACCESSOR;
  const size_t tagChars = std::char_traits<OLECHAR>::length(values.tag);
  if (tagChars >= ConsumerRow::kTagChars) return E_INVALIDARG;
  std::memset(data, 0, sizeof *data);
  std::char_traits<OLECHAR>::copy(data->tag, values.tag, tagChars);
  HRESULT hr = FileTimeToDBTimestamp(values.first, &data->first);
  if (SUCCEEDED(hr)) hr = FileTimeToDBTimestamp(values.end, &data->end);
  if (FAILED(hr)) return hr;
  data->lengths[0] = tagChars * sizeof(OLECHAR);
  data->lengths[1] = data->lengths[2] = sizeof(DBTIMESTAMP);

  ICommandWithParameters* withParameters = Query<ICommandWithParameters>(command, IID_ICommandWithParameters);
  if (!withParameters) return E_NOINTERFACE;
  OLECHAR text[] = OLESTR("DBTYPE_WVARCHAR"), time[] = OLESTR("DBTYPE_DBTIMESTAMP");
  DBPARAMBINDINFO infos[3] = {};
  infos[0].pwszDataSourceType = text;
  infos[0].ulParamSize = ConsumerRow::kTagChars;
  infos[1].pwszDataSourceType = infos[2].pwszDataSourceType = time;
  infos[1].ulParamSize = infos[2].ulParamSize = sizeof(DBTIMESTAMP);
  for (DBPARAMBINDINFO& info : infos) info.dwFlags = DBPARAMFLAGS_ISINPUT;
  const DB_UPARAMS ordinals[3] = {1, 2, 3};
  hr = withParameters->SetParameterInfo(3, ordinals, infos);
  withParameters->Release();
  if (FAILED(hr)) return hr;

  const DBBINDING bindings[] = {
      BindParameter(1, DBTYPE_WSTR, offsetof(RangeParameterData, tag), sizeof(RangeParameterData::tag)),
      BindParameter(2, DBTYPE_DBTIMESTAMP, offsetof(RangeParameterData, first), sizeof(DBTIMESTAMP)),
      BindParameter(3, DBTYPE_DBTIMESTAMP, offsetof(RangeParameterData, end), sizeof(DBTIMESTAMP))};
  *accessor = Query<IAccessor>(command, IID_IAccessor);
  if (!*accessor) return E_NOINTERFACE;
  hr = (*accessor)->CreateAccessor(DBACCESSOR_PARAMETERDATA, 3, bindings, sizeof(RangeParameterData), handle,
                                   nullptr);
  if (FAILED(hr)) {
    (*accessor)->Release();
    *accessor = nullptr;
  }
  return hr;
}

}  // namespace

void RowBindings(ValueAs value, DBBINDING bindings[4]) {
  bindings[0] = Bind<ConsumerRow>(1, DBTYPE_WSTR, offsetof(ConsumerRow, tag), sizeof(ConsumerRow::tag), 0);
  bindings[1] = Bind<ConsumerRow>(2, DBTYPE_DBTIMESTAMP, offsetof(ConsumerRow, timestamp), sizeof(DBTIMESTAMP), 1);
  bindings[2] = Bind<ConsumerRow>(3, DBTYPE_UI4, offsetof(ConsumerRow, quality), sizeof(ULONG), 2);
  if (value == ValueAs::kDouble) {
    bindings[3] = Bind<ConsumerRow>(4, DBTYPE_R8, offsetof(ConsumerRow, real), sizeof(double), 3);
  } else if (value == ValueAs::kText) {
    bindings[3] = Bind<ConsumerRow>(4, DBTYPE_WSTR, offsetof(ConsumerRow, text), sizeof(ConsumerRow::text), 3);
  } else {
    bindings[3] = Bind<ConsumerRow>(4, DBTYPE_VARIANT, offsetof(ConsumerRow, value), sizeof(VARIANT), 3);
  }
}

WString RangeQuery(const OLECHAR* table) {
  return WFormat(OLESTR("SELECT TAGNAME, TIMESTAMP, QUALITY, VALUE FROM %s WHERE TAGNAME = ? AND TIMESTAMP >= ? AND "
                        "TIMESTAMP < ?"),
                 table);
}

std::shared_ptr<historian::CHistorianStore> MakeSeriesStore(size_t samples) {
  auto store = std::make_shared<historian::CHistorianStore>();
  historian::TagDefinition def;
  def.name = kTagName;
  def.description = OLESTR("Feed flow");
  def.vartype = VT_R8;
  if (FAILED(store->AddTag(def))) return nullptr;
  const HRESULT hr = store->AppendGenerated(kTagName, samples, [](size_t i, historian::SampleInput& s) {
    s.time = kFirstSample + i * kSampleStep;
    s.number = SampleValue(i);
    s.quality = SampleQuality(i);
  });
  return SUCCEEDED(hr) ? store : nullptr;
}

HRESULT CreateSeriesHost(std::shared_ptr<historian::CHistorianStore> store, IUnknown** host) {
  if (!store || !host) return E_INVALIDARG;
  *host = nullptr;
  IAggregates* factory = nullptr;
  HRESULT hr = historian::CAggregates::CreateInstance(nullptr, IID_IAggregates, reinterpret_cast<void**>(&factory));
  if (FAILED(hr)) return hr;
  hr = historian::CReferenceHistorian::Create(std::move(store), IID_IUnknown, reinterpret_cast<void**>(host),
                                              factory);
  factory->Release();
  return hr;
}

HRESULT SelectConsumer::Open(IUnknown* host) {
  if (dataSource_) return E_UNEXPECTED;
  ICreateCorvaneOleDbProvider* creator = nullptr;
  HRESULT hr = CCreateCorvaneOleDbProviderImpl::CreateInstance(nullptr, IID_ICreateCorvaneOleDbProvider,
                                                               reinterpret_cast<void**>(&creator));
  if (FAILED(hr)) return hr;
  hr = creator->Create(host, &dataSource_);
  creator->Release();
  if (FAILED(hr)) return hr;

  IDBProperties* props = Query<IDBProperties>(dataSource_, IID_IDBProperties);
  if (!props) return E_NOINTERFACE;
  DBPROP prop{};
  prop.dwPropertyID = DBPROP_INIT_CATALOG;
  prop.vValue.vt = VT_BSTR;
  prop.vValue.bstrVal = SysAllocString(OLESTR("Plant"));
  DBPROPSET set{&prop, 1, DBPROPSET_DBINIT};
  hr = props->SetProperties(1, &set);
  VariantClear(&prop.vValue);
  props->Release();
  if (FAILED(hr)) return hr;

  IDBInitialize* init = Query<IDBInitialize>(dataSource_, IID_IDBInitialize);
  if (!init) return E_NOINTERFACE;
  hr = init->Initialize();
  init->Release();
  if (FAILED(hr)) return hr;
  IDBCreateSession* create = Query<IDBCreateSession>(dataSource_, IID_IDBCreateSession);
  if (!create) return E_NOINTERFACE;
  hr = create->CreateSession(nullptr, IID_IDBCreateCommand, reinterpret_cast<IUnknown**>(&session_));
  create->Release();
  return hr;
}

ULONG SelectConsumer::Close() {
  if (session_) session_->Release();
  session_ = nullptr;
  if (!dataSource_) return 0;
  if (IDBInitialize* init = Query<IDBInitialize>(dataSource_, IID_IDBInitialize)) {
    init->Uninitialize();
    init->Release();
  }
  const ULONG left = dataSource_->Release();
  dataSource_ = nullptr;
  return left;
}

HRESULT SelectConsumer::Execute(const OLECHAR* text, const RangeParameters* parameters, IRowset** rowset,
                                Clock::time_point* start) {
  *rowset = nullptr;
  if (!session_) return E_UNEXPECTED;
  ICommandText* command = nullptr;
  HRESULT hr = session_->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command));
  if (FAILED(hr)) return hr;
  hr = command->SetCommandText(DBGUID_SQL, text);
  RangeParameterData data;
  IAccessor* parameterAccessor = nullptr;
  DBPARAMS params{&data, 1, DB_NULL_HACCESSOR};
  if (SUCCEEDED(hr) && parameters) hr = BindRange(command, *parameters, &data, &parameterAccessor, &params.hAccessor);
  if (SUCCEEDED(hr)) {
    DBROWCOUNT affected = 0;
    if (start) *start = Clock::now();
    hr = command->Execute(nullptr, IID_IRowset, parameters ? &params : nullptr, &affected,
                          reinterpret_cast<IUnknown**>(rowset));
  }
  if (parameterAccessor) {
    parameterAccessor->ReleaseAccessor(params.hAccessor, nullptr);
    parameterAccessor->Release();
  }
  // The rowset keeps what it needs of the command.
  command->Release();
  return hr;
}

HRESULT SelectConsumer::Run(const OLECHAR* text) {
  IRowset* rowset = nullptr;
  const HRESULT hr = Execute(text, nullptr, &rowset);
  if (rowset) rowset->Release();
  return hr;
}

HRESULT SelectConsumer::UseTimeRange(ULONGLONG first, ULONGLONG last) {
  const WString text = WFormat(OLESTR("UPDATE QUERYSETTINGS SET TIMESTAMP_START = '%s', TIMESTAMP_END = '%s', "
                                      "USE_USER_TIME_RANGE = 1"),
                               TimeText(first).c_str(), TimeText(last).c_str());
  return Run(text.c_str());
}

HRESULT SelectConsumer::Select(const OLECHAR* text, FetchStats* stats, const BatchHandler& onBatch,
                               const std::function<void()>& afterFirstFetch) {
  return Select(text, SelectOptions(), stats, onBatch, afterFirstFetch);
}

HRESULT ReadRowset(IRowset* rowset, HACCESSOR accessor, DBROWCOUNT batch, Clock::time_point start, FetchStats* out,
                   const BatchHandler& onBatch, const std::function<void()>& afterFirstFetch) {
  if (batch <= 0) return E_INVALIDARG;
  std::vector<ConsumerRow> rows(static_cast<size_t>(batch));
  std::memset(static_cast<void*>(rows.data()), 0, rows.size() * sizeof(ConsumerRow));
  std::vector<HRESULT> results(static_cast<size_t>(batch));
  std::vector<HROW> handles(static_cast<size_t>(batch));
  HRESULT hr = S_OK;
  bool more = true;
  while (more) {
    DBCOUNTITEM obtained = 0;
    HROW* handleArray = handles.data();
    hr = rowset->GetNextRows(DB_NULL_HCHAPTER, 0, batch, &obtained, &handleArray);
    if (FAILED(hr)) break;
    if (obtained && out->rows == 0) {
      out->secondsToFirstRows = std::chrono::duration<double>(Clock::now() - start).count();
      if (afterFirstFetch) afterFirstFetch();
    }
    for (DBCOUNTITEM i = 0; i < obtained; ++i) {
      results[i] = rowset->GetData(handles[i], accessor, &rows[i]);
      if (out->rows == 0 && i == 0) out->secondsToFirstRow = std::chrono::duration<double>(Clock::now() - start).count();
    }
    more = onBatch(rows.data(), results.data(), obtained) && hr == S_OK && obtained > 0;
    for (DBCOUNTITEM i = 0; i < obtained; ++i) VariantClear(&rows[i].value);
    const HRESULT released = rowset->ReleaseRows(obtained, handles.data(), nullptr, nullptr, nullptr);
    out->rows += obtained;
    ++out->batches;
    if (FAILED(released)) {
      hr = released;
      break;
    }
  }
  return hr == DB_S_ENDOFROWSET ? S_OK : hr;
}

HRESULT SelectConsumer::Select(const OLECHAR* text, const SelectOptions& options, FetchStats* stats,
                               const BatchHandler& onBatch, const std::function<void()>& afterFirstFetch) {
  FetchStats local;
  FetchStats& out = stats ? *stats : local;
  out = FetchStats();
  auto start = Clock::now();
  IRowset* rowset = nullptr;
  HRESULT hr = Execute(text, options.parameters, &rowset, &start);
  if (FAILED(hr)) return hr;
  if (!rowset) return E_NOINTERFACE;
  IAccessor* accessor = Query<IAccessor>(rowset, IID_IAccessor);
  if (!accessor) {
    rowset->Release();
    return E_NOINTERFACE;
  }
  DBBINDING bindings[4];
  RowBindings(options.value, bindings);
  HACCESSOR accessorHandle = DB_NULL_HACCESSOR;
  hr = accessor->CreateAccessor(DBACCESSOR_ROWDATA, 4, bindings, sizeof(ConsumerRow), &accessorHandle, nullptr);
  if (SUCCEEDED(hr)) {
    hr = ReadRowset(rowset, accessorHandle, kBatch, start, &out, onBatch, afterFirstFetch);
    accessor->ReleaseAccessor(accessorHandle, nullptr);
  }
  accessor->Release();
  rowset->Release();
  out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return hr;
}

}  // namespace corvane::e2e
