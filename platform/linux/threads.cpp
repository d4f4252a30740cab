// Linux threads for the platform contract: pthreads with process-local ids,
// message queues made of one pipe each (found through a fixed table that a
// signal handler can search without locks), and signal forwarding into them.
#include "platform/threads.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <new>

#include <fcntl.h>
#include <linux/membarrier.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/platform.h"
#include "platform/system_allocator.h"

namespace zmx {
namespace platform {

// ---- threads ----

namespace {
std::atomic<std::uint32_t> g_nextThreadId{1};
thread_local std::uint32_t t_threadId = 0;

std::uint32_t NewThreadId() {
  std::uint32_t id;
  do id = g_nextThreadId.fetch_add(1, std::memory_order_relaxed);
  while (id == 0);  // after a wrap
  return id;
}

struct StartBlock {
  ThreadMain main;
  void* argument;
  std::uint32_t id;
  bool highestPriority;
};

void RaiseOwnPriority() {
  // Threads of the normal policy differ only by nice value, which is per
  // thread on Linux; lowering it needs a privilege, so a refusal is expected.
  const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  if (errno == 0) setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice - 2);
}

void* ThreadStart(void* raw) {
  const StartBlock block = *static_cast<StartBlock*>(raw);
  SystemFree(raw);
  t_threadId = block.id;
  if (block.highestPriority) RaiseOwnPriority();
  block.main(block.argument);
  return nullptr;
}
}  // namespace

struct Thread {
  pthread_t handle;
};

std::uint32_t CurrentThreadId() {
  if (t_threadId == 0) t_threadId = NewThreadId();
  return t_threadId;
}

Thread* StartThread(ThreadMain main, void* argument, bool highestPriority, std::uint32_t* id) {
  // The system allocator: the platform layer sits below the library's allocator.
  void* blockMemory = SystemMalloc(sizeof(StartBlock));
  void* threadMemory = SystemMalloc(sizeof(Thread));
  if (blockMemory == nullptr || threadMemory == nullptr) {
    SystemFree(blockMemory);
    SystemFree(threadMemory);
    return nullptr;
  }
  const std::uint32_t newId = NewThreadId();
  auto* block = new (blockMemory) StartBlock{main, argument, newId, highestPriority};
  auto* thread = new (threadMemory) Thread{};
  const std::uint32_t previousId = *id;
  *id = newId;  // published before the thread runs, as the contract says
  if (pthread_create(&thread->handle, nullptr, ThreadStart, block) != 0) {
    *id = previousId;
    SystemFree(blockMemory);
    SystemFree(threadMemory);
    return nullptr;
  }
  return thread;
}

void JoinThread(Thread* thread) {
  pthread_join(thread->handle, nullptr);
  SystemFree(thread);
}

void DetachThread(Thread* thread) {
  pthread_detach(thread->handle);
  SystemFree(thread);
}

void YieldThread() { sched_yield(); }

// ---- process-wide barrier ----

bool EnableProcessBarrier() {
  return syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

bool ProcessBarrier() { return syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0; }

// ---- thread exit ----

bool CreateThreadExitKey(ThreadExitHook hook, ThreadExitKey* key) {
  pthread_key_t k;
  if (pthread_key_create(&k, hook) != 0) return false;
  key->value = static_cast<unsigned>(k);
  return true;
}

bool ArmThreadExit(ThreadExitKey key, void* argument) {
  return pthread_setspecific(static_cast<pthread_key_t>(key.value), argument) == 0;
}

// ---- thread message queues ----

namespace {

// One record per message; a pipe write of this size is atomic, so posts from
// several threads and from signal handlers never interleave.
struct Record {
  std::uint32_t message;
  std::uint32_t unused;
  std::uint64_t first;
  std::uint64_t second;
};
static_assert(sizeof(Record) <= PIPE_BUF, "records must be written atomically");

// A slot is claimed, then filled, then published by storing its owner; a
// poster counts itself in `users` before it trusts the owner, and the queue's
// removal unpublishes, waits for the users to leave, and only then closes.
struct QueueSlot {
  std::atomic<bool> claimed{false};
  std::atomic<std::uint32_t> owner{0};
  std::atomic<int> users{0};
  int readFd = -1;
  int writeFd = -1;
};
constexpr int kQueueSlots = 64;
QueueSlot g_queues[kQueueSlots];

QueueSlot* FindQueue(std::uint32_t threadId) {
  if (threadId == 0) return nullptr;
  for (QueueSlot& slot : g_queues)
    if (slot.owner.load(std::memory_order_acquire) == threadId) return &slot;
  return nullptr;
}

}  // namespace

bool CreateThreadQueue() {
  const std::uint32_t self = CurrentThreadId();
  if (FindQueue(self) != nullptr) return true;
  for (QueueSlot& slot : g_queues) {
    bool expected = false;
    if (!slot.claimed.compare_exchange_strong(expected, true)) continue;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      slot.claimed.store(false);
      return false;
    }
    // Posting never waits: a full queue refuses the message.
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    slot.readFd = fds[0];
    slot.writeFd = fds[1];
    slot.owner.store(self, std::memory_order_release);
    return true;
  }
  return false;
}

void DestroyThreadQueue() {
  QueueSlot* slot = FindQueue(CurrentThreadId());
  if (slot == nullptr) return;
  slot->owner.store(0, std::memory_order_seq_cst);
  while (slot->users.load(std::memory_order_seq_cst) != 0) CpuRelax();
  close(slot->readFd);
  close(slot->writeFd);
  slot->readFd = slot->writeFd = -1;
  slot->claimed.store(false, std::memory_order_release);
}

PostResult PostThreadMessage(std::uint32_t threadId, std::uint32_t message, std::uintptr_t first,
                             std::uintptr_t second) {
  if (threadId == 0) return PostResult::NoQueue;
  const Record record{message, 0, first, second};
  for (QueueSlot& slot : g_queues) {
    slot.users.fetch_add(1, std::memory_order_seq_cst);
    PostResult result = PostResult::NoQueue;
    bool found = false;
    if (slot.owner.load(std::memory_order_seq_cst) == threadId) {
      found = true;
      ssize_t written;
      do written = write(slot.writeFd, &record, sizeof record);
      while (written < 0 && errno == EINTR);
      result = written == static_cast<ssize_t>(sizeof record) ? PostResult::Posted : PostResult::QueueFull;
    }
    slot.users.fetch_sub(1, std::memory_order_seq_cst);
    if (found) return result;
  }
  return PostResult::NoQueue;
}

bool GetThreadMessage(ThreadMessage* out) {
  QueueSlot* slot = FindQueue(CurrentThreadId());
  if (slot == nullptr) return false;
  Record record;
  ssize_t got;
  do got = read(slot->readFd, &record, sizeof record);
  while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof record)) return false;
  *out = ThreadMessage{record.message, static_cast<std::uintptr_t>(record.first),
                       static_cast<std::uintptr_t>(record.second)};
  return true;
}

