// Base of the aggregates SUM, AVG, MIN, MAX and COUNT. The executing command feeds one
// argument item per row; each evaluation folds the items fed since the last one into
// the accumulator and releases them. The result is the accumulator, so an evaluation
// with nothing fed leaves the previous result.
#pragma once
#include <memory>
#include <vector>

#include "SQLParser/SQLFunction.h"

class CSQLFunctionAggregate : public CSQLFunction {
 public:
  ~CSQLFunctionAggregate() override;
  HRESULT Evaluate() override;

  // Queues one row's argument item (a constant holding the row's value, typically).
  HRESULT Feed(std::unique_ptr<CSQLCalcItem> item);

 protected:
  using CSQLFunction::CSQLFunction;
  // COUNT counts items without reading them.
  virtual bool ReadsValues() const { return true; }
  virtual void Accumulate(double value) = 0;
  // The accumulator as the result VARIANT.
  virtual void CurrentValue(VARIANT* value) const = 0;

 private:
  std::vector<std::unique_ptr<CSQLCalcItem>> queue_;
};
