#include "historian/ReferenceHistorian.h"

#include <algorithm>
#include <cstring>

namespace corvane::historian {

namespace {

std::atomic<long> g_liveObjects{0};

bool Empty(LPCOLESTR s) { return !s || !*s; }

// The tag name of a TagIdent whose three parts are all given.
HRESULT NameOf(const TagIdent* tag, WStringView* name) {
  if (!tag || Empty(tag->catalog) || Empty(tag->schema) || Empty(tag->tagName)) return E_INVALIDARG;
  *name = WStringView(tag->tagName);
  return S_OK;
}

LPOLESTR TaskString(const WString& s) {
  auto* copy = static_cast<LPOLESTR>(CoTaskMemAlloc((s.size() + 1) * sizeof(OLECHAR)));
  if (copy) {
    std::memcpy(copy, s.data(), s.size() * sizeof(OLECHAR));
    copy[s.size()] = 0;
  }
  return copy;
}

DWORD CapabilitiesFor(DWORD accessRights) {
  DWORD caps = kCapabilityRawRead | kCapabilityReverseRead | kCapabilityValues;
  if (accessRights & kTagAccessWrite) caps |= kCapabilityInsert | kCapabilityUpdate | kCapabilityDelete;
  return caps;
}

}  // namespace

CReferenceHistorian::CReferenceHistorian(std::shared_ptr<CHistorianStore> store) : store_(std::move(store)) {
  ++g_liveObjects;
}

CReferenceHistorian::~CReferenceHistorian() { --g_liveObjects; }

long CReferenceHistorian::LiveObjects() { return g_liveObjects.load(); }

HRESULT CReferenceHistorian::Create(std::shared_ptr<CHistorianStore> store, REFIID riid, void** object,
                                    IAggregates* processedFactory) {
  if (!object) return E_INVALIDARG;
  *object = nullptr;
  if (!store) return E_INVALIDARG;
  const ComPtr<CReferenceHistorian> self(new (std::nothrow) CReferenceHistorian(store));
  if (!self) return E_OUTOFMEMORY;
  if (processedFactory) {
    // The processed provider keeps a reference to the raw object it was built on. Giving
    // it a second object over the same store (not this one) avoids a reference cycle.
    const ComPtr<CReferenceHistorian> inner(new (std::nothrow) CReferenceHistorian(store));
    if (!inner) return E_OUTOFMEMORY;
    HRESULT hr = processedFactory->CreateProcessedDataProvider(static_cast<IRawDataProvider*>(inner.Get()),
                                                               self->processed_.Put());
    if (SUCCEEDED(hr) && !self->processed_) hr = E_UNEXPECTED;
    if (FAILED(hr)) return hr;
  }
  return self->QueryInterface(riid, object);
}

HRESULT CReferenceHistorian::QueryInterface(REFIID riid, void** object) {
  if (!object) return E_INVALIDARG;
  *object = nullptr;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IRawDataProvider))
    *object = static_cast<IRawDataProvider*>(this);
  else if (IsEqualIID(riid, IID_IValuesProvider))
    *object = static_cast<IValuesProvider*>(this);
  else if (IsEqualIID(riid, IID_IProcessedDataProvider) && processed_)
    *object = static_cast<IProcessedDataProvider*>(this);
  else if (IsEqualIID(riid, IID_ISampleReader))
    *object = static_cast<ISampleReader*>(this);
  else
    return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

ULONG CReferenceHistorian::AddRef() { return ++refs_; }

