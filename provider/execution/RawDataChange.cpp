#include "provider/execution/RawDataChange.h"

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/TimeConversion.h"
#include "provider/ErrorReporting.h"
#include "base/ComPtr.h"
#include "base/HistorianInterfaces.h"
#include "base/Trace.h"
#include "base/Variant.h"
#include "provider/execution/RowEvaluator.h"
#include "provider/tables/TableFactory.h"

using corvane::WString;

namespace {

constexpr ULONG64 kLastTime = 0x7FFFFFFFFFFFFFFFull;  // the largest FILETIME
enum : size_t { kTagField = 0, kTimeField = 1, kQualityField = 2, kValueField = 3 };

// True when the item reads a column anywhere in it.
bool ReadsColumns(const CSQLCalcItem* item) {
  std::vector<const CSQLCalcItem*> pending{item};
  while (!pending.empty()) {
    const CSQLCalcItem* next = pending.back();
    pending.pop_back();
    if (!next) continue;
    if (next->Kind() == SQL_CALC_TABLE_COLUMN) return true;
    if (next->Kind() == SQL_CALC_FUNCTION)
      for (const auto& a : static_cast<const CSQLCalcItemFunction*>(next)->Arguments()) pending.push_back(a.get());
  }
  return false;
}

WString FormatTime(ULONG64 ticks) {
  SYSTEMTIME st{};
  const FILETIME time = corvane::TicksToFileTime(ticks);
  FileTimeToSystemTime(&time, &st);
  return corvane::WFormat(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d.%.3d"), st.wYear, st.wMonth, st.wDay, st.wHour,
                          st.wMinute, st.wSecond, st.wMilliseconds);
}

HRESULT Refuse(WString* message, WString text) {
  *message = std::move(text);
  return CORVANE_E_MISSING_PARAMETER;
}

// The tags a condition allows: a finite list (ignoring case, in the order written), or
// every tag.
struct TagSet {
  bool finite = false;
  std::vector<WString> names;

  bool Has(const WString& name) const {
    for (const WString& n : names)
      if (corvane::WIEquals(n, name)) return true;
    return false;
  }
  void Add(const WString& name) {
    if (!Has(name)) names.push_back(name);
  }
};

// The times a condition allows, inclusive, with the bounds as written for telling a
// reversed range from an empty one.
struct TimeRange {
  bool empty = false;
  bool hasLow = false, hasHigh = false;
  ULONG64 low = 0, high = kLastTime;
  ULONG64 writtenLow = 0, writtenHigh = 0;
};

TimeRange Intersect(const TimeRange& a, const TimeRange& b) {
  TimeRange r;
  r.empty = a.empty || b.empty;
  r.hasLow = a.hasLow || b.hasLow;
  r.hasHigh = a.hasHigh || b.hasHigh;
  const TimeRange& lowSide = !b.hasLow || (a.hasLow && a.low >= b.low) ? a : b;
  const TimeRange& highSide = !b.hasHigh || (a.hasHigh && a.high <= b.high) ? a : b;
  r.low = lowSide.low;
  r.writtenLow = lowSide.writtenLow;
  r.high = highSide.high;
  r.writtenHigh = highSide.writtenHigh;
  if (r.hasLow && r.hasHigh && r.low > r.high) r.empty = true;
  return r;
}

TimeRange Span(const TimeRange& a, const TimeRange& b) {
  if (a.empty) return b;
  if (b.empty) return a;
  TimeRange r;
  r.hasLow = a.hasLow && b.hasLow;
  r.hasHigh = a.hasHigh && b.hasHigh;
  if (r.hasLow) {
    r.low = std::min(a.low, b.low);
    r.writtenLow = a.low <= b.low ? a.writtenLow : b.writtenLow;
  }
  if (r.hasHigh) {
    r.high = std::max(a.high, b.high);
    r.writtenHigh = a.high >= b.high ? a.writtenHigh : b.writtenHigh;
  }
  return r;
}

}  // namespace

corvane::WString TagInMessage(const corvane::WString& name) {
  constexpr size_t kMostQuoted = 200;
  if (name.size() <= kMostQuoted) return name;
  return name.substr(0, kMostQuoted) + OLESTR("...");
}

struct CRawDataChange::Plan {
  const TableInfo* columns = nullptr;
  WString catalog, schema;
  std::unique_ptr<CRowCondition> condition;  // null: every sample read matches
  TagSet tags;
  TimeRange range;
  std::unique_ptr<CRowExpression> setValue, setQuality;
  ULONG pageSize = 0;
  ULONG64 matched = 0;
};

