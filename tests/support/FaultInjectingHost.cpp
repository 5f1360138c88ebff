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

HRESULT CFaultInjectingHost::ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues,
                                     DWORD flags, void** continuation, HistoryValueList** values) {
  return Pass(
      Op::ReadRaw, raw_,
      [&] {
        void* before = continuation ? *continuation : nullptr;
        const ULONG forced = pageSize_.load();
        const HRESULT hr = raw_->ReadRaw(tag, start, end, forced ? forced : maxValues, flags, continuation, values);
        if (continuation) Track(before, *continuation);
        if (SUCCEEDED(hr) && values && *values && restampFrom_.load())
          for (ULONG i = 0; i < (*values)->count; ++i)
            if (FileTimeToU64((*values)->values[i].timestamp) == restampFrom_.load())
              (*values)->values[i].timestamp = U64ToFileTime(restampTo_.load());
        return hr;
      },
      values);
}

HRESULT CFaultInjectingHost::ReleaseContinuationPoint(void** continuation) {
  return Pass(Op::ReleaseContinuationPoint, raw_, [&] {
    void* before = continuation ? *continuation : nullptr;
    const HRESULT hr = raw_->ReleaseContinuationPoint(continuation);
    if (SUCCEEDED(hr)) Track(before, nullptr);
    return hr;
  });
}

HRESULT CFaultInjectingHost::GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                                      FILETIME start, FILETIME end,
                                                      const ProcessedReadRequest* request, ULONG maxNames,
                                                      void** continuation, DWORD reserved, ULONG* nameCount,
                                                      BSTR** names, HistoryValueList** values) {
  return Pass(
      Op::GetFilteredTagStatistics, processed_,
      [&] {
        void* before = continuation ? *continuation : nullptr;
        const HRESULT hr = processed_->GetFilteredTagStatistics(filter1, filter2, filter3, start, end, request,
                                                                maxNames, continuation, reserved, nameCount, names,
                                                                values);
        if (continuation) Track(before, *continuation);
        return hr;
      },
      nameCount, names, values);
}

}  // namespace corvane::testing
