#include "historian/HistorianStore.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace corvane::historian {

namespace {

const HRESULT kTagExists = static_cast<HRESULT>(0x800700B7L);  // HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS)

uint64_t DoubleBits(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return bits;
}

double BitsDouble(uint64_t bits) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

}  // namespace

struct CHistorianStore::Series {
  TagDefinition def;
  WString key;
  std::vector<ULONGLONG> times;
  std::vector<DWORD> qualities;
  std::vector<uint64_t> bits;  // numeric and boolean tags
  std::vector<WString> texts;  // VT_BSTR tags

  bool IsText() const { return def.vartype == VT_BSTR; }
  size_t Size() const { return times.size(); }
  size_t LowerBound(ULONGLONG t) const { return std::lower_bound(times.begin(), times.end(), t) - times.begin(); }
  size_t UpperBound(ULONGLONG t) const { return std::upper_bound(times.begin(), times.end(), t) - times.begin(); }
  bool Matches(size_t i, QualityClass q) const {
    switch (q) {
      case QualityClass::Good:
        return IsGoodQuality(qualities[i]);
      case QualityClass::NotGood:
        return !IsGoodQuality(qualities[i]);
      default:
        return true;
    }
  }
};

bool IsGoodQuality(DWORD quality) { return (quality & 0xC0000000u) == 0; }

bool IsSupportedVartype(VARTYPE vt) {
  switch (vt) {
    case VT_R8:
    case VT_R4:
    case VT_I1:
    case VT_I2:
    case VT_I4:
    case VT_I8:
    case VT_UI1:
    case VT_UI2:
    case VT_UI4:
    case VT_UI8:
    case VT_BOOL:
    case VT_BSTR:
      return true;
    default:
      return false;
  }
}

CHistorianStore::CHistorianStore() = default;
CHistorianStore::~CHistorianStore() = default;

CHistorianStore::Series* CHistorianStore::Find(WStringView name) const {
  auto it = byKey_.find(WUpper(name));
  return it == byKey_.end() ? nullptr : it->second;
}

HRESULT CHistorianStore::AddTag(const TagDefinition& tag) {
  if (tag.name.empty() || !IsSupportedVartype(tag.vartype)) return E_INVALIDARG;
  auto series = std::make_unique<Series>();
  series->def = tag;
  series->key = WUpper(tag.name);
  std::unique_lock<std::shared_mutex> guard(lock_);
  if (byKey_.count(series->key)) return kTagExists;
  byKey_.emplace(series->key, series.get());
  series_.push_back(std::move(series));
  return S_OK;
}

bool CHistorianStore::HasTag(WStringView name) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  return Find(name) != nullptr;
}

size_t CHistorianStore::TagCount() const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  return series_.size();
}

size_t CHistorianStore::SampleCount() const { return sampleCount_.load(); }

size_t CHistorianStore::MemoryBytes() const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  size_t bytes = 0;
  for (const auto& s : series_) {
    bytes += sizeof(Series) + s->times.capacity() * sizeof(ULONGLONG) + s->qualities.capacity() * sizeof(DWORD) +
             s->bits.capacity() * sizeof(uint64_t) + s->texts.capacity() * sizeof(WString);
    for (const auto& t : s->texts) bytes += t.capacity() > 7 ? (t.capacity() + 1) * sizeof(OLECHAR) : 0;
    bytes += (s->def.name.size() + s->def.description.size() + s->key.size()) * sizeof(OLECHAR);
  }
  return bytes;
}

uint64_t CHistorianStore::ToBits(VARTYPE vt, const SampleInput& in) {
  switch (vt) {
    case VT_R8:
      return DoubleBits(in.number);
    case VT_R4:
      return DoubleBits(static_cast<double>(static_cast<float>(in.number)));
    case VT_BOOL:
      return in.integer != 0 ? 1 : 0;
    default:
      return static_cast<uint64_t>(in.integer);
  }
}

HRESULT CHistorianStore::AppendSamples(WStringView name, const std::vector<SampleInput>& samples) {
  return AppendGenerated(name, samples.size(), [&samples](size_t i, SampleInput& s) { s = samples[i]; });
}

