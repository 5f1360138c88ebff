// A `?` placeholder of a statement; the parser numbers them from 1 in order of appearance.
#pragma once
#include "SQLParser/SQLCalcItem.h"

class CSQLCalcItemParameter : public CSQLCalcItem {
 public:
  explicit CSQLCalcItemParameter(int number = -1) : CSQLCalcItem(SQL_CALC_PARAMETER), number_(number) {}

  int Number() const { return number_; }
  void SetNumber(int number) { number_ = number; }

 private:
  int number_;
};
