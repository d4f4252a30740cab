// The general heap's parameters (the dlmallopt table and its lag), statistics,
// trimming, direct mappings, aligned allocation and its place behind the front door.
#include <gtest/gtest.h>

#include <algorithm>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "mem/heap/internal/general_heap_check.h"

namespace {

using zmx::mem_internal::CheckGeneralHeap;
using zmx::mem_internal::GeneralHeapParameters;
using zmx::mem_internal::HeapParameterView;

constexpr std::size_t kMaxSize = ~std::size_t(0);

void ExpectConsistent() {
  const auto report = CheckGeneralHeap();
  EXPECT_TRUE(report.consistent) << report.problem;
}

// Puts every parameter back to its default and in force.
// The granularity the heap started with (64 KiB units, or the page if larger).
const std::size_t kSystemGranularity = GeneralHeapParameters().granularity;

void RestoreDefaults() {
  dlmallopt(-1, 2097152);
  dlmallopt(-2, static_cast<int>(kSystemGranularity));
  dlmallopt(-3, 262144);
  dlmallopt(-4, 2);
  dlmallopt(-5, 0);
  dlmallopt(-1, 2097152);  // the call that brings the lock switch and limit into force
}

class HeapParameters : public ::testing::Test {
 protected:
  void TearDown() override { RestoreDefaults(); }
};

TEST_F(HeapParameters, StartFromTheDocumentedDefaults) {
  RestoreDefaults();
  const HeapParameterView v = GeneralHeapParameters();
  EXPECT_EQ(v.granularity, std::max<std::size_t>(v.pageSize, 65536));
  EXPECT_EQ(v.mmapThreshold, 262144u);
  EXPECT_EQ(v.trimThreshold, 2097152u);
  EXPECT_EQ(v.defaultFlags, 7u);
  EXPECT_EQ(v.heapFlags, 7u);
  EXPECT_EQ(v.lockUse, 2u);
  EXPECT_EQ(v.lockUseInForce, 2u);
  EXPECT_EQ(v.memoryLimit, 0u);
  EXPECT_EQ(v.magic, 0x58585858u);
}

TEST_F(HeapParameters, EachMalloptRowAcceptsOrRefusesAsDocumented) {
  EXPECT_EQ(dlmallopt(-1, 1 << 20), 1);
  EXPECT_EQ(GeneralHeapParameters().trimThreshold, std::size_t(1) << 20);

  const std::size_t page = GeneralHeapParameters().pageSize;
  EXPECT_EQ(dlmallopt(-2, 3), 0);
  EXPECT_EQ(dlmallopt(-2, static_cast<int>(page / 2)), 0);
  EXPECT_EQ(dlmallopt(-2, static_cast<int>(page * 3)), 0);
  EXPECT_EQ(dlmallopt(-2, -static_cast<int>(page)), 0);
  EXPECT_EQ(GeneralHeapParameters().granularity, kSystemGranularity);
  EXPECT_EQ(dlmallopt(-2, static_cast<int>(page)), 1);
  EXPECT_EQ(GeneralHeapParameters().granularity, page);
  EXPECT_EQ(dlmallopt(-2, static_cast<int>(page * 32)), 1);
  EXPECT_EQ(GeneralHeapParameters().granularity, page * 32);

  EXPECT_EQ(dlmallopt(-3, 1 << 21), 1);
  EXPECT_EQ(GeneralHeapParameters().mmapThreshold, std::size_t(1) << 21);

  // The lock switch is stored although the call reports a refusal.
  EXPECT_EQ(dlmallopt(-4, 0), 0);
  EXPECT_EQ(GeneralHeapParameters().lockUse, 0u);
  EXPECT_EQ(dlmallopt(-4, 2), 0);
  EXPECT_EQ(GeneralHeapParameters().lockUse, 2u);

  EXPECT_EQ(dlmallopt(-5, 1 << 30), 1);
  EXPECT_EQ(dlmalloc_memory_limit(), std::size_t(1) << 30);

  // Unknown numbers change no stored parameter (the set-up still runs).
  for (int unknown : {0, 1, 2, 5, -6, -100}) {
    const HeapParameterView before = GeneralHeapParameters();
    EXPECT_EQ(dlmallopt(unknown, 4096), 0) << unknown;
    const HeapParameterView after = GeneralHeapParameters();
    EXPECT_EQ(std::memcmp(&before, &after, offsetof(HeapParameterView, lockUseInForce)), 0) << unknown;
    EXPECT_EQ(after.memoryLimitInForce, std::size_t(1) << 30);
  }
}

TEST_F(HeapParameters, ValuesAreWidenedWithTheirSign) {
  EXPECT_EQ(dlmallopt(-1, -1), 1);
  EXPECT_EQ(GeneralHeapParameters().trimThreshold, kMaxSize);
  EXPECT_EQ(dlmallopt(-5, -1), 1);
  EXPECT_EQ(dlmalloc_memory_limit(), kMaxSize);
  EXPECT_EQ(dlmallopt(-5, -2), 1);
  EXPECT_EQ(mem_MemoryLimit(), kMaxSize - 1);
}

TEST_F(HeapParameters, LockSwitchAndLimitTakeEffectOnlyAtTheNextMalloptCall) {
  EXPECT_EQ(dlmallopt(-4, 0), 0);
  EXPECT_EQ(GeneralHeapParameters().lockUseInForce, 2u);
  // Ordinary calls do not refresh the working copies.
  dlfree(dlmalloc(100));
  EXPECT_EQ(GeneralHeapParameters().lockUseInForce, 2u);
  EXPECT_EQ(dlmallopt(-5, 123456789), 1);
  HeapParameterView v = GeneralHeapParameters();
  EXPECT_EQ(v.lockUseInForce, 0u);
  EXPECT_EQ(v.memoryLimitInForce, 0u);
  EXPECT_EQ(dlmalloc_memory_limit(), 123456789u);
  EXPECT_EQ(dlmallopt(42, 0), 0);  // even a refused call runs the set-up
  v = GeneralHeapParameters();
  EXPECT_EQ(v.memoryLimitInForce, 123456789u);
  // Unlocked, the heap still works (this test runs on one thread).
  std::vector<void*> blocks;
  for (int i = 0; i < 100; ++i) blocks.push_back(dlmalloc(static_cast<std::size_t>(i) * 40));
  for (void* p : blocks) dlfree(p);
  ExpectConsistent();
}

TEST(HeapStatistics, MallinfoFieldsAddUpAndMatchTheWalk) {
  std::vector<void*> blocks;
  for (int i = 1; i < 200; ++i) blocks.push_back(dlmalloc(static_cast<std::size_t>(i) * 97));
  for (std::size_t i = 0; i < blocks.size(); i += 3) dlfree(blocks[i]);
  void* mapped = dlmalloc(std::size_t(3) << 20);
  ASSERT_NE(mapped, nullptr);

  const dl_mallinfo info = dlmallinfo();
  const auto walk = CheckGeneralHeap();
  ASSERT_TRUE(walk.consistent) << walk.problem;
  const std::size_t footprint = dlmalloc_footprint();
  EXPECT_EQ(info.arena + info.hblkhd, footprint);
  EXPECT_GE(info.hblkhd, std::size_t(3) << 20);
  EXPECT_EQ(info.uordblks + info.fordblks, footprint);
  EXPECT_EQ(info.usmblks, dlmalloc_max_footprint());
  EXPECT_EQ(info.keepcost, walk.topSize);
  EXPECT_EQ(info.ordblks, walk.freeChunks + 1);
  EXPECT_EQ(info.smblks + info.hblks + info.fsmblks, 0u);

  const mem_DLMallinfoRec rec = mem_DLMallinfo();
  EXPECT_EQ(rec.arena, info.arena);
  EXPECT_EQ(rec.ordblks, info.ordblks);
  EXPECT_EQ(rec.hblkhd, info.hblkhd);
  EXPECT_EQ(rec.usmblks, info.usmblks);
  EXPECT_EQ(rec.uordblks, info.uordblks);
  EXPECT_EQ(rec.fordblks, info.fordblks);
  EXPECT_EQ(rec.keepcost, info.keepcost);

  dlfree(mapped);
  EXPECT_EQ(dlmallinfo().hblkhd, info.hblkhd - (footprint - dlmalloc_footprint()));
  for (std::size_t i = 0; i < blocks.size(); ++i)
    if (i % 3 != 0) dlfree(blocks[i]);
  ExpectConsistent();
}

TEST(HeapStatistics, DirectMappingsComeAndGoWithTheirBlocks) {
  const std::size_t before = dlmalloc_footprint();
  const std::size_t mappedBefore = dlmallinfo().hblkhd;
  void* p = dlmalloc(std::size_t(5) << 20);
  ASSERT_NE(p, nullptr);
  EXPECT_GE(dlmalloc_usable_size(p), std::size_t(5) << 20);
  EXPECT_GE(dlmallinfo().hblkhd - mappedBefore, std::size_t(5) << 20);
  EXPECT_GE(dlmalloc_max_footprint(), dlmalloc_footprint());
  std::memset(p, 0x5A, std::size_t(5) << 20);
  dlfree(p);
  EXPECT_EQ(dlmalloc_footprint(), before);
  EXPECT_EQ(dlmallinfo().hblkhd, mappedBefore);
}

TEST(HeapFragmentation, LargestFreeChunkMatchesTheWalkAndSeesAFreedHole) {
  // Holes 1 and 3 between blocks still in use; nothing below allocates
  // until the three values are read.
  void* blocks[6];
  for (void*& b : blocks) b = dlmalloc(150000);
  const std::size_t chunk = dlmalloc_usable_size(blocks[1]) + sizeof(std::size_t);
  dlfree(blocks[1]);
  dlfree(blocks[3]);
  const std::size_t largest = dlfragmentationinfo();
  const std::size_t viaFrontDoor = mem_FragmentationInfo();
  const std::size_t walked = CheckGeneralHeap().largestFree;
  EXPECT_GE(largest, chunk);
  EXPECT_EQ(largest, walked);
  EXPECT_EQ(viaFrontDoor, largest);
  for (int i : {0, 2, 4, 5}) dlfree(blocks[i]);
}

std::size_t FillAndEmpty() {
  std::vector<void*> blocks;
  for (int i = 0; i < 64; ++i) blocks.push_back(dlmalloc(100000));  // below the mapping threshold
  const std::size_t peak = dlmalloc_footprint();
  for (void* p : blocks) dlfree(p);
  return peak;
}

TEST_F(HeapParameters, ATopAboveTheTrimThresholdIsGivenBackOnFree) {
  const std::size_t peak = FillAndEmpty();
  // How much of the freed space ends in the top chunk depends on where the
  // system placed the runs (runs between foreign mappings are segments of
  // their own), so check what the trim promises: memory went back, and no
  // free left the top above the threshold.
  EXPECT_LT(dlmalloc_footprint(), peak);
  EXPECT_LE(dlmallinfo().keepcost, std::size_t(2097152));
  dlmalloc_trim(0);
  EXPECT_EQ(dlmalloc_trim(0), 0);  // nothing left to give back
  EXPECT_EQ(mem_Trim(0), 0);
  ExpectConsistent();
}

TEST_F(HeapParameters, WithoutAutomaticTrimmingOnlyAnExplicitTrimGivesBack) {
  ASSERT_EQ(dlmallopt(-1, -1), 1);
  const std::size_t peak = FillAndEmpty();
  EXPECT_EQ(dlmalloc_footprint(), peak);
  EXPECT_EQ(dlmalloc_trim(1 << 20), 1);
  EXPECT_LE(dlmalloc_footprint() + 4000000, peak);
  EXPECT_EQ(dlmalloc_trim(1 << 20), 0);
  // The pad stays in the heap (at the top, or at the front of the segment the
  // free space gathered in): a request of that order needs no new memory.
  const std::size_t kept = dlmalloc_footprint();
  void* p = dlmalloc(std::size_t(1) << 19);
  EXPECT_EQ(dlmalloc_footprint(), kept);
  dlfree(p);
  ExpectConsistent();
}

TEST(HeapAlignment, MemalignHonoursEveryPowerOfTwoFromSmallToMapped) {
  std::vector<void*> blocks;
  for (std::size_t align = 8; align <= (std::size_t(1) << 16); align <<= 1) {
    for (std::size_t size : {std::size_t(1), std::size_t(100), std::size_t(5000), std::size_t(300000)}) {
      void* p = dlmemalign(align, size);
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % align, 0u) << align << " " << size;
      EXPECT_GE(dlmalloc_usable_size(p), size);
      std::memset(p, 0xC3, size);
      blocks.push_back(p);
    }
  }
  // A non-power-of-two alignment is rounded up to the next power of two.
  void* odd = dlmemalign(48, 10);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(odd) % 64, 0u);
  blocks.push_back(odd);
  ExpectConsistent();
  for (void* p : blocks) dlfree(p);
  ExpectConsistent();
}

