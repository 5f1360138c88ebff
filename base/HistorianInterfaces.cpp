#include "base/HistorianInterfaces.h"

#include <cstring>

#include "platform/WideString.h"

namespace {

size_t Length(LPCOLESTR s) {
  size_t n = 0;
  if (s)
    while (s[n]) ++n;
  return n;
}

LPOLESTR TaskCopy(LPCOLESTR s) {
  const size_t n = Length(s);
  auto* copy = static_cast<LPOLESTR>(CoTaskMemAlloc((n + 1) * sizeof(OLECHAR)));
  if (copy) {
    std::memcpy(copy, s, n * sizeof(OLECHAR));
    copy[n] = 0;
  }
  return copy;
}

void ClearValues(HistoryValue* values, ULONG count) {
  if (!values) return;
  for (ULONG i = 0; i < count; ++i) VariantClear(&values[i].value);
}

}  // namespace

const OLECHAR* AggregateName(AggregateId id) {
  static const OLECHAR* const kNames[AGG_COUNT_OF_AGGREGATES] = {
      OLESTR("MIN"),
      OLESTR("MAX"),
      OLESTR("AVG"),
      OLESTR("TIME_AVG"),
      OLESTR("TOTAL_AVG"),
      OLESTR("INTERPOLATIVE"),
      OLESTR("LAST"),
      OLESTR("DURATION_IN_STATE_0"),
      OLESTR("DURATION_IN_STATE_1"),
      OLESTR("NUMBER_OF_TRANSITIONS"),
      OLESTR("DELTA"),
      OLESTR("RANGE"),
      OLESTR("TOTAL"),
      OLESTR("COUNT"),
      OLESTR("DURATION_GOOD"),
      OLESTR("DURATION_BAD"),
      OLESTR("PERCENT_GOOD"),
      OLESTR("PERCENT_BAD"),
      OLESTR("WORST_QUALITY"),
  };
  return id < AGG_COUNT_OF_AGGREGATES ? kNames[id] : nullptr;
}

void FreeHistoryValueList(HistoryValueList* list) {
  if (!list) return;
  ClearValues(list->values, list->count);
  CoTaskMemFree(list->values);
  CoTaskMemFree(list);
}

void FreeHistoryValue(HistoryValue* value) {
  if (!value) return;
  VariantClear(&value->value);
  CoTaskMemFree(value);
}

void FreeProcessedResult(ProcessedResult* result, ULONG entries) {
  if (!result) return;
  for (ULONG i = 0; i < entries; ++i) {
    ClearValues(result[i].values, result[i].count);
    CoTaskMemFree(result[i].values);
    result[i].values = nullptr;
    result[i].count = 0;
  }
  CoTaskMemFree(result);
}

void FreeTagRecords(TagRecord* tags, ULONG count) {
  if (!tags) return;
  for (ULONG i = 0; i < count; ++i) {
    CoTaskMemFree(tags[i].name);
    CoTaskMemFree(tags[i].description);
  }
  CoTaskMemFree(tags);
}

void FreeTagIdent(TagIdent* tag) {
  if (!tag) return;
  CoTaskMemFree(tag->catalog);
  CoTaskMemFree(tag->schema);
  CoTaskMemFree(tag->tagName);
  CoTaskMemFree(tag);
}

void FreeTagIdentBstr(TagIdent* tag) {
  if (!tag) return;
  SysFreeString(tag->catalog);
  SysFreeString(tag->schema);
  SysFreeString(tag->tagName);
  CoTaskMemFree(tag);
}

HRESULT MakeTaskTagIdent(LPCOLESTR catalog, LPCOLESTR schema, LPCOLESTR tagName, TagIdent** tag) {
  if (!tag) return E_INVALIDARG;
  *tag = nullptr;
  if (!Length(catalog) || !Length(schema) || !Length(tagName)) return E_INVALIDARG;
  auto* ident = static_cast<TagIdent*>(CoTaskMemAlloc(sizeof(TagIdent)));
  if (!ident) return E_OUTOFMEMORY;
  std::memset(ident, 0, sizeof(TagIdent));
  ident->catalog = TaskCopy(catalog);
  ident->schema = TaskCopy(schema);
  ident->tagName = TaskCopy(tagName);
  if (!ident->catalog || !ident->schema || !ident->tagName) {
    FreeTagIdent(ident);
    return E_OUTOFMEMORY;
  }
  *tag = ident;
  return S_OK;
}

bool TagFilterMatches(LPCOLESTR pattern, LPCOLESTR text) {
  if (!pattern || !*pattern) return true;
  static const OLECHAR kEmpty[] = {0};
  if (!text) text = kEmpty;
  // Greedy scan that backtracks only to the most recent `*`: linear for the patterns
  // people write, and never recursive however many stars a filter holds.
  const OLECHAR* p = pattern;
  const OLECHAR* t = text;
  const OLECHAR* starP = nullptr;
  const OLECHAR* starT = nullptr;
  while (*t) {
    if (*p == u'*') {
      starP = ++p;
      starT = t;
    } else if (*p && (*p == u'?' || corvane::WToLower(*p) == corvane::WToLower(*t))) {
      ++p;
      ++t;
    } else if (starP) {
      p = starP;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (*p == u'*') ++p;
  return *p == 0;
}
