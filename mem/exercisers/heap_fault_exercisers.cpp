// Heap fault exercisers: overrun, underrun, use after free, double free,
// uninitialised read, leak and mismatched release, each on blocks from the
// front door.
#include "mem/allocation.h"
#include "mem/exercisers/fault_exercisers.h"
#include "mem/exercisers/internal/fault_exerciser_support.h"

namespace zmx {
namespace mem_internal {

namespace {
volatile int g_decisions = 0;
}  // namespace

ZMX_NOINLINE void NoteUninitialisedDecision() { g_decisions = g_decisions + 1; }

}  // namespace mem_internal
}  // namespace zmx

using zmx::mem_internal::NoteUninitialisedDecision;
using zmx::mem_internal::Opaque;

namespace {

// Past the free-list links any heap keeps at the front of a freed block, so a
// use after free does not also wreck the heap's own lists.
constexpr int kFreedBlockSize = 64;
constexpr int kFreedByte = 48;

}  // namespace

ZMX_FAULT_EXERCISER void mem_heap_overwrite1() {
  volatile char* block = Opaque(static_cast<char*>(mem_Malloc(10)));
  block[10] = 'X';
  mem_Free(const_cast<char*>(block));
}

ZMX_FAULT_EXERCISER void mem_heap_underwrite1() {
  volatile char* block = Opaque(static_cast<char*>(mem_Malloc(10)));
  block[-1] = 'X';
  mem_Free(const_cast<char*>(block));
}

ZMX_FAULT_EXERCISER void mem_heap_read_after_free1() {
  char* block = static_cast<char*>(mem_Malloc(kFreedBlockSize));
  block[kFreedByte] = 'A';
  mem_Free(block);
  volatile char* stale = Opaque(block);
  const char seen = stale[kFreedByte];
  (void)seen;
}

ZMX_FAULT_EXERCISER void mem_heap_write_after_free1() {
  char* block = static_cast<char*>(mem_Malloc(kFreedBlockSize));
  mem_Free(block);
  volatile char* stale = Opaque(block);
  stale[kFreedByte] = 'X';
}

ZMX_FAULT_EXERCISER void mem_heap_double_free1() {
  void* block = mem_Malloc(32);
  mem_Free(block);
  mem_Free(Opaque(block));
}

ZMX_FAULT_EXERCISER void mem_heap_umr1() {
  volatile unsigned char* block = Opaque(static_cast<unsigned char*>(mem_Malloc(16)));
  if (block[7] == 0x5A) NoteUninitialisedDecision();
  mem_Free(const_cast<unsigned char*>(block));
}

ZMX_FAULT_EXERCISER void mem_heap_leak1() {
  char* volatile block = static_cast<char*>(mem_Malloc(100));
  for (int i = 0; i < 100; ++i) block[i] = 'L';
  block = nullptr;  // the last copy of the address
}

ZMX_FAULT_EXERCISER void mem_heap_mismatch_array_delete1() {
  int* values = new int[10];
  values[0] = 1;
  delete Opaque(values);
}

ZMX_FAULT_EXERCISER void mem_heap_mismatch_malloc_delete1() {
  int* value = static_cast<int*>(mem_Malloc(sizeof(int)));
  *value = 1;
  delete Opaque(value);
}
