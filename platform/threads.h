// Threads the library starts, per-thread message queues reachable by thread
// id, and signals forwarded into such a queue. Windows: CreateThread with
// SetThreadPriority, WaitForSingleObject, PostThreadMessageA/GetMessageA/
// PeekMessageA; forwarding there goes through the runtime's signal().
#ifndef ZMXUTI_PLATFORM_THREADS_H
#define ZMXUTI_PLATFORM_THREADS_H

#include <cstdint>

namespace zmx {
namespace platform {

// ---- threads ----
// Ids are nonzero and name one thread of the process for as long as it runs.
std::uint32_t CurrentThreadId();

struct Thread;
using ThreadMain = void (*)(void* argument);
// Starts `main(argument)` on a new thread with the default stack; with
// `highestPriority` the thread asks for the highest priority it is allowed
// (refusals are ignored). Stores the new thread's id in *id before the thread
// runs. Null when the system refuses (then *id is left alone).
Thread* StartThread(ThreadMain main, void* argument, bool highestPriority, std::uint32_t* id);
// Waits without time-out for the thread to end, then releases its handle.
void JoinThread(Thread* thread);
// Lets the thread end on its own, never joined, and releases its handle; a
// thread may detach itself.
void DetachThread(Thread* thread);
// Lets other threads run for a moment.
void YieldThread();

// ---- thread exit ----
// A hook that runs on a thread as it ends (never for the process's main
// thread when the process exits), after the thread's own code has returned.
using ThreadExitHook = void (*)(void* argument);
struct ThreadExitKey {
  unsigned value;
};
// Creates a key whose hook is `hook`; false when the system has no key left.
// Keys are never deleted: create one per process.
bool CreateThreadExitKey(ThreadExitHook hook, ThreadExitKey* key);
// Arms `key` for the calling thread: `hook(argument)` runs when this thread
// ends. A null argument disarms it. Never allocates from the library's heap.
bool ArmThreadExit(ThreadExitKey key, void* argument);

// ---- thread message queues ----
struct ThreadMessage {
  std::uint32_t message;
  std::uintptr_t first;
  std::uintptr_t second;
};
enum class PostResult { Posted, NoQueue, QueueFull };

// Creates the calling thread's queue if it has none; false when it cannot.
bool CreateThreadQueue();
// Removes the calling thread's queue; messages still in it are dropped.
void DestroyThreadQueue();
// Appends a message to the queue of `threadId` without waiting. Safe in a
// signal handler (no allocation, no lock).
PostResult PostThreadMessage(std::uint32_t threadId, std::uint32_t message, std::uintptr_t first,
                             std::uintptr_t second);
// Waits for the next message of the calling thread's queue; false when the
// thread has no queue or the queue failed.
bool GetThreadMessage(ThreadMessage* out);

// ---- signals forwarded as messages ----
// From now on `signalNumber` (POSIX numbering: 2, 10, 12, 15, 18, 20) posts
// (message, code, 0) to the queue of `threadId` instead of taking its action;
// calling again retargets it.
bool ForwardSignal(int signalNumber, std::uint32_t threadId, std::uint32_t message, std::uintptr_t code);
// If `signalNumber` is forwarded to `threadId`, puts back the action it had
// before forwarding began.
void StopForwardingSignal(int signalNumber, std::uint32_t threadId);
// Both may be called from several threads at once, never from a signal handler.

// ---- fork ----
// Has `prepare` run in the parent just before each fork, then `parent` in the
// parent and `child` in the new process (whose only thread is the forking
// one) just after it. Handlers registered later prepare earlier and finish
// later. False when the system refuses; there is no way to unregister.
bool RegisterForkHandlers(void (*prepare)(), void (*parent)(), void (*child)());

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_THREADS_H
