// The user-facing texts of the SQL front end, kept in one table by resource identifier
// so that the command object can show them without knowing their wording.
#pragma once
#include "platform/WideString.h"

enum : UINT {
  IDS_SQL_FROM_MISSING = 101,
  IDS_SQL_SELECT_LIST_ERROR = 201,
  IDS_SQL_FROM_LIST_ERROR = 202,
  IDS_SQL_WHERE_ERROR = 203,
  IDS_SQL_LIMIT_ERROR = 204,
  IDS_SQL_PARSE_FAILED = 330,
};

// The text of a resource; null for an unknown identifier.
const OLECHAR* LoadSQLString(UINT id);

// The text of a resource followed by the query in double quotes and a full stop.
// E_INVALIDARG for an unknown identifier or a null output.
HRESULT FormatSQLString(UINT id, corvane::WStringView queryText, corvane::WString* message);
