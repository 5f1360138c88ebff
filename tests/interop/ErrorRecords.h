// The ERRORINFO of every error record a failed call left on this thread, oldest first
// (the system's error object numbers them from the newest, the POSIX records from the
// oldest); the records are dropped.
#pragma once
#include <gtest/gtest.h>

#include <vector>

#include "base/ComPtr.h"
#include "platform/Platform.h"

namespace corvane::test {

inline std::vector<ERRORINFO> TakeRecords() {
  std::vector<ERRORINFO> infos;
#ifdef _WIN32
  ComPtr<IErrorInfo> object;
  if (GetErrorInfo(0, object.Put()) != S_OK) return infos;
  ComPtr<IErrorRecords> records = QueryAs<IErrorRecords>(object.Get(), IID_IErrorRecords);
  ULONG count = 0;
  if (records) records->GetRecordCount(&count);
  for (ULONG i = count; i-- > 0;) {
    infos.emplace_back();
    EXPECT_EQ(S_OK, records->GetBasicErrorInfo(i, &infos.back()));
  }
#else
  for (const auto& record : platform::TakeErrorRecords()) infos.push_back(record.info);
#endif
  return infos;
}

}  // namespace corvane::test
