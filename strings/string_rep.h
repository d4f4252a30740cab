// atr_StringRep: the shared, reference-counted representation behind every
// string handle of the library, with its block-sized allocation operators.
//
// Layout: three 32-bit header words (reference count, capacity, length). Small
// texts (up to 238 characters) live in the same allocation right behind the
// header, in blocks of 32, 64, ... 256 bytes; longer texts get a separate buffer
// of exactly length + 1 bytes. A capacity of 0 marks borrowed text that the
// representation neither owns nor frees.
#ifndef ZMXUTI_STRINGS_STRING_REP_H
#define ZMXUTI_STRINGS_STRING_REP_H

#include <cstddef>

#include "core/export.h"

class ZMXUTI_API atr_StringRep {
 public:
  // Bytes of the header; inline text starts right behind it.
  static constexpr int kHeaderBytes = 12;
  // Largest number of extra 32-byte blocks a representation with inline text uses.
  static constexpr int kMaxInlineBlocks = 7;
  // Largest text length kept inline (capacity 244 in a 256-byte block).
  static constexpr int kMaxInlineLength = 238;

  // Reference count 1, the given length and capacity (text storage in bytes, NUL included).
  atr_StringRep(int length, int capacity) : m_refCount(1), m_capacity(capacity), m_length(length) {}

  void Increment() { ++m_refCount; }
  // True when the count has reached zero.
  bool Decrement() { return --m_refCount == 0; }

  int RefCount() const { return m_refCount; }
  int Capacity() const { return m_capacity; }
  int Length() const { return m_length; }
  void SetLength(int length) { m_length = length; }

  // Storage of inline text: the bytes right behind the header.
  char* InlineText() { return reinterpret_cast<char*>(this) + kHeaderBytes; }
  const char* InlineText() const { return reinterpret_cast<const char*>(this) + kHeaderBytes; }

  // Number of extra 32-byte blocks for room of n characters: (n + 17) >> 5. A
  // result above kMaxInlineBlocks means the text goes to a separate buffer.
  static int BlocksFor(int n) { return (n + 17) >> 5; }
  // Capacity of an inline representation with `blocks` extra blocks: 32 * blocks + 20.
  static int InlineCapacity(int blocks) { return 32 * blocks + 20; }

  // Header-only representation (long, borrowed or adopted text); counted as
  // "Reps Created" when statistics are on.
  static void* operator new(std::size_t size);
  // Representation with inline text in 32 * (blocks + 1) bytes; counted as
  // "Strings Created" with capacity 32 * blocks + 20 when statistics are on.
  static void* operator new(std::size_t size, int blocks);
  // Plain release through mem_Free; the statistics of a release are recorded
  // by the handle that releases (it knows the length and whether text was inline).
  static void operator delete(void* block);
  static void operator delete(void* block, int blocks);

 private:
  int m_refCount;  // handles sharing this representation
  int m_capacity;  // owned text bytes, NUL included; 0 = borrowed text
  int m_length;    // text bytes, NUL excluded
  // Do not add fields: inline text starts kHeaderBytes behind `this`.
};

static_assert(sizeof(atr_StringRep) == atr_StringRep::kHeaderBytes, "inline text must follow three header words");

#endif  // ZMXUTI_STRINGS_STRING_REP_H
