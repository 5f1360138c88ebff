// IsGood(quality): 1 when the two top bits of the status word are 00, else 0 (VT_UI4).
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionIsGood : public CSQLFunction {
 public:
  explicit CSQLFunctionIsGood(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("IsGood"); }
};
