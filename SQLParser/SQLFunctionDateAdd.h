// DATEADD(unit, count, date): the date moved by count units (ms, ss, mi, hh, dd, wk, mm,
// yy); months and years step through the calendar fields. An unknown unit gives the
// zero timestamp. A result outside the FILETIME range fails with DISP_E_OVERFLOW.
#pragma once
#include "SQLParser/SQLFunction.h"

class CSQLFunctionDateAdd : public CSQLFunction {
 public:
  explicit CSQLFunctionDateAdd(corvane::WString name) : CSQLFunction(std::move(name)) {}
  HRESULT Evaluate() override;
  const OLECHAR* FunctionName() const override { return OLESTR("DATEADD"); }

 protected:
  const OLECHAR* MessageName() const override { return OLESTR("DateAdd"); }

 private:
  HRESULT OutOfRange() const;
};
