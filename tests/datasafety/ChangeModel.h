// An independent model of what a DELETE or UPDATE on RAWDATA must leave in the historian: it evaluates the statement's
// WHERE tree on every sample by its own small rules (three-valued logic, texts ignoring case, a text constant read as a
// number or a time where the other side is one) and applies the change to the matching samples. Shared by the
// data-safety suites and the statement fuzzer, which both compare the historian's whole contents after a statement with
// the model's.
#pragma once
#include <string>
#include <vector>

#include "SQLParser/SQLQueryInfo.h"
#include "base/HistorianInterfaces.h"

namespace corvane::test {

struct ModelSample {
  std::string tag;
  ULONG64 time = 0;
  bool isText = false;
  double number = 0;  // numbers and booleans (1, 0)
  std::string text;
  DWORD quality = 0;
  VARTYPE type = VT_EMPTY;  // as the historian holds it

  bool operator==(const ModelSample& o) const {
    return tag == o.tag && time == o.time && isText == o.isText && number == o.number && text == o.text &&
           quality == o.quality;
  }
};
using ModelStore = std::vector<ModelSample>;

// Every sample of every tag the historian lists, tag by tag, oldest first.
ModelStore ReadStore(IRawDataProvider* raw);
// One line per sample, for failure messages.
std::string Describe(const ModelStore& store);

// The store `before` after the DELETE or UPDATE `statement` with the texts `parameters`
// for its `?`. False when the statement holds something the model does not evaluate
// (most functions, SET expressions that read the row, values of types it does not know).
bool ApplyChange(const CSQLQueryInfo& statement, const std::vector<std::string>& parameters, const ModelStore& before,
                 ModelStore* after);

}  // namespace corvane::test
