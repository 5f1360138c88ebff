// BitMask(operator, mask, operand): operand & mask, | mask or ^ mask, as VT_UI4.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionBitMask : public CSQLFunction {
 public:
  explicit CSQLFunctionBitMask(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("BitMask"); }

 protected:
  const OLECHAR* ArityMessage() const override { return OLESTR("Invalid parameter count."); }
};
