#include "platform/AllocCounters.h"

#include <atomic>

#include "platform/posix/ComInternal.h"

namespace corvane::platform {
namespace {
// Relaxed ordering is enough: the counters are read by a test after the work it
// checks has been joined, and each block's own header decides whether it counts.
std::atomic<bool> g_counting{false};
std::atomic<int64_t> g_comBlocks{0};
std::atomic<int64_t> g_bstrs{0};

std::atomic<int64_t>& CounterFor(detail::BlockKind kind) {
  return kind == detail::BlockKind::Bstr ? g_bstrs : g_comBlocks;
}
}  // namespace

void StartAllocCounting() { g_counting.store(true, std::memory_order_relaxed); }

AllocCounts CurrentAllocCounts() {
  AllocCounts counts;
  counts.comBlocks = g_comBlocks.load(std::memory_order_relaxed);
  counts.bstrs = g_bstrs.load(std::memory_order_relaxed);
  return counts;
}

namespace detail {
bool NoteAlloc(BlockKind kind) {
  if (!g_counting.load(std::memory_order_relaxed)) return false;
  CounterFor(kind).fetch_add(1, std::memory_order_relaxed);
  return true;
}

void NoteFree(BlockKind kind) { CounterFor(kind).fetch_sub(1, std::memory_order_relaxed); }
}  // namespace detail

}  // namespace corvane::platform
