// The one consumer of the provider the suites share, through OLE DB interfaces only, over a reference
// historian behind the fault-injecting host. Built with CORVANE_CONSUMER_OF_DLL (Windows) it creates the
// provider from the registered DLL, which traces into its own facility, so trace checks are off there.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "historian/Aggregates.h"
#include "historian/HistorianStore.h"
#include "historian/ReferenceHistorian.h"
#include "platform/WideString.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/RowReader.h"
#include "tests/support/TraceCapture.h"

#ifdef CORVANE_CONSUMER_OF_DLL
#define EXPECT_TRACED(capture, text) (void)(capture)
#else
#define EXPECT_TRACED(capture, text) EXPECT_TRUE((capture).Contains(text)) << (text)
#endif

namespace corvane::test {

struct LastError {
  ULONG count = 0;
  HRESULT hr = S_OK;
  GUID iid{};
  std::string source;
  std::string description;  // empty where the system's records do not give it back
};

using Rows = std::vector<std::vector<std::string>>;
using HostOp = testing::CFaultInjectingHost::Op;

// One `?`: bound as text, described to the command as `type` unless that is empty.
struct Parameter { std::string type; std::string value; };

// A column as IColumnsInfo describes it.
struct ColumnInfo { std::string name; DBTYPE type; DBLENGTH size; DBCOLUMNFLAGS flags; DBORDINAL ordinal; };

struct Outcome {
  HRESULT hr = S_OK;  // the first failure of Execute or GetNextRows
  bool atExecute = false;
  LastError error;  // the records of that failure
  DBROWCOUNT affected = DB_COUNTUNAVAILABLE;  // what Execute counted
  std::vector<ColumnInfo> columns;
  Rows rows;  // every row delivered before the end or the failure; a null reads "<null>"
};

class SqlConsumer {
 public:
  // The historian and the host; the provider comes with Open.
  explicit SqlConsumer(std::shared_ptr<historian::CHistorianStore> store = std::make_shared<historian::CHistorianStore>());
  ~SqlConsumer();
  // Releases the command, closes the provider and checks that nothing but this consumer
  // held the command, the data source and the host.
  void Close();
  SqlConsumer(const SqlConsumer&) = delete;
  SqlConsumer& operator=(const SqlConsumer&) = delete;

  historian::CHistorianStore& Store() { return *store_; }
  testing::CFaultInjectingHost& Host() { return *host_; }
  bool IsOpen() const { return command_ != nullptr; }

  // Creates the provider over the host with catalog "Plant" and, when given, the
  // provider string; initialises it and opens a session and a command.
  void Open(const std::string& providerString = {});
  // SetCommandText, Execute, then GetNextRows `batch` rows at a time until the end or a failure, holding every row;
  // then GetData of each held row and one ReleaseRows. An empty `sql` executes the command's text again. With `open`,
  // the rowset is handed back unread, to Read later.
  Outcome Run(const std::string& sql, const std::vector<Parameter>& parameters = {}, DBROWCOUNT batch = 7,
              IUnknown** open = nullptr);
  // The columns and rows of a rowset, which is released.
  static void Read(IUnknown* rowset, DBROWCOUNT batch, Outcome* out);
  // SetCommandText and Prepare only; the columns are those the command describes.
  Outcome Prepare(const std::string& sql);
  // A schema rowset read like a statement's rows: `request` is its name without DBSCHEMA_,
  // then its restrictions; an empty restriction is none, digits are an I4.
  Outcome Schema(const std::vector<std::string>& request, DBROWCOUNT batch = 7);
  // Every sample of every tag, read from the store: tag | seconds after 2020-01-01 00:00:00 UTC | value |
  // quality (hex).
  Rows Contents() const;

 protected:
  std::shared_ptr<historian::CHistorianStore> store_;
  testing::CFaultInjectingHost* host_ = nullptr;
  IUnknown* dataSource_ = nullptr;
  IOpenRowset* session_ = nullptr;
  ICommandText* command_ = nullptr;
};

// The consumer as a fixture: a SqlConsumer, open, over "Area1.Temp" (VT_R8) and "Area1.Text" (VT_BSTR), one sample
// every minute ending one minute before the test starts, so that the default 72-hour range holds them all.
class ConsumerTest : public LeakCheckedTest, public SqlConsumer {
 public:
  // The records of the failed call on this thread, taken (the thread is left clean).
  static LastError TakeLastError();

 protected:
  static constexpr int kSamples = 30;

  void SetUp() override;
  void TearDown() override;
};

// The values of a statement's `?` as wide texts, one Cell each, bound for input.
struct TextParameters {
  std::vector<Cell> slots;
  std::vector<DBBINDING> bindings;
  explicit TextParameters(const std::vector<Parameter>& values);
};

// The reference historian over `store`, with its aggregates, behind a fault-injecting host that has one reference.
testing::CFaultInjectingHost* NewHost(std::shared_ptr<historian::CHistorianStore> store);
// Creates the provider over `host` (linked in, or the registered DLL), sets its catalog
// to "Plant", initialises it and opens a session.
void OpenProvider(IUnknown* host, IUnknown** dataSource, IOpenRowset** session, const std::string& providerString = {});
// Releases the session, uninitialises the data source and checks that its last
// reference goes with the consumer's; clears the thread's error records.
void CloseProvider(IUnknown** dataSource, IOpenRowset** session);

// Every row of `rowset` as wide text (512 characters) of the given columns (all when
// empty), through ReadRows; a null cell reads as "<null>". With `failure`, a failing fetch
// is given back there (its records in `error`) instead of failing the test.
std::vector<std::vector<std::string>> ReadAll(IUnknown* rowset, std::vector<DBORDINAL> columns,
                                              DBROWCOUNT batch = 7, HRESULT* failure = nullptr,
                                              LastError* error = nullptr, bool hold = false);
// The columns of a rowset or prepared command.
std::vector<ColumnInfo> Columns(IUnknown* object);
// The host operation of a name ("ReadRaw"...), as case files and the fault sweep's reports write them; false for an
// unknown name.
bool HostOpNamed(const std::string& name, HostOp* op);
const char* HostOpName(HostOp op);
// "2020-01-01 00:00:05" (".250" when there are milliseconds), as case files write times.
std::string TimeText(ULONGLONG ticks);

}  // namespace corvane::test