// What one tag's matching samples become: runs of consecutive samples to delete, or
// the samples rewritten.
struct CRawDataChange::TagChanges {
  WString name;
  VARTYPE type = VT_EMPTY;  // what the historian stores the tag's values as
  std::vector<std::pair<ULONG64, ULONG64>> runs;
  std::vector<HistoryValue> updates;
  bool changed = false;

  TagChanges() = default;
  TagChanges(TagChanges&&) = default;
  ~TagChanges() {
    for (HistoryValue& v : updates) VariantClear(&v.value);
  }
};

CRawDataChange::CRawDataChange(Kind kind, IProviderDataSource* dataSource, const CSQLQueryInfo& statement,
                               const TableInfo& table, const SQLBindContext& context)
    : kind_(kind), dataSource_(dataSource), statement_(statement), table_(table), context_(context) {}

CRawDataChange::~CRawDataChange() = default;

HRESULT CRawDataChange::Analyse(Plan* plan, WString* message) {
  const CSQLConditionNode* root = statement_.Condition();
  // Post-order, one tag set and one range per node on a stack.
  std::vector<TagSet> tags;
  std::vector<TimeRange> ranges;
  std::vector<std::pair<const CSQLConditionNode*, bool>> pending;
  if (root) pending.emplace_back(root, false);
  while (!pending.empty()) {
    auto [node, childrenDone] = pending.back();
    pending.pop_back();
    const int op = node->Operator();
    if ((op == SQL_COND_AND || op == SQL_COND_OR || op == SQL_COND_NOT) && !childrenDone) {
      pending.emplace_back(node, true);
      if (node->Right() && op != SQL_COND_NOT) pending.emplace_back(node->Right(), false);
      if (node->Left()) pending.emplace_back(node->Left(), false);
      continue;
    }
    if (op == SQL_COND_AND || op == SQL_COND_OR) {
      const TagSet rightTags = std::move(tags.back());
      tags.pop_back();
      const TimeRange rightRange = ranges.back();
      ranges.pop_back();
      TagSet& leftTags = tags.back();
      TimeRange& leftRange = ranges.back();
      if (op == SQL_COND_AND) {
        if (leftTags.finite && rightTags.finite) {
          TagSet both;
          both.finite = true;
          for (const WString& n : leftTags.names)
            if (rightTags.Has(n)) both.Add(n);
          leftTags = std::move(both);
        } else if (rightTags.finite) {
          leftTags = rightTags;
        }
        leftRange = Intersect(leftRange, rightRange);
        if (leftRange.hasLow && leftRange.hasHigh && leftRange.writtenLow > leftRange.writtenHigh)
          return Refuse(message, corvane::WFormat(OLESTR("The time range is reversed: its start %s is later than its "
                                                         "end %s."),
                                                  FormatTime(leftRange.writtenLow).c_str(),
                                                  FormatTime(leftRange.writtenHigh).c_str()));
      } else {
        if (leftTags.finite && rightTags.finite) {
          for (const WString& n : rightTags.names) leftTags.Add(n);
        } else {
          leftTags = TagSet();
        }
        leftRange = Span(leftRange, rightRange);
      }
      continue;
    }
    if (op == SQL_COND_NOT) {
      tags.back() = TagSet();
      ranges.back() = TimeRange();
      continue;
    }

    // A comparison: TAGNAME = text names a tag, TIMESTAMP against a time bounds the range.
    TagSet leafTags;
    TimeRange leafRange;
    const CSQLCalcItem* first = node->FirstOperand();
    const CSQLCalcItem* second = node->SecondOperand();
    WString text;
    if (op == SQL_COND_EQUAL && ((IsColumnNamed(first, OLESTR("TAGNAME")) && ComparedText(second, context_, &text)) ||
                                 (IsColumnNamed(second, OLESTR("TAGNAME")) && ComparedText(first, context_, &text)))) {
      leafTags.finite = true;
      leafTags.Add(text);
    }
    const bool timeOnLeft = IsColumnNamed(first, OLESTR("TIMESTAMP"));
    const CSQLCalcItem* other = timeOnLeft ? second : (IsColumnNamed(second, OLESTR("TIMESTAMP")) ? first : nullptr);
    if (other && op >= SQL_COND_EQUAL && op < SQL_COND_NOT_EQUAL && !ReadsColumns(other)) {
      std::unique_ptr<CRowExpression> bound;
      HRESULT hr = CRowExpression::Create(other, {}, OLESTR("RAWDATA"), context_, &bound, message);
      SQLEvaluationResult value;
      if (SUCCEEDED(hr)) {
        hr = bound->Evaluate(ProducedRecord(), &value);
        if (FAILED(hr)) *message = bound->Message();
      }
      if (FAILED(hr)) return hr;
      ULONG64 time = 0;
      if (FAILED(ResultToTime(value, &time)))
        return Refuse(message, OLESTR("The value compared with TIMESTAMP is not a time."));
      if (time == 0)
        return Refuse(message, OLESTR("A time compared with TIMESTAMP evaluates to the zero timestamp "
                                      "(1601-01-01 00:00:00), which is never taken as a bound."));
      // The comparison as it reads with TIMESTAMP on the left.
      int mirrored = op;
      if (!timeOnLeft) {
        static const int kMirror[] = {0, SQL_COND_EQUAL, SQL_COND_LESS, SQL_COND_GREATER, SQL_COND_LESS_OR_EQUAL,
                                      SQL_COND_GREATER_OR_EQUAL};
        mirrored = kMirror[op];
      }
      if (mirrored != SQL_COND_LESS && mirrored != SQL_COND_LESS_OR_EQUAL) {
        leafRange.hasLow = true;
        leafRange.writtenLow = time;
        leafRange.low = mirrored == SQL_COND_GREATER ? time + 1 : time;
        if (mirrored == SQL_COND_GREATER && time == kLastTime) leafRange.empty = true;
      }
      if (mirrored != SQL_COND_GREATER && mirrored != SQL_COND_GREATER_OR_EQUAL) {
        leafRange.hasHigh = true;
        leafRange.writtenHigh = time;
        leafRange.high = mirrored == SQL_COND_LESS ? time - 1 : time;
        if (mirrored == SQL_COND_LESS && time == 0) leafRange.empty = true;
      }
    }
    tags.push_back(std::move(leafTags));
    ranges.push_back(leafRange);
  }

  if (tags.empty() || !tags.back().finite)
    return Refuse(message, corvane::WFormat(OLESTR("The condition does not name the tags whose samples are to be %s: "
                                                   "write TAGNAME = '...' (several joined by OR), combined by AND "
                                                   "with the other conditions."),
                                            Verb()));
  plan->tags = std::move(tags.back());
  plan->range = ranges.back();
  if (!plan->range.hasLow && !plan->range.hasHigh)
    return Refuse(message, corvane::WFormat(OLESTR("The condition does not bound TIMESTAMP: samples are never %s "
                                                   "without a written time range."),
                                            Verb()));
  return S_OK;
}

