#include <chrono>

#include "tests/historian/HistorianTestUtil.h"
#include "tests/support/FaultInjectingHost.h"

namespace corvane::historian::test {
namespace {

using corvane::testing::CFaultInjectingHost;
using Op = CFaultInjectingHost::Op;

class FaultHost : public HistorianFixture {
 protected:
  void SetUp() override {
    HistorianFixture::SetUp();
    AddSeries(OLESTR("T"), 250);
    host_ = CFaultInjectingHost::Create(raw_);
  }
  void TearDown() override {
    EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
    host_->Release();
    HistorianFixture::TearDown();
  }
  CFaultInjectingHost* host_ = nullptr;
};

TEST_F(FaultHost, FailsTheChosenCallAndCountsItsContinuationPoints) {
  host_->FailCall(Op::ReadRaw, 2, E_FAIL);
  TagIdent t = Ident(OLESTR("T"));
  void* cp = nullptr;
  HistoryValueList* list = nullptr;
  ASSERT_EQ(S_OK, host_->ReadRaw(&t, Ft(kT0), Ft(kT0 + 999 * kSecond), 100, 1, &cp, &list));
  FreeHistoryValueList(list);
  ASSERT_NE(nullptr, cp);
  EXPECT_EQ(1u, host_->OutstandingContinuationPoints());
  EXPECT_EQ(E_FAIL, host_->ReadRaw(&t, Ft(kT0), Ft(kT0 + 999 * kSecond), 100, 1, &cp, &list));
  EXPECT_EQ(nullptr, list);
  EXPECT_NE(nullptr, cp);  // still pending: the caller must release it
  EXPECT_EQ(1u, host_->OutstandingContinuationPoints());
  // The third call goes through again and resumes where the first stopped.
  ASSERT_EQ(S_OK, host_->ReadRaw(&t, Ft(kT0), Ft(kT0 + 999 * kSecond), 100, 1, &cp, &list));
  ASSERT_EQ(100u, list->count);
  EXPECT_EQ(100.0, list->values[0].value.dblVal);
  FreeHistoryValueList(list);
  EXPECT_EQ(S_OK, host_->ReleaseContinuationPoint(&cp));
  EXPECT_EQ(0u, host_->OutstandingContinuationPoints());
  EXPECT_EQ(3u, host_->Calls(Op::ReadRaw));

  host_->FailCall(Op::GetTagInfo, 0, E_OUTOFMEMORY);  // every call from now on
  VARTYPE vt;
  EXPECT_EQ(E_OUTOFMEMORY, host_->GetTagInfo(&t, &vt));
  EXPECT_EQ(E_OUTOFMEMORY, host_->GetTagInfo(&t, &vt));
}

TEST_F(FaultHost, ForcesThePageSizeAndAddsLatency) {
  host_->ForcePageSize(30);
  host_->SetLatencyMs(20);
  TagIdent t = Ident(OLESTR("T"));
  void* cp = nullptr;
  size_t total = 0;
  const auto began = std::chrono::steady_clock::now();
  do {
    HistoryValueList* list = nullptr;
    ASSERT_EQ(S_OK, host_->ReadRaw(&t, Ft(kT0), Ft(kT0 + 999 * kSecond), 100, 1, &cp, &list));
    EXPECT_LE(list->count, 30u);
    total += list->count;
    FreeHistoryValueList(list);
  } while (cp);
  const auto elapsed = std::chrono::steady_clock::now() - began;
  EXPECT_EQ(250u, total);
  EXPECT_EQ(9u, host_->Calls(Op::ReadRaw));  // 8 pages of 30 and one of 10
  EXPECT_GE(elapsed, std::chrono::milliseconds(9 * 20));
}

}  // namespace
}  // namespace corvane::historian::test
