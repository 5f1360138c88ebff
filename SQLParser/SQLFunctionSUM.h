// SUM(x): the sum of the values fed, as VT_R8.
#pragma once
#include "SQLParser/SQLFunctionAggregate.h"

class CSQLFunctionSUM : public CSQLFunctionAggregate {
 public:
  explicit CSQLFunctionSUM(corvane::WString name) : CSQLFunctionAggregate(std::move(name)) {}
  const OLECHAR* FunctionName() const override { return OLESTR("SUM"); }

 protected:
  void Accumulate(double value) override {
    sum_ += value;
    ++count_;
  }
  void CurrentValue(VARIANT* value) const override {
    V_VT(value) = VT_R8;
    V_R8(value) = sum_;
  }

 private:
  double sum_ = 0.0;
  ULONG count_ = 0;
};
