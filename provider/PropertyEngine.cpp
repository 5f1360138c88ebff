// Status and result rules follow OLE DB: a property is checked on its own (option,
// support, type, settability, value) and the call's result says whether
// none, some or all of them failed. Everything handed out is CoTaskMemAlloc memory
// (strings in VARIANTs are BSTRs) that the consumer frees.
#include "provider/PropertyEngine.h"

#include <cstring>
#include <new>

#include "platform/WideString.h"

namespace corvane {
namespace {

struct AllSet {
  const GUID* all;
  DBPROPFLAGS group;
};
const AllSet kAllSets[] = {
    {&DBPROPSET_DBINITALL, DBPROPFLAGS_DBINIT},
    {&DBPROPSET_DATASOURCEINFOALL, DBPROPFLAGS_DATASOURCEINFO},
    {&DBPROPSET_DATASOURCEALL, DBPROPFLAGS_DATASOURCE},
    {&DBPROPSET_SESSIONALL, DBPROPFLAGS_SESSION},
    {&DBPROPSET_ROWSETALL, DBPROPFLAGS_ROWSET},
    {&DBPROPSET_COLUMNALL, DBPROPFLAGS_COLUMN},
    {&DBPROPSET_INDEXALL, DBPROPFLAGS_INDEX},
    {&DBPROPSET_TABLEALL, DBPROPFLAGS_TABLE},
    {&DBPROPSET_TRUSTEEALL, DBPROPFLAGS_TRUSTEE},
    {&DBPROPSET_VIEWALL, DBPROPFLAGS_VIEW},
    {&DBPROPSET_STREAMALL, DBPROPFLAGS_STREAM},
};

const AllSet* FindAllSet(const GUID& guid) {
  for (const auto& a : kAllSets)
    if (IsEqualGUID(*a.all, guid)) return &a;
  return nullptr;
}

bool SameValue(const VARIANT& a, const VARIANT& b) {
  if (a.vt != b.vt) return false;
  switch (a.vt) {
    case VT_EMPTY:
      return true;
    case VT_I2:
      return a.iVal == b.iVal;
    case VT_I4:
      return a.lVal == b.lVal;
    case VT_BOOL:
      return a.boolVal == b.boolVal;
    case VT_BSTR:
      return WCmp(a.bstrVal, b.bstrVal) == 0;
    default:
      return false;
  }
}

template <typename T>
T* TaskAllocArray(size_t n) {
  if (n == 0) return nullptr;
  void* p = CoTaskMemAlloc(n * sizeof(T));
  if (p) std::memset(p, 0, n * sizeof(T));
  return static_cast<T*>(p);
}

bool Failed(DBPROPSTATUS s) { return s != DBPROPSTATUS_OK; }

}  // namespace

CPropertyEngine::CPropertyEngine(const PropertySetDefinition* sets, size_t count) : sets_(sets), setCount_(count) {
  for (size_t s = 0; s < count; ++s)
    for (size_t p = 0; p < sets[s].count; ++p) {
      Slot slot{&sets[s], &sets[s].properties[p], {}, false};
      DefaultValue(*slot.def, &slot.value);
      slots_.push_back(slot);
    }
}

CPropertyEngine::~CPropertyEngine() {
  for (auto& slot : slots_) VariantClear(&slot.value);
}

void CPropertyEngine::DefaultValue(const PropertyDefinition& def, VARIANT* out) {
  VariantInit(out);
  switch (def.value.type) {
    case VT_I2:
      out->vt = VT_I2;
      out->iVal = static_cast<SHORT>(def.value.number);
      break;
    case VT_I4:
      out->vt = VT_I4;
      out->lVal = def.value.number;
      break;
    case VT_BOOL:
      out->vt = VT_BOOL;
      out->boolVal = def.value.boolean ? VARIANT_TRUE : VARIANT_FALSE;
      break;
    case VT_BSTR:
      out->bstrVal = SysAllocString(def.value.text ? def.value.text : OLESTR(""));
      if (out->bstrVal) out->vt = VT_BSTR;
      break;
    default:
      break;
  }
}

void CPropertyEngine::SetVisibleGroups(DBPROPFLAGS groups) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  visible_ = groups;
}

