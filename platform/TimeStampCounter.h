// The cheapest clock for timing many short intervals: on x86-64 the processor's
// time-stamp counter (one instruction, no call), elsewhere the monotonic performance
// counter. Ticks become nanoseconds only when a total is read.
#pragma once
#include <cstdint>

#if defined(__x86_64__) || defined(_M_X64)
#include <x86intrin.h>
#define CORVANE_TIME_STAMP_COUNTER 1
#endif

#include "platform/Sync.h"

namespace corvane::platform {

inline uint64_t TimeStampTicks() {
#ifdef CORVANE_TIME_STAMP_COUNTER
  return __rdtsc();
#else
  return static_cast<uint64_t>(PerformanceCounter());
#endif
}

// Nanoseconds from ticks, at the rate seen between the first use in the process and now.
uint64_t TimeStampTicksToNanoseconds(uint64_t ticks);

}  // namespace corvane::platform