HRESULT CHistorianStore::AppendGenerated(WStringView name, size_t count,
                                         const std::function<void(size_t, SampleInput&)>& fill) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  Series* series = Find(name);
  if (!series) return HIST_E_TAG_NOT_FOUND;
  const size_t before = series->Size();
  auto rollback = [&] {
    series->times.resize(before);
    series->qualities.resize(before);
    if (series->IsText())
      series->texts.resize(before);
    else
      series->bits.resize(before);
  };
  try {
    series->times.reserve(before + count);
    series->qualities.reserve(before + count);
    if (series->IsText())
      series->texts.reserve(before + count);
    else
      series->bits.reserve(before + count);
    SampleInput sample;
    for (size_t i = 0; i < count; ++i) {
      fill(i, sample);
      if (!series->times.empty() && sample.time <= series->times.back()) {
        rollback();
        return E_INVALIDARG;
      }
      series->times.push_back(sample.time);
      series->qualities.push_back(sample.quality);
      if (series->IsText())
        series->texts.push_back(sample.text);
      else
        series->bits.push_back(ToBits(series->def.vartype, sample));
    }
  } catch (const std::bad_alloc&) {
    rollback();
    return E_OUTOFMEMORY;
  }
  sampleCount_ += count;
  return S_OK;
}

void CHistorianStore::ReserveSamples(WStringView name, size_t count) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  if (Series* series = Find(name)) {
    series->times.reserve(count);
    series->qualities.reserve(count);
    if (series->IsText())
      series->texts.reserve(count);
    else
      series->bits.reserve(count);
  }
}

