// The counting lock behind the general heap: mutual exclusion under contention,
// and hand-overs to threads that went to sleep on its event are never lost.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "mem/heap/internal/counting_lock.h"

namespace {

using zmx::mem_internal::CountingLock;

TEST(CountingLock, KeepsEveryIncrementOfAContendedCounter) {
  static CountingLock lock;
  long counter = 0;  // deliberately plain: only the lock protects it
  constexpr int kThreads = 4, kRounds = 100000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&counter] {
      for (int i = 0; i < kRounds; ++i) {
        lock.Acquire();
        const long seen = counter;
        counter = seen + 1;
        lock.Release();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, long{kThreads} * kRounds);
}

TEST(CountingLock, SleepingWaitersAreAllLetInOneAfterTheOther) {
  static CountingLock lock;
  std::atomic<int> inside{0}, done{0}, maxInside{0};
  lock.Acquire();
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      lock.Acquire();
      const int now = ++inside;
      if (now > maxInside) maxInside = now;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      --inside;
      lock.Release();
      ++done;
    });
  }
  // Long enough for every waiter to give up spinning and sleep on the event.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(done.load(), 0);
  lock.Release();
  for (auto& t : threads) t.join();
  EXPECT_EQ(done.load(), 6);
  EXPECT_EQ(maxInside.load(), 1);
}

}  // namespace
