#include "tests/support/FaultInjectingHost.h"


namespace corvane::testing {

CFaultInjectingHost* CFaultInjectingHost::Create(IUnknown* inner) {
  return inner ? new CFaultInjectingHost(inner) : nullptr;
}

CFaultInjectingHost::CFaultInjectingHost(IUnknown* inner) : inner_(inner) {
  inner_->AddRef();
  inner_->QueryInterface(IID_IRawDataProvider, reinterpret_cast<void**>(&raw_));
  inner_->QueryInterface(IID_IProcessedDataProvider, reinterpret_cast<void**>(&processed_));
  inner_->QueryInterface(IID_IValuesProvider, reinterpret_cast<void**>(&values_));
}

CFaultInjectingHost::~CFaultInjectingHost() {
  if (raw_) raw_->Release();
  if (processed_) processed_->Release();
  if (values_) values_->Release();
  inner_->Release();
}

void CFaultInjectingHost::FailCall(Op op, ULONG n, HRESULT hr) {
  std::lock_guard<std::mutex> guard(lock_);
  if (n)
    rules_.push_back({op, n, false, hr});
  else
    rules_.push_back({op, Calls(op) + 1, true, hr});
}

void CFaultInjectingHost::Omit(REFIID iid) {
  if (IsEqualIID(iid, IID_IProcessedDataProvider)) omitProcessed_ = true;
  if (IsEqualIID(iid, IID_IValuesProvider)) omitValues_ = true;
}

size_t CFaultInjectingHost::OutstandingContinuationPoints() const {
  std::lock_guard<std::mutex> guard(lock_);
  return outstanding_.size();
}

bool CFaultInjectingHost::Enter(Op op, HRESULT* hr) {
  const ULONG call = ++calls_[static_cast<int>(op)];
  std::lock_guard<std::mutex> guard(lock_);
  for (const Rule& rule : rules_) {
    if (rule.op == op && (rule.fromThereOn ? call >= rule.first : call == rule.first)) {
      *hr = rule.hr;
      return true;
    }
  }
  return false;
}

void CFaultInjectingHost::Track(void* before, void* after) {
  std::lock_guard<std::mutex> guard(lock_);
  if (before && before != after) outstanding_.erase(before);
  if (after) outstanding_.insert(after);
}

HRESULT CFaultInjectingHost::QueryInterface(REFIID riid, void** object) {
  if (!object) return E_INVALIDARG;
  *object = nullptr;
  if (IsEqualIID(riid, IID_IUnknown) || (IsEqualIID(riid, IID_IRawDataProvider) && raw_))
    *object = static_cast<IRawDataProvider*>(this);
  else if (IsEqualIID(riid, IID_IProcessedDataProvider) && processed_ && !omitProcessed_)
    *object = static_cast<IProcessedDataProvider*>(this);
  else if (IsEqualIID(riid, IID_IValuesProvider) && values_ && !omitValues_)
    *object = static_cast<IValuesProvider*>(this);
  else
    return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

ULONG CFaultInjectingHost::AddRef() { return ++refs_; }

ULONG CFaultInjectingHost::Release() {
  const ULONG left = --refs_;
  if (!left) delete this;
  return left;
}

// Each forwarding operation: count, wait, maybe fail with nulled outputs, else pass on.
#define FIH_ENTER(op, ...)                            \
  if (HRESULT injected_; Enter(Op::op, &injected_)) { \
    __VA_ARGS__;                                      \
    return injected_;                                 \
  }

HRESULT CFaultInjectingHost::GetTagInfo(const TagIdent* tag, VARTYPE* vartype) {
  FIH_ENTER(GetTagInfo, (void)0);
  return raw_ ? raw_->GetTagInfo(tag, vartype) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::GetTimeBounds(const TagIdent* tag, FILETIME* first, FILETIME* last) {
  FIH_ENTER(GetTimeBounds, (void)0);
  return raw_ ? raw_->GetTimeBounds(tag, first, last) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::BrowseTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter, ULONG* count,
                                        TagRecord** tags, BOOL* truncated) {
  FIH_ENTER(BrowseTags, if (count) *count = 0; if (tags) *tags = nullptr);
  return raw_ ? raw_->BrowseTags(nameFilter, descriptionFilter, count, tags, truncated) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::GetCapabilities(const TagIdent* tag, DWORD* capabilities) {
  FIH_ENTER(GetCapabilities, if (capabilities) *capabilities = 0);
  return raw_ ? raw_->GetCapabilities(tag, capabilities) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues,
                                     DWORD flags, void** continuation, HistoryValueList** values) {
  FIH_ENTER(ReadRaw, if (values) *values = nullptr);
  if (!raw_) return E_NOINTERFACE;
  if (ULONG forced = pageSize_.load()) maxValues = forced;
  void* before = continuation ? *continuation : nullptr;
  HRESULT hr = raw_->ReadRaw(tag, start, end, maxValues, flags, continuation, values);
  if (continuation) Track(before, *continuation);
  if (SUCCEEDED(hr) && values && *values && restampFrom_.load())
    for (ULONG i = 0; i < (*values)->count; ++i)
      if (FileTimeToU64((*values)->values[i].timestamp) == restampFrom_.load())
        (*values)->values[i].timestamp = U64ToFileTime(restampTo_.load());
  return hr;
}

HRESULT CFaultInjectingHost::ReleaseContinuationPoint(void** continuation) {
  FIH_ENTER(ReleaseContinuationPoint, (void)0);
  if (!raw_) return E_NOINTERFACE;
  void* before = continuation ? *continuation : nullptr;
  HRESULT hr = raw_->ReleaseContinuationPoint(continuation);
  if (SUCCEEDED(hr)) Track(before, nullptr);
  return hr;
}

HRESULT CFaultInjectingHost::InsertValue(const TagIdent* tag, const HistoryValue* value) {
  FIH_ENTER(InsertValue, (void)0);
  return raw_ ? raw_->InsertValue(tag, value) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::DeleteValues(const TagIdent* tag, FILETIME start, FILETIME end) {
  FIH_ENTER(DeleteValues, (void)0);
  return raw_ ? raw_->DeleteValues(tag, start, end) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::UpdateValue(const TagIdent* tag, const HistoryValue* value) {
  FIH_ENTER(UpdateValue, (void)0);
  return raw_ ? raw_->UpdateValue(tag, value) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::ReadProcessed(const TagIdent* tag, const ProcessedReadRequest* request,
                                           ULONG aggregateCount, const AggregateId* aggregates,
                                           ProcessedResult** results) {
  FIH_ENTER(ReadProcessed, if (results) *results = nullptr);
  return processed_ ? processed_->ReadProcessed(tag, request, aggregateCount, aggregates, results) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                                      FILETIME start, FILETIME end,
                                                      const ProcessedReadRequest* request, ULONG maxNames,
                                                      void** continuation, DWORD reserved, ULONG* nameCount,
                                                      BSTR** names, HistoryValueList** values) {
  FIH_ENTER(GetFilteredTagStatistics, if (nameCount) *nameCount = 0; if (names) *names = nullptr;
            if (values) *values = nullptr);
  if (!processed_) return E_NOINTERFACE;
  void* before = continuation ? *continuation : nullptr;
  HRESULT hr = processed_->GetFilteredTagStatistics(filter1, filter2, filter3, start, end, request, maxNames,
                                                    continuation, reserved, nameCount, names, values);
  if (continuation) Track(before, *continuation);
  return hr;
}

HRESULT CFaultInjectingHost::GetMostRecentValue(const TagIdent* tag, HistoryValue** value) {
  FIH_ENTER(GetMostRecentValue, if (value) *value = nullptr);
  return values_ ? values_->GetMostRecentValue(tag, value) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::GetGoodValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                           HistoryValueList** values) {
  FIH_ENTER(GetGoodValues, if (values) *values = nullptr);
  return values_ ? values_->GetGoodValues(tag, start, end, count, values) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::GetBadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                          HistoryValueList** values) {
  FIH_ENTER(GetBadValues, if (values) *values = nullptr);
  return values_ ? values_->GetBadValues(tag, start, end, count, values) : E_NOINTERFACE;
}

HRESULT CFaultInjectingHost::GetAllValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                          HistoryValueList** values) {
  FIH_ENTER(GetAllValues, if (values) *values = nullptr);
  return values_ ? values_->GetAllValues(tag, start, end, count, values) : E_NOINTERFACE;
}

#undef FIH_ENTER

}  // namespace corvane::testing