HRESULT CHistorianStore::AddColumns(const std::vector<TagDefinition>& newTags, std::vector<Columns>& columns,
                                    std::vector<size_t>* taken) {
  constexpr size_t kNone = std::numeric_limits<size_t>::max();
  if (taken) taken->assign(columns.size(), kNone);
  for (const auto& tag : newTags)
    if (tag.name.empty() || !IsSupportedVartype(tag.vartype)) return E_INVALIDARG;

  std::unique_lock<std::shared_mutex> guard(lock_);
  // Everything is checked before anything changes, so a refused load leaves no trace.
  std::unordered_set<WString> created;
  for (const auto& tag : newTags) {
    WString key = WUpper(tag.name);
    if (byKey_.count(key) || created.count(key)) return kTagExists;
    created.insert(std::move(key));
  }
  std::vector<WString> keys;
  std::unordered_set<WString> seen;
  for (const Columns& c : columns) {
    WString key = WUpper(c.name);
    if ((!byKey_.count(key) && !created.count(key)) || !seen.insert(key).second) return HIST_E_TAG_NOT_FOUND;
    keys.push_back(std::move(key));
  }
  // Per tag: whether its times rise, and the first sample that repeats a time.
  std::vector<bool> rising(columns.size(), true);
  bool refused = false;
  for (size_t i = 0; i < columns.size(); ++i) {
    const std::vector<ULONGLONG>& times = columns[i].times;
    for (size_t k = 1; k < times.size() && rising[i]; ++k) rising[i] = times[k - 1] < times[k];
    auto existing = byKey_.find(keys[i]);
    const Series* s = existing == byKey_.end() ? nullptr : existing->second;
    size_t bad = kNone;
    if (!rising[i]) {
      // Sorted by time, then by position: of two equal times the later one is reported.
      std::vector<size_t> order(times.size());
      for (size_t k = 0; k < order.size(); ++k) order[k] = k;
      std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return times[a] < times[b]; });
      for (size_t k = 1; k < order.size(); ++k)
        if (times[order[k]] == times[order[k - 1]]) bad = std::min(bad, std::max(order[k], order[k - 1]));
    }
    if (s && s->Size() && !times.empty() && !(rising[i] && times.front() > s->times.back())) {
      for (size_t k = 0; k < times.size() && k < bad; ++k) {
        const size_t pos = s->LowerBound(times[k]);
        if (pos < s->Size() && s->times[pos] == times[k]) bad = k;
      }
    }
    if (taken) (*taken)[i] = bad;
    refused = refused || bad != kNone;
  }
  if (refused) return HIST_E_DATA_ALREADY_PRESENT;

  size_t added = 0;
  try {
    std::vector<std::unique_ptr<Series>> fresh;
    for (const auto& tag : newTags) {  // in the caller's order: the browse lists tags as added
      auto series = std::make_unique<Series>();
      series->def = tag;
      series->key = WUpper(tag.name);
      fresh.push_back(std::move(series));
    }
    auto seriesFor = [&](const WString& key) -> Series* {
      auto it = byKey_.find(key);
      if (it != byKey_.end()) return it->second;
      for (auto& f : fresh)
        if (f->key == key) return f.get();
      return nullptr;
    };
    // The new contents of every tag that has samples already or whose samples come out
    // of order, built aside: an allocation failure half-way leaves the store as it was.
    std::vector<std::pair<Series*, Series>> merged;
    std::vector<std::pair<Series*, Columns*>> movedIn;
    for (size_t i = 0; i < columns.size(); ++i) {
      Columns& c = columns[i];
      Series* target = seriesFor(keys[i]);
      added += c.times.size();
      if (target->Size() == 0 && rising[i]) {
        movedIn.emplace_back(target, &c);
        continue;
      }
      std::vector<size_t> order(c.times.size());
      for (size_t k = 0; k < order.size(); ++k) order[k] = k;
      if (!rising[i])
        std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return c.times[a] < c.times[b]; });
      Series out;
      const size_t total = target->Size() + order.size();
      out.times.reserve(total);
      out.qualities.reserve(total);
      if (target->IsText())
        out.texts.reserve(total);
      else
        out.bits.reserve(total);
      size_t a = 0, b = 0;
      while (a < target->Size() || b < order.size()) {
        const bool takeOld = b == order.size() || (a < target->Size() && target->times[a] < c.times[order[b]]);
        if (takeOld) {
          out.times.push_back(target->times[a]);
          out.qualities.push_back(target->qualities[a]);
          if (target->IsText())
            out.texts.push_back(target->texts[a]);
          else
            out.bits.push_back(target->bits[a]);
          ++a;
        } else {
          const size_t k = order[b++];
          out.times.push_back(c.times[k]);
          out.qualities.push_back(c.qualities[k]);
          if (target->IsText())
            out.texts.push_back(std::move(c.texts[k]));
          else
            out.bits.push_back(c.bits[k]);
        }
      }
      merged.emplace_back(target, std::move(out));
    }
    byKey_.reserve(byKey_.size() + fresh.size());
    series_.reserve(series_.size() + fresh.size());
    // Nothing below allocates except the two emplace calls, which were reserved for.
    for (auto& [target, out] : merged) {
      target->times.swap(out.times);
      target->qualities.swap(out.qualities);
      target->texts.swap(out.texts);
      target->bits.swap(out.bits);
    }
    for (auto& [target, c] : movedIn) {
      target->times.swap(c->times);
      target->qualities.swap(c->qualities);
      target->texts.swap(c->texts);
      target->bits.swap(c->bits);
    }
    for (auto& f : fresh) {
      byKey_.emplace(f->key, f.get());
      series_.push_back(std::move(f));
    }
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  sampleCount_ += added;
  return S_OK;
}

HRESULT CHistorianStore::GetTag(WStringView name, TagDefinition* tag) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  const Series* series = Find(name);
  if (!series) return HIST_E_TAG_NOT_FOUND;
  if (tag) *tag = series->def;
  return S_OK;
}

std::vector<TagDefinition> CHistorianStore::ListTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  std::vector<TagDefinition> tags;
  for (const auto& s : series_)
    if (TagFilterMatches(nameFilter, s->def.name.c_str()) &&
        TagFilterMatches(descriptionFilter, s->def.description.c_str()))
      tags.push_back(s->def);
  return tags;
}

HRESULT CHistorianStore::GetTimeBounds(WStringView name, ULONGLONG* first, ULONGLONG* last) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  const Series* series = Find(name);
  if (!series) return HIST_E_TAG_NOT_FOUND;
  if (series->times.empty()) {
    *first = *last = 0;
    return S_FALSE;
  }
  *first = series->times.front();
  *last = series->times.back();
  return S_OK;
}

