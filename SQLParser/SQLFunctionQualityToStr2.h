// QualityToStr2(quality): the full status text with the OPC UA symbolic name. Its error
// texts carry the name QualityToStr, as they always have.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionQualityToStr2 : public CSQLFunction {
 public:
  explicit CSQLFunctionQualityToStr2(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("QualityToStr2"); }

 protected:
  const OLECHAR* MessageName() const override { return OLESTR("QualityToStr"); }
};
