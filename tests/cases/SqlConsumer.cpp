#include "tests/cases/SqlConsumer.h"

#include <cstdio>

namespace corvane::test {

#define CORVANE_HOST_OP_NAME(name) #name,
const char* const kOpNames[] = {CORVANE_HOST_OPERATIONS(CORVANE_HOST_OP_NAME)};
#undef CORVANE_HOST_OP_NAME

bool HostOpNamed(const std::string& name, HostOp* op) {
  for (int i = 0; i < static_cast<int>(HostOp::Count); ++i)
    if (name == kOpNames[i]) return *op = static_cast<HostOp>(i), true;
  return false;
}

const char* HostOpName(HostOp op) { return kOpNames[static_cast<int>(op)]; }

std::string TimeText(ULONGLONG ticks) {
  const FILETIME ft = U64ToFileTime(ticks);
  SYSTEMTIME st{};
  FileTimeToSystemTime(&ft, &st);
  char text[40];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond);
  std::string out = text;
  if (st.wMilliseconds) {
    std::snprintf(text, sizeof text, ".%03u", st.wMilliseconds);
    out += text;
  }
  return out;
}

}  // namespace corvane::test
