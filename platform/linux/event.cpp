// Linux waits for the platform contract: futex word waits and an auto-reset
// event made of one futex word (0 = reset, 1 = signalled).
#include "platform/platform.h"

#include <cstdlib>
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

struct Event {
  std::atomic<std::uint32_t> state{0};
};

Event* CreateAutoResetEvent() {
  // The runtime heap, not the library's: events back the library's own heap lock.
  void* raw = std::malloc(sizeof(Event));
  return raw ? new (raw) Event() : nullptr;
}

void CloseEvent(Event* event) {
  if (event) {
    event->~Event();
    std::free(event);
  }
}

void SignalEvent(Event* event) {
  if (event->state.exchange(1, std::memory_order_release) == 0) WakeOneOnWord(&event->state);
}

void WaitEvent(Event* event) {
  while (event->state.exchange(0, std::memory_order_acquire) == 0) WaitOnWord(&event->state, 0);
}

}  // namespace platform
}  // namespace zmx