// ---- signals forwarded as messages ----

namespace {

constexpr int kMaxSignal = 32;
struct Forwarding {
  std::atomic<std::uint32_t> threadId{0};  // 0: not forwarded
  std::atomic<std::uint32_t> message{0};
  std::atomic<std::uintptr_t> code{0};
  struct sigaction previous {};
};
Forwarding g_forwarding[kMaxSignal];

// Serialises installing and giving back, so that a worker ending while the
// next one starts cannot save the forwarding action as the earlier one, nor
// put an action back after the other installed. Signal handlers never take it.
pthread_mutex_t g_forwardingLock = PTHREAD_MUTEX_INITIALIZER;
struct ForwardingHold {
  ForwardingHold() { pthread_mutex_lock(&g_forwardingLock); }
  ~ForwardingHold() { pthread_mutex_unlock(&g_forwardingLock); }
  ForwardingHold(const ForwardingHold&) = delete;
  ForwardingHold& operator=(const ForwardingHold&) = delete;
};

void ForwardingHandler(int signalNumber) {
  const int savedErrno = errno;
  if (signalNumber > 0 && signalNumber < kMaxSignal) {
    const Forwarding& f = g_forwarding[signalNumber];
    PostThreadMessage(f.threadId.load(), f.message.load(), f.code.load(), 0);
  }
  errno = savedErrno;
}

}  // namespace

bool ForwardSignal(int signalNumber, std::uint32_t threadId, std::uint32_t message, std::uintptr_t code) {
  if (signalNumber <= 0 || signalNumber >= kMaxSignal || threadId == 0) return false;
  Forwarding& f = g_forwarding[signalNumber];
  const ForwardingHold hold;
  f.message.store(message);
  f.code.store(code);
  if (f.threadId.exchange(threadId) != 0) return true;  // already installed: retargeted
  struct sigaction action {};
  action.sa_handler = ForwardingHandler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  if (sigaction(signalNumber, &action, &f.previous) != 0) {
    f.threadId.store(0);
    return false;
  }
  return true;
}

void StopForwardingSignal(int signalNumber, std::uint32_t threadId) {
  if (signalNumber <= 0 || signalNumber >= kMaxSignal || threadId == 0) return;
  Forwarding& f = g_forwarding[signalNumber];
  const ForwardingHold hold;
  std::uint32_t expected = threadId;
  if (!f.threadId.compare_exchange_strong(expected, 0)) return;
  sigaction(signalNumber, &f.previous, nullptr);
}

// ---- fork ----

bool RegisterForkHandlers(void (*prepare)(), void (*parent)(), void (*child)()) {
  return pthread_atfork(prepare, parent, child) == 0;
}

}  // namespace platform
}  // namespace zmx
