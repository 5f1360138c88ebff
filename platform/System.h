// The few operating-system services outside COM that differ between the targets.
#pragma once
#include <cstdio>
#include <string>

namespace corvane::platform {

// fopen with a UTF-8 path: on Windows through the wide-character call, so that paths
// keep their non-ASCII letters.
FILE* OpenFile(const std::string& utf8Path, const char* mode);

// The process environment's variable `name` (on Windows the process environment, not
// the C run-time's copy, so that a host's SetEnvironmentVariable is seen). False when
// it is not set.
bool ReadEnvironment(const char* name, std::string* utf8Value);

// The calling thread's last system error number (GetLastError or errno).
int LastSystemError();

}  // namespace corvane::platform
