// AVG(x): the running mean of the values fed, as VT_R8.
#pragma once
#include "SQLParser/SQLFunctionAggregate.h"

class CSQLFunctionAVG : public CSQLFunctionAggregate {
 public:
  explicit CSQLFunctionAVG(corvane::WString name) : CSQLFunctionAggregate(std::move(name)) {}
  const OLECHAR* FunctionName() const override { return OLESTR("AVG"); }

 protected:
  void Accumulate(double value) override {
    mean_ = (static_cast<double>(count_) * mean_ + value) / (static_cast<double>(count_) + 1.0);
    ++count_;
  }
  void CurrentValue(VARIANT* value) const override {
    V_VT(value) = VT_R8;
    V_R8(value) = mean_;
  }

 private:
  double mean_ = 0.0;
  ULONG count_ = 0;
};
