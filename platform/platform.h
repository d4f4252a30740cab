// The library's one contract with the operating system: virtual memory,
// address waits, auto-reset events and the thread's locale. Each OS implements it in its own folder
// (platform/linux/ here); nothing outside platform/ calls the OS directly.
#ifndef ZMXUTI_PLATFORM_PLATFORM_H
#define ZMXUTI_PLATFORM_PLATFORM_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "core/export.h"

namespace zmx {
namespace platform {

// ---- virtual memory ----
std::size_t PageSize();
// The unit in which address space is handed out (64 KiB on Windows, the page size here).
std::size_t AllocationGranularity();
// Reserves and commits `size` bytes read-write; `fromTop` asks for high addresses
// and `near` for a place starting at that address (both hints only). Returns
// null on failure. The memory reads as zero. `prefault` asks for every page to
// be backed at once, for memory about to be written from end to end: one
// system call instead of a fault per page.
void* MapMemory(std::size_t size, bool fromTop, const void* near = nullptr, bool prefault = false);
// Gives back whole pages of ranges obtained from MapMemory: a whole range, its
// front or its tail, or adjacent ranges together. True on success.
bool UnmapMemory(void* address, std::size_t size);

// ---- waiting on a 32-bit word ----
// Sleeps while *word == expected (spurious returns allowed).
ZMXUTI_INTERNAL_API void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected);
ZMXUTI_INTERNAL_API void WakeOneOnWord(std::atomic<std::uint32_t>* word);

// A hint to the processor that this thread is busy-waiting.
inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// ---- auto-reset event ----
// Signal releases one waiter (or the next one to wait) and resets itself.
struct Event;
ZMXUTI_INTERNAL_API Event* CreateAutoResetEvent();  // null when the system refuses
ZMXUTI_INTERNAL_API void CloseEvent(Event* event);
ZMXUTI_INTERNAL_API void SignalEvent(Event* event);
ZMXUTI_INTERNAL_API void WaitEvent(Event* event);

// ---- threads ----
// True while the process has only ever had one thread: a lock that no other
// thread can reach may then be skipped (inline, platform/<os>/threads_inline.h).
inline bool ProcessIsSingleThreaded();

// ---- process-wide barrier ----
// Pairs a thread that rarely inspects other threads' variables with threads
// that order their own accesses only against the compiler
// (std::atomic_signal_fence): once ProcessBarrier() returns, every store that
// another running thread made before the barrier is visible here, and every
// load it makes afterwards sees this thread's stores from before the call.
// EnableProcessBarrier registers the process (again in a forked child); both
// return false when the system offers no such barrier.
bool EnableProcessBarrier();
bool ProcessBarrier();

// ---- files ----
// Files written from inside an allocation call: plain descriptors, no stream
// buffers, so that writing never allocates.
// Creates or truncates `path` for writing, readable and writable by its owner
// only; -1 when it cannot be opened.
int OpenOwnerFile(const char* path);
// Writes all `size` bytes at the file's position, or at `offset`; false on failure.
bool WriteOwnerFile(int file, const void* data, std::size_t size);
bool WriteOwnerFileAt(int file, const void* data, std::size_t size, std::uint64_t offset);
void CloseOwnerFile(int file);

// ---- runtime locale ----
// Whether the calling thread runs under the process-wide locale (the one
// setlocale sets) rather than a locale of its own.
bool ThreadUsesGlobalLocale();

}  // namespace platform
}  // namespace zmx

#include "platform/linux/threads_inline.h"

#endif  // ZMXUTI_PLATFORM_PLATFORM_H
