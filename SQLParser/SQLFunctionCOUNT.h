// COUNT(x): the number of items fed, as VT_UI4; values are not read.
#pragma once
#include "SQLParser/SQLFunctionAggregate.h"

class CSQLFunctionCOUNT : public CSQLFunctionAggregate {
 public:
  explicit CSQLFunctionCOUNT(corvane::WString name) : CSQLFunctionAggregate(std::move(name)) {}
  const OLECHAR* FunctionName() const override { return OLESTR("COUNT"); }

 protected:
  bool ReadsValues() const override { return false; }
  void Accumulate(double) override { ++count_; }
  void CurrentValue(VARIANT* value) const override {
    V_VT(value) = VT_UI4;
    V_UI4(value) = count_;
  }

 private:
  ULONG count_ = 0;
};
