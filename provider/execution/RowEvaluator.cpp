#include "provider/execution/RowEvaluator.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLFunction.h"
#include "SQLParser/TimeConversion.h"
#include "base/Variant.h"

using corvane::WString;
using corvane::WStringView;

namespace {

constexpr size_t kNoField = static_cast<size_t>(-1);

const CSQLCalcItemTableColumn* AsColumn(const CSQLCalcItem* item) {
  return item && item->Kind() == SQL_CALC_TABLE_COLUMN ? static_cast<const CSQLCalcItemTableColumn*>(item) : nullptr;
}

size_t FieldOf(const std::vector<ColumnRecord>& columns, const WString& name) {
  for (size_t i = 0; i < columns.size(); ++i)
    if (corvane::WIEquals(columns[i].ColumnName, name)) return i;
  return kNoField;
}

HRESULT UnknownColumn(const WString& name, WStringView source, WString* message) {
  *message = corvane::WFormat(OLESTR("Column '%s' is not a column of %s."), name.c_str(), WString(source).c_str());
  return E_FAIL;
}

RowValue CellValue(const StoreValue& cell) {
  RowValue v;
  switch (cell.Kind) {
    case StoreValue::kTime:
      v.kind = RowValue::kTime;
      v.time = corvane::FileTimeToTicks(cell.Time);
      return v;
    case StoreValue::kText:
      v.kind = RowValue::kText;
      v.text = cell.Text;
      v.length = cell.TextLength;
      return v;
    case StoreValue::kVariant:
      return RowValueOf(cell.Value);
    default:
      return v;
  }
}

template <typename T>
int Order(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

bool IsNumber(const RowValue& v) { return v.kind == RowValue::kInteger || v.kind == RowValue::kReal; }

// A whole text that reads as a number: optional sign, digits, fraction, exponent.
bool ParseNumber(WStringView text, RowValue* number) {
  std::string ascii;
  for (OLECHAR c : text) {
    if (c > 0x7F) return false;
    ascii.push_back(static_cast<char>(c));
  }
  const size_t first = ascii.find_first_not_of(' ');
  if (first == std::string::npos) return false;
  ascii = ascii.substr(first, ascii.find_last_not_of(' ') - first + 1);
  if (ascii.find_first_not_of("+-0123456789.eE") != std::string::npos) return false;
  char* end = nullptr;
  if (ascii.find_first_of(".eE") == std::string::npos) {
    errno = 0;
    const long long integer = std::strtoll(ascii.c_str(), &end, 10);
    if (errno == 0 && end && *end == 0) {
      number->kind = RowValue::kInteger;
      number->integer = integer;
      return true;
    }
  }
  const double real = std::strtod(ascii.c_str(), &end);
  if (!end || *end != 0 || !std::isfinite(real)) return false;
  number->kind = RowValue::kReal;
  number->real = real;
  return true;
}

// Truth of AND, OR and NOT in three-valued logic.
SQLTruth And(SQLTruth a, SQLTruth b) {
  if (a == SQLTruth::kFalse || b == SQLTruth::kFalse) return SQLTruth::kFalse;
  return a == SQLTruth::kTrue && b == SQLTruth::kTrue ? SQLTruth::kTrue : SQLTruth::kUnknown;
}
SQLTruth Or(SQLTruth a, SQLTruth b) {
  if (a == SQLTruth::kTrue || b == SQLTruth::kTrue) return SQLTruth::kTrue;
  return a == SQLTruth::kFalse && b == SQLTruth::kFalse ? SQLTruth::kFalse : SQLTruth::kUnknown;
}
SQLTruth Not(SQLTruth a) {
  return a == SQLTruth::kUnknown ? a : (a == SQLTruth::kTrue ? SQLTruth::kFalse : SQLTruth::kTrue);
}

HRESULT FillSlot(const StoreValue* cell, CSQLCalcItemConst* slot) {
  if (cell && cell->Kind == StoreValue::kTime) {
    slot->SetTime(corvane::FileTimeToTicks(cell->Time));
    return S_OK;
  }
  if (cell && cell->Kind == StoreValue::kText) return slot->SetString(WStringView(cell->Text, cell->TextLength));
  if (cell && cell->Kind == StoreValue::kVariant) return slot->SetValue(cell->Value);
  VARIANT null;
  VariantInit(&null);
  V_VT(&null) = VT_NULL;
  return slot->SetValue(null);
}

}  // namespace

bool IsColumnNamed(const CSQLCalcItem* item, const OLECHAR* name) {
  const CSQLCalcItemTableColumn* column = AsColumn(item);
  return column && corvane::WIEquals(column->ColumnName(), name);
}

bool ComparedText(const CSQLCalcItem* item, const SQLBindContext& context, WString* text) {
  if (!item) return false;
  if (item->Kind() == SQL_CALC_CONST) {
    const auto& c = static_cast<const CSQLCalcItemConst&>(*item);
    if (c.IsTime() || !c.HasValue() || V_VT(&c.Value()) != VT_BSTR) return false;
    const BSTR b = V_BSTR(&c.Value());
    text->assign(b ? b : OLESTR(""), b ? SysStringLen(b) : 0);
    return true;
  }
  if (item->Kind() == SQL_CALC_PARAMETER) {
    const int n = static_cast<const CSQLCalcItemParameter&>(*item).Number();
    if (n < 1 || static_cast<size_t>(n) > context.parameterCount || !context.parameters) return false;
    corvane::Variant v;
    if (FAILED(VariantChangeType(v.Get(), const_cast<VARIANT*>(&context.parameters[n - 1]), 0, VT_BSTR))) return false;
    const BSTR b = V_BSTR(v.Get());
    text->assign(b ? b : OLESTR(""), b ? SysStringLen(b) : 0);
    return true;
  }
  return false;
}

RowValue RowValueOf(const VARIANT& value) {
  RowValue v;
  const VARIANT* p = &value;
  if (V_VT(p) == (VT_VARIANT | VT_BYREF) && p->pvarVal) p = p->pvarVal;
  switch (V_VT(p)) {
    case VT_I1: v.kind = RowValue::kInteger; v.integer = p->cVal; break;
    case VT_I2: v.kind = RowValue::kInteger; v.integer = p->iVal; break;
    case VT_I4: v.kind = RowValue::kInteger; v.integer = p->lVal; break;
    case VT_INT: v.kind = RowValue::kInteger; v.integer = p->intVal; break;
    case VT_I8: v.kind = RowValue::kInteger; v.integer = p->llVal; break;
    case VT_UI1: v.kind = RowValue::kInteger; v.integer = p->bVal; break;
    case VT_UI2: v.kind = RowValue::kInteger; v.integer = p->uiVal; break;
    case VT_UI4: v.kind = RowValue::kInteger; v.integer = p->ulVal; break;
    case VT_UINT: v.kind = RowValue::kInteger; v.integer = p->uintVal; break;
    case VT_BOOL: v.kind = RowValue::kInteger; v.integer = p->boolVal ? 1 : 0; break;
    case VT_UI8:
      if (p->ullVal <= static_cast<ULONG64>(INT64_MAX)) {
        v.kind = RowValue::kInteger;
        v.integer = static_cast<LONG64>(p->ullVal);
      } else {
        v.kind = RowValue::kReal;
        v.real = static_cast<double>(p->ullVal);
      }
      break;
    case VT_R4: v.kind = RowValue::kReal; v.real = p->fltVal; break;
    case VT_R8: v.kind = RowValue::kReal; v.real = p->dblVal; break;
    case VT_CY: v.kind = RowValue::kReal; v.real = static_cast<double>(p->cyVal.int64) / 10000.0; break;
    case VT_DATE:
      if (SUCCEEDED(corvane::DateToFileTime(p->date, &v.time))) v.kind = RowValue::kTime;
      break;
    case VT_BSTR:
      v.kind = RowValue::kText;
      v.text = p->bstrVal ? p->bstrVal : OLESTR("");
      v.length = p->bstrVal ? SysStringLen(p->bstrVal) : 0;
      break;
    default:
      break;  // empty, null and anything without an order
  }
  if (v.kind == RowValue::kReal && std::isnan(v.real)) v.kind = RowValue::kNull;
  return v;
}

SQLTruth CompareRowValues(int op, const RowValue& left, const RowValue& right) {
  int order = 0;
  if (left.kind == RowValue::kInteger && right.kind == RowValue::kInteger) {
    order = Order(left.integer, right.integer);
  } else if (IsNumber(left) && IsNumber(right)) {
    const double a = left.kind == RowValue::kInteger ? static_cast<double>(left.integer) : left.real;
    const double b = right.kind == RowValue::kInteger ? static_cast<double>(right.integer) : right.real;
    order = Order(a, b);
  } else if (left.kind == RowValue::kText && right.kind == RowValue::kText) {
    order = corvane::WICmp(WStringView(left.text, left.length), WStringView(right.text, right.length));
    order = order < 0 ? -1 : (order > 0 ? 1 : 0);
  } else if (left.kind == RowValue::kTime && right.kind == RowValue::kTime) {
    order = Order(left.time, right.time);
  } else {
    return SQLTruth::kUnknown;  // a null, or two values of kinds that have no common order
  }
  bool holds = false;
  switch (op) {
    case SQL_COND_EQUAL: holds = order == 0; break;
    case SQL_COND_GREATER: holds = order > 0; break;
    case SQL_COND_LESS: holds = order < 0; break;
    case SQL_COND_GREATER_OR_EQUAL: holds = order >= 0; break;
    case SQL_COND_LESS_OR_EQUAL: holds = order <= 0; break;
    case SQL_COND_NOT_EQUAL: holds = order != 0; break;
    default: return SQLTruth::kUnknown;
  }
  return holds ? SQLTruth::kTrue : SQLTruth::kFalse;
}

// ---- CRowExpression ------------------------------------------------------------------

CRowExpression::~CRowExpression() = default;

HRESULT CRowExpression::Create(const CSQLCalcItem* expression, const std::vector<ColumnRecord>& columns,
                               WStringView source, const SQLBindContext& context,
                               std::unique_ptr<CRowExpression>* bound, WString* message) {
  if (!expression || !bound || !message) return E_INVALIDARG;
  try {
    std::unique_ptr<CRowExpression> made(new CRowExpression());
    HRESULT hr = Bind(expression, context, &made->tree_, message);
    if (FAILED(hr)) return hr;
    // Each column reference is replaced by a constant that each record refills.
    std::vector<std::unique_ptr<CSQLCalcItem>*> pending{&made->tree_};
    while (!pending.empty()) {
      std::unique_ptr<CSQLCalcItem>& item = *pending.back();
      pending.pop_back();
      if (const CSQLCalcItemTableColumn* column = AsColumn(item.get())) {
        std::unique_ptr<CSQLCalcItemConst> slot(new CSQLCalcItemConst());
        if (column->ColumnName() == OLESTR("*")) {
          slot->SetInteger(1);  // COUNT(*) counts rows
        } else {
          const size_t field = FieldOf(columns, column->ColumnName());
          if (field == kNoField) return UnknownColumn(column->ColumnName(), source, message);
          made->slots_.emplace_back(slot.get(), field);
        }
        item = std::move(slot);
      } else if (item && item->Kind() == SQL_CALC_FUNCTION) {
        auto* function = static_cast<CSQLFunction*>(item.get());
        if (function->IsAggregate()) {
          *message = corvane::WFormat(OLESTR("The aggregate %s cannot be used here."), function->FunctionName());
          return E_FAIL;
        }
        made->functions_.push_back(function);
        for (auto& argument : function->MutableArguments()) pending.push_back(&argument);
      }
    }
    // Found outermost first; evaluated innermost first, so that every function reads
    // the results its arguments have for the same record.
    std::reverse(made->functions_.begin(), made->functions_.end());
    *bound = std::move(made);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CRowExpression::Evaluate(const ProducedRecord& record, SQLEvaluationResult* result) {
  for (const auto& [slot, field] : slots_) {
    const HRESULT hr = FillSlot(field < record.size() ? &record[field] : nullptr, slot);
    if (FAILED(hr)) return hr;
  }
  for (CSQLFunction* function : functions_) {
    const HRESULT hr = function->Evaluate();
    if (FAILED(hr)) {
      message_ = function->FailureMessage();
      if (message_.empty())
        message_ = corvane::WFormat(OLESTR("SQL function %s calculation error (HR = %X)."), function->FunctionName(),
                                    static_cast<unsigned>(hr));
      return hr;
    }
  }
  if (!functions_.empty()) return functions_.back()->CopyResult(result);
  return ::Evaluate(tree_.get(), result);
}

// ---- CRowCondition -----------------------------------------------------------------------

// A constant operand, with the other readings of a text: as a number and as a time.
struct CRowCondition::Constant {
  Constant() { VariantInit(&held); }
  ~Constant() { VariantClear(&held); }
  Constant(const Constant&) = delete;
  Constant& operator=(const Constant&) = delete;

  HRESULT Take(SQLEvaluationResult& result) {
    if (result.kind == SQLEvaluationResult::kTime) {
      value.kind = RowValue::kTime;
      value.time = result.time;
      return S_OK;
    }
    if (result.kind != SQLEvaluationResult::kValue) return S_OK;  // null
    held = result.value;  // the text of `value` points into it
    VariantInit(&result.value);
    value = RowValueOf(held);
    if (value.kind == RowValue::kText) {
      const WStringView text(value.text, value.length);
      hasNumber = ParseNumber(text, &number);
      hasTime = SUCCEEDED(corvane::TextToFileTime(text, &time.time));
      time.kind = RowValue::kTime;
    }
    return S_OK;
  }
  // The reading that compares with a value of `kind`.
  const RowValue& As(RowValue::Kind kind) const {
    if (value.kind == RowValue::kText) {
      if ((kind == RowValue::kInteger || kind == RowValue::kReal) && hasNumber) return number;
      if (kind == RowValue::kTime && hasTime) return time;
    }
    return value;
  }

  VARIANT held;
  RowValue value;
  bool hasNumber = false;
  RowValue number;
  bool hasTime = false;
  RowValue time;
};

class CRowCondition::Builder {
 public:
  Builder(CRowCondition& target, const std::vector<ColumnRecord>& columns, WStringView source,
          const SQLBindContext& context, GivenComparisons given, WString* message)
      : target_(target), columns_(columns), source_(source), context_(context), given_(given), message_(message) {}

  HRESULT Build(const CSQLConditionNode* root) {
    // Post-order without recursion: conditions are up to a thousand nodes deep.
    std::vector<std::pair<const CSQLConditionNode*, bool>> pending{{root, false}};
    while (!pending.empty()) {
      auto [node, childrenDone] = pending.back();
      pending.pop_back();
      const int op = node->Operator();
      const bool logical = op == SQL_COND_AND || op == SQL_COND_OR || op == SQL_COND_NOT;
      if (logical && !childrenDone) {
        if (!node->Left() || (op != SQL_COND_NOT && !node->Right())) return Unevaluable();
        pending.emplace_back(node, true);
        if (op != SQL_COND_NOT) pending.emplace_back(node->Right(), false);
        pending.emplace_back(node->Left(), false);
        continue;
      }
      HRESULT hr = op == SQL_COND_AND   ? Combine(Step::kAnd)
                   : op == SQL_COND_OR  ? Combine(Step::kOr)
                   : op == SQL_COND_NOT ? Negate()
                                        : Comparison(*node);
      if (FAILED(hr)) return hr;
    }
    return S_OK;
  }

 private:
  // Where each operand's steps start in the program, and its truth when it is constant.
  struct Segment {
    size_t start;
    bool constant;
    SQLTruth truth;
  };

  HRESULT Unevaluable() {
    *message_ = OLESTR("The WHERE clause cannot be evaluated: each comparison needs a value on both sides.");
    return E_FAIL;
  }

  void PushConstant(SQLTruth truth) {
    Step step;
    step.op = Step::kConstantTruth;
    step.truth = truth;
    segments_.push_back({target_.program_.size(), true, truth});
    target_.program_.push_back(step);
  }

  HRESULT Negate() {
    Segment& top = segments_.back();
    if (top.constant) {
      top.truth = Not(top.truth);
      target_.program_[top.start].truth = top.truth;
      return S_OK;
    }
    Step step;
    step.op = Step::kNot;
    target_.program_.push_back(step);
    return S_OK;
  }

  // A constant side decides an AND or OR, or drops out of it, or (unknown) stays.
  HRESULT Combine(Step::Op op) {
    const Segment right = segments_.back();
    segments_.pop_back();
    const Segment left = segments_.back();
    segments_.pop_back();
    auto& program = target_.program_;
    const SQLTruth absorbing = op == Step::kAnd ? SQLTruth::kFalse : SQLTruth::kTrue;
    const SQLTruth neutral = op == Step::kAnd ? SQLTruth::kTrue : SQLTruth::kFalse;
    if (left.constant && right.constant) {
      program.resize(left.start);
      PushConstant(op == Step::kAnd ? And(left.truth, right.truth) : Or(left.truth, right.truth));
    } else if ((left.constant && left.truth == absorbing) || (right.constant && right.truth == absorbing)) {
      program.resize(left.start);
      PushConstant(absorbing);
    } else if (left.constant && left.truth == neutral) {
      program.erase(program.begin() + static_cast<std::ptrdiff_t>(left.start));
      segments_.push_back({left.start, false, SQLTruth::kUnknown});
    } else if (right.constant && right.truth == neutral) {
      program.resize(right.start);
      segments_.push_back({left.start, false, SQLTruth::kUnknown});
    } else {
      Step step;
      step.op = op;
      program.push_back(step);
      segments_.push_back({left.start, false, SQLTruth::kUnknown});
    }
    return S_OK;
  }

  bool Given(const CSQLConditionNode& node) const {
    const CSQLCalcItem* first = node.FirstOperand();
    const CSQLCalcItem* second = node.SecondOperand();
    if (given_ == GivenComparisons::kRawDataRead) {
      for (const CSQLCalcItem* item : {first, second})
        if (IsColumnNamed(item, OLESTR("TAGNAME")) || IsColumnNamed(item, OLESTR("TIMESTAMP"))) return true;
    } else if (given_ == GivenComparisons::kTagBrowse) {
      WString text;
      for (const OLECHAR* name : {OLESTR("TAGNAME"), OLESTR("DESCRIPTION")}) {
        if (IsColumnNamed(first, name) && ComparedText(second, context_, &text)) return true;
        if (IsColumnNamed(second, name) && ComparedText(first, context_, &text)) return true;
      }
    }
    return false;
  }

  HRESULT Comparison(const CSQLConditionNode& node) {
    const int op = node.Operator();
    if (op < SQL_COND_EQUAL || op > SQL_COND_NOT_EQUAL || !node.FirstOperand() || !node.SecondOperand() ||
        node.Left() || node.Right())
      return Unevaluable();
    if (Given(node)) {
      PushConstant(SQLTruth::kTrue);
      return S_OK;
    }
    Step step;
    step.comparison = op;
    HRESULT hr = CompileOperand(node.FirstOperand(), &step.left);
    if (SUCCEEDED(hr)) hr = CompileOperand(node.SecondOperand(), &step.right);
    if (FAILED(hr)) return hr;
    if (step.left.kind == Operand::kConstant && step.right.kind == Operand::kConstant) {
      const Constant& a = *target_.constants_[step.left.index];
      const Constant& b = *target_.constants_[step.right.index];
      PushConstant(CompareRowValues(op, a.As(b.value.kind), b.As(a.value.kind)));
      return S_OK;
    }
    segments_.push_back({target_.program_.size(), false, SQLTruth::kUnknown});
    target_.program_.push_back(step);
    return S_OK;
  }

  HRESULT CompileOperand(const CSQLCalcItem* item, Operand* operand) {
    if (const CSQLCalcItemTableColumn* column = AsColumn(item)) {
      const size_t field = FieldOf(columns_, column->ColumnName());
      if (field == kNoField) return UnknownColumn(column->ColumnName(), source_, message_);
      operand->kind = Operand::kField;
      operand->index = field;
      return S_OK;
    }
    std::unique_ptr<CRowExpression> expression;
    HRESULT hr = CRowExpression::Create(item, columns_, source_, context_, &expression, message_);
    if (FAILED(hr)) return hr;
    if (expression->ReadsColumns()) {
      operand->kind = Operand::kExpression;
      operand->index = target_.expressions_.size();
      target_.expressions_.push_back(std::move(expression));
      target_.results_.push_back(std::make_unique<SQLEvaluationResult>());
      return S_OK;
    }
    // The same for every record: evaluated now, once.
    SQLEvaluationResult result;
    hr = expression->Evaluate(ProducedRecord(), &result);
    if (FAILED(hr)) {
      *message_ = expression->Message();
      return hr;
    }
    auto constant = std::make_unique<Constant>();
    hr = constant->Take(result);
    if (FAILED(hr)) return hr;
    operand->kind = Operand::kConstant;
    operand->index = target_.constants_.size();
    target_.constants_.push_back(std::move(constant));
    return S_OK;
  }

  CRowCondition& target_;
  const std::vector<ColumnRecord>& columns_;
  WStringView source_;
  const SQLBindContext& context_;
  GivenComparisons given_;
  WString* message_;
  std::vector<Segment> segments_;
};

CRowCondition::CRowCondition() = default;
CRowCondition::~CRowCondition() = default;

HRESULT CRowCondition::Create(const CSQLConditionNode* condition, const std::vector<ColumnRecord>& columns,
                              WStringView source, const SQLBindContext& context, GivenComparisons given,
                              std::unique_ptr<CRowCondition>* bound, WString* message) {
  if (!bound || !message) return E_INVALIDARG;
  bound->reset();
  if (!condition) return S_OK;
  try {
    std::unique_ptr<CRowCondition> made(new CRowCondition());
    Builder builder(*made, columns, source, context, given, message);
    const HRESULT hr = builder.Build(condition);
    if (FAILED(hr)) return hr;
    const auto& program = made->program_;
    if (program.size() == 1 && program[0].op == Step::kConstantTruth && program[0].truth == SQLTruth::kTrue)
      return S_OK;
    made->stack_.reserve(program.size());
    *bound = std::move(made);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CRowCondition::Resolve(const Operand& operand, const ProducedRecord& record, RowValue* value,
                               const Constant** constant) {
  *constant = nullptr;
  switch (operand.kind) {
    case Operand::kField:
      *value = operand.index < record.size() ? CellValue(record[operand.index]) : RowValue();
      return S_OK;
    case Operand::kConstant:
      *constant = constants_[operand.index].get();
      *value = (*constant)->value;
      return S_OK;
    default: {
      SQLEvaluationResult& result = *results_[operand.index];
      CRowExpression& expression = *expressions_[operand.index];
      const HRESULT hr = expression.Evaluate(record, &result);
      if (FAILED(hr)) {
        message_ = expression.Message();
        return hr;
      }
      *value = RowValue();
      if (result.kind == SQLEvaluationResult::kTime) {
        value->kind = RowValue::kTime;
        value->time = result.time;
      } else if (result.kind == SQLEvaluationResult::kValue) {
        *value = RowValueOf(result.value);
      }
      return S_OK;
    }
  }
}

HRESULT CRowCondition::Evaluate(const ProducedRecord& record, SQLTruth* truth) {
  stack_.clear();
  for (const Step& step : program_) {
    switch (step.op) {
      case Step::kCompare: {
        RowValue left, right;
        const Constant* leftConstant = nullptr;
        const Constant* rightConstant = nullptr;
        HRESULT hr = Resolve(step.left, record, &left, &leftConstant);
        if (SUCCEEDED(hr)) hr = Resolve(step.right, record, &right, &rightConstant);
        if (FAILED(hr)) return hr;
        if (leftConstant) left = leftConstant->As(right.kind);
        if (rightConstant) right = rightConstant->As(left.kind);
        stack_.push_back(CompareRowValues(step.comparison, left, right));
        break;
      }
      case Step::kAnd:
      case Step::kOr: {
        const SQLTruth b = stack_.back();
        stack_.pop_back();
        stack_.back() = step.op == Step::kAnd ? And(stack_.back(), b) : Or(stack_.back(), b);
        break;
      }
      case Step::kNot:
        stack_.back() = Not(stack_.back());
        break;
      default:
        stack_.push_back(step.truth);
        break;
    }
  }
  *truth = stack_.empty() ? SQLTruth::kUnknown : stack_.back();
  return S_OK;
}

HRESULT CRowCondition::Keep(const ProducedRecord& record, bool* keep) {
  SQLTruth truth = SQLTruth::kUnknown;
  const HRESULT hr = Evaluate(record, &truth);
  *keep = SUCCEEDED(hr) && truth == SQLTruth::kTrue;
  return hr;
}
