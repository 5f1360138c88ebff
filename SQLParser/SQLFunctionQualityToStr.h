// QualityToStr(quality): the severity word of a status word ("Good", "Bad"...).
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionQualityToStr : public CSQLFunction {
 public:
  explicit CSQLFunctionQualityToStr(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("QualityToStr"); }
};
