// Randomized stress of the general heap against a model of the live blocks:
// every block carries a pattern checked before it is released or resized, and
// the consistency walk runs periodically. A multi-threaded variant passes
// blocks between threads. ZMX_SOAK_SECONDS=<n> turns both into soaks of n
// seconds each (fresh seeds until the time is up).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "mem/heap/internal/general_heap_check.h"

namespace {

using zmx::mem_internal::CheckGeneralHeap;

double SoakSeconds() {
  const char* v = std::getenv("ZMX_SOAK_SECONDS");
  return v ? std::atof(v) : 0.0;
}

// Sizes from 0 to 4 MiB, most of them small: the mix of a real program.
std::size_t PickSize(std::mt19937_64& rng) {
  const unsigned r = static_cast<unsigned>(rng() % 10000);
  if (r < 7500) return rng() % 513;
  if (r < 9700) return 513 + rng() % 16000;
  if (r < 9985) return 16384 + rng() % 300000;
  return 262144 + rng() % (std::size_t(4) << 20);
}

std::uint8_t PatternByte(std::uint64_t tag) { return static_cast<std::uint8_t>(tag * 131 + 7); }

// A block's pattern: its tag in the first word (when it fits), then one byte value.
void Fill(void* p, std::size_t size, std::uint64_t tag) {
  unsigned char* b = static_cast<unsigned char*>(p);
  std::memset(b, PatternByte(tag), size);
  if (size >= sizeof tag) std::memcpy(b, &tag, sizeof tag);
}

// Checks the first `size` bytes of a block filled with `filled` bytes; returns
// false at the first difference.
bool Intact(const void* p, std::size_t size, std::uint64_t tag, std::size_t filled) {
  const unsigned char* b = static_cast<const unsigned char*>(p);
  std::size_t from = 0;
  if (filled >= sizeof tag) {
    unsigned char word[sizeof tag];
    std::memcpy(word, &tag, sizeof tag);
    from = size < sizeof tag ? size : sizeof tag;
    if (std::memcmp(b, word, from) != 0) return false;
  }
  const unsigned char v = PatternByte(tag);
  for (std::size_t i = from; i < size; ++i)
    if (b[i] != v) return false;
  return true;
}

struct Slot {
  void* p = nullptr;
  std::size_t size = 0;
  std::uint64_t tag = 0;
};

// One seeded run of `ops` random operations over `slots.size()` slots.
void RunSingleThreaded(std::uint64_t seed, std::size_t ops, std::size_t walkEvery) {
  std::mt19937_64 rng(seed);
  std::vector<Slot> slots(2048);
  std::uint64_t nextTag = seed << 32;
  for (std::size_t op = 0; op < ops; ++op) {
    Slot& s = slots[rng() % slots.size()];
    const unsigned kind = static_cast<unsigned>(rng() % 100);
    if (s.p == nullptr) {
      const std::size_t size = PickSize(rng);
      const std::uint64_t tag = ++nextTag;
      void* p;
      if (kind < 60) {
        p = dlmalloc(size);
      } else if (kind < 80) {
        p = dlcalloc(1 + size / 16, size >= 16 ? 16 : size);
        const std::size_t bytes = (1 + size / 16) * (size >= 16 ? 16 : size);
        ASSERT_NE(p, nullptr);
        for (std::size_t i = 0; i < bytes; ++i) ASSERT_EQ(static_cast<unsigned char*>(p)[i], 0) << "calloc byte " << i;
      } else {
        const std::size_t align = std::size_t(32) << (rng() % 9);
        p = dlmemalign(align, size);
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % align, 0u);
      }
      ASSERT_NE(p, nullptr) << "size " << size;
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
      ASSERT_GE(dlmalloc_usable_size(p), size);
      Fill(p, size, tag);
      s = Slot{p, size, tag};
    } else if (kind < 55) {
      ASSERT_TRUE(Intact(s.p, s.size, s.tag, s.size)) << "block of " << s.size << " bytes damaged before free";
      dlfree(s.p);
      s = Slot{};
    } else if (kind < 90) {
      const std::size_t size = kind < 75 ? PickSize(rng) : s.size + rng() % 4096;
      if (size == 0) continue;  // a zero-byte realloc frees; the free branch covers that
      void* p = dlrealloc(s.p, size);
      ASSERT_NE(p, nullptr);
      ASSERT_TRUE(Intact(p, s.size < size ? s.size : size, s.tag, s.size)) << "realloc lost contents";
      ASSERT_GE(dlmalloc_usable_size(p), size);
      s.tag = ++nextTag;
      Fill(p, size, s.tag);
      s.p = p;
      s.size = size;
    } else {
      ASSERT_TRUE(Intact(s.p, s.size, s.tag, s.size)) << "live block damaged";
    }
    if ((op + 1) % walkEvery == 0) {
      const auto report = CheckGeneralHeap();
      ASSERT_TRUE(report.consistent) << "after op " << op << ": " << report.problem;
    }
  }
  for (Slot& s : slots) {
    if (s.p == nullptr) continue;
    ASSERT_TRUE(Intact(s.p, s.size, s.tag, s.size));
    dlfree(s.p);
  }
  const auto report = CheckGeneralHeap();
  ASSERT_TRUE(report.consistent) << report.problem;
}

TEST(HeapStress, RandomOperationsKeepEveryBlockAndTheHeapIntact) {
  const double soak = SoakSeconds();
  const auto start = std::chrono::steady_clock::now();
  std::uint64_t seed = 1;
  do {
    for (std::uint64_t s = seed; s < seed + 3; ++s) {
      RunSingleThreaded(s, 400000, 25000);
      if (HasFatalFailure()) return;
    }
    seed += 3;
  } while (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < soak);
}

