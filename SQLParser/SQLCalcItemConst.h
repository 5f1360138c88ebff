// A constant of a statement: an integer (VT_I8), a double (VT_R8) or a text (VT_BSTR).
#pragma once
#include "SQLParser/SQLCalcItem.h"

class CSQLCalcItemConst : public CSQLCalcItem {
 public:
  CSQLCalcItemConst();
  ~CSQLCalcItemConst() override;
  CSQLCalcItemConst(const CSQLCalcItemConst&) = delete;

  // Each setter replaces the previous value; the has-value flag stays set afterwards.
  void SetInteger(LONG64 value);
  void SetDouble(double value);
  HRESULT SetString(corvane::WStringView text);  // E_OUTOFMEMORY when the BSTR cannot be made
  HRESULT SetValue(const VARIANT& value);         // a copy, by VariantCopy

  const VARIANT& Value() const { return value_; }
  bool HasValue() const { return hasValue_; }

  // The value as text, by the OLE Automation conversion to VT_BSTR.
  HRESULT ValueAsText(corvane::WString* text) const;

 private:
  VARIANT value_;
  bool hasValue_ = false;
};
