// The calling thread's OLE DB error object: on Windows the system's (oledb32), on POSIX
// the platform's per-thread records. The provider decides what a record says; this is
// only where it goes.
#pragma once
#include "platform/Platform.h"

namespace corvane::platform {

// Adds one record behind any the thread's error object already holds, with
// `info.dwMinor` as its lookup and dynamic error id. S_OK when it went in as a record;
// S_FALSE when no error object that keeps records could be had and the description
// went out as a plain OLE Automation error object instead (the id then names nothing);
// a failure code when nothing was posted.
HRESULT PostThreadErrorRecord(const ERRORINFO& info, const OLECHAR* source, const OLECHAR* description);

// Drops whatever error object the thread holds.
void ClearThreadErrorObject();

}  // namespace corvane::platform
