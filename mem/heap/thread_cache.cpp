// The general heap's per-thread cache of free small chunks, in front of the
// heap when ZMX_HEAP_THREAD_CACHE chooses the cached filling of the table.
//
// A cached chunk stays in use from the heap's view; its head is never written
// here (the heap may flip its previous-in-use bit at any time under its lock).
// Its second word holds a mark derived from its address, so that a second free
// of a cached block is caught; the mark is wiped when the chunk leaves. Each
// thread refills a size class in one batch (cut off the top chunk in one step
// where it can) and gives back half a class, or half of everything past its
// byte bound, in one batch: one heap lock per batch, not per call.
//
// Reaching another thread's cache (statistics, trim, a refusal by the memory
// limit, fork, the thread's exit) follows one protocol. The owner marks its
// cache busy around the few instructions that touch its lists (never around a
// heap call) and looks for a request to stop first; it orders these plain
// stores and loads only against the compiler. Whoever empties a cache holds
// the registry lock, raises the cache's stop request, runs the process-wide
// barrier (after which either the owner's busy mark is visible or the owner's
// next look sees the request), waits until the cache is not busy, detaches
// its lists, drops the request, and returns the chunks under the heap lock.
// An owner that sees a request waits until it is dropped. Where the system
// has no such barrier, the owner takes a one-word lock instead, which the
// one who empties takes as well. While the process has a single thread the
// owner does neither: no other thread exists to look. Locks are taken in the
// order registry, cache, heap; no cache is held while waiting for the heap.
#include "mem/heap/internal/thread_cache.h"

#include <cstring>
#include <new>

#include "mem/heap/general_heap.h"
#include "mem/heap/internal/general_heap_state.h"
#include "platform/platform.h"
#include "platform/threads.h"

namespace zmx {
namespace mem_internal {

std::atomic<unsigned> g_threadCaches{0};

namespace {

using heap::Chunk;
using heap::ChunkSize;
using heap::FromMem;
using heap::g_heap;
using heap::HeapLockGuard;
using heap::kChunkOverhead;
using heap::kMinChunk;
using heap::ToMem;

constexpr std::size_t kMaxCachedRequest = kCachedChunkMax - kChunkOverhead;
constexpr unsigned kFirstRefill = 2;

constexpr unsigned ClassOf(std::size_t chunkSize) { return static_cast<unsigned>(chunkSize >> 4) - 2; }
constexpr std::size_t ClassSize(unsigned cls) { return (std::size_t(cls) + 2) << 4; }

// The mark of a cached chunk in its bk word; the library's load address makes
// it differ from run to run.
Chunk* Mark(const Chunk* p) {
  static const char anchor = 0;
  return reinterpret_cast<Chunk*>(reinterpret_cast<std::uintptr_t>(p) ^
                                  (reinterpret_cast<std::uintptr_t>(&anchor) * 0x9E3779B97F4A7C15u));
}
bool IsMarked(const Chunk* p) { return p->bk == Mark(p); }

struct CapTable {
  std::uint8_t cap[kCacheClasses];
};
constexpr CapTable MakeCaps() {
  CapTable t{};
  for (unsigned i = 0; i < kCacheClasses; ++i) t.cap[i] = static_cast<std::uint8_t>(CacheClassCap(ClassSize(i)));
  return t;
}
constexpr CapTable kCaps = MakeCaps();

// Held for a few instructions by a cache's owner, or briefly by whoever
// empties the cache: spin a little, then let the holder run.
class WordLock {
 public:
  void Acquire() {
    while (flag_.exchange(1, std::memory_order_acquire) != 0) {
      for (int i = 0; i < 100 && flag_.load(std::memory_order_relaxed) != 0; ++i) platform::CpuRelax();
      if (flag_.load(std::memory_order_relaxed) != 0) platform::YieldThread();
    }
  }
  void Release() { flag_.store(0, std::memory_order_release); }
  bool Held() const { return flag_.load(std::memory_order_relaxed) != 0; }
  void Reset() { flag_.store(0, std::memory_order_relaxed); }

