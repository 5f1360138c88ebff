// Per-thread OLE DB error records for POSIX, where there are no system error objects:
// each record has the shape of an IErrorRecords entry (interface id, HRESULT, source,
// description, lookup id) and a consumer on the same thread reads them back.
#pragma once
#ifndef _WIN32
#include "Types.h"
#endif
