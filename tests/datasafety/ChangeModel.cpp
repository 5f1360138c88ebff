#include "tests/datasafety/ChangeModel.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <string_view>
#include <sstream>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/TimeConversion.h"
#include "platform/WideString.h"

namespace corvane::test {
namespace {

enum class Truth { kFalse, kTrue, kUnknown };

struct Val {
  enum Kind { kNull, kNumber, kText, kTime, kOpaque } kind = kNull;
  double number = 0;
  std::string_view text;  // the sample's, or one the evaluator keeps for the statement
  ULONG64 time = 0;
  bool constant = false;  // written in the statement: may be read as a number or a time
  // A written text read as a number and as a time, worked out once per statement: the
  // model compares it with every sample of the plant.
  bool isNumber = false, isTime = false;
  double asNumber = 0;
  ULONG64 asTime = 0;
};

int CompareIgnoringCase(std::string_view a, std::string_view b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    const int x = std::toupper(static_cast<unsigned char>(a[i])), y = std::toupper(static_cast<unsigned char>(b[i]));
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool TextAsNumber(const std::string& s, double* n) {
  if (s.empty() || s.find_first_not_of(" +-0123456789.eE") != std::string::npos) return false;
  char* end = nullptr;
  *n = std::strtod(s.c_str(), &end);
  while (end && *end == ' ') ++end;
  return end && *end == 0 && s.find_first_not_of(' ') != std::string::npos;
}

// "YYYY-MM-DD", optionally " HH:MM:SS" and ".fff".
bool TextAsTime(const std::string& s, ULONG64* t) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, sec = 0, ms = 0, used = 0;
  if (std::sscanf(s.c_str(), "%4d-%2d-%2d%n", &y, &mo, &d, &used) != 3) return false;
  if (used < static_cast<int>(s.size())) {
    int more = 0;
    if (std::sscanf(s.c_str() + used, " %2d:%2d:%2d%n", &h, &mi, &sec, &more) != 3) return false;
    used += more;
    if (used < static_cast<int>(s.size())) {
      char digits[4] = {};
      if (std::sscanf(s.c_str() + used, ".%3[0-9]%n", digits, &more) != 1) return false;
      used += more;
      ms = std::atoi(digits) * (digits[1] ? (digits[2] ? 1 : 10) : 100);
    }
  }
  if (used != static_cast<int>(s.size())) return false;
  return CalendarToTicks(y, mo, d, h, mi, sec, static_cast<ULONG64>(ms) * 10000, t);
}

// One per statement: written values are read once, the rest per sample.
class Evaluator {
 public:
  explicit Evaluator(const std::vector<std::string>& parameters) : parameters_(parameters) {}
  bool modelable = true;

  Truth Matches(const CSQLConditionNode* condition, const ModelSample& sample) {
    sample_ = &sample;
    return Condition(condition);
  }

  Truth Condition(const CSQLConditionNode* node) {
    switch (node->Operator()) {
      case SQL_COND_AND: return And(Condition(node->Left()), Condition(node->Right()));
      case SQL_COND_OR: return Or(Condition(node->Left()), Condition(node->Right()));
      case SQL_COND_NOT: {
        const Truth t = Condition(node->Left());
        return t == Truth::kUnknown ? t : (t == Truth::kTrue ? Truth::kFalse : Truth::kTrue);
      }
      default:
        if (!node->FirstOperand() || !node->SecondOperand()) {
          modelable = false;
          return Truth::kUnknown;
        }
        return Compare(node->Operator(), Value(node->FirstOperand()), Value(node->SecondOperand()));
    }
  }

