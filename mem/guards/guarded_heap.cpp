// The guarded runtime heap: dressing runtime blocks with a size word and two
// guard patterns, and testing the guards when a block is freed or moved.
#include "mem/guards/internal/guarded_heap.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/export.h"
#include "platform/system_allocator.h"

namespace zmx {
namespace mem_internal {

namespace {

using platform::SystemFree;
using Byte = unsigned char;

static_assert(sizeof(kGuardPattern) == kGuardBytes + 1, "the guard is sixteen characters");

// Aligned blocks: the size word's top bit marks them (no request that large
// can be served), and the word in front of the size word holds the distance
// back to the runtime block, scrambled with the block's own address so that
// a size word damaged by a stray write is not taken for an aligned block.
// Plain blocks start 24 bytes into a 16-aligned runtime block, aligned ones on
// a 16-byte boundary: only the latter are asked for the word in front, so a
// plain block's damaged size word never leads to a read before its runtime block.
constexpr std::uint64_t kAlignedMark = std::uint64_t{1} << 63;
constexpr std::uintptr_t kAlignedBoundary = 16;
constexpr std::uint64_t kOffsetKey = 0x5A17ED0FF5E7C0DEull;
constexpr std::size_t kAlignedFrontBytes = 8 + kGuardFrontBytes;  // 32

enum class Caller { kFree, kRealloc };

std::uint64_t LoadWord(const Byte* at) {
  std::uint64_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

void StoreWord(Byte* at, std::uint64_t word) { std::memcpy(at, &word, sizeof word); }

std::uint64_t OffsetCode(const Byte* user, std::uint64_t offset) {
  return offset ^ static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(user)) ^ kOffsetKey;
}

Byte* Dress(Byte* user, std::uint64_t sizeWord, std::size_t size) {
  StoreWord(user - kGuardFrontBytes, sizeWord);
  std::memcpy(user - kGuardBytes, kGuardPattern, kGuardBytes);
  std::memcpy(user + size, kGuardPattern, kGuardBytes);
  return user;
}

// A caller's block as its header describes it.
struct Located {
  Byte* runtime;     // what the runtime heap handed out
  std::size_t size;  // the size word (without the aligned mark)
};

Located Locate(Byte* user) {
  const std::uint64_t word = LoadWord(user - kGuardFrontBytes);
  if ((word & kAlignedMark) != 0 && reinterpret_cast<std::uintptr_t>(user) % kAlignedBoundary == 0) {
    const std::uint64_t offset = OffsetCode(user, LoadWord(user - kAlignedFrontBytes));
    const bool plausible = offset >= kAlignedFrontBytes && (offset & (offset - 1)) == 0 &&
                           offset <= reinterpret_cast<std::uintptr_t>(user);
    if (plausible) return {user - offset, static_cast<std::size_t>(word & ~kAlignedMark)};
  }
  return {user - kGuardFrontBytes, static_cast<std::size_t>(word)};
}

// Bytes of the runtime block from the caller's pointer to its end.
std::size_t Room(const Located& block, const Byte* user) {
  const std::size_t usable = platform::SystemUsableSize(block.runtime);
  const std::size_t front = static_cast<std::size_t>(user - block.runtime);
  return usable > front ? usable - front : 0;
}

// `at` is an integer: a damaged size word may name an address no pointer may hold.
void ReportOverwrite(Caller caller, bool frontEnd, std::uintptr_t at) {
  const unsigned low = static_cast<unsigned>(at);
  if (caller == Caller::kFree) {
    if (frontEnd)
      std::fprintf(stderr, "FREE:memory overwrite detected at 0x%x front end\n", low);
    else
      std::fprintf(stderr, "FREE:memory overwrite detected at 0x%x back end\n", low);
  } else {
    if (frontEnd)
      std::fprintf(stderr, "REALLOC:memory overwrite detected at 0x%x front end\n", low);
    else
      std::fprintf(stderr, "REALLOC:memory overwrite detected at 0x%x back end\n", low);
  }
  std::fflush(stderr);
}

// Both guards are tested independently. A size word that claims more than the
// runtime block holds counts as a damaged back end: the test never reads
// outside the block.
Located CheckGuards(Byte* user, Caller caller) {
  const Located block = Locate(user);
  if (std::memcmp(user - kGuardBytes, kGuardPattern, kGuardBytes) != 0)
    ReportOverwrite(caller, true, reinterpret_cast<std::uintptr_t>(user - kGuardBytes));
  const std::size_t room = Room(block, user);
  const bool backInside = room >= kGuardBytes && block.size <= room - kGuardBytes;
  if (!backInside || std::memcmp(user + block.size, kGuardPattern, kGuardBytes) != 0)
    ReportOverwrite(caller, false, reinterpret_cast<std::uintptr_t>(user) + block.size);
  return block;
}

// The processor's own integer-division fault (SIGFPE, FPE_INTDIV), which is
// what the element rounding of a zero size amounts to. A C++ division by zero
// would be undefined behaviour the compiler may drop.
[[noreturn]] ZMX_NOINLINE void FaultDividingByZero(std::uint64_t dividend) {
#if defined(__x86_64__)
  std::uint64_t high = 0;
  const std::uint64_t divisor = 0;
  __asm__ volatile("divq %2" : "+a"(dividend), "+d"(high) : "r"(divisor));
#else
  __builtin_trap();
#endif
  std::abort();  // reached only if a signal handler resumed past the fault
}

std::size_t DivideOrFault(std::size_t dividend, std::size_t divisor) {
  if (divisor == 0) FaultDividingByZero(dividend);
  return dividend / divisor;
}

// Aligned blocks cannot be moved by the runtime realloc (their runtime block
// does not start 24 bytes before the caller's pointer): copy by hand.
void* MoveAligned(Byte* user, const Located& old, std::size_t size) {
  Byte* fresh = static_cast<Byte*>(GuardedMalloc(size));
  if (fresh == nullptr) return nullptr;
  std::size_t keep = old.size < size ? old.size : size;
  const std::size_t room = Room(old, user);
  if (keep > room) keep = room;
  std::memcpy(fresh, user, keep);
  SystemFree(old.runtime);
  return fresh;
}

}  // namespace

void* GuardedMalloc(std::size_t size) {
  if (size > SIZE_MAX - kGuardOverhead) return nullptr;
  Byte* raw = static_cast<Byte*>(platform::SystemMalloc(size + kGuardOverhead));
  if (raw == nullptr) return nullptr;
  return Dress(raw + kGuardFrontBytes, size, size);
}

void* GuardedCalloc(std::size_t count, std::size_t size) {
  std::size_t total = 0;
  std::size_t padded = 0;
  if (__builtin_mul_overflow(count, size, &total)) return nullptr;
  if (__builtin_add_overflow(total, size, &padded) || __builtin_add_overflow(padded, kGuardOverhead - 1, &padded))
    return nullptr;
  // Whole elements of `size` covering the total and the 40 bytes of header and guards.
  const std::size_t elements = DivideOrFault(padded, size);
  Byte* raw = static_cast<Byte*>(platform::SystemCalloc(elements, size));
  if (raw == nullptr) return nullptr;
  return Dress(raw + kGuardFrontBytes, total, total);
}

void* GuardedRealloc(void* block, std::size_t size) {
  Byte* user = static_cast<Byte*>(block);
  Located old{nullptr, 0};
  if (user != nullptr) old = CheckGuards(user, Caller::kRealloc);
  if (size > SIZE_MAX - kGuardOverhead) return nullptr;
  if (user != nullptr && old.runtime != user - kGuardFrontBytes) return MoveAligned(user, old, size);
  Byte* raw = static_cast<Byte*>(platform::SystemRealloc(old.runtime, size + kGuardOverhead));
  if (raw == nullptr) return nullptr;
  return Dress(raw + kGuardFrontBytes, size, size);
}

void GuardedFree(void* block) noexcept {
  if (block == nullptr) {
    SystemFree(nullptr);
    return;
  }
  SystemFree(CheckGuards(static_cast<Byte*>(block), Caller::kFree).runtime);
}

void* GuardedMemalign(std::size_t alignment, std::size_t size) {
  // Runtime blocks are 16-byte aligned, so every plain guarded block is 8-aligned.
  if (alignment <= 8) return GuardedMalloc(size);
  const std::size_t offset = alignment < kAlignedFrontBytes ? kAlignedFrontBytes : alignment;
  if (size > SIZE_MAX - offset - kGuardBytes) return nullptr;
  void* raw = platform::SystemMemalign(alignment, offset + size + kGuardBytes);
  if (raw == nullptr) return nullptr;
  Byte* user = static_cast<Byte*>(raw) + offset;
  StoreWord(user - kAlignedFrontBytes, OffsetCode(user, offset));
  return Dress(user, size | kAlignedMark, size);
}

std::size_t GuardedUsableSize(const void* block) {
  if (block == nullptr) return 0;
  return Locate(const_cast<Byte*>(static_cast<const Byte*>(block))).size;
}

}  // namespace mem_internal
}  // namespace zmx