HRESULT CRawDataChange::CheckTags(IRawDataProvider* raw, const Plan& plan, std::vector<TagChanges>& tags,
                                  WString* message) {
  for (TagChanges& changes : tags) {
    const WString& name = changes.name;
    TagIdent* tag = nullptr;
    HRESULT hr = MakeTaskTagIdent(plan.catalog.c_str(), plan.schema.c_str(), name.c_str(), &tag);
    if (SUCCEEDED(hr)) hr = raw->GetTagInfo(tag, &changes.type);
    FreeTagIdent(tag);
    if (hr == HIST_E_TAG_NOT_FOUND || hr == E_INVALIDARG)
      return Refuse(message, corvane::WFormat(OLESTR("Tag '%s' does not exist: nothing was %s."),
                                              TagInMessage(name).c_str(), Verb()));
    if (FAILED(hr)) {
      *message = corvane::WFormat(OLESTR("The historian could not check tag '%s' (HR = %X): nothing was %s."),
                                  TagInMessage(name).c_str(), static_cast<unsigned>(hr), Verb());
      return hr;
    }
  }
  return S_OK;
}

HRESULT CRawDataChange::Collect(IRawDataProvider* raw, Plan& plan, TagChanges& changes, WString* message) {
  TagIdent* tag = nullptr;
  HRESULT hr = MakeTaskTagIdent(plan.catalog.c_str(), plan.schema.c_str(), changes.name.c_str(), &tag);
  if (FAILED(hr)) return hr;
  const FILETIME low = corvane::TicksToFileTime(plan.range.hasLow ? plan.range.low : 0);
  const FILETIME high = corvane::TicksToFileTime(plan.range.hasHigh ? plan.range.high : kLastTime);
  ProducedRecord record(4);
  void* point = nullptr;
  bool runOpen = false;
  do {
    HistoryValueList* list = nullptr;
    hr = raw->ReadRaw(tag, low, high, plan.pageSize, kRawReadIncludeBounds, &point, &list);
    if (SUCCEEDED(hr) && !list) hr = E_INVALIDARG;
    if (FAILED(hr)) {
      *message = corvane::WFormat(OLESTR("The historian could not read the samples of '%s' (HR = %X): nothing was %s."),
                                  TagInMessage(changes.name).c_str(), static_cast<unsigned>(hr), Verb());
      break;
    }
    for (ULONG i = 0; i < list->count && SUCCEEDED(hr); ++i) {
      HistoryValue& sample = list->values[i];
      const ULONG64 time = corvane::FileTimeToTicks(sample.timestamp);
      record[kTagField].SetText(changes.name.data(), changes.name.size());
      record[kTimeField].SetTime(sample.timestamp);
      VARIANT quality;
      V_VT(&quality) = VT_UI4;
      V_UI4(&quality) = sample.quality;
      record[kQualityField].Take(&quality);
      record[kValueField].Take(&sample.value);
      SQLTruth truth = SQLTruth::kTrue;
      if (plan.condition) {
        hr = plan.condition->Evaluate(record, &truth);
        if (FAILED(hr)) {
          *message = plan.condition->Message();
          break;
        }
      }
      if (truth != SQLTruth::kTrue) {
        runOpen = false;
        continue;
      }
      ++plan.matched;
      if (kind_ == Kind::kDelete) {
        if (runOpen)
          changes.runs.back().second = time;
        else
          changes.runs.emplace_back(time, time);
        runOpen = true;
        continue;
      }
      HistoryValue updated;
      VariantInit(&updated.value);
      updated.timestamp = sample.timestamp;
      updated.quality = sample.quality;
      SQLEvaluationResult result;
      if (plan.setValue) {
        hr = plan.setValue->Evaluate(record, &result);
        if (FAILED(hr)) *message = plan.setValue->Message();
        if (SUCCEEDED(hr) && result.kind == SQLEvaluationResult::kTime) {
          DATE date = 0;
          hr = corvane::FileTimeToDate(result.time, &date);
          V_VT(&updated.value) = VT_DATE;
          V_DATE(&updated.value) = date;
        } else if (SUCCEEDED(hr)) {
          updated.value = result.value;
          VariantInit(&result.value);
        }
        // Stored as the tag's type: a value that cannot be is refused before any change.
        if (SUCCEEDED(hr) && changes.type != VT_EMPTY && V_VT(&updated.value) != changes.type) {
          hr = VariantChangeType(&updated.value, &updated.value, 0, changes.type);
          if (FAILED(hr))
            *message = corvane::WFormat(OLESTR("The VALUE to set cannot be stored in tag '%s' (HR = %X): nothing was %s."),
                                        TagInMessage(changes.name).c_str(), static_cast<unsigned>(hr), Verb());
        }
      } else {
        hr = VariantCopy(&updated.value, &record[kValueField].Value);
      }
      if (SUCCEEDED(hr) && plan.setQuality) {
        hr = plan.setQuality->Evaluate(record, &result);
        if (FAILED(hr)) {
          *message = plan.setQuality->Message();
        } else {
          corvane::Variant word;
          hr = result.kind == SQLEvaluationResult::kValue ? VariantChangeType(word.Get(), &result.value, 0, VT_UI4)
                                                          : E_FAIL;
          if (SUCCEEDED(hr))
            updated.quality = V_UI4(word.Get());
          else
            *message = corvane::WFormat(
                OLESTR("The QUALITY to set must be a number from 0 to 4294967295 (HR = %X): nothing was %s."),
                static_cast<unsigned>(hr), Verb());
        }
      }
      if (FAILED(hr)) {
        VariantClear(&updated.value);
        break;
      }
      changes.updates.push_back(updated);
    }
    FreeHistoryValueList(list);
  } while (SUCCEEDED(hr) && point);
  if (point) raw->ReleaseContinuationPoint(&point);
  FreeTagIdent(tag);
  return hr;
}

