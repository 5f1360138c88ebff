// Creates the stored procedure object that serves a parsed EXEC / CALL statement (or a
// procedure named in FROM). The object is a CDataProvider: hand it to
// CDataStore::Initialize with the columns of GetColumns, as for a table.
//
// A procedure checks its arguments, reads its tag and starts its worker in Execute(),
// or at the latest in its first FetchRows; both return the same failure (the checks run
// once). Calling Execute() right after creation lets the command report a bad call from
// its own Execute rather than from the first fetch.
#pragma once
#include <memory>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLQueryInfo.h"
#include "platform/WideString.h"
#include "provider/IProviderDataSource.h"

class CBaseStoredProcedure;
struct ProcedureInfo;

struct StoredProcedureCall {
  // The parsed statement and its procedure item (one of query->FromItems()). Both are
  // read during CreateStoredProcedure only: the procedure keeps its own bound copy of
  // the arguments, so the command may re-prepare while the rowset lives.
  const CSQLQueryInfo* query = nullptr;
  const CSQLSelectItemSP* item = nullptr;
  // The item's catalog entry when the caller has looked it up already; null looks it up.
  const ProcedureInfo* info = nullptr;
  // The execution's `?` values and reference times. The values are copied.
  SQLBindContext bindContext;
  // Referenced by the procedure for its whole life (settings and historian interfaces).
  IProviderDataSource* dataSource = nullptr;
  // The catalog and schema that qualify tag names; empty takes the item's own.
  corvane::WString catalog;
  corvane::WString schema;
};

// S_OK and the procedure in *procedure; E_INVALIDARG for a missing query, item, data
// source or output; 0x8004C007 when the item names no procedure of the catalog.
HRESULT CreateStoredProcedure(const StoredProcedureCall& call, std::unique_ptr<CBaseStoredProcedure>* procedure);
