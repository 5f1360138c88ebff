// MIN(x): the smallest value fed, as VT_R8; starts at the largest finite double.
#pragma once
#include "SQLParser/SQLFunctionAggregate.h"

class CSQLFunctionMIN : public CSQLFunctionAggregate {
 public:
  explicit CSQLFunctionMIN(corvane::WString name) : CSQLFunctionAggregate(std::move(name)) {}
  const OLECHAR* FunctionName() const override { return OLESTR("MIN"); }

 protected:
  void Accumulate(double value) override {
    if (value < minimum_) minimum_ = value;
  }
  void CurrentValue(VARIANT* value) const override {
    V_VT(value) = VT_R8;
    V_R8(value) = minimum_;
  }

 private:
  double minimum_ = 1.7976931348623157e308;  // bit pattern 0x7FEFFFFFFFFFFFFF
};