HRESULT CRawDataChange::Apply(IRawDataProvider* raw, const Plan& plan, std::vector<TagChanges>& tags,
                              WString* message) {
  for (TagChanges& changes : tags) {
    if (changes.runs.empty() && changes.updates.empty()) continue;
    TagIdent* tag = nullptr;
    HRESULT hr = MakeTaskTagIdent(plan.catalog.c_str(), plan.schema.c_str(), changes.name.c_str(), &tag);
    for (const auto& [first, last] : changes.runs) {
      if (FAILED(hr)) break;
      hr = raw->DeleteValues(tag, corvane::TicksToFileTime(first), corvane::TicksToFileTime(last));
      if (SUCCEEDED(hr)) changes.changed = true;
    }
    for (const HistoryValue& sample : changes.updates) {
      if (FAILED(hr)) break;
      hr = raw->UpdateValue(tag, &sample);
      if (SUCCEEDED(hr)) changes.changed = true;
    }
    FreeTagIdent(tag);
    if (FAILED(hr)) {
      WString done;
      for (const TagChanges& t : tags)
        if (t.changed)
          done += (done.empty() ? WString() : WString(OLESTR(", "))) + OLESTR("'") + TagInMessage(t.name) + OLESTR("'");
      *message = corvane::WFormat(OLESTR("The historian failed while samples of '%s' were %s (HR = %X). %s"),
                                  TagInMessage(changes.name).c_str(), Verb(), static_cast<unsigned>(hr),
                                  done.empty() ? OLESTR("No samples were changed.")
                                               : (OLESTR("Samples of ") + done + OLESTR(" were changed.")).c_str());
      return hr;
    }
  }
  return S_OK;
}

