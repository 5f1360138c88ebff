// Fixture base for suites that must leave nothing behind: it notes the outstanding
// COM task-allocator blocks and BSTRs when a test starts and fails the test when
// there are more at its end (VARIANT payloads are BSTRs or COM blocks, so they count).
#pragma once
#include <gtest/gtest.h>

#include "platform/AllocCounters.h"

namespace corvane::test {

class LeakCheckedTest : public ::testing::Test {
 public:
  // Adds a non-fatal failure naming the counts when more blocks or BSTRs are outstanding now than at `baseline`.
  static void ExpectNothingOutstandingSince(const platform::AllocCounts& baseline);

 protected:
  void SetUp() override { baseline_ = platform::CurrentAllocCounts(); }
  void TearDown() override { ExpectNothingOutstandingSince(baseline_); }

  const platform::AllocCounts& Baseline() const { return baseline_; }

 private:
  platform::AllocCounts baseline_;
};

inline void LeakCheckedTest::ExpectNothingOutstandingSince(const platform::AllocCounts& baseline) {
  const platform::AllocCounts now = platform::CurrentAllocCounts();
  const int64_t blocks = now.comBlocks - baseline.comBlocks;
  const int64_t bstrs = now.bstrs - baseline.bstrs;
  if (blocks > 0 || bstrs > 0) {
    ADD_FAILURE() << "left outstanding at the end of the test: " << blocks << " COM block(s), " << bstrs
                  << " BSTR(s) (now " << now.comBlocks << " blocks / " << now.bstrs << " BSTRs, at start "
                  << baseline.comBlocks << " / " << baseline.bstrs << ")";
  }
}

}  // namespace corvane::test
