// An OLE DB consumer of the provider over a reference historian behind the
// fault-injecting host: one data source, one session, one command. Statements run with
// their rows held until the end and then read back as text, as a consumer that keeps
// rows does; the historian's whole contents can be dumped to compare before and after.
// Built with CORVANE_CONSUMER_OF_DLL it creates the provider from the registered DLL.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "historian/HistorianStore.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/FaultInjectingHost.h"

namespace corvane::test {

using Rows = std::vector<std::vector<std::string>>;
using HostOp = testing::CFaultInjectingHost::Op;

// The host operation of a name ("ReadRaw"...); false for an unknown name.
bool HostOpNamed(const std::string& name, HostOp* op);
const char* HostOpName(HostOp op);

// One `?`: bound as text, described to the command as `type` unless that is empty.
struct Parameter {
  std::string type;
  std::string value;
  bool null = false;
};

struct Outcome {
  HRESULT hr = S_OK;  // the first failure of Execute or GetNextRows
  bool atExecute = false;
  LastError error;  // the records of that failure
  DBROWCOUNT affected = DB_COUNTUNAVAILABLE;  // what Execute counted
  std::vector<std::pair<std::string, DBTYPE>> columns;
  Rows rows;  // every row delivered before the end or the failure; a null reads "<null>"
};

class SqlConsumer {
 public:
  // The historian and the host; the provider comes with Open.
  explicit SqlConsumer(std::shared_ptr<historian::CHistorianStore> store = std::make_shared<historian::CHistorianStore>());
  ~SqlConsumer();
  SqlConsumer(const SqlConsumer&) = delete;
  SqlConsumer& operator=(const SqlConsumer&) = delete;

  historian::CHistorianStore& Store() { return *store_; }
  testing::CFaultInjectingHost& Host() { return *host_; }
  bool IsOpen() const { return command_ != nullptr; }

  // Creates the provider over the host with catalog "Plant" and, when given, the
  // provider string; initialises it and opens a session and a command.
  void Open(const std::string& providerString = {});
  // SetCommandText, Execute, then GetNextRows `batch` rows at a time until the end or a
  // failure, holding every row; then GetData of each held row and one ReleaseRows.
  // An empty `sql` executes the command's text again. With `open`, the rowset is handed
  // back unread, to Read later.
  Outcome Run(const std::string& sql, const std::vector<Parameter>& parameters = {}, DBROWCOUNT batch = 7,
              IUnknown** open = nullptr);
  // The columns and rows of a rowset, which is released.
  static void Read(IUnknown* rowset, DBROWCOUNT batch, Outcome* out);
  // SetCommandText and Prepare only; the columns are those the command describes.
  Outcome Prepare(const std::string& sql);
  // A schema rowset read like a statement's rows: `request` is "NAME | restriction | ...",
  // NAME without its DBSCHEMA_ prefix; an empty restriction is none, digits are an I4.
  Outcome Schema(const std::string& request, DBROWCOUNT batch = 7);
  // Every sample of every tag, read from the store: tag | seconds after 2020-01-01 00:00:00 UTC | value |
  // quality (hex).
  Rows Contents() const;

 private:
  std::shared_ptr<historian::CHistorianStore> store_;
  testing::CFaultInjectingHost* host_ = nullptr;
  IUnknown* dataSource_ = nullptr;
  IOpenRowset* session_ = nullptr;
  ICommandText* command_ = nullptr;
};

// "2020-01-01 00:00:05" (".250" when there are milliseconds).
std::string TimeText(ULONGLONG ticks);

}  // namespace corvane::test
