#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "platform/AllocCounters.h"
#include "platform/Platform.h"
#include "tests/support/LeakCheckedTest.h"

using corvane::platform::AllocCounts;
using corvane::platform::CurrentAllocCounts;

namespace {

::testing::AssertionResult CountsAre(const AllocCounts& base, int64_t blocks, int64_t bstrs) {
  const AllocCounts now = CurrentAllocCounts();
  if (now.comBlocks - base.comBlocks == blocks && now.bstrs - base.bstrs == bstrs)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "expected +" << blocks << " blocks / +" << bstrs << " BSTRs, got +"
                                       << now.comBlocks - base.comBlocks << " / +" << now.bstrs - base.bstrs;
}

}  // namespace

TEST(AllocationCounting, CountsTaskMemoryAndBstrsApart) {
  const AllocCounts base = CurrentAllocCounts();
  void* block = CoTaskMemAlloc(32);
  ASSERT_NE(block, nullptr);
  EXPECT_TRUE(CountsAre(base, 1, 0));

  BSTR text = SysAllocString(OLESTR("counted"));
  ASSERT_NE(text, nullptr);
  EXPECT_TRUE(CountsAre(base, 1, 1));

  // A VARIANT's BSTR payload is released by VariantClear.
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_BSTR;
  v.bstrVal = SysAllocString(OLESTR("payload"));
  EXPECT_TRUE(CountsAre(base, 1, 2));
  VariantClear(&v);

  SysFreeString(text);
  CoTaskMemFree(block);
  EXPECT_TRUE(CountsAre(base, 0, 0));
  // Freeing null is not a block.
  CoTaskMemFree(nullptr);
  SysFreeString(nullptr);
  EXPECT_TRUE(CountsAre(base, 0, 0));
}

class LeakCheckedFixture : public corvane::test::LeakCheckedTest {
 protected:
  static AllocCounts start_;
};
AllocCounts LeakCheckedFixture::start_;

TEST_F(LeakCheckedFixture, FailsATestThatLeavesABlockOrBstr) {
  start_ = Baseline();
  void* block = CoTaskMemAlloc(8);
  EXPECT_NONFATAL_FAILURE(ExpectNothingOutstandingSince(start_), "1 COM block(s), 0 BSTR(s)");
  BSTR text = SysAllocString(OLESTR("left behind"));
  EXPECT_NONFATAL_FAILURE(ExpectNothingOutstandingSince(start_), "1 COM block(s), 1 BSTR(s)");
  CoTaskMemFree(block);
  EXPECT_NONFATAL_FAILURE(ExpectNothingOutstandingSince(start_), "0 COM block(s), 1 BSTR(s)");
  SysFreeString(text);
  // Everything is back: the fixture's own check at the end of this test passes.
}
