// OLE DB declarations (structures, constants, result codes, GUIDs and interfaces) with
// their published values. Declarations are added as the provider comes to need them.
#pragma once
#ifndef _WIN32
#include "Types.h"

typedef WORD DBTYPE;
typedef ULONGLONG DBLENGTH;
typedef LONGLONG DBROWOFFSET;
typedef LONGLONG DBROWCOUNT;
typedef ULONGLONG DBCOUNTITEM;
typedef ULONGLONG DBORDINAL;
typedef LONGLONG DB_LORDINAL;
typedef ULONGLONG DBBYTEOFFSET;
typedef ULONGLONG DBREFCOUNT;
typedef ULONGLONG DB_UPARAMS;
typedef LONGLONG DB_LPARAMS;
typedef DWORD DBHASHVALUE;
typedef ULONG_PTR HACCESSOR;
typedef ULONG_PTR HROW;
typedef ULONG_PTR HCHAPTER;
typedef DWORD DBSTATUS;

struct DBTIMESTAMP {
  SHORT year;
  USHORT month;
  USHORT day;
  USHORT hour;
  USHORT minute;
  USHORT second;
  ULONG fraction;  // billionths of a second
};
struct DBDATE {
  SHORT year;
  USHORT month;
  USHORT day;
};
struct DBTIME {
  USHORT hour;
  USHORT minute;
  USHORT second;
};

#endif  // !_WIN32
