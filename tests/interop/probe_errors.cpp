// Reads the errors of failing statements as an OLE DB error object on Windows does: each record's ERRORINFO, the
// ExtendedErrors service registered under its class, and that service's GetErrorDescription, asked after the command
// and rowset are gone. One line a record, "<statement> #<record><TAB><phase> <HRESULT> | <source> | <description>",
// goes to the file scripts/differential.sh compares between the POSIX and the Wine builds.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "base/Bstr.h"
#include "base/ComPtr.h"
#include "platform/Platform.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/Printers.h"

#ifndef CORVANE_CONSUMER_OF_DLL
#include "provider/ErrorLookup.h"
#include "provider/Module.h"
#endif

namespace {

using corvane::ComPtr;
using corvane::QueryAs;
using corvane::test::Hex;

#ifndef CORVANE_CONSUMER_OF_DLL
// What regsvr32 is to the DLL: the POSIX class registry learns both classes.
class RegisteredModule : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_EQ(S_OK, DllRegisterServer()); }
  void TearDown() override { EXPECT_EQ(S_OK, DllUnregisterServer()); }
};
::testing::Environment* const kRegisteredModule = ::testing::AddGlobalTestEnvironment(new RegisteredModule);
#endif

// The ERRORINFO of every error record a failed call left on this thread, oldest first (the system's error object
// numbers them from the newest, the POSIX records from the oldest); the records are dropped.
std::vector<ERRORINFO> TakeRecords() {
  std::vector<ERRORINFO> infos;
#ifdef _WIN32
  ComPtr<IErrorInfo> object;
  if (GetErrorInfo(0, object.Put()) != S_OK) return infos;
  ComPtr<IErrorRecords> records = QueryAs<IErrorRecords>(object.Get(), IID_IErrorRecords);
  ULONG count = 0;
  if (records) records->GetRecordCount(&count);
  for (ULONG i = count; i-- > 0;) {
    infos.emplace_back();
    EXPECT_EQ(S_OK, records->GetBasicErrorInfo(i, &infos.back()));
  }
#else
  for (const auto& record : corvane::platform::TakeErrorRecords()) infos.push_back(record.info);
#endif
  return infos;
}

std::vector<std::string> FailingStatements() {
  std::vector<std::string> statements;
  std::ifstream in(CORVANE_FAILING_STATEMENTS);
  for (std::string line; std::getline(in, line);) {
    while (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && line[0] != '#') statements.push_back(line);
  }
  return statements;
}

// The error lookup service registered for `provider`, or null.
ComPtr<IErrorLookup> RegisteredLookup(REFCLSID provider) {
  CLSID lookupClass{};
#ifdef _WIN32
  wchar_t key[96] = L"CLSID\\";
  StringFromGUID2(provider, key + 6, 40);
  wcscat(key, L"\\ExtendedErrors");
  HKEY extended = nullptr;
  if (RegOpenKeyExW(HKEY_CLASSES_ROOT, key, 0, KEY_READ, &extended) != ERROR_SUCCESS) return {};
  wchar_t name[64];
  DWORD length = 64;
  const LONG found = RegEnumKeyExW(extended, 0, name, &length, nullptr, nullptr, nullptr, nullptr);
  RegCloseKey(extended);
  if (found != ERROR_SUCCESS || FAILED(CLSIDFromString(name, &lookupClass))) return {};
#else
  if (!corvane::platform::FindErrorLookup(provider, &lookupClass)) return {};
#endif
  ComPtr<IErrorLookup> lookup;
  CoCreateInstance(lookupClass, nullptr, CLSCTX_INPROC_SERVER, IID_IErrorLookup, lookup.PutVoid());
  return lookup;
}