HRESULT CHistorianStore::MakeVariant(const Series& series, size_t index, VARIANT* out) {
  VariantInit(out);
  const VARTYPE vt = series.def.vartype;
  if (vt == VT_BSTR) {
    const WString& text = series.texts[index];
    BSTR b = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (!b) return E_OUTOFMEMORY;
    out->vt = VT_BSTR;
    out->bstrVal = b;
    return S_OK;
  }
  const uint64_t bits = series.bits[index];
  out->vt = vt;
  switch (vt) {
    case VT_R8:
      out->dblVal = BitsDouble(bits);
      break;
    case VT_R4:
      out->fltVal = static_cast<float>(BitsDouble(bits));
      break;
    case VT_BOOL:
      out->boolVal = bits ? VARIANT_TRUE : VARIANT_FALSE;
      break;
    case VT_I1:
      out->cVal = static_cast<CHAR>(static_cast<int8_t>(bits));
      break;
    case VT_UI1:
      out->bVal = static_cast<BYTE>(bits);
      break;
    case VT_I2:
      out->iVal = static_cast<SHORT>(bits);
      break;
    case VT_UI2:
      out->uiVal = static_cast<USHORT>(bits);
      break;
    case VT_I4:
      out->lVal = static_cast<LONG>(bits);
      break;
    case VT_UI4:
      out->ulVal = static_cast<ULONG>(bits);
      break;
    case VT_I8:
      out->llVal = static_cast<LONGLONG>(bits);
      break;
    default:  // VT_UI8
      out->ullVal = bits;
      break;
  }
  return S_OK;
}

HRESULT CHistorianStore::ReadPage(ReadCursor& cursor, ULONG maxValues, HistoryValueList** values, bool* more) const {
  *values = nullptr;
  *more = false;
  std::shared_lock<std::shared_mutex> guard(lock_);
  auto it = byKey_.find(cursor.tagKey);
  if (it == byKey_.end()) return HIST_E_TAG_NOT_FOUND;
  const Series& s = *it->second;
  const size_t limit = maxValues ? maxValues : std::numeric_limits<size_t>::max();

  // Resume by time, not by position: samples inserted or deleted between two pages
  // cannot make a page repeat or skip what the previous one ended on.
  size_t lo = s.LowerBound(cursor.low);
  size_t hi = s.UpperBound(cursor.high);  // exclusive
  if (cursor.resumed) {
    if (cursor.newestFirst)
      hi = std::min(hi, s.LowerBound(cursor.lastTime));
    else
      lo = std::max(lo, s.UpperBound(cursor.lastTime));
  }
  std::vector<size_t> picked;
  bool contiguous = cursor.quality == QualityClass::All;
  size_t first = 0, count = 0;
  if (lo < hi) {
    if (contiguous) {
      count = std::min(hi - lo, limit);
      first = cursor.newestFirst ? hi - 1 : lo;
      *more = hi - lo > count;
    } else {
      if (cursor.newestFirst) {
        for (size_t i = hi; i-- > lo;) {
          if (!s.Matches(i, cursor.quality)) continue;
          if (picked.size() == limit) {
            *more = true;
            break;
          }
          picked.push_back(i);
        }
      } else {
        for (size_t i = lo; i < hi; ++i) {
          if (!s.Matches(i, cursor.quality)) continue;
          if (picked.size() == limit) {
            *more = true;
            break;
          }
          picked.push_back(i);
        }
      }
      count = picked.size();
    }
  }
  auto indexAt = [&](size_t k) {
    if (!contiguous) return picked[k];
    return cursor.newestFirst ? first - k : first + k;
  };

  auto* list = static_cast<HistoryValueList*>(CoTaskMemAlloc(sizeof(HistoryValueList)));
  if (!list) return E_OUTOFMEMORY;
  list->count = 0;
  list->values = nullptr;
  if (count) {
    list->values = static_cast<HistoryValue*>(CoTaskMemAlloc(count * sizeof(HistoryValue)));
    if (!list->values) {
      CoTaskMemFree(list);
      return E_OUTOFMEMORY;
    }
    // Doubles, which most tags hold, are written in place: a processed read of a day at
    // one-second samples takes 86 400 of them.
    const bool doubles = s.def.vartype == VT_R8;
    for (size_t k = 0; k < count && doubles; ++k) {
      const size_t i = indexAt(k);
      HistoryValue& hv = list->values[k];
      hv.value.vt = VT_R8;
      hv.value.wReserved1 = hv.value.wReserved2 = hv.value.wReserved3 = 0;
      hv.value.dblVal = BitsDouble(s.bits[i]);
      hv.timestamp = U64ToFileTime(s.times[i]);
      hv.quality = s.qualities[i];
    }
    for (size_t k = 0; k < count && !doubles; ++k) {
      const size_t i = indexAt(k);
      HistoryValue& hv = list->values[k];
      HRESULT hr = MakeVariant(s, i, &hv.value);
      if (FAILED(hr)) {
        list->count = static_cast<ULONG>(k);
        FreeHistoryValueList(list);
        return hr;
      }
      hv.timestamp = U64ToFileTime(s.times[i]);
      hv.quality = s.qualities[i];
    }
    list->count = static_cast<ULONG>(count);
    cursor.lastTime = s.times[indexAt(count - 1)];
    cursor.resumed = true;
  }
  *values = list;
  return S_OK;
}