  Val Value(const CSQLCalcItem* item) {
    Val v;
    switch (item->Kind()) {
      case SQL_CALC_TABLE_COLUMN: {
        if (!sample_) {  // a SET value that reads the row
          modelable = false;
          return v;
        }
        const ModelSample& sample = *sample_;
        const Column column = ColumnOf(item);
        if (column == Column::kTagName) {
          v.kind = Val::kText;
          v.text = sample.tag;
        } else if (column == Column::kTimestamp) {
          v.kind = Val::kTime;
          v.time = sample.time;
        } else if (column == Column::kQuality) {
          v.kind = Val::kNumber;
          v.number = sample.quality;
        } else if (column == Column::kValue) {
          const VARTYPE t = sample.type;
          if (t == VT_DATE || t == VT_CY || t == VT_EMPTY || t == VT_NULL) modelable = false;
          v.kind = sample.isText ? Val::kText : Val::kNumber;
          v.number = sample.number;
          v.text = sample.text;
        } else {
          modelable = false;
        }
        return v;
      }
      case SQL_CALC_CONST:
      case SQL_CALC_PARAMETER: {
        auto cached = written_.find(item);
        if (cached != written_.end()) return cached->second;
        const int n = item->Kind() == SQL_CALC_PARAMETER ? static_cast<const CSQLCalcItemParameter*>(item)->Number() : 0;
        if (item->Kind() == SQL_CALC_CONST) {
          v = Variant(static_cast<const CSQLCalcItemConst*>(item)->Value());
        } else if (n >= 1 && static_cast<size_t>(n) <= parameters_.size()) {
          v.kind = Val::kText;
          v.text = parameters_[n - 1];
        } else {
          modelable = false;
        }
        v.constant = true;
        if (v.kind == Val::kText) {
          v.isNumber = TextAsNumber(std::string(v.text), &v.asNumber);
          v.isTime = TextAsTime(std::string(v.text), &v.asTime);
        }
        written_[item] = v;
        return v;
      }
      default:
        return Function(*static_cast<const CSQLCalcItemFunction*>(item));
    }
  }

 private:
  enum class Column { kTagName, kTimestamp, kQuality, kValue, kOther };
  // The column an item names, looked up once: the model reads it for every sample.
  Column ColumnOf(const CSQLCalcItem* item) {
    auto known = columns_.find(item);
    if (known != columns_.end()) return known->second;
    const WString& name = static_cast<const CSQLCalcItemTableColumn*>(item)->ColumnName();
    Column column = Column::kOther;
    if (WIEquals(name, OLESTR("TAGNAME"))) column = Column::kTagName;
    else if (WIEquals(name, OLESTR("TIMESTAMP"))) column = Column::kTimestamp;
    else if (WIEquals(name, OLESTR("QUALITY"))) column = Column::kQuality;
    else if (WIEquals(name, OLESTR("VALUE"))) column = Column::kValue;
    return columns_[item] = column;
  }

  static Truth And(Truth a, Truth b) {
    if (a == Truth::kFalse || b == Truth::kFalse) return Truth::kFalse;
    return a == Truth::kTrue && b == Truth::kTrue ? Truth::kTrue : Truth::kUnknown;
  }
  static Truth Or(Truth a, Truth b) {
    if (a == Truth::kTrue || b == Truth::kTrue) return Truth::kTrue;
    return a == Truth::kFalse && b == Truth::kFalse ? Truth::kFalse : Truth::kUnknown;
  }

  Val Variant(const VARIANT& value) {
    Val v;
    VARIANT r8{};
    if (V_VT(&value) == VT_BSTR) {
      v.kind = Val::kText;
      v.text = owned_.emplace_back(
          ToUtf8(WStringView(value.bstrVal ? value.bstrVal : OLESTR(""), SysStringLen(value.bstrVal))));
    } else if (V_VT(&value) == VT_I8 || V_VT(&value) == VT_I4 || V_VT(&value) == VT_R8) {
      VariantChangeType(&r8, const_cast<VARIANT*>(&value), 0, VT_R8);
      v.kind = Val::kNumber;
      v.number = V_R8(&r8);
    } else {
      modelable = false;
    }
    return v;
  }

