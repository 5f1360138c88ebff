#include "tests/execution/ExecutionHarness.h"

#include <cstring>

#include "SQLParser/TimeConversion.h"

namespace corvane::test {

ULONGLONG Utc(int year, int month, int day, int hour, int minute, int second) {
  ULONG64 ticks = 0;
  CalendarToTicks(year, month, day, hour, minute, second, 0, &ticks);
  return ticks;
}

void ExecutionTest::SetUp() {
  LeakCheckedTest::SetUp();
  store_ = std::make_shared<historian::CHistorianStore>();
  ASSERT_EQ(S_OK, historian::CReferenceHistorian::Create(store_, IID_IRawDataProvider,
                                                         reinterpret_cast<void**>(&reference_)));
  host_ = testing::CFaultInjectingHost::Create(reference_);
  ASSERT_EQ(S_OK, CProviderDataSource::CreateInstance(&ds_));
  ds_->AddRef();
  ASSERT_EQ(S_OK, ds_->InitializeDataSource(host_, nullptr, nullptr));
  ds_->SetStartTime(TicksToFileTime(Utc(2024, 1, 1)));
  ds_->SetEndTime(TicksToFileTime(Utc(2024, 1, 2)));
  ds_->SetUseUserTimeRange(1);
}

void ExecutionTest::TearDown() {
  if (ds_) ds_->Release();
  if (host_) {
    EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
    host_->Release();
  }
  if (reference_) reference_->Release();
  store_.reset();
  LeakCheckedTest::TearDown();
}

HRESULT ExecutionTest::Run(const std::string& sql, IRowset** rowset, DBROWCOUNT* affected,
                           const std::vector<VARIANT>& parameters, CProviderDataSource* ds) {
  const WString text = FromUtf8(sql);
  CommandExecutionRequest request;
  request.dataSource = ds ? ds : ds_;
  request.commandText = text;
  request.defaultCatalog = OLESTR("plant");
  request.defaultSchema = OLESTR("main");
  request.binding.parameters = parameters.empty() ? nullptr : parameters.data();
  request.binding.parameterCount = parameters.size();
  SetReferenceTimesToNow(&request.binding);
  WString message;
  request.message = &message;
  IUnknown* unknown = nullptr;
  const HRESULT hr = CCommandProviderRowset::Execute(request, affected, IID_IRowset,
                                                     rowset ? &unknown : nullptr);
  message_ = ToUtf8(message);
  if (rowset) *rowset = static_cast<IRowset*>(static_cast<void*>(unknown));
  return hr;
}

std::vector<std::string> ExecutionTest::ColumnNames(IRowset* rowset, std::vector<DBTYPE>* types) {
  IColumnsInfo* info = nullptr;
  rowset->QueryInterface(IID_IColumnsInfo, reinterpret_cast<void**>(&info));
  DBORDINAL count = 0;
  DBCOLUMNINFO* columns = nullptr;
  OLECHAR* strings = nullptr;
  std::vector<std::string> names;
  if (info && SUCCEEDED(info->GetColumnInfo(&count, &columns, &strings))) {
    for (DBORDINAL i = 0; i < count; ++i) {
      names.push_back(ToUtf8(columns[i].pwszName));
      if (types) types->push_back(columns[i].wType);
    }
    CoTaskMemFree(columns);
    CoTaskMemFree(strings);
  }
  if (info) info->Release();
  return names;
}

std::vector<std::vector<std::string>> ExecutionTest::ReadAll(IRowset* rowset, HRESULT* end, DBROWCOUNT batch) {
  std::vector<DBTYPE> types;
  const size_t n = ColumnNames(rowset, &types).size();
  IAccessor* accessor = nullptr;
  rowset->QueryInterface(IID_IAccessor, reinterpret_cast<void**>(&accessor));
  // Every column as WSTR of 200 characters, with status.
  constexpr DBLENGTH kCell = 8 + 8 + 402;
  std::vector<DBBINDING> bindings(n);
  for (size_t i = 0; i < n; ++i) {
    DBBINDING& b = bindings[i];
    std::memset(&b, 0, sizeof b);
    b.iOrdinal = i + 1;
    b.obStatus = i * kCell;
    b.obLength = i * kCell + 8;
    b.obValue = i * kCell + 16;
    b.dwPart = DBPART_VALUE | DBPART_STATUS | DBPART_LENGTH;
    b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
    b.eParamIO = DBPARAMIO_NOTPARAM;
    b.cbMaxLen = 402;
    b.wType = DBTYPE_WSTR;
  }
  HACCESSOR handle = 0;
  std::vector<std::vector<std::string>> rows;
  if (!accessor || FAILED(accessor->CreateAccessor(DBACCESSOR_ROWDATA, n, bindings.data(), n * kCell, &handle,
                                                   nullptr))) {
    ADD_FAILURE() << "accessor";
    if (accessor) accessor->Release();
    return rows;
  }
  std::vector<BYTE> buffer(n * kCell + 8);
  HRESULT hr;
  for (;;) {
    DBCOUNTITEM obtained = 0;
    HROW* handles = nullptr;
    hr = rowset->GetNextRows(DB_NULL_HCHAPTER, 0, batch, &obtained, &handles);
    for (DBCOUNTITEM r = 0; r < obtained; ++r) {
      std::vector<std::string> row;
      std::memset(buffer.data(), 0, buffer.size());
      rowset->GetData(handles[r], handle, buffer.data());
      for (size_t i = 0; i < n; ++i) {
        DBSTATUS status;
        std::memcpy(&status, buffer.data() + i * kCell, sizeof status);
        if (status == DBSTATUS_S_ISNULL)
          row.push_back("NULL");
        else
          row.push_back(ToUtf8(reinterpret_cast<const OLECHAR*>(buffer.data() + i * kCell + 16)));
      }
      rows.push_back(row);
    }
    if (obtained) rowset->ReleaseRows(obtained, handles, nullptr, nullptr, nullptr);
    CoTaskMemFree(handles);
    if (FAILED(hr) || hr == DB_S_ENDOFROWSET || obtained == 0) break;
  }
  if (end) *end = hr;
  accessor->ReleaseAccessor(handle, nullptr);
  accessor->Release();
  return rows;
}

}  // namespace corvane::test
