#include "tests/support/LeakCheckedTest.h"

namespace corvane::test {

void LeakCheckedTest::ExpectNothingOutstandingSince(const platform::AllocCounts& baseline) {
  const platform::AllocCounts now = platform::CurrentAllocCounts();
  const int64_t blocks = now.comBlocks - baseline.comBlocks;
  const int64_t bstrs = now.bstrs - baseline.bstrs;
  if (blocks > 0 || bstrs > 0) {
    ADD_FAILURE() << "left outstanding at the end of the test: " << blocks << " COM block(s), " << bstrs
                  << " BSTR(s) (now " << now.comBlocks << " blocks / " << now.bstrs << " BSTRs, at start "
                  << baseline.comBlocks << " / " << baseline.bstrs << ")";
  }
}

void LeakCheckedTest::SetUp() { baseline_ = platform::CurrentAllocCounts(); }

void LeakCheckedTest::TearDown() { ExpectNothingOutstandingSince(baseline_); }

}  // namespace corvane::test
