// Fresh-process scenarios for the guarded heap (started with ZEM_DEADBEEF set,
// since the allocator is chosen once per process) and for the memory-fault
// exercisers. Scenarios print the addresses the guards should name, so the
// test can compare standard error byte for byte.
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

void Up() { zmx_probe::BringUp(UTI_CoreUtils_initialize); }

// Hides a pointer's origin so the compiler keeps the deliberate stray writes.
template <typename T>
T* Opaque(T* pointer) {
  __asm__ volatile("" : "+r"(pointer) : : "memory");
  return pointer;
}

void PrintAddress(const void* p) { std::printf("%x\n", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p))); }

// ---------------------------------------------------------------- breaches

void BackOverrun() {
  Up();
  char* block = Opaque(static_cast<char*>(mem_Malloc(10)));
  block[10] = 'X';
  PrintAddress(block + 10);
  mem_Free(block);
}

void FrontUnderrunRealloc() {
  Up();
  char* block = Opaque(static_cast<char*>(mem_Malloc(10)));
  std::memcpy(block, "0123456789", 10);
  block[-1] = 'X';
  PrintAddress(block - 16);
  char* moved = static_cast<char*>(mem_Realloc(block, 100));
  std::printf("kept %d\n", std::memcmp(moved, "0123456789", 10) == 0 ? 1 : 0);
  mem_Free(moved);
}

void BothEnds() {
  Up();
  char* block = Opaque(static_cast<char*>(mem_Malloc(10)));
  block[-16] = 'X';
  block[25] = 'X';  // the back guard's last byte
  PrintAddress(block - 16);
  PrintAddress(block + 10);
  mem_Free(block);
}

// Size words damaged by stray writes: one claiming far more than its block
// holds, one with the top bit that aligned blocks carry. The back check of
// each is reported at the address the word names; nothing outside the
// runtime blocks is touched (as memcheck confirms).
void DamagedSizeWords() {
  Up();
  for (const std::uint64_t word : {std::uint64_t{1} << 44, (std::uint64_t{1} << 63) | 5}) {
    char* block = Opaque(static_cast<char*>(mem_Malloc(10)));
    std::memcpy(block - 24, &word, sizeof word);
    PrintAddress(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(block) + word));
    mem_Free(block);
  }
}

// Every path that must stay silent on intact or null blocks.
void Quiet() {
  Up();
  mem_Free(nullptr);
  mem_cFree(nullptr);
  void* grown = mem_Realloc(nullptr, 10);
  grown = mem_Realloc(grown, 0);
  mem_Free(grown);
  std::printf("usedl=%d footprint=%zu\n", mem_UseDL() ? 1 : 0, mem_Footprint());
}

// ------------------------------------------------------------------ layout

// The size word, both guards and whether the runtime block holds them all;
// for a zero-filled block also how many leading bytes are zero.
void PrintLayout(const char* name, const unsigned char* user, std::size_t size, bool zeroed) {
  std::uint64_t sizeWord;
  std::memcpy(&sizeWord, user - 24, 8);
  std::printf("%s size=%llu front=%.16s back=%.16s room=%d", name, static_cast<unsigned long long>(sizeWord),
              reinterpret_cast<const char*>(user - 16), reinterpret_cast<const char*>(user + size),
              malloc_usable_size(const_cast<unsigned char*>(user - 24)) >= size + 40 ? 1 : 0);
  std::size_t zeros = 0;
  while (zeroed && zeros < size && user[zeros] == 0) ++zeros;
  if (zeroed) std::printf(" zeros=%zu", zeros);
  std::printf("\n");
}

void Layout() {
  Up();
  auto* cleared = static_cast<unsigned char*>(mem_Calloc(3, 8));
  PrintLayout("calloc(3,8)", cleared, 24, true);
  auto* odd = static_cast<unsigned char*>(mem_Malloc(13));
  PrintLayout("malloc(13)", odd, 13, false);
  auto* empty = static_cast<unsigned char*>(mem_Malloc(0));
  PrintLayout("malloc(0)", empty, 0, false);
  for (void* block : {static_cast<void*>(cleared), static_cast<void*>(odd), static_cast<void*>(empty)}) mem_Free(block);
}

// Names the fault's kind on stdout, then dies of it as an unhandled one would.
void NameTheFault(int signal, siginfo_t* info, void*) {
  const char text[] = "integer division\n";
  if (info->si_code == FPE_INTDIV) (void)!write(STDOUT_FILENO, text, sizeof text - 1);
  std::signal(signal, SIG_DFL);
  raise(signal);
}

