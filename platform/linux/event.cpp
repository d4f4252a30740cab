// Linux waits for the platform contract: futex word waits and an auto-reset
// event made of one futex word (0 = reset, 1 = signalled).
#include "platform/platform.h"
#include "platform/system_allocator.h"

#include <new>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zmx {
namespace platform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
              "futex needs a plain 32-bit word");

void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected) {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected,
          nullptr, nullptr, 0);
}

void WakeOneOnWord(std::atomic<std::uint32_t>* word) {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr,
          nullptr, 0);
}

// The event's word: 0 reset, 1 signalled, 2 reset with a waiter that may be
// asleep. A waiter spins a while before it sleeps, and a signal makes a system
// call only when someone may be asleep, so a hand-over between two running
// threads never enters the kernel.
struct Event {
  std::atomic<std::uint32_t> state{0};
};

namespace {
constexpr std::uint32_t kReset = 0, kSignalled = 1, kSleeper = 2;
constexpr int kSpinLimit = 4000;
}  // namespace

Event* CreateAutoResetEvent() {
  // The system allocator, not the library's heap nor an interposed malloc:
  // events back the heap lock itself, and are made while an allocation waits.
  void* raw = SystemMalloc(sizeof(Event));
  return raw ? new (raw) Event() : nullptr;
}

void CloseEvent(Event* event) {
  if (event) {
    event->~Event();
    SystemFree(event);
  }
}

void SignalEvent(Event* event) {
  if (event->state.exchange(kSignalled, std::memory_order_release) == kSleeper) WakeOneOnWord(&event->state);
}

void WaitEvent(Event* event) {
  std::atomic<std::uint32_t>& state = event->state;
  for (int i = 0; i < kSpinLimit; ++i) {
    std::uint32_t expected = kSignalled;
    if (state.load(std::memory_order_relaxed) == kSignalled &&
        state.compare_exchange_weak(expected, kReset, std::memory_order_acquire))
      return;
    CpuRelax();
  }
  for (;;) {
    std::uint32_t c = state.load(std::memory_order_relaxed);
    if (c == kSignalled) {
      // Others may still sleep: leave the word saying so, so the next signal wakes one.
      if (state.compare_exchange_weak(c, kSleeper, std::memory_order_acquire)) return;
      continue;
    }
    if (c == kReset && !state.compare_exchange_weak(c, kSleeper, std::memory_order_relaxed)) continue;
    WaitOnWord(&state, kSleeper);
  }
}

}  // namespace platform
}  // namespace zmx