void CPropertyEngine::SetSettableGroups(DBPROPFLAGS groups) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  settable_ = groups;
}

const PropertySetDefinition* CPropertyEngine::FindSet(const GUID& set) const {
  for (size_t s = 0; s < setCount_; ++s)
    if (IsEqualGUID(*sets_[s].set, set)) return &sets_[s];
  return nullptr;
}

CPropertyEngine::Slot* CPropertyEngine::Find(const GUID& set, DBPROPID id) {
  for (auto& slot : slots_)
    if (slot.def->id == id && IsEqualGUID(*slot.set->set, set)) return &slot;
  return nullptr;
}

const CPropertyEngine::Slot* CPropertyEngine::Find(const GUID& set, DBPROPID id) const {
  return const_cast<CPropertyEngine*>(this)->Find(set, id);
}

HRESULT CPropertyEngine::GetValue(const GUID& set, DBPROPID id, VARIANT* out) const {
  if (!out) return E_INVALIDARG;
  std::lock_guard<std::recursive_mutex> guard(lock_);
  const Slot* slot = Find(set, id);
  if (!slot) return DB_E_NOTFOUND;
  return VariantCopy(out, const_cast<VARIANT*>(&slot->value));
}

HRESULT CPropertyEngine::SetValue(const GUID& set, DBPROPID id, const VARIANT& value) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  Slot* slot = Find(set, id);
  if (!slot) return DB_E_NOTFOUND;
  VARIANT copy;
  VariantInit(&copy);
  const HRESULT hr = VariantCopy(&copy, const_cast<VARIANT*>(&value));
  if (FAILED(hr)) return hr;
  VariantClear(&slot->value);
  slot->value = copy;
  return S_OK;
}

DBPROPSTATUS CPropertyEngine::Check(const DBPROP& prop, const Slot* slot) const {
  if (prop.dwOptions != DBPROPOPTIONS_REQUIRED && prop.dwOptions != DBPROPOPTIONS_OPTIONAL)
    return DBPROPSTATUS_BADOPTION;
  if (!slot || !Visible(*slot->set)) return DBPROPSTATUS_NOTSUPPORTED;
  const VARIANT& v = prop.vValue;
  if (v.vt != VT_EMPTY) {
    if (v.vt != slot->def->value.type) return DBPROPSTATUS_BADVALUE;
    if (v.vt == VT_BOOL && v.boolVal != VARIANT_TRUE && v.boolVal != VARIANT_FALSE) return DBPROPSTATUS_BADVALUE;
  }
  // A read-only property may be "set" to the value it already has.
  if (!(slot->def->flags & DBPROPFLAGS_WRITE)) {
    if (v.vt == VT_EMPTY || SameValue(v, slot->value)) return DBPROPSTATUS_OK;
    return DBPROPSTATUS_NOTSETTABLE;
  }
  if (!(slot->set->group & settable_)) return DBPROPSTATUS_NOTSETTABLE;
  return DBPROPSTATUS_OK;
}

