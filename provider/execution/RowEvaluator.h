// Conditions and expressions of a statement, bound once per execution against the
// columns of the records a table or procedure produces (a column reference becomes the
// index of its field) and then evaluated on each record: the WHERE filter of a SELECT,
// the exact selection of the samples a DELETE or UPDATE changes, and the computed items
// of a select list.
//
// Conditions follow SQL's three-valued logic: a comparison with a null or empty value,
// or of two values that cannot be compared, is unknown; NOT unknown is unknown; a row
// is kept only when its condition is true. Numbers compare numerically (booleans as 1
// and 0), texts with texts ignoring case (as tag names do everywhere in the historian),
// times with times. A text constant or `?` value compared with a time reads as a UTC
// time, and compared with a number as that number when it is one; a value of a row is
// never converted, so a string tag's VALUE against a number is unknown, not an error.
#pragma once
#include <memory>
#include <vector>

#include "SQLParser/SQLConditionNode.h"
#include "SQLParser/SQLExpression.h"
#include "platform/WideString.h"
#include "provider/store/DataProvider.h"
#include "provider/tables/TableFactory.h"

class CSQLCalcItemConst;
class CSQLFunction;

enum class SQLTruth : unsigned char { kFalse, kTrue, kUnknown };

// True when `item` is a reference to the column `name` (any case).
bool IsColumnNamed(const CSQLCalcItem* item, const OLECHAR* name);

// The text a comparison's other operand gives the historian: a text constant, or a `?`
// value read as text. False for anything else.
bool ComparedText(const CSQLCalcItem* item, const SQLBindContext& context, corvane::WString* text);

// One value of a record or constant, as comparisons see it. Texts point into the
// record or the constant; nothing is owned.
struct RowValue {
  enum Kind : unsigned char { kNull, kInteger, kReal, kText, kTime };
  Kind kind = kNull;
  LONG64 integer = 0;
  double real = 0;
  ULONG64 time = 0;
  const OLECHAR* text = nullptr;
  size_t length = 0;
};

// How a VARIANT compares: integers (booleans as 1 and 0), reals, texts and dates (as
// times); anything else as null.
RowValue RowValueOf(const VARIANT& value);
// `op` (SQL_COND_EQUAL .. SQL_COND_NOT_EQUAL) applied to two values of a row.
SQLTruth CompareRowValues(int op, const RowValue& left, const RowValue& right);

// An expression bound to the fields of a record.
class CRowExpression {
 public:
  ~CRowExpression();
  CRowExpression(const CRowExpression&) = delete;
  CRowExpression& operator=(const CRowExpression&) = delete;

  // Binds `expression` over `columns`: `?` values and the execution's reference times
  // as Bind does, each column by name (any case; `*` is the number 1). Fails with a
  // message for an unknown column, an aggregate, or a call that cannot be bound.
  static HRESULT Create(const CSQLCalcItem* expression, const std::vector<ColumnRecord>& columns,
                        corvane::WStringView source, const SQLBindContext& context,
                        std::unique_ptr<CRowExpression>* bound, corvane::WString* message);

  // The value for one record. A failing function gives its HRESULT and Message().
  HRESULT Evaluate(const ProducedRecord& record, SQLEvaluationResult* result);
  // False when no column is read: the value is the same for every record.
  bool ReadsColumns() const { return !slots_.empty(); }
  const corvane::WString& Message() const { return message_; }

 private:
  CRowExpression() = default;

  std::unique_ptr<CSQLCalcItem> tree_;
  // The constant standing for each column reference, refilled from its field per record.
  std::vector<std::pair<CSQLCalcItemConst*, size_t>> slots_;
  std::vector<CSQLFunction*> functions_;  // innermost first
  corvane::WString message_;
};

// A WHERE condition bound to the fields of a record.
class CRowCondition final : public CRecordFilter {
 public:
  ~CRowCondition() override;

  // Binds `condition` over `columns`; comparisons named by `given` count as true.
  // Operands without columns are evaluated here, once. *bound stays null (S_OK) when
  // the condition is true for every record, so that such a read pays nothing.
  // E_FAIL with a message for an unknown column, an aggregate, or a comparison
  // without a value on one side; a function that fails here fails with its own
  // HRESULT and message.
  static HRESULT Create(const CSQLConditionNode* condition, const std::vector<ColumnRecord>& columns,
                        corvane::WStringView source, const SQLBindContext& context, GivenComparisons given,
                        std::unique_ptr<CRowCondition>* bound, corvane::WString* message);

  HRESULT Evaluate(const ProducedRecord& record, SQLTruth* truth);
  HRESULT Keep(const ProducedRecord& record, bool* keep) override;
  const corvane::WString& Message() const override { return message_; }

 private:
  struct Constant;
  struct Operand {
    enum Kind : unsigned char { kField, kConstant, kExpression } kind = kField;
    size_t index = 0;
  };
  struct Step {
    enum Op : unsigned char { kCompare, kAnd, kOr, kNot, kConstantTruth } op = kCompare;
    SQLTruth truth = SQLTruth::kUnknown;  // kConstantTruth
    int comparison = 0;                    // kCompare: SQL_COND_*
    Operand left, right;                   // kCompare
  };
  class Builder;

  CRowCondition();
  // The operand's value for `record`; *constant is set for a constant, whose value
  // adapts to the other side of the comparison.
  HRESULT Resolve(const Operand& operand, const ProducedRecord& record, RowValue* value, const Constant** constant);

  std::vector<Step> program_;  // postfix
  std::vector<std::unique_ptr<Constant>> constants_;
  std::vector<std::unique_ptr<CRowExpression>> expressions_;
  std::vector<std::unique_ptr<SQLEvaluationResult>> results_;  // one per expression, reused per record
  std::vector<SQLTruth> stack_;
  corvane::WString message_;
};
