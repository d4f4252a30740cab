// The byte-order conversion routines: each element's bytes reversed on the way
// to or from an external buffer of any alignment.
#include "containers/swapper.h"

#include <cstring>

namespace {

// Reverses the bytes of each of `count` elements of `width` bytes from src to dest.
void ReverseEach(char* dest, const char* src, int count, std::size_t width) {
  if (count <= 0) return;
  const std::size_t n = static_cast<std::size_t>(count);
  for (std::size_t i = 0; i < n; ++i) {
    const char* from = src + i * width;
    char* to = dest + i * width;
    for (std::size_t b = 0; b < width; ++b) to[b] = from[width - 1 - b];
  }
}

}  // namespace

void omi_SwapperGuts::ExternalizeArray(char* dest, const unsigned short* src, int count) {
  ReverseEach(dest, reinterpret_cast<const char*>(src), count, sizeof(*src));
}

void omi_SwapperGuts::ExternalizeArray(char* dest, const unsigned int* src, int count) {
  ReverseEach(dest, reinterpret_cast<const char*>(src), count, sizeof(*src));
}

void omi_SwapperGuts::ExternalizeArray(char* dest, const uint64_t* src, int count) {
  ReverseEach(dest, reinterpret_cast<const char*>(src), count, sizeof(*src));
}

void omi_SwapperGuts::InternalizeArray(const char* src, unsigned short* dest, int count) {
  ReverseEach(reinterpret_cast<char*>(dest), src, count, sizeof(*dest));
}

void omi_SwapperGuts::InternalizeArray(const char* src, unsigned int* dest, int count) {
  ReverseEach(reinterpret_cast<char*>(dest), src, count, sizeof(*dest));
}

void omi_SwapperGuts::InternalizeArray(const char* src, uint64_t* dest, int count) {
  ReverseEach(reinterpret_cast<char*>(dest), src, count, sizeof(*dest));
}

void omi_SwapperGuts::CopyBytes(void* dest, const void* src, int bytes) {
  if (bytes > 0) std::memcpy(dest, src, static_cast<std::size_t>(bytes));
}
