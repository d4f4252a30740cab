// The guarded runtime heap (ZEM_DEADBEEF): runtime heap blocks wrapped in a
// size word and two guard patterns that free and realloc test. The runtime
// blocks come from the system allocator (platform/system_allocator.h).
//
// Layout of one block, from the start of the runtime block:
//   [0, 8)                  requested size in bytes
//   [8, 24)                 "DEADBEEFDEADBEEF" (front guard)
//   [24, 24 + size)         the caller's block (the pointer handed out)
//   [24 + size, 40 + size)  "DEADBEEFDEADBEEF" (back guard)
// A damaged guard is reported on stderr when the block is freed or
// reallocated ("FREE:memory overwrite detected at 0x%x front end\n" and its
// kin, the address's low 32 bits) and the program goes on.
#ifndef ZMXUTI_MEM_GUARDS_INTERNAL_GUARDED_HEAP_H
#define ZMXUTI_MEM_GUARDS_INTERNAL_GUARDED_HEAP_H

#include <cstddef>

namespace zmx {
namespace mem_internal {

constexpr char kGuardPattern[] = "DEADBEEFDEADBEEF";
constexpr std::size_t kGuardBytes = 16;
constexpr std::size_t kGuardFrontBytes = 8 + kGuardBytes;             // size word + front guard
constexpr std::size_t kGuardOverhead = kGuardFrontBytes + kGuardBytes;  // 40

// Null when the runtime heap refuses or size + 40 does not fit in size_t.
void* GuardedMalloc(std::size_t size);
// Asks the runtime heap for whole elements of `size` covering count * size + 40
// bytes, all zero. A size of 0 ends the process with an integer-division fault
// (SIGFPE), as the rounding divides by it. Null on overflow or refusal.
void* GuardedCalloc(std::size_t count, std::size_t size);
// Tests the guards (unless null), then moves the block; the new block carries
// fresh guards. On refusal the old block stays as it was and null is returned.
void* GuardedRealloc(void* block, std::size_t size);
// Tests the guards, then frees; null is passed on to the runtime free.
void GuardedFree(void* block) noexcept;
// The aligned operator new forms: `alignment` a power of two. Blocks aligned
// beyond 8 bytes carry an offset word in front of the size word and a mark in
// the size word's top bit, so that free finds their runtime block.
void* GuardedMemalign(std::size_t alignment, std::size_t size);
// The size the block was asked for (its size word); 0 for null. No guard test.
std::size_t GuardedUsableSize(const void* block);

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_GUARDS_INTERNAL_GUARDED_HEAP_H
