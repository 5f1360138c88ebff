// DataTypeToStr(type): the VT_ name of a tag's numeric value type, or "Unknown".
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionDataTypeToStr : public CSQLFunction {
 public:
  explicit CSQLFunctionDataTypeToStr(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("DataTypeToStr"); }
};
