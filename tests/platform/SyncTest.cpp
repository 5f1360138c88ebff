#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/Sync.h"

namespace corvane::platform {

using Clock = std::chrono::steady_clock;

namespace {
int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
}  // namespace

TEST(Events, ManualResetStaysSignalledAutoResetReleasesExactlyOneWaiterPerSet) {
  Event manual(Event::Mode::ManualReset);
  EXPECT_FALSE(manual.Wait(0));
  manual.Set();
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.Wait(0)) << "a manual-reset event is not consumed by a wait";
  manual.Reset();
  EXPECT_FALSE(manual.IsSet());
  EXPECT_FALSE(manual.Wait(0));
  EXPECT_TRUE(Event(Event::Mode::ManualReset, true).Wait(0));

  Event e(Event::Mode::AutoReset, true);
  EXPECT_TRUE(e.Wait(0));
  EXPECT_FALSE(e.Wait(0)) << "the first wait consumed the signal";
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { woken += e.Wait(2000) ? 1 : 0; });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  e.Set();
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ(woken, 1);
  // A Set on an event that is still set does nothing, so each one waits to be taken.
  for (int expected = 2; expected <= 3; ++expected) {
    e.Set();
    const auto start = Clock::now();
    while (woken < expected && MsSince(start) < 2000) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(woken, expected);
  }
  for (auto& t : waiters) t.join();
  EXPECT_FALSE(e.IsSet());
}

TEST(Events, WaitEitherLetsTheFirstEventWin) {
  Event stop(Event::Mode::ManualReset), work(Event::Mode::AutoReset);
  EXPECT_EQ(Event::WaitEither(stop, work, 0), -1);
  work.Set();
  stop.Set();
  EXPECT_EQ(Event::WaitEither(stop, work, 0), 0) << "both set: the first wins";
  EXPECT_TRUE(work.IsSet()) << "the losing auto-reset event keeps its signal";
  stop.Reset();
  EXPECT_EQ(Event::WaitEither(stop, work, 0), 1);
  EXPECT_FALSE(work.IsSet()) << "the winning auto-reset event is consumed";

  const auto start = Clock::now();
  EXPECT_EQ(Event::WaitEither(stop, work, 60), -1);
  EXPECT_GE(MsSince(start), 55);

  std::thread setter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    work.Set();
  });
  EXPECT_EQ(Event::WaitEither(stop, work, 5000), 1);
  setter.join();
}

TEST(Locks, CriticalSectionIsReentrantAndExcludesOtherThreads) {
  CriticalSection cs;
  CriticalSectionLock outer(cs);
  {
    CriticalSectionLock inner(cs);  // would deadlock if not recursive
    bool otherGotIt = true;
    std::thread([&] { otherGotIt = cs.TryEnter(); }).join();
    EXPECT_FALSE(otherGotIt);
  }
  bool stillHeld = true;
  std::thread([&] { stillHeld = !cs.TryEnter(); }).join();
  EXPECT_TRUE(stillHeld) << "one Leave of two Enters keeps the lock";
}

TEST(Workers, RunTheBodyOnAnotherThreadJoinAndAreWaitedForOnDestruction) {
  WorkerThread worker;
  std::atomic<bool> ranOnWorker{false};
  Event release(Event::Mode::ManualReset);
  ASSERT_TRUE(worker.Start([&] {
    ranOnWorker = worker.IsCurrentThread();
    release.Wait(5000);
  }));
  EXPECT_TRUE(worker.Joinable());
  EXPECT_FALSE(worker.IsCurrentThread());
  EXPECT_FALSE(worker.Start([] {})) << "one body at a time";
  release.Set();
  worker.Join();
  EXPECT_TRUE(ranOnWorker);
  EXPECT_FALSE(worker.Joinable());
  std::atomic<bool> second{false};
  ASSERT_TRUE(worker.Start([&] { second = true; }, false)) << "a joined worker can start again";
  worker.Join();
  EXPECT_TRUE(second);
  std::atomic<bool> finished{false};
  {
    WorkerThread destroyed;
    ASSERT_TRUE(destroyed.Start([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
      finished = true;
    }));
  }
  EXPECT_TRUE(finished) << "the destructor waits for the body";
}

}  // namespace corvane::platform