HRESULT CHistorianStore::VisitRange(WStringView name, ULONGLONG low, ULONGLONG high, ColumnVisitor visit,
                                    void* context) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  const Series* s = Find(name);
  if (!s) return HIST_E_TAG_NOT_FOUND;
  if (low > high) return E_INVALIDARG;
  const size_t first = s->LowerBound(low);
  const size_t count = std::max(first, s->UpperBound(high)) - first;
  return visit(context, s->def.vartype, s->times.data() + first, s->qualities.data() + first,
               s->IsText() ? nullptr : s->bits.data() + first, count);
}

HRESULT CHistorianStore::ReadNewest(WStringView name, HistoryValue** value) const {
  *value = nullptr;
  std::shared_lock<std::shared_mutex> guard(lock_);
  const Series* s = Find(name);
  if (!s) return HIST_E_TAG_NOT_FOUND;
  if (!s->Size()) return S_OK;
  auto* hv = static_cast<HistoryValue*>(CoTaskMemAlloc(sizeof(HistoryValue)));
  if (!hv) return E_OUTOFMEMORY;
  const size_t i = s->Size() - 1;
  HRESULT hr = MakeVariant(*s, i, &hv->value);
  if (FAILED(hr)) {
    CoTaskMemFree(hv);
    return hr;
  }
  hv->timestamp = U64ToFileTime(s->times[i]);
  hv->quality = s->qualities[i];
  *value = hv;
  return S_OK;
}

HRESULT CHistorianStore::ToStored(const Series& series, const VARIANT& in, uint64_t* bits, WString* text) {
  const VARTYPE vt = series.def.vartype;
  VARIANT converted;
  VariantInit(&converted);
  // Writes arrive as text from the procedures; the invariant locale keeps "2.5" a number
  // whatever the machine's regional settings.
  HRESULT hr = VariantChangeTypeEx(&converted, const_cast<VARIANT*>(&in), LOCALE_INVARIANT, 0, vt);
  if (FAILED(hr)) return hr;
  if (vt == VT_BSTR) {
    text->assign(converted.bstrVal ? converted.bstrVal : OLESTR(""), converted.bstrVal ? SysStringLen(converted.bstrVal) : 0);
    VariantClear(&converted);
    return S_OK;
  }
  SampleInput sample;
  switch (vt) {
    case VT_R8: sample.number = converted.dblVal; break;
    case VT_R4: sample.number = converted.fltVal; break;
    case VT_BOOL: sample.integer = converted.boolVal != VARIANT_FALSE; break;
    case VT_I1: sample.integer = static_cast<int8_t>(converted.cVal); break;
    case VT_UI1: sample.integer = converted.bVal; break;
    case VT_I2: sample.integer = converted.iVal; break;
    case VT_UI2: sample.integer = converted.uiVal; break;
    case VT_I4: sample.integer = converted.lVal; break;
    case VT_UI4: sample.integer = converted.ulVal; break;
    case VT_I8: sample.integer = converted.llVal; break;
    default: sample.integer = static_cast<int64_t>(converted.ullVal); break;
  }
  VariantClear(&converted);
  *bits = ToBits(vt, sample);
  return S_OK;
}