  // IsGood, BitMask, and DATEADD by seconds, minutes, hours or days of a written time
  // (an unknown unit gives the zero time); nothing else.
  Val Function(const CSQLCalcItemFunction& call) {
    Val v;
    const WString& name = call.Name();
    std::vector<Val> args;
    v.constant = true;  // a function of written values only
    for (const auto& a : call.Arguments()) {
      args.push_back(Value(a.get()));
      v.constant = v.constant && args.back().constant;
    }
    // Numbers become 32-bit words or counts: anything outside that range is not modelled.
    for (const Val& a : args)
      if (a.kind == Val::kNumber && !(a.number >= -2147483648.0 && a.number <= 4294967295.0)) modelable = false;
    if (!modelable) return v;
    if (WIEquals(name, OLESTR("IsGood")) && args.size() == 1 && args[0].kind == Val::kNumber && args[0].number >= 0) {
      v.kind = Val::kNumber;
      v.number = (static_cast<DWORD>(args[0].number) & 0xC0000000u) == 0 ? 1 : 0;
    } else if (WIEquals(name, OLESTR("BitMask")) && args.size() == 3 && args[0].kind == Val::kText && args[1].kind == Val::kNumber &&
               args[2].kind == Val::kNumber && args[1].number >= 0 && args[2].number >= 0) {
      const DWORD mask = static_cast<DWORD>(args[1].number), x = static_cast<DWORD>(args[2].number);
      v.kind = Val::kNumber;
      if (args[0].text == "&") v.number = x & mask;
      else if (args[0].text == "|") v.number = x | mask;
      else if (args[0].text == "^") v.number = x ^ mask;
      else modelable = false;
    } else if (WIEquals(name, OLESTR("DATEADD")) && args.size() == 3 && args[0].kind == Val::kText && args[1].kind == Val::kNumber &&
               args[1].number <= 2147483647.0 && args[2].kind == Val::kText && TextAsTime(std::string(args[2].text), &v.time)) {
      static const struct {
        const char* unit;
        ULONG64 ticks;
      } kUnits[] = {{"SS", 10000000ull}, {"MI", 600000000ull}, {"HH", 36000000000ull}, {"DD", 864000000000ull}};
      v.kind = Val::kTime;
      const std::string_view unit = args[0].text;
      bool known = false;
      for (const auto& u : kUnits)
        if (CompareIgnoringCase(unit, u.unit) == 0) {
          const double moved = static_cast<double>(v.time) + args[1].number * static_cast<double>(u.ticks);
          if (moved < 1.0 || moved > 9.0e18) modelable = false;  // the provider refuses what leaves the range
          else v.time += static_cast<ULONG64>(static_cast<LONG64>(args[1].number) * static_cast<LONG64>(u.ticks));
          known = true;
        }
      for (const char* other : {"MS", "WK", "MM", "YY"})
        if (!known && CompareIgnoringCase(unit, other) == 0) modelable = false;
      if (!known) v.time = 0;
    } else {
      modelable = false;
    }
    return v;
  }

  // A written text reads as a number or a time where the other side is one.
  static void Adapt(Val& a, const Val& b) {
    if (!a.constant || a.kind != Val::kText) return;
    if (b.kind == Val::kNumber) {
      a.kind = a.isNumber ? Val::kNumber : Val::kNull;
      a.number = a.asNumber;
    } else if (b.kind == Val::kTime) {
      a.kind = a.isTime ? Val::kTime : Val::kNull;
      a.time = a.asTime;
    }
  }

  Truth Compare(int op, Val a, Val b) {
    if (a.constant && b.constant) modelable = false;  // folded by the provider; not worth a second copy here
    Adapt(a, b);
    Adapt(b, a);
    int order = 0;
    if (a.kind != b.kind || a.kind == Val::kNull || a.kind == Val::kOpaque) return Truth::kUnknown;
    if (a.kind == Val::kNumber) order = a.number < b.number ? -1 : (a.number > b.number ? 1 : 0);
    if (a.kind == Val::kTime) order = a.time < b.time ? -1 : (a.time > b.time ? 1 : 0);
    if (a.kind == Val::kText) order = CompareIgnoringCase(a.text, b.text);
    bool holds = false;
    switch (op) {
      case SQL_COND_EQUAL: holds = order == 0; break;
      case SQL_COND_GREATER: holds = order > 0; break;
      case SQL_COND_LESS: holds = order < 0; break;
      case SQL_COND_GREATER_OR_EQUAL: holds = order >= 0; break;
      case SQL_COND_LESS_OR_EQUAL: holds = order <= 0; break;
      default: holds = order != 0; break;
    }
    return holds ? Truth::kTrue : Truth::kFalse;
  }