HRESULT CPropertyEngine::SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[], SetMode mode) {
  if (cPropertySets && !rgPropertySets) return E_INVALIDARG;
  for (ULONG s = 0; s < cPropertySets; ++s)
    if (rgPropertySets[s].cProperties && !rgPropertySets[s].rgProperties) return E_INVALIDARG;

  std::lock_guard<std::recursive_mutex> guard(lock_);
  inError_.clear();
  ULONG total = 0, failed = 0;
  bool requiredFailed = false;
  // Applied as each passes its check, and undone if a required one fails in AllRequired
  // mode, so that a failed open changes nothing.
  std::vector<std::pair<Slot*, VARIANT*>> accepted;
  std::vector<VARIANT> previous;
  for (ULONG s = 0; s < cPropertySets; ++s) {
    DBPROPSET& set = rgPropertySets[s];
    for (ULONG p = 0; p < set.cProperties; ++p) {
      DBPROP& prop = set.rgProperties[p];
      Slot* slot = Find(set.guidPropertySet, prop.dwPropertyID);
      prop.dwStatus = Check(prop, slot);
      ++total;
      if (Failed(prop.dwStatus)) {
        ++failed;
        if (prop.dwOptions != DBPROPOPTIONS_OPTIONAL) requiredFailed = true;
        if (slot) inError_.push_back({static_cast<size_t>(slot - slots_.data()), prop.dwStatus});
        continue;
      }
      if (!(slot->def->flags & DBPROPFLAGS_WRITE)) continue;  // same value: nothing to do
      VARIANT next;
      if (prop.vValue.vt == VT_EMPTY) {
        DefaultValue(*slot->def, &next);
      } else {
        VariantInit(&next);
        if (FAILED(VariantCopy(&next, &prop.vValue))) {
          prop.dwStatus = DBPROPSTATUS_BADVALUE;
          ++failed;
          continue;
        }
      }
      previous.push_back(slot->value);
      slot->value = next;
      accepted.push_back({slot, nullptr});
      slot->setByConsumer = prop.vValue.vt != VT_EMPTY;
    }
  }
  if (mode == SetMode::AllRequired && requiredFailed) {
    // Undo in reverse order, so a property given twice gets its first value back.
    for (size_t i = accepted.size(); i-- > 0;) {
      VariantClear(&accepted[i].first->value);
      accepted[i].first->value = previous[i];
    }
    return DB_E_ERRORSOCCURRED;
  }
  for (auto& v : previous) VariantClear(&v);
  if (failed == 0) return S_OK;
  if (mode == SetMode::AllRequired) return DB_S_ERRORSOCCURRED;
  return failed == total ? DB_E_ERRORSOCCURRED : DB_S_ERRORSOCCURRED;
}

bool CPropertyEngine::MissingRequired() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  inError_.clear();
  for (size_t i = 0; i < slots_.size(); ++i)
    if ((slots_[i].def->flags & DBPROPFLAGS_REQUIRED) && Visible(*slots_[i].set) && !slots_[i].setByConsumer)
      inError_.push_back({i, DBPROPSTATUS_NOTSET});
  return !inError_.empty();
}

void CPropertyEngine::FreePropertySets(ULONG count, DBPROPSET* sets) {
  if (!sets) return;
  for (ULONG s = 0; s < count; ++s) {
    for (ULONG p = 0; p < sets[s].cProperties; ++p) VariantClear(&sets[s].rgProperties[p].vValue);
    CoTaskMemFree(sets[s].rgProperties);
  }
  CoTaskMemFree(sets);
}

void CPropertyEngine::FreePropertyInfoSets(ULONG count, DBPROPINFOSET* sets, OLECHAR* descriptions) {
  if (sets) {
    for (ULONG s = 0; s < count; ++s) {
      for (ULONG p = 0; p < sets[s].cPropertyInfos; ++p) VariantClear(&sets[s].rgPropertyInfos[p].vValues);
      CoTaskMemFree(sets[s].rgPropertyInfos);
    }
    CoTaskMemFree(sets);
  }
  CoTaskMemFree(descriptions);
}