 private:
  std::atomic<std::uint32_t> flag_{0};
};

struct ThreadCache {
  std::atomic<std::uint32_t> busy{0};      // set by the owner around list work
  std::atomic<std::uint32_t> stopAsked{0};  // set by whoever empties the cache
  Chunk* heads[kCacheClasses] = {};  // linked through fd
  std::uint8_t counts[kCacheClasses] = {};
  // Chunks the next refill of each class takes: it starts small and doubles
  // with every refill up to half the class's cap, so that classes seldom used
  // do not fill the thread's bound.
  std::uint8_t refill[kCacheClasses] = {};
  std::size_t bytes = 0;
  // The heap's address range as of this thread's last refill (it only ever
  // widens): frees check against it without touching the heap's own lines.
  std::uintptr_t least = 0;
  std::size_t span = 0;
  WordLock lock;
  ThreadCache* next = nullptr;  // registry links, under the registry lock
  ThreadCache* prev = nullptr;
};

// Null until the thread's first cached request, and again once it has ended.
thread_local ThreadCache* t_cache __attribute__((tls_model("initial-exec"))) = nullptr;
// Set when the thread must not (or can no longer) have a cache.
thread_local bool t_bypass __attribute__((tls_model("initial-exec"))) = false;

WordLock g_registryLock;
ThreadCache* g_registry = nullptr;
platform::ThreadExitKey g_exitKey = {0};
int g_exitKeyState = 0;  // 0 not yet made, 1 made, -1 refused; under the registry lock
// Decided at the first registration, before any cache exists (and again in a
// forked child while it has one thread): owners mark busy instead of locking.
bool g_barrierProtocol = false;
bool g_barrierDecided = false;

// The owner saw a stop request: it steps aside until the request is dropped.
ZMX_NOINLINE void WaitOutStop(ThreadCache* c) {
  do {
    c->busy.store(0, std::memory_order_release);
    for (unsigned spins = 0; c->stopAsked.load(std::memory_order_acquire) != 0; ++spins) {
      if (spins < 100)
        platform::CpuRelax();
      else
        platform::YieldThread();
    }
    c->busy.store(1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } while (c->stopAsked.load(std::memory_order_acquire) != 0);
}

// The owner's hold on its cache around list work.
class OwnerHold {
 public:
  explicit OwnerHold(ThreadCache* c) : c_(c), mode_(kAlone) {
    if (platform::ProcessIsSingleThreaded()) return;
    if (g_barrierProtocol) {
      mode_ = kBusy;
      c_->busy.store(1, std::memory_order_relaxed);
      std::atomic_signal_fence(std::memory_order_seq_cst);
      if (ZMX_UNLIKELY(c_->stopAsked.load(std::memory_order_acquire) != 0)) WaitOutStop(c_);
    } else {
      mode_ = kLocked;
      c_->lock.Acquire();
    }
  }
  ~OwnerHold() {
    if (mode_ == kBusy) {
      std::atomic_signal_fence(std::memory_order_seq_cst);
      c_->busy.store(0, std::memory_order_release);
    } else if (mode_ == kLocked) {
      c_->lock.Release();
    }
  }
  OwnerHold(const OwnerHold&) = delete;
  OwnerHold& operator=(const OwnerHold&) = delete;

 private:
  enum Mode { kAlone, kBusy, kLocked };
  ThreadCache* c_;
  Mode mode_;
};

// Another thread's hold on a cache (the registry lock held): its owner is
// outside its list work and stays out until the hold ends.
class StopHold {
 public:
  explicit StopHold(ThreadCache* c) : c_(c) {
    if (!g_barrierProtocol) {
      c_->lock.Acquire();
      return;
    }
    c_->stopAsked.store(1, std::memory_order_seq_cst);
    if (!platform::ProcessBarrier()) CrashNoBarrier();
    for (unsigned spins = 0; c_->busy.load(std::memory_order_acquire) != 0; ++spins) {
      if (spins < 100)
        platform::CpuRelax();
      else
        platform::YieldThread();
    }
  }
  ~StopHold() {
    if (g_barrierProtocol)
      c_->stopAsked.store(0, std::memory_order_release);
    else
      c_->lock.Release();
  }
  StopHold(const StopHold&) = delete;
  StopHold& operator=(const StopHold&) = delete;

 private:
  [[noreturn]] static void CrashNoBarrier() { heap::CorruptionDetected("the process-wide barrier failed"); }
  ThreadCache* c_;
};

// ---- lists (the caller holds the cache) ----

void Push(ThreadCache* c, unsigned cls, Chunk* p) {
  p->bk = Mark(p);
  p->fd = c->heads[cls];
  c->heads[cls] = p;
  ++c->counts[cls];
  c->bytes += ClassSize(cls);
}

// Detaches all but the first `keep` chunks of a class into chains[cls].
void DetachTail(ThreadCache* c, unsigned cls, unsigned keep, Chunk** chains) {
  const unsigned count = c->counts[cls];
  if (count <= keep) return;
  Chunk** link = &c->heads[cls];
  for (unsigned i = 0; i < keep; ++i) link = &(*link)->fd;
  chains[cls] = *link;
  *link = nullptr;
  c->counts[cls] = static_cast<std::uint8_t>(keep);
  c->bytes -= (count - keep) * ClassSize(cls);
}

std::size_t DetachAll(ThreadCache* c, Chunk** chains) {
  const std::size_t bytes = c->bytes;
  for (unsigned cls = 0; cls < kCacheClasses; ++cls) {
    chains[cls] = c->heads[cls];
    c->heads[cls] = nullptr;
    c->counts[cls] = 0;
  }
  c->bytes = 0;
  return bytes;
}

// Returns detached chains (and one more chunk, if given) under one heap lock.
void ReturnChains(Chunk** chains, Chunk* extra = nullptr) {
  heap::EnsureSetUp();
  HeapLockGuard guard(g_heap);
  if (extra != nullptr) g_heap.Free(ToMem(extra));
  for (unsigned cls = 0; cls < kCacheClasses; ++cls) {
    for (Chunk* p = chains[cls]; p != nullptr;) {
      Chunk* next = p->fd;
      p->bk = nullptr;
      g_heap.Free(ToMem(p));
      p = next;
    }
  }
  ZMX_HEAP_DEBUG_CHECK(g_heap);
}

// ---- the registry ----

void OnThreadExit(void* argument);

bool EnsureExitKeyHeld() {
  if (g_exitKeyState == 0) g_exitKeyState = platform::CreateThreadExitKey(OnThreadExit, &g_exitKey) ? 1 : -1;
  return g_exitKeyState > 0;
}

void LinkHeld(ThreadCache* c) {
  c->next = g_registry;
  if (g_registry != nullptr) g_registry->prev = c;
  g_registry = c;
  g_threadCaches.fetch_add(1, std::memory_order_relaxed);
}

void UnlinkHeld(ThreadCache* c) {
  if (c->prev != nullptr)
    c->prev->next = c->next;
  else
    g_registry = c->next;
  if (c->next != nullptr) c->next->prev = c->prev;
  g_threadCaches.fetch_sub(1, std::memory_order_relaxed);
}

// The thread's first cached request; null leaves the request to the heap.
ZMX_NOINLINE ThreadCache* Register() {
  if (t_bypass) return nullptr;
  void* memory = dlmalloc(sizeof(ThreadCache));
  if (memory == nullptr) return nullptr;
  ThreadCache* c = new (memory) ThreadCache();
  g_registryLock.Acquire();
  if (!g_barrierDecided) {
    g_barrierDecided = true;
    g_barrierProtocol = platform::EnableProcessBarrier();
  }
  const bool keyMade = EnsureExitKeyHeld();
  if (keyMade) LinkHeld(c);
  g_registryLock.Release();
  if (keyMade && platform::ArmThreadExit(g_exitKey, c)) {
    t_cache = c;
    return c;
  }
  if (keyMade) {
    g_registryLock.Acquire();
    UnlinkHeld(c);
    g_registryLock.Release();
  }
  t_bypass = true;
  dlfree(memory);
  return nullptr;
}

// Once unlinked, nobody else can reach the cache: its chunks and its record go back.
void ReturnCacheAndRecord(ThreadCache* c) {
  Chunk* chains[kCacheClasses];
  DetachAll(c, chains);
  ReturnChains(chains, FromMem(c));
}

void OnThreadExit(void* argument) {
  ThreadCache* c = static_cast<ThreadCache*>(argument);
  // Destructors that run after this one allocate from the heap directly.
  t_cache = nullptr;
  t_bypass = true;
  g_registryLock.Acquire();
  UnlinkHeld(c);
  g_registryLock.Release();
  ReturnCacheAndRecord(c);
}

std::size_t FlushAllHeld() {
  std::size_t total = 0;
  for (ThreadCache* c = g_registry; c != nullptr; c = c->next) {
    Chunk* chains[kCacheClasses];
    std::size_t bytes;
    {
      StopHold hold(c);
      bytes = DetachAll(c, chains);
    }
    if (bytes != 0) ReturnChains(chains);
    total += bytes;
  }
  return total;
}

// ---- slow paths ----

// True when the heap can serve a chunk of nb bytes without asking the system.
bool HeldSpaceServes(std::size_t nb) {
  const heap::Heap& h = g_heap;
  return h.topSize >= nb + kMinChunk || h.dvSize >= nb ||
         (heap::IsSmall(nb) && (h.smallMap >> heap::SmallIndex(nb)) != 0);
}

// Cuts n chunks of nb bytes off the front of the top chunk (which keeps at
// least a minimum chunk), marked as cached and linked; the caller holds the heap.
Chunk* CarveFromTop(std::size_t nb, unsigned n, Chunk*& tail) {
  heap::Heap& h = g_heap;
  Chunk* chain = nullptr;
  Chunk* p = h.top;
  tail = p;
  for (unsigned i = 0; i < n; ++i) {
    heap::SetSizeAndPinuseOfInuseChunk(p, nb);
    p->bk = Mark(p);
    p->fd = chain;
    chain = p;
    p = heap::ChunkAt(p, nb);
  }
  h.topSize -= n * nb;
  h.top = p;
  p->head = h.topSize | heap::kPinuse;
  return chain;
}

// A request just refused by the memory limit is tried once more after every
// cache went back; the status then reads as the retried request alone leaves it.
template <typename Attempt>
void* RetryAfterRefusal(int statusBefore, Attempt attempt) {
  if (error_memory_limit() != -1 || FlushAllThreadCaches() == 0) return nullptr;
  {
    HeapLockGuard guard(g_heap);
    heap::g_limitStatus = statusBefore;
  }
  return attempt();
}


// Chunks taken for the cache beside a request: a chain from last to first.
struct Batch {
  Chunk* chain = nullptr;
  Chunk* tail = nullptr;
  unsigned count = 0;
};

// Under the heap lock: serves the request, then takes up to `want` chunks of
// nb bytes while held space allows it without a system request.
void* MallocWithBatch(ThreadCache* c, std::size_t size, std::size_t nb, unsigned want, Batch& b) {
  heap::EnsureSetUp();
  HeapLockGuard guard(g_heap);
  void* mem = g_heap.Malloc(size);
  c->least = reinterpret_cast<std::uintptr_t>(g_heap.leastAddr);
  c->span = g_heap.addrSpan;
  if (mem == nullptr || want == 0) return mem;
  if (g_heap.topSize >= want * nb + kMinChunk) {
    b.chain = CarveFromTop(nb, want, b.tail);
    b.count = want;
  }
  while (b.count < want && HeldSpaceServes(nb)) {
    void* extra = g_heap.Malloc(nb - kChunkOverhead);
    if (extra == nullptr) break;
    Chunk* q = FromMem(extra);
    if (ChunkSize(q) != nb) {  // a slightly larger chunk: not for this class
      g_heap.Free(extra);
      break;
    }
    q->bk = Mark(q);
    q->fd = b.chain;
    b.chain = q;
    if (b.tail == nullptr) b.tail = q;
    ++b.count;
  }
  ZMX_HEAP_DEBUG_CHECK(g_heap);
  return mem;
}

// Serves the request from the heap and refills its class (within the thread's
// bound) in the same lock.
ZMX_NOINLINE void* RefillAndTake(std::size_t nb, std::size_t size) {
  ThreadCache* c = t_cache;
  if (c == nullptr && (c = Register()) == nullptr) return HeapMallocReturningCaches(size);
  const unsigned cls = ClassOf(nb);
  unsigned want;
  {
    OwnerHold hold(c);
    const std::size_t room = c->bytes < kCacheThreadBytes ? (kCacheThreadBytes - c->bytes) / nb : 0;
    const unsigned half = kCaps.cap[cls] / 2u;
    const unsigned step = c->refill[cls] != 0 ? c->refill[cls] : kFirstRefill;
    c->refill[cls] = static_cast<std::uint8_t>(2 * step < half ? 2 * step : half);
    want = c->counts[cls] >= step ? 0u : step - c->counts[cls];
    if (room < want) want = static_cast<unsigned>(room);
  }
  const int before = error_memory_limit();
  Batch b;
  void* mem = MallocWithBatch(c, size, nb, want, b);
  if (mem == nullptr) return RetryAfterRefusal(before, [size] { return dlmalloc(size); });
  if (b.count != 0) {
    OwnerHold hold(c);
    b.tail->fd = c->heads[cls];
    c->heads[cls] = b.chain;
    c->counts[cls] = static_cast<std::uint8_t>(c->counts[cls] + b.count);
    c->bytes += b.count * nb;
  }
  return mem;
}

// The class (or the whole cache) is full: half of it goes back, then p goes in.
ZMX_NOINLINE void FreeOverCap(ThreadCache* c, Chunk* p, unsigned cls) {
  Chunk* chains[kCacheClasses] = {};
  {
    OwnerHold hold(c);
    if (c->bytes + ClassSize(cls) > kCacheThreadBytes) {
      for (unsigned k = 0; k < kCacheClasses; ++k) DetachTail(c, k, c->counts[k] / 2u, chains);
    }
    if (c->counts[cls] >= kCaps.cap[cls]) DetachTail(c, cls, kCaps.cap[cls] / 2u, chains);
    Push(c, cls, p);
  }
  ReturnChains(chains);
}

ZMX_NOINLINE void FreeRefreshingRange(ThreadCache* c, void* block) {
  heap::EnsureSetUp();
  HeapLockGuard guard(g_heap);
  c->least = reinterpret_cast<std::uintptr_t>(g_heap.leastAddr);
  c->span = g_heap.addrSpan;
  g_heap.Free(block);
  ZMX_HEAP_DEBUG_CHECK(g_heap);
}

}  // namespace

// ---------------------------------------------------------------- entry points

void* ThreadCacheMalloc(std::size_t size) {
  if (ZMX_LIKELY(size <= kMaxCachedRequest)) {
    const std::size_t nb = heap::RequestToSize(size);
    if (ThreadCache* c = t_cache) {
      const unsigned cls = ClassOf(nb);
      Chunk* p;
      {
        OwnerHold hold(c);
        p = c->heads[cls];
        if (p != nullptr) {
          c->heads[cls] = p->fd;
          --c->counts[cls];
          c->bytes -= nb;
        }
      }
      if (ZMX_LIKELY(p != nullptr)) {
        p->bk = nullptr;
        return ToMem(p);
      }
    }
    return RefillAndTake(nb, size);
  }
  return HeapMallocReturningCaches(size);
}

void ThreadCacheFree(void* block) noexcept {
  if (block == nullptr) return;
  Chunk* p = FromMem(block);
  const std::size_t head = p->head;
  if (ZMX_UNLIKELY(IsMarked(p))) heap::CorruptionDetected("free of a block that is not in use");
  const std::size_t size = head & ~heap::kFlagBits;
  // An in-use chunk of a segment, of a cached size; anything else is the
  // heap's to judge. (The neighbour's header is left alone: it is usually on
  // another cache line, and the heap checks it when the chunk goes back.)
  if (ZMX_LIKELY((head & heap::kCinuse) != 0 && size - kMinChunk <= kCachedChunkMax - kMinChunk &&
                 (size & heap::kAlignMask) == 0)) {
    ThreadCache* c = t_cache;
    if (ZMX_UNLIKELY(c == nullptr) && (c = Register()) == nullptr) return dlfree(block);
    // Outside the range this thread knows: the heap judges the block, and the
    // range is brought up to date for the next free.
    if (ZMX_UNLIKELY(reinterpret_cast<std::uintptr_t>(p) - c->least >= c->span)) return FreeRefreshingRange(c, block);
    const unsigned cls = ClassOf(size);
    {
      OwnerHold hold(c);
      if (ZMX_LIKELY(c->counts[cls] < kCaps.cap[cls] && c->bytes + size <= kCacheThreadBytes)) {
        Push(c, cls, p);
        return;
      }
    }
    FreeOverCap(c, p, cls);
    return;
  }
  dlfree(block);
}

void* ThreadCacheCalloc(std::size_t count, std::size_t size) {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return nullptr;
  if (bytes <= kMaxCachedRequest) {
    void* mem = ThreadCacheMalloc(bytes);
    if (mem != nullptr) std::memset(mem, 0, bytes);
    return mem;
  }
  const int before = error_memory_limit();
  if (void* mem = dlcalloc(count, size)) return mem;
  return RetryAfterRefusal(before, [count, size] { return dlcalloc(count, size); });
}

void* ThreadCacheRealloc(void* block, std::size_t size) {
  if (block == nullptr) return ThreadCacheMalloc(size);
  if (size == 0) {
    ThreadCacheFree(block);
    return nullptr;
  }
  return HeapReallocReturningCaches(block, size);
}

void* ThreadCacheMemalign(std::size_t alignment, std::size_t size) {
  if (alignment <= heap::kAlign) return ThreadCacheMalloc(size);
  return HeapMemalignReturningCaches(alignment, size);
}

void* HeapMallocReturningCaches(std::size_t size) {
  const int before = error_memory_limit();
  if (void* mem = dlmalloc(size)) return mem;
  return RetryAfterRefusal(before, [size] { return dlmalloc(size); });
}

void* HeapReallocReturningCaches(void* block, std::size_t size) {
  const int before = error_memory_limit();
  void* mem = dlrealloc(block, size);
  if (mem != nullptr || size == 0) return mem;  // a resize to 0 released the block
  return RetryAfterRefusal(before, [block, size] { return dlrealloc(block, size); });
}

void* HeapMemalignReturningCaches(std::size_t alignment, std::size_t size) {
  const int before = error_memory_limit();
  if (void* mem = dlmemalign(alignment, size)) return mem;
  return RetryAfterRefusal(before, [alignment, size] { return dlmemalign(alignment, size); });
}

// ---------------------------------------------------------------- flushes

std::size_t FlushAllThreadCaches() {
  g_registryLock.Acquire();
  const std::size_t total = FlushAllHeld();
  g_registryLock.Release();
  return total;
}

void ThreadCacheFlushAllForFork() {
  g_registryLock.Acquire();
  FlushAllHeld();
}

void ThreadCacheResumeInParent() { g_registryLock.Release(); }

void ThreadCacheResetInChild() {
  g_registryLock.Reset();
  // One thread now: the protocol may change before a second thread exists.
  if (g_barrierProtocol) g_barrierProtocol = platform::EnableProcessBarrier();
  ThreadCache* mine = t_cache;
  ThreadCache* c = g_registry;
  g_registry = nullptr;
  g_threadCaches.store(0, std::memory_order_relaxed);
  while (c != nullptr) {
    ThreadCache* next = c->next;
    // A cache caught in the middle of its owner's operation is left as it is.
    if (c != mine && !c->lock.Held() && c->busy.load(std::memory_order_relaxed) == 0) ReturnCacheAndRecord(c);
    c = next;
  }
  if (mine != nullptr) {
    mine->lock.Reset();
    mine->stopAsked.store(0, std::memory_order_relaxed);
    mine->next = mine->prev = nullptr;
    LinkHeld(mine);
  }
}

ThreadCacheView CurrentThreadCacheView() {
  ThreadCacheView view{};
  view.withinClassCaps = true;
  ThreadCache* mine = t_cache;
  g_registryLock.Acquire();
  view.liveCaches = g_threadCaches.load(std::memory_order_relaxed);
  for (ThreadCache* c = g_registry; c != nullptr; c = c->next) {
    StopHold hold(c);
    view.processBytes += c->bytes;
    if (c != mine) continue;
    view.registered = true;
    view.bytes = c->bytes;
    for (unsigned cls = 0; cls < kCacheClasses; ++cls) {
      view.chunks += c->counts[cls];
      if (c->counts[cls] > kCaps.cap[cls]) view.withinClassCaps = false;
    }
  }
  g_registryLock.Release();
  return view;
}

}  // namespace mem_internal
}  // namespace zmx
