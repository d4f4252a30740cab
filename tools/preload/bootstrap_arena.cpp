// The bootstrap arena. Its users run before anything else in the process is
// set up, so it takes nothing from the C library but mmap and keeps its state
// in constant-initialised statics.
#include "bootstrap_arena.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstring>

namespace zmx_preload {

namespace {

constexpr std::size_t kHeader = 16;  // the block's size, then padding up to the alignment
constexpr std::size_t kBufferBytes = std::size_t{1} << 20;
constexpr std::size_t kMappingBytes = std::size_t{4} << 20;
constexpr int kMaxMappings = 64;

struct Span {
  std::uintptr_t begin, end;
};

alignas(4096) unsigned char g_buffer[kBufferBytes];
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;
Span g_current = {0, 0};  // where the next block is cut from
std::uintptr_t g_next = 0;
Span g_mappings[kMaxMappings];
std::atomic<int> g_mappingCount{0};

class SpinGuard {
 public:
  SpinGuard() {
    while (g_lock.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~SpinGuard() { g_lock.clear(std::memory_order_release); }
};

std::uintptr_t RoundUp(std::uintptr_t value, std::size_t alignment) {
  return (value + alignment - 1) & ~static_cast<std::uintptr_t>(alignment - 1);
}

// A fresh mapping large enough for `need` bytes; false when the system refuses
// or the span list is full (the request then fails).
bool Grow(std::size_t need) {
  const int count = g_mappingCount.load(std::memory_order_relaxed);
  if (count == kMaxMappings) return false;
  const std::size_t bytes = need > kMappingBytes ? RoundUp(need, 4096) : kMappingBytes;
  void* map = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) return false;
  const auto begin = reinterpret_cast<std::uintptr_t>(map);
  g_mappings[count] = Span{begin, begin + bytes};
  g_mappingCount.store(count + 1, std::memory_order_release);
  g_current = g_mappings[count];
  g_next = begin;
  return true;
}

}  // namespace

void* ArenaAlloc(std::size_t size, std::size_t alignment) {
  if (alignment < kHeader) alignment = kHeader;
  if (size > (std::size_t{1} << 40) || alignment > (std::size_t{1} << 30)) return nullptr;
  SpinGuard guard;
  if (g_current.begin == 0) {
    g_current = Span{reinterpret_cast<std::uintptr_t>(g_buffer), reinterpret_cast<std::uintptr_t>(g_buffer) + kBufferBytes};
    g_next = g_current.begin;
  }
  std::uintptr_t block = RoundUp(g_next + kHeader, alignment);
  if (block + size > g_current.end) {
    if (!Grow(size + alignment + kHeader)) return nullptr;
    block = RoundUp(g_next + kHeader, alignment);
  }
  g_next = RoundUp(block + size, kHeader);
  reinterpret_cast<std::size_t*>(block)[-1] = size;
  return reinterpret_cast<void*>(block);  // never handed out before: still zero
}

bool ArenaContains(const void* block) {
  const auto at = reinterpret_cast<std::uintptr_t>(block);
  if (at - reinterpret_cast<std::uintptr_t>(g_buffer) < kBufferBytes) return true;
  const int count = g_mappingCount.load(std::memory_order_acquire);
  for (int i = 0; i < count; ++i)
    if (at >= g_mappings[i].begin && at < g_mappings[i].end) return true;
  return false;
}

std::size_t ArenaBlockSize(const void* block) { return static_cast<const std::size_t*>(block)[-1]; }

}  // namespace zmx_preload
