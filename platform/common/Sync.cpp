#include "platform/Sync.h"

#include <algorithm>
#include <chrono>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace corvane::platform {

namespace {
// A waiter blocked on one or more events. WaitEither registers one waiter with both
// events so that whichever is set first wakes it.
struct Waiter {
  std::mutex mutex;
  std::condition_variable cv;
  bool woken = false;
};
// One lock for all events' state: waits are rare and short, and a single lock makes
// the two-event wait simple and free of lock-order problems.
std::mutex& EventsMutex() {
  static std::mutex m;
  return m;
}
}  // namespace

struct Event::State {
  Mode mode;
  bool set;
  std::vector<std::shared_ptr<Waiter>> waiters;
};

Event::Event(Mode mode, bool initiallySet) : state_(std::make_shared<State>(State{mode, initiallySet, {}})) {}
Event::~Event() = default;

void Event::Set() {
  std::vector<std::shared_ptr<Waiter>> toWake;
  {
    std::lock_guard<std::mutex> lock(EventsMutex());
    state_->set = true;
    toWake = state_->waiters;
  }
  for (auto& w : toWake) {
    std::lock_guard<std::mutex> lock(w->mutex);
    w->woken = true;
    w->cv.notify_all();
  }
}

void Event::Reset() {
  std::lock_guard<std::mutex> lock(EventsMutex());
  state_->set = false;
}

bool Event::IsSet() const {
  std::lock_guard<std::mutex> lock(EventsMutex());
  return state_->set;
}

namespace {
// Under EventsMutex: takes the signal of `state` if set (consuming an auto-reset one).
template <typename State>
bool TakeSignal(State& state, bool autoReset) {
  if (!state.set) return false;
  if (autoReset) state.set = false;
  return true;
}

template <typename State>
void RemoveWaiter(State& state, const std::shared_ptr<Waiter>& w) {
  state.waiters.erase(std::remove(state.waiters.begin(), state.waiters.end(), w), state.waiters.end());
}
}  // namespace

bool Event::Wait(uint32_t timeoutMs) {
  // A one-event wait is a two-event wait on the same event.
  return WaitEither(*this, *this, timeoutMs) == 0;
}

int Event::WaitEither(Event& first, Event& second, uint32_t timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const bool infinite = timeoutMs == kInfinite;
  const auto deadline = Clock::now() + std::chrono::milliseconds(infinite ? 0 : timeoutMs);
  auto waiter = std::make_shared<Waiter>();
  State& a = *first.state_;
  State& b = *second.state_;
  const bool same = &a == &b;
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(EventsMutex());
      if (TakeSignal(a, a.mode == Mode::AutoReset)) {
        RemoveWaiter(a, waiter);
        if (!same) RemoveWaiter(b, waiter);
        return 0;
      }
      if (!same && TakeSignal(b, b.mode == Mode::AutoReset)) {
        RemoveWaiter(a, waiter);
        RemoveWaiter(b, waiter);
        return 1;
      }
      if (!infinite && Clock::now() >= deadline) {
        RemoveWaiter(a, waiter);
        if (!same) RemoveWaiter(b, waiter);
        return -1;
      }
      if (std::find(a.waiters.begin(), a.waiters.end(), waiter) == a.waiters.end()) a.waiters.push_back(waiter);
      if (!same && std::find(b.waiters.begin(), b.waiters.end(), waiter) == b.waiters.end())
        b.waiters.push_back(waiter);
    }
    std::unique_lock<std::mutex> lock(waiter->mutex);
    if (infinite)
      waiter->cv.wait(lock, [&] { return waiter->woken; });
    else
      waiter->cv.wait_until(lock, deadline, [&] { return waiter->woken; });
    waiter->woken = false;
  }
}

WorkerThread::~WorkerThread() { Join(); }

bool WorkerThread::Start(std::function<void()> body, bool belowNormalPriority) {
  if (thread_.joinable()) return false;
  try {
    thread_ = std::thread([this, body = std::move(body), belowNormalPriority] {
      runningId_.store(std::this_thread::get_id(), std::memory_order_release);
      if (belowNormalPriority) {
#ifdef _WIN32
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
#else
        // Linux applies nice values per thread; raising it needs no privilege.
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 2);
#endif
      }
      body();
    });
  } catch (...) {
    return false;
  }
  return true;
}

void WorkerThread::Join() {
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
    thread_.join();
    runningId_.store(std::thread::id(), std::memory_order_release);
  }
}

int64_t PerformanceCounter() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t PerformanceFrequency() { return 1000000000LL; }

}  // namespace corvane::platform
