// AccessRightsToStr(rights): the TAG_ACCESS_RIGHTS_ name of a tag's access rights.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionAccessRightsToStr : public CSQLFunction {
 public:
  explicit CSQLFunctionAccessRightsToStr(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("AccessRightsToStr"); }
};
