// The SQL front end's entry point: turns the text of one command into a CSQLQueryInfo.
// Keeps no state between calls; any number of threads may parse at once.
#pragma once
#include <memory>

#include "SQLParser/SQLQueryInfo.h"

// What to parse: names that tables and procedures get when written without catalog or
// schema, and the command text.
struct SQLParseRequest {
  corvane::WStringView defaultCatalog;
  corvane::WStringView defaultSchema;
  corvane::WStringView queryText;
};

class CSQLParser {
 public:
  // S_OK with the query in *query; S_OK and *query untouched for an empty text;
  // otherwise the failure (E_FAIL for a grammar error, the lexer's or conversion's code,
  // E_OUTOFMEMORY, E_INVALIDARG for a null `query`) with nothing allocated. `errorInfo`,
  // when given, receives the clause message ("Failed to parse the query: '...'. ...")
  // or an empty text.
  static HRESULT ParseQuery(const SQLParseRequest& request, std::unique_ptr<CSQLQueryInfo>* query,
                            corvane::WString* errorInfo = nullptr);
};
