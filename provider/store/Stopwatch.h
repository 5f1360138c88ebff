// An elapsed-time accumulator read from the high-resolution counter in nanoseconds,
// guarded by its own lock so that any thread may start or stop it.
#pragma once
#include <cstdint>

#include "platform/Sync.h"

class CStopwatch {
 public:
  static uint64_t NowNanoseconds() {
    const int64_t ticks = corvane::platform::PerformanceCounter();
    const int64_t freq = corvane::platform::PerformanceFrequency();
    if (freq == 1000000000) return static_cast<uint64_t>(ticks);
    return static_cast<uint64_t>(ticks / freq) * 1000000000ull +
           static_cast<uint64_t>((ticks % freq) * 1000000000ll / freq);
  }

  // A watch that already runs restarts: its open interval is dropped.
  void Start() {
    const uint64_t now = NowNanoseconds();
    corvane::platform::CriticalSectionLock lock(m_Lock);
    m_bRunning = true;
    m_Start = now;
  }
  // Adds the open interval, if any, to the total.
  void Stop() {
    const uint64_t now = NowNanoseconds();
    corvane::platform::CriticalSectionLock lock(m_Lock);
    if (m_bRunning) m_Total += now - m_Start;
    m_bRunning = false;
  }
  bool Running() {
    corvane::platform::CriticalSectionLock lock(m_Lock);
    return m_bRunning;
  }
  uint64_t TotalNanoseconds() {
    corvane::platform::CriticalSectionLock lock(m_Lock);
    return m_Total;
  }

 private:
  corvane::platform::CriticalSection m_Lock;
  bool m_bRunning = false;
  uint64_t m_Start = 0;
  uint64_t m_Total = 0;
};
