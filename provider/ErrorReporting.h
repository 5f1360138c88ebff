// Posting a failure's description (see base/ResultCodes.h) as an error record of the
// calling thread, where OLE DB consumers read it.
#pragma once
#include "base/ResultCodes.h"

namespace corvane {

// Adds one record (interface, HRESULT, source, description) to this thread's error
// object, behind any records already posted during the same call. On Windows this is
// the system's OLE DB error object; on POSIX the platform's per-thread records. Either
// way the record's lookup id, which is also its ERRORINFO's dwMinor, gives back the
// same source and description from the provider's error lookup service (CErrorLookup),
// which is how consumers that read the standard error interfaces see the text.
HRESULT PostErrorRecord(REFIID iid, HRESULT hr, const OLECHAR* source, const OLECHAR* description);
// Describes the failure and posts it in one step.
HRESULT PostFailure(REFIID iid, HRESULT hr, const OLECHAR* source);

// Drops whatever error object the thread holds: every OLE DB entry point starts with
// this so that the records a consumer reads after a failure belong to that call only.
void ClearErrorRecords();

}  // namespace corvane
