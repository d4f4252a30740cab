// Allocation operators of atr_StringRep: one front-door block for header plus
// inline text, or a header alone, counted in the string statistics when on.
#include "strings/string_rep.h"

#include "mem/allocation.h"
#include "strings/internal/string_stats.h"

using zmx::atr_internal::RecordCreation;

void* atr_StringRep::operator new(std::size_t size) {
  RecordCreation(false, 0);
  return mem_OperatorNewThrowBuiltin(size);
}

void* atr_StringRep::operator new(std::size_t, int blocks) {
  const int capacity = InlineCapacity(blocks);
  RecordCreation(true, capacity);
  return mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(capacity) + kHeaderBytes);
}

void atr_StringRep::operator delete(void* block) { mem_Free(block); }

void atr_StringRep::operator delete(void* block, int) { mem_Free(block); }
