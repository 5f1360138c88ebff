// LocalTimeToUTC(time): a local timestamp shifted to UTC by the bias in force now.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionLocalTimeToUTC : public CSQLFunction {
 public:
  explicit CSQLFunctionLocalTimeToUTC(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("LocalTimeToUTC"); }
};
