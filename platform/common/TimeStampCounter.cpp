#include "platform/TimeStampCounter.h"

#include <chrono>

namespace corvane::platform {
namespace {

uint64_t SteadyNanoseconds() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

struct Anchor {
  uint64_t ticks;
  uint64_t nanoseconds;
};

const Anchor& FirstUse() {
  static const Anchor anchor{TimeStampTicks(), SteadyNanoseconds()};
  return anchor;
}

// Taken at load, so that the interval behind the rate is as long as the process.
[[maybe_unused]] const Anchor& g_anchor = FirstUse();

}  // namespace

uint64_t TimeStampTicksToNanoseconds(uint64_t ticks) {
#ifdef CORVANE_TIME_STAMP_COUNTER
  const Anchor& first = FirstUse();
  const uint64_t nowTicks = TimeStampTicks();
  const uint64_t nowNs = SteadyNanoseconds();
  if (nowTicks <= first.ticks || nowNs <= first.nanoseconds) return 0;
  const long double rate = static_cast<long double>(nowNs - first.nanoseconds) / (nowTicks - first.ticks);
  return static_cast<uint64_t>(static_cast<long double>(ticks) * rate);
#else
  const int64_t freq = PerformanceFrequency();
  if (freq == 1000000000) return ticks;
  return ticks / static_cast<uint64_t>(freq) * 1000000000ull +
         ticks % static_cast<uint64_t>(freq) * 1000000000ull / static_cast<uint64_t>(freq);
#endif
}

}  // namespace corvane::platform