TEST(HeapFrontDoor, TheGeneralHeapServesEveryDefaultAllocation) {
  EXPECT_TRUE(mem_UseDL());
  void* viaMalloc = mem_Malloc(1000);
  int* viaNew = new int[10];
  void* viaAligned = ::operator new(100, std::align_val_t(512));
  EXPECT_GE(dlmalloc_usable_size(viaMalloc), 1000u);
  EXPECT_GE(dlmalloc_usable_size(viaNew), 40u);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(viaAligned) % 512, 0u);
  EXPECT_EQ(mem_Footprint(), dlmalloc_footprint());
  EXPECT_EQ(mem_MaxFootprint(), dlmalloc_max_footprint());
  EXPECT_EQ(mem_ErrorMemoryLimit(), error_memory_limit());
  EXPECT_EQ(mem_Mallopt(-4, 2), 0);
  EXPECT_EQ(mem_Mallopt(-3, 262144), 1);
  EXPECT_EQ(mem_Mallopt(7, 1), 0);
  ::operator delete(viaAligned, std::align_val_t(512));
  delete[] viaNew;
  mem_Free(viaMalloc);
}

TEST(HeapRealloc, ZeroBytesFreesNullAllocatesAndContentsSurviveMoves) {
  void* p = dlrealloc(nullptr, 40);
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "0123456789", 10);
  void* guard = dlmalloc(40);  // forces a move on growth
  p = dlrealloc(p, 400000);    // into a mapping
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::memcmp(p, "0123456789", 10), 0);
  p = dlrealloc(p, 20);  // back out of the mapping
  EXPECT_EQ(std::memcmp(p, "0123456789", 10), 0);
  EXPECT_EQ(dlrealloc(p, 0), nullptr);
  dlfree(guard);
  EXPECT_EQ(dlmalloc_usable_size(nullptr), 0u);
  EXPECT_EQ(dlmalloc(std::size_t(1) << 62), nullptr);
  EXPECT_EQ(dlcalloc(std::size_t(1) << 40, std::size_t(1) << 40), nullptr);
  ExpectConsistent();
}

}  // namespace

