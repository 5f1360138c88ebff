// A test host that wraps any historian host object and misbehaves on request: it fails a chosen call of a chosen
// operation with a chosen HRESULT, forces the page size of raw reads, hides the processed or values interface, and
// counts the continuation points that callers have not finished or released.
#pragma once
#include <atomic>
#include <mutex>
#include <set>
#include <vector>

#include "base/HistorianInterfaces.h"

// The host operations the wrapper counts and can fail, in the one list that gives both
// the enum and the names that case files and the fault sweep's reports use.
#define CORVANE_HOST_OPERATIONS(X)                                                                       \
  X(GetTagInfo) X(GetTimeBounds) X(BrowseTags) X(GetCapabilities) X(ReadRaw) X(ReleaseContinuationPoint) \
  X(InsertValue) X(DeleteValues) X(UpdateValue) X(ReadProcessed) X(GetFilteredTagStatistics)            \
  X(GetMostRecentValue) X(GetGoodValues) X(GetBadValues) X(GetAllValues)

namespace corvane::testing {

class CFaultInjectingHost final : public IRawDataProvider, public IProcessedDataProvider, public IValuesProvider {
 public:
#define CORVANE_HOST_OP_ENUMERATOR(name) name,
  enum class Op { CORVANE_HOST_OPERATIONS(CORVANE_HOST_OP_ENUMERATOR) Count };
#undef CORVANE_HOST_OP_ENUMERATOR

  // Wraps `inner` (which it holds a reference to); the new object has one reference.
  static CFaultInjectingHost* Create(IUnknown* inner) {
    return inner ? new CFaultInjectingHost(inner) : nullptr;
  }

  // Call number `n` (1-based, counted over the host's life) of `op` returns `hr` without reaching the wrapped host;
  // n = 0 fails every call from now on. Out-pointers are nulled as a failing host would.
  void FailCall(Op op, ULONG n, HRESULT hr) {
    std::lock_guard<std::mutex> guard(lock_);
    if (n)
      rules_.push_back({op, n, false, hr});
    else
      rules_.push_back({op, Calls(op) + 1, true, hr});
  }
  // Raw reads ask the wrapped host for at most this many samples (0: as the caller asks).
  void ForcePageSize(ULONG maxValues) { pageSize_ = maxValues; }
  // Raw samples stamped `from` are answered as stamped `to`: a host that hands out two
  // samples of one time, which the reference store never holds.
  void Restamp(ULONGLONG from, ULONGLONG to) { restampFrom_ = from, restampTo_ = to; }
  // QueryInterface refuses this interface (IID_IProcessedDataProvider or IID_IValuesProvider).
  void Omit(REFIID iid) {
    if (IsEqualIID(iid, IID_IProcessedDataProvider)) omitProcessed_ = true;
    if (IsEqualIID(iid, IID_IValuesProvider)) omitValues_ = true;
  }

  ULONG Calls(Op op) const { return calls_[static_cast<int>(op)].load(); }
  // Continuation points handed out (by raw slot 7 or processed slot 4) and neither exhausted nor released yet.
  size_t OutstandingContinuationPoints() const {
    std::lock_guard<std::mutex> guard(lock_);
    return outstanding_.size();
  }

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
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
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (!left) delete this;
    return left;
  }

