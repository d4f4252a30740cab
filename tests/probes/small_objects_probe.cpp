// Fresh-process scenarios for the small-object allocator: what mem_TBAllocator routes
// where, and eight threads under the process-wide lock freeing each other's blocks.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "mem/internal/alloc_table.h"
#include "mem/pools/internal/small_objects.h"
#include "probes/probe_main.h"

namespace {

using zmx::mem_internal::HasSmallObjectMark;
namespace small_objects = zmx::mem_internal::small_objects;

void Up() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

// Calls through volatile pointers so the compiler keeps every new/delete pair.
void* (*volatile g_new)(std::size_t) = &::operator new;
void (*volatile g_delete)(void*) = &::operator delete;

int Small(const void* p) { return HasSmallObjectMark(p) ? 1 : 0; }
int Intact() {
  std::string problem;
  const bool ok = small_objects::Instance()->Check(&problem);
  if (!ok) std::fprintf(stderr, "%s\n", problem.c_str());
  return ok ? 1 : 0;
}

void FrontDoor() {
  Up();
  mem_TBAllocator(2);
  void* n = g_new(100);
  void* m = mem_Malloc(100);
  void* big = mem_Malloc(129);
  void* c = mem_Calloc(1, 16);
  std::printf("new 100 small=%d\nmalloc 100 small=%d\nmalloc 129 small=%d\ncalloc 16 small=%d\n", Small(n),
              Small(m), Small(big), Small(c));
  auto* r = static_cast<char*>(mem_Malloc(20));
  std::memcpy(r, "nineteen characters", 20);
  auto* r2 = static_cast<char*>(mem_Realloc(r, 200));
  std::printf("realloc 20->200 small=%d copied=%d\n", Small(r2), std::strcmp(r2, "nineteen characters") == 0);
  // 4-byte slots sit 4 bytes apart: an 8-byte aligned request must not land in one.
  void* a8[2] = {::operator new(4, std::align_val_t(8)), ::operator new(4, std::align_val_t(8))};
  std::printf("aligned8=%d\n", (reinterpret_cast<std::uintptr_t>(a8[0]) | reinterpret_cast<std::uintptr_t>(a8[1])) % 8 == 0);
  for (void* p : a8) ::operator delete(p, std::align_val_t(8));
  mem_TBAllocator(0);
  void* after = g_new(16);
  std::printf("new after off small=%d\n", Small(after));
  g_delete(n);  // handed out before the switch-off: still goes home
  mem_Free(m);
  for (void* p : {big, c, static_cast<void*>(r2), after}) mem_Free(p);
  std::printf("pages=%d intact=%d\n", small_objects::Instance()->PageCount(), Intact());
}

// Each block carries its owner's pattern; a quarter of the blocks are handed to
// other threads through a shared exchange and freed there.
using Block = std::pair<unsigned char*, std::size_t>;
struct Exchange {
  std::mutex lock;
  std::vector<Block> blocks;
};

void Release(const Block& b, int& damaged) {
  std::size_t i = 1;
  while (i < b.second && b.first[i] == static_cast<unsigned char>(b.first[0] + i)) ++i;
  damaged += i < b.second;
  mem_Free(b.first);
}

void Worker(int id, Exchange& exchange, int& damaged) {
  std::mt19937 rng(id);
  std::vector<Block> mine;
  for (int step = 0; step < 150000; ++step) {
    const unsigned r = rng();
    if (mine.size() < 200 || r % 2 == 0) {
      const std::size_t bytes = 1 + rng() % 128;
      auto* p = static_cast<unsigned char*>(r % 3 == 0 ? g_new(bytes) : mem_Malloc(bytes));
      for (std::size_t i = 0; i < bytes; ++i) p[i] = static_cast<unsigned char>(step + i);
      if (r % 4 != 1) {
        mine.emplace_back(p, bytes);
        continue;
      }
      std::lock_guard<std::mutex> hold(exchange.lock);
      exchange.blocks.emplace_back(p, bytes);
      continue;
    }
    Block victim{nullptr, 0};
    if (r % 5 == 1) {
      std::lock_guard<std::mutex> hold(exchange.lock);
      if (!exchange.blocks.empty()) {
        victim = exchange.blocks.back();
        exchange.blocks.pop_back();
      }
    }
    if (victim.first == nullptr) {
      const std::size_t k = rng() % mine.size();
      victim = mine[k];
      mine[k] = mine.back();
      mine.pop_back();
    }
    Release(victim, damaged);
  }
  for (const Block& b : mine) Release(b, damaged);
}

void Threads() {
  Up();
  mem_TBAllocator(2);
  mem_TBThreadLock(true);
  Exchange exchange;
  int damaged[8] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) threads.emplace_back(Worker, t, std::ref(exchange), std::ref(damaged[t]));
  for (auto& t : threads) t.join();
  int total = 0;
  for (int d : damaged) total += d;
  for (const Block& b : exchange.blocks) Release(b, total);
  std::printf("threads=8 damaged=%d intact=%d\n", total, Intact());
}

const zmx_probe::Scenario kScenarios[] = {{"front_door", FrontDoor}, {"threads", Threads}};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
