// Base of the expression items of a parsed statement: constants, function calls, `?`
// parameters and table columns. Items are owned through std::unique_ptr by whatever
// holds them (select columns, conditions, value lists, function arguments).
#pragma once
#include <memory>

#include "platform/WideString.h"

enum SQLCalcItemKind : int {
  SQL_CALC_CONST = 1,
  SQL_CALC_FUNCTION = 2,
  SQL_CALC_PARAMETER = 3,
  SQL_CALC_TABLE_COLUMN = 4,
};

class CSQLCalcItem {
 public:
  virtual ~CSQLCalcItem() = default;
  CSQLCalcItem& operator=(const CSQLCalcItem&) = delete;

  int Kind() const { return kind_; }

 protected:
  explicit CSQLCalcItem(int kind) : kind_(kind) {}
  // Only the item kinds that may be copied expose a copy constructor.
  CSQLCalcItem(const CSQLCalcItem&) = default;

 private:
  int kind_;
};
