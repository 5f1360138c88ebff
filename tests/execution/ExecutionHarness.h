// A data source over the reference historian behind the fault-injecting host, with a
// fixed user time range, and helpers that run SQL through CCommandProviderRowset and
// read every row back as text.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "historian/HistorianStore.h"
#include "historian/ReferenceHistorian.h"
#include "provider/ProviderDataSource.h"
#include "provider/execution/CommandProviderRowset.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/TraceCapture.h"

namespace corvane::test {

// FILETIME ticks of a UTC calendar moment.
ULONGLONG Utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

class ExecutionTest : public LeakCheckedTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs one statement; message_ receives what the failure's error record would say.
  HRESULT Run(const std::string& sql, IRowset** rowset = nullptr, DBROWCOUNT* affected = nullptr,
              const std::vector<VARIANT>& parameters = {}, CProviderDataSource* ds = nullptr);
  // Every row, each column as text ("NULL" for a null cell), fetched `batch` at a time.
  static std::vector<std::vector<std::string>> ReadAll(IRowset* rowset, HRESULT* end = nullptr, DBROWCOUNT batch = 7);
  static std::vector<std::string> ColumnNames(IRowset* rowset, std::vector<DBTYPE>* types = nullptr);

  std::shared_ptr<historian::CHistorianStore> store_;
  IRawDataProvider* reference_ = nullptr;
  testing::CFaultInjectingHost* host_ = nullptr;
  CProviderDataSource* ds_ = nullptr;
  std::string message_;
};

}  // namespace corvane::test