// A heavily fragmented heap with many small bins and tries in use, walked often.
TEST(HeapStress, SmallAndMediumChurnUnderFrequentWalks) {
  std::mt19937_64 rng(77);
  std::vector<Slot> slots(6000);
  std::uint64_t tag = 0;
  for (int op = 0; op < 200000; ++op) {
    Slot& s = slots[rng() % slots.size()];
    if (s.p) {
      ASSERT_TRUE(Intact(s.p, s.size, s.tag, s.size));
      dlfree(s.p);
      s = Slot{};
    } else {
      const std::size_t size = (rng() % 4 == 0) ? 256 + rng() % 3000 : rng() % 250;
      s = Slot{dlmalloc(size), size, ++tag};
      ASSERT_NE(s.p, nullptr);
      Fill(s.p, size, s.tag);
    }
    if (op % 5000 == 0) {
      const auto report = CheckGeneralHeap();
      ASSERT_TRUE(report.consistent) << "after op " << op << ": " << report.problem;
      ASSERT_GT(report.binned, 0u);
    }
  }
  for (Slot& s : slots)
    if (s.p) dlfree(s.p);
  const auto report = CheckGeneralHeap();
  ASSERT_TRUE(report.consistent) << report.problem;
}

// ------------------------------------------------------------ threads

// A block that travels between threads carries its own size and tag.
struct Header {
  std::size_t size;
  std::uint64_t tag;
};

void* MakeTravelling(std::size_t size, std::uint64_t tag, unsigned kind) {
  size += sizeof(Header);
  void* p = kind == 0 ? mem_Malloc(size) : kind == 1 ? mem_Calloc(1, size) : ::operator new(size);
  if (p == nullptr) return nullptr;
  Header h{size, tag};
  std::memcpy(p, &h, sizeof h);
  std::memset(static_cast<char*>(p) + sizeof h, PatternByte(tag), size - sizeof h);
  return p;
}

bool TravellingIntact(const void* p) {
  Header h;
  std::memcpy(&h, p, sizeof h);
  const unsigned char* b = static_cast<const unsigned char*>(p);
  const unsigned char v = PatternByte(h.tag);
  for (std::size_t i = sizeof h; i < h.size; ++i)
    if (b[i] != v) return false;
  return true;
}

struct SharedState {
  std::vector<std::atomic<void*>> mailboxes;
  std::atomic<long> damaged{0};
  std::atomic<long> failed{0};
  std::atomic<long> exchanged{0};
  explicit SharedState(std::size_t n) : mailboxes(n) {
    for (auto& m : mailboxes) m.store(nullptr);
  }
};

void Worker(SharedState& shared, unsigned id, std::size_t ops) {
  std::mt19937_64 rng(1000 + id);
  std::vector<void*> own(64, nullptr);
  std::uint64_t tag = std::uint64_t(id) << 40;
  for (std::size_t op = 0; op < ops; ++op) {
    const std::size_t size = (rng() % 64 == 0) ? rng() % 400000 : rng() % 600;
    void* p = MakeTravelling(size, ++tag, static_cast<unsigned>(rng() % 3));
    if (p == nullptr) {
      shared.failed.fetch_add(1);
      continue;
    }
    void*& mine = own[rng() % own.size()];
    if (rng() % 2 == 0) {
      // Hand it to whichever thread opens this mailbox next; free what was there.
      void* old = shared.mailboxes[rng() % shared.mailboxes.size()].exchange(p);
      if (old != nullptr) {
        if (!TravellingIntact(old)) shared.damaged.fetch_add(1);
        mem_Free(old);
        shared.exchanged.fetch_add(1, std::memory_order_relaxed);
      }
    } else {
      if (mine != nullptr) {
        if (!TravellingIntact(mine)) shared.damaged.fetch_add(1);
        Header h;
        std::memcpy(&h, mine, sizeof h);
        // Resize a kept block now and then; its contents must follow.
        void* grown = mem_Realloc(mine, h.size + 100);
        if (grown == nullptr || !TravellingIntact(grown)) shared.damaged.fetch_add(1);
        ::operator delete(grown);
      }
      mine = p;
    }
  }
  for (void* p : own) {
    if (p == nullptr) continue;
    if (!TravellingIntact(p)) shared.damaged.fetch_add(1);
    mem_Free(p);
  }
}

void RunThreads(unsigned threads, std::size_t opsPerThread) {
  SharedState shared(256);
  std::vector<std::thread> pool;
  for (unsigned t = 0; t < threads; ++t) pool.emplace_back(Worker, std::ref(shared), t, opsPerThread);
  for (auto& th : pool) th.join();
  for (auto& m : shared.mailboxes) {
    void* p = m.exchange(nullptr);
    if (p == nullptr) continue;
    EXPECT_TRUE(TravellingIntact(p));
    mem_Free(p);
  }
  EXPECT_EQ(shared.damaged.load(), 0) << threads << " threads";
  EXPECT_EQ(shared.failed.load(), 0) << threads << " threads";
  EXPECT_GT(shared.exchanged.load(), static_cast<long>(opsPerThread / 4));
  const auto report = CheckGeneralHeap();
  EXPECT_TRUE(report.consistent) << report.problem;
}

TEST(HeapStress, ThreadsFreeingEachOthersBlocksKeepEveryPattern) {
  const double soak = SoakSeconds();
  const auto start = std::chrono::steady_clock::now();
  do {
    for (unsigned threads : {2u, 4u, 8u}) {
      RunThreads(threads, 160000 / threads);
      if (HasFailure()) return;
    }
  } while (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < soak);
}

}  // namespace
