// UTCToLocalTime(time): a UTC timestamp shifted to local time by the bias in force now.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionUTCToLocalTime : public CSQLFunction {
 public:
  explicit CSQLFunctionUTCToLocalTime(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("UTCToLocalTime"); }
};
