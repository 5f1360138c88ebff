// IsBad(quality): 1 when the two top bits of the status word are 10, else 0 (VT_UI4).
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionIsBad : public CSQLFunction {
 public:
  explicit CSQLFunctionIsBad(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("IsBad"); }
};
