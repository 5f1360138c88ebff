// IsUncertain(quality): 1 when the two top bits of the status word are 01, else 0 (VT_UI4).
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionIsUncertain : public CSQLFunction {
 public:
  explicit CSQLFunctionIsUncertain(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("IsUncertain"); }
};
