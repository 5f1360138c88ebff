// GetMsecs(time): the millisecond part (0-999) of a timestamp, as VT_UI4.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionGetMsecs : public CSQLFunction {
 public:
  explicit CSQLFunctionGetMsecs(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("GetMsecs"); }
};
