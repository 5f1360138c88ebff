#include <gtest/gtest.h>

#include "platform/AllocCounters.h"

int main(int argc, char** argv) {
  // Before any test allocates, so that every block a test leaves behind is counted.
  corvane::platform::StartAllocCounting();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