namespace {

// The walk is only worth running if it notices damage: overwrite the head word
// of the chunk after a block (one word past its usable bytes) and put it back.
TEST(HeapWalk, ReportsADamagedBoundaryTagAndPassesOnceRepaired) {
  char* p = static_cast<char*>(dlmalloc(200));
  void* guard = dlmalloc(200);
  ASSERT_TRUE(CheckGeneralHeap().consistent);
  std::size_t saved;
  char* head = p + dlmalloc_usable_size(p);
  std::memcpy(&saved, head, sizeof saved);
  const std::size_t bogus = saved ^ 0x100;  // a different size, same flags
  std::memcpy(head, &bogus, sizeof bogus);
  const auto damaged = CheckGeneralHeap();
  std::memcpy(head, &saved, sizeof saved);
  EXPECT_FALSE(damaged.consistent);
  EXPECT_NE(damaged.problem[0], '\0');
  const auto repaired = CheckGeneralHeap();
  EXPECT_TRUE(repaired.consistent) << repaired.problem;
  dlfree(guard);
  dlfree(p);
}

}  // namespace

namespace {

// Alignments no address space can honour are refused, whatever their bit pattern.
TEST(HeapBadInput, AbsurdAlignmentsAndSizesAreRefusedAndTheHeapStaysWhole) {
  const std::size_t absurd[] = {kMaxSize, kMaxSize - 1, (kMaxSize >> 1) + 2, std::size_t(1) << 63,
                                (std::size_t(1) << 62) + 1, std::size_t(1) << 61};
  for (std::size_t alignment : absurd) {
    EXPECT_EQ(dlmemalign(alignment, 16), nullptr) << alignment;
    EXPECT_EQ(dlmemalign(alignment, kMaxSize), nullptr) << alignment;
  }
  EXPECT_EQ(dlmemalign(64, kMaxSize), nullptr);
  EXPECT_EQ(dlmemalign(64, kMaxSize - 4096), nullptr);
  EXPECT_EQ(dlmalloc(kMaxSize), nullptr);
  EXPECT_EQ(dlmalloc(kMaxSize - 16), nullptr);
  EXPECT_EQ(dlcalloc(kMaxSize, 2), nullptr);
  EXPECT_EQ(dlcalloc(std::size_t(1) << 32, (std::size_t(1) << 32) + 1), nullptr);
  char* p = static_cast<char*>(dlmalloc(100));
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "kept", 5);
  for (std::size_t huge : {kMaxSize, kMaxSize - 64, std::size_t(1) << 62, std::size_t(1) << 47})
    EXPECT_EQ(dlrealloc(p, huge), nullptr) << huge;
  EXPECT_STREQ(p, "kept");  // a refused reallocation leaves the block alone
  // A freed block reports no usable bytes.
  void* guard = dlmalloc(100);
  dlfree(p);
  EXPECT_EQ(dlmalloc_usable_size(p), 0u);
  dlfree(guard);
  ExpectConsistent();
}

}  // namespace
