// The fixed catalog of stored procedures, one entry per procedure: its input parameters
// and output columns with their types and sizes, whether the schema rowsets list it, and
// how to make it. Execution looks procedures up here and makes them from their entry;
// the procedure schema rowsets list what EnumerateProcedures returns. A new procedure is
// its class plus one entry in ProcedureCatalog.cpp.
#pragma once
#include <memory>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/tables/TableFactory.h"

struct ProcedureParameterInfo {
  LONGLONG ParamType = DBPARAMTYPE_INPUT;
  LONGLONG Ordinal = 0;  // from 1
  corvane::WString Name;
  DBTYPE wType = DBTYPE_EMPTY;
  BYTE Precision = 255;
  BYTE Scale = 255;
};

struct ProcedureColumnInfo {
  corvane::WString Name;
  LONGLONG Ordinal = 0;  // from 1
  DWORD dwFlags = 1;
  DBTYPE wType = DBTYPE_EMPTY;
  ULONGLONG ColumnSize = 0;
  BYTE Precision = 255;
  BYTE Scale = 255;
};

class CBaseStoredProcedure;
struct StoredProcedureCall;

// Makes the procedure object of a call (see ProcedureFactory.h); `catalog` and `schema`
// qualify its tag names.
using ProcedureMaker = std::unique_ptr<CBaseStoredProcedure> (*)(const StoredProcedureCall& call,
                                                                 const corvane::WString& catalog,
                                                                 const corvane::WString& schema);

struct ProcedureInfo {
  corvane::WString Name;  // as the catalog spells it (upper case)
  corvane::WString Description;
  corvane::WString Definition;
  SHORT ProcedureType = DB_PT_PROCEDURE;
  std::vector<ProcedureParameterInfo> Parameters;
  std::vector<ProcedureColumnInfo> Columns;
  // The procedure seen as a table (by a SELECT, by Prepare and by its own rows): its
  // output columns as column records, made once with the catalog.
  TableInfo Table;
  bool Listed = true;  // shown by the schema rowsets (GET_VALUES is callable but not listed)
  ProcedureMaker Make = nullptr;
};

// The catalog's own entry of a procedure, looked up ignoring case (it lives as long as
// the process), or null. A null name is unknown.
const ProcedureInfo* FindProcedure(const OLECHAR* name);
// The procedures the schema rowsets list, in the order they list them.
void EnumerateProcedures(std::vector<ProcedureInfo>* procedures);