void CallocZeroSize() {
  Up();
  struct sigaction action = {};
  action.sa_sigaction = NameTheFault;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGFPE, &action, nullptr);
  void* block = mem_Calloc(3, 0);
  std::printf("survived %p\n", block);
}

void Overflow() {
  Up();
  char* block = static_cast<char*>(mem_Malloc(8));
  std::memcpy(block, "intact!", 8);
  std::printf("malloc=%d calloc=%d calloc_pad=%d realloc=%d\n", mem_Malloc(SIZE_MAX - 39) == nullptr,
              mem_Calloc(SIZE_MAX / 2, 3) == nullptr, mem_Calloc(1, SIZE_MAX - 20) == nullptr,
              mem_Realloc(block, SIZE_MAX - 1) == nullptr);
  std::printf("%s\n", block);
  mem_Free(block);
}

// --------------------------------------------------------------- operators

struct alignas(64) Wide {
  char bytes[64];
};

void Operators() {
  Up();
  char* text = Opaque(new char[10]);
  text[10] = 'X';
  PrintAddress(text + 10);
  delete[] text;

  Wide* wide = Opaque(new Wide);
  std::printf("aligned=%d\n", reinterpret_cast<std::uintptr_t>(wide) % alignof(Wide) == 0 ? 1 : 0);
  std::memset(wide->bytes, 'w', sizeof wide->bytes);
  reinterpret_cast<char*>(wide)[-1] = 'X';
  PrintAddress(reinterpret_cast<char*>(wide) - 16);
  delete wide;

  // An aligned block moved by realloc keeps its bytes and gets plain guards.
  char* moved = static_cast<char*>(mem_Realloc(new Wide, 200));
  std::memset(moved, 'm', 200);
  moved[200] = 'X';
  PrintAddress(moved + 200);
  mem_Free(Opaque(moved));
}

// ---------------------------------------------------------- randomized run

// A block and what it must hold.
struct Slot {
  unsigned char* block = nullptr;
  std::vector<unsigned char> model;
};

bool Matches(const Slot& s) {
  return s.model.empty() || std::memcmp(s.block, s.model.data(), s.model.size()) == 0;
}

// Allocates, zero-allocates, moves or frees one slot; fresh bytes get random content.
void Step(Slot& s, std::mt19937& rng) {
  std::size_t size = rng() % 4 == 0 ? rng() % 5000 : rng() % 300;
  const std::size_t kept = std::min(size, s.model.size());
  switch (s.block == nullptr ? rng() % 2 : 2 + rng() % 2) {
    case 0: s.block = static_cast<unsigned char*>(mem_Malloc(size)); break;
    case 1: {
      const std::size_t count = 1 + size % 8, each = 1 + size % 40;
      s.block = static_cast<unsigned char*>(mem_Calloc(count, each));
      s.model.assign(count * each, 0);  // must arrive zeroed
      return;
    }
    case 2: s.block = static_cast<unsigned char*>(mem_Realloc(s.block, size)); break;
    default:
      mem_Free(s.block);
      s = Slot();
      return;
  }
  s.model.resize(size);
  for (std::size_t i = kept; i < size; ++i) s.block[i] = s.model[i] = static_cast<unsigned char>(rng());
}

void Randomized() {
  Up();
  std::mt19937 rng(static_cast<unsigned>(std::strtoul(zmx_probe::Arg(2), nullptr, 10)));
  std::vector<Slot> slots(64);
  int bad = 0;
  for (int op = 0; op < 20000; ++op) {
    Slot& s = slots[rng() % slots.size()];
    Step(s, rng);
    bad += !Matches(s);
  }
  for (Slot& s : slots) {
    bad += !Matches(s);
    mem_Free(s.block);
  }
  std::printf("mismatches %d\n", bad);
}

// ---------------------------------------------------------------- exercisers

// Runs the exported exerciser named by the second argument; "returned" tells it came back.
void Exercise() {
  Up();
  auto* exerciser = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, zmx_probe::Arg(2)));
  if (exerciser == nullptr) std::exit(3);
  exerciser();
  std::printf("returned\n");
}

}  // namespace

int main(int argc, char** argv) {
  static const zmx_probe::Scenario scenarios[] = {
      {"back_overrun", BackOverrun}, {"front_underrun_realloc", FrontUnderrunRealloc}, {"both_ends", BothEnds},
      {"damaged_size", DamagedSizeWords}, {"quiet", Quiet}, {"layout", Layout}, {"calloc_zero_size", CallocZeroSize},
      {"overflow", Overflow}, {"operators", Operators}, {"randomized", Randomized}, {"exercise", Exercise},
  };
  return zmx_probe::Dispatch(argc, argv, scenarios);
}
