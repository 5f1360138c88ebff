#include "historian/ProcessedDataProvider.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <utility>

#include "historian/Aggregates.h"
#include "historian/AggregatesCalculator.h"

namespace corvane::historian {

namespace {

constexpr ULONGLONG kLatestTime = 0x7FFFFFFFFFFFFFFFull;
constexpr ULONG kBoundPageSize = 256;
// Upper bound on the entries of one answer (intervals x aggregates): about 160 MB.
constexpr ULONGLONG kMaxResultEntries = 4ull * 1024 * 1024;

const OLECHAR kStatisticsCatalog[] = OLESTR("_default_catalog_");
const OLECHAR kStatisticsSchema[] = OLESTR("_default_schema_");

// Statistics tokens are serial numbers, unique in the process and never reused, so a
// stale or foreign token cannot be mistaken for a live one; nothing behind them is ever
// dereferenced by anyone.
std::atomic<uintptr_t> g_nextStatisticsToken{1};

// Pages through [from, to] (newest first when from > to), handing each sample to
// onSample until it returns anything but S_OK, and calling onPageEnd after each page
// while its samples are still alive. The continuation point is released on every way
// out that leaves one pending.
template <class F, class G>
HRESULT ReadRange(IRawDataProvider* raw, const TagIdent* tag, ULONGLONG from, ULONGLONG to, ULONG page,
                  F&& onSample, G&& onPageEnd) {
  void* cp = nullptr;
  for (;;) {
    HistoryValueList* list = nullptr;
    const HRESULT hr = raw->ReadRaw(tag, U64ToFileTime(from), U64ToFileTime(to), page, kRawReadIncludeBounds,
                                    &cp, &list);
    if (FAILED(hr)) {
      FreeHistoryValueList(list);
      if (cp) raw->ReleaseContinuationPoint(&cp);
      return hr;
    }
    bool more = cp != nullptr;
    HRESULT cbResult = S_OK;
    if (list) {
      // A page that brings nothing yet promises more would make us spin forever.
      if (list->count == 0) more = false;
      const HistoryValue* values = list->values;
      const ULONG count = values ? list->count : 0;
      for (ULONG i = 0; i < count; ++i) {
        cbResult = onSample(values[i]);
        if (cbResult != S_OK) break;
      }
    } else {
      more = false;
    }
    if (SUCCEEDED(cbResult)) {
      const HRESULT ended = onPageEnd();
      if (FAILED(ended)) cbResult = ended;
    }
    FreeHistoryValueList(list);
    if (cbResult != S_OK || !more) {
      if (cp) raw->ReleaseContinuationPoint(&cp);
      return FAILED(cbResult) ? cbResult : S_OK;
    }
  }
}

template <class F>
HRESULT ReadRange(IRawDataProvider* raw, const TagIdent* tag, ULONGLONG from, ULONGLONG to, ULONG page,
                  F&& onSample) {
  return ReadRange(raw, tag, from, to, page, std::forward<F>(onSample), [] { return S_OK; });
}

// Shows the host's columns of [from, to] to onColumns(vt, times, qualities, bits, count).
template <class F>
HRESULT VisitColumns(ISampleReader* reader, const TagIdent* tag, ULONGLONG from, ULONGLONG to, F& onColumns) {
  return reader->VisitColumns(
      tag, from, to,
      [](void* context, VARTYPE vt, const ULONGLONG* times, const DWORD* qualities, const uint64_t* bits,
         size_t count) -> HRESULT { return (*static_cast<F*>(context))(vt, times, qualities, bits, count); },
      &onColumns);
}

// VARIANTs that are cleared however the read ends.
struct VariantArray {
  std::vector<VARIANT> items;
  explicit VariantArray(size_t n) : items(n) {
    for (auto& v : items) VariantInit(&v);
  }
  ~VariantArray() {
    for (auto& v : items) VariantClear(&v);
  }
};

bool SameFilters(const WString (&a)[3], const WString (&b)[3]) {
  return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
}

void FreeNames(BSTR* names, ULONG count) {
  if (!names) return;
  for (ULONG i = 0; i < count; ++i) SysFreeString(names[i]);
  CoTaskMemFree(names);
}

}  // namespace

// ---- Life cycle ----------------------------------------------------------------------

CProcessedDataProvider::CProcessedDataProvider(IRawDataProvider* raw) : raw_(raw) {
  raw_->AddRef();
  if (FAILED(raw_->QueryInterface(IID_ISampleReader, reinterpret_cast<void**>(&reader_)))) reader_ = nullptr;
  AggregatesObjectCreated();
}

CProcessedDataProvider::~CProcessedDataProvider() {
  if (reader_) reader_->Release();
  raw_->Release();
  AggregatesObjectDestroyed();
}

HRESULT CProcessedDataProvider::Create(IRawDataProvider* raw, IProcessedDataProvider** processed) {
  if (!processed) return E_INVALIDARG;
  *processed = nullptr;
  if (!raw) return E_INVALIDARG;
  auto* object = new (std::nothrow) CProcessedDataProvider(raw);
  if (!object) return E_OUTOFMEMORY;
  *processed = object;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProcessedDataProvider::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IProcessedDataProvider)) {
    *ppv = static_cast<IProcessedDataProvider*>(this);
    AddRef();
    return S_OK;
  }
  return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CProcessedDataProvider::AddRef() { return ++refs_; }