HRESULT CRawDataChange::Run(ULONG64* changed, WString* message) {
  *changed = 0;
  try {
    Plan plan;
    const auto& from = statement_.FromItems();
    if (from.size() != 1 || from[0]->Kind() != SQL_SELECT_ITEM_TABLE) return E_INVALIDARG;
    plan.catalog = static_cast<const CSQLSelectItemTable&>(*from[0]).Catalog();
    plan.schema = static_cast<const CSQLSelectItemTable&>(*from[0]).Schema();
    plan.columns = &table_;
    const std::vector<ColumnRecord>& columns = plan.columns->Columns;

    HRESULT hr = CRowCondition::Create(statement_.Condition(), columns, plan.columns->Name, context_,
                                       GivenComparisons::kNone, &plan.condition, message);
    if (SUCCEEDED(hr)) hr = Analyse(&plan, message);
    if (FAILED(hr)) return hr;
    if (kind_ == Kind::kUpdate) {
      const auto& update = static_cast<const CSQLQueryInfoUPDATE&>(statement_);
      if (update.Columns().size() != update.Values().size()) return E_INVALIDARG;
      for (size_t i = 0; i < update.Columns().size(); ++i) {
        const bool value = IsColumnNamed(update.Columns()[i].get(), OLESTR("VALUE"));
        if (!value && !IsColumnNamed(update.Columns()[i].get(), OLESTR("QUALITY"))) {
          *message = OLESTR("UPDATE of RAWDATA sets VALUE and QUALITY only.");
          return E_INVALIDARG;
        }
        hr = CRowExpression::Create(update.Values()[i].get(), columns, plan.columns->Name, context_,
                                    value ? &plan.setValue : &plan.setQuality, message);
        if (FAILED(hr)) return hr;
      }
    }

    LONG pageSize = 0;
    hr = dataSource_->GetMaxRowsToReturn(&pageSize);
    if (FAILED(hr)) return hr;
    plan.pageSize = static_cast<ULONG>(pageSize);
    corvane::ComPtr<IRawDataProvider> holder;
    hr = dataSource_->GetRawDataProvider(holder.Put());
    if (FAILED(hr)) return hr;
    IRawDataProvider* raw = holder.Get();
    if (!raw) return CORVANE_E_MISSING_PARAMETER;
    std::vector<TagChanges> tags(plan.tags.names.size());
    for (size_t i = 0; i < tags.size(); ++i) tags[i].name = plan.tags.names[i];
    hr = CheckTags(raw, plan, tags, message);
    for (size_t i = 0; i < tags.size() && SUCCEEDED(hr) && !plan.range.empty; ++i)
      hr = Collect(raw, plan, tags[i], message);
    if (SUCCEEDED(hr)) hr = Apply(raw, plan, tags, message);
    if (SUCCEEDED(hr)) *changed = plan.matched;
    return FAILED(hr) ? hr : S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}
