// The rowset a command's Execute returns: it runs one parsed statement against the
// table catalog (SELECT into a streaming data store; INSERT, UPDATE and DELETE on
// RAWDATA and UPDATE of QUERYSETTINGS carried out at once, answered by a one-row
// result) and then serves the rows through the shared rowset core.
//
// ORDER BY is not a sort: only TIMESTAMP DESC has an effect (the historian is asked
// for the range newest first); every other ordering leaves the historian's order.
#pragma once
#include <memory>

#include "SQLParser/SQLExpression.h"
#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/IProviderDataSource.h"
#include "provider/ProviderIRowset.h"
#include "provider/execution/StatementPlan.h"

// What the command hands to one execution. Nothing here is taken over: the execution
// adds its own references and copies what it keeps.
struct CommandExecutionRequest {
  // The session's data source: historian interfaces and query settings. Required.
  IProviderDataSource* dataSource = nullptr;
  // The command; the rowset holds it and answers IRowsetInfo::GetSpecification with it.
  IUnknown* creator = nullptr;
  // The command text, for the trace.
  corvane::WStringView commandText;
  // The prepared statement to run. Without one, the execution parses `commandText` with
  // the default catalog and schema below and plans it for this one run.
  std::shared_ptr<const StatementPlan> plan;
  corvane::WStringView defaultCatalog;
  corvane::WStringView defaultSchema;
  // The `?` values (numbered from 1) and the execution moment, local and UTC, that
  // every NOW() and NOWUTC() of the statement sees.
  SQLBindContext binding;
  // Optional: receives what the consumer should be told about a failure when there is
  // more to say than its HRESULT (a function's message, the condition a data change
  // cannot honour); left as it is otherwise.
  corvane::WString* message = nullptr;
};

class CCommandProviderRowset final : public CProviderIRowset {
 public:
  // Runs the statement. The data source's computed time range is refreshed by the
  // command beforehand (UpdateQueryTimeRange); this reads it as it stands.
  //   *pcRowsAffected (optional): the samples a RAWDATA UPDATE or DELETE changed, 1 for
  //   any other data change, -1 for a SELECT.
  //   ppRowset (optional): receives interface `riid` of the new rowset; with a null
  //   ppRowset or IID_NULL the statement still runs (data changes take effect) and no
  //   rowset is returned.
  // Failures are the statement's HRESULT (the provider codes 0x8004C001..0x8004C008,
  // E_FAIL, E_INVALIDARG, E_NOTIMPL, parse errors, historian errors); nothing is
  // returned in *ppRowset then. Error records are the caller's to post.
  static HRESULT Execute(const CommandExecutionRequest& request, DBROWCOUNT* pcRowsAffected, REFIID riid,
                         IUnknown** ppRowset);

 private:
  CCommandProviderRowset(std::unique_ptr<CDataStore> store, IUnknown* creator);
  ~CCommandProviderRowset() override = default;
};
