// The library's one contract with the operating system: virtual memory,
// address waits and auto-reset events. Each OS implements it in its own folder
// (platform/linux/ here); nothing outside platform/ calls the OS directly.
#ifndef ZMXUTI_PLATFORM_PLATFORM_H
#define ZMXUTI_PLATFORM_PLATFORM_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zmx {
namespace platform {

// ---- virtual memory ----
std::size_t PageSize();
// The unit in which address space is handed out (64 KiB on Windows, the page size here).
std::size_t AllocationGranularity();
// Reserves and commits `size` bytes read-write; `fromTop` asks for high addresses
// and `near` for a place starting at that address (both hints only). Returns
// null on failure. The memory reads as zero.
void* MapMemory(std::size_t size, bool fromTop, const void* near = nullptr);
// Gives back a range obtained from MapMemory (whole or the tail of one). True on success.
bool UnmapMemory(void* address, std::size_t size);

// ---- waiting on a 32-bit word ----
// Sleeps while *word == expected (spurious returns allowed).
void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected);
void WakeOneOnWord(std::atomic<std::uint32_t>* word);

// ---- auto-reset event ----
// Signal releases one waiter (or the next one to wait) and resets itself.
struct Event;
Event* CreateAutoResetEvent();  // null when the system refuses
void CloseEvent(Event* event);
void SignalEvent(Event* event);
void WaitEvent(Event* event);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_PLATFORM_H
