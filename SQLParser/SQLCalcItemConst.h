// A constant of a statement: an integer (VT_I8), a double (VT_R8) or a text (VT_BSTR).
// Binding also makes timestamp constants (the reference time handed to NOW and NOWUTC):
// those carry the time flag and a FILETIME tick count instead of a value.
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
  void SetTime(ULONG64 fileTimeTicks);            // clears the VARIANT value

  const VARIANT& Value() const { return value_; }
  bool HasValue() const { return hasValue_; }
  bool IsTime() const { return isTime_; }
  ULONG64 Time() const { return time_; }

  // The value as text, by the OLE Automation conversion to VT_BSTR.
  HRESULT ValueAsText(corvane::WString* text) const;

 private:
  VARIANT value_;
  bool hasValue_ = false;
  bool isTime_ = false;
  ULONG64 time_ = 0;
};
