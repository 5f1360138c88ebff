// Test hook: counts of COM task-allocator blocks and BSTRs that are currently
// outstanding in this process, so suites can assert that nothing leaked. On POSIX the
// layer counts its own allocations; on Windows an IMallocSpy registered by
// StartCounting counts the system allocator's.
#pragma once
#include <cstdint>

namespace corvane::platform {
struct AllocCounts {
  int64_t comBlocks = 0;  // CoTaskMemAlloc/Realloc blocks not yet freed (BSTRs excluded)
  int64_t bstrs = 0;      // BSTRs not yet freed
};
// Begins counting (idempotent). Blocks allocated before the first call are not
// counted and their release is ignored.
void StartAllocCounting();
AllocCounts CurrentAllocCounts();
}  // namespace corvane::platform
