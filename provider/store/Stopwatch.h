// An elapsed-time accumulator over the platform's time-stamp counter, guarded by its
// own small lock so that any thread may start or stop it. The store starts and stops
// one around every cell it writes, so both must cost next to nothing: ticks become
// nanoseconds only when the total is read.
#pragma once
#include <atomic>
#include <cstdint>

#include "platform/TimeStampCounter.h"

class CStopwatch {
 public:
  // The counter, in ticks.
  static uint64_t Ticks() { return corvane::platform::TimeStampTicks(); }
  static uint64_t TicksToNanoseconds(uint64_t ticks) { return corvane::platform::TimeStampTicksToNanoseconds(ticks); }

  // A watch that already runs restarts: its open interval is dropped.
  void Start() {
    const uint64_t now = Ticks();
    Lock();
    m_bRunning = true;
    m_Start = now;
    Unlock();
  }
  // Adds the open interval, if any, to the total.
  void Stop() {
    const uint64_t now = Ticks();
    Lock();
    if (m_bRunning && now > m_Start) m_Total += now - m_Start;
    m_bRunning = false;
    Unlock();
  }
  // Adds `ticks` to the total, leaving the watch's state as it is.
  void Add(uint64_t ticks) {
    Lock();
    m_Total += ticks;
    Unlock();
  }
  bool Running() {
    Lock();
    const bool running = m_bRunning;
    Unlock();
    return running;
  }
  uint64_t TotalNanoseconds() {
    Lock();
    const uint64_t total = m_Total;
    Unlock();
    return TicksToNanoseconds(total);
  }

 private:
  friend class CDataStore;
  // Adds `ticks` to the total and leaves the watch running from `start` or stopped: the
  // state a series of starts and stops would have left, in one step.
  void Settle(uint64_t ticks, bool running, uint64_t start) {
    Lock();
    m_Total += ticks;
    m_bRunning = running;
    m_Start = start;
    Unlock();
  }
  void Lock() {
    while (m_Lock.exchange(true, std::memory_order_acquire)) {
    }
  }
  void Unlock() { m_Lock.store(false, std::memory_order_release); }

  std::atomic<bool> m_Lock{false};
  bool m_bRunning = false;
  uint64_t m_Start = 0;
  uint64_t m_Total = 0;
};
