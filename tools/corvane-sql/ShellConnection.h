// The shell's connection: it builds a reference historian (demo plant and/or CSV
// files), brings the provider up over it through ICreateCorvaneOleDbProvider, and runs
// statements through a session and a command exactly as any OLE DB consumer would,
// handing rows to a sink and failures back as the provider's error records.
#pragma once
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "base/ComPtr.h"
#include "platform/Platform.h"
#include "tools/corvane-sql/ResultFormatter.h"

namespace corvane::shell {

struct ConnectionOptions {
  bool demo = true;
  std::vector<std::string> csvFiles;
  std::string providerString;  // DBPROP_INIT_PROVIDERSTRING when not empty
  std::string catalog;         // DBPROP_INIT_CATALOG when not empty
};

// One `?` value: the type name given to SetParameterInfo, the type it is bound as,
// and its text.
struct Parameter {
  std::string typeName = "DBTYPE_WSTR";
  DBTYPE type = DBTYPE_WSTR;
  std::string value;
  // Reads "VALUE" or "DBTYPE_X:VALUE"; false (with a reason) for an unknown type.
  static bool Parse(const std::string& text, Parameter* parameter, std::string* error);
};

struct Failure {
  HRESULT hr = S_OK;
  std::vector<std::string> descriptions;  // one per error record, oldest first
};

// Called after each batch of rows with the number fetched so far.
using ProgressCallback = std::function<void(size_t rows)>;

class CShellConnection {
 public:
  CShellConnection() = default;
  ~CShellConnection() { Close(); }
  CShellConnection(const CShellConnection&) = delete;
  CShellConnection& operator=(const CShellConnection&) = delete;

  // Loads the historian and initialises the provider. On failure `message` says why and
  // `loadFailed` tells a bad data file apart from a provider failure.
  HRESULT Open(const ConnectionOptions& options, Failure* failure, std::string* message, bool* loadFailed);
  void Close();

  // Runs one statement. A failure fills `failure` from the error records; a fetch
  // stopped by `cancel` returns E_ABORT after the rowset has been released. `used`, when
  // given, receives how many of `parameters` the statement takes (once it is prepared).
  HRESULT Execute(const std::string& sql, const std::vector<Parameter>& parameters, IRowSink& sink,
                  const std::atomic<bool>& cancel, const ProgressCallback& progress, Failure* failure,
                  size_t* used = nullptr);

  // A schema rowset (DBSCHEMA_TABLES...), restricted by text values in order (empty
  // entries are no restriction), written to `sink`.
  HRESULT Schema(REFGUID schema, const std::vector<std::string>& restrictions, IRowSink& sink, Failure* failure);

 private:
  HRESULT ReadRowset(IUnknown* rowset, IRowSink& sink, const std::atomic<bool>& cancel,
                     const ProgressCallback& progress);

  ComPtr<IUnknown> host_;
  ComPtr<IUnknown> dataSource_;
  ComPtr<IUnknown> session_;
  bool initialized_ = false;
};

// The error records of the call that just failed on this thread, taken.
Failure TakeFailure(HRESULT hr);

}  // namespace corvane::shell
