// NOW() and NOWUTC(): the execution's reference time (local for NOW, UTC for NOWUTC),
// handed over by binding as one hidden argument so that every call of one statement
// answers the same instant.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionNow : public CSQLFunction {
 public:
  CSQLFunctionNow(corvane::WString name, bool utc) : CSQLFunction(std::move(name)), utc_(utc) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return utc_ ? OLESTR("NOWUTC") : OLESTR("NOW"); }
  bool IsUtc() const { return utc_; }

 protected:
  const OLECHAR* MessageName() const override { return OLESTR("Now"); }

 private:
  bool utc_;
};
