#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/Platform.h"

// What a record carries (interface, source, description) is read back through the data
// source's own failures in tests/datasource; here, the list itself.
#ifndef _WIN32
using corvane::platform::ErrorRecord;

namespace {
void Post(HRESULT hr, const char16_t* description) {
  ErrorRecord r;
  r.info.hrError = hr;
  r.description = description;
  corvane::platform::AddErrorRecord(r);
}
}  // namespace

TEST(ErrorRecords, KeepThePostingOrderPerThreadAndAreTakenWhole) {
  corvane::platform::ClearErrorRecords();
  Post(E_FAIL, u"first");
  Post(DB_E_NOTABLE, u"second");
  size_t seenOnWorker = 99;
  std::u16string workerFirst;
  std::thread([&] {
    seenOnWorker = corvane::platform::ErrorRecordCount();
    Post(E_INVALIDARG, u"worker thread");
    ErrorRecord r;
    if (corvane::platform::GetErrorRecord(0, r)) workerFirst = r.description;
  }).join();
  EXPECT_EQ(seenOnWorker, 0u);
  EXPECT_EQ(workerFirst, u"worker thread");

  ErrorRecord r;
  ASSERT_TRUE(corvane::platform::GetErrorRecord(1, r));
  EXPECT_EQ(r.description, u"second");
  EXPECT_FALSE(corvane::platform::GetErrorRecord(2, r));
  auto taken = corvane::platform::TakeErrorRecords();
  ASSERT_EQ(taken.size(), 2u) << "the worker's record stayed on the worker";
  EXPECT_EQ(taken[0].info.hrError, E_FAIL);
  EXPECT_EQ(corvane::platform::ErrorRecordCount(), 0u) << "taking empties the list";
}
#endif  // !_WIN32
