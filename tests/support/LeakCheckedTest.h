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
  void SetUp() override;
  void TearDown() override;

  const platform::AllocCounts& Baseline() const { return baseline_; }

 private:
  platform::AllocCounts baseline_;
};

}  // namespace corvane::test
