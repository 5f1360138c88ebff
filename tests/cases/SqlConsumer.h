// What the case runner and the fault sweep add to the shared consumer
// (tests/session/ConsumerFixture.h): host operations by name and times as case files write them.
#pragma once
#include <string>

#include "tests/session/ConsumerFixture.h"

namespace corvane::test {

// The host operation of a name ("ReadRaw"...); false for an unknown name.
bool HostOpNamed(const std::string& name, HostOp* op);
const char* HostOpName(HostOp op);
// "2020-01-01 00:00:05" (".250" when there are milliseconds).
std::string TimeText(ULONGLONG ticks);

}  // namespace corvane::test