ULONG CReferenceHistorian::Release() {
  const ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

HRESULT CReferenceHistorian::GetTagInfo(const TagIdent* tag, VARTYPE* vartype) {
  if (!vartype) return E_INVALIDARG;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;
  TagDefinition def;
  hr = store_->GetTag(name, &def);
  if (SUCCEEDED(hr)) *vartype = def.vartype;
  return hr;
}

HRESULT CReferenceHistorian::GetTimeBounds(const TagIdent* tag, FILETIME* first, FILETIME* last) {
  if (!first || !last) return E_INVALIDARG;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;
  ULONGLONG a = 0, b = 0;
  hr = store_->GetTimeBounds(name, &a, &b);
  if (SUCCEEDED(hr)) {
    *first = U64ToFileTime(a);
    *last = U64ToFileTime(b);
  }
  return hr;
}

HRESULT CReferenceHistorian::BrowseTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter, ULONG* count,
                                        TagRecord** tags, BOOL* truncated) {
  if (!count || !tags || !truncated) return E_INVALIDARG;
  *count = 0;
  *tags = nullptr;
  *truncated = FALSE;
  std::vector<TagDefinition> list = store_->ListTags(nameFilter, descriptionFilter);
  if (list.empty()) return S_OK;
  auto* records = static_cast<TagRecord*>(CoTaskMemAlloc(list.size() * sizeof(TagRecord)));
  if (!records) return E_OUTOFMEMORY;
  std::memset(records, 0, list.size() * sizeof(TagRecord));
  for (size_t i = 0; i < list.size(); ++i) {
    records[i].name = TaskString(list[i].name);
    records[i].description = TaskString(list[i].description);
    if (!records[i].name || !records[i].description) {
      FreeTagRecords(records, static_cast<ULONG>(i + 1));
      return E_OUTOFMEMORY;
    }
    records[i].vartype = list[i].vartype;
    records[i].stepped = list[i].stepped ? TRUE : FALSE;
    records[i].accessRights = list[i].accessRights;
  }
  *count = static_cast<ULONG>(list.size());
  *tags = records;
  return S_OK;
}

HRESULT CReferenceHistorian::GetCapabilities(const TagIdent* tag, DWORD* capabilities) {
  if (!tag || !capabilities) return E_INVALIDARG;
  *capabilities = 0;
  if (Empty(tag->catalog) && Empty(tag->schema) && Empty(tag->tagName)) {
    *capabilities = CapabilitiesFor(kTagAccessRead | kTagAccessWrite);
    return S_OK;
  }
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;
  TagDefinition def;
  hr = store_->GetTag(name, &def);
  if (SUCCEEDED(hr)) *capabilities = CapabilitiesFor(def.accessRights);
  return hr;
}

HRESULT CReferenceHistorian::VisitColumns(const TagIdent* tag, ULONGLONG low, ULONGLONG high, ColumnVisitor visit,
                                          void* context) {
  if (!visit) return E_INVALIDARG;
  WStringView name;
  const HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;
  return store_->VisitRange(name, low, high, visit, context);
}

HRESULT CReferenceHistorian::ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues,
                                     DWORD flags, void** continuation, HistoryValueList** values) {
  if (!continuation || !values) return E_INVALIDARG;
  *values = nullptr;
  if (flags & ~static_cast<DWORD>(kRawReadIncludeBounds)) return E_INVALIDARG;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;

  std::unique_ptr<ReadCursor> cursor;
  const bool continued = *continuation != nullptr;
  if (continued) {
    cursor = store_->TakeCursor(*continuation);
    if (!cursor) return E_INVALIDARG;  // never issued here, already exhausted or released
    if (cursor->tagKey != WUpper(name)) {
      store_->RegisterCursor(std::move(cursor));
      return E_INVALIDARG;
    }
  } else {
    if (!store_->HasTag(name)) return HIST_E_TAG_NOT_FOUND;
    cursor = std::make_unique<ReadCursor>();
    cursor->tagKey = WUpper(name);
    ULONGLONG a = FileTimeToU64(start), b = FileTimeToU64(end);
    cursor->newestFirst = a > b;
    cursor->low = std::min(a, b);
    cursor->high = std::max(a, b);
    if (!(flags & kRawReadIncludeBounds)) {
      if (cursor->high - cursor->low < 2) {
        // An open interval with nothing inside: low > high finds no sample.
        cursor->low = 1;
        cursor->high = 0;
      } else {
        ++cursor->low;
        --cursor->high;
      }
    }
  }

  bool more = false;
  hr = store_->ReadPage(*cursor, maxValues, values, &more);
  if (FAILED(hr)) {
    if (continued) store_->RegisterCursor(std::move(cursor));
    return hr;
  }
  *continuation = more ? static_cast<void*>(store_->RegisterCursor(std::move(cursor))) : nullptr;
  return S_OK;
}