  const std::vector<std::string>& parameters_;
  const ModelSample* sample_ = nullptr;
  std::map<const CSQLCalcItem*, Val> written_;  // constants and `?` values, read once
  std::map<const CSQLCalcItem*, Column> columns_;
  std::deque<std::string> owned_;  // the texts of written values
};

}  // namespace

ModelStore ReadStore(IRawDataProvider* raw) {
  ModelStore store;
  ULONG count = 0;
  TagRecord* tags = nullptr;
  BOOL truncated = FALSE;
  if (FAILED(raw->BrowseTags(nullptr, nullptr, &count, &tags, &truncated))) return store;
  for (ULONG i = 0; i < count; ++i) {
    const std::string name = ToUtf8(tags[i].name);
    OLECHAR part[] = OLESTR("x");
    TagIdent tag{part, part, tags[i].name};
    void* point = nullptr;
    HistoryValueList* list = nullptr;
    if (FAILED(raw->ReadRaw(&tag, U64ToFileTime(0), U64ToFileTime(0x7FFFFFFFFFFFFFFFull), 0, kRawReadIncludeBounds,
                            &point, &list)))
      continue;
    for (ULONG k = 0; list && k < list->count; ++k) {
      const HistoryValue& h = list->values[k];
      ModelSample s;
      s.tag = name;
      s.time = FileTimeToU64(h.timestamp);
      s.quality = h.quality;
      s.type = V_VT(&h.value);
      s.isText = s.type == VT_BSTR;
      if (s.type == VT_BOOL) {
        s.number = h.value.boolVal ? 1 : 0;
      } else if (s.isText) {
        s.text = ToUtf8(WStringView(h.value.bstrVal ? h.value.bstrVal : OLESTR(""), SysStringLen(h.value.bstrVal)));
      } else {
        VARIANT r8{};
        if (SUCCEEDED(VariantChangeType(&r8, const_cast<VARIANT*>(&h.value), 0, VT_R8))) s.number = V_R8(&r8);
      }
      store.push_back(s);
    }
    FreeHistoryValueList(list);
    if (point) raw->ReleaseContinuationPoint(&point);
  }
  FreeTagRecords(tags, count);
  return store;
}

std::string Describe(const ModelStore& store) {
  std::ostringstream out;
  for (const ModelSample& s : store)
    out << s.tag << " " << s.time << " " << (s.isText ? s.text : std::to_string(s.number)) << " q" << s.quality
        << "\n";
  return out.str();
}

bool ApplyChange(const CSQLQueryInfo& statement, const std::vector<std::string>& parameters, const ModelStore& before,
                 ModelStore* after) {
  const bool update = statement.StatementKind() == SQL_STATEMENT_UPDATE;
  bool setValue = false, setQuality = false;
  ModelSample written;
  if (update) {
    const auto& u = static_cast<const CSQLQueryInfoUPDATE&>(statement);
    for (size_t i = 0; i < u.Columns().size(); ++i) {
      Evaluator constant(parameters);
      const Val v = constant.Value(u.Values()[i].get());
      const WString& column = static_cast<const CSQLCalcItemTableColumn&>(*u.Columns()[i]).ColumnName();
      if (!constant.modelable || (v.kind != Val::kNumber && v.kind != Val::kText)) return false;
      if (WIEquals(column, OLESTR("QUALITY")) && v.kind == Val::kNumber) {
        if (!(v.number >= 0 && v.number <= 4294967295.0) || v.number != static_cast<double>(static_cast<LONG64>(v.number)))
          return false;
        setQuality = true;
        written.quality = static_cast<DWORD>(v.number);
      } else if (WIEquals(column, OLESTR("VALUE"))) {
        setValue = true;
        written.isText = v.kind == Val::kText;
        written.number = v.number;
        written.text = std::string(v.text);
      } else {
        return false;
      }
    }
  }
  after->clear();
  after->reserve(before.size());
  Evaluator evaluator(parameters);
  for (const ModelSample& s : before) {
    const bool match = statement.Condition() && evaluator.Matches(statement.Condition(), s) == Truth::kTrue;
    if (!evaluator.modelable) return false;
    if (!match) {
      after->push_back(s);
    } else if (update) {
      ModelSample changed = s;
      if (setValue) {
        // The historian converts to the tag's type: only what stays as written is modelled.
        if (written.isText ? !s.isText : (s.type != VT_R8 && s.type != VT_R4)) return false;
        changed.number = written.number;
        changed.text = written.text;
      }
      if (setQuality) changed.quality = written.quality;
      after->push_back(changed);
    }
  }
  return true;
}

}  // namespace corvane::test
