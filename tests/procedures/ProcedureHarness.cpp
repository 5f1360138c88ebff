#include "tests/procedures/ProcedureHarness.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "SQLParser/TimeConversion.h"
#include "historian/Aggregates.h"
#include "historian/ReferenceHistorian.h"

namespace corvane::test {

ProcedureHarness::ProcedureHarness(bool withValues) {
#ifdef _WIN32
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
#endif
  store_ = std::make_shared<historian::CHistorianStore>();
  IAggregates* aggregates = nullptr;
  EXPECT_EQ(S_OK, historian::CAggregates::CreateInstance(nullptr, IID_IAggregates,
                                                         reinterpret_cast<void**>(&aggregates)));
  EXPECT_EQ(S_OK, historian::CReferenceHistorian::Create(store_, IID_IUnknown,
                                                         reinterpret_cast<void**>(&historian_), aggregates));
  if (aggregates) aggregates->Release();
  host_ = testing::CFaultInjectingHost::Create(historian_);
  if (!withValues) host_->Omit(IID_IValuesProvider);
  OpenProvider(static_cast<IRawDataProvider*>(host_), &dataSource_, &session_);
  IDBCreateCommand* create = session_ ? ConsumerTest::Query<IDBCreateCommand>(session_, IID_IDBCreateCommand) : nullptr;
  EXPECT_NE(nullptr, create);
  if (create) create->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command_));
  if (create) create->Release();
}

ProcedureHarness::~ProcedureHarness() {
  if (command_) {
    EXPECT_EQ(0u, command_->Release()) << "a rowset kept the command";
  }
  CloseProvider(&dataSource_, &session_);
  EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
  EXPECT_EQ(0u, host_->Release()) << "the provider kept a host reference";
  historian_->Release();
#ifdef _WIN32
  CoUninitialize();
#endif
}

void ProcedureHarness::SetMaxRows(LONG rows) {
  Rows answer;
  EXPECT_EQ(S_OK, Run("UPDATE QUERYSETTINGS SET MAX_ROWS_TO_RETURN = " + std::to_string(rows), &answer));
}

HRESULT ProcedureHarness::Run(const std::string& sql, Rows* rows) {
  rows->clear();
  if (!command_) return E_UNEXPECTED;
  HRESULT hr = command_->SetCommandText(DBGUID_DEFAULT, FromUtf8(sql).c_str());
  IUnknown* rowset = nullptr;
  if (SUCCEEDED(hr)) hr = command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset);
  if (SUCCEEDED(hr) && rowset) {
    std::vector<DBORDINAL> columns(Columns(rowset).size());
    for (size_t i = 0; i < columns.size(); ++i) columns[i] = i + 1;
    *rows = ReadAll(rowset, columns, 7, &hr);
    rowset->Release();
  }
  if (FAILED(hr)) ConsumerTest::TakeLastError();
  return hr;
}

ULONGLONG T(double seconds) {
  ULONGLONG base = 0;
  CalendarToTicks(2020, 1, 1, 0, 0, 0, 0, &base);
  return base + static_cast<ULONGLONG>(seconds * 1e7);
}

std::string At(double seconds) {
  const int whole = static_cast<int>(seconds) % (31 * 86400);
  char text[64];
  std::snprintf(text, sizeof text, "2020-01-%02d %02d:%02d:%02d", 1 + whole / 86400, whole / 3600 % 24,
                whole / 60 % 60, whole % 60);
  return text;
}

double Number(const std::string& cell) {
  char* end = nullptr;
  const double value = std::strtod(cell.c_str(), &end);
  return !cell.empty() && end && *end == '\0' ? value : -999999;
}

ULONG Unsigned(const std::string& cell) { return static_cast<ULONG>(Number(cell)); }

}  // namespace corvane::test