ULONG STDMETHODCALLTYPE CProcessedDataProvider::Release() {
  const ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

// ---- Processed read ------------------------------------------------------------------

HRESULT STDMETHODCALLTYPE CProcessedDataProvider::ReadProcessed(const TagIdent* tag,
                                                                const ProcessedReadRequest* request,
                                                                ULONG aggregateCount, const AggregateId* aggregates,
                                                                ProcessedResult** results) {
  try {
    return ReadProcessedImpl(tag, request, aggregateCount, aggregates, results);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CProcessedDataProvider::IsStepped(const TagIdent* tag, bool* stepped, bool* known) {
  *stepped = false;
  *known = false;
  VARTYPE vt = VT_EMPTY;
  const HRESULT info = raw_->GetTagInfo(tag, &vt);
  if (info == HIST_E_TAG_NOT_FOUND) return info;
  // Any other failure means the raw provider does not offer the look-up; the samples
  // then decide below.
  if (SUCCEEDED(info)) {
    *known = true;
    *stepped = vt == VT_BOOL || vt == VT_BSTR;
  }
  ULONG count = 0;
  TagRecord* records = nullptr;
  BOOL truncated = FALSE;
  if (SUCCEEDED(raw_->BrowseTags(tag->tagName, nullptr, &count, &records, &truncated)) && records) {
    for (ULONG i = 0; i < count; ++i) {
      if (records[i].name && WIEquals(records[i].name, tag->tagName)) {
        *stepped = records[i].stepped != FALSE;
        *known = true;
        break;
      }
    }
    FreeTagRecords(records, count);
  }
  return S_OK;
}

HRESULT CProcessedDataProvider::ReadProcessedImpl(const TagIdent* tag, const ProcessedReadRequest* request,
                                                  ULONG aggregateCount, const AggregateId* aggregates,
                                                  ProcessedResult** results) {
  if (!results) return E_INVALIDARG;
  *results = nullptr;
  if (!tag || !tag->tagName || !*tag->tagName || !request || !aggregates || aggregateCount == 0)
    return E_INVALIDARG;
  for (ULONG i = 0; i < aggregateCount; ++i)
    if (aggregates[i] >= AGG_COUNT_OF_AGGREGATES) return HIST_E_AGGREGATE_NOT_AVAILABLE;
  IntervalPlan plan;
  HRESULT hr = IntervalPlan::Make(FileTimeToU64(request->start), FileTimeToU64(request->end), request->periodMs,
                                  &plan);
  if (FAILED(hr)) return hr;
  if (ULONGLONG(plan.count) * aggregateCount > kMaxResultEntries) return E_INVALIDARG;

  bool stepped = false;
  bool known = false;
  hr = IsStepped(tag, &stepped, &known);
  if (FAILED(hr)) return hr;
  const AggregateSettings settings = AggregateSettings::FromRequest(request, stepped);

  auto* block = static_cast<ProcessedResult*>(CoTaskMemAlloc(sizeof(ProcessedResult) * aggregateCount));
  if (!block) return E_OUTOFMEMORY;
  std::memset(block, 0, sizeof(ProcessedResult) * aggregateCount);
  for (ULONG e = 0; e < aggregateCount && plan.count > 0; ++e) {
    auto* values = static_cast<HistoryValue*>(CoTaskMemAlloc(sizeof(HistoryValue) * plan.count));
    if (!values) {
      FreeProcessedResult(block, aggregateCount);
      return E_OUTOFMEMORY;
    }
    std::memset(values, 0, sizeof(HistoryValue) * plan.count);  // VT_EMPTY everywhere
    block[e].values = values;
    block[e].count = static_cast<ULONG>(plan.count);
  }
  // Interval by interval, so that aggregates of one interval share its walk.
  auto computeAll = [&](const auto& calculator, const VARIANT* lastValues) {
    HRESULT computed = S_OK;
    for (size_t k = 0; k < plan.count && SUCCEEDED(computed); ++k) {
      for (ULONG e = 0; e < aggregateCount && SUCCEEDED(computed); ++e) {
        const VARIANT* last = lastValues && aggregates[e] == AGG_LAST ? &lastValues[k] : nullptr;
        computed = calculator.Compute(aggregates[e], plan.IntervalStart(k), plan.IntervalEnd(k), plan.IsPartial(k),
                                      last, &block[e].values[k]);
      }
    }
    return computed;
  };
  hr = plan.count > 0 ? ReadAndCompute(tag, plan, known, settings, aggregates, aggregateCount, computeAll) : S_OK;
  if (FAILED(hr)) {
    FreeProcessedResult(block, aggregateCount);
    return hr;
  }
  *results = block;
  return S_OK;
}

template <class F>
HRESULT CProcessedDataProvider::ReadAndCompute(const TagIdent* tag, const IntervalPlan& plan, bool known,
                                               AggregateSettings settings, const AggregateId* aggregates,
                                               ULONG aggregateCount, F& computeAll) {
  auto usable = [&settings](const AggSample& s) { return s.numeric && settings.IsGood(s.quality); };
  // Numbers and booleans are computed in place over the host's columns when it shows
  // them, with the same bounds as the pages below would bring: the samples up to the
  // first usable one before the range (at most kBoundSearchLimit), and after it.
  auto onColumns = [&](VARTYPE vt, const ULONGLONG* times, const DWORD* qualities, const uint64_t* bits,
                       size_t count) -> HRESULT {
    AggSample probe;
    if (!bits || !FromStoredBits(vt, 0, &probe)) return E_NOTIMPL;
    const StoredColumns all{times, qualities, bits, vt, count};
    auto usableAt = [&](size_t i) { return all.Numeric(i) && settings.IsGood(all.Quality(i)); };
    size_t lo = static_cast<size_t>(std::lower_bound(times, times + count, plan.start) - times);
    size_t hi = static_cast<size_t>(std::lower_bound(times, times + count, plan.end) - times);
    for (size_t seen = 0; lo > 0;) {
      --lo;
      if (usableAt(lo) || ++seen >= kBoundSearchLimit) break;
    }
    for (size_t seen = 0; hi < count;) {
      if (usableAt(hi++) || ++seen >= kBoundSearchLimit) break;
    }
    if (!known) settings.stepped = vt == VT_BOOL;
    const CAggregatesCalculator<StoredColumns> calculator(
        StoredColumns{times + lo, qualities + lo, bits + lo, vt, hi - lo}, settings, true, aggregates,
        aggregateCount);
    return computeAll(calculator, nullptr);
  };
  HRESULT hr = reader_ ? VisitColumns(reader_, tag, 0, kLatestTime, onColumns) : E_NOTIMPL;
  if (hr != E_NOTIMPL) return hr;

  std::unique_ptr<std::vector<AggSample>> buffer = TakeSpareSamples();
  std::vector<AggSample>& samples = *buffer;
  samples.clear();
  // The raw value of each interval's last sample, for LAST: copied from the pages, so
  // that texts and exotic types come back as they were.
  const bool wantLast = std::find(aggregates, aggregates + aggregateCount, AGG_LAST) != aggregates + aggregateCount;
  VariantArray lastValues(wantLast ? plan.count : 0);
  std::vector<ULONGLONG> lastTimes(wantLast ? plan.count : 0);
  std::vector<unsigned char> haveLast(wantLast ? plan.count : 0);
  // The raw value that LAST will give for each interval touched by the current page:
  // copied once when the page ends rather than at every newer sample.
  std::vector<const VARIANT*> pageLast(wantLast ? plan.count : 0);
  std::vector<size_t> pageTouched;
  // The sample governing the start, and further back the last usable one for the line.
  if (plan.start > 0) {
    std::vector<AggSample> before;
    hr = ReadRange(raw_, tag, plan.start - 1, 0, kBoundPageSize, [&](const HistoryValue& v) -> HRESULT {
      const AggSample s = ToAggSample(v);
      if (s.time >= plan.start) return S_OK;
      before.push_back(s);
      return usable(s) || before.size() >= kBoundSearchLimit ? S_FALSE : S_OK;
    });
    if (FAILED(hr)) return hr;
    samples.assign(before.rbegin(), before.rend());
  }
  // Samples mostly come in time order: the interval of the previous one is tried first,
  // and its LAST candidate is held here until a sample of another interval comes or
  // the page ends.
  size_t k = 0;
  ULONGLONG kStart = plan.IntervalStart(0), kEnd = plan.IntervalEnd(0);
  bool held = false, heldHave = false, heldChanged = false;
  ULONGLONG heldTime = 0;
  const VARIANT* heldValue = nullptr;
  auto release = [&] {
    if (held && heldChanged) {
      if (!pageLast[k]) pageTouched.push_back(k);
      pageLast[k] = heldValue;
      lastTimes[k] = heldTime;
      haveLast[k] = true;
    }
    held = false;
  };
  auto onSample = [&](const HistoryValue& v) -> HRESULT {
    const AggSample s = ToAggSample(v);
    if (s.time < plan.start || s.time >= plan.end) return S_OK;
    samples.push_back(s);
    if (wantLast) {
      if (s.time < kStart || s.time >= kEnd) {
        release();
        k = plan.IndexOf(s.time);
        kStart = plan.IntervalStart(k);
        kEnd = plan.IntervalEnd(k);
      }
      if (!held) {
        held = true;
        heldChanged = false;
        heldHave = haveLast[k] != 0;
        heldTime = lastTimes[k];
      }
      if (!heldHave || s.time >= heldTime) {
        heldHave = true;
        heldTime = s.time;
        heldValue = &v.value;
        heldChanged = true;
      }
    }
    return S_OK;
  };
  auto onPageEnd = [&]() -> HRESULT {
    release();
    HRESULT copied = S_OK;
    for (const size_t touched : pageTouched) {
      if (SUCCEEDED(copied)) {
        VariantClear(&lastValues.items[touched]);
        copied = VariantCopy(&lastValues.items[touched], const_cast<VARIANT*>(pageLast[touched]));
      }
      pageLast[touched] = nullptr;
    }
    pageTouched.clear();
    return copied;
  };
  hr = ReadRange(raw_, tag, plan.start, plan.end - 1, kRawPageSize, onSample, onPageEnd);
  if (FAILED(hr)) return hr;
  // What follows the range: only the line's slope into the last interval needs it.
  size_t examined = 0;
  hr = ReadRange(raw_, tag, plan.end, kLatestTime, kBoundPageSize, [&](const HistoryValue& v) -> HRESULT {
    const AggSample s = ToAggSample(v);
    if (s.time < plan.end) return S_OK;
    samples.push_back(s);
    return usable(s) || ++examined >= kBoundSearchLimit ? S_FALSE : S_OK;
  });
  if (FAILED(hr)) return hr;
  auto earlier = [](const AggSample& x, const AggSample& y) { return x.time < y.time; };
  if (!std::is_sorted(samples.begin(), samples.end(), earlier))
    std::stable_sort(samples.begin(), samples.end(), earlier);
  if (!known) {
    for (const AggSample& s : samples) {
      if (s.vt == VT_BOOL || s.vt == VT_BSTR) {
        settings.stepped = true;
        break;
      }
    }
  }
  hr = computeAll(CAggregatesCalculator<AggSampleRun>(AggSampleRun{samples.data(), samples.size()}, settings, false,
                                                      aggregates, aggregateCount),
                  wantLast ? lastValues.items.data() : nullptr);
  KeepSpareSamples(std::move(buffer));
  return hr;
}

std::unique_ptr<std::vector<AggSample>> CProcessedDataProvider::TakeSpareSamples() {
  {
    std::lock_guard<std::mutex> lock(spareLock_);
    if (spare_) return std::move(spare_);
  }
  return std::make_unique<std::vector<AggSample>>();
}

void CProcessedDataProvider::KeepSpareSamples(std::unique_ptr<std::vector<AggSample>> samples) {
  if (samples->capacity() > kSpareSamples) return;  // a rare large read: its memory goes
  std::lock_guard<std::mutex> lock(spareLock_);
  if (!spare_) spare_ = std::move(samples);
}

// ---- Filtered tag statistics -----------------------------------------------------------

HRESULT STDMETHODCALLTYPE CProcessedDataProvider::GetFilteredTagStatistics(
    LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3, FILETIME start, FILETIME end,
    const ProcessedReadRequest* request, ULONG maxNames, void** continuation, DWORD reserved, ULONG* nameCount,
    BSTR** names, HistoryValueList** values) {
  if (!continuation || !nameCount || !names || !values) return E_INVALIDARG;
  *nameCount = 0;
  *names = nullptr;
  *values = nullptr;
  if (reserved != 0) {
    // A known token dies with the refused call, as with any other failure.
    if (*continuation && TakeCursor(*continuation)) *continuation = nullptr;
    return E_INVALIDARG;
  }
  try {
    return StatisticsImpl(filter1, filter2, filter3, start, end, request, maxNames, continuation, nameCount, names,
                          values);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

std::unique_ptr<CProcessedDataProvider::StatisticsCursor> CProcessedDataProvider::TakeCursor(void* token) {
  std::lock_guard<std::mutex> lock(cursorLock_);
  auto it = cursors_.find(token);
  if (it == cursors_.end()) return nullptr;
  std::unique_ptr<StatisticsCursor> cursor = std::move(it->second);
  cursors_.erase(it);
  cursorOrder_.erase(std::find(cursorOrder_.begin(), cursorOrder_.end(), token));
  return cursor;
}

void* CProcessedDataProvider::KeepCursor(std::unique_ptr<StatisticsCursor> cursor) {
  void* token = reinterpret_cast<void*>(g_nextStatisticsToken.fetch_add(1));
  std::lock_guard<std::mutex> lock(cursorLock_);
  while (cursors_.size() >= kMaxPendingStatistics && !cursorOrder_.empty()) {
    cursors_.erase(cursorOrder_.front());
    cursorOrder_.pop_front();
  }
  cursors_.emplace(token, std::move(cursor));
  cursorOrder_.push_back(token);
  return token;
}

HRESULT CProcessedDataProvider::ListTags(const WString (&filters)[3], std::vector<WString>* names) {
  const OLECHAR* browseFilter = nullptr;
  for (const WString& f : filters) {
    if (!f.empty()) {
      browseFilter = f.c_str();
      break;
    }
  }
  ULONG count = 0;
  TagRecord* records = nullptr;
  BOOL truncated = FALSE;
  const HRESULT hr = raw_->BrowseTags(browseFilter, nullptr, &count, &records, &truncated);
  if (FAILED(hr)) return hr;
  for (ULONG i = 0; i < count && records; ++i) {
    const OLECHAR* name = records[i].name;
    if (!name || !*name) continue;
    if (TagFilterMatches(filters[0].c_str(), name) && TagFilterMatches(filters[1].c_str(), name) &&
        TagFilterMatches(filters[2].c_str(), name)) {
      names->emplace_back(name);
    }
  }
  FreeTagRecords(records, count);
  return S_OK;
}

HRESULT CProcessedDataProvider::TagStatistics(const WString& name, ULONGLONG low, ULONGLONG high,
                                              const ProcessedReadRequest* request, HistoryValue* four) {
  WString catalog(kStatisticsCatalog), schema(kStatisticsSchema), tagName(name);
  TagIdent ident = {&catalog[0], &schema[0], &tagName[0]};
  const AggregateSettings settings = AggregateSettings::FromRequest(request, false);
  CRawAccumulator acc(settings);
  HRESULT hr = ReadRange(raw_, &ident, low, high, kRawPageSize, [&acc](const HistoryValue& v) -> HRESULT {
    acc.Add(ToAggSample(v));
    return S_OK;
  });
  if (hr == HIST_E_TAG_NOT_FOUND) {
    acc = CRawAccumulator(settings);  // gone since the listing: no data
  } else if (FAILED(hr)) {
    return hr;
  }
  const AggregateId ids[4] = {AGG_MIN, AGG_MAX, AGG_AVG, AGG_COUNT};
  for (int i = 0; i < 4; ++i) {
    hr = acc.Result(ids[i], low, 0, &four[i]);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

HRESULT CProcessedDataProvider::StatisticsImpl(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                               FILETIME start, FILETIME end, const ProcessedReadRequest* request,
                                               ULONG maxNames, void** continuation, ULONG* nameCount,
                                               BSTR** names, HistoryValueList** values) {
  ULONGLONG low = FileTimeToU64(start);
  ULONGLONG high = FileTimeToU64(end);
  if (low > high) std::swap(low, high);
  WString filters[3] = {filter1 ? WString(filter1) : WString(), filter2 ? WString(filter2) : WString(),
                        filter3 ? WString(filter3) : WString()};

  std::unique_ptr<StatisticsCursor> cursor;
  if (*continuation) {
    cursor = TakeCursor(*continuation);
    if (!cursor) return E_INVALIDARG;  // not ours: left for its owner
    *continuation = nullptr;
    if (!SameFilters(cursor->filters, filters) || cursor->low != low || cursor->high != high) return E_INVALIDARG;
  } else {
    cursor = std::make_unique<StatisticsCursor>();
    for (int i = 0; i < 3; ++i) cursor->filters[i] = filters[i];
    cursor->low = low;
    cursor->high = high;
    const HRESULT hr = ListTags(filters, &cursor->names);
    if (FAILED(hr)) return hr;
  }

  const size_t remaining = cursor->names.size() - cursor->next;
  const size_t page = maxNames == 0 ? remaining : std::min<size_t>(maxNames, remaining);
  auto* nameArray = static_cast<BSTR*>(CoTaskMemAlloc(sizeof(BSTR) * std::max<size_t>(page, 1)));
  auto* list = static_cast<HistoryValueList*>(CoTaskMemAlloc(sizeof(HistoryValueList)));
  auto* samples = static_cast<HistoryValue*>(CoTaskMemAlloc(sizeof(HistoryValue) * std::max<size_t>(4 * page, 1)));
  if (!nameArray || !list || !samples) {
    CoTaskMemFree(nameArray);
    CoTaskMemFree(list);
    CoTaskMemFree(samples);
    return E_OUTOFMEMORY;
  }
  std::memset(nameArray, 0, sizeof(BSTR) * std::max<size_t>(page, 1));
  std::memset(samples, 0, sizeof(HistoryValue) * std::max<size_t>(4 * page, 1));
  list->count = static_cast<ULONG>(4 * page);
  list->values = samples;

  for (size_t i = 0; i < page; ++i) {
    const WString& name = cursor->names[cursor->next + i];
    nameArray[i] = SysAllocString(name.c_str());
    HRESULT hr = nameArray[i] ? S_OK : E_OUTOFMEMORY;
    if (SUCCEEDED(hr)) hr = TagStatistics(name, low, high, request, &samples[4 * i]);
    if (FAILED(hr)) {
      FreeNames(nameArray, static_cast<ULONG>(page));
      FreeHistoryValueList(list);
      return hr;
    }
  }
  cursor->next += page;
  if (cursor->next < cursor->names.size()) *continuation = KeepCursor(std::move(cursor));
  *nameCount = static_cast<ULONG>(page);
  *names = nameArray;
  *values = list;
  return S_OK;
}

}  // namespace corvane::historian
