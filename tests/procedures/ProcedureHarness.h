// A procedure under test, driven as a consumer drives it: the reference historian behind
// the fault-injecting host, the provider over that host, one session and one command,
// and every row read back as text.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "historian/HistorianStore.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/FaultInjectingHost.h"

namespace corvane::test {

using Rows = std::vector<std::vector<std::string>>;

class ProcedureHarness {
 public:
  // Without `withValues` the host hides its values interface.
  explicit ProcedureHarness(bool withValues = true);
  ~ProcedureHarness();

  historian::CHistorianStore& Store() { return *store_; }
  testing::CFaultInjectingHost& Host() { return *host_; }

  // MAX_ROWS_TO_RETURN of the data source, set through an UPDATE of QUERYSETTINGS.
  void SetMaxRows(LONG rows);
  // SetCommandText, Execute, then GetNextRows (7 rows at a time) and GetData of every
  // column as text; the first failure is returned and its error records are dropped.
  HRESULT Run(const std::string& sql, Rows* rows);

 private:
  std::shared_ptr<historian::CHistorianStore> store_;
  IUnknown* historian_ = nullptr;
  testing::CFaultInjectingHost* host_ = nullptr;
  IUnknown* dataSource_ = nullptr;
  IOpenRowset* session_ = nullptr;
  ICommandText* command_ = nullptr;
};

// 1 January 2020 00:00:00 UTC plus `seconds`, in ticks and as a timestamp reads in text.
ULONGLONG T(double seconds);
std::string At(double seconds);
double Number(const std::string& cell);  // -999999 when the cell is not a number
ULONG Unsigned(const std::string& cell);

}  // namespace corvane::test
