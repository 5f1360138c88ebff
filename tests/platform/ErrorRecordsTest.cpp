#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/Platform.h"

namespace {

// A minimal error object: enough to see references taken and given back.
class FakeErrorInfo final : public IErrorInfo {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IErrorInfo)) {
      *ppv = static_cast<IErrorInfo*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }
  // Nothing to describe: every part reads as empty.
  HRESULT STDMETHODCALLTYPE GetGUID(GUID* g) override { return *g = GUID_NULL, S_OK; }
  HRESULT STDMETHODCALLTYPE GetSource(BSTR* s) override { return *s = nullptr, S_OK; }
  HRESULT STDMETHODCALLTYPE GetDescription(BSTR* s) override { return *s = nullptr, S_OK; }
  HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* s) override { return *s = nullptr, S_OK; }
  HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* c) override { return *c = 0, S_OK; }
  std::atomic<ULONG> refs{1};
};

}  // namespace

TEST(ErrorObjectSlot, HandsTheObjectOverOnceAndIsPerThread) {
  FakeErrorInfo info;
  ASSERT_EQ(SetErrorInfo(0, &info), S_OK);
  EXPECT_EQ(info.refs, 2u) << "the slot holds a reference";

  IErrorInfo* seenElsewhere = &info;
  HRESULT hrElsewhere = E_FAIL;
  std::thread([&] { hrElsewhere = GetErrorInfo(0, &seenElsewhere); }).join();
  EXPECT_EQ(hrElsewhere, S_FALSE) << "another thread has no error object";
  EXPECT_EQ(seenElsewhere, nullptr);

  IErrorInfo* got = nullptr;
  ASSERT_EQ(GetErrorInfo(0, &got), S_OK);
  EXPECT_EQ(got, &info);
  EXPECT_EQ(info.refs, 2u) << "the slot's reference passes to the caller";
  got->Release();
  EXPECT_EQ(GetErrorInfo(0, &got), S_FALSE) << "reading clears the slot";
  EXPECT_EQ(got, nullptr);

  ASSERT_EQ(SetErrorInfo(0, &info), S_OK);
  ASSERT_EQ(SetErrorInfo(0, nullptr), S_OK);
  EXPECT_EQ(info.refs, 1u) << "clearing the slot releases the object";
}

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
