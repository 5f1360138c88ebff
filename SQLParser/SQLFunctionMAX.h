// MAX(x): the largest value fed, as VT_R8. It starts at the smallest positive normal
// double, not at the most negative one, so values that are all zero or negative answer
// 2.2250738585072014e-308; reports written against it expect that, so it stays.
#pragma once
#include "SQLParser/SQLFunctionAggregate.h"

class CSQLFunctionMAX : public CSQLFunctionAggregate {
 public:
  explicit CSQLFunctionMAX(corvane::WString name) : CSQLFunctionAggregate(std::move(name)) {}
  const OLECHAR* FunctionName() const override { return OLESTR("MAX"); }

 protected:
  void Accumulate(double value) override {
    if (value > maximum_) maximum_ = value;
  }
  void CurrentValue(VARIANT* value) const override {
    V_VT(value) = VT_R8;
    V_R8(value) = maximum_;
  }

 private:
  double maximum_ = 2.2250738585072014e-308;  // bit pattern 0x0010000000000000
};