// Runs `sql` up to its first failure and answers the phase that failed ("" if none); the
// command and rowset are released, which keeps the failure's records.
std::string RunToFailure(IOpenRowset* session, const std::string& sql) {
  ComPtr<IDBCreateCommand> create = QueryAs<IDBCreateCommand>(session, IID_IDBCreateCommand);
  ComPtr<ICommandText> command;
  if (FAILED(create->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(command.Put()))))
    return "CreateCommand";
  ComPtr<ICommandPrepare> prepare = QueryAs<ICommandPrepare>(command.Get(), IID_ICommandPrepare);
  ComPtr<IRowset> rowset;
  if (FAILED(command->SetCommandText(DBGUID_DEFAULT, corvane::FromUtf8(sql).c_str()))) return "SetCommandText";
  if (FAILED(prepare->Prepare(0))) return "Prepare";
  if (FAILED(command->Execute(nullptr, IID_IRowset, nullptr, nullptr, reinterpret_cast<IUnknown**>(rowset.Put()))))
    return "Execute";
  for (HRESULT hr = S_OK; rowset && hr == S_OK;) {
    DBCOUNTITEM obtained = 0;
    HROW* rows = nullptr;
    hr = rowset->GetNextRows(DB_NULL_HCHAPTER, 0, 64, &obtained, &rows);
    if (obtained) rowset->ReleaseRows(obtained, rows, nullptr, nullptr, nullptr);
    CoTaskMemFree(rows);
    if (FAILED(hr)) return "Fetch";
  }
  return "";
}

// Texts may hold line breaks (a parse error's message ends in one); the compared file keeps one record per line.
std::string Escaped(BSTR text) {
  std::string escaped;
  for (char c : corvane::ToUtf8(text))
    escaped += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : std::string(1, c);
  return escaped;
}

}  // namespace

class ErrorLookupConsumer : public corvane::test::ConsumerTest {};

TEST_F(ErrorLookupConsumer, EveryRecordOfEveryFailureHasItsTextsThroughTheRegisteredService) {
  const std::vector<std::string> statements = FailingStatements();
  ASSERT_GE(statements.size(), 10u) << CORVANE_FAILING_STATEMENTS;
  std::ofstream out(CORVANE_PROBE_OUT, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(out) << CORVANE_PROBE_OUT;
  const ComPtr<IErrorLookup> lookup = RegisteredLookup(CLSID_CorvaneOleDbProvider);
  ASSERT_TRUE(lookup) << "no ExtendedErrors service registered for the provider";
  // Writes the records the failure of `what` left on the thread.
  auto report = [&](const std::string& what, const std::string& phase) {
    const std::vector<ERRORINFO> records = TakeRecords();
    EXPECT_FALSE(phase.empty()) << "does not fail: " << what;
    EXPECT_FALSE(records.empty()) << "no error record: " << what;
    for (size_t i = 0; i < records.size(); ++i) {
      const ERRORINFO& info = records[i];
      EXPECT_TRUE(IsEqualCLSID(CLSID_CorvaneOleDbProvider, info.clsid)) << what;
      corvane::Bstr source, description;
      const HRESULT hr = lookup->GetErrorDescription(info.hrError, info.dwMinor, nullptr, LOCALE_USER_DEFAULT,
                                                     source.Put(), description.Put());
      EXPECT_EQ(S_OK, hr) << what << " #" << i;
      out << what << " #" << i << '\t' << phase << ' ' << Hex(info.hrError) << " | "
          << (SUCCEEDED(hr) ? Escaped(source.Get()) + " | " + Escaped(description.Get()) : "lookup " + Hex(hr)) << '\n';
    }
  };
  for (const std::string& sql : statements) report(sql, RunToFailure(session_, sql));

  // The session's and the data source's own records.
  DBID table{{}, DBKIND_NAME, {const_cast<LPOLESTR>(OLESTR("NO_SUCH_TABLE"))}};
  ComPtr<IUnknown> rowset;
  report("OpenRowset NO_SUCH_TABLE",
         FAILED(session_->OpenRowset(nullptr, &table, nullptr, IID_IRowset, 0, nullptr, rowset.Put())) ? "OpenRowset"
                                                                                                      : "");
  report("Initialize again",
         FAILED(QueryAs<IDBInitialize>(dataSource_, IID_IDBInitialize)->Initialize()) ? "Initialize" : "");
}

// Nobody asks: the records go with the next call, and whatever the service held for
// them goes with them where the error object says so (the leak check covers the rest).
TEST_F(ErrorLookupConsumer, RecordsNobodyReadsLeaveNothingBehind) {
#ifndef CORVANE_CONSUMER_OF_DLL
  const size_t held = CErrorLookup::HeldCount();
#endif
  for (const std::string& sql : FailingStatements()) EXPECT_FALSE(RunToFailure(session_, sql).empty()) << sql;
  Close();
#ifndef CORVANE_CONSUMER_OF_DLL
  EXPECT_EQ(held, CErrorLookup::HeldCount());
#endif
}