HRESULT CPropertyEngine::GetPropertiesInError(ULONG* pcPropertySets, DBPROPSET** prgPropertySets) const {
  // One output set per property set that has properties in error, in table order.
  std::vector<std::pair<const PropertySetDefinition*, std::vector<InError>>> groups;
  for (const auto& e : inError_) {
    const PropertySetDefinition* set = slots_[e.slot].set;
    auto it = groups.begin();
    while (it != groups.end() && it->first != set) ++it;
    if (it == groups.end()) {
      groups.push_back({set, {}});
      it = groups.end() - 1;
    }
    it->second.push_back(e);
  }
  if (groups.empty()) return S_OK;
  DBPROPSET* out = TaskAllocArray<DBPROPSET>(groups.size());
  if (!out) return E_OUTOFMEMORY;
  for (size_t g = 0; g < groups.size(); ++g) {
    out[g].guidPropertySet = *groups[g].first->set;
    out[g].rgProperties = TaskAllocArray<DBPROP>(groups[g].second.size());
    if (!out[g].rgProperties) {
      FreePropertySets(static_cast<ULONG>(g), out);
      return E_OUTOFMEMORY;
    }
    out[g].cProperties = static_cast<ULONG>(groups[g].second.size());
    for (size_t p = 0; p < groups[g].second.size(); ++p) {
      DBPROP& prop = out[g].rgProperties[p];
      const Slot& slot = slots_[groups[g].second[p].slot];
      prop.dwPropertyID = slot.def->id;
      prop.dwStatus = groups[g].second[p].status;
      prop.dwOptions = DBPROPOPTIONS_REQUIRED;
      VariantInit(&prop.vValue);
      VariantCopy(&prop.vValue, const_cast<VARIANT*>(&slot.value));
    }
  }
  *pcPropertySets = static_cast<ULONG>(groups.size());
  *prgPropertySets = out;
  return S_OK;
}

HRESULT CPropertyEngine::GetProperties(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                       ULONG* pcPropertySets, DBPROPSET** prgPropertySets) const {
  if (pcPropertySets) *pcPropertySets = 0;
  if (prgPropertySets) *prgPropertySets = nullptr;
  if (!pcPropertySets || !prgPropertySets || (cPropertyIDSets && !rgPropertyIDSets)) return E_INVALIDARG;
  for (ULONG s = 0; s < cPropertyIDSets; ++s) {
    if (rgPropertyIDSets[s].cPropertyIDs && !rgPropertyIDSets[s].rgPropertyIDs) return E_INVALIDARG;
    // The properties in error are asked for alone and as a whole set.
    if (IsEqualGUID(rgPropertyIDSets[s].guidPropertySet, DBPROPSET_PROPERTIESINERROR) &&
        (cPropertyIDSets != 1 || rgPropertyIDSets[s].cPropertyIDs != 0))
      return E_INVALIDARG;
  }
  std::lock_guard<std::recursive_mutex> guard(lock_);
  if (cPropertyIDSets == 1 && IsEqualGUID(rgPropertyIDSets[0].guidPropertySet, DBPROPSET_PROPERTIESINERROR))
    return GetPropertiesInError(pcPropertySets, prgPropertySets);

  // What to return: per output set, its GUID and the slots or unsupported ids.
  struct Entry {
    DBPROPID id;
    const Slot* slot;  // null: not supported
  };
  struct OutSet {
    GUID guid;
    std::vector<Entry> entries;
    bool unsupportedSet;
  };
  std::vector<OutSet> plan;
  if (cPropertyIDSets == 0) {
    for (size_t s = 0; s < setCount_; ++s) {
      if (!Visible(sets_[s]) || sets_[s].count == 0) continue;
      OutSet out{*sets_[s].set, {}, false};
      for (const auto& slot : slots_)
        if (slot.set == &sets_[s]) out.entries.push_back({slot.def->id, &slot});
      plan.push_back(std::move(out));
    }
  } else {
    for (ULONG s = 0; s < cPropertyIDSets; ++s) {
      const DBPROPIDSET& req = rgPropertyIDSets[s];
      const PropertySetDefinition* set = FindSet(req.guidPropertySet);
      const bool usable = set && Visible(*set);
      OutSet out{req.guidPropertySet, {}, false};
      if (req.cPropertyIDs == 0) {
        if (usable) {
          for (const auto& slot : slots_)
            if (slot.set == set) out.entries.push_back({slot.def->id, &slot});
        }
        out.unsupportedSet = !usable || out.entries.empty();
      } else {
        for (ULONG p = 0; p < req.cPropertyIDs; ++p) {
          const DBPROPID id = req.rgPropertyIDs[p];
          out.entries.push_back({id, usable ? Find(req.guidPropertySet, id) : nullptr});
        }
      }
      plan.push_back(std::move(out));
    }
  }

  ULONG total = 0, errors = 0;
  DBPROPSET* result = TaskAllocArray<DBPROPSET>(plan.size());
  if (!result && !plan.empty()) return E_OUTOFMEMORY;
  for (size_t s = 0; s < plan.size(); ++s) {
    DBPROPSET& out = result[s];
    out.guidPropertySet = plan[s].guid;
    if (plan[s].unsupportedSet) {
      ++total;
      ++errors;
      continue;
    }
    out.rgProperties = TaskAllocArray<DBPROP>(plan[s].entries.size());
    if (!out.rgProperties && !plan[s].entries.empty()) {
      FreePropertySets(static_cast<ULONG>(s), result);
      return E_OUTOFMEMORY;
    }
    out.cProperties = static_cast<ULONG>(plan[s].entries.size());
    for (size_t p = 0; p < plan[s].entries.size(); ++p) {
      DBPROP& prop = out.rgProperties[p];
      const Entry& e = plan[s].entries[p];
      ++total;
      prop.dwPropertyID = e.id;
      prop.dwOptions = DBPROPOPTIONS_REQUIRED;
      VariantInit(&prop.vValue);
      if (!e.slot) {
        prop.dwStatus = DBPROPSTATUS_NOTSUPPORTED;
        ++errors;
        continue;
      }
      prop.dwStatus = DBPROPSTATUS_OK;
      if (FAILED(VariantCopy(&prop.vValue, const_cast<VARIANT*>(&e.slot->value)))) {
        FreePropertySets(static_cast<ULONG>(s + 1), result);
        return E_OUTOFMEMORY;
      }
    }
  }
  *pcPropertySets = static_cast<ULONG>(plan.size());
  *prgPropertySets = result;
  if (errors == 0) return S_OK;
  return errors == total ? DB_E_ERRORSOCCURRED : DB_S_ERRORSOCCURRED;
}