void CHistorianStore::InsertAt(Series& s, size_t index, ULONGLONG time, DWORD quality, uint64_t bits,
                               WString&& text) {
  s.times.insert(s.times.begin() + index, time);
  s.qualities.insert(s.qualities.begin() + index, quality);
  if (s.IsText())
    s.texts.insert(s.texts.begin() + index, std::move(text));
  else
    s.bits.insert(s.bits.begin() + index, bits);
}

HRESULT CHistorianStore::Insert(WStringView name, const HistoryValue& value) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  Series* s = Find(name);
  if (!s) return HIST_E_TAG_NOT_FOUND;
  if (!(s->def.accessRights & kTagAccessWrite)) return E_ACCESSDENIED;
  const ULONGLONG t = FileTimeToU64(value.timestamp);
  const size_t pos = s->LowerBound(t);
  if (pos < s->Size() && s->times[pos] == t) return HIST_E_DATA_ALREADY_PRESENT;
  uint64_t bits = 0;
  WString text;
  HRESULT hr = ToStored(*s, value.value, &bits, &text);
  if (FAILED(hr)) return hr;
  // Reserve first so that a failed allocation cannot leave the columns out of step.
  try {
    s->times.reserve(s->Size() + 1);
    s->qualities.reserve(s->Size() + 1);
    if (s->IsText())
      s->texts.reserve(s->Size() + 1);
    else
      s->bits.reserve(s->Size() + 1);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  InsertAt(*s, pos, t, value.quality, bits, std::move(text));
  ++sampleCount_;
  return S_OK;
}

HRESULT CHistorianStore::Update(WStringView name, const HistoryValue& value) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  Series* s = Find(name);
  if (!s) return HIST_E_TAG_NOT_FOUND;
  if (!(s->def.accessRights & kTagAccessWrite)) return E_ACCESSDENIED;
  const ULONGLONG t = FileTimeToU64(value.timestamp);
  const size_t pos = s->LowerBound(t);
  if (pos == s->Size() || s->times[pos] != t) return HIST_E_DATA_NOT_FOUND;
  uint64_t bits = 0;
  WString text;
  HRESULT hr = ToStored(*s, value.value, &bits, &text);
  if (FAILED(hr)) return hr;
  s->qualities[pos] = value.quality;
  if (s->IsText())
    s->texts[pos] = std::move(text);
  else
    s->bits[pos] = bits;
  return S_OK;
}

HRESULT CHistorianStore::Delete(WStringView name, ULONGLONG low, ULONGLONG high) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  Series* s = Find(name);
  if (!s) return HIST_E_TAG_NOT_FOUND;
  if (!(s->def.accessRights & kTagAccessWrite)) return E_ACCESSDENIED;
  const size_t lo = s->LowerBound(low);
  const size_t hi = s->UpperBound(high);
  if (lo >= hi) return S_FALSE;
  s->times.erase(s->times.begin() + lo, s->times.begin() + hi);
  s->qualities.erase(s->qualities.begin() + lo, s->qualities.begin() + hi);
  if (s->IsText())
    s->texts.erase(s->texts.begin() + lo, s->texts.begin() + hi);
  else
    s->bits.erase(s->bits.begin() + lo, s->bits.begin() + hi);
  sampleCount_ -= hi - lo;
  return S_OK;
}

ReadCursor* CHistorianStore::RegisterCursor(std::unique_ptr<ReadCursor> cursor) {
  ReadCursor* handle = cursor.get();
  std::lock_guard<std::mutex> guard(cursorLock_);
  cursors_.emplace(handle, std::move(cursor));
  return handle;
}

std::unique_ptr<ReadCursor> CHistorianStore::TakeCursor(void* handle) {
  std::lock_guard<std::mutex> guard(cursorLock_);
  auto it = cursors_.find(handle);
  if (it == cursors_.end()) return nullptr;
  std::unique_ptr<ReadCursor> cursor = std::move(it->second);
  cursors_.erase(it);
  return cursor;
}

bool CHistorianStore::ReleaseCursor(void* handle) { return TakeCursor(handle) != nullptr; }

size_t CHistorianStore::OutstandingCursors() const {
  std::lock_guard<std::mutex> guard(cursorLock_);
  return cursors_.size();
}

}  // namespace corvane::historian