HRESULT CReferenceHistorian::ReleaseContinuationPoint(void** continuation) {
  if (!continuation) return E_INVALIDARG;
  if (!*continuation) return S_FALSE;
  if (store_->ReleaseCursor(*continuation)) {
    *continuation = nullptr;
    return S_OK;
  }
  // Not a raw read's: statistics tokens of the processed provider come back here too,
  // since callers have one release for every point. That provider drops a token it
  // knows on any refused call, which a reserved value makes this one.
  if (processed_) {
    void* token = *continuation;
    ULONG count = 0;
    BSTR* names = nullptr;
    HistoryValueList* values = nullptr;
    processed_->GetFilteredTagStatistics(nullptr, nullptr, nullptr, FILETIME{}, FILETIME{}, nullptr, 0, &token, 1,
                                         &count, &names, &values);
    if (!token) {
      *continuation = nullptr;
      return S_OK;
    }
  }
  return E_INVALIDARG;
}

HRESULT CReferenceHistorian::InsertValue(const TagIdent* tag, const HistoryValue* value) {
  if (!value) return E_INVALIDARG;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  return FAILED(hr) ? hr : store_->Insert(name, *value);
}

HRESULT CReferenceHistorian::DeleteValues(const TagIdent* tag, FILETIME start, FILETIME end) {
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;
  ULONGLONG a = FileTimeToU64(start), b = FileTimeToU64(end);
  return store_->Delete(name, std::min(a, b), std::max(a, b));
}

HRESULT CReferenceHistorian::UpdateValue(const TagIdent* tag, const HistoryValue* value) {
  if (!value) return E_INVALIDARG;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  return FAILED(hr) ? hr : store_->Update(name, *value);
}

HRESULT CReferenceHistorian::GetMostRecentValue(const TagIdent* tag, HistoryValue** value) {
  if (!value) return E_INVALIDARG;
  *value = nullptr;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  return FAILED(hr) ? hr : store_->ReadNewest(name, value);
}

HRESULT CReferenceHistorian::ReadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                        QualityClass quality, HistoryValueList** values) {
  if (!values) return E_INVALIDARG;
  *values = nullptr;
  WStringView name;
  HRESULT hr = NameOf(tag, &name);
  if (FAILED(hr)) return hr;
  ReadCursor cursor;
  cursor.tagKey = WUpper(name);
  ULONGLONG a = FileTimeToU64(start), b = FileTimeToU64(end);
  cursor.newestFirst = a > b;
  cursor.low = std::min(a, b);
  cursor.high = std::max(a, b);
  cursor.quality = quality;
  bool more = false;
  return store_->ReadPage(cursor, count, values, &more);
}

HRESULT CReferenceHistorian::GetGoodValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                           HistoryValueList** values) {
  return ReadValues(tag, start, end, count, QualityClass::Good, values);
}

HRESULT CReferenceHistorian::GetBadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                          HistoryValueList** values) {
  return ReadValues(tag, start, end, count, QualityClass::NotGood, values);
}

HRESULT CReferenceHistorian::GetAllValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                          HistoryValueList** values) {
  return ReadValues(tag, start, end, count, QualityClass::All, values);
}

HRESULT CReferenceHistorian::ReadProcessed(const TagIdent* tag, const ProcessedReadRequest* request,
                                           ULONG aggregateCount, const AggregateId* aggregates,
                                           ProcessedResult** results) {
  if (!processed_) return E_NOTIMPL;
  return processed_->ReadProcessed(tag, request, aggregateCount, aggregates, results);
}

HRESULT CReferenceHistorian::GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                                      FILETIME start, FILETIME end,
                                                      const ProcessedReadRequest* request, ULONG maxNames,
                                                      void** continuation, DWORD reserved, ULONG* nameCount,
                                                      BSTR** names, HistoryValueList** values) {
  if (!processed_) return E_NOTIMPL;
  return processed_->GetFilteredTagStatistics(filter1, filter2, filter3, start, end, request, maxNames,
                                              continuation, reserved, nameCount, names, values);
}

}  // namespace corvane::historian
