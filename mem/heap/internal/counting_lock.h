// The counting lock of the general heap and the small-object allocator: an
// atomic counter plus an auto-reset event created on first contention.
#ifndef ZMXUTI_MEM_HEAP_INTERNAL_COUNTING_LOCK_H
#define ZMXUTI_MEM_HEAP_INTERNAL_COUNTING_LOCK_H

#include <atomic>
#include <cstdint>

#include "core/export.h"
#include "platform/platform.h"

namespace zmx {
namespace mem_internal {

// Constant-initialised, so it is usable before any static constructor runs.
class CountingLock {
 public:
  constexpr CountingLock() = default;
  CountingLock(const CountingLock&) = delete;
  CountingLock& operator=(const CountingLock&) = delete;

  void Acquire() {
    // A busy lock is first watched for a while before this thread queues:
    // critical sections are short, and a thread that queues is handed the
    // lock in turn, which moves the heap's cache lines to it on every turn.
    if (ZMX_UNLIKELY(counter_.load(std::memory_order_relaxed) != 0)) SpinWhileHeld();
    // The holder is the one that took the counter from 0 to 1; later arrivals queue on the event.
    if (ZMX_UNLIKELY(counter_.fetch_add(1, std::memory_order_acquire) + 1 >= 2)) WaitTurn();
  }
  void Release() {
    if (ZMX_UNLIKELY(counter_.fetch_sub(1, std::memory_order_release) - 1 > 0)) HandOver();
  }
  // In a forked child, where the holder and every waiter are gone: the lock is
  // free again. Its event may hold a signal meant for a waiter that no longer
  // exists, so it is closed; the next contention creates a fresh one.
  void ResetInForkChild() {
    counter_.store(0, std::memory_order_relaxed);
    if (platform::Event* e = event_.exchange(nullptr, std::memory_order_relaxed)) platform::CloseEvent(e);
  }

 private:
  platform::Event* EnsureEvent() {
    platform::Event* e = event_.load(std::memory_order_acquire);
    if (e) return e;
    platform::Event* mine = platform::CreateAutoResetEvent();
    platform::Event* expected = nullptr;
    if (event_.compare_exchange_strong(expected, mine, std::memory_order_acq_rel)) return mine;
    platform::CloseEvent(mine);  // another thread installed its event first
    return expected;
  }
  ZMX_NOINLINE void SpinWhileHeld() {
    for (int i = 0; i < kSpinLimit && counter_.load(std::memory_order_relaxed) != 0; ++i) platform::CpuRelax();
  }
  ZMX_NOINLINE void WaitTurn() { platform::WaitEvent(EnsureEvent()); }

  static constexpr int kSpinLimit = 2000;
  ZMX_NOINLINE void HandOver() { platform::SignalEvent(EnsureEvent()); }

  std::atomic<std::int32_t> counter_{0};
  std::atomic<platform::Event*> event_{nullptr};
};

// Holds `lock` for a scope when `take` is true (every lock user decides for
// itself whether this operation needs the lock).
class CountingLockHold {
 public:
  explicit CountingLockHold(CountingLock& lock, bool take = true) : lock_(lock), held_(take) {
    if (held_) lock_.Acquire();
  }
  ~CountingLockHold() {
    if (held_) lock_.Release();
  }
  CountingLockHold(const CountingLockHold&) = delete;
  CountingLockHold& operator=(const CountingLockHold&) = delete;

 private:
  CountingLock& lock_;
  bool held_;
};

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_HEAP_INTERNAL_COUNTING_LOCK_H