  // IRawDataProvider
  HRESULT STDMETHODCALLTYPE GetTagInfo(const TagIdent* tag, VARTYPE* vartype) override {
    return Pass(Op::GetTagInfo, raw_, [&] { return raw_->GetTagInfo(tag, vartype); });
  }
  HRESULT STDMETHODCALLTYPE GetTimeBounds(const TagIdent* tag, FILETIME* first, FILETIME* last) override {
    return Pass(Op::GetTimeBounds, raw_, [&] { return raw_->GetTimeBounds(tag, first, last); });
  }
  HRESULT STDMETHODCALLTYPE BrowseTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter, ULONG* count,
                                       TagRecord** tags, BOOL* truncated) override {
    return Pass(
        Op::BrowseTags, raw_, [&] { return raw_->BrowseTags(nameFilter, descriptionFilter, count, tags, truncated); },
        count, tags);
  }
  HRESULT STDMETHODCALLTYPE GetCapabilities(const TagIdent* tag, DWORD* capabilities) override {
    return Pass(Op::GetCapabilities, raw_, [&] { return raw_->GetCapabilities(tag, capabilities); }, capabilities);
  }
  HRESULT STDMETHODCALLTYPE ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues,
                                    DWORD flags, void** continuation, HistoryValueList** values) override {
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
  HRESULT STDMETHODCALLTYPE ReleaseContinuationPoint(void** continuation) override {
    return Pass(Op::ReleaseContinuationPoint, raw_, [&] {
      void* before = continuation ? *continuation : nullptr;
      const HRESULT hr = raw_->ReleaseContinuationPoint(continuation);
      if (SUCCEEDED(hr)) Track(before, nullptr);
      return hr;
    });
  }
  HRESULT STDMETHODCALLTYPE InsertValue(const TagIdent* tag, const HistoryValue* value) override {
    return Pass(Op::InsertValue, raw_, [&] { return raw_->InsertValue(tag, value); });
  }
  HRESULT STDMETHODCALLTYPE DeleteValues(const TagIdent* tag, FILETIME start, FILETIME end) override {
    return Pass(Op::DeleteValues, raw_, [&] { return raw_->DeleteValues(tag, start, end); });
  }
  HRESULT STDMETHODCALLTYPE UpdateValue(const TagIdent* tag, const HistoryValue* value) override {
    return Pass(Op::UpdateValue, raw_, [&] { return raw_->UpdateValue(tag, value); });
  }

  // IProcessedDataProvider
  HRESULT STDMETHODCALLTYPE ReadProcessed(const TagIdent* tag, const ProcessedReadRequest* request,
                                          ULONG aggregateCount, const AggregateId* aggregates,
                                          ProcessedResult** results) override {
    return Pass(
        Op::ReadProcessed, processed_,
        [&] { return processed_->ReadProcessed(tag, request, aggregateCount, aggregates, results); }, results);
  }
  HRESULT STDMETHODCALLTYPE GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                                     FILETIME start, FILETIME end,
                                                     const ProcessedReadRequest* request, ULONG maxNames,
                                                     void** continuation, DWORD reserved, ULONG* nameCount,
                                                     BSTR** names, HistoryValueList** values) override {
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

  // IValuesProvider
  HRESULT STDMETHODCALLTYPE GetMostRecentValue(const TagIdent* tag, HistoryValue** value) override {
    return Pass(Op::GetMostRecentValue, values_, [&] { return values_->GetMostRecentValue(tag, value); }, value);
  }
  HRESULT STDMETHODCALLTYPE GetGoodValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                          HistoryValueList** values) override {
    return Pass(Op::GetGoodValues, values_, [&] { return values_->GetGoodValues(tag, start, end, count, values); },
                values);
  }
  HRESULT STDMETHODCALLTYPE GetBadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                         HistoryValueList** values) override {
    return Pass(Op::GetBadValues, values_, [&] { return values_->GetBadValues(tag, start, end, count, values); },
                values);
  }
  HRESULT STDMETHODCALLTYPE GetAllValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                         HistoryValueList** values) override {
    return Pass(Op::GetAllValues, values_, [&] { return values_->GetAllValues(tag, start, end, count, values); },
                values);
  }

 private:
  explicit CFaultInjectingHost(IUnknown* inner) : inner_(inner) {
    inner_->AddRef();
    inner_->QueryInterface(IID_IRawDataProvider, reinterpret_cast<void**>(&raw_));
    inner_->QueryInterface(IID_IProcessedDataProvider, reinterpret_cast<void**>(&processed_));
    inner_->QueryInterface(IID_IValuesProvider, reinterpret_cast<void**>(&values_));
  }
  ~CFaultInjectingHost() {
    if (raw_) raw_->Release();
    if (processed_) processed_->Release();
    if (values_) values_->Release();
    inner_->Release();
  }
  // Counts the call and tells whether it must fail (and with what).
  bool Enter(Op op, HRESULT* hr) {
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
  // Each forwarding operation: counted, then failed with its outputs nulled as a failing host would, or passed on
  // to the wrapped interface `to` (E_NOINTERFACE without one).
  template <typename Call, typename... Out>
  HRESULT Pass(Op op, const void* to, Call call, Out*... outs) {
    HRESULT injected = S_OK;
    if (!Enter(op, &injected)) return to ? call() : E_NOINTERFACE;
    ((outs ? void(*outs = {}) : void()), ...);
    return injected;
  }
  void Track(void* before, void* after) {
    std::lock_guard<std::mutex> guard(lock_);
    if (before && before != after) outstanding_.erase(before);
    if (after) outstanding_.insert(after);
  }

  struct Rule {
    Op op;
    ULONG first;       // call number
    bool fromThereOn;  // that call and every later one
    HRESULT hr;
  };

  std::atomic<ULONG> refs_{1};
  IUnknown* inner_;
  IRawDataProvider* raw_ = nullptr;
  IProcessedDataProvider* processed_ = nullptr;
  IValuesProvider* values_ = nullptr;
  bool omitProcessed_ = false, omitValues_ = false;
  std::atomic<ULONG> pageSize_{0};
  std::atomic<ULONGLONG> restampFrom_{0}, restampTo_{0};
  std::atomic<ULONG> calls_[static_cast<int>(Op::Count)] = {};
  mutable std::mutex lock_;
  std::vector<Rule> rules_;
  std::set<void*> outstanding_;
};

}  // namespace corvane::testing
