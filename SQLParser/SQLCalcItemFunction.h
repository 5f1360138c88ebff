// A function call of a statement, as written: its name, its argument items in order
// and the alias it was given in a select list.
#pragma once
#include <vector>

#include "SQLParser/SQLCalcItem.h"

class CSQLCalcItemFunction : public CSQLCalcItem {
 public:
  explicit CSQLCalcItemFunction(corvane::WString name) : CSQLCalcItem(SQL_CALC_FUNCTION), name_(std::move(name)) {}
  CSQLCalcItemFunction(const CSQLCalcItemFunction&) = delete;

  const corvane::WString& Name() const { return name_; }
  const corvane::WString& DisplayName() const { return displayName_; }  // empty without alias
  void SetDisplayName(corvane::WString name) { displayName_ = std::move(name); }

  size_t ArgumentCount() const { return arguments_.size(); }
  const CSQLCalcItem* Argument(size_t index) const {
    return index < arguments_.size() ? arguments_[index].get() : nullptr;
  }
  const std::vector<std::unique_ptr<CSQLCalcItem>>& Arguments() const { return arguments_; }
  // For binding, which puts the values of a row in place of column references.
  std::vector<std::unique_ptr<CSQLCalcItem>>& MutableArguments() { return arguments_; }

  HRESULT AddArgument(std::unique_ptr<CSQLCalcItem> argument);
  // DATEADD names its unit as a bare word (`DATEADD(hh, -1, NOW())`) as often as a
  // text; the unit is kept as a text constant either way so that evaluation reads one
  // form. Every other argument is attached as it is.
  HRESULT AddDateAddArgument(std::unique_ptr<CSQLCalcItem> argument);

 private:
  corvane::WString name_;
  corvane::WString displayName_;
  std::vector<std::unique_ptr<CSQLCalcItem>> arguments_;
};
