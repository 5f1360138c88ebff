// Portable threads and locks for both targets: events with manual and auto reset and
// a two-event wait in which the first event wins, a recursive critical section, a
// worker thread at below-normal priority where the platform allows it, and the
// high-resolution counter used for elapsed-time traces.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace corvane::platform {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

class Event {
 public:
  enum class Mode { ManualReset, AutoReset };
  explicit Event(Mode mode, bool initiallySet = false);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();
  bool IsSet() const;
  // True when the event was signalled within the timeout (an auto-reset event is
  // consumed by the waiter that sees it).
  bool Wait(uint32_t timeoutMs = kInfinite);
  // Waits for either event. Returns 0 when `first` is signalled (it wins when both
  // are), 1 for `second`, -1 on timeout.
  static int WaitEither(Event& first, Event& second, uint32_t timeoutMs = kInfinite);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// A lock that the owning thread may enter again.
class CriticalSection {
 public:
  void Enter() { mutex_.lock(); }
  void Leave() { mutex_.unlock(); }
  bool TryEnter() { return mutex_.try_lock(); }
  // BasicLockable, for std::lock_guard / std::unique_lock.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

class CriticalSectionLock {
 public:
  explicit CriticalSectionLock(CriticalSection& cs) : cs_(cs) { cs_.Enter(); }
  ~CriticalSectionLock() { cs_.Leave(); }
  CriticalSectionLock(const CriticalSectionLock&) = delete;
  CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

 private:
  CriticalSection& cs_;
};

// One background thread running one function. Join() waits for it; the destructor
// joins too, so a worker never outlives its owner.
class WorkerThread {
 public:
  WorkerThread() = default;
  ~WorkerThread();
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Starts the thread; false when one is already running or the system refused.
  bool Start(std::function<void()> body, bool belowNormalPriority = true);
  void Join();
  bool Joinable() const { return thread_.joinable(); }
  bool IsCurrentThread() const { return runningId_.load(std::memory_order_acquire) == std::this_thread::get_id(); }

 private:
  std::thread thread_;
  // Set by the thread itself before its body runs: the body may ask IsCurrentThread
  // while Start is still storing thread_ on the starting thread.
  std::atomic<std::thread::id> runningId_{};
};

// High-resolution monotonic counter (ticks) and its frequency (ticks per second).
int64_t PerformanceCounter();
int64_t PerformanceFrequency();

}  // namespace corvane::platform