HRESULT CPropertyEngine::GetPropertyInfo(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                         ULONG* pcPropertyInfoSets, DBPROPINFOSET** prgPropertyInfoSets,
                                         OLECHAR** ppDescBuffer) const {
  if (pcPropertyInfoSets) *pcPropertyInfoSets = 0;
  if (prgPropertyInfoSets) *prgPropertyInfoSets = nullptr;
  if (ppDescBuffer) *ppDescBuffer = nullptr;
  if (!pcPropertyInfoSets || !prgPropertyInfoSets || (cPropertyIDSets && !rgPropertyIDSets)) return E_INVALIDARG;
  for (ULONG s = 0; s < cPropertyIDSets; ++s)
    if (rgPropertyIDSets[s].cPropertyIDs && !rgPropertyIDSets[s].rgPropertyIDs) return E_INVALIDARG;

  std::lock_guard<std::recursive_mutex> guard(lock_);
  struct Entry {
    DBPROPID id;
    const PropertyDefinition* def;  // null: not supported
  };
  struct OutSet {
    GUID guid;
    std::vector<Entry> entries;
    bool unsupportedSet;
  };
  std::vector<OutSet> plan;
  auto wholeSet = [](const PropertySetDefinition& set) {
    OutSet out{*set.set, {}, false};
    for (size_t p = 0; p < set.count; ++p) out.entries.push_back({set.properties[p].id, &set.properties[p]});
    return out;
  };
  if (cPropertyIDSets == 0) {
    for (size_t s = 0; s < setCount_; ++s)
      if (Visible(sets_[s]) && sets_[s].count) plan.push_back(wholeSet(sets_[s]));
  } else {
    for (ULONG s = 0; s < cPropertyIDSets; ++s) {
      const DBPROPIDSET& req = rgPropertyIDSets[s];
      if (const AllSet* all = FindAllSet(req.guidPropertySet)) {
        // A group stands for every set of it that exists right now.
        const size_t before = plan.size();
        if (all->group & visible_)
          for (size_t d = 0; d < setCount_; ++d)
            if ((sets_[d].group & all->group) && sets_[d].count) plan.push_back(wholeSet(sets_[d]));
        if (plan.size() == before) plan.push_back({req.guidPropertySet, {}, true});
        continue;
      }
      const PropertySetDefinition* set = FindSet(req.guidPropertySet);
      const bool usable = set && Visible(*set);
      if (req.cPropertyIDs == 0) {
        if (usable && set->count)
          plan.push_back(wholeSet(*set));
        else
          plan.push_back({req.guidPropertySet, {}, true});
        continue;
      }
      OutSet out{req.guidPropertySet, {}, false};
      for (ULONG p = 0; p < req.cPropertyIDs; ++p) {
        const DBPROPID id = req.rgPropertyIDs[p];
        const PropertyDefinition* def = nullptr;
        if (usable)
          for (size_t d = 0; d < set->count; ++d)
            if (set->properties[d].id == id) def = &set->properties[d];
        out.entries.push_back({id, def});
      }
      plan.push_back(std::move(out));
    }
  }

  // One block for every description, each terminated, as OLE DB hands them out.
  size_t descChars = 0;
  if (ppDescBuffer)
    for (const auto& set : plan)
      for (const auto& e : set.entries)
        if (e.def) descChars += WLen(e.def->description) + 1;
  OLECHAR* descriptions = descChars ? static_cast<OLECHAR*>(CoTaskMemAlloc(descChars * sizeof(OLECHAR))) : nullptr;
  if (descChars && !descriptions) return E_OUTOFMEMORY;
  DBPROPINFOSET* result = TaskAllocArray<DBPROPINFOSET>(plan.size());
  if (!result && !plan.empty()) {
    CoTaskMemFree(descriptions);
    return E_OUTOFMEMORY;
  }
  OLECHAR* nextDesc = descriptions;
  ULONG total = 0, errors = 0;
  for (size_t s = 0; s < plan.size(); ++s) {
    DBPROPINFOSET& out = result[s];
    out.guidPropertySet = plan[s].guid;
    if (plan[s].unsupportedSet) {
      ++total;
      ++errors;
      continue;
    }
    out.rgPropertyInfos = TaskAllocArray<DBPROPINFO>(plan[s].entries.size());
    if (!out.rgPropertyInfos && !plan[s].entries.empty()) {
      FreePropertyInfoSets(static_cast<ULONG>(s), result, descriptions);
      return E_OUTOFMEMORY;
    }
    out.cPropertyInfos = static_cast<ULONG>(plan[s].entries.size());
    for (size_t p = 0; p < plan[s].entries.size(); ++p) {
      DBPROPINFO& info = out.rgPropertyInfos[p];
      const Entry& e = plan[s].entries[p];
      ++total;
      info.dwPropertyID = e.id;
      VariantInit(&info.vValues);
      if (!e.def) {
        info.dwFlags = DBPROPFLAGS_NOTSUPPORTED;
        info.vtType = VT_EMPTY;
        ++errors;
        continue;
      }
      info.dwFlags = e.def->flags;
      info.vtType = e.def->value.type;
      if (nextDesc) {
        const size_t n = WLen(e.def->description);
        if (n) std::memcpy(nextDesc, e.def->description, n * sizeof(OLECHAR));
        nextDesc[n] = 0;
        info.pwszDescription = nextDesc;
        nextDesc += n + 1;
      }
    }
  }
  *pcPropertyInfoSets = static_cast<ULONG>(plan.size());
  *prgPropertyInfoSets = result;
  if (ppDescBuffer) *ppDescBuffer = descriptions;
  if (errors == 0) return S_OK;
  return errors == total ? DB_E_ERRORSOCCURRED : DB_S_ERRORSOCCURRED;
}

}  // namespace corvane
