#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/Platform.h"

#ifndef _WIN32
using corvane::platform::AddErrorRecord;
using corvane::platform::ClearErrorRecords;
using corvane::platform::ErrorRecord;
using corvane::platform::ErrorRecordCount;
using corvane::platform::GetErrorRecord;
using corvane::platform::TakeErrorRecords;

namespace {
ErrorRecord Record(HRESULT hr, REFIID iid, const char16_t* source, const char16_t* description, DWORD lookup) {
  ErrorRecord r;
  r.info.hrError = hr;
  r.info.iid = iid;
  r.info.dwMinor = lookup;
  r.lookupId = lookup;
  r.source = source;
  r.description = description;
  return r;
}
}  // namespace

TEST(ErrorRecords, KeepThePostingOrderPerThreadAndAreTakenWhole) {
  ClearErrorRecords();
  AddErrorRecord(Record(E_FAIL, IID_IDBInitialize, u"CProviderDataSource class", u"first", 0));
  AddErrorRecord(Record(DB_E_NOTABLE, IID_ICommand, u"CProviderCommand class", u"second", 7));
  std::atomic<size_t> seenOnWorker{99};
  std::u16string workerFirst;
  std::thread([&] {
    seenOnWorker = ErrorRecordCount();
    AddErrorRecord(Record(E_INVALIDARG, IID_IOpenRowset, u"worker", u"worker thread", 0));
    ErrorRecord r;
    if (GetErrorRecord(0, r)) workerFirst = r.description;
  }).join();
  EXPECT_EQ(seenOnWorker, 0u);
  EXPECT_EQ(workerFirst, u"worker thread");
  ASSERT_EQ(ErrorRecordCount(), 2u) << "the worker's record stayed on the worker";

  ErrorRecord r;
  ASSERT_TRUE(GetErrorRecord(0, r));
  EXPECT_EQ(r.info.hrError, E_FAIL);
  EXPECT_TRUE(IsEqualIID(r.info.iid, IID_IDBInitialize));
  EXPECT_EQ(r.source, u"CProviderDataSource class");
  EXPECT_EQ(r.description, u"first");
  ASSERT_TRUE(GetErrorRecord(1, r));
  EXPECT_EQ(r.info.hrError, DB_E_NOTABLE);
  EXPECT_EQ(r.lookupId, 7u);
  EXPECT_FALSE(GetErrorRecord(2, r));
  auto taken = TakeErrorRecords();
  ASSERT_EQ(taken.size(), 2u);
  EXPECT_EQ(taken[1].source, u"CProviderCommand class");
  EXPECT_EQ(ErrorRecordCount(), 0u) << "taking empties the list";
}
#endif  // !_WIN32
