#include "SQLParser/SQLResources.h"

#include <new>

namespace {

struct StringResource {
  UINT id;
  const OLECHAR* text;
};

const StringResource kStrings[] = {
    {IDS_SQL_FROM_MISSING, OLESTR("SQL query parsing FAILED. The FROM clause is missing in the SQL query: ")},
    {IDS_SQL_SELECT_LIST_ERROR,
     OLESTR("Failed to parse the query. SELECT clause can be followed by column(s), * or by the TOP clause. SQL "
            "query: ")},
    {IDS_SQL_FROM_LIST_ERROR, OLESTR("Failed to parse the query. FROM clause must be followed by the table(s). SQL query: ")},
    {IDS_SQL_WHERE_ERROR, OLESTR("Failed to parse the query. Found error in the WHERE clause. SQL query: ")},
    {IDS_SQL_LIMIT_ERROR, OLESTR("Failed to parse the query. Found error in the LIMIT clause. SQL query: ")},
    {IDS_SQL_PARSE_FAILED, OLESTR("SQL query parsing FAILED. SQL query: ")},
};

}  // namespace

const OLECHAR* LoadSQLString(UINT id) {
  for (const auto& s : kStrings)
    if (s.id == id) return s.text;
  return nullptr;
}

HRESULT FormatSQLString(UINT id, corvane::WStringView queryText, corvane::WString* message) {
  const OLECHAR* text = LoadSQLString(id);
  if (!text || !message) return E_INVALIDARG;
  try {
    corvane::WString result(text);
    result += OLESTR('"');
    result.append(queryText.data(), queryText.size());
    result += OLESTR("\".");
    *message = std::move(result);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}
